// date_rules.cpp: which number of a date is the year, which the month and which the day.

#include "locale/date_rules.h"

#include "locale/calendar.h"

namespace traiklofox::locale {

namespace {

constexpr bool g_fDay31th[13] = {false, true, false, true, false, true, false,
                                 true,  true, false, true, false, true};
constexpr int kFebruary = 2;

constexpr bool isMonth(int number) {
    return number >= 1 && number <= 12;
}

/// Stores the date, unless there is no such month or day.
bool take(tagUDS& date, int year, int month, int day) {
    if (!isMonth(month) || day < 1 || day > 31) return false;
    if (day == 31 && !g_fDay31th[month]) return false;
    if (month == kFebruary && (day == 30 || (day == 29 && !isLeapYear(year)))) return false;
    storeDate(date, year, month, day);
    return true;
}

bool takeFirstOfMonth(tagUDS& date, int year, int month) {
    return take(date, year, month, /*day=*/1);
}

/// A month, and two numbers, of which the first is rather the day.
void dayOfMonth(tagUDS& date, int month, int day, int year) {
    const bool isNoDay = day < 1 || day > 31 || (day == 31 && !g_fDay31th[month]) ||
                         (month == kFebruary && (day == 30 || (day == 29 && !isLeapYear(year))));
    if (isNoDay)
        storeDate(date, day, month, year);
    else
        storeDate(date, year, month, day);
}

}  // namespace

bool DayOfNN(const tagDATERAW& raw, tagUDS& date, const tagDATEINFO& info) {
    const int a = raw.slots[0];
    const int b = raw.slots[1];
    const int now = GetCurrentYear();
    switch (info.dateOrder) {
        case DATE_ORDER_DMY:
            return take(date, now, b, a) || take(date, now, a, b) || takeFirstOfMonth(date, b, a) ||
                   takeFirstOfMonth(date, a, b);
        case DATE_ORDER_MDY:
            return take(date, now, a, b) || take(date, now, b, a) || takeFirstOfMonth(date, b, a) ||
                   takeFirstOfMonth(date, a, b);
        default:
            return take(date, now, a, b) || take(date, now, b, a) || takeFirstOfMonth(date, a, b) ||
                   takeFirstOfMonth(date, b, a);
    }
}

bool DayOfNNN(const tagDATERAW& raw, tagUDS& date, const tagDATEINFO& info) {
    // Not bound to all three at once: the wide load of that waits for the parser's three stores.
    const int a = raw.slots[0];
    const int b = raw.slots[1];
    const int c = raw.slots[2];
    switch (info.dateOrder) {
        case DATE_ORDER_DMY: return take(date, c, b, a) || take(date, a, b, c) || take(date, c, a, b);
        case DATE_ORDER_MDY: return take(date, c, a, b) || take(date, a, b, c) || take(date, c, b, a);
        default: return take(date, a, b, c) || take(date, c, a, b) || take(date, c, b, a);
    }
}

bool DayOfMN(const tagDATERAW& raw, tagUDS& date) {
    const int number = raw.slots[0];
    return take(date, GetCurrentYear(), raw.month, number) || takeFirstOfMonth(date, number, raw.month);
}

bool DayOfMNN(const tagDATERAW& raw, tagUDS& date, const tagDATEINFO& info) {
    const int a = raw.slots[0];
    const int b = raw.slots[1];
    if (info.dateOrder == DATE_ORDER_YMD)
        dayOfMonth(date, raw.month, b, a);
    else
        dayOfMonth(date, raw.month, a, b);
    return true;
}

}  // namespace traiklofox::locale
