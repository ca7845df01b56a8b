#pragma once

/// A date with a time of day, and the difference between two, as OLE date values.
///
/// Objects are plain values; a thread may use one at a time. Each is valid, invalid or null, and what comes of an
/// invalid one is invalid, of a null one null (of both, null). Where a member says that it can fail, the object is
/// invalid afterwards, and its value is 0.

#include <traiklofox/date_engine.h>

#include <ctime>

class CDateTimeSpan;

/// A date from 0100-01-01 to 9999-12-31 with a time of day, to the second in text and fields.
class TRAIKLOFOX_API CDateTime {
  public:
    /// `valid` has a date; `null` has none yet, `invalid` was given something that is none.
    enum DateTimeStatus { error = -1, valid = 0, invalid = 1, null = 2 };

    /// 1899-12-30 00:00, valid.
    CDateTime() = default;
    /// An OLE date value; invalid when out of range.
    CDateTime(DATE value) { *this = value; }
    /// VT_DATE or VT_R8 give its value, VT_EMPTY or VT_NULL null, any other type invalid.
    CDateTime(const tagVARIANT& value) { *this = value; }
    /// Unix time, in the local zone.
    CDateTime(time_t time) { *this = time; }
    /// A calendar date; invalid when there is none such. Milliseconds are dropped, the day of the week is ignored.
    CDateTime(const _SYSTEMTIME& date) { *this = date; }
    CDateTime(const tagUDS& fields) { *this = fields; }
    /// UTC, made local. Beyond the C library's times (on 32-bit x86, 1901 to 2038) the zone's nearest offset is used.
    CDateTime(const _FILETIME& time) { *this = time; }
    CDateTime(int year, int month, int day, int hour, int minute, int second) {
        SetDateTime(year, month, day, hour, minute, second);
    }

    CDateTime& operator=(DATE value);
    CDateTime& operator=(const tagVARIANT& value);
    CDateTime& operator=(time_t time);
    CDateTime& operator=(const _SYSTEMTIME& date);
    CDateTime& operator=(const tagUDS& fields);
    CDateTime& operator=(const _FILETIME& time);

    /// The current time in the local zone.
    static CDateTime GetCurrentTime();

    /// The status; setting it leaves the date as it is.
    DateTimeStatus GetStatus() const { return m_status; }
    /// See `GetStatus`.
    void SetStatus(DateTimeStatus status) { m_status = status; }

    /// The date in fields, the time rounded to the second. False, nothing stored, unless this is valid.
    bool GetAsUDate(tagUDS& fields) const;
    bool GetAsSystemTime(_SYSTEMTIME& date) const;
    /// The local time in UTC. False, nothing stored, also before 1601.
    bool GetAsFileTime(_FILETIME& time) const;
    /// The local time as Unix time. False, nothing stored, also when `time_t` cannot hold it.
    bool GetAsTime(time_t& time) const;

    /// The parts, the time rounded to the second; -1 (`error`) unless this is valid.
    int GetYear() const;
    int GetMonth() const;
    int GetDay() const;
    int GetHour() const;
    int GetMinute() const;
    int GetSecond() const;
    int GetDayOfWeek() const;  ///< 1 is Sunday
    int GetDayOfYear() const;

    /// Sets date and time, where years below 100 mean what they say and so are out of range. Returns the status:
    /// `valid`, or `invalid` when there is no such date.
    int SetDateTime(int year, int month, int day, int hour, int minute, int second);
    /// Sets the date, and midnight.
    int SetDate(int year, int month, int day) { return SetDateTime(year, month, day, 0, 0, 0); }
    /// Sets the time of day on 1899-12-30.
    int SetTime(int hour, int minute, int second) { return SetDateTime(1899, 12, 30, hour, minute, second); }

    /// Reads a text as `sarnu_VarDateFromStr` after `cleanDateString`. False, and invalid, when it cannot be read; a
    /// null text likewise. Throws `CDateTimeException` as those do, then leaving this alone, and `std::bad_alloc`.
    bool ParseDateTime(const char* text, DWORD flags = 0, LCID locale = LOCALE_USER_DEFAULT);

    /// The text of `sarnu_VarBstrFromDate`; "" for null, "Invalid DateTime" for invalid. Throws as that does, and
    /// `std::bad_alloc`.
    CString Format(DWORD flags = 0, LCID locale = LOCALE_USER_DEFAULT) const;
    /// The text that `strftime` makes of the format, in the process's locale; null and invalid as above. A text longer
    /// than 1 MiB is given up and empty.
    CString Format(const char* format) const;

    /// The value, whatever the status.
    operator DATE() const { return m_dt; }

    /// Sums and differences; invalid when out of range.
    CDateTime operator+(const CDateTimeSpan& span) const;
    CDateTime operator-(const CDateTimeSpan& span) const;
    CDateTime& operator+=(const CDateTimeSpan& span);
    CDateTime& operator-=(const CDateTimeSpan& span);
    CDateTimeSpan operator-(const CDateTime& other) const;

    /// Equal are dates of the same status and value. The order, of values in time, is that of valid dates only: with
    /// any other operand `<`, `>`, `<=` and `>=` are false.
    bool operator==(const CDateTime& other) const { return m_status == other.m_status && m_dt == other.m_dt; }
    bool operator!=(const CDateTime& other) const { return !(*this == other); }
    bool operator<(const CDateTime& other) const;
    bool operator>(const CDateTime& other) const { return other < *this; }
    bool operator<=(const CDateTime& other) const;
    bool operator>=(const CDateTime& other) const { return other <= *this; }

    DATE m_dt = 0;                    ///< the OLE date value
    DateTimeStatus m_status = valid;  ///< whether `m_dt` counts
};

/// A length of time in days, to 3615897 of them and as many back.
class TRAIKLOFOX_API CDateTimeSpan {
  public:
    /// As `CDateTime::DateTimeStatus`.
    enum DateTimeSpanStatus { valid = 0, invalid = 1, null = 2 };

    /// 0, valid.
    CDateTimeSpan() = default;
    /// Days with their fraction; invalid when out of range.
    CDateTimeSpan(double days) { *this = days; }
    /// The sum; each may be any number of its unit, negative ones too.
    CDateTimeSpan(LONG days, int hours, int minutes, int seconds) {
        SetDateTimeSpan(days, hours, minutes, seconds);
    }
    CDateTimeSpan& operator=(double days);
    /// The sum; each may be any number of its unit, negative ones too. Invalid when the sum is out of range.
    void SetDateTimeSpan(LONG days, int hours, int minutes, int seconds);

    /// The status; setting it leaves the length as it is.
    DateTimeSpanStatus GetStatus() const { return m_status; }
    /// See `GetStatus`.
    void SetStatus(DateTimeSpanStatus status) { m_status = status; }

    /// The whole length in one unit; 0 unless valid.
    double GetTotalDays() const { return total(1); }
    double GetTotalHours() const { return total(24); }
    double GetTotalMinutes() const { return total(24 * 60); }
    double GetTotalSeconds() const { return total(24 * 60 * 60); }

    /// The parts, of the length rounded to the second: hours -23 to 23 and so on; all have the length's sign. 0 unless
    /// valid.
    LONG GetDays() const;
    LONG GetHours() const;
    LONG GetMinutes() const;
    LONG GetSeconds() const;

    /// `%D` whole days, `%H`, `%M`, `%S` the parts, with two digits, `%%` a "%"; all else as it stands. A negative
    /// length has the sign in each part. "" for null, "Invalid DateTimeSpan" for invalid.
    CString Format(const char* format) const;

    /// The length in days, whatever the status.
    operator double() const { return m_span; }

    CDateTimeSpan operator+(const CDateTimeSpan& other) const;
    CDateTimeSpan operator-(const CDateTimeSpan& other) const { return *this + -other; }
    CDateTimeSpan& operator+=(const CDateTimeSpan& other) { return *this = *this + other; }
    CDateTimeSpan& operator-=(const CDateTimeSpan& other) { return *this = *this - other; }
    CDateTimeSpan operator-() const;

    /// As those of `CDateTime`.
    bool operator==(const CDateTimeSpan& other) const {
        return m_status == other.m_status && m_span == other.m_span;
    }
    bool operator!=(const CDateTimeSpan& other) const { return !(*this == other); }
    bool operator<(const CDateTimeSpan& other) const { return bothValid(other) && m_span < other.m_span; }
    bool operator>(const CDateTimeSpan& other) const { return other < *this; }
    bool operator<=(const CDateTimeSpan& other) const { return bothValid(other) && m_span <= other.m_span; }
    bool operator>=(const CDateTimeSpan& other) const { return other <= *this; }

    double m_span = 0;                    ///< days
    DateTimeSpanStatus m_status = valid;  ///< whether `m_span` counts

  private:
    double total(int perDay) const { return m_status == valid ? m_span * perDay : 0; }
    bool bothValid(const CDateTimeSpan& other) const { return m_status == valid && other.m_status == valid; }
};
