#pragma once

// OLE date values taken apart. All of it is inline, for the renderer to leave out what it does not show.

#include <cmath>
#include <cstdint>

#include "locale/calendar.h"

#ifdef __i386__
#include <emmintrin.h>
#endif

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

/// A product of 64 bits. Of a fraction of 2^32 times n, `high` is the whole nths in it and `low` is what is left.
struct Product {
    constexpr Product(unsigned factor, unsigned other) : Product(std::uint64_t{factor} * other) {}
    constexpr explicit Product(std::uint64_t product)
        : high(static_cast<unsigned>(product >> 32)), low(static_cast<unsigned>(product)) {}
    unsigned high;
    unsigned low;
};

// None of these has a branch, because dates come in no order that a processor could foresee, and none divides by a
// division: 613566757 is 2^32 / 7, 2939745 is 2^32 / 1461, 2141 is 2^16 times the months in a day, 1193047 is
// 2^32 / 3600.

inline unsigned dayOfWeek(unsigned days) {
    return Product(613566757 * (days - 1), 7).high;
}

/// Stores year, month and day of a count of days since 0000-01-01. It counts years from March as well.
inline void setDate(tagUDS& fields, unsigned days) {
    constexpr unsigned kDaysOf400Years = 146097;
    constexpr unsigned kDaysBeforeMarch = 60;  // of the year 0, which is a leap year
    constexpr unsigned kDaysOfMarchToYearEnd = 306;
    const unsigned quarterDays = 4 * (days - kDaysBeforeMarch) + 3;
    const unsigned century = quarterDays / kDaysOf400Years;
    const unsigned quarterDaysOfCentury = quarterDays % kDaysOf400Years | 3;
    const Product yearOfCentury(2939745, quarterDaysOfCentury);
    const unsigned dayOfYear = yearOfCentury.low / 2939745 / 4;  // since March 1
    const unsigned monthAndRest = 2141 * dayOfYear + 197913;

    const unsigned isNextYear = dayOfYear >= kDaysOfMarchToYearEnd;
    const unsigned yearToTest = yearOfCentury.high == 0 ? century : yearOfCentury.high;
    const unsigned isLeap = yearToTest % 4 == 0;
    fields.wYear = static_cast<WORD>(100 * century + yearOfCentury.high + isNextYear);
    fields.wMonth = static_cast<WORD>((monthAndRest >> 16) - 12 * isNextYear);
    fields.wDay = static_cast<WORD>((monthAndRest & 0xffff) / 2141 + 1);
    fields.wDayOfYear = static_cast<WORD>(dayOfYear + 60 + isLeap - (365 + isLeap) * isNextYear);
}

inline void setTime(tagUDS& fields, unsigned secondOfDay) {
    const Product hour(1193047, secondOfDay);
    const Product minute(hour.low, 60);
    const Product second(minute.low, 60);
    fields.wHour = static_cast<WORD>(hour.high);
    fields.wMinute = static_cast<WORD>(minute.high);
    fields.wSecond = static_cast<WORD>(second.high);
}

/// `VarUdateFromDate`.
inline HRESULT unpackValue(double value, tagUDS& fields) {
    constexpr double kHalfSecond = 5.787037037037037e-06;
    constexpr double kBefore = kFirstDay - 1;
    constexpr double kAfter = kLastDay + 1;
    const double rounded = value + std::copysign(kHalfSecond, value);
    if (rounded > kBefore && rounded <= kLastDay) [[likely]]
        value = rounded;
    else if (!(value > kBefore && value < kAfter))
        return E_INVALIDARG;

    const int wholeDays = static_cast<int>(value);
    const auto days = static_cast<unsigned>(wholeDays + kDayZero);  // at least 36525
    fields.wDayOfWeek = static_cast<WORD>(dayOfWeek(days));
    setDate(fields, days);
    const double fraction = std::abs(value - wholeDays);
    setTime(fields, static_cast<unsigned>(static_cast<int>(fraction * 86400)));
    return S_OK;
}

}  // namespace traiklofox::locale
