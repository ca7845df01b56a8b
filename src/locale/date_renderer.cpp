// date_renderer.cpp: dates after a picture, times, and both after the locale's order.

#include "locale/date_renderer.h"

#include <array>
#include <cstdlib>
#include <utility>

#include "locale/date_lexicon.h"
#include "locale/month_genitives.h"
#include "locale/unpack.h"

namespace traiklofox::locale {

namespace {

/// What a part of a picture stands for.
enum class Part {
    Literal,
    Separator,
    Month,
    MonthOfTwoDigits,
    ShortMonth,
    LongMonth,
    Day,
    DayOfTwoDigits,
    ShortWeekday,
    LongWeekday,
    ShortYear,
    Year,
};

struct PicturePart {
    Part part;
    const char* literal;
    size_t length;     ///< of the literal
    const char* rest;  ///< of the picture
};

constexpr bool isMonthLetter(char letter) {
    return letter == 'M' || letter == 'm';
}

constexpr PicturePart literalOf(const char* text, size_t length, const char* rest) {
    return {Part::Literal, text, length, rest};
}

/// Text up to the next quote, which is left out.
constexpr PicturePart quotedPart(const char* text) {
    const char* end = text;
    while (*end != '\0' && *end != '\'') ++end;
    return literalOf(text, static_cast<size_t>(end - text), *end == '\'' ? end + 1 : end);
}

/// The part that one to four letters stand for: `first` and those behind it.
template <class IsLetter>
constexpr PicturePart partOfLetters(const char* picture, Part first, IsLetter isLetter) {
    int letters = 1;
    while (letters < 4 && isLetter(picture[letters])) ++letters;
    return {static_cast<Part>(static_cast<int>(first) + letters - 1), "", 0, picture + letters};
}

/// The first part of a picture that is not empty.
constexpr PicturePart firstPart(const char* picture) {
    if (*picture == '\'') return quotedPart(picture + 1);
    if (*picture == '/') return {Part::Separator, "", 0, picture + 1};
    if (isMonthLetter(*picture)) return partOfLetters(picture, Part::Month, isMonthLetter);
    if (*picture == 'd') return partOfLetters(picture, Part::Day, [](char letter) { return letter == 'd'; });
    if (picture[0] != 'y' || picture[1] != 'y') return literalOf(picture, 1, picture + 1);
    if (picture[2] == 'y' && picture[3] == 'y') return {Part::Year, "", 0, picture + 4};
    return {Part::ShortYear, "", 0, picture + 2};
}

/// The parts of a picture of three numbers.
using NumericPicture = std::array<Part, 5>;

constexpr NumericPicture partsOf(const char* picture) {
    NumericPicture parts{};
    for (Part& part : parts) {
        const PicturePart found = firstPart(picture);
        part = found.part;
        picture = found.rest;
    }
    return parts;
}

/// Whether a day's letter occurs outside quotes.
bool hasDayLetter(const char* picture) {
    bool isQuoted = false;
    for (; *picture != '\0'; ++picture) {
        if (*picture == '\'') isQuoted = !isQuoted;
        if (!isQuoted && (*picture == 'd' || *picture == 'D')) return true;
    }
    return false;
}

template <class Out>
class DateRendering {
  public:
    DateRendering(const tagUDS& date, Out& out, const tagDATEINFO& info)
        : date_(date), out_(out), info_(info) {}

    void put(const char* picture) {
        while (*picture != '\0') {
            const PicturePart part = firstPart(picture);
            put(part);
            picture = part.rest;
        }
    }

    void put(const PicturePart& part) {
        switch (part.part) {
            case Part::Literal: return out_.put(part.literal, part.length);
            case Part::Separator: return out_.put(info_.dateSeparator[0] != '\0' ? info_.dateSeparator : "/");
            case Part::Month: return out_.putNumber(date_.wMonth);
            case Part::MonthOfTwoDigits: return out_.putTwoDigits(date_.wMonth);
            case Part::ShortMonth: return putMonth(info_.shortMonths);
            case Part::LongMonth: return putLongMonth(part.rest);
            case Part::Day: dayRendered_ = true; return out_.putNumber(date_.wDay);
            case Part::DayOfTwoDigits: dayRendered_ = true; return out_.putTwoDigits(date_.wDay);
            case Part::ShortWeekday: dayRendered_ = true; return putWeekday(info_.shortDays);
            case Part::LongWeekday: dayRendered_ = true; return putWeekday(info_.longDays);
            case Part::ShortYear: return putShortYear();
            case Part::Year: return out_.putNumber(date_.wYear);
        }
    }

  private:
    template <size_t Size>
    void putMonth(const char (&names)[12][Size]) {
        if (date_.wMonth >= 1 && date_.wMonth <= 12) out_.put(names[date_.wMonth - 1]);
    }

    template <size_t Size>
    void putWeekday(const char (&names)[7][Size]) {
        if (date_.wDayOfWeek < 7) out_.put(names[date_.wDayOfWeek]);
    }

    void putLongMonth(const char* rest) {
        const bool isKnown = date_.wMonth >= 1 && date_.wMonth <= 12;
        const char* genitive = isKnown ? genitiveOf(date_.wMonth, info_.lcid) : nullptr;
        if (genitive != nullptr && (dayRendered_ || hasDayLetter(rest)))
            out_.put(genitive);
        else
            putMonth(info_.longMonths);
    }

    void putShortYear() {
        if (date_.wYear >= 1900 && date_.wYear <= 1999)
            out_.putTwoDigits(date_.wYear - 1900U);
        else
            out_.putNumber(date_.wYear);
    }

    const tagUDS& date_;
    Out& out_;
    const tagDATEINFO& info_;
    bool dayRendered_ = false;
};

/// Renders the date in numbers. Each part is a constant, so that nothing of the picture is left to do.
template <const NumericPicture& kParts, class Out>
void putNumbers(const tagUDS& date, Out& out, const tagDATEINFO& info) {
    DateRendering<Out> rendering(date, out, info);
    [&]<size_t... kIndex>(std::index_sequence<kIndex...>) {
        (rendering.put({kParts[kIndex], "", 0, ""}), ...);
    }
    (std::make_index_sequence<kParts.size()>());
}

constexpr NumericPicture kMonthDayYear = partsOf("m/d/yy");
constexpr NumericPicture kDayMonthYear = partsOf("d/m/yy");
constexpr NumericPicture kYearMonthDay = partsOf("yy/m/d");

template <class Out>
void putNumbers(const tagUDS& date, Out& out, const tagDATEINFO& info) {
    switch (info.dateOrder) {
        case DATE_ORDER_MDY: return putNumbers<kMonthDayYear>(date, out, info);
        case DATE_ORDER_DMY: return putNumbers<kDayMonthYear>(date, out, info);
        default: return putNumbers<kYearMonthDay>(date, out, info);
    }
}

}  // namespace

template <class Out>
void RenderDate(const tagUDS& date, const char* picture, Out& out, const tagDATEINFO& info) {
    DateRendering<Out>(date, out, info).put(picture);
}

template <class Out>
void RenderTime(const tagUDS& time, Out& out, const tagDATEINFO& info) {
    unsigned hour = time.wHour;
    if (info.twelveHourClock) {
        if (hour >= 13 && hour <= 23) hour -= 12;
        if (hour == 0) hour = 12;
    }
    if (info.hourLeadingZero)
        out.putTwoDigits(hour);
    else
        out.putNumber(hour);
    out.putColonAndTwoDigits(time.wMinute);
    out.putColonAndTwoDigits(time.wSecond);

    if (!info.twelveHourClock && !info.designatorsEqual) return;
    const bool isAm = info.twelveHourClock && time.wHour < 12;
    const char* designator = isAm ? info.amDesignator : info.pmDesignator;
    if (*designator == '\0') return;
    out.put(' ');
    out.put(designator);
}

template void RenderDate(const tagUDS&, const char*, TextLength&, const tagDATEINFO&);
template void RenderDate(const tagUDS&, const char*, TextOut&, const tagDATEINFO&);
template void RenderTime(const tagUDS&, TextLength&, const tagDATEINFO&);
template void RenderTime(const tagUDS&, TextOut&, const tagDATEINFO&);

namespace {

/// What of a value is rendered.
struct Parts {
    bool date;
    bool time;
};

Parts partsToRender(const tagUDS& fields, DWORD flags) {
    const bool isZeroDate = fields.wDay == 30 && fields.wMonth == 12 && fields.wYear == 1899;
    if (isZeroDate || (flags & VAR_TIMEVALUEONLY) != 0) return {.date = false, .time = true};
    const bool isMidnight = (fields.wHour | fields.wMinute | fields.wSecond) == 0;
    return {.date = true, .time = !isMidnight && (flags & VAR_DATEVALUEONLY) == 0};
}

template <class Out>
void render(const tagUDS& fields, Parts parts, Out& out, const tagDATEINFO& info) {
    if (parts.date) putNumbers(fields, out, info);
    if (parts.date && parts.time) out.put(' ');
    if (parts.time) RenderTime(fields, out, info);
}

}  // namespace

char* renderValue(double value, const tagDATEINFO& info, DWORD flags) {
    tagUDS fields;
    Parts parts{};
    if (unpackValue(value, fields) == S_OK) parts = partsToRender(fields, flags);
    TextLength length;
    render(fields, parts, length, info);
    char* text = static_cast<char*>(std::malloc(length.length() + 1));
    if (text == nullptr) return nullptr;
    TextOut out(text);
    render(fields, parts, out, info);
    out.end();
    return text;
}

}  // namespace traiklofox::locale

using namespace traiklofox::locale;

// Flat, so that the fields and the place to write to are kept in registers.
__attribute__((flatten)) HRESULT sarnu_VarBstrFromDate(double value, LCID locale, DWORD flags, char** text) {
    *text = renderValue(passed(value), lexiconFor(locale, "CDateTime::Format").info(), flags);
    return S_OK;
}
