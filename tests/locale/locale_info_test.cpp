#include <gtest/gtest.h>
#include <langinfo.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>
#include <traiklofox/dates.h>

#include <memory>
#include <set>
#include <string>

#include "locale/date_info.h"
#include "locale/test_locales.h"

namespace {

/// What was thrown, "location: message"; empty when nothing was.
template <class Body>
std::string thrownBy(Body body) {
    try {
        body();
    } catch (const CDateTimeException& exception) {
        return std::string(exception.context) + ": " + exception.message;
    }
    return {};
}

void freeText(char* text) {
    free(text);
}

TEST(LocaleList, NamesThirtyLocalesByTheirExactNumbers) {
    const LocaleRow* rows = nullptr;
    int count = 0;
    getLocaleList(&rows, &count);
    ASSERT_EQ(count, 30);
    std::set<LCID> numbers;
    for (int i = 0; i < count; ++i) {
        numbers.insert(rows[i].lcid);
        const std::unique_ptr<char, decltype(&freeText)> name(snGetLocaleFromLCID(rows[i].lcid), freeText);
        EXPECT_STREQ(name.get(), rows[i].posixName);
    }
    EXPECT_EQ(numbers.size(), 30U);
    EXPECT_STREQ(rows[0].displayName, "English (Australian)");
    EXPECT_STREQ(rows[29].posixName, "tr_TR");
    EXPECT_EQ(snGetLocaleFromLCID(1033), nullptr);
    EXPECT_EQ(snGetLocaleFromLCID(1038), nullptr);
    EXPECT_EQ(GetSystemDefaultLCID(), 1033U);
    EXPECT_EQ(MNLS_GetUserDefaultLCID(), 1033U);
}

TEST(DateInfo, BeforeTheStartThereIsUsEnglishOnly) {
    EXPECT_EQ(localeInitLevel(), 0);
    for (const LCID number : {0u, 1024u, 1033u, 2048u}) {
        EXPECT_TRUE(isInitForLocale(number));
        EXPECT_EQ(getDateInfo(number).lcid, 1033U);
    }
    const tagDATEINFO& info = getDateInfo(1033);
    EXPECT_STREQ(info.longDays[0], "Monday");
    EXPECT_STREQ(info.shortMonths[11], "Dec");
    EXPECT_STREQ(info.shortDatePicture, " ");
    EXPECT_TRUE(bIsAlpha(0, 'x') && bIsAlnum(0, '7') && bIsDigit(0, '7') && bIsSpace(0, '\t'));
    EXPECT_FALSE(bIsAlpha(0, '7') || bIsAlnum(0, '-') || bIsDigit(0, 'x') || bIsSpace(0, 'x') ||
                 bIsAlpha(0, 0xe9));

    EXPECT_FALSE(isInitForLocale(1031));
    EXPECT_EQ(thrownBy([] { (void)getDateInfo(1031); }),
              "getDateInfo: Locale Date&Time information is not initialized");
    for (const auto& [is, name] : {std::pair{&bIsAlnum, "bIsAlnum"},
                                   {bIsAlpha, "bIsAlpha"},
                                   {bIsDigit, "bIsDigit"},
                                   {bIsSpace, "bIsSpace"}})
        EXPECT_EQ(thrownBy([&, is = is] { (void)is(1031, 'a'); }),
                  name + std::string(": Locale Date Time information is not initialized"));
    double value = 0;
    char* text = nullptr;
    EXPECT_EQ(thrownBy([&] { (void)sarnu_VarDateFromStr("1/2/2000", 1031, 0, &value); }),
              "CDateTime::ParseDateTime: Locale is not properly initialized");
    EXPECT_EQ(thrownBy([&] { (void)sarnu_VarBstrFromDate(1, 1031, 0, &text); }),
              "CDateTime::Format: Locale is not properly initialized");
}

TEST(DateInfo, HoldsTheConventionsOfEachLocale) {
    for (const char* name :
         {"en_AU", "en_CA", "en_GB", "cs_CZ.utf8", "hu_HU", "fr_CH", "is_IS", "de_DE", "nb_NO.utf8"})
        NEEDS_TEST_LOCALE(name);
    const std::string before = setlocale(LC_ALL, nullptr);
    ASSERT_TRUE(initLocaleInfo());
    EXPECT_EQ(localeInitLevel(), 2);
    EXPECT_EQ(setlocale(LC_ALL, nullptr), before);
    EXPECT_STREQ(nl_langinfo(MON_1), "January");

    struct Case {
        LCID locale;
        int order;
        const char *dateSeparator, *timeSeparator, *am;
        bool equal, leadingZero, twelveHours;
        const char *picture, *february, *september;
        int septemberLength;
        const char* sunday;
    };
    for (const Case& c : {
             Case{3081, 1, "/", ":", "AM", false, true, false, "dd'/'M'/'yy", "February", "Sep", 3, "Sunday"},
             {4105, 2, "-", ":", "AM", false, true, true, "yyyy'-'M'-'dd", "February", "Sep", 3, "Sunday"},
             {2057, 1, "/", ":", "am", false, true, false, "dd'/'M'/'yy", "February", "Sep", 3, "Sunday"},
             {5, 1, ".", ":", "", true, true, false, "d'.'M'.'yyyy", "únor", "zář", 5, "Neděle"},
             {14, 2, "-", ":", "", true, true, false, "yyyy'-'M'-'dd", "febru\xe1r", "szept", 5,
              "vas\xe1rnap"},
             {4108, 1, ". ", ":", "", true, true, false, "dd'. 'M'. 'yy", "f\xe9vrier", "sep", 3, "dimanche"},
             {15, 1, ".", ":", "fh", false, true, false, "ddd' 'd'.'MMM' 'yyyy", "febr\372ar", "sep", 3,
              "sunnudagur"},
             {1031, 1, ".", ":", "", true, true, false, "dd'.'M'.'yyyy", "Februar", "Sep", 3, "Sonntag"},
             {1044, 1, ". ", ".", "", true, true, false, "dd'. 'MMM' 'yyyy", "februar", "sep", 4, "søndag"},
         }) {
        SCOPED_TRACE(c.locale);
        const tagDATEINFO& info = getDateInfo(c.locale);
        EXPECT_EQ(info.lcid, c.locale);
        EXPECT_EQ(info.dateOrder, c.order);
        EXPECT_STREQ(info.dateSeparator, c.dateSeparator);
        EXPECT_STREQ(info.timeSeparator, c.timeSeparator);
        EXPECT_STREQ(info.amDesignator, c.am);
        EXPECT_EQ(info.designatorsEqual != FALSE, c.equal);
        EXPECT_EQ(info.hourLeadingZero != FALSE, c.leadingZero);
        EXPECT_EQ(info.twelveHourClock != FALSE, c.twelveHours);
        EXPECT_STREQ(info.shortDatePicture, c.picture);
        EXPECT_STREQ(info.longMonths[1], c.february);
        EXPECT_STREQ(info.shortMonths[8], c.september);
        EXPECT_EQ(info.shortMonthLengths[8], c.septemberLength);
        EXPECT_STREQ(info.longDays[0], c.sunday);
    }
    // A byte of a UTF-8 character is a letter; in another encoding the C library's classes hold.
    EXPECT_TRUE(bIsAlpha(5, 0xc5));
    EXPECT_TRUE(bIsAlpha(1031, 0xe9));
    EXPECT_FALSE(bIsAlpha(1031, 0xb7));
}

TEST(DateInfo, OfALocaleThatTheMachineHasNotThereIsNone) {
    NEEDS_TEST_LOCALE("de_DE");
    ASSERT_TRUE(initLocaleInfo());
    for (const LCID missing : {27u, 1038u, 7u, 4711u}) {  // Slovak is not built; Hungarian is 14
        EXPECT_TRUE(isInitForLocale(missing));
        EXPECT_EQ(thrownBy([&] { (void)getDateInfo(missing); }),
                  "getDateInfo: Locale Date&Time information can not be found");
    }
    const tagDATEINFO* german = &getDateInfo(1031);
    EXPECT_TRUE(initLocaleInfo());
    EXPECT_EQ(&getDateInfo(1031), german);
}

TEST(DateInfo, DatesAreReadAndRenderedAsInTheirLocale) {
    for (const char* name :
         {"cs_CZ.utf8", "fr_FR.utf8", "en_CA", "de_DE", "fr_CH", "is_IS", "nb_NO.utf8", "nn_NO"})
        NEEDS_TEST_LOCALE(name);
    ASSERT_TRUE(initLocaleInfo());
    // clang-format off
    const struct { LCID locale; const char* typed; double value; const char* rendered; } kCases[] = {
        {1031, "4.3.2005", 38415, "4.3.2005"},
        {1031, "4. M\xe4rz 2005 13:05", 38415 + 785 / 1440.0, "4.3.2005 13:05:00"},
        {1036, "4 février 2005", 38387, "4/2/2005"}, {1036, "4 févr. 1999", 36195, "4/2/99"},
        {5, "4. února 2005", 38387, "4.2.2005"}, {5, "4 únor 2005", 38387, "4.2.2005"},
        {4105, "2005-03-04 1:05 pm", 38415 + 785 / 1440.0, "2005-3-4 01:05:00 PM"},
        {4108, "4. 3. 05", 38415, "4. 3. 2005"},
        {15, "4.3.2005 10:30 eh", 38415 + 22.5 / 24, "4.3.2005 22:30:00"},
        {1044, "4. mars 2005", 38415, "4. 3. 2005"}, {2068, "4. mars 2005", 38415, "4. 3. 2005"},
    };
    // clang-format on
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.locale);
        double value = 0;
        EXPECT_EQ(sarnu_VarDateFromStr(c.typed, c.locale, 0, &value), S_OK) << c.typed;
        EXPECT_DOUBLE_EQ(value, c.value) << c.typed;
        char* text = nullptr;
        EXPECT_EQ(sarnu_VarBstrFromDate(value, c.locale, 0, &text), S_OK);
        EXPECT_STREQ(text, c.rendered);
        free(text);
    }
}

}  // namespace
