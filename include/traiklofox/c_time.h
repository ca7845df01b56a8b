#pragma once

/// Unix times, and the difference between two, as MFC's classes.
///
/// Objects are plain values; a thread may use one at a time. A time that `time_t` cannot hold (on 32-bit x86, before
/// December 1901 or after January 2038) makes the member that should hold it throw `CDateTimeException`
/// "Time is out of range"; so does a length of time that 64 bits cannot hold. The object is then as it was.

#include <traiklofox/strings.h>
#include <traiklofox/types.h>

#include <compare>
#include <ctime>

/// A length of time in seconds.
class TRAIKLOFOX_API CTimeSpan {
  public:
    CTimeSpan() = default;
    /// A number of seconds.
    CTimeSpan(LONGLONG seconds) : m_timeSpan(seconds) {}
    /// The sum; each may be any number of its unit, negative ones too.
    CTimeSpan(LONG days, int hours, int minutes, int seconds)
        : m_timeSpan(((LONGLONG{days} * 24 + hours) * 60 + minutes) * 60 + seconds) {}

    /// In seconds.
    LONGLONG GetTimeSpan() const { return m_timeSpan; }
    /// The whole length in one unit, the rest dropped.
    LONGLONG GetDays() const { return m_timeSpan / (24 * 3600); }
    LONGLONG GetTotalHours() const { return m_timeSpan / 3600; }
    LONGLONG GetTotalMinutes() const { return m_timeSpan / 60; }
    LONGLONG GetTotalSeconds() const { return m_timeSpan; }
    /// The parts: hours -23 to 23 and so on; all have the length's sign.
    int GetHours() const { return static_cast<int>(m_timeSpan / 3600 % 24); }
    int GetMinutes() const { return static_cast<int>(m_timeSpan / 60 % 60); }
    int GetSeconds() const { return static_cast<int>(m_timeSpan % 60); }

    /// `%D` whole days, `%H`, `%M`, `%S` the parts, with two digits, `%%` a "%"; all else as it stands. A negative
    /// length has the sign in each part. A null format gives the empty string.
    CString Format(const char* format) const;

    CTimeSpan operator+(CTimeSpan other) const;
    CTimeSpan operator-(CTimeSpan other) const;
    CTimeSpan& operator+=(CTimeSpan other) { return *this = *this + other; }
    CTimeSpan& operator-=(CTimeSpan other) { return *this = *this - other; }
    auto operator<=>(const CTimeSpan&) const = default;

  private:
    LONGLONG m_timeSpan = 0;
};

/// A moment, in seconds since 1970-01-01 00:00 UTC. Its parts are those that local clocks show.
class TRAIKLOFOX_API CTime {
  public:
    /// 1970-01-01 00:00 UTC.
    CTime() = default;
    CTime(time_t time) : m_time(time) {}
    /// A local time. `isDaylight`: 0 standard time, above 0 daylight saving time, -1 whichever is in force.
    /// Fields out of
    /// range are carried over, as `mktime` does.
    CTime(int year, int month, int day, int hour, int minute, int second, int isDaylight = -1);
    /// The same; milliseconds and the day of the week are ignored.
    CTime(const _SYSTEMTIME& date, int isDaylight = -1);
    /// UTC; the fraction of a second is dropped. `isDaylight`, which callers of MFC's class may give, is ignored: UTC
    /// has no daylight saving time.
    CTime(const _FILETIME& time, int isDaylight = -1);

    /// Now.
    static CTime GetCurrentTime();

    /// Unix time.
    time_t GetTime() const { return m_time; }
    /// The parts in the local zone.
    int GetYear() const;
    int GetMonth() const;      ///< 1 to 12
    int GetDay() const;        ///< 1 to 31
    int GetHour() const;       ///< 0 to 23
    int GetMinute() const;     ///< 0 to 59
    int GetSecond() const;     ///< 0 to 59, or 60 in a leap second of a zone that has them
    int GetDayOfWeek() const;  ///< 1 is Sunday

    /// The parts in the local zone, in UTC: stored in `*fields`, or, for a null pointer, in a record of the calling
    /// thread that its next such call overwrites. Returns where they are; null for a year beyond an `int`.
    tm* GetLocalTm(tm* fields = nullptr) const;
    tm* GetGmtTm(tm* fields = nullptr) const;
    /// The parts in the local zone, milliseconds 0.
    bool GetAsSystemTime(_SYSTEMTIME& date) const;
    /// False, nothing stored, when a FILETIME cannot hold it.
    bool GetAsFileTime(_FILETIME& time) const;

    /// The text that `strftime` makes of the format, in the process's locale, from the local time, from UTC. A text
    /// longer than 1 MiB is given up and empty; a null format gives the empty string.
    CString Format(const char* format) const;
    CString FormatGmt(const char* format) const;

    CTimeSpan operator-(CTime other) const;
    CTime operator+(CTimeSpan span) const;
    CTime operator-(CTimeSpan span) const;
    CTime& operator+=(CTimeSpan span) { return *this = *this + span; }
    CTime& operator-=(CTimeSpan span) { return *this = *this - span; }
    auto operator<=>(const CTime&) const = default;

  private:
    time_t m_time = 0;
};
