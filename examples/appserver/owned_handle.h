#pragma once

// owned_handle.h: a handle that closes itself.

#include <traiklofox/handle.h>

#include <memory>

namespace appserver {

struct HandleCloser {
    void operator()(Handle* handle) const { CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<Handle, HandleCloser>;

}  // namespace appserver
