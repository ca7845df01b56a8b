// mapping_view.cpp: views of named mappings. What a view's header says of its length, any process may have written;
// ending a view goes by this process's own list.

#include <traiklofox/file_mapping.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <new>

#include "files/arguments.h"
#include "files/mapping_header.h"
#include "foundation/mutex.h"
#include "foundation/sys.h"

namespace sys = traiklofox::sys;

namespace {

using traiklofox::files::kMappingHeader;
using traiklofox::foundation::LockGuard;
using traiklofox::foundation::LockRank;
using traiklofox::foundation::Mutex;

constexpr size_t kLongest = std::numeric_limits<size_t>::max();  // cannot be mapped

/// The views of this process.
class ViewList {
  public:
    /// Never destroyed: other threads may still use views when the process exits.
    static ViewList& get() {
        static auto& list = *new ViewList;
        return list;
    }

    /// May throw `std::bad_alloc`.
    void add(void* mapped, size_t length) {
        const LockGuard guard(lock_);
        lengths_.insert_or_assign(mapped, length);  // the application may have unmapped an old one by itself
    }

    /// Unmaps under the lock, so that nobody gets the address for a new view before the old one is off the list.
    bool unmap(void* mapped) {
        const LockGuard guard(lock_);
        const auto found = lengths_.find(mapped);
        if (found == lengths_.end()) {
            errno = EINVAL;
            return false;
        }
        if (sys::munmap(mapped, found->second) != 0) return false;
        lengths_.erase(found);
        return true;
    }

  private:
    // A fork happens outside what the lock guards, so that the child finds the list whole and the lock free. Its order
    // is not checked there: the fork handlers of lower floors take theirs after it, and nobody else holds both.
    ViewList() { (void)pthread_atfork(lockForFork, unlockAfterFork, unlockAfterFork); }
    static void lockForFork() { pthread_mutex_lock(get().lock_.native()); }
    static void unlockAfterFork() { pthread_mutex_unlock(get().lock_.native()); }

    Mutex<LockRank::Leaf> lock_;
    std::map<void*, size_t> lengths_ TRAIKLOFOX_GUARDED_BY(lock_);
};

/// What lies behind the first bytes of the mapped memory.
void* viewIn(void* mapped) {
    return reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(mapped) + kMappingHeader);
}

size_t lengthFor(SIZE_T bytes, off_t fileSize) {
    if (bytes == 0)
        return static_cast<size_t>(std::min<ULONGLONG>(static_cast<ULONGLONG>(fileSize), kLongest));
    return bytes > kLongest - kMappingHeader ? kLongest : bytes + kMappingHeader;
}

}  // namespace

void* MapViewOfFile(Handle* mapping, DWORD access, DWORD, DWORD offsetLow, SIZE_T bytes) {
    const int fd = traiklofox::files::descriptorOf(mapping);
    if (fd == -1) {
        errno = EINVAL;
        return nullptr;
    }
    struct statx status;
    const off_t fileSize = sys::fstat(fd, &status) == 0 ? static_cast<off_t>(status.stx_size) : 0;
    const size_t length = lengthFor(bytes, fileSize);
    void* mapped = sys::mapShared(length, static_cast<int>(access), fd, static_cast<off_t>(offsetLow));
    if (mapped == MAP_FAILED) return viewIn(mapped);
    try {
        ViewList::get().add(mapped, length);
    } catch (const std::bad_alloc&) {
        (void)sys::munmap(mapped, length);  // just mapped, whole
        errno = ENOMEM;
        return nullptr;
    }
    const bool hasHeader = static_cast<off_t>(offsetLow) + kMappingHeader <= fileSize;
    if (access == FILE_MAP_WRITE && hasHeader) {
        const auto stored = static_cast<DWORD>(length);
        std::memcpy(mapped, &stored, sizeof stored);
    }
    return viewIn(mapped);
}

BOOL UnmapViewOfFile(const void* view) {
    if (view == nullptr) {
        errno = EINVAL;
        return FALSE;
    }
    return ViewList::get().unmap(
        reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(view) - kMappingHeader));
}
