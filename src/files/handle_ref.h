#pragma once

#include <traiklofox/handle.h>

#include <utility>

namespace traiklofox::files {

/// Holds one reference to a handle of a kind, or none.
template <class Kind>
class HandleRef {
  public:
    HandleRef() = default;
    /// Takes a reference of its own.
    explicit HandleRef(Kind* handle) : handle_(handle) {
        if (handle_ != nullptr) handle_->IncRefCount();
    }
    HandleRef(HandleRef&& other) noexcept : handle_(other.release()) {}
    HandleRef& operator=(HandleRef&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~HandleRef() {
        if (handle_ != nullptr) handle_->DecRefCount();
    }

    /// Takes over a reference that the caller has.
    static HandleRef adopt(Kind* handle) {
        HandleRef adopted;
        adopted.handle_ = handle;
        return adopted;
    }
    Kind* release() { return std::exchange(handle_, nullptr); }

    Kind* get() const { return handle_; }
    Kind* operator->() const { return handle_; }
    Kind& operator*() const { return *handle_; }
    explicit operator bool() const { return handle_ != nullptr; }

  private:
    Kind* handle_ = nullptr;
};

}  // namespace traiklofox::files
