#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <traiklofox/dates.h>
#include <traiklofox/time_conversion.h>

#include <cmath>
#include <limits>
#include <tuple>

#include "support/fault_injection.h"

namespace {

constexpr char kNewYork[] = "EST5EDT,M3.2.0,M11.1.0";
constexpr time_t kSummer = 1'000'000'000;  // 2001-09-09 01:46:40 UTC, of which time zones west have the 8th
const double kNan = std::nan("");

void setTimeZone(const char* zone) {
    setenv("TZ", zone, /*replace=*/1);
    tzset();
}

template <class Date>
std::tuple<int, int, int, int, int, int, int> parts(const Date& date) {
    return {date.GetYear(),   date.GetMonth(),  date.GetDay(),      date.GetHour(),
            date.GetMinute(), date.GetSecond(), date.GetDayOfWeek()};
}

CDateTime ofVariant(VARTYPE type, double value) {
    tagVARIANT made{};
    made.vt = type;
    made.date = value;
    return CDateTime(made);
}

TEST(DateTime, IsMadeOfEveryKindOfDate) {
    setTimeZone(kNewYork);
    traiklofox::test::FakeTime now;
    now.stopAt(kSummer);
    const CDateTime expected(2001, 9, 8, 21, 46, 40);
    EXPECT_EQ(parts(expected), std::tuple(2001, 9, 8, 21, 46, 40, 7));
    EXPECT_EQ(expected.GetDayOfYear(), 251);
    _FILETIME fileTime{};
    time_tToFileTime(static_cast<LONG>(kSummer), &fileTime, 999'999);
    for (const CDateTime& same :
         {CDateTime(kSummer), CDateTime(fileTime), CDateTime(_SYSTEMTIME{2001, 9, 0, 8, 21, 46, 40, 999}),
          CDateTime(tagUDS{2001, 9, 0, 8, 21, 46, 40, 0, 0}), CDateTime(expected.m_dt),
          ofVariant(VT_DATE, expected.m_dt), CDateTime::GetCurrentTime()})
        EXPECT_EQ(same, expected);
    EXPECT_EQ(CDateTime(), CDateTime(1899, 12, 30, 0, 0, 0));

    time_t time = 0;
    _SYSTEMTIME system{};
    EXPECT_TRUE(expected.GetAsTime(time) && expected.GetAsFileTime(fileTime) &&
                expected.GetAsSystemTime(system));
    EXPECT_EQ(time, kSummer);
    EXPECT_EQ(FileTime2longlong(fileTime), kSummer);
    const _SYSTEMTIME expectedSystem{2001, 9, 6, 8, 21, 46, 40, 0};
    EXPECT_EQ(memcmp(&system, &expectedSystem, sizeof system), 0);
}

// Where a 32-bit time_t ends, file times go on.
TEST(DateTime, FileTimesReachBeyondTheCLibrarysTimes) {
    setTimeZone("EST5");
    for (const auto& [date, unixSeconds] : {std::pair{CDateTime(2100, 1, 1, 0, 0, 0), 4102462800},
                                            {CDateTime(9999, 12, 31, 0, 0, 0), 253402232400},
                                            {CDateTime(1850, 6, 15, 12, 0, 1), -3772508399}}) {
        _FILETIME time{};
        ASSERT_TRUE(date.GetAsFileTime(time));
        EXPECT_EQ(FileTime2longlong(time), unixSeconds);
        EXPECT_EQ(CDateTime(time), date);
        time_t unixTime = 7;
        EXPECT_EQ(date.GetAsTime(unixTime), sizeof(time_t) > 4);
        EXPECT_EQ(unixTime, sizeof(time_t) > 4 ? static_cast<time_t>(unixSeconds) : 7);
    }
    _FILETIME farAway{0xffffffff, 0xffffffff};  // the year 60056
    EXPECT_EQ(CDateTime(farAway).GetStatus(), CDateTime::invalid);
    EXPECT_FALSE(CDateTime(1600, 6, 15, 12, 0, 1).GetAsFileTime(farAway));
}

TEST(DateTime, KnowsWhatIsNoDate) {
    for (const CDateTime& bad :
         {CDateTime(2001, 2, 29, 0, 0, 0), CDateTime(2001, 13, 1, 0, 0, 0), CDateTime(99, 1, 1, 0, 0, 0),
          CDateTime(10000, 1, 1, 0, 0, 0), CDateTime(2001, 1, 1, 24, 0, 0), CDateTime(2001, 1, 1, 0, -1, 0),
          CDateTime(2001 + 65536, 1, 1, 0, 0, 0), CDateTime(-657435.0), CDateTime(2958466.0), CDateTime(kNan),
          CDateTime(std::numeric_limits<double>::infinity()), ofVariant(VT_R8, kNan), ofVariant(8, 1),
          CDateTime(_SYSTEMTIME{}), CDateTime(tagUDS{})}) {
        EXPECT_EQ(bad.GetStatus(), CDateTime::invalid);
        EXPECT_EQ(bad.m_dt, 0);
        EXPECT_EQ(parts(bad), std::tuple(-1, -1, -1, -1, -1, -1, -1));
        EXPECT_EQ(bad.Format() + bad.Format("%Y"), "Invalid DateTimeInvalid DateTime");
        _SYSTEMTIME date{};
        time_t time = 0;
        EXPECT_FALSE(bad.GetAsSystemTime(date) || bad.GetAsTime(time));
    }
    const CDateTime none = ofVariant(VT_NULL, 1);
    EXPECT_EQ(none.GetStatus(), CDateTime::null);
    EXPECT_EQ(ofVariant(VT_EMPTY, 1), none);
    EXPECT_EQ(none.Format() + none.Format("%Y"), "");
}

TEST(DateTime, ReadsAndWritesText) {
    CDateTime date;
    EXPECT_TRUE(date.ParseDateTime("March 4, 2005, 1:05 pm"));  // commas count as blanks
    EXPECT_EQ(parts(date), std::tuple(2005, 3, 4, 13, 5, 0, 6));
    EXPECT_EQ(date.Format(), "3/4/2005 13:05:00");
    EXPECT_EQ(date.Format(VAR_TIMEVALUEONLY), "13:05:00");
    EXPECT_EQ(date.Format(VAR_DATEVALUEONLY, 1033), "3/4/2005");
    const std::string longText(1 << 20, 'x'), longerText = longText + "x";
    for (const auto& [format, text] :
         {std::pair{"%Y-%m-%d %H:%M:%S %j %a %y", "2005-03-04 13:05:00 063 Fri 05"},
          {"", ""},
          {"%Z", ""},
          {longerText.c_str(), ""},
          {longText.c_str(), longText.c_str()}})
        EXPECT_TRUE(date.Format(format) == text) << std::string(format, strnlen(format, 30));
    EXPECT_EQ(CDateTime(-1.25).Format("%Y-%m-%d %H"), "1899-12-29 06");
    EXPECT_THROW(date.ParseDateTime("1/2/2000", 0, 1031), CDateTimeException);  // not initialized
    EXPECT_THROW(date.Format(0, 1031), CDateTimeException);
    EXPECT_EQ(date, CDateTime(2005, 3, 4, 13, 5, 0));
    EXPECT_TRUE(date.ParseDateTime("10:30", VAR_TIMEVALUEONLY));
    EXPECT_EQ(date.m_dt, 0.4375);
    for (const char* text : {"", "no date", static_cast<const char*>(nullptr)}) {
        EXPECT_FALSE(date.ParseDateTime(text));
        EXPECT_EQ(date.GetStatus(), CDateTime::invalid);
    }
}

// Across 1899-12-30, where the fraction of a value turns round.
TEST(DateTime, AddsAndComparesByTime) {
    const CDateTime before(1899, 12, 29, 6, 0, 0), noon(1899, 12, 29, 12, 0, 0),
        after(1899, 12, 30, 18, 0, 0);
    const CDateTimeSpan span(1, 12, 0, 0), morning(0, 6, 0, 0);
    EXPECT_LT(before, noon);  // though -1.25 > -1.5
    EXPECT_LE(noon, after);
    EXPECT_GT(after, before);
    EXPECT_GE(noon, noon);
    EXPECT_EQ(after - before, span);
    EXPECT_EQ(before + span, after);
    EXPECT_EQ(after - span, before);
    CDateTime date = before;
    EXPECT_EQ(date += morning, noon);
    EXPECT_EQ(date -= morning, before);
    date.SetDate(2005, 3, 4);
    EXPECT_EQ(date, CDateTime(2005, 3, 4, 0, 0, 0));
    date.SetTime(18, 0, 0);
    EXPECT_EQ(static_cast<DATE>(date), 0.75);

    const CDateTime invalid(kNan);
    CDateTime none;
    none.SetStatus(CDateTime::null);
    CDateTimeSpan noSpan;
    noSpan.SetStatus(CDateTimeSpan::null);
    EXPECT_EQ((CDateTime(9999, 12, 31, 0, 0, 0) + CDateTimeSpan(1.0)).GetStatus(), CDateTime::invalid);
    EXPECT_EQ((noon + CDateTimeSpan(kNan)).GetStatus(), CDateTime::invalid);
    EXPECT_EQ((invalid + noSpan).GetStatus(), CDateTime::null);
    EXPECT_EQ((none - CDateTimeSpan(1.0)).GetStatus(), CDateTime::null);
    EXPECT_EQ((none - noon).GetStatus(), CDateTimeSpan::null);
    EXPECT_EQ((invalid - noon).GetStatus(), CDateTimeSpan::invalid);
    EXPECT_NE(none, CDateTime());
    for (const bool ordered : {none<noon, none> noon, none <= noon, none >= noon, invalid <= invalid})
        EXPECT_FALSE(ordered);
}

// There a sum that is rounded may miss midnight by a little, which must not cost a day.
TEST(DateTime, SumsBeforeDayZeroKeepTheirDay) {
    for (int second = 0; second < 86400; ++second) {
        const CDateTime date(1899, 12, 29, second / 3600, second / 60 % 60, second % 60);
        const CDateTime sum = date + CDateTimeSpan(0, 0, 0, 86400 - second);
        ASSERT_EQ(parts(sum), std::tuple(1899, 12, 30, 0, 0, 0, 7)) << second;
    }
    CDateTime date(1898, 1, 1, 0, 0, 0);
    for (int minute = 0; minute < 365 * 1440; ++minute, date += CDateTimeSpan(0, 0, 1, 0)) {
        tagUDS fields{};
        ASSERT_TRUE(date.GetAsUDate(fields));
        ASSERT_EQ(((fields.wDayOfYear - 1) * 24 + fields.wHour) * 60 + fields.wMinute, minute);
    }
}

/// What both kinds of spans promise.
template <class Span>
void expectSpan() {
    const Span span(1, 2, 3, 4), minus = Span() - span;
    const auto partsOf = [](const Span& s) {
        return std::tuple(s.GetDays(), s.GetHours(), s.GetMinutes(), s.GetSeconds());
    };
    EXPECT_EQ(partsOf(span), std::tuple(1, 2, 3, 4));
    EXPECT_EQ(partsOf(minus), std::tuple(-1, -2, -3, -4));
    EXPECT_EQ(std::lround(span.GetTotalSeconds()), 93784);
    EXPECT_EQ(span.Format("%D days, %H:%M:%S 100%% %x %"), "1 days, 02:03:04 100% %x %");
    EXPECT_EQ(minus.Format("%D %H %M %S"), "-1 -2 -3 -4");
    EXPECT_TRUE(minus < span && span > minus && span >= span && minus <= span && minus != span);
    Span sum(1, 0, 0, 0);
    sum += Span(0, 12, 0, 0);
    EXPECT_EQ(sum -= Span(0, 6, 0, 0), Span(1, 6, 0, 0));
    EXPECT_EQ(span + Span(0, 0, 0, 1) - Span(0, 0, 0, 1), span);
}

TEST(Spans, HavePartsAndWholes) {
    expectSpan<CDateTimeSpan>();
    expectSpan<CTimeSpan>();
    const CDateTimeSpan span(1, 2, 3, 4);
    EXPECT_DOUBLE_EQ(span.GetTotalHours(), 93784 / 3600.0);
    EXPECT_DOUBLE_EQ(span.GetTotalMinutes(), 93784 / 60.0);
    EXPECT_DOUBLE_EQ(span.GetTotalDays(), static_cast<double>(span));
    EXPECT_DOUBLE_EQ(span, 93784 / 86400.0);
    EXPECT_EQ(-span, CDateTimeSpan() - span);
    EXPECT_EQ(CDateTimeSpan(0, 23, 59, 60), CDateTimeSpan(1.0));
    EXPECT_EQ(CDateTimeSpan(1.0 - 1e-9).GetDays(), 1);  // rounded to the second
    EXPECT_EQ(CDateTimeSpan(3615897.0).GetStatus(), CDateTimeSpan::valid);
    for (const CDateTimeSpan& bad : {CDateTimeSpan(3615898.0), CDateTimeSpan(-1e300), CDateTimeSpan(kNan),
                                     CDateTimeSpan(std::numeric_limits<LONG>::max(), 0, 0, 0)}) {
        EXPECT_EQ(bad.GetStatus(), CDateTimeSpan::invalid);
        EXPECT_EQ(bad.Format("%D"), "Invalid DateTimeSpan");
        EXPECT_EQ((bad + span).GetStatus(), CDateTimeSpan::invalid);
        EXPECT_FALSE(bad < span || bad >= span);
    }
    CDateTimeSpan none;
    none.SetStatus(CDateTimeSpan::null);
    EXPECT_EQ(none.Format("%D"), "");
    EXPECT_EQ((none - span).GetStatus(), CDateTimeSpan::null);
    const CTimeSpan whole(1, 2, 3, 4);
    EXPECT_EQ(std::tuple(whole.GetTotalHours(), whole.GetTotalMinutes()), std::tuple(26, 1563));
}

TEST(Time, HasThePartsOfTheLocalClock) {
    setTimeZone(kNewYork);
    traiklofox::test::FakeTime now;
    now.stopAt(kSummer);
    const CTime summer(kSummer);
    EXPECT_EQ(parts(summer), std::tuple(2001, 9, 8, 21, 46, 40, 7));
    EXPECT_EQ(summer.Format("%Y-%m-%d %H:%M:%S %Z"), "2001-09-08 21:46:40 EDT");
    EXPECT_EQ(summer.FormatGmt("%Y-%m-%d %H:%M:%S %Z"), "2001-09-09 01:46:40 GMT");
    EXPECT_EQ(summer.Format(nullptr), "");
    _SYSTEMTIME date{};
    _FILETIME fileTime{};
    EXPECT_TRUE(summer.GetAsSystemTime(date) && summer.GetAsFileTime(fileTime));
    EXPECT_EQ(date.wHour, 21);
    for (const CTime& same : {CTime(2001, 9, 8, 21, 46, 40), CTime(2001, 9, 8, 20, 46, 40, /*isDaylight=*/0),
                              CTime(2001, 8, 39, 21, 46, 40), CTime(date), CTime(fileTime),
                              CTime(fileTime, /*isDaylight=*/-1), CTime::GetCurrentTime()})
        EXPECT_EQ(same, summer);
    EXPECT_EQ(CTime(1969, 12, 31, 18, 59, 59).GetTime(), -1);
    EXPECT_EQ(summer.GetGmtTm()->tm_hour, 1);
    tm fields{};
    EXPECT_EQ(summer.GetLocalTm(&fields), &fields);
    EXPECT_EQ(fields.tm_hour, 21);
}

TEST(Time, AddsSpansAndRefusesWhatItCannotHold) {
    setTimeZone("UTC0");
    CTime time(kSummer);
    EXPECT_EQ((time += CTimeSpan(1, 2, 3, 4)).GetTime(), kSummer + 93784);
    time -= CTimeSpan(93784);
    EXPECT_EQ(time - CTime(), CTimeSpan(kSummer));
    EXPECT_GT(time, CTime());
    const CTime last(std::numeric_limits<time_t>::max());
    EXPECT_THROW((void)(last + CTimeSpan(1)), CDateTimeException);
    EXPECT_THROW((void)(CTime(std::numeric_limits<time_t>::min()) - CTimeSpan(1)), CDateTimeException);
    EXPECT_THROW((void)(CTimeSpan(std::numeric_limits<LONGLONG>::max()) + CTimeSpan(1)), CDateTimeException);
    EXPECT_THROW((void)CTime(std::numeric_limits<int>::min(), 1, 1, 0, 0, 0), CDateTimeException);
    if (sizeof(time_t) > 4) {
        EXPECT_THROW((void)(last - CTime(-1)), CDateTimeException);
        for (const time_t extreme : {last.GetTime(), std::numeric_limits<time_t>::min()})
            EXPECT_EQ(CDateTime(extreme).GetStatus(), CDateTime::invalid);
        return;
    }
    EXPECT_THROW((void)CTime(2040, 1, 1, 0, 0, 0), CDateTimeException);
    EXPECT_THROW((void)CTime(_FILETIME{0, 0}), CDateTimeException);
}

}  // namespace
