#pragma once

// How the exported functions read a handle argument.

#include <traiklofox/handle.h>

#include <typeinfo>

namespace traiklofox::kernel {

/// Null and INVALID_HANDLE_VALUE both stand for no handle.
inline bool isNone(const Handle* handle) {
    return handle == nullptr || handle == INVALID_HANDLE_VALUE;
}

/// The object as its kind, or null when the handle is none or of another kind. Only an object of a class derived from
/// the kind's is asked for its kind, in a virtual call.
template <class Kind>
Kind* handleAs(Handle* handle, HandleKind kind) {
    if (isNone(handle)) return nullptr;
    return &typeid(*handle) == &typeid(Kind) || handle->What() == kind ? static_cast<Kind*>(handle) : nullptr;
}

}  // namespace traiklofox::kernel
