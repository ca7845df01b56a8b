// date_renderer.cpp: dates after a picture, times, and both after the locale's order.

#include "locale/date_renderer.h"

#include <cstdlib>
#include <cstring>

#include "locale/calendar.h"
#include "locale/date_info.h"
#include "locale/month_genitives.h"

namespace traiklofox::locale {

namespace {

constexpr size_t kLongestText = 128;

bool isMonthLetter(char letter) {
    return letter == 'M' || letter == 'm';
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

class DateRendering {
  public:
    DateRendering(const tagUDS& date, TextOut& out, const tagDATEINFO& info)
        : date_(date), out_(out), info_(info) {}

    void render(const char* picture) {
        while (*picture != '\0') {
            if (*picture == '\'')
                picture = literal(picture + 1);
            else if (isMonthLetter(*picture))
                picture = month(picture);
            else if (*picture == 'd')
                picture = day(picture);
            else if (picture[0] == 'y' && picture[1] == 'y')
                picture = year(picture);
            else
                character(*picture++);
        }
    }

  private:
    /// Text up to the next quote; returns what is behind that.
    const char* literal(const char* text) {
        const char* end = text;
        while (*end != '\0' && *end != '\'') ++end;
        out_.put({text, static_cast<size_t>(end - text)});
        return *end == '\'' ? end + 1 : end;
    }

    const char* month(const char* picture) {
        int letters = 1;
        while (letters < 4 && isMonthLetter(picture[letters])) ++letters;
        const char* rest = picture + letters;
        const bool isKnown = date_.wMonth >= 1 && date_.wMonth <= 12;
        if (letters <= 2)
            number(date_.wMonth, letters);
        else if (isKnown)
            out_.put(letters == 3 ? info_.shortMonths[date_.wMonth - 1] : longMonth(rest));
        return rest;
    }

    const char* longMonth(const char* rest) const {
        const char* genitive = genitiveOf(date_.wMonth, info_.lcid);
        if (genitive != nullptr && (dayRendered_ || hasDayLetter(rest))) return genitive;
        return info_.longMonths[date_.wMonth - 1];
    }

    const char* day(const char* picture) {
        int letters = 1;
        while (letters < 4 && picture[letters] == 'd') ++letters;
        dayRendered_ = true;
        if (letters <= 2)
            number(date_.wDay, letters);
        else if (date_.wDayOfWeek < 7)
            out_.put(letters == 3 ? info_.shortDays[date_.wDayOfWeek] : info_.longDays[date_.wDayOfWeek]);
        return picture + letters;
    }

    const char* year(const char* picture) {
        const bool isFull = picture[2] == 'y' && picture[3] == 'y';
        if (!isFull && date_.wYear >= 1900 && date_.wYear <= 1999)
            out_.putTwoDigits(date_.wYear - 1900U);
        else
            out_.putNumber(date_.wYear);
        return picture + (isFull ? 4 : 2);
    }

    void character(char literal) {
        if (literal == '/' && info_.dateSeparator[0] != '\0')
            out_.put(info_.dateSeparator);
        else
            out_.put(literal);
    }

    void number(unsigned value, int digits) {
        if (digits == 2)
            out_.putTwoDigits(value);
        else
            out_.putNumber(value);
    }

    const tagUDS& date_;
    TextOut& out_;
    const tagDATEINFO& info_;
    bool dayRendered_ = false;
};

/// The packed form of the usual case is written at once.
void putColonAnd(unsigned number, TextOut& out) {
    if (number < 100) return out.putPacked(':' | TextOut::twoDigits(number) << 8, 3);
    out.put(':');
    out.putNumber(number);
}

const char* pictureOf(int dateOrder) {
    switch (dateOrder) {
        case DATE_ORDER_MDY: return "m/d/yy";
        case DATE_ORDER_DMY: return "d/m/yy";
        default: return "yy/m/d";
    }
}

}  // namespace

void RenderDate(const tagUDS& date, const char* picture, TextOut& out, const tagDATEINFO& info) {
    DateRendering(date, out, info).render(picture);
}

void RenderTime(const tagUDS& time, TextOut& out, const tagDATEINFO& info) {
    unsigned hour = time.wHour;
    if (info.twelveHourClock) {
        if (hour >= 13 && hour <= 23) hour -= 12;
        if (hour == 0) hour = 12;
    }
    if (info.hourLeadingZero)
        out.putTwoDigits(hour);
    else
        out.putNumber(hour);
    putColonAnd(time.wMinute, out);
    putColonAnd(time.wSecond, out);

    const char* designator = "";
    if (info.twelveHourClock)
        designator = time.wHour < 12 ? info.amDesignator : info.pmDesignator;
    else if (info.designatorsEqual)
        designator = info.pmDesignator;
    if (*designator == '\0') return;
    out.put(' ');
    out.put(designator);
}

std::string_view renderValue(const double& value, const tagDATEINFO& info, DWORD flags, TextOut& out) {
    tagUDS fields{};
    if (unpackValue(value, fields) != S_OK) return out.text();
    const bool isZeroDate = fields.wYear == 1899 && fields.wMonth == 12 && fields.wDay == 30;
    if (isZeroDate || (flags & VAR_TIMEVALUEONLY) != 0) {
        RenderTime(fields, out, info);
        return out.text();
    }
    RenderDate(fields, pictureOf(info.dateOrder), out, info);
    const bool isMidnight = fields.wHour == 0 && fields.wMinute == 0 && fields.wSecond == 0;
    if (!isMidnight && (flags & VAR_DATEVALUEONLY) == 0) {
        out.put(' ');
        RenderTime(fields, out, info);
    }
    return out.text();
}

}  // namespace traiklofox::locale

using namespace traiklofox::locale;

HRESULT sarnu_VarBstrFromDate(double value, LCID locale, DWORD flags, char** text) {
    if (!isInitForLocale(locale))
        throw CDateTimeException("Locale is not properly initialized", "CDateTime::Format");
    char room[kLongestText];
    TextOut out(room, sizeof room);
    const std::string_view rendered = renderValue(value, getDateInfo(locale), flags, out);
    *text = static_cast<char*>(std::malloc(rendered.size() + 1));
    if (*text == nullptr) return S_OK;
    std::memcpy(*text, rendered.data(), rendered.size());
    (*text)[rendered.size()] = '\0';
    return S_OK;
}
