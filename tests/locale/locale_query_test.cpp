#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <traiklofox/locale.h>

#include <string>

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
    struct Case {
        const char* locale;
        LCTYPE query;
        const char* answer;
    };
    for (const Case& c : std::initializer_list<Case>{
             {"de_DE", LOCALE_ILANGUAGE, "0409"},  // of the number that is asked with
             {"de_DE", LOCALE_SLANGUAGE, "German"},
             {"de_DE", LOCALE_SABBREVLANGNAME, "DEU"},
             {"de_DE", LOCALE_SNATIVELANGNAME, "Deutsch"},
             {"de_DE", LOCALE_ICOUNTRY, "49"},
             {"de_DE", LOCALE_SCOUNTRY, "Germany"},
             {"de_DE", LOCALE_SABBREVCTRYNAME, "DEU"},
             {"de_DE", LOCALE_SNATIVECTRYNAME, "Deutschland"},
             {"de_DE", LOCALE_IDEFAULTANSICODEPAGE, "28591"},
             {"hu_HU", LOCALE_IDEFAULTANSICODEPAGE, "28592"},
             {"cs_CZ", LOCALE_IDEFAULTCODEPAGE, "65001"},
             {"C", LOCALE_IDEFAULTCODEPAGE, "20127"},
             {"de_DE", LOCALE_SLIST, ";"},
             {"en_GB", LOCALE_SLIST, ","},
             {"de_DE", LOCALE_IMEASURE, "0"},
             {"de_DE", LOCALE_SDECIMAL, ","},
             {"de_DE", LOCALE_STHOUSAND, "."},
             {"de_DE", LOCALE_SGROUPING, "3;3;0"},
             {"C", LOCALE_SGROUPING, "0"},
             {"de_DE", LOCALE_SNATIVEDIGITS, "0123456789"},
             {"de_DE", LOCALE_SINTLSYMBOL, "EUR"},
             {"de_DE", LOCALE_ICURRDIGITS, "2"},
             {"C", LOCALE_ICURRDIGITS, "-"},
             {"de_DE", LOCALE_ICURRENCY, "3"},
             {"en_GB", LOCALE_ICURRENCY, "0"},
             {"de_DE", LOCALE_INEGCURR, "8"},
             {"en_GB", LOCALE_INEGCURR, "1"},
             {"C", LOCALE_INEGCURR, "-"},
             {"de_DE", LOCALE_SDATE, "."},
             {"de_DE", LOCALE_STIME, ":"},
             {"de_DE", LOCALE_SSHORTDATE, "dd'.'M'.'yyyy"},
             {"de_DE", LOCALE_SLONGDATE, "ddd' 'dd' 'MMM' 'yyyy"},
             {"hu_HU", LOCALE_SLONGDATE, "yyyy'. 'MMM'. 'd'., 'dddd"},
             {"en_CA", LOCALE_STIMEFORMAT, "hh':'mm':'ss' 'tt"},
             {"de_DE", LOCALE_STIMEFORMAT, "HH':'mm':'ss"},
             {"C", LOCALE_IDATE, "0"},
             {"de_DE", LOCALE_IDATE, "1"},
             {"fr_CA", LOCALE_IDATE, "2"},
             {"hu_HU", LOCALE_ILDATE, "2"},
             {"de_DE", LOCALE_ITIME, "1"},
             {"en_CA", LOCALE_ITIME, "0"},
             {"de_DE", LOCALE_ICENTURY, "1"},
             {"en_GB", LOCALE_ICENTURY, "0"},
             {"de_DE", LOCALE_ITLZERO, "1"},
             {"de_DE", LOCALE_IDAYLZERO, "1"},
             {"cs_CZ", LOCALE_IDAYLZERO, "0"},
             {"cs_CZ", LOCALE_IMONLZERO, "0"},
             {"is_IS", LOCALE_S1159, "fh"},
             {"is_IS", LOCALE_S2359, "eh"},
             {"de_DE", LOCALE_SDAYNAME1, "Montag"},
             {"de_DE", LOCALE_SDAYNAME1 + 6, "Sonntag"},
             {"de_DE", LOCALE_SABBREVDAYNAME1 + 5, "Sa"},
             {"de_DE", LOCALE_SABBREVDAYNAME1 + 6, "So"},
             {"de_DE", LOCALE_SMONTHNAME1 + 11, "Dezember"},
             {"cs_CZ", LOCALE_SMONTHNAME1 + 1, "únor"},
             {"de_DE", LOCALE_SABBREVMONTHNAME1 + 4, "Mai"},
             {"de_DE", LOCALE_SNEGATIVESIGN, "-"},
             {"de_DE", LOCALE_SNAME, "de-DE"},
             {"de_DE", LOCALE_SISO639LANGNAME2, "deu"},
             {"de_DE", LOCALE_SSHORTESTDAYNAME1 + 6, "So"},
             {"C", LOCALE_ITIMEMARKPOSN, "0"},
             {"de_DE", LOCALE_ICALENDARTYPE, "1"},
             {"de_DE", LOCALE_IPAPERSIZE, "9"},
             {"en_CA", LOCALE_IPAPERSIZE, "1"},
             {"de_DE", LOCALE_IFIRSTDAYOFWEEK, "0"},
             {"en_CA", LOCALE_IFIRSTDAYOFWEEK, "6"},
             {"de_DE", LOCALE_IFIRSTWEEKOFYEAR, "2"},
             {"de_DE", LOCALE_SMONTHNAME13, ""},
             {"de_DE", LOCALE_INEGNUMBER, "1"},
             {"de_DE", LOCALE_SDATE | LOCALE_NOUSEROVERRIDE, "."},
         })
        EXPECT_EQ(answer(c.locale, c.query), c.answer) << c.locale << ' ' << std::hex << c.query;
    EXPECT_EQ(answer(nullptr, LOCALE_ILANGUAGE, 5), "0005");
    EXPECT_EQ(answer(nullptr, LOCALE_SDAYNAME1, 1031), "Montag");
    EXPECT_EQ(answer(nullptr, LOCALE_SDAYNAME1, 1033), "Monday");
    EXPECT_EQ(answer(nullptr, LOCALE_SDAYNAME1, 2057), "Monday");
}

TEST(LocaleQuery, SaysWhyItDoesNotAnswer) {
    char text[8] = "before";
    struct Case {
        LCID locale;
        LCTYPE query;
        char* buffer;
        int size;
        const char* name;
        int result;
        int error;
    };
    for (const Case& c : {
             Case{1033, LOCALE_SDAYNAME1, text, 0, "C", 7, 0},
             {1033, LOCALE_SDAYNAME1, nullptr, 0, "C", 7, 0},
             {1033, LOCALE_SDAYNAME1, text, 6, "C", 0, ERANGE},
             {1033, LOCALE_SDAYNAME1, text, -1, "C", 0, EINVAL},
             {1033, LOCALE_SDAYNAME1, nullptr, 8, "C", 0, EINVAL},
             {1033, 0, text, 8, "C", 0, EINVAL},
             {1033, 0x58, text, 8, "C", 0, EINVAL},
             {1033, 0x1011, text, 8, "C", 0, EINVAL},
             {1033, LOCALE_SDAYNAME1, text, 8, "xx_XX", 0, ENOENT},
             {1033, LOCALE_SDAYNAME1, text, 8, "../../etc", 0, ENOENT},
             {4711, LOCALE_SDAYNAME1, text, 8, nullptr, 0, ENOENT},
         }) {
        errno = 0;
        EXPECT_EQ(GetLocaleInfoA(c.locale, c.query, c.buffer, c.size, c.name), c.result) << c.query << c.size;
        EXPECT_EQ(errno, c.error) << c.query << c.size;
        EXPECT_STREQ(text, "before");
    }
}

TEST(LocaleQuery, FormatsBecomePictures) {
    struct Case {
        const char* format;
        LCTYPE query;
        const char* picture;
    };
    for (const Case& c : {
             Case{"%d/%m/%y", LOCALE_SSHORTDATE, "dd'/'M'/'yy"},
             {"%-d. %B %Y", LOCALE_SLONGDATE, "d'. 'MMMM' 'yyyy"},
             {"%A, %e %b", LOCALE_SLONGDATE, "dddd', 'd' 'MMM"},
             {"%T", LOCALE_STIMEFORMAT, "HH':'mm':'ss"},
             {"%r", LOCALE_STIMEFORMAT, "hh':'mm':'ss' 'tt"},
             {"kl. %H.%M %z", LOCALE_STIMEFORMAT, "'kl. 'HH'.'mm' '"},
             {"%l o'clock", LOCALE_STIMEFORMAT, "h' o''clock'"},
             {"'", LOCALE_SSHORTDATE, "''''"},
             {"100%% %5", LOCALE_SSHORTDATE, "'100% '"},
             {"%d at", LOCALE_SDATE, "' at'"},
             {"%", LOCALE_SSHORTDATE, ""},
             {"", LOCALE_SSHORTDATE, ""},
         }) {
        char* picture = snProcessLocaleInfo(c.format, c.query);
        EXPECT_STREQ(picture, c.picture) << c.format;
        free(picture);
    }
    EXPECT_EQ(snProcessLocaleInfo(nullptr, LOCALE_SSHORTDATE), nullptr);
}

}  // namespace
