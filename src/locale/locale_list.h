#pragma once

// The built-in list of locales.

#include <traiklofox/locale.h>

namespace traiklofox::locale {

constexpr int num_default_locales = 30;
extern const LocaleRow DefaultLocalesArray[num_default_locales];

/// The row of a number, or null.
const LocaleRow* findLocaleRow(LCID locale);

/// Whether the built-in US English record stands for the number.
constexpr bool isDefaultLocale(LCID locale) {
    return locale == 0 || locale == 1024 || locale == 1033 || locale == 2048;
}

}  // namespace traiklofox::locale
