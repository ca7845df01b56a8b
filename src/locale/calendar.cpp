// calendar.cpp: OLE date values of calendar fields, and back.

#include "locale/calendar.h"

#include <time.h>

#include <cmath>

#include "foundation/sys.h"

using namespace traiklofox::locale;

namespace {

constexpr int kDaysOf400Years = 146097;
constexpr int kDaysOf100Years = 36524;
constexpr int kDaysOf4Years = 1461;
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

/// The day of a year in its cycle of 400.
struct DayOfYear {
    int year;
    int day;  ///< counted from 0
    bool mayBeLeap;
    bool firstOfFour;
};

/// Splits days since the year 0 by centuries, fours of years and years. The first century of a cycle has a day more
/// than the others, and so has the first year of each four but the first four of those others.
DayOfYear splitDays(int days) {
    const int cycle = days / kDaysOf400Years;
    int rest = days % kDaysOf400Years;
    const int century = (rest - 1) / kDaysOf100Years;
    int four;
    bool mayBeLeap = true;
    if (century == 0) {
        four = rest / kDaysOf4Years;
        rest %= kDaysOf4Years;
    } else {
        rest = (rest - 1) % kDaysOf100Years;
        four = (rest + 1) / kDaysOf4Years;
        if (four == 0)
            mayBeLeap = false;
        else
            rest = (rest + 1) % kDaysOf4Years;
    }
    int year;
    if (mayBeLeap) {
        year = (rest - 1) / 365;
        if (year != 0) rest = (rest - 1) % 365;
    } else {
        year = rest / 365;
        rest %= 365;
    }
    return {400 * cycle + 100 * century + 4 * four + year, rest, mayBeLeap, year == 0};
}

void setDate(tagUDS& fields, int days) {
    constexpr int kLeapDay = 59;
    const DayOfYear date = splitDays(days);
    fields.wYear = static_cast<WORD>(date.year);
    fields.wDayOfYear = static_cast<WORD>(date.day + 1);
    int day = date.day;
    if (date.firstOfFour && date.mayBeLeap) {
        if (day == kLeapDay) {
            fields.wMonth = 2;
            fields.wDay = 29;
            return;
        }
        if (day > kLeapDay) --day;
    }
    ++day;
    int month = day / 32 + 1;
    while (mpmmdd[month] < day) ++month;
    fields.wMonth = static_cast<WORD>(month);
    fields.wDay = static_cast<WORD>(day - mpmmdd[month - 1]);
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

HRESULT ErrUnpackDate(tagUDS* fields, const tagVARIANT* value, DWORD flags) {
    if (value->vt != VT_DATE && value->vt != VT_R8) return E_INVALIDARG;
    return VarUdateFromDate(value->date, flags, fields);
}

HRESULT VarUdateFromDate(double value, DWORD /*flags*/, tagUDS* fields) {
    constexpr double kBefore = kFirstDay - 1;
    constexpr double kAfter = kLastDay + 1;
    if (!(value > kBefore && value < kAfter)) return E_INVALIDARG;
    const double rounded = value > 0 ? value + kHalfSecond : value - kHalfSecond;
    if (rounded > kBefore && rounded <= kLastDay) value = rounded;

    const int wholeDays = static_cast<int>(value);
    const int days = wholeDays + kDayZero;  // at least 36525
    fields->wDayOfWeek = static_cast<WORD>((days - 1) % 7);
    setDate(*fields, days);

    const double fraction = std::abs(value) - std::abs(wholeDays);
    const int seconds = static_cast<int>(fraction * 86400);
    fields->wHour = static_cast<WORD>(seconds / 3600);
    fields->wMinute = static_cast<WORD>(seconds / 60 % 60);
    fields->wSecond = static_cast<WORD>(seconds % 60);
    return S_OK;
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
