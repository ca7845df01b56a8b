#pragma once

// The conventions of one locale, and what is asked of them in every word of a date.

#include <traiklofox/locale.h>

namespace traiklofox::locale {

/// US English, built in.
extern const tagDATEINFO defDateInfo;

inline bool hasClass(const tagDATEINFO& info, char character, unsigned classes) {
    return (info.characterClasses[static_cast<unsigned char>(character)] & classes) != 0;
}
inline bool isSpace(const tagDATEINFO& info, char character) {
    return hasClass(info, character, CHARACTER_SPACE);
}
inline bool isDigit(const tagDATEINFO& info, char character) {
    return hasClass(info, character, CHARACTER_DIGIT);
}

/// Fills the record from the data of the named locale. False: there is no such locale.
bool populateDateInfo(const char* posixName, LCID locale, tagDATEINFO& info);

}  // namespace traiklofox::locale
