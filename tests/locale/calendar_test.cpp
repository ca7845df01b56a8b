#include <gtest/gtest.h>
#include <time.h>
#include <traiklofox/date_engine.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <tuple>

#include "locale/conventions.h"

using traiklofox::test::uds;

namespace {

constexpr double kNone = std::numeric_limits<double>::infinity();

double packed(const tagUDS& fields, int validate = 1, DWORD flags = 0) {
    tagVARIANT value{};
    value.date = kNone;
    const HRESULT result = ErrPackDate(&fields, &value, validate, flags);
    EXPECT_EQ(result, value.vt == VT_DATE ? S_OK : DISP_E_TYPEMISMATCH);
    return value.date;
}

// Beside a calendar that counts one day after the other.
TEST(Calendar, EveryDayOfTheRangeUnpacksAndPacksBack) {
    constexpr long kUnixEpoch = 25569;
    tm expected{};  // 0100-01-01, a Friday
    expected.tm_year = 100 - 1900;
    expected.tm_mday = 1;
    expected.tm_wday = 5;
    constexpr int kLengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    for (int day = -657434; day <= 2958465; ++day) {
        tagUDS fields{};
        ASSERT_EQ(VarUdateFromDate(day, 0, &fields), S_OK) << day;
        const int year = expected.tm_year + 1900;
        ASSERT_EQ(
            std::tuple(fields.wYear, fields.wMonth, fields.wDay, fields.wDayOfWeek, fields.wDayOfYear),
            std::tuple(year, expected.tm_mon + 1, expected.tm_mday, expected.tm_wday, expected.tm_yday + 1))
            << day;
        ASSERT_EQ(fields.wHour + fields.wMinute + fields.wSecond, 0);
        if (day == kUnixEpoch) {
            ASSERT_EQ(std::tuple(year, expected.tm_mon, expected.tm_mday), std::tuple(1970, 0, 1));
        }
        ASSERT_EQ(packed(fields), day);

        const bool isLeap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
        const int length = kLengths[expected.tm_mon] + (expected.tm_mon == 1 && isLeap);
        expected.tm_wday = (expected.tm_wday + 1) % 7;
        ++expected.tm_yday;
        if (++expected.tm_mday <= length) continue;
        expected.tm_mday = 1;
        if (++expected.tm_mon < 12) continue;
        expected.tm_mon = 0;
        expected.tm_yday = 0;
        ++expected.tm_year;
    }
}

TEST(Calendar, EverySecondOfADayUnpacksAndPacksBack) {
    for (const int day : {-657434, -1, 0, 1, 40000, 2958464}) {
        for (int second = 0; second < 86400; ++second) {
            const double fraction = second * (1.0 / 86400);
            const double value = day < 0 ? day - fraction : day + fraction;
            tagUDS fields{};
            ASSERT_EQ(VarUdateFromDate(value, 0, &fields), S_OK);
            ASSERT_EQ(fields.wHour * 3600 + fields.wMinute * 60 + fields.wSecond, second) << day;
            ASSERT_EQ(packed(fields), value) << day << ' ' << second;
        }
    }
}

TEST(Calendar, PacksFieldsThatAreChecked) {
    struct Case {
        const char* what;
        tagUDS fields;
        double value;
        DWORD flags = 0;
    };
    constexpr DWORD kTime = VAR_TIMEVALUEONLY;
    constexpr DWORD kDate = VAR_DATEVALUEONLY;
    for (const Case& c :
         std::initializer_list<Case>{{"day zero", uds(1899, 12, 30), 0},
                                     {"before it the time counts forward", uds(1899, 12, 29, 6), -1.25},
                                     {"half a day", uds(1900, 1, 1, 12), 2.5},
                                     {"the time alone", uds(1900, 1, 1, 12), 0.5, kTime},
                                     {"the date alone", uds(1900, 1, 1, 12), 2, kDate},
                                     {"both asked for: the time", uds(1900, 1, 1, 12), 0.5, kTime | kDate},
                                     {"year 0 is 2000", uds(0, 1, 1), 36526},
                                     {"year 29 is 2029", uds(29, 1, 1), 47119},
                                     {"year 30 is 1930", uds(30, 1, 1), 10959},
                                     {"year 99 is 1999", uds(99, 1, 1), 36161},
                                     {"first year", uds(100, 1, 1), -657434},
                                     {"last day", uds(9999, 12, 31), 2958465},
                                     {"year 10000", uds(10000, 1, 1), kNone},
                                     {"leap day", uds(2000, 2, 29), 36585},
                                     {"no leap day", uds(1900, 2, 29), kNone},
                                     {"February 30", uds(2000, 2, 30), kNone},
                                     {"April 31", uds(2000, 4, 31), kNone},
                                     {"day 0", uds(2000, 4, 0), kNone},
                                     {"month 0", uds(2000, 0, 1), kNone},
                                     {"month 13", uds(2000, 13, 1), kNone},
                                     {"month -1", uds(2000, 65535, 1), kNone},
                                     {"hour 24", uds(2000, 1, 1, 24), kNone},
                                     {"minute 60", uds(2000, 1, 1, 0, 60), kNone},
                                     {"minute -1", uds(2000, 1, 1, 0, 65535), kNone},
                                     {"second 60", uds(2000, 1, 1, 0, 0, 60), kNone}})
        EXPECT_EQ(packed(c.fields, /*validate=*/1, c.flags), c.value) << c.what;
}

TEST(Calendar, CarriesFieldsThatAreNotChecked) {
    struct Case {
        const char* what;
        tagUDS fields;
        double value;
    };
    for (const Case& c :
         std::initializer_list<Case>{{"month 13 is January", uds(2000, 13, 1), 36892},
                                     {"month 37", uds(2000, 37, 1), 37622},
                                     {"month 0 is December before", uds(2000, 0, 1), 36495},
                                     {"month -10 is February before", uds(2000, -10, 1), 36192},
                                     {"month -11 is 12 whole months back", uds(2000, -11, 1), 36161 + 0},
                                     {"day 0 is the day before", uds(2000, 3, 0), 36585},
                                     {"day 366", uds(2001, 1, 366), 37257},
                                     {"day far beyond the range", uds(9999, 12, 65535), kNone},
                                     {"hour 36 is a day and a half", uds(2000, 1, 1, 36), 36527.5},
                                     {"minute -60", uds(2000, 1, 1, 12, -60), 36526 + 11 / 24.0}})
        EXPECT_DOUBLE_EQ(packed(c.fields, /*validate=*/0), c.value) << c.what;
}

TEST(Calendar, UnpacksWhatIsInRangeAndOfAKnownType) {
    struct Case {
        double value;
        HRESULT result;
        tagUDS fields;
    };
    constexpr double kSecond = 1.0 / 86400;
    for (const Case& c : std::initializer_list<Case>{
             {-1.25, S_OK, {1899, 12, 5, 29, 6, 0, 0, 7, 363}},
             {36585 + 0.4 * kSecond, S_OK, {2000, 2, 2, 29, 0, 0, 0, 7, 60}},
             {36586 - 0.4 * kSecond, S_OK, {2000, 3, 3, 1, 0, 0, 0, 7, 61}},  // rounded into the next day
             {2958465 + 0.5 - 0.4 * kSecond,
              S_OK,
              {9999, 12, 5, 31, 11, 59, 59, 7, 365}},  // on the last one cut
             {-657434.999999, S_OK, {100, 1, 5, 1, 23, 59, 59, 7, 1}},
             {-657435, E_INVALIDARG, {}},
             {2958466, E_INVALIDARG, {}},
             {kNone, E_INVALIDARG, {}},
             {-kNone, E_INVALIDARG, {}},
             {std::nan(""), E_INVALIDARG, {}}}) {
        tagUDS fields{};
        if (c.result == S_OK) fields.wMilliseconds = 7;
        EXPECT_EQ(VarUdateFromDate(c.value, 0, &fields), c.result) << c.value;
        EXPECT_EQ(memcmp(&fields, &c.fields, sizeof fields), 0)
            << c.value << ": " << fields.wDay << ' ' << fields.wHour;
        for (const auto& [type, known] : {std::pair{VT_DATE, true},
                                          {VT_R8, true},
                                          {VT_EMPTY, false},
                                          {VT_NULL, false},
                                          {VARTYPE{8}, false}}) {
            tagVARIANT variant{};
            variant.vt = type;
            variant.date = c.value;
            EXPECT_EQ(ErrUnpackDate(&fields, &variant, 0), known ? c.result : E_INVALIDARG) << type;
        }
    }
}

}  // namespace
