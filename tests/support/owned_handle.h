#pragma once

#include <traiklofox/handle.h>

#include <memory>

namespace traiklofox::test {

struct HandleCloser {
    void operator()(Handle* handle) const { CloseHandle(handle); }
};
/// A handle that is closed at the end.
using OwnedHandle = std::unique_ptr<Handle, HandleCloser>;

}  // namespace traiklofox::test
