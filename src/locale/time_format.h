#pragma once

// `strftime` formats taken apart, and what they say of a locale's dates and times.

#include <string>
#include <string_view>
#include <vector>

namespace traiklofox::locale {

/// A run of literal text, or one conversion.
struct FormatPiece {
    char conversion = 0;    ///< 0: literal text
    bool unpadded = false;  ///< the flag "-": no leading zero or blank
    std::string literal = {};
};
using FormatPieces = std::vector<FormatPiece>;

/// What the conversions stand for that depend on the locale.
struct CompositeFormats {
    const char* date = "";            ///< "%x"
    const char* time = "";            ///< "%X"
    const char* twelveHourTime = "";  ///< "%r"; empty: "%I:%M:%S %p"
};

/// Takes the format apart, with "%T" and its like in their parts. A format that is cut off in a conversion ends
/// before it.
FormatPieces piecesOf(const char* format, const CompositeFormats& composites = {});

/// 'd', 'M', 'y' for the day of the month, the month, the year; 'w' for the day of the week; 'H', 'm', 's', 't' for
/// hour, minute, second, designator; 0 for literal text and all else.
char meaningOf(const FormatPiece& piece);

/// The order of day, month and year: month first is 0, day first 1, year first 2.
int dateOrderOf(const FormatPieces& pieces);
/// The literal text between the first two of the pieces whose meaning is in `meanings`.
std::string separatorIn(const FormatPieces& pieces, std::string_view meanings);
/// Whether the piece of that meaning has a leading zero.
bool hasLeadingZero(const FormatPieces& pieces, char meaning);
bool isTwelveHourClock(const FormatPieces& pieces);
/// The pieces from the first to the last that belong to a date, without those of a time.
FormatPieces dateIn(const FormatPieces& pieces);

enum class PictureKind { Date, Time, LiteralOnly };
/// The Win32 picture, literal text between quotes.
std::string pictureOf(const FormatPieces& pieces, PictureKind kind);

}  // namespace traiklofox::locale
