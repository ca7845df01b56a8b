#pragma once

// OLE date values taken apart. All of it is inline, for the renderer to leave out what it does not show.

#include <emmintrin.h>

#include <array>
#include <cmath>
#include <cstdint>

#include "locale/calendar.h"

namespace traiklofox::locale {

#ifdef __i386__
/// A double that was passed on the stack, loaded as the halves in which many callers push it: a load of the whole would
/// wait until both have reached the cache.
inline double passed(const double& argument) {
    using Half [[gnu::may_alias]] = int;
    const volatile auto* halves = reinterpret_cast<const volatile Half*>(&argument);
    const __m128i whole = _mm_unpacklo_epi32(_mm_cvtsi32_si128(halves[0]), _mm_cvtsi32_si128(halves[1]));
    return _mm_cvtsd_f64(_mm_castsi128_pd(whole));
}
#else
inline double passed(double argument) {
    return argument;
}
#endif

// None of these has a branch, because dates come in no order that a processor could foresee, and none divides by a
// division: 613566757 is 2^32 / 7, 91867 is 2^27 / 1461, 37283 is 2^27 / 3600, 34953 is 2^21 / 60. With these factors,
// each product of 32 bits is exact enough for every argument that a date has.

inline unsigned dayOfWeek(unsigned days) {
    const unsigned fraction = 613566757 * (days - 1);
    return (fraction >> 3) * 7 >> 29;
}

/// A day of a year that begins with March, so that a leap day is its last.
struct MarchDay {
    std::uint8_t month;
    std::uint8_t day;
    std::uint8_t isNextYear;
    std::uint8_t isAfterLeapDay;  // of a leap year
    std::uint32_t dayOfYear;      // of a common year
};

constexpr auto kMarchYear = [] {
    std::array<MarchDay, 366> days{};
    MarchDay* next = days.data();
    for (unsigned count = 0; count < 12; ++count) {
        const unsigned month = (count + 2) % 12;
        const bool isNextYear = month < 2;
        const LONG length = mpmmdd[month + 1] - mpmmdd[month] + (month == 1);
        for (LONG day = 1; day <= length; ++day)
            *next++ = {static_cast<std::uint8_t>(month + 1), static_cast<std::uint8_t>(day), isNextYear,
                       !isNextYear, static_cast<std::uint32_t>(mpmmdd[month] + day)};
    }
    return days;
}();

/// Stores year, month and day of a count of days since 0000-01-01.
inline void setDate(tagUDS& fields, unsigned days) {
    constexpr unsigned kDaysOf400Years = 146097;
    constexpr unsigned kDaysBeforeMarch = 60;  // of the year 0, which is a leap year
    const unsigned quarterDays = 4 * (days - kDaysBeforeMarch) + 3;
    const unsigned century = quarterDays / kDaysOf400Years;
    const unsigned dayOfCentury = quarterDays % kDaysOf400Years / 4;
    const unsigned yearOfCentury = (91867 * dayOfCentury + 80000) >> 25;
    const MarchDay& day = kMarchYear[dayOfCentury - 1461 * yearOfCentury / 4];
    const unsigned isLeap = (yearOfCentury == 0 ? century : yearOfCentury) % 4 == 0;
    fields.wYear = static_cast<WORD>(100 * century + yearOfCentury + day.isNextYear);
    fields.wMonth = day.month;
    fields.wDay = day.day;
    fields.wDayOfYear = static_cast<WORD>(day.dayOfYear + (isLeap & day.isAfterLeapDay));
}

inline void setTime(tagUDS& fields, unsigned secondOfDay) {
    const unsigned hour = 37283 * secondOfDay >> 27;
    const unsigned secondOfHour = secondOfDay - 3600 * hour;
    const unsigned minute = 34953 * secondOfHour >> 21;
    fields.wHour = static_cast<WORD>(hour);
    fields.wMinute = static_cast<WORD>(minute);
    fields.wSecond = static_cast<WORD>(secondOfHour - 60 * minute);
}

/// `VarUdateFromDate`.
inline HRESULT unpackValue(double value, tagUDS& fields) {
    constexpr double kHalfSecond = 5.787037037037037e-06;
    constexpr double kBefore = kFirstDay - 1;
    constexpr double kAfter = kLastDay + 1;
    constexpr auto kFirst = static_cast<unsigned>(kFirstDay);
    double rounded = value + std::copysign(kHalfSecond, value);
    // Unlike a cast, this is defined for every value: what an int cannot hold becomes the least one.
    int wholeDays = _mm_cvttsd_si32(_mm_set_sd(rounded));
    if (static_cast<unsigned>(wholeDays) - kFirst >= unsigned{kLastDay} - kFirst) [[unlikely]] {
        if (!(value > kBefore && value < kAfter)) return E_INVALIDARG;
        if (!(rounded > kBefore && rounded <= kLastDay)) rounded = value;
        wholeDays = static_cast<int>(rounded);
    }

    const auto days = static_cast<unsigned>(wholeDays + kDayZero);  // at least 36525
    fields.wDayOfWeek = static_cast<WORD>(dayOfWeek(days));
    setDate(fields, days);
    const double fraction = std::abs(rounded - wholeDays);
    setTime(fields, static_cast<unsigned>(static_cast<int>(fraction * 86400)));
    return S_OK;
}

}  // namespace traiklofox::locale
