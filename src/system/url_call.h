#pragma once

// url_call.h: how the exported functions over URLs fail and give their texts back.

#include <traiklofox/types.h>

#include <cxxabi.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace traiklofox::system {

/// False, with EINVAL.
inline bool refuse() {
    errno = EINVAL;
    return false;
}

/// The exported edge: lets no exception out.
template <class Body>
BOOL urlCall(Body body) {
    try {
        return body() ? TRUE : FALSE;
    } catch (const abi::__forced_unwind&) {
        throw;       // pthread_cancel: swallowing it aborts the process
    } catch (...) {  // a text that cannot be had
        errno = ENOMEM;
        return FALSE;
    }
}

/// Stores the text with a NUL, and its length; false, with ERANGE and the size needed, when it does not fit.
inline bool giveUrl(std::string_view url, char* buffer, DWORD* length) {
    const auto size = static_cast<DWORD>(url.size());
    if (buffer == nullptr || *length <= size) {
        *length = size + 1;
        errno = ERANGE;
        return false;
    }
    std::memcpy(buffer, url.data(), url.size());
    buffer[size] = '\0';
    *length = size;
    return true;
}

}  // namespace traiklofox::system
