#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <traiklofox/locale.h>

#include <string>
#include <utility>
#include <vector>

#include "locale/test_locales.h"

namespace {

std::string answer(const char* locale, LCTYPE query, LCID lcid = 1033) {
    char text[200] = "?";
    const int length = GetLocaleInfoA(lcid, query, text, sizeof text, locale);
    EXPECT_EQ(length, length == 0 ? 0 : static_cast<int>(strlen(text)) + 1);
    return length == 0 ? "-" : text;
}

TEST(LocaleQuery, AnswersFromTheCLibrarysData) {
    for (const char* name : {"de_DE", "en_GB", "en_CA", "fr_CA", "hu_HU", "is_IS", "cs_CZ.utf8"})
        NEEDS_TEST_LOCALE(name);
    // clang-format off
    const std::pair<const char*, std::vector<std::pair<LCTYPE, const char*>>> kLocales[] = {
        {"de_DE", {
            {LOCALE_ILANGUAGE, "0409"},  // of the number that is asked with
            {LOCALE_SLANGUAGE, "German"}, {LOCALE_SABBREVLANGNAME, "DEU"},
            {LOCALE_SNATIVELANGNAME, "Deutsch"}, {LOCALE_ICOUNTRY, "49"}, {LOCALE_SCOUNTRY, "Germany"},
            {LOCALE_SABBREVCTRYNAME, "DEU"}, {LOCALE_SNATIVECTRYNAME, "Deutschland"},
            {LOCALE_IDEFAULTANSICODEPAGE, "28591"}, {LOCALE_SLIST, ";"}, {LOCALE_IMEASURE, "0"},
            {LOCALE_SDECIMAL, ","}, {LOCALE_STHOUSAND, "."}, {LOCALE_SGROUPING, "3;3;0"},
            {LOCALE_SNATIVEDIGITS, "0123456789"}, {LOCALE_SINTLSYMBOL, "EUR"}, {LOCALE_ICURRDIGITS, "2"},
            {LOCALE_ICURRENCY, "3"}, {LOCALE_INEGCURR, "8"}, {LOCALE_SDATE, "."}, {LOCALE_STIME, ":"},
            {LOCALE_SSHORTDATE, "dd'.'M'.'yyyy"}, {LOCALE_SLONGDATE, "ddd' 'dd' 'MMM' 'yyyy"},
            {LOCALE_STIMEFORMAT, "HH':'mm':'ss"}, {LOCALE_IDATE, "1"}, {LOCALE_ITIME, "1"},
            {LOCALE_ICENTURY, "1"}, {LOCALE_ITLZERO, "1"}, {LOCALE_IDAYLZERO, "1"},
            {LOCALE_SDAYNAME1, "Montag"}, {LOCALE_SDAYNAME1 + 6, "Sonntag"},
            {LOCALE_SABBREVDAYNAME1 + 5, "Sa"}, {LOCALE_SABBREVDAYNAME1 + 6, "So"},
            {LOCALE_SMONTHNAME1 + 11, "Dezember"}, {LOCALE_SABBREVMONTHNAME1 + 4, "Mai"},
            {LOCALE_SNEGATIVESIGN, "-"}, {LOCALE_SNAME, "de-DE"}, {LOCALE_SISO639LANGNAME2, "deu"},
            {LOCALE_SSHORTESTDAYNAME1 + 6, "So"}, {LOCALE_ICALENDARTYPE, "1"}, {LOCALE_IPAPERSIZE, "9"},
            {LOCALE_IFIRSTDAYOFWEEK, "0"}, {LOCALE_IFIRSTWEEKOFYEAR, "2"}, {LOCALE_SMONTHNAME13, ""},
            {LOCALE_INEGNUMBER, "1"}, {LOCALE_SDATE | LOCALE_NOUSEROVERRIDE, "."},
        }},
        {"hu_HU", {{LOCALE_IDEFAULTANSICODEPAGE, "28592"}, {LOCALE_SLONGDATE, "yyyy'. 'MMM'. 'd'., 'dddd"},
            {LOCALE_ILDATE, "2"}}},
        {"cs_CZ", {{LOCALE_IDEFAULTCODEPAGE, "65001"}, {LOCALE_IDAYLZERO, "0"}, {LOCALE_IMONLZERO, "0"},
            {LOCALE_SMONTHNAME1 + 1, "únor"}}},
        {"C", {{LOCALE_IDEFAULTCODEPAGE, "20127"}, {LOCALE_SGROUPING, "0"}, {LOCALE_ICURRDIGITS, "-"},
            {LOCALE_INEGCURR, "-"}, {LOCALE_IDATE, "0"}, {LOCALE_ITIMEMARKPOSN, "0"}}},
        {"en_GB", {{LOCALE_SLIST, ","}, {LOCALE_ICURRENCY, "0"}, {LOCALE_INEGCURR, "1"},
            {LOCALE_ICENTURY, "0"}}},
        {"en_CA", {{LOCALE_STIMEFORMAT, "hh':'mm':'ss' 'tt"}, {LOCALE_ITIME, "0"}, {LOCALE_IPAPERSIZE, "1"},
            {LOCALE_IFIRSTDAYOFWEEK, "6"}}},
        {"fr_CA", {{LOCALE_IDATE, "2"}}},
        {"is_IS", {{LOCALE_S1159, "fh"}, {LOCALE_S2359, "eh"}}},
    };
    // clang-format on
    for (const auto& [locale, answers] : kLocales)
        for (const auto& [query, text] : answers)
            EXPECT_EQ(answer(locale, query), text) << locale << ' ' << std::hex << query;
    EXPECT_EQ(answer(nullptr, LOCALE_ILANGUAGE, 5), "0005");
    for (const auto& [lcid, monday] : {std::pair{1031u, "Montag"}, {1033u, "Monday"}, {2057u, "Monday"}})
        EXPECT_EQ(answer(nullptr, LOCALE_SDAYNAME1, lcid), monday) << lcid;
}

TEST(LocaleQuery, SaysWhyItDoesNotAnswer) {
    char text[8] = "before";
    // clang-format off
    const struct {
        LCID locale; LCTYPE query; char* buffer; int size; const char* name; int result, error;
    } kCases[] = {
        {1033, LOCALE_SDAYNAME1, text, 0, "C", 7, 0}, {1033, LOCALE_SDAYNAME1, nullptr, 0, "C", 7, 0},
        {1033, LOCALE_SDAYNAME1, text, 6, "C", 0, ERANGE}, {1033, LOCALE_SDAYNAME1, text, -1, "C", 0, EINVAL},
        {1033, LOCALE_SDAYNAME1, nullptr, 8, "C", 0, EINVAL}, {1033, 0, text, 8, "C", 0, EINVAL},
        {1033, 0x58, text, 8, "C", 0, EINVAL}, {1033, 0x1011, text, 8, "C", 0, EINVAL},
        {1033, LOCALE_SDAYNAME1, text, 8, "xx_XX", 0, ENOENT},
        {1033, LOCALE_SDAYNAME1, text, 8, "../../etc", 0, ENOENT},
        {4711, LOCALE_SDAYNAME1, text, 8, nullptr, 0, ENOENT},
    };
    // clang-format on
    for (const auto& c : kCases) {
        errno = 0;
        EXPECT_EQ(GetLocaleInfoA(c.locale, c.query, c.buffer, c.size, c.name), c.result) << c.query << c.size;
        EXPECT_EQ(errno, c.error) << c.query << c.size;
        EXPECT_STREQ(text, "before");
    }
}

TEST(LocaleQuery, FormatsBecomePictures) {
    // clang-format off
    const struct { const char* format; LCTYPE query; const char* picture; } kFormats[] = {
        {"%d/%m/%y", LOCALE_SSHORTDATE, "dd'/'M'/'yy"}, {"%-d. %B %Y", LOCALE_SLONGDATE, "d'. 'MMMM' 'yyyy"},
        {"%A, %e %b", LOCALE_SLONGDATE, "dddd', 'd' 'MMM"}, {"%T", LOCALE_STIMEFORMAT, "HH':'mm':'ss"},
        {"%r", LOCALE_STIMEFORMAT, "hh':'mm':'ss' 'tt"},
        {"kl. %H.%M %z", LOCALE_STIMEFORMAT, "'kl. 'HH'.'mm' '"},
        {"%l o'clock", LOCALE_STIMEFORMAT, "h' o''clock'"}, {"'", LOCALE_SSHORTDATE, "''''"},
        {"100%% %5", LOCALE_SSHORTDATE, "'100% '"}, {"%d at", LOCALE_SDATE, "' at'"},
        {"%", LOCALE_SSHORTDATE, ""}, {"", LOCALE_SSHORTDATE, ""},
    };
    // clang-format on
    for (const auto& c : kFormats) {
        char* picture = snProcessLocaleInfo(c.format, c.query);
        EXPECT_STREQ(picture, c.picture) << c.format;
        free(picture);
    }
    EXPECT_EQ(snProcessLocaleInfo(nullptr, LOCALE_SSHORTDATE), nullptr);
}

}  // namespace
