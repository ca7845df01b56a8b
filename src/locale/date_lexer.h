#pragma once

// The words of a date that somebody typed.

#include <cstddef>

#include "locale/date_info.h"

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

/// Reads a token and advances `text` past it, unless it is unknown. False: a word or number is too long.
bool ddlex(const char*& text, tagDATETOK& token, const tagDATEINFO& info);

/// Reads what follows a word, and advances `text` past it.
Separator ddsep(const char*& text, const tagDATEINFO& info);

/// The month, 1 to 12, of a name or of the beginning of one; 0 for any other word.
int MonthNumOfMonthName(const char* word, size_t length, const tagDATEINFO& info);

}  // namespace traiklofox::locale
