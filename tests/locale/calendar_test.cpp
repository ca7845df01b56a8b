#include <gtest/gtest.h>
#include <traiklofox/date_engine.h>

#include <chrono>
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

TEST(Calendar, EveryDayOfTheRangeUnpacksAndPacksBack) {
    using namespace std::chrono;
    constexpr int kUnixEpoch = 25569;
    for (int day = -657434; day <= 2958465; ++day) {
        tagUDS fields{};
        ASSERT_EQ(VarUdateFromDate(day, 0, &fields), S_OK) << day;
        const sys_days date{days{day - kUnixEpoch}};
        const year_month_day expected{date};
        ASSERT_EQ(std::tuple(int{fields.wYear}, unsigned{fields.wMonth}, unsigned{fields.wDay}),
                  std::tuple(int{expected.year()}, unsigned{expected.month()}, unsigned{expected.day()}));
        ASSERT_EQ(fields.wDayOfWeek, weekday{date}.c_encoding()) << day;
        ASSERT_EQ(fields.wDayOfYear, (date - sys_days{expected.year() / 1 / 1}).count() + 1) << day;
        ASSERT_EQ(fields.wHour + fields.wMinute + fields.wSecond, 0) << day;
        ASSERT_EQ(packed(fields), day);
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

TEST(Calendar, PacksFieldsThatAreCheckedOrCarried) {
    constexpr DWORD kTime = VAR_TIMEVALUEONLY;
    constexpr DWORD kDate = VAR_DATEVALUEONLY;
    struct Case {
        tagUDS fields;
        double value;
        DWORD flags = 0;
    };
    // clang-format off
    const Case kChecked[] = {  // years to 29 are of this century, to 99 of the last one
        {uds(1899, 12, 30), 0}, {uds(1899, 12, 29, 6), -1.25}, {uds(1900, 1, 1, 12), 2.5},
        {uds(1900, 1, 1, 12), 0.5, kTime}, {uds(1900, 1, 1, 12), 2, kDate},
        {uds(1900, 1, 1, 12), 0.5, kTime | kDate}, {uds(0, 1, 1), 36526}, {uds(29, 1, 1), 47119},
        {uds(30, 1, 1), 10959}, {uds(99, 1, 1), 36161}, {uds(100, 1, 1), -657434},
        {uds(9999, 12, 31), 2958465}, {uds(10000, 1, 1), kNone}, {uds(2000, 2, 29), 36585},
        {uds(1900, 2, 29), kNone}, {uds(2000, 2, 30), kNone}, {uds(2000, 4, 31), kNone},
        {uds(2000, 4, 0), kNone}, {uds(2000, 0, 1), kNone}, {uds(2000, 13, 1), kNone},
        {uds(2000, -1, 1), kNone}, {uds(2000, 1, 1, 24), kNone}, {uds(2000, 1, 1, 0, 60), kNone},
        {uds(2000, 1, 1, 0, -1), kNone}, {uds(2000, 1, 1, 0, 0, 60), kNone},
    };
    const Case kCarried[] = {
        {uds(2000, 13, 1), 36892}, {uds(2000, 37, 1), 37622}, {uds(2000, 0, 1), 36495},
        {uds(2000, -10, 1), 36192}, {uds(2000, -11, 1), 36161}, {uds(2000, 3, 0), 36585},
        {uds(2001, 1, 366), 37257}, {uds(9999, 12, 65535), kNone}, {uds(2000, 1, 1, 36), 36527.5},
        {uds(2000, 1, 1, 12, -60), 36526 + 11 / 24.0},
    };
    // clang-format on
    for (const Case& c : kChecked)
        EXPECT_EQ(packed(c.fields, /*validate=*/1, c.flags), c.value) << &c - kChecked;
    for (const Case& c : kCarried)
        EXPECT_DOUBLE_EQ(packed(c.fields, /*validate=*/0), c.value) << &c - kCarried;
}

TEST(Calendar, UnpacksWhatIsInRangeAndOfAKnownType) {
    constexpr double kSecond = 1.0 / 86400;
    constexpr tagUDS kUnread{};
    const struct {
        double value;
        tagUDS fields;
    } kCases[] = {{-1.25, {1899, 12, 5, 29, 6, 0, 0, 7, 363}},
                  {36585 + 0.4 * kSecond, {2000, 2, 2, 29, 0, 0, 0, 7, 60}},
                  {36586 - 0.4 * kSecond, {2000, 3, 3, 1, 0, 0, 0, 7, 61}},  // rounded into the next day
                  {2958465.5 - 0.4 * kSecond, {9999, 12, 5, 31, 11, 59, 59, 7, 365}},  // on the last one cut
                  {-657434.999999, {100, 1, 5, 1, 23, 59, 59, 7, 1}},
                  {-657435, kUnread},
                  {2958466, kUnread},
                  {kNone, kUnread},
                  {-kNone, kUnread},
                  {std::nan(""), kUnread}};
    for (const auto& [value, expected] : kCases) {
        const bool isRead = expected.wMonth != 0;
        tagUDS fields{};
        if (isRead) fields.wMilliseconds = 7;
        const HRESULT result = isRead ? S_OK : E_INVALIDARG;
        EXPECT_EQ(VarUdateFromDate(value, 0, &fields), result) << value;
        EXPECT_EQ(memcmp(&fields, &expected, sizeof fields), 0) << value;
        for (const VARTYPE type : {VT_DATE, VT_R8, VT_EMPTY, VT_NULL, VARTYPE{8}}) {
            tagVARIANT variant{};
            variant.vt = type;
            variant.date = value;
            EXPECT_EQ(ErrUnpackDate(&fields, &variant, 0),
                      type == VT_DATE || type == VT_R8 ? result : E_INVALIDARG)
                << type;
        }
    }
}

}  // namespace
