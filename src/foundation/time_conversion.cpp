// Conversions between the Win32 time records and Unix time. All arithmetic is done in 64 bits.

#include <traiklofox/time_conversion.h>

#include <time.h>
#include <traiklofox/clocks.h>

#include <limits>
#include <optional>

#include "foundation/bounded_copy.h"
#include "foundation/sys.h"

namespace sys = traiklofox::sys;
using traiklofox::foundation::copyBounded;

namespace {

constexpr LONGLONG kEpochSeconds = 11644473600;  // from 1601-01-01 to 1970-01-01
constexpr ULONGLONG kTicksPerSecond = 10'000'000;
constexpr ULONGLONG kTicksPerMicrosecond = 10;
constexpr LONGLONG kLastSecond =
    static_cast<LONGLONG>(std::numeric_limits<ULONGLONG>::max() / kTicksPerSecond) - kEpochSeconds - 1;

ULONGLONG ticksOf(_FILETIME time) {
    return ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

_FILETIME fileTimeOf(ULONGLONG ticks) {
    return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

ULONGLONG ticksAt(LONGLONG unixSeconds, ULONG microseconds) {
    return static_cast<ULONGLONG>(unixSeconds + kEpochSeconds) * kTicksPerSecond +
           microseconds * kTicksPerMicrosecond;
}

/// Nothing for a date that `mktime` or a FILETIME cannot take.
std::optional<ULONGLONG> ticksOf(const _SYSTEMTIME& date) {
    tm fields{};
    fields.tm_year = date.wYear - 1900;
    fields.tm_mon = date.wMonth - 1;
    fields.tm_mday = date.wDay;
    fields.tm_hour = date.wHour;
    fields.tm_min = date.wMinute;
    fields.tm_sec = date.wSecond;
    const time_t local = mktime(&fields);
    if (local == -1) return std::nullopt;
    const LONGLONG seconds = LONGLONG{local} - timezone;
    if (seconds < -kEpochSeconds || seconds > kLastSecond) return std::nullopt;
    return ticksAt(seconds, ULONG{date.wMilliseconds} * 1000);
}

void fillDate(_SYSTEMTIME& date, const tm& fields) {
    date.wYear = static_cast<WORD>(fields.tm_year + 1900);
    date.wMonth = static_cast<WORD>(fields.tm_mon + 1);
    date.wDayOfWeek = static_cast<WORD>(fields.tm_wday);
    date.wDay = static_cast<WORD>(fields.tm_mday);
    date.wHour = static_cast<WORD>(fields.tm_hour);
    date.wMinute = static_cast<WORD>(fields.tm_min);
    date.wSecond = static_cast<WORD>(fields.tm_sec);
    date.wMilliseconds = static_cast<WORD>(GetMilliTime() % 1000);
}

/// The given occurrence of Sunday in a month, at 02:00; 5 is the last.
_SYSTEMTIME transition(WORD month, WORD occurrence) {
    _SYSTEMTIME date{};
    date.wMonth = month;
    date.wDay = occurrence;
    date.wHour = 2;
    return date;
}

}  // namespace

LONGLONG FileTime2longlong(_FILETIME time) {
    return static_cast<LONGLONG>(ticksOf(time) / kTicksPerSecond) - kEpochSeconds;
}

void FileTime2time_t(_FILETIME time, LONG* seconds, ULONG* microseconds) {
    *seconds = static_cast<LONG>(FileTime2longlong(time));
    if (microseconds != nullptr)
        *microseconds = static_cast<ULONG>(ticksOf(time) % kTicksPerSecond / kTicksPerMicrosecond);
}

void time_tToFileTime(LONG seconds, _FILETIME* time, ULONG microseconds) {
    *time = fileTimeOf(ticksAt(seconds, microseconds));
}

BOOL SystemTimeToFileTime(const _SYSTEMTIME* date, _FILETIME* time) {
    const auto ticks = ticksOf(*date);
    *time = fileTimeOf(ticks.value_or(0));
    return ticks.has_value();
}

BOOL SystemTimeToLongLong(const _SYSTEMTIME* date, ULONGLONG* time) {
    *time = ticksOf(*date).value_or(0);
    return TRUE;
}

void GetLocalTime(_SYSTEMTIME* date) {
    const time_t now = sys::wallSeconds();
    tm fields{};
    localtime_r(&now, &fields);
    fillDate(*date, fields);
}

void GetSystemTime(_SYSTEMTIME* date) {
    const time_t now = sys::wallSeconds();
    tm fields{};
    gmtime_r(&now, &fields);
    fillDate(*date, fields);
}

LONG CompareFileTime(const _FILETIME* left, const _FILETIME* right) {
    const ULONGLONG leftTicks = ticksOf(*left);
    const ULONGLONG rightTicks = ticksOf(*right);
    return (leftTicks > rightTicks) - (leftTicks < rightTicks);
}

DWORD GetTimeZoneInformation(_TIME_ZONE_INFORMATION* zone) {
    const time_t now = sys::wallSeconds();
    tm fields{};
    tzset();  // localtime_r need not bring the zone's variables up to date
    localtime_r(&now, &fields);
    *zone = {};
    zone->Bias = static_cast<LONG>(timezone / 60);
    copyBounded(zone->StandardName, tzname[0]);
    zone->StandardDate = transition(/*month=*/10, /*occurrence=*/5);
    copyBounded(zone->DaylightName, tzname[1]);
    zone->DaylightDate = transition(/*month=*/4, /*occurrence=*/1);
    zone->DaylightBias = -60;
    return fields.tm_isdst < 1 ? TIME_ZONE_ID_STANDARD : TIME_ZONE_ID_DAYLIGHT;
}
