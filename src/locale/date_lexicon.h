#pragma once

// The conventions of one locale as the parser asks for them: one look-up says all that a byte can be.

#include <cstddef>
#include <cstring>

#include "locale/date_info.h"
#include "locale/date_text.h"
#include "locale/locale_list.h"
#include "locale/month_genitives.h"

namespace traiklofox::locale {

/// What follows a word.
enum class Separator : BYTE { None, End, Blanks, Am, Pm, Date, Time };

class DateLexicon {
  public:
    constexpr DateLexicon() = default;
    /// Of conventions that outlive it. Not explicit, because the two say the same.
    constexpr DateLexicon(const tagDATEINFO& conventions) : info_(&conventions) {
        for (int byte = 0; byte < 256; ++byte) {
            const BYTE classes = conventions.characterClasses[byte];
            const Separator separator = separatorOf(static_cast<char>(byte), classes, conventions);
            roles_[byte] =
                static_cast<BYTE>((classes & kClasses) | static_cast<int>(separator) << kSeparatorShift);
            months_[byte] = monthsOf(static_cast<char>(byte), conventions);
        }
        if (conventions.designatorsEqual) return;
        amLength_ = lengthOf(conventions.amDesignator);
        pmLength_ = lengthOf(conventions.pmDesignator);
    }

    const tagDATEINFO& info() const { return *info_; }

    bool isSpace(char character) const { return (roleOf(character) & CHARACTER_SPACE) != 0; }
    bool isLetter(char character) const { return (roleOf(character) & CHARACTER_LETTER) != 0; }
    bool isDigit(char character) const { return (roleOf(character) & CHARACTER_DIGIT) != 0; }
    bool isLetterOrDigit(char character) const {
        return (roleOf(character) & (CHARACTER_LETTER | CHARACTER_DIGIT)) != 0;
    }

    /// What the character is behind a word. A letter is none, but a designator may begin with it.
    Separator separatorOf(char character) const {
        return static_cast<Separator>(roleOf(character) >> kSeparatorShift);
    }

    /// The months of which a name may begin with the byte, in the low 12 bits, January lowest.
    unsigned monthsOf(char first) const { return months_[static_cast<unsigned char>(first)]; }

    /// Whether the text begins with the designator. Where none is to be read, it never does.
    bool beginsWithAm(const char* text) const {
        return amLength_ > 0 && equalBytes(text, info_->amDesignator, amLength_);
    }
    bool beginsWithPm(const char* text) const {
        return pmLength_ > 0 && equalBytes(text, info_->pmDesignator, pmLength_);
    }
    size_t amLength() const { return amLength_; }
    size_t pmLength() const { return pmLength_; }

  private:
    static constexpr int kClasses = CHARACTER_LETTER | CHARACTER_DIGIT | CHARACTER_SPACE;
    static constexpr int kSeparatorShift = 4;

    static constexpr Separator separatorOf(char character, BYTE classes, const tagDATEINFO& conventions) {
        if (character == '\0') return Separator::End;
        if ((classes & CHARACTER_SPACE) != 0) return Separator::Blanks;
        if ((classes & CHARACTER_LETTER) != 0) return Separator::None;
        if (contains(conventions.dateSeparator, character)) return Separator::Date;
        if (contains(conventions.timeSeparator, character)) return Separator::Time;
        if (contains(",/-", character)) return Separator::Date;
        if (contains(".:", character)) return Separator::Time;
        return Separator::None;
    }

    static constexpr WORD monthsOf(char first, const tagDATEINFO& conventions) {
        unsigned months = 0;
        for (int month = 0; month < 12; ++month) {
            const bool isAny = conventions.shortMonthLengths[month] == 0 || hasGenitives(conventions.lcid);
            if (isAny || mayEqual(first, conventions.shortMonths[month][0]) ||
                mayEqual(first, conventions.longMonths[month][0]))
                months |= 1U << month;
        }
        return static_cast<WORD>(months);
    }

    static constexpr BYTE lengthOf(const char* text) {
        BYTE length = 0;
        while (text[length] != '\0') ++length;
        return length;
    }

    unsigned roleOf(char character) const { return roles_[static_cast<unsigned char>(character)]; }

    const tagDATEINFO* info_ = nullptr;
    BYTE roles_[256] = {};  ///< `CHARACTER_` value in the low four bits, `Separator` in the high ones
    WORD months_[256] = {};
    BYTE amLength_ = 0;
    BYTE pmLength_ = 0;
};

/// Of US English.
extern const DateLexicon defaultLexicon;

/// Of a locale that is not US English; throws as `getDateInfo`.
const DateLexicon& listedLexicon(LCID locale);

/// Throws "Locale is not properly initialized" with the location before `initLocaleInfo`.
[[noreturn]] void throwNotInitialized(const char* location);

/// Of any locale, for a function of the interface, whose name is the location.
inline const DateLexicon& lexiconFor(LCID locale, const char* location) {
    if (isDefaultLocale(locale)) return defaultLexicon;
    if (!isInitForLocale(locale)) throwNotInitialized(location);
    return listedLexicon(locale);
}

}  // namespace traiklofox::locale
