// date_renderer.cpp: dates after a picture, times, and both after the locale's order.

#include "locale/date_renderer.h"

#include <cstdlib>

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

bool isMonthLetter(char letter) {
    return letter == 'M' || letter == 'm';
}

PicturePart literalOf(const char* text, size_t length, const char* rest) {
    return {Part::Literal, text, length, rest};
}

/// Text up to the next quote, which is left out.
PicturePart quotedPart(const char* text) {
    const char* end = text;
    while (*end != '\0' && *end != '\'') ++end;
    return literalOf(text, static_cast<size_t>(end - text), *end == '\'' ? end + 1 : end);
}

/// The part that one to four letters stand for: `first` and those behind it.
template <class IsLetter>
PicturePart partOfLetters(const char* picture, Part first, IsLetter isLetter) {
    int letters = 1;
    while (letters < 4 && isLetter(picture[letters])) ++letters;
    return {static_cast<Part>(static_cast<int>(first) + letters - 1), "", 0, picture + letters};
}

/// The first part of a picture that is not empty.
PicturePart firstPart(const char* picture) {
    if (*picture == '\'') return quotedPart(picture + 1);
    if (*picture == '/') return {Part::Separator, "", 0, picture + 1};
    if (isMonthLetter(*picture)) return partOfLetters(picture, Part::Month, isMonthLetter);
    if (*picture == 'd') return partOfLetters(picture, Part::Day, [](char letter) { return letter == 'd'; });
    if (picture[0] != 'y' || picture[1] != 'y') return literalOf(picture, 1, picture + 1);
    if (picture[2] == 'y' && picture[3] == 'y') return {Part::Year, "", 0, picture + 4};
    return {Part::ShortYear, "", 0, picture + 2};
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
    const bool isZeroDate = fields.wYear == 1899 && fields.wMonth == 12 && fields.wDay == 30;
    if (isZeroDate || (flags & VAR_TIMEVALUEONLY) != 0) return {.date = false, .time = true};
    const bool isMidnight = (fields.wHour | fields.wMinute | fields.wSecond) == 0;
    return {.date = true, .time = !isMidnight && (flags & VAR_DATEVALUEONLY) == 0};
}

constexpr const char* pictureOf(int dateOrder) {
    return dateOrder == DATE_ORDER_MDY ? "m/d/yy" : dateOrder == DATE_ORDER_DMY ? "d/m/yy" : "yy/m/d";
}

/// The date in numbers that a separator of any length parts.
struct PictureDate {
    const tagUDS& fields;
    const tagDATEINFO& info;

    template <class Out>
    void put(Out& out) const {
        RenderDate(fields, pictureOf(info.dateOrder), out, info);
    }
};

/// The same with a separator of one byte, as nearly all are. Each number is made text once, for both its length and
/// itself.
class PlainDate {
  public:
    PlainDate(const tagUDS& fields, const tagDATEINFO& info)
        : year_(fields.wYear),
          first_(info.dateOrder == DATE_ORDER_DMY ? fields.wDay : fields.wMonth),
          second_(info.dateOrder == DATE_ORDER_DMY ? fields.wMonth : fields.wDay),
          yearIsFirst_(info.dateOrder == DATE_ORDER_YMD),
          separator_(info.dateSeparator[0]) {}

    void put(TextLength& length) const { length.put("", year_.length + first_.length + second_.length + 2); }
    void put(TextOut& out) const {
        if (yearIsFirst_) {
            out.put(year_);
            out.put(separator_);
        }
        out.put(first_);
        out.put(separator_);
        out.put(second_);
        if (!yearIsFirst_) {
            out.put(separator_);
            out.put(year_);
        }
    }

  private:
    YearDigits year_;
    ShortNumber first_;
    ShortNumber second_;
    bool yearIsFirst_;
    char separator_;
};

template <class Date, class Out>
void put(const Date& date, const tagUDS& fields, Parts parts, Out& out, const tagDATEINFO& info) {
    if (parts.date) date.put(out);
    if (parts.date && parts.time) out.put(' ');
    if (parts.time) RenderTime(fields, out, info);
}

template <class Date>
char* render(const Date& date, const tagUDS& fields, Parts parts, const tagDATEINFO& info) {
    TextLength length;
    put(date, fields, parts, length, info);
    char* text = static_cast<char*>(std::malloc(length.length() + 1));
    if (text == nullptr) return nullptr;
    TextOut out(text);
    put(date, fields, parts, out, info);
    out.end();
    return text;
}

}  // namespace

char* renderValue(double value, const tagDATEINFO& info, DWORD flags) {
    tagUDS fields;
    if (unpackValue(value, fields) != S_OK) return static_cast<char*>(std::calloc(1, 1));
    const Parts parts = partsToRender(fields, flags);
    const bool separatorIsOneByte = info.dateSeparator[0] != '\0' && info.dateSeparator[1] == '\0';
    if (separatorIsOneByte) [[likely]]
        return render(PlainDate(fields, info), fields, parts, info);
    return render(PictureDate{fields, info}, fields, parts, info);
}

}  // namespace traiklofox::locale

using namespace traiklofox::locale;

// Flat, so that the fields and the place to write to are kept in registers.
__attribute__((flatten)) HRESULT sarnu_VarBstrFromDate(double value, LCID locale, DWORD flags, char** text) {
    *text = renderValue(passed(value), lexiconFor(locale, "CDateTime::Format").info(), flags);
    return S_OK;
}
