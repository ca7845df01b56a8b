// date_time.cpp: CDateTime.

#include <traiklofox/date_time.h>
#include <traiklofox/time_conversion.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>

#include "foundation/sys.h"
#include "locale/calendar.h"
#include "locale/formatting.h"
#include "locale/local_time.h"

using namespace traiklofox::locale;

namespace {

/// The value on a line on which times add up: before 1899-12-30 the fraction counts forward, which a sum must not see.
double linear(DATE value) {
    const double days = std::trunc(value);
    return value < 0 ? days + (days - value) : value;
}

DATE fromLinear(double value) {
    constexpr double kHalfSecond = 0.5 / kSecondsPerDay;
    double days = std::floor(value);
    double fraction = value - days;
    // Reading a value rounds it away from day 0: what is nearly midnight would become the day before.
    if (days < 0 && fraction >= 1 - kHalfSecond) {
        days += 1;
        fraction = 0;
    }
    return days < 0 ? days - fraction : days + fraction;
}

bool isInRange(DATE value) {
    return value > kFirstDay - 1 && value < kLastDay + 1;
}

/// Of local clocks, since they showed 1970-01-01 00:00.
LONGLONG localSecondsOf(const tagUDS& fields) {
    tagVARIANT day{};
    (void)ErrPackDate(&fields, &day, /*validate=*/0, VAR_DATEVALUEONLY);  // of fields that were unpacked
    return (static_cast<LONGLONG>(day.date) - kUnixEpochDay) * kSecondsPerDay + fields.wHour * 3600 +
           fields.wMinute * 60 + fields.wSecond;
}

/// A value out of range for a moment that has none.
DATE dateOfLocalSeconds(LONGLONG seconds) {
    const LONGLONG secondOfDay = (seconds % kSecondsPerDay + kSecondsPerDay) % kSecondsPerDay;
    const LONGLONG day = (seconds - secondOfDay) / kSecondsPerDay + kUnixEpochDay;
    if (day < kFirstDay || day > kLastDay) return kLastDay + 1;
    return valueOf(static_cast<LONG>(day), fractionOf(static_cast<int>(secondOfDay)));
}

int partOf(const CDateTime& date, WORD tagUDS::*part, int otherwise) {
    tagUDS fields{};
    return date.GetAsUDate(fields) ? fields.*part : otherwise;
}

struct FreeText {
    void operator()(char* text) const { std::free(text); }
};

}  // namespace

CDateTime& CDateTime::operator=(DATE value) {
    m_status = isInRange(value) ? valid : invalid;
    m_dt = m_status == valid ? value : 0;
    return *this;
}

CDateTime& CDateTime::operator=(const tagVARIANT& value) {
    if (value.vt == VT_DATE || value.vt == VT_R8) return *this = value.date;
    m_dt = 0;
    m_status = value.vt == VT_EMPTY || value.vt == VT_NULL ? null : invalid;
    return *this;
}

CDateTime& CDateTime::operator=(time_t time) {
    return *this = dateOfLocalSeconds(localSecondsAt(time));
}

CDateTime& CDateTime::operator=(const _SYSTEMTIME& date) {
    SetDateTime(date.wYear, date.wMonth, date.wDay, date.wHour, date.wMinute, date.wSecond);
    return *this;
}

CDateTime& CDateTime::operator=(const tagUDS& fields) {
    SetDateTime(fields.wYear, fields.wMonth, fields.wDay, fields.wHour, fields.wMinute, fields.wSecond);
    return *this;
}

CDateTime& CDateTime::operator=(const _FILETIME& time) {
    return *this = dateOfLocalSeconds(localSecondsAt(FileTime2longlong(time)));
}

CDateTime CDateTime::GetCurrentTime() {
    return traiklofox::sys::wallSeconds();
}

bool CDateTime::GetAsUDate(tagUDS& fields) const {
    tagUDS unpacked{};
    if (m_status != valid || VarUdateFromDate(m_dt, 0, &unpacked) != S_OK) return false;
    fields = unpacked;
    return true;
}

bool CDateTime::GetAsSystemTime(_SYSTEMTIME& date) const {
    tagUDS fields{};
    if (!GetAsUDate(fields)) return false;
    date = {fields.wYear, fields.wMonth,  fields.wDayOfWeek, fields.wDay,
            fields.wHour, fields.wMinute, fields.wSecond,    /*wMilliseconds=*/0};
    return true;
}

bool CDateTime::GetAsFileTime(_FILETIME& time) const {
    tagUDS fields{};
    if (!GetAsUDate(fields)) return false;
    const auto found = fileTimeAt(unixSecondsAt(localSecondsOf(fields)));
    if (found) time = *found;
    return found.has_value();
}

bool CDateTime::GetAsTime(time_t& time) const {
    tagUDS fields{};
    if (!GetAsUDate(fields)) return false;
    const LONGLONG seconds = unixSecondsAt(localSecondsOf(fields));
    if (seconds != static_cast<time_t>(seconds)) return false;
    time = static_cast<time_t>(seconds);
    return true;
}

int CDateTime::GetYear() const {
    return partOf(*this, &tagUDS::wYear, error);
}
int CDateTime::GetMonth() const {
    return partOf(*this, &tagUDS::wMonth, error);
}
int CDateTime::GetDay() const {
    return partOf(*this, &tagUDS::wDay, error);
}
int CDateTime::GetHour() const {
    return partOf(*this, &tagUDS::wHour, error);
}
int CDateTime::GetMinute() const {
    return partOf(*this, &tagUDS::wMinute, error);
}
int CDateTime::GetSecond() const {
    return partOf(*this, &tagUDS::wSecond, error);
}
int CDateTime::GetDayOfWeek() const {
    tagUDS fields{};
    return GetAsUDate(fields) ? fields.wDayOfWeek + 1 : static_cast<int>(error);
}
int CDateTime::GetDayOfYear() const {
    return partOf(*this, &tagUDS::wDayOfYear, error);
}

int CDateTime::SetDateTime(int year, int month, int day, int hour, int minute, int second) {
    m_dt = 0;
    m_status = invalid;
    const int parts[] = {year, month, day, hour, minute, second};
    for (const int part : parts)
        if (part < 0 || part > std::numeric_limits<SHORT>::max()) return m_status;
    if (year < 100) return m_status;
    tagUDS fields{};
    SetUDSfromYMD(&fields, year, month, day);
    fields.wHour = static_cast<WORD>(hour);
    fields.wMinute = static_cast<WORD>(minute);
    fields.wSecond = static_cast<WORD>(second);
    tagVARIANT packed{};
    if (ErrPackDate(&fields, &packed, /*validate=*/1, 0) != S_OK) return m_status;
    m_dt = packed.date;
    return m_status = valid;
}

bool CDateTime::ParseDateTime(const char* text, DWORD flags, LCID locale) {
    HRESULT result = DISP_E_TYPEMISMATCH;
    double value = 0;
    if (text != nullptr) {
        if (!isInitForLocale(locale))
            throw CDateTimeException("Locale is not properly initialized", "CDateTime::ParseDateTime");
        CString cleaned(text);
        cleanDateString(locale, cleaned);
        result = sarnu_VarDateFromStr(cleaned.c_str(), locale, flags, &value);
    }
    m_dt = result == S_OK ? value : 0;
    m_status = result == S_OK ? valid : invalid;
    return result == S_OK;
}

CString CDateTime::Format(DWORD flags, LCID locale) const {
    if (m_status == null) return {};
    if (m_status != valid) return "Invalid DateTime";
    char* text = nullptr;
    (void)sarnu_VarBstrFromDate(m_dt, locale, flags, &text);  // a null text says all
    const std::unique_ptr<char, FreeText> owner(text);
    if (text == nullptr) throw std::bad_alloc();
    return text;
}

CString CDateTime::Format(const char* format) const {
    if (m_status == null) return {};
    tagUDS fields{};
    if (!GetAsUDate(fields)) return "Invalid DateTime";
    tm parts{};
    parts.tm_year = fields.wYear - 1900;
    parts.tm_mon = fields.wMonth - 1;
    parts.tm_mday = fields.wDay;
    parts.tm_hour = fields.wHour;
    parts.tm_min = fields.wMinute;
    parts.tm_sec = fields.wSecond;
    parts.tm_wday = fields.wDayOfWeek;
    parts.tm_yday = fields.wDayOfYear - 1;
    parts.tm_isdst = -1;  // the value does not say
    return formatFields(format, parts);
}

CDateTime CDateTime::operator+(const CDateTimeSpan& span) const {
    CDateTime sum;
    if (m_status == null || span.m_status == CDateTimeSpan::null)
        sum.m_status = null;
    else if (m_status != valid || span.m_status != CDateTimeSpan::valid)
        sum.m_status = invalid;
    else
        sum = fromLinear(linear(m_dt) + span.m_span);
    return sum;
}

CDateTime CDateTime::operator-(const CDateTimeSpan& span) const {
    return *this + -span;
}

CDateTime& CDateTime::operator+=(const CDateTimeSpan& span) {
    return *this = *this + span;
}

CDateTime& CDateTime::operator-=(const CDateTimeSpan& span) {
    return *this = *this - span;
}

CDateTimeSpan CDateTime::operator-(const CDateTime& other) const {
    CDateTimeSpan difference;
    if (m_status == null || other.m_status == null)
        difference.m_status = CDateTimeSpan::null;
    else if (m_status != valid || other.m_status != valid)
        difference.m_status = CDateTimeSpan::invalid;
    else
        difference = linear(m_dt) - linear(other.m_dt);
    return difference;
}

bool CDateTime::operator<(const CDateTime& other) const {
    return m_status == valid && other.m_status == valid && linear(m_dt) < linear(other.m_dt);
}

bool CDateTime::operator<=(const CDateTime& other) const {
    return m_status == valid && other.m_status == valid && linear(m_dt) <= linear(other.m_dt);
}
