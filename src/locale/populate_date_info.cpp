// populate_date_info.cpp: fills the record of one locale from the answers to Win32's queries.

#include <ctype.h>

#include <algorithm>
#include <cstring>

#include "locale/date_info.h"
#include "locale/date_text.h"
#include "locale/locale_query.h"

namespace traiklofox::locale {

namespace {

/// Asks about one locale; a query that fails is answered with the empty text.
class Asked {
  public:
    Asked(const PosixLocale& data, LCID locale) : data_(data), locale_(locale), isUtf8_(data.isUtf8()) {}

    std::string text(LCTYPE query) const { return answerQuery(data_, locale_, query).value_or(""); }
    bool isAnswered(LCTYPE query, const char* with) const { return text(query) == with; }

    /// The answer, cut to the field at a character's boundary.
    template <size_t Size>
    void fill(char (&field)[Size], LCTYPE query) const {
        const std::string answer = text(query);
        size_t length = std::min(answer.size(), Size - 1);
        if (isUtf8_ && length < answer.size())
            while (length > 0 && (answer[length] & 0xC0) == 0x80) --length;
        std::memset(field, 0, Size);
        std::memcpy(field, answer.data(), length);
    }

    template <size_t Size>
    void fillDesignator(char (&field)[Size], LCTYPE query) const {
        fill(field, query);
        if (std::strlen(field) < 2) field[0] = '\0';
    }

  private:
    const PosixLocale& data_;
    LCID locale_;
    bool isUtf8_;
};

void fillMonths(tagDATEINFO& info, const Asked& asked) {
    for (LCTYPE month = 0; month < 12; ++month) {
        asked.fill(info.longMonths[month], LOCALE_SMONTHNAME1 + month);
        char(&name)[16] = info.shortMonths[month];
        asked.fill(name, LOCALE_SABBREVMONTHNAME1 + month);
        const size_t length = std::strlen(name);
        info.shortMonthLengths[month] = static_cast<BYTE>(length);
        if (length > 0 && name[length - 1] == '.') name[length - 1] = '\0';
    }
}

void fillDays(tagDATEINFO& info, const Asked& asked) {
    for (LCTYPE day = 0; day < 7; ++day) {
        const LCTYPE afterMonday = (day + 6) % 7;
        asked.fill(info.longDays[day], LOCALE_SDAYNAME1 + afterMonday);
        asked.fill(info.shortDays[day], LOCALE_SABBREVDAYNAME1 + afterMonday);
    }
}

BYTE classOf(int byte, const PosixLocale& data, bool isUtf8) {
    // A part of a character's several bytes: a name must be read as one word.
    if (isUtf8 && byte >= 0x80) return CHARACTER_LETTER;
    if (isspace_l(byte, data.get()) != 0) return CHARACTER_SPACE;
    if (isalpha_l(byte, data.get()) != 0) return CHARACTER_LETTER;
    if (isdigit_l(byte, data.get()) != 0) return CHARACTER_DIGIT;
    return ispunct_l(byte, data.get()) != 0 ? CHARACTER_PUNCTUATION : 0;
}

void fillCharacterClasses(tagDATEINFO& info, const PosixLocale& data) {
    const bool isUtf8 = data.isUtf8();
    for (int byte = 0; byte < 256; ++byte) info.characterClasses[byte] = classOf(byte, data, isUtf8);
}

}  // namespace

bool populateDateInfo(const char* posixName, LCID locale, tagDATEINFO& info) {
    const PosixLocale data = PosixLocale::find(posixName, LC_TIME_MASK);
    if (!data) return false;
    const Asked asked(data, locale);
    const std::string order = asked.text(LOCALE_IDATE);
    info.lcid = locale;
    info.dateOrder = order.empty() ? DATE_ORDER_MDY : std::clamp(order[0] - '0', 0, 2);
    asked.fillDesignator(info.amDesignator, LOCALE_S1159);
    asked.fillDesignator(info.pmDesignator, LOCALE_S2359);
    info.designatorsEqual = equalTexts(info.amDesignator, info.pmDesignator);
    asked.fill(info.dateSeparator, LOCALE_SDATE);
    asked.fill(info.timeSeparator, LOCALE_STIME);
    info.hourLeadingZero = asked.isAnswered(LOCALE_ITLZERO, "1");
    info.twelveHourClock = asked.isAnswered(LOCALE_ITIME, "0");
    fillMonths(info, asked);
    asked.fill(info.shortDatePicture, LOCALE_SSHORTDATE);
    if (info.shortDatePicture[0] == '\0') std::strcpy(info.shortDatePicture, " ");
    fillDays(info, asked);
    fillCharacterClasses(info, data);
    return true;
}

}  // namespace traiklofox::locale
