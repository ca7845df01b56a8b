#pragma once

// Reads the words of a date that somebody typed, and what follows them. It keeps nothing and allocates nothing. All of
// it is inline, for the parser, its only reader, to compile as one piece: that halves the time of a date.

#include <cstddef>
#include <cstring>

#include "locale/date_info.h"
#include "locale/date_text.h"
#include "locale/month_genitives.h"

namespace traiklofox::locale {

enum class tagAMPM : int { None, Am, Pm };

/// What follows a word.
enum class Separator : int { None, End, Blanks, Am, Pm, Date, Time };

/// A word together with what follows it. The order is that of the parser's table.
enum class TokenKind : int {
    End,           ///< only blanks were left
    NumberEnd,     ///< number, then end of text
    NumberAmPm,    ///< number, then an AM or PM designator
    NumberBlanks,  ///< number, then blanks
    NumberDate,    ///< number, then a date separator
    NumberTime,    ///< number, then a time separator
    MonthEnd,      ///< month name, then end of text
    MonthBlanks,   ///< month name, then blanks
    MonthDate,     ///< month name, then a date separator
    Unknown,
};
constexpr int kTokenKinds = 9;  // known ones

struct tagDATETOK {
    TokenKind kind = TokenKind::Unknown;
    int value = 0;  ///< the number, or the month's
    tagAMPM amPm = tagAMPM::None;
};

/// The longest word or number, in bytes.
constexpr int kLongestWord = 31;

/// Reads what follows a word, and advances `text` past it.
inline Separator ddsep(const char*& text, const tagDATEINFO& info);

/// The month, 1 to 12, of a name or of the beginning of one; 0 for any other word.
inline int MonthNumOfMonthName(const char* word, size_t length, const tagDATEINFO& info);

/// Takes the designator off the text, unless the text does not begin with it or it is empty.
inline bool takeDesignator(const char*& text, const char* designator) {
    if (*designator == '\0') return false;
    const size_t length = std::strlen(designator);
    if (!equalBytes(text, designator, length)) return false;  // also where the text ends first
    text += length;
    return true;
}

/// Takes "am" or "a" off the text, `first` being 'a', or "pm" or "p"; the single letter only where no letter follows.
inline bool takeLiteral(const char*& text, char first, const tagDATEINFO& info) {
    if ((*text | 0x20) != first) return false;
    if ((text[1] | 0x20) == 'm') {
        text += 2;
        return true;
    }
    if (isLetter(info, text[1])) return false;
    ++text;
    return true;
}

inline tagAMPM takeAmPm(const char*& text, const tagDATEINFO& info) {
    if (!info.designatorsEqual) {
        if (takeDesignator(text, info.amDesignator)) return tagAMPM::Am;
        if (takeDesignator(text, info.pmDesignator)) return tagAMPM::Pm;
    }
    if (takeLiteral(text, 'a', info)) return tagAMPM::Am;
    if (takeLiteral(text, 'p', info)) return tagAMPM::Pm;
    return tagAMPM::None;
}

inline Separator punctuation(char character, const tagDATEINFO& info) {
    if (contains(info.dateSeparator, character)) return Separator::Date;
    if (contains(info.timeSeparator, character)) return Separator::Time;
    switch (character) {
        case ',':
        case '/':
        case '-': return Separator::Date;
        case '.':
        case ':': return Separator::Time;
        default: return Separator::None;
    }
}

inline TokenKind numberFollowedBy(Separator separator) {
    switch (separator) {
        case Separator::None: return TokenKind::Unknown;
        case Separator::End: return TokenKind::NumberEnd;
        case Separator::Blanks: return TokenKind::NumberBlanks;
        case Separator::Am:
        case Separator::Pm: return TokenKind::NumberAmPm;
        case Separator::Date: return TokenKind::NumberDate;
        case Separator::Time: return TokenKind::NumberTime;
    }
    return TokenKind::Unknown;
}

inline TokenKind monthFollowedBy(Separator separator) {
    switch (separator) {
        case Separator::End: return TokenKind::MonthEnd;
        case Separator::Blanks: return TokenKind::MonthBlanks;
        case Separator::Date: return TokenKind::MonthDate;
        case Separator::None:
        case Separator::Am:
        case Separator::Pm:
        case Separator::Time: return TokenKind::Unknown;
    }
    return TokenKind::Unknown;
}

inline bool lexMonth(const char*& text, tagDATETOK& token, const tagDATEINFO& info) {
    const char* end = text;
    while (isLetterOrDigit(info, *end)) ++end;
    const auto length = static_cast<size_t>(end - text);
    if (length > kLongestWord) return false;
    token.value = MonthNumOfMonthName(text, length, info);
    if (token.value == 0) return true;
    if (*end == '.') ++end;
    token.kind = monthFollowedBy(ddsep(end, info));
    if (token.kind != TokenKind::Unknown) text = end;
    return true;
}

inline bool lexNumber(const char*& text, tagDATETOK& token, const tagDATEINFO& info) {
    const char* end = text;
    unsigned number = 0;  // keeps its lowest 32 bits
    for (; isDigit(info, *end); ++end) number = number * 10 + static_cast<unsigned>(*end - '0');
    if (end - text > kLongestWord) return false;
    token.value = static_cast<int>(number);
    const Separator separator = ddsep(end, info);
    if (separator == Separator::Am) token.amPm = tagAMPM::Am;
    if (separator == Separator::Pm) token.amPm = tagAMPM::Pm;
    token.kind = numberFollowedBy(separator);
    if (token.kind != TokenKind::Unknown) text = end;
    return true;
}

/// Reads a token and advances `text` past it, unless it is unknown. False: a word or number is too long.
inline bool ddlex(const char*& text, tagDATETOK& token, const tagDATEINFO& info) {
    token = {};
    while (isSpace(info, *text)) ++text;
    if (*text == '\0') {
        token.kind = TokenKind::End;
        return true;
    }
    if (isDigit(info, *text)) return lexNumber(text, token, info);
    if (isLetter(info, *text)) return lexMonth(text, token, info);
    return true;
}

inline Separator ddsep(const char*& text, const tagDATEINFO& info) {
    const char* const begin = text;
    while (isSpace(info, *text)) ++text;
    const Separator blanks = text != begin ? Separator::Blanks : Separator::None;
    if (*text == '\0') return Separator::End;
    if (isLetter(info, *text)) {
        switch (takeAmPm(text, info)) {
            case tagAMPM::Am: return Separator::Am;
            case tagAMPM::Pm: return Separator::Pm;
            case tagAMPM::None: return blanks;
        }
    }
    const Separator separator = punctuation(*text, info);
    if (separator == Separator::None) return blanks;
    ++text;
    return separator;
}

inline int MonthNumOfMonthName(const char* word, size_t length, const tagDATEINFO& info) {
    constexpr size_t kShortestLongName = 3;
    for (int month = 1; month <= 12; ++month) {
        const size_t known = info.shortMonthLengths[month - 1];
        if (equalBytes(word, info.shortMonths[month - 1], length < known ? length : known)) return month;
    }
    if (length < kShortestLongName) return 0;
    for (int month = 1; month <= 12; ++month) {
        if (equalBytes(word, info.longMonths[month - 1], length)) return month;
        const char* genitive = genitiveOf(month, info.lcid);
        if (genitive != nullptr && equalBytes(word, genitive, length)) return month;
    }
    return 0;
}

}  // namespace traiklofox::locale
