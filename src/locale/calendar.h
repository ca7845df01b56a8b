#pragma once

// The Gregorian calendar.

#include <traiklofox/date_engine.h>

namespace traiklofox::locale {

/// Days before each month of a common year, and the days of the whole year.
constexpr LONG mpmmdd[13] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365};

constexpr LONG kFirstDay = -657434;  // 0100-01-01
constexpr LONG kLastDay = 2958465;   // 9999-12-31
constexpr LONG kDayZero = 693959;    // 1899-12-30, in days since the year 0

/// The time of day as the fraction of an OLE date value.
constexpr double fractionOf(int secondOfDay) {
    return secondOfDay * (1.0 / 86400);
}

/// Before day 0 the time of day adds to the magnitude.
constexpr DATE valueOf(LONG day, double fraction) {
    return day < 0 ? day - fraction : day + fraction;
}

/// `SetUDSfromYMD`.
inline void storeDate(tagUDS& fields, int year, int month, int day) {
    fields.wYear = static_cast<WORD>(year);
    fields.wMonth = static_cast<WORD>(month);
    fields.wDay = static_cast<WORD>(day);
}

constexpr bool isLeapYear(int year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

}  // namespace traiklofox::locale
