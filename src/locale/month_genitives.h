#pragma once

// The names that months have behind a day's number, in the two languages whose numbers ask for them.

#include <traiklofox/types.h>

namespace traiklofox::locale {

constexpr LCID kPolish = 1045;
constexpr LCID kRussian = 1049;

constexpr bool hasGenitives(LCID locale) {
    return locale == kPolish || locale == kRussian;
}

constexpr int kLongestGenitive = 12;  // "października"

/// Twelve names in 16-bit little-endian units, each with a zero byte behind it.
struct GenitiveNames {
    char bytes[12][2 * kLongestGenitive + 1];
};
extern const GenitiveNames g_rgszPolishMonth2;
extern const GenitiveNames g_rgszRussianMonth2;

/// The name as the bytes up to the first zero: of a Polish one that is its first letter, deliberately. Null for any
/// other locale.
const char* genitiveOf(int month, LCID locale);

}  // namespace traiklofox::locale
