#include "locale/time_format.h"

#include <algorithm>
#include <cstring>

namespace traiklofox::locale {

namespace {

// A format may name itself; the C library's do not go deeper than this.
constexpr int kDeepestComposite = 4;

const char* compositeOf(char conversion, const CompositeFormats& composites) {
    switch (conversion) {
        case 'D': return "%m/%d/%y";
        case 'F': return "%Y-%m-%d";
        case 'T': return "%H:%M:%S";
        case 'R': return "%H:%M";
        case 'r': return *composites.twelveHourTime != '\0' ? composites.twelveHourTime : "%I:%M:%S %p";
        case 'x': return composites.date;
        case 'X': return composites.time;
        default: return nullptr;
    }
}

void addLiteral(FormatPieces& pieces, char character) {
    if (pieces.empty() || pieces.back().conversion != 0) pieces.emplace_back();
    pieces.back().literal += character;
}

void addPieces(FormatPieces& pieces, const char* format, const CompositeFormats& composites, int depth) {
    while (*format != '\0') {
        if (*format != '%') {
            addLiteral(pieces, *format++);
            continue;
        }
        ++format;
        FormatPiece piece;
        for (; *format != '\0' && std::strchr("-_0^#+123456789EO", *format) != nullptr; ++format)
            piece.unpadded |= *format == '-';
        if (*format == '\0') return;
        piece.conversion = *format++;
        if (const char* composite = compositeOf(piece.conversion, composites)) {
            if (depth < kDeepestComposite) addPieces(pieces, composite, composites, depth + 1);
        } else if (piece.conversion == '%') {
            addLiteral(pieces, '%');
        } else if (piece.conversion == 'n' || piece.conversion == 't') {
            addLiteral(pieces, ' ');
        } else {
            pieces.push_back(piece);
        }
    }
}

const char* pictureOfDate(const FormatPiece& piece) {
    switch (piece.conversion) {
        case 'd': return piece.unpadded ? "d" : "dd";
        case 'e': return "d";
        case 'a': return "ddd";
        case 'A': return "dddd";
        case 'm': return "M";
        case 'b':
        case 'h': return "MMM";
        case 'B': return "MMMM";
        case 'y': return "yy";
        case 'Y': return "yyyy";
        default: return "";
    }
}

const char* pictureOfTime(const FormatPiece& piece) {
    switch (piece.conversion) {
        case 'H': return piece.unpadded ? "H" : "HH";
        case 'k': return "H";
        case 'I': return piece.unpadded ? "h" : "hh";
        case 'l': return "h";
        case 'M': return "mm";
        case 'S': return "ss";
        case 'p':
        case 'P': return "tt";
        default: return "";
    }
}

std::string quoted(std::string_view literal) {
    std::string picture = "'";
    for (const char character : literal) picture.append(character == '\'' ? 2 : 1, character);
    return picture + "'";
}

bool isDate(const FormatPiece& piece) {
    const char meaning = meaningOf(piece);
    return meaning != 0 && std::strchr("dMyw", meaning) != nullptr;
}

}  // namespace

FormatPieces piecesOf(const char* format, const CompositeFormats& composites) {
    FormatPieces pieces;
    addPieces(pieces, format, composites, /*depth=*/0);
    return pieces;
}

char meaningOf(const FormatPiece& piece) {
    switch (piece.conversion) {
        case 'd':
        case 'e': return 'd';
        case 'm':
        case 'b':
        case 'h':
        case 'B': return 'M';
        case 'y':
        case 'Y': return 'y';
        case 'a':
        case 'A': return 'w';
        case 'H':
        case 'k':
        case 'I':
        case 'l': return 'H';
        case 'M': return 'm';
        case 'S': return 's';
        case 'p':
        case 'P': return 't';
        default: return 0;
    }
}

int dateOrderOf(const FormatPieces& pieces) {
    for (const FormatPiece& piece : pieces) {
        switch (meaningOf(piece)) {
            case 'M': return 0;
            case 'd': return 1;
            case 'y': return 2;
            default: break;
        }
    }
    return 0;
}

std::string separatorIn(const FormatPieces& pieces, std::string_view meanings) {
    std::string between;
    bool inside = false;
    for (const FormatPiece& piece : pieces) {
        const char meaning = meaningOf(piece);
        if (meaning != 0 && meanings.find(meaning) != meanings.npos) {
            if (inside) return between;
            inside = true;
        } else if (inside) {
            between += piece.literal;
        }
    }
    return {};
}

bool hasLeadingZero(const FormatPieces& pieces, char meaning) {
    return std::ranges::any_of(pieces, [&](const FormatPiece& piece) {
        return meaningOf(piece) == meaning && !piece.unpadded &&
               std::strchr("dmHI", piece.conversion) != nullptr;
    });
}

bool isTwelveHourClock(const FormatPieces& pieces) {
    return std::ranges::any_of(
        pieces, [](const FormatPiece& piece) { return piece.conversion == 'I' || piece.conversion == 'l'; });
}

FormatPieces dateIn(const FormatPieces& pieces) {
    const auto first = std::ranges::find_if(pieces, isDate);
    const auto last = std::find_if(pieces.rbegin(), std::make_reverse_iterator(first), isDate).base();
    FormatPieces date;
    std::copy_if(first, last, std::back_inserter(date),
                 [](const FormatPiece& piece) { return piece.conversion == 0 || isDate(piece); });
    return date;
}

std::string pictureOf(const FormatPieces& pieces, PictureKind kind) {
    std::string picture;
    for (const FormatPiece& piece : pieces) {
        if (piece.conversion == 0) {
            picture += quoted(piece.literal);
        } else if (kind == PictureKind::Date) {
            picture += pictureOfDate(piece);
        } else if (kind == PictureKind::Time) {
            picture += pictureOfTime(piece);
        }
    }
    return picture;
}

}  // namespace traiklofox::locale
