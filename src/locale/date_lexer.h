#pragma once

// Reads the words of a date that somebody typed, and what follows them. It keeps nothing and allocates nothing. All of
// it is inline, for the parser, its only reader, to compile as one piece: that halves the time of a date.

#include <bit>

#include "locale/date_lexicon.h"

namespace traiklofox::locale {

enum class tagAMPM : int { None, Am, Pm };

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

/// Takes "am" or "a" off the text, `first` being 'a', or "pm" or "p"; the single letter only where no letter follows.
inline bool takeLiteral(const char*& text, char first, const DateLexicon& lexicon) {
    if ((*text | 0x20) != first) return false;
    if ((text[1] | 0x20) == 'm') {
        text += 2;
        return true;
    }
    if (lexicon.isLetter(text[1])) return false;
    ++text;
    return true;
}

/// Takes a designator off the text.
inline tagAMPM takeAmPm(const char*& text, const DateLexicon& lexicon) {
    if (lexicon.beginsWithAm(text)) {
        text += lexicon.amLength();
        return tagAMPM::Am;
    }
    if (lexicon.beginsWithPm(text)) {
        text += lexicon.pmLength();
        return tagAMPM::Pm;
    }
    if (takeLiteral(text, 'a', lexicon)) return tagAMPM::Am;
    if (takeLiteral(text, 'p', lexicon)) return tagAMPM::Pm;
    return tagAMPM::None;
}

/// Reads what follows a word, and advances `text` past it.
inline Separator ddsep(const char*& text, const DateLexicon& lexicon) {
    Separator found = lexicon.separatorOf(*text);
    Separator otherwise = Separator::None;
    if (found == Separator::Blanks) {
        do found = lexicon.separatorOf(*++text);
        while (found == Separator::Blanks);
        otherwise = Separator::Blanks;
    }
    if (found == Separator::End) return found;
    if (found != Separator::None) {
        ++text;
        return found;
    }
    if (!lexicon.isLetter(*text)) return otherwise;
    switch (takeAmPm(text, lexicon)) {
        case tagAMPM::Am: return Separator::Am;
        case tagAMPM::Pm: return Separator::Pm;
        case tagAMPM::None: break;
    }
    return otherwise;
}

/// The month, 1 to 12, of a name or of the beginning of one; 0 for any other word.
inline int MonthNumOfMonthName(const char* word, size_t length, const DateLexicon& lexicon) {
    constexpr size_t kShortestLongName = 3;
    const tagDATEINFO& info = lexicon.info();
    const unsigned candidates = lexicon.monthsOf(*word);
    for (unsigned rest = candidates; rest != 0; rest &= rest - 1) {
        const int month = std::countr_zero(rest);
        const size_t known = info.shortMonthLengths[month];
        if (equalBytes(word, info.shortMonths[month], length < known ? length : known)) return month + 1;
    }
    if (length < kShortestLongName) return 0;
    for (unsigned rest = candidates; rest != 0; rest &= rest - 1) {
        const int month = std::countr_zero(rest);
        if (equalBytes(word, info.longMonths[month], length)) return month + 1;
        const char* genitive = genitiveOf(month + 1, info.lcid);
        if (genitive != nullptr && equalBytes(word, genitive, length)) return month + 1;
    }
    return 0;
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

/// An unknown token for a word that is too long, or no month.
inline tagDATETOK lexMonth(const char*& text, const DateLexicon& lexicon) {
    const char* end = text + 1;
    while (lexicon.isLetterOrDigit(*end)) ++end;
    const auto length = static_cast<size_t>(end - text);
    if (length > kLongestWord) return {};
    const int month = MonthNumOfMonthName(text, length, lexicon);
    if (month == 0) return {};
    if (*end == '.') ++end;
    text = end;
    return {.kind = monthFollowedBy(ddsep(text, lexicon)), .value = month};
}

/// An unknown token for a number that is too long, or that anything else follows.
inline tagDATETOK lexNumber(const char*& text, const DateLexicon& lexicon) {
    const char* const begin = text;
    auto number = static_cast<unsigned>(*text - '0');  // keeps its lowest 32 bits
    while (lexicon.isDigit(*++text)) number = number * 10 + static_cast<unsigned>(*text - '0');
    if (text - begin > kLongestWord) return {};
    const Separator separator = ddsep(text, lexicon);
    const tagAMPM amPm = separator == Separator::Am   ? tagAMPM::Am
                         : separator == Separator::Pm ? tagAMPM::Pm
                                                      : tagAMPM::None;
    return {.kind = numberFollowedBy(separator), .value = static_cast<int>(number), .amPm = amPm};
}

/// Reads a token and advances `text` past it. After an unknown one there is nothing more to read.
inline tagDATETOK ddlex(const char*& text, const DateLexicon& lexicon) {
    while (lexicon.isSpace(*text)) ++text;
    if (lexicon.isDigit(*text)) return lexNumber(text, lexicon);
    if (lexicon.isLetter(*text)) return lexMonth(text, lexicon);
    if (*text == '\0') return {.kind = TokenKind::End};
    return {};
}

}  // namespace traiklofox::locale
