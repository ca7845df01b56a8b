// environment.cpp: the process's environment variables.

#include <traiklofox/system_info.h>

#include <cxxabi.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "files/arguments.h"
#include "foundation/mutex.h"

namespace {

using traiklofox::foundation::LockGuard;

/// Looking up and setting exclude each other, which the C library's do not.
constinit traiklofox::foundation::Mutex<traiklofox::foundation::LockRank::Leaf> environmentLock;

/// A fork happens outside of the lock, so that the child finds it free, and the C library's own below it.
void guardForks() {
    static constinit pthread_once_t once = PTHREAD_ONCE_INIT;
    (void)pthread_once(&once, [] {  // cannot fail
        const auto lock = [] { pthread_mutex_lock(environmentLock.native()); };
        const auto unlock = [] { pthread_mutex_unlock(environmentLock.native()); };
        (void)pthread_atfork(lock, unlock, unlock);
    });
}

/// The text with the values in it. Holds the lock: the caller.
std::string expanded(std::string_view source) TRAIKLOFOX_REQUIRES(environmentLock) {
    std::string text;
    while (!source.empty()) {
        const size_t begin = source.find('%');
        const size_t end = begin == source.npos ? begin : source.find('%', begin + 1);
        if (end == source.npos) break;
        const std::string name(source.substr(begin + 1, end - begin - 1));
        const char* value = name.empty() ? nullptr : std::getenv(name.c_str());
        text += source.substr(0, begin);
        if (value != nullptr) {
            text += value;
            source.remove_prefix(end + 1);
        } else {
            // The second sign may be another name's first.
            text += source.substr(begin, end - begin);
            source.remove_prefix(end);
        }
    }
    return text.append(source);
}

}  // namespace

DWORD GetEnvironmentVariable(LPCSTR name, LPSTR buffer, DWORD size) {
    if (!traiklofox::files::isGiven(name)) return 0;
    guardForks();
    const LockGuard guard(environmentLock);
    const char* value = std::getenv(name);
    errno = value != nullptr ? 0 : ENOENT;
    return value != nullptr ? traiklofox::files::giveText(value, buffer, size) : 0;
}

BOOL SetEnvironmentVariable(LPCSTR name, LPCSTR value) {
    if (!traiklofox::files::isGiven(name)) return FALSE;
    guardForks();
    const LockGuard guard(environmentLock);
    const int result = value != nullptr ? ::setenv(name, value, /*replace=*/1) : ::unsetenv(name);
    return result == 0 ? TRUE : FALSE;
}

DWORD ExpandEnvironmentStrings(LPCSTR source, LPSTR buffer, DWORD size) {
    if (!traiklofox::files::isGiven(source)) return 0;
    try {
        std::string text;
        {
            guardForks();
            const LockGuard guard(environmentLock);
            text = expanded(source);
        }
        const DWORD needed = static_cast<DWORD>(text.size()) + 1;
        if (buffer != nullptr && needed <= size) std::memcpy(buffer, text.c_str(), needed);
        return needed;
    } catch (const abi::__forced_unwind&) {
        throw;  // pthread_cancel: swallowing it aborts the process
    } catch (...) {
        errno = ENOMEM;
        return 0;
    }
}
