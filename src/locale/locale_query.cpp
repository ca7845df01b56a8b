// locale_query.cpp: the table of Win32's locale queries, and what turns the C library's data into their answers.

#include "locale/locale_query.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cstdio>

#include "locale/time_format.h"

namespace traiklofox::locale {

namespace {

using Answer = std::optional<std::string>;

struct Row;

struct Question {
    const PosixLocale& data;
    LCID locale;
    LCTYPE query;
    const Row& row;
};

struct Row {
    LCTYPE query;
    int count;  ///< so many queries ask for so many items that follow each other
    int categories;
    nl_item item;
    const char* fixed;
    Answer (*shape)(const Question&);
};

// ---- Shaping functions

nl_item itemOf(const Question& q) {
    return q.row.item + static_cast<nl_item>(q.query - q.row.query);
}

Answer fixed(const Question& q) {
    return q.row.fixed;
}

Answer text(const Question& q) {
    return q.data.text(itemOf(q));
}

Answer upperCase(const Question& q) {
    std::string name = q.data.text(itemOf(q));
    for (char& letter : name) letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
    return name;
}

/// Nothing where the locale leaves the number open.
std::optional<int> numberAt(const PosixLocale& data, nl_item item) {
    const int value = data.byte(item);
    if (value < 0 || value == CHAR_MAX) return std::nullopt;
    return value;
}

Answer number(const Question& q) {
    const auto value = numberAt(q.data, itemOf(q));
    return value ? Answer(std::to_string(*value)) : std::nullopt;
}

Answer telephonePrefix(const Question& q) {
    std::string prefix = q.data.text(q.row.item);
    std::erase_if(prefix, [](unsigned char character) { return std::isdigit(character) == 0; });
    return prefix.empty() ? Answer() : prefix;
}

Answer lcidInHex(const Question& q) {
    char digits[12];
    std::snprintf(digits, sizeof digits, "%04x", static_cast<unsigned>(q.locale));
    return digits;
}

Answer localeName(const Question& q) {
    const std::string language = q.data.text(_NL_ADDRESS_LANG_AB);
    const std::string country = q.data.text(_NL_ADDRESS_COUNTRY_AB2);
    return language.empty() || country.empty() ? Answer() : language + "-" + country;
}

/// Win32 numbers ISO 8859's parts in their order.
Answer codePage(const Question& q) {
    const std::string_view encoding = q.data.text(CODESET);
    constexpr std::string_view kIso = "ISO-8859-";
    if (encoding == "UTF-8") return "65001";
    if (encoding == "ANSI_X3.4-1968") return "20127";
    if (!encoding.starts_with(kIso)) return std::nullopt;
    int part = 0;
    std::from_chars(encoding.data() + kIso.size(), encoding.data() + encoding.size(), part);
    return std::to_string(28590 + part);
}

Answer listSeparator(const Question& q) {
    return q.data.text(RADIXCHAR) == std::string_view(",") ? ";" : ",";
}

Answer measure(const Question& q) {
    return q.data.byte(q.row.item) == 2 ? "1" : "0";
}

Answer grouping(const Question& q) {
    std::string sizes;
    for (const char* size = q.data.text(q.row.item); *size > 0; ++size) {
        if (*size == CHAR_MAX) return sizes;  // the digits above these are one group
        sizes += std::to_string(*size) + ";";
    }
    return sizes + "0";
}

Answer digits(const Question& q) {
    std::string all;
    for (nl_item digit = 0; digit < 10; ++digit) all += q.data.text(q.row.item + digit);
    return all;
}

Answer currencyCode(const Question& q) {
    return std::string(q.data.text(q.row.item)).substr(0, 3);  // then comes a separator
}

Answer currencyPlace(const Question& q) {
    const auto precedes = numberAt(q.data, P_CS_PRECEDES);
    const auto space = numberAt(q.data, P_SEP_BY_SPACE);
    if (!precedes || !space) return std::nullopt;
    return std::to_string((*precedes != 0 ? 0 : 1) + (*space != 0 ? 2 : 0));
}

Answer negativeCurrency(const Question& q) {
    // By where the sign stands: in parentheses, before all, after all, before the symbol, after the symbol.
    constexpr int kForms[2][2][5] = {
        {{4, 5, 7, 6, 7}, {15, 8, 10, 13, 10}},  // 1.1$  1.1 $
        {{0, 1, 3, 1, 2}, {14, 9, 11, 9, 12}},   // $1.1  $ 1.1
    };
    const auto precedes = numberAt(q.data, N_CS_PRECEDES);
    const auto space = numberAt(q.data, N_SEP_BY_SPACE);
    const auto sign = numberAt(q.data, N_SIGN_POSN);
    if (!precedes || !space || !sign || *sign > 4) return std::nullopt;
    return std::to_string(kForms[*precedes != 0][*space != 0][*sign]);
}

FormatPieces formatAt(const Question& q, nl_item item) {
    const CompositeFormats composites{q.data.text(D_FMT), q.data.text(T_FMT), q.data.text(T_FMT_AMPM)};
    return piecesOf(q.data.text(item), composites);
}

FormatPieces formatOf(const Question& q) {
    return formatAt(q, q.row.item);
}

Answer flag(bool isSet) {
    return isSet ? "1" : "0";
}

Answer dateSeparator(const Question& q) {
    return separatorIn(formatOf(q), "dMy");
}
Answer timeSeparator(const Question& q) {
    return separatorIn(formatOf(q), "Hm");
}
Answer datePicture(const Question& q) {
    return pictureOf(formatOf(q), PictureKind::Date);
}
Answer longDatePicture(const Question& q) {
    return pictureOf(dateIn(formatOf(q)), PictureKind::Date);
}
Answer timePicture(const Question& q) {
    return pictureOf(formatOf(q), PictureKind::Time);
}
Answer dateOrder(const Question& q) {
    return std::to_string(dateOrderOf(formatOf(q)));
}
Answer longDateOrder(const Question& q) {
    return std::to_string(dateOrderOf(dateIn(formatOf(q))));
}
Answer clock(const Question& q) {
    return flag(!isTwelveHourClock(formatOf(q)));
}
Answer century(const Question& q) {
    return flag(
        std::ranges::any_of(formatOf(q), [](const FormatPiece& piece) { return piece.conversion == 'Y'; }));
}
Answer hourZero(const Question& q) {
    return flag(hasLeadingZero(formatOf(q), 'H'));
}
Answer dayZero(const Question& q) {
    return flag(hasLeadingZero(formatOf(q), 'd'));
}
Answer monthZero(const Question& q) {
    return flag(hasLeadingZero(formatOf(q), 'M'));
}
Answer designatorPlace(const Question& q) {
    for (const FormatPiece& piece : formatOf(q)) {
        if (meaningOf(piece) == 't') return "1";
        if (meaningOf(piece) == 'H') break;
    }
    return "0";
}

Answer paperSize(const Question& q) {
    constexpr unsigned kA4Height = 297;
    constexpr unsigned kLetterHeight = 279;
    const unsigned height = q.data.word(q.row.item);
    if (height == kA4Height) return "9";
    return height == kLetterHeight ? Answer("1") : std::nullopt;
}

/// The C library counts from the weekday of a date, which is a Sunday or a Monday.
Answer firstDayOfWeek(const Question& q) {
    constexpr unsigned kMonday = 19971201;
    const int daysAfterMonday = q.data.word(_NL_TIME_WEEK_1STDAY) == kMonday ? 0 : 6;
    return std::to_string((daysAfterMonday + q.data.byte(q.row.item) - 1) % 7);
}

Answer firstWeekOfYear(const Question& q) {
    switch (q.data.byte(q.row.item)) {  // so many days of the first week belong to the year
        case 7: return "1";
        case 4: return "2";
        default: return "0";
    }
}

// ---- The table

constexpr int kTime = LC_TIME_MASK;
constexpr int kNumeric = LC_NUMERIC_MASK;
constexpr int kMonetary = LC_MONETARY_MASK;
constexpr int kType = LC_CTYPE_MASK;
constexpr int kAddress = LC_ADDRESS_MASK;
constexpr int kAbout = LC_IDENTIFICATION_MASK;
constexpr nl_item kLanguage = _NL_IDENTIFICATION_LANGUAGE;
constexpr nl_item kTerritory = _NL_IDENTIFICATION_TERRITORY;

// clang-format off
constexpr Row kRows[] = {
    // query                   count  category           item                         fixed  shape
    {LOCALE_ILANGUAGE,           1, 0,                   0,                           "",    lcidInHex},
    {LOCALE_SLANGUAGE,           1, kAbout,              kLanguage,                   "",    text},
    {LOCALE_SABBREVLANGNAME,     1, kAddress,            _NL_ADDRESS_LANG_TERM,       "",    upperCase},
    {LOCALE_SNATIVELANGNAME,     1, kAddress,            _NL_ADDRESS_LANG_NAME,       "",    text},
    {LOCALE_ICOUNTRY,            1, LC_TELEPHONE_MASK,   _NL_TELEPHONE_INT_PREFIX,    "",    telephonePrefix},
    {LOCALE_SCOUNTRY,            1, kAbout,              kTerritory,                  "",    text},
    {LOCALE_SABBREVCTRYNAME,     1, kAddress,            _NL_ADDRESS_COUNTRY_AB3,     "",    text},
    {LOCALE_SNATIVECTRYNAME,     1, kAddress,            _NL_ADDRESS_COUNTRY_NAME,    "",    text},
    {LOCALE_IDEFAULTLANGUAGE,    1, 0,                   0,                           "",    lcidInHex},
    {LOCALE_IDEFAULTCOUNTRY,     1, LC_TELEPHONE_MASK,   _NL_TELEPHONE_INT_PREFIX,    "",    telephonePrefix},
    {LOCALE_IDEFAULTCODEPAGE,    1, kType,               CODESET,                     "",    codePage},
    {LOCALE_SLIST,               1, kNumeric,            RADIXCHAR,                   "",    listSeparator},
    {LOCALE_IMEASURE,            1, LC_MEASUREMENT_MASK, _NL_MEASUREMENT_MEASUREMENT, "",    measure},
    {LOCALE_SDECIMAL,            1, kNumeric,            RADIXCHAR,                   "",    text},
    {LOCALE_STHOUSAND,           1, kNumeric,            THOUSEP,                     "",    text},
    {LOCALE_SGROUPING,           1, kNumeric,            GROUPING,                    "",    grouping},
    {LOCALE_IDIGITS,             1, 0,                   0,                           "2",   fixed},
    {LOCALE_ILZERO,              1, 0,                   0,                           "1",   fixed},
    {LOCALE_SNATIVEDIGITS,       1, kType,               _NL_CTYPE_OUTDIGIT0_MB,      "",    digits},
    {LOCALE_SCURRENCY,           1, kMonetary,           CURRENCY_SYMBOL,             "",    text},
    {LOCALE_SINTLSYMBOL,         1, kMonetary,           INT_CURR_SYMBOL,             "",    currencyCode},
    {LOCALE_SMONDECIMALSEP,      1, kMonetary,           MON_DECIMAL_POINT,           "",    text},
    {LOCALE_SMONTHOUSANDSEP,     1, kMonetary,           MON_THOUSANDS_SEP,           "",    text},
    {LOCALE_SMONGROUPING,        1, kMonetary,           MON_GROUPING,                "",    grouping},
    {LOCALE_ICURRDIGITS,         1, kMonetary,           FRAC_DIGITS,                 "",    number},
    {LOCALE_IINTLCURRDIGITS,     1, kMonetary,           INT_FRAC_DIGITS,             "",    number},
    {LOCALE_ICURRENCY,           1, kMonetary,           P_CS_PRECEDES,               "",    currencyPlace},
    {LOCALE_INEGCURR,            1, kMonetary,           N_SIGN_POSN,                 "",    negativeCurrency},
    {LOCALE_SDATE,               1, kTime,               D_FMT,                       "",    dateSeparator},
    {LOCALE_STIME,               1, kTime,               T_FMT,                       "",    timeSeparator},
    {LOCALE_SSHORTDATE,          1, kTime,               D_FMT,                       "",    datePicture},
    {LOCALE_SLONGDATE,           1, kTime,               D_T_FMT,                     "",    longDatePicture},
    {LOCALE_IDATE,               1, kTime,               D_FMT,                       "",    dateOrder},
    {LOCALE_ILDATE,              1, kTime,               D_T_FMT,                     "",    longDateOrder},
    {LOCALE_ITIME,               1, kTime,               T_FMT,                       "",    clock},
    {LOCALE_ICENTURY,            1, kTime,               D_FMT,                       "",    century},
    {LOCALE_ITLZERO,             1, kTime,               T_FMT,                       "",    hourZero},
    {LOCALE_IDAYLZERO,           1, kTime,               D_FMT,                       "",    dayZero},
    {LOCALE_IMONLZERO,           1, kTime,               D_FMT,                       "",    monthZero},
    {LOCALE_S1159,               1, kTime,               AM_STR,                      "",    text},
    {LOCALE_S2359,               1, kTime,               PM_STR,                      "",    text},
    {LOCALE_SDAYNAME1,           6, kTime,               DAY_2,                       "",    text},
    {LOCALE_SDAYNAME1 + 6,       1, kTime,               DAY_1,                       "",    text},
    {LOCALE_SABBREVDAYNAME1,     6, kTime,               ABDAY_2,                     "",    text},
    {LOCALE_SABBREVDAYNAME1 + 6, 1, kTime,               ABDAY_1,                     "",    text},
    {LOCALE_SMONTHNAME1,        12, kTime,               ALTMON_1,                    "",    text},
    {LOCALE_SABBREVMONTHNAME1,  12, kTime,               _NL_ABALTMON_1,              "",    text},
    {LOCALE_SPOSITIVESIGN,       1, kMonetary,           POSITIVE_SIGN,               "",    text},
    {LOCALE_SNEGATIVESIGN,       1, kMonetary,           NEGATIVE_SIGN,               "",    text},
    {LOCALE_IPOSSIGNPOSN,        1, kMonetary,           P_SIGN_POSN,                 "",    number},
    {LOCALE_INEGSIGNPOSN,        1, kMonetary,           N_SIGN_POSN,                 "",    number},
    {LOCALE_IPOSSYMPRECEDES,     1, kMonetary,           P_CS_PRECEDES,               "",    number},
    {LOCALE_IPOSSEPBYSPACE,      1, kMonetary,           P_SEP_BY_SPACE,              "",    number},
    {LOCALE_INEGSYMPRECEDES,     1, kMonetary,           N_CS_PRECEDES,               "",    number},
    {LOCALE_INEGSEPBYSPACE,      1, kMonetary,           N_SEP_BY_SPACE,              "",    number},
    {LOCALE_SISO639LANGNAME,     1, kAddress,            _NL_ADDRESS_LANG_AB,         "",    text},
    {LOCALE_SISO3166CTRYNAME,    1, kAddress,            _NL_ADDRESS_COUNTRY_AB2,     "",    text},
    {LOCALE_SNAME,               1, kAddress,            _NL_ADDRESS_LANG_AB,         "",    localeName},
    {LOCALE_SSHORTESTDAYNAME1,   6, kTime,               ABDAY_2,                     "",    text},
    {LOCALE_SSHORTESTDAYNAME1 + 6, 1, kTime,             ABDAY_1,                     "",    text},
    {LOCALE_SISO639LANGNAME2,    1, kAddress,            _NL_ADDRESS_LANG_TERM,       "",    text},
    {LOCALE_SISO3166CTRYNAME2,   1, kAddress,            _NL_ADDRESS_COUNTRY_AB3,     "",    text},
    {LOCALE_SENGLANGUAGE,        1, kAbout,              kLanguage,                   "",    text},
    {LOCALE_SENGCOUNTRY,         1, kAbout,              kTerritory,                  "",    text},
    {LOCALE_STIMEFORMAT,         1, kTime,               T_FMT,                       "",    timePicture},
    {LOCALE_IDEFAULTANSICODEPAGE, 1, kType,              CODESET,                     "",    codePage},
    {LOCALE_ITIMEMARKPOSN,       1, kTime,               T_FMT_AMPM,                  "",    designatorPlace},
    {LOCALE_ICALENDARTYPE,       1, 0,                   0,                           "1",   fixed},
    {LOCALE_IPAPERSIZE,          1, LC_PAPER_MASK,       _NL_PAPER_HEIGHT,            "",    paperSize},
    {LOCALE_IOPTIONALCALENDAR,   1, 0,                   0,                           "0",   fixed},
    {LOCALE_IFIRSTDAYOFWEEK,     1, kTime,               _NL_TIME_FIRST_WEEKDAY,      "",    firstDayOfWeek},
    {LOCALE_IFIRSTWEEKOFYEAR,    1, kTime,               _NL_TIME_WEEK_1STWEEK,       "",    firstWeekOfYear},
    {LOCALE_SMONTHNAME13,        1, 0,                   0,                           "",    fixed},
    {LOCALE_SABBREVMONTHNAME13,  1, 0,                   0,                           "",    fixed},
    {LOCALE_INEGNUMBER,          1, 0,                   0,                           "1",   fixed},
};
// clang-format on

constexpr bool rowsAscend() {
    for (size_t i = 1; i < std::size(kRows); ++i)
        if (kRows[i].query < kRows[i - 1].query + static_cast<LCTYPE>(kRows[i - 1].count)) return false;
    return true;
}
static_assert(rowsAscend());

const Row* rowOf(LCTYPE query) {
    const Row* row = std::ranges::upper_bound(kRows, query, {}, &Row::query);
    if (row == std::begin(kRows)) return nullptr;
    --row;
    return query - row->query < static_cast<LCTYPE>(row->count) ? row : nullptr;
}

}  // namespace

std::optional<int> categoriesOf(LCTYPE query) {
    const Row* row = rowOf(query);
    return row != nullptr ? std::optional(row->categories) : std::nullopt;
}

std::optional<std::string> answerQuery(const PosixLocale& data, LCID locale, LCTYPE query) {
    const Row* row = rowOf(query);
    return row != nullptr ? row->shape({data, locale, query, *row}) : std::nullopt;
}

}  // namespace traiklofox::locale
