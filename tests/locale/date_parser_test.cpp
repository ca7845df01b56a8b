// What is read in each order. Dates without a year are of the current one, which is 2026 here.

#include "locale/date_parser.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <traiklofox/dates.h>

#include <cstdio>
#include <string>

#include "locale/calendar.h"
#include "locale/conventions.h"
#include "locale/month_genitives.h"
#include "support/fault_injection.h"

using namespace traiklofox::locale;
using traiklofox::test::FakeTime;
using traiklofox::test::inOrder;

namespace {

constexpr char kNothing[] = "-";

/// "2000-01-02 10:30:15", the time only if it is not midnight; "-" for a text that is not read.
std::string read(const char* text, const tagDATEINFO& info, DWORD flags = 0) {
    constexpr double kUntouched = 1e300;
    double value = kUntouched;
    const HRESULT result = parseDate(text, info, flags, &value);
    if (result != S_OK) {
        EXPECT_EQ(result, DISP_E_TYPEMISMATCH);
        EXPECT_EQ(value, kUntouched);
        return kNothing;
    }
    tagUDS fields{};
    EXPECT_EQ(VarUdateFromDate(value, 0, &fields), S_OK);
    char date[64];
    std::snprintf(date, sizeof date, "%u-%02u-%02u", fields.wYear, fields.wMonth, fields.wDay);
    char time[64] = "";
    if (fields.wHour + fields.wMinute + fields.wSecond > 0)
        std::snprintf(time, sizeof time, " %02u:%02u:%02u", fields.wHour, fields.wMinute, fields.wSecond);
    return std::string(date) + time;
}

class DateParser : public testing::Test {
  protected:
    DateParser() {
        setenv("TZ", "UTC0", /*replace=*/1);
        tzset();
        now_.stopAt(1'774'000'000);  // March 2026
    }
    FakeTime now_;
};

TEST_F(DateParser, TriesTheLocalesOrderFirstAndThenOthers) {
    // clang-format off
    const struct { const char *text, *monthDayYear, *dayMonthYear, *yearMonthDay; } kCases[] = {
        {"1/2", "2026-01-02", "2026-02-01", "2026-01-02"},
        {"1/2/2000", "2000-01-02", "2000-02-01", "2000-01-02"},
        {"1/2/3", "2003-01-02", "2003-02-01", "2001-02-03"},
        {"13/2/3", "2013-02-03", "2003-02-13", "2013-02-03"},
        {"1 January 2", "2002-01-01", "2002-01-01", "2001-01-02"},
    };
    const struct { const char *text, *inEveryOrder; } kAlike[] = {  // 2026 is no leap year
        {"13/1", "2026-01-13"}, {"1/13", "2026-01-13"}, {"2/29", "2029-02-01"}, {"29/2", "2029-02-01"},
        {"4/31", "1931-04-01"}, {"4/1999", "1999-04-01"}, {"1999/4", "1999-04-01"}, {"0/5", "2000-05-01"},
        {"2000/1/2", "2000-01-02"}, {"1/13/3", "2003-01-13"}, {"31/4/5", "1931-04-05"},
        {"2/29/2000", "2000-02-29"}, {"29/2/00", "2000-02-29"}, {"99/12/31", "1999-12-31"},
        {"31/12/99", "1999-12-31"}, {"2 January", "2026-01-02"}, {"January 2", "2026-01-02"},
        {"29 Feb", "2029-02-01"}, {"30 Feb", "1930-02-01"}, {"31 Apr", "1931-04-01"},
        {"Jan 1999", "1999-01-01"}, {"Jan 0", "2000-01-01"}, {"2 January 1999", "1999-01-02"},
        {"January 2, 1999", "1999-01-02"}, {"2-Jan-99", "1999-01-02"}, {"1999 January 2", "1999-01-02"},
        {"31 Apr 5", "1931-04-05"}, {"29 Feb 2000", "2000-02-29"}, {"30 Feb 5", "1930-02-05"},
        {"13/13", "-"}, {"0/0", "-"}, {"2/29/1900", "-"}, {"13/13/13", "-"}, {"40 Feb 41", "-"},
        {"29 Feb 1999", "-"},  // year 29, and no day 1999
    };
    // clang-format on
    const tagDATEINFO orders[] = {inOrder(DATE_ORDER_MDY), inOrder(DATE_ORDER_DMY), inOrder(DATE_ORDER_YMD)};
    for (const auto& c : kCases) {
        EXPECT_EQ(read(c.text, orders[0]), c.monthDayYear) << c.text;
        EXPECT_EQ(read(c.text, orders[1]), c.dayMonthYear) << c.text;
        EXPECT_EQ(read(c.text, orders[2]), c.yearMonthDay) << c.text;
    }
    for (const auto& [text, inEveryOrder] : kAlike)
        for (const tagDATEINFO& order : orders) EXPECT_EQ(read(text, order), inEveryOrder) << text;
}

TEST_F(DateParser, ReadsDatesAndTimesInEitherOrderAndNothingElse) {
    const std::string digits31 = std::string(29, '0') + "12/3/2000";
    const std::string digits32 = "0" + digits31;
    const std::string word31 = "January" + std::string(24, 'x') + " 1";  // begins with January's short name
    const std::string word32 = "January" + std::string(25, 'x') + " 1";
    // clang-format off
    const struct { const char *text, *result; } kCases[] = {
        {"10:30", "1899-12-30 10:30:00"}, {"10.30", "1899-12-30 10:30:00"},
        {"10:30:15", "1899-12-30 10:30:15"}, {" 10 : 30 : 15 ", "1899-12-30 10:30:15"},
        {"10:30:15 pm", "1899-12-30 22:30:15"}, {"10:30p", "1899-12-30 22:30:00"},
        {"10 PM", "1899-12-30 22:00:00"}, {"10a", "1899-12-30 10:00:00"}, {"12 AM", "1899-12-30"},
        {"12 pm", "1899-12-30 12:00:00"}, {"12:30 a", "1899-12-30 00:30:00"},
        {"13 pm", "1899-12-30 13:00:00"}, {"13 am", "1899-12-30 13:00:00"},
        {"1-2-2000", "2000-01-02"}, {"1,2,2000", "2000-01-02"}, {"1 2 2000", "2000-01-02"},
        {"1 / 2 / 2000", "2000-01-02"}, {"\t1/2/2000\r\n", "2000-01-02"}, {"1/2 2000", "2000-01-02"},
        {"1 2/2000", "2000-01-02"},
        {"jan 2 1999", "1999-01-02"}, {"JANUARY 2 1999", "1999-01-02"}, {"Sept. 5 1999", "1999-09-05"},
        {"J 2 1999", "1999-01-02"}, {"Ju 2 1999", "1999-06-02"}, {"M 2 1999", "1999-03-02"},
        {"Janitor 2 1999", "1999-01-02"},  // begins with January's short name
        {"Jan2000 5", "2026-01-05"},
        {"1/2/2000 10:30", "2000-01-02 10:30:00"}, {"10:30 1/2/2000", "2000-01-02 10:30:00"},
        {"1/2 10:30:15 pm", "2026-01-02 22:30:15"}, {"1 2 10:30", "2026-01-02 10:30:00"},
        {"1/2 10 pm", "2026-01-02 22:00:00"}, {"Jan 2 10:30", "2026-01-02 10:30:00"},
        {"Jan 2 10 pm", "2026-01-02 22:00:00"}, {"2 January 1999 13:05", "1999-01-02 13:05:00"},
        {"10 pm 2 January 1999", "1999-01-02 22:00:00"},
        {"1/1/100", "100-01-01"}, {"12/31/9999", "9999-12-31"},
        {"1/2/4294969296", "2000-01-02"}, {"1/2/67536", "2000-01-02"},  // 2000 + 2^32, and + 2^16
        {digits31.c_str(), "2000-12-03"}, {word31.c_str(), "2026-01-01"},
    };
    const char* const kUnread[] = {
        "24:00", "10:60", "10:30:60", "10:30:15:20", "10:", "10", "1.2.2000", "1/2/", "1//2",
        "/1/2", "1/2/3/4", "1 2 3 4", "Jan.2.1999", "Jan2000", "May", "Foo 2 1999", "2 January 3 4",
        "January February 2", "Monday 1/2/2000", "1 10 pm", "10:30 11:00", "1/2/2000 3/4/2000", "1/2 3/4",
        "1/2/2000 10:30 3/4/2000", "13/13 10:30", "1/1/10000", "1/2/4294967295", digits32.c_str(),
        word32.c_str(), "", "  ", "\x7f", "+1/2/2000", "1/2/2000\xc3\xa9", nullptr,
    };
    // clang-format on
    const tagDATEINFO info = inOrder(DATE_ORDER_MDY);
    for (const auto& [text, result] : kCases) EXPECT_EQ(read(text, info), result) << text;
    for (const char* text : kUnread)
        EXPECT_EQ(read(text, info), kNothing) << (text != nullptr ? text : "null");

    double value = 0;
    EXPECT_EQ(sarnu_VarDateFromStr("10:30", 1033, 0, &value), S_OK);
    EXPECT_EQ(value, 0.4375);
    EXPECT_EQ(read("1/2/2000 18:00", info, VAR_TIMEVALUEONLY), "1899-12-30 18:00:00");
    EXPECT_EQ(read("1/2/2000 18:00", info, VAR_DATEVALUEONLY), "2000-01-02");
}

TEST_F(DateParser, FollowsTheLocalesDesignatorsAndSeparators) {
    tagDATEINFO info = inOrder(DATE_ORDER_DMY);
    strcpy(info.amDesignator, "fh");
    strcpy(info.pmDesignator, "eh");
    strcpy(info.dateSeparator, ". ");
    strcpy(info.timeSeparator, "h");  // a letter is never read as a separator
    for (const auto& [text, result] : {std::pair{"3. 4. 2005 10:30 EH", "2005-04-03 22:30:00"},
                                       {"10:30 fh", "1899-12-30 10:30:00"},
                                       {"10 pm", "1899-12-30 22:00:00"},
                                       {"10.30", "2026-10-30"},
                                       {"10h30", kNothing}})
        EXPECT_EQ(read(text, info), result) << text;
    info.designatorsEqual = TRUE;
    EXPECT_EQ(read("10:30 eh", info), kNothing);
    EXPECT_EQ(read("10:30 pm", info), "1899-12-30 22:30:00");
    strcpy(info.timeSeparator, "-");
    EXPECT_EQ(read("10-30", info), "1899-12-30 10:30:00");

    // A short name that ended in a period is compared with it: a longer word begins with no such name.
    tagDATEINFO french = inOrder(DATE_ORDER_DMY);
    strcpy(french.shortMonths[1], "f\351vr");
    french.shortMonthLengths[1] = 5;
    strcpy(french.longMonths[1], "f\351vrier");
    french.characterClasses[0xe9] = CHARACTER_LETTER;
    EXPECT_EQ(read("2 f\351vr. 1999", french), "1999-02-02");
    EXPECT_EQ(read("2 f\351vrier 1999", french), "1999-02-02");
    EXPECT_EQ(read("2 f\351vrxxx 1999", french), kNothing);
}

TEST_F(DateParser, KeepsTheRulesOfSingleLocales) {
    tagDATEINFO hungarian = inOrder(DATE_ORDER_YMD);
    EXPECT_EQ(read("1999-1 2- 10:30", hungarian), kNothing);
    hungarian.lcid = 1038;
    EXPECT_EQ(read("1999 1- 2- 10:30", hungarian), "1999-01-02 10:30:00");

    tagDATEINFO russian = inOrder(DATE_ORDER_DMY);
    russian.lcid = kRussian;
    for (int byte = 1; byte < 256; ++byte)
        if (russian.characterClasses[byte] != CHARACTER_SPACE &&
            russian.characterClasses[byte] != CHARACTER_DIGIT)
            russian.characterClasses[byte] = CHARACTER_LETTER;
    const std::string may = std::string("2 ") + genitiveOf(5, kRussian) + " 1999";
    EXPECT_EQ(strlen(genitiveOf(5, kRussian)), 6U);
    EXPECT_EQ(read(may.c_str(), russian), "1999-05-02");
    russian.lcid = 1033;
    EXPECT_EQ(read(may.c_str(), russian), kNothing);
    EXPECT_STREQ(genitiveOf(9, kPolish), "w");
}

TEST(DateText, SmallOperations) {
    EXPECT_EQ(StringCompare(1033, 0, "Jan", 3, "JANUARY", 7), 2);
    EXPECT_EQ(StringCompare(1033, 0, "a", 1, "b", 1), 1);
    EXPECT_EQ(StringCompare(1033, 0, "b", 1, "A", 1), 3);
    EXPECT_EQ(StringCompare(1033, 0, "b", 0, "A", 1), 2);
    constexpr int kUntouched = 7;
    const std::pair<const char*, int> kNumbers[] = {{" 12 ", 12},
                                                    {"-12", -12},
                                                    {"+12", 12},
                                                    {"", 0},
                                                    {"4294967297", 1},
                                                    {"1 2", kUntouched},
                                                    {"- 1", kUntouched},
                                                    {"x", kUntouched},
                                                    {"2147483648", INT32_MIN},
                                                    {"-2147483648", INT32_MIN}};
    for (const auto& [text, expected] : kNumbers) {
        int value = kUntouched;
        EXPECT_EQ(IntOfString(1033, text, &value), expected == kUntouched ? E_INVALIDARG : S_OK) << text;
        EXPECT_EQ(value, expected) << text;
    }
    EXPECT_EQ(IsPrefix("January", 7, "jan", 1033), 3);
    EXPECT_EQ(IsPrefix("@AMZ[", 5, "@amz[", 1033), 5);
    EXPECT_EQ(IsPrefix("@", 1, "`", 1033) + IsPrefix("[", 1, "{", 1033), 0);
    for (const auto& [length, prefix] : {std::pair{2, "Jan"}, {7, ""}, {7, "Feb"}, {7, "Januaryx"}})
        EXPECT_EQ(IsPrefix("January", length, prefix, 1033), 0) << prefix;

    CString text("Jan 2, 1999, noon");
    cleanDateString(1033, text);
    EXPECT_EQ(text, "Jan 2  1999  noon");
    EXPECT_EQ(memcmp(_MonthDays, mpmmdd, sizeof mpmmdd), 0);
}

}  // namespace
