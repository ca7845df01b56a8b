#pragma once

/// The Win32 time records and their conversions. Pointers are not null unless the text says so. Every
/// function is safe from any thread as long as no thread changes the process's time zone meanwhile.
///
/// A `FILETIME` counts 100-nanosecond intervals since 1601-01-01 00:00 UTC, which is 11644473600 seconds
/// before the Unix epoch.

#include <traiklofox/types.h>

/// The time zone, as `GetTimeZoneInformation` describes it.
struct _TIME_ZONE_INFORMATION {
    LONG Bias;               ///< minutes west of UTC
    char StandardName[128];  ///< NUL-terminated; has room for 32 wide characters, but is narrow, unlike Win32
    SYSTEMTIME StandardDate;  ///< when standard time begins: a month, and which Sunday of it
    LONG StandardBias;        ///< added to `Bias` in standard time
    char DaylightName[128];   ///< as `StandardName`
    SYSTEMTIME DaylightDate;  ///< when daylight time begins
    LONG DaylightBias;        ///< added to `Bias` in daylight time
};
typedef _TIME_ZONE_INFORMATION TIME_ZONE_INFORMATION;
typedef TIME_ZONE_INFORMATION* PTIME_ZONE_INFORMATION;
typedef TIME_ZONE_INFORMATION* LPTIME_ZONE_INFORMATION;

static_assert(sizeof(_TIME_ZONE_INFORMATION) == 300);
static_assert(offsetof(_TIME_ZONE_INFORMATION, StandardName) == 4);
static_assert(offsetof(_TIME_ZONE_INFORMATION, StandardDate) == 132);
static_assert(offsetof(_TIME_ZONE_INFORMATION, StandardBias) == 148);
static_assert(offsetof(_TIME_ZONE_INFORMATION, DaylightName) == 152);
static_assert(offsetof(_TIME_ZONE_INFORMATION, DaylightDate) == 280);
static_assert(offsetof(_TIME_ZONE_INFORMATION, DaylightBias) == 296);

/// Whether standard or daylight time is in force.
constexpr DWORD TIME_ZONE_ID_STANDARD = 1;
constexpr DWORD TIME_ZONE_ID_DAYLIGHT = 2;

/// The Unix time of `time` in whole seconds, negative before 1970; the fraction is dropped.
TRAIKLOFOX_API LONGLONG FileTime2longlong(_FILETIME time);

/// Stores the Unix time of `time` in `*seconds`, truncated to 32 bits, and its microseconds within the second
/// in
/// `*microseconds` unless that is null.
TRAIKLOFOX_API void FileTime2time_t(_FILETIME time, LONG* seconds, ULONG* microseconds);

/// Stores the Unix time `seconds` plus `microseconds` in `*time`.
TRAIKLOFOX_API void time_tToFileTime(LONG seconds, _FILETIME* time, ULONG microseconds);

/// Converts a UTC date to a `FILETIME`; the day of the week is ignored. Returns 1, or 0 with `*time` zeroed
/// for a date that `mktime` refuses (on 32-bit x86, outside 1901 to 2038) or a `FILETIME` cannot hold.
///
/// Unlike Win32: the date goes through the local zone's standard time. So the date that local clocks showed
/// one second before the Unix epoch fails, fields out of range are carried over (February 30 is a day in
/// March), and where the zone's standard time on that date was another than today's, the result is off by the
/// difference.
TRAIKLOFOX_C_API BOOL SystemTimeToFileTime(const _SYSTEMTIME* date, _FILETIME* time);

/// As `SystemTimeToFileTime`, with the `FILETIME` as one number. Returns 1 always, deliberately: a date that
/// cannot be converted gives the number 0.
TRAIKLOFOX_API BOOL SystemTimeToLongLong(const _SYSTEMTIME* date, ULONGLONG* time);

/// The date and time of day in the local zone. The milliseconds are `GetMilliTime` modulo 1000, deliberately:
/// they are not those of the instant that gave the seconds.
TRAIKLOFOX_C_API void GetLocalTime(_SYSTEMTIME* date);

/// As `GetLocalTime`, in UTC.
TRAIKLOFOX_C_API void GetSystemTime(_SYSTEMTIME* date);

/// Returns 1 when `*left` is later than `*right`, -1 when it is earlier, 0 when they are equal.
TRAIKLOFOX_C_API LONG CompareFileTime(const _FILETIME* left, const _FILETIME* right);

/// Describes the process's time zone (`TZ`, or the system's), every unused byte zero. Names longer than 127
/// bytes are cut. Returns TIME_ZONE_ID_STANDARD or TIME_ZONE_ID_DAYLIGHT, whichever is in force now.
///
/// Unlike Win32: the names are narrow; the biases are 0 and -60 and the transitions the last Sunday of
/// October and the first of April, at 02:00, whatever the zone, deliberately.
TRAIKLOFOX_C_API DWORD GetTimeZoneInformation(_TIME_ZONE_INFORMATION* zone);
