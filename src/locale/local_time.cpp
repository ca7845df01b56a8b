#include "locale/local_time.h"

#include <time.h>

#include <algorithm>
#include <limits>

namespace traiklofox::locale {

namespace {

constexpr LONGLONG kFileTimeEpoch = -11644473600;
constexpr ULONGLONG kTicksPerSecond = 10'000'000;

LONGLONG offsetAt(LONGLONG unixSeconds) {
    // A year that `tm` cannot hold has no offset of its own either.
    constexpr LONGLONG kYear3000 = 32503680000;
    constexpr LONGLONG kFirst = std::max<LONGLONG>(std::numeric_limits<time_t>::min(), -kYear3000 * 3);
    constexpr LONGLONG kLast = std::min<LONGLONG>(std::numeric_limits<time_t>::max(), kYear3000 * 8);
    const auto moment = static_cast<time_t>(std::clamp(unixSeconds, kFirst, kLast));
    tm fields{};
    localtime_r(&moment, &fields);
    return fields.tm_gmtoff;
}

}  // namespace

LONGLONG localSecondsAt(LONGLONG unixSeconds) {
    constexpr LONGLONG kFarAway =
        1'000'000'000'000'000;  // from any date that has a name: sums cannot overflow
    return std::clamp(unixSeconds, -kFarAway, kFarAway) + offsetAt(unixSeconds);
}

LONGLONG unixSecondsAt(LONGLONG localSeconds) {
    const LONGLONG near = localSeconds - offsetAt(localSeconds);
    return localSeconds - offsetAt(near);
}

std::optional<_FILETIME> fileTimeAt(LONGLONG unixSeconds) {
    constexpr LONGLONG kLast =
        static_cast<LONGLONG>(std::numeric_limits<ULONGLONG>::max() / kTicksPerSecond) + kFileTimeEpoch;
    if (unixSeconds < kFileTimeEpoch || unixSeconds >= kLast) return std::nullopt;
    const ULONGLONG ticks = static_cast<ULONGLONG>(unixSeconds - kFileTimeEpoch) * kTicksPerSecond;
    return _FILETIME{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

}  // namespace traiklofox::locale
