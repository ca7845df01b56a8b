#pragma once

#include <traiklofox/types.h>

namespace traiklofox::files {

/// The file time of a Unix time.
constexpr _FILETIME fileTimeOf(LONGLONG seconds) {
    constexpr LONGLONG kUnixEpoch = 11'644'473'600;  // seconds since 1601
    constexpr LONGLONG kTicksPerSecond = 10'000'000;
    const auto ticks = static_cast<ULONGLONG>(seconds + kUnixEpoch) * kTicksPerSecond;
    return {static_cast<DWORD>(ticks & 0xFFFFFFFF), static_cast<DWORD>(ticks >> 32)};
}

}  // namespace traiklofox::files
