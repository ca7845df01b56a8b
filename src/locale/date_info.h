#pragma once

// The conventions of one locale, and what is asked of them in every word of a date.

#include <traiklofox/locale.h>

#include "locale/locale_list.h"

namespace traiklofox::locale {

/// US English, built in.
extern const tagDATEINFO defDateInfo;

/// The conventions of a locale that is not the built-in one, as `getDateInfo`; throws "Locale is not properly
/// initialized" with the location before `initLocaleInfo`.
const tagDATEINFO& listedDateInfo(LCID locale, const char* location);

/// The same of any locale.
inline const tagDATEINFO& dateInfoFor(LCID locale, const char* location) {
    return isDefaultLocale(locale) ? defDateInfo : listedDateInfo(locale, location);
}

inline bool hasClass(const tagDATEINFO& info, char character, unsigned classes) {
    return (info.characterClasses[static_cast<unsigned char>(character)] & classes) != 0;
}
inline bool isSpace(const tagDATEINFO& info, char character) {
    return hasClass(info, character, CHARACTER_SPACE);
}
inline bool isLetter(const tagDATEINFO& info, char character) {
    return hasClass(info, character, CHARACTER_LETTER);
}
inline bool isDigit(const tagDATEINFO& info, char character) {
    return hasClass(info, character, CHARACTER_DIGIT);
}
inline bool isLetterOrDigit(const tagDATEINFO& info, char character) {
    return hasClass(info, character, CHARACTER_LETTER | CHARACTER_DIGIT);
}

/// Fills the record from the data of the named locale. False: there is no such locale.
bool populateDateInfo(const char* posixName, LCID locale, tagDATEINFO& info);

}  // namespace traiklofox::locale
