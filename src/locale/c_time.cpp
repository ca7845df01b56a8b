// c_time.cpp: CTime and CTimeSpan.

#include <time.h>
#include <traiklofox/c_time.h>
#include <traiklofox/locale.h>
#include <traiklofox/time_conversion.h>

#include "foundation/sys.h"
#include "locale/formatting.h"
#include "locale/local_time.h"

using namespace traiklofox::locale;

namespace {

[[noreturn]] void throwOutOfRange(const char* location) {
    throw CDateTimeException("Time is out of range", location);
}

time_t checked(LONGLONG seconds, const char* location) {
    if (seconds != static_cast<time_t>(seconds)) throwOutOfRange(location);
    return static_cast<time_t>(seconds);
}

time_t localTime(tm fields) {
    constexpr int kNotSet = 7;
    fields.tm_wday = kNotSet;  // set by every success: -1 is a time, too
    const time_t time = mktime(&fields);
    if (fields.tm_wday == kNotSet) throwOutOfRange("CTime::CTime");
    return time;
}

LONGLONG sumOf(LONGLONG left, LONGLONG right, const char* location) {
    LONGLONG sum = 0;
    if (__builtin_add_overflow(left, right, &sum)) throwOutOfRange(location);
    return sum;
}

LONGLONG differenceOf(LONGLONG left, LONGLONG right, const char* location) {
    LONGLONG difference = 0;
    if (__builtin_sub_overflow(left, right, &difference)) throwOutOfRange(location);
    return difference;
}

tm* fieldsOrOwn(tm* fields) {
    thread_local tm own;
    return fields != nullptr ? fields : &own;
}

}  // namespace

CString CTimeSpan::Format(const char* format) const {
    return formatSpan(format, m_timeSpan);
}

CTimeSpan CTimeSpan::operator+(CTimeSpan other) const {
    return sumOf(m_timeSpan, other.m_timeSpan, "CTimeSpan::operator+");
}

CTimeSpan CTimeSpan::operator-(CTimeSpan other) const {
    return differenceOf(m_timeSpan, other.m_timeSpan, "CTimeSpan::operator-");
}

CTime::CTime(int year, int month, int day, int hour, int minute, int second, int isDaylight) {
    tm fields{};
    if (__builtin_sub_overflow(year, 1900, &fields.tm_year) ||
        __builtin_sub_overflow(month, 1, &fields.tm_mon))
        throwOutOfRange("CTime::CTime");
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = second;
    fields.tm_isdst = isDaylight;
    m_time = localTime(fields);
}

CTime::CTime(const _SYSTEMTIME& date, int isDaylight)
    : CTime(date.wYear, date.wMonth, date.wDay, date.wHour, date.wMinute, date.wSecond, isDaylight) {}

CTime::CTime(const _FILETIME& time, int) : m_time(checked(FileTime2longlong(time), "CTime::CTime")) {}

CTime CTime::GetCurrentTime() {
    return traiklofox::sys::wallSeconds();
}

int CTime::GetYear() const {
    tm fields{};
    return GetLocalTm(&fields) != nullptr ? fields.tm_year + 1900 : 0;
}
int CTime::GetMonth() const {
    tm fields{};
    return GetLocalTm(&fields) != nullptr ? fields.tm_mon + 1 : 0;
}
int CTime::GetDay() const {
    tm fields{};
    return GetLocalTm(&fields) != nullptr ? fields.tm_mday : 0;
}
int CTime::GetHour() const {
    tm fields{};
    return GetLocalTm(&fields) != nullptr ? fields.tm_hour : 0;
}
int CTime::GetMinute() const {
    tm fields{};
    return GetLocalTm(&fields) != nullptr ? fields.tm_min : 0;
}
int CTime::GetSecond() const {
    tm fields{};
    return GetLocalTm(&fields) != nullptr ? fields.tm_sec : 0;
}
int CTime::GetDayOfWeek() const {
    tm fields{};
    return GetLocalTm(&fields) != nullptr ? fields.tm_wday + 1 : 0;
}

tm* CTime::GetLocalTm(tm* fields) const {
    return localtime_r(&m_time, fieldsOrOwn(fields));
}

tm* CTime::GetGmtTm(tm* fields) const {
    return gmtime_r(&m_time, fieldsOrOwn(fields));
}

bool CTime::GetAsSystemTime(_SYSTEMTIME& date) const {
    tm fields{};
    if (GetLocalTm(&fields) == nullptr || fields.tm_year < -1900 || fields.tm_year > 0xffff - 1900)
        return false;
    date = {static_cast<WORD>(fields.tm_year + 1900),
            static_cast<WORD>(fields.tm_mon + 1),
            static_cast<WORD>(fields.tm_wday),
            static_cast<WORD>(fields.tm_mday),
            static_cast<WORD>(fields.tm_hour),
            static_cast<WORD>(fields.tm_min),
            static_cast<WORD>(fields.tm_sec),
            /*wMilliseconds=*/0};
    return true;
}

bool CTime::GetAsFileTime(_FILETIME& time) const {
    const auto found = fileTimeAt(m_time);
    if (found) time = *found;
    return found.has_value();
}

CString CTime::Format(const char* format) const {
    tm fields{};
    return GetLocalTm(&fields) != nullptr ? formatFields(format, fields) : CString();
}

CString CTime::FormatGmt(const char* format) const {
    tm fields{};
    return GetGmtTm(&fields) != nullptr ? formatFields(format, fields) : CString();
}

CTimeSpan CTime::operator-(CTime other) const {
    return differenceOf(m_time, other.m_time, "CTime::operator-");
}

CTime CTime::operator+(CTimeSpan span) const {
    constexpr char kHere[] = "CTime::operator+";
    return checked(sumOf(m_time, span.GetTimeSpan(), kHere), kHere);
}

CTime CTime::operator-(CTimeSpan span) const {
    constexpr char kHere[] = "CTime::operator-";
    return checked(differenceOf(m_time, span.GetTimeSpan(), kHere), kHere);
}
