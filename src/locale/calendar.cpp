// calendar.cpp: OLE date values of calendar fields, and back.

#include "locale/calendar.h"

#include <time.h>

#include "foundation/sys.h"
#include "locale/unpack.h"

using namespace traiklofox::locale;

namespace {

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
    if (static_cast<unsigned>(date.month) > 11 || day < 1) return false;
    return day <= mpmmdd[date.month + 1] - mpmmdd[date.month] ||
           (day == 29 && date.month == 1 && isLeapYear(date.year));
}

bool isTime(int hour, int minute, int second) {
    return hour <= 23 && static_cast<unsigned>(minute) <= 59 && static_cast<unsigned>(second) <= 59;
}

/// The OLE day of a date. It counts years from March, so that the leap day is the last one of its year, and from 400
/// years earlier, so that none is negative.
LONG dayOf(const YearAndMonth& date, int day) {
    constexpr int kDaysOf400Years = 146097;
    const bool isBeforeMarch = date.month < 2;
    const unsigned year = static_cast<unsigned>(date.year + 400 - isBeforeMarch);
    const unsigned century = year / 100;
    const int sinceMarch = mpmmdd[date.month] - mpmmdd[2] + (isBeforeMarch ? mpmmdd[12] : 0);
    return static_cast<LONG>(1461 * year / 4 - century + century / 4) + sinceMarch + day + mpmmdd[2] -
           kDaysOf400Years - kDayZero;
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

    const LONG days = dayOf(date, fields->wDay);
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

HRESULT VarUdateFromDate(double value, DWORD /*flags*/, tagUDS* fields) {
    return unpackValue(passed(value), *fields);
}

void SetUDSfromYMD(tagUDS* fields, int year, int month, int day) {
    storeDate(*fields, year, month, day);
}

int GetCurrentYear() {
    const time_t now = traiklofox::sys::wallSeconds();
    tm fields{};
    localtime_r(&now, &fields);
    return fields.tm_year + 1900;
}
