// calendar.cpp: OLE date values of calendar fields, and back.

#include "locale/calendar.h"

#include <time.h>

#include <cmath>
#include <cstdint>

#include "foundation/sys.h"

using namespace traiklofox::locale;

namespace {

constexpr double kHalfSecond = 5.787037037037037e-06;

/// A month, counted from 0, in a year.
struct YearAndMonth {
    int year;
    int month;
};

/// Brings the month into its year. An exact negative multiple of 12 leaves 12, which is the year after.
YearAndMonth carryMonths(YearAndMonth date) {
    if (date.month >= 0) return {date.year + date.month / 12, date.month % 12};
    const int years = -date.month / 12;
    return {date.year - (years + 1), 12 * years + date.month + 12};
}

int fullYear(int year) {
    if (year >= 100) return year;
    return year + (year < 30 ? 2000 : 1900);
}

bool isDayOf(const YearAndMonth& date, int day) {
    if (date.month > 11 || day < 1) return false;
    return day <= mpmmdd[date.month + 1] - mpmmdd[date.month] ||
           (date.month == 1 && day == 29 && isLeapYear(date.year));
}

bool isTime(int hour, int minute, int second) {
    return hour <= 23 && minute >= 0 && minute <= 59 && second >= 0 && second <= 59;
}

/// Stores year, month and day of a count of days since 0000-01-01. It counts years from March, so that a leap day is a
/// year's last, and divides by multiplying: 2939745 is 2^32 / 1461, and 2141 is 2^16 times the months in a day.
void setDate(tagUDS& fields, unsigned days) {
    constexpr unsigned kDaysOf400Years = 146097;
    constexpr unsigned kDaysBeforeMarch = 60;  // of the year 0, which is a leap year
    constexpr unsigned kDaysOfMarchToYearEnd = 306;
    const unsigned quarterDays = 4 * (days - kDaysBeforeMarch) + 3;
    const unsigned century = quarterDays / kDaysOf400Years;
    const unsigned quarterDaysOfCentury = quarterDays % kDaysOf400Years | 3;
    const std::uint64_t yearAndRest = std::uint64_t{2939745} * quarterDaysOfCentury;
    const auto yearOfCentury = static_cast<unsigned>(yearAndRest >> 32);
    const unsigned dayOfYear = static_cast<unsigned>(yearAndRest) / 2939745 / 4;  // since March 1
    const unsigned monthAndRest = 2141 * dayOfYear + 197913;

    const bool isNextYear = dayOfYear >= kDaysOfMarchToYearEnd;
    const unsigned year = 100 * century + yearOfCentury + isNextYear;
    const unsigned month = (monthAndRest >> 16) - (isNextYear ? 12 : 0);
    const unsigned sinceNewYear =
        isNextYear ? dayOfYear - kDaysOfMarchToYearEnd : dayOfYear + 59 + isLeapYear(static_cast<int>(year));
    fields.wYear = static_cast<WORD>(year);
    fields.wMonth = static_cast<WORD>(month);
    fields.wDay = static_cast<WORD>((monthAndRest & 0xffff) / 2141 + 1);
    fields.wDayOfYear = static_cast<WORD>(sinceNewYear + 1);
}

}  // namespace

constinit const LONG _MonthDays[13] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365};

HRESULT ErrPackDate(const tagUDS* fields, tagVARIANT* value, int validate, DWORD flags) {
    YearAndMonth date{fields->wYear, static_cast<SHORT>(fields->wMonth) - 1};
    if (validate == 0) date = carryMonths(date);
    date.year = fullYear(date.year);
    if (static_cast<unsigned>(date.year) > 9999 || date.month < 0 || date.month > 12)
        return DISP_E_TYPEMISMATCH;
    if (validate != 0 && !isDayOf(date, fields->wDay)) return DISP_E_TYPEMISMATCH;

    const int year = date.year;
    LONG days =
        365 * year + year / 4 - year / 100 + year / 400 + mpmmdd[date.month] + fields->wDay - kDayZero;
    if (date.month < 2 && isLeapYear(year)) --days;
    if (days < kFirstDay || days > kLastDay) return DISP_E_TYPEMISMATCH;

    const int hour = fields->wHour;
    const int minute = static_cast<SHORT>(fields->wMinute);
    const int second = static_cast<SHORT>(fields->wSecond);
    if (validate != 0 && !isTime(hour, minute, second)) return DISP_E_TYPEMISMATCH;
    const double fraction = fractionOf(3600 * hour + 60 * minute + second);

    value->vt = VT_DATE;
    if ((flags & VAR_TIMEVALUEONLY) != 0)
        value->date = fraction;
    else if ((flags & VAR_DATEVALUEONLY) != 0)
        value->date = days;
    else
        value->date = valueOf(days, fraction);
    return S_OK;
}

HRESULT ErrUnpackDate(tagUDS* fields, const tagVARIANT* value, DWORD /*flags*/) {
    if (value->vt != VT_DATE && value->vt != VT_R8) return E_INVALIDARG;
    return unpackValue(value->date, *fields);
}

HRESULT traiklofox::locale::unpackValue(const double& given, tagUDS& fields) {
    constexpr double kBefore = kFirstDay - 1;
    constexpr double kAfter = kLastDay + 1;
    double value = given;
    if (!(value > kBefore && value < kAfter)) return E_INVALIDARG;
    const double rounded = value > 0 ? value + kHalfSecond : value - kHalfSecond;
    if (rounded > kBefore && rounded <= kLastDay) value = rounded;

    const int wholeDays = static_cast<int>(value);
    const auto days = static_cast<unsigned>(wholeDays + kDayZero);  // at least 36525
    fields.wDayOfWeek = static_cast<WORD>((days - 1) % 7);
    setDate(fields, days);

    const double fraction = std::abs(value - wholeDays);
    const auto seconds = static_cast<unsigned>(static_cast<int>(fraction * 86400));
    fields.wHour = static_cast<WORD>(seconds / 3600);
    fields.wMinute = static_cast<WORD>(seconds / 60 % 60);
    fields.wSecond = static_cast<WORD>(seconds % 60);
    return S_OK;
}

HRESULT VarUdateFromDate(double value, DWORD /*flags*/, tagUDS* fields) {
    return unpackValue(value, *fields);
}

void SetUDSfromYMD(tagUDS* fields, int year, int month, int day) {
    fields->wYear = static_cast<WORD>(year);
    fields->wMonth = static_cast<WORD>(month);
    fields->wDay = static_cast<WORD>(day);
}

int GetCurrentYear() {
    const time_t now = traiklofox::sys::wallSeconds();
    tm fields{};
    localtime_r(&now, &fields);
    return fields.tm_year + 1900;
}
