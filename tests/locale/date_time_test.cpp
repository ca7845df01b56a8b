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

void setTimeZone(const char* zone) {
    setenv("TZ", zone, /*replace=*/1);
    tzset();
}

std::tuple<int, int, int, int, int, int> parts(const CDateTime& date) {
    return {date.GetYear(), date.GetMonth(),  date.GetDay(),
            date.GetHour(), date.GetMinute(), date.GetSecond()};
}

tagVARIANT variant(VARTYPE type, double value) {
    tagVARIANT made{};
    made.vt = type;
    made.date = value;
    return made;
}

TEST(DateTime, IsMadeOfEveryKindOfDate) {
    setTimeZone(kNewYork);
    const time_t summer = 1'000'000'000;  // 2001-09-09 01:46:40 UTC
    _FILETIME fileTime{};
    time_tToFileTime(static_cast<LONG>(summer), &fileTime, 999'999);
    const _SYSTEMTIME systemTime{2001, 9, 0, 8, 21, 46, 40, 999};
    const tagUDS fields{2001, 9, 0, 8, 21, 46, 40, 0, 0};
    const CDateTime expected(2001, 9, 8, 21, 46, 40);
    EXPECT_EQ(parts(expected), std::tuple(2001, 9, 8, 21, 46, 40));
    EXPECT_EQ(expected.GetDayOfWeek(), 7);
    EXPECT_EQ(expected.GetDayOfYear(), 251);
    EXPECT_EQ(CDateTime(summer), expected);
    EXPECT_EQ(CDateTime(fileTime), expected);
    EXPECT_EQ(CDateTime(systemTime), expected);
    EXPECT_EQ(CDateTime(fields), expected);
    EXPECT_EQ(CDateTime(expected.m_dt), expected);
    EXPECT_EQ(CDateTime(variant(VT_DATE, expected.m_dt)), expected);

    time_t time = 0;
    EXPECT_TRUE(expected.GetAsTime(time));
    EXPECT_EQ(time, summer);
    _FILETIME backAgain{};
    EXPECT_TRUE(expected.GetAsFileTime(backAgain));
    EXPECT_EQ(FileTime2longlong(backAgain), summer);
    _SYSTEMTIME system{};
    EXPECT_TRUE(expected.GetAsSystemTime(system));
    const _SYSTEMTIME expectedSystem{2001, 9, 6, 8, 21, 46, 40, 0};
    EXPECT_EQ(memcmp(&system, &expectedSystem, sizeof system), 0);

    traiklofox::test::FakeTime now;
    now.stopAt(summer);
    EXPECT_EQ(CDateTime::GetCurrentTime(), expected);
    EXPECT_EQ(CDateTime(), CDateTime(1899, 12, 30, 0, 0, 0));
}

// Where a 32-bit time_t ends, file times go on.
TEST(DateTime, FileTimesReachBeyondTheCLibrarysTimes) {
    setTimeZone("EST5");
    struct Case {
        CDateTime date;
        LONGLONG unixSeconds;
        bool hasFileTime;
    };
    for (const Case& c : {
             Case{CDateTime(2100, 1, 1, 0, 0, 0), 4102462800, true},
             {CDateTime(9999, 12, 31, 0, 0, 0), 253402232400, true},
             {CDateTime(1850, 6, 15, 12, 0, 1), -3772508399, true},
             {CDateTime(1600, 6, 15, 12, 0, 1), 0, false},
         }) {
        _FILETIME time{};
        ASSERT_EQ(c.date.GetAsFileTime(time), c.hasFileTime);
        if (!c.hasFileTime) continue;
        EXPECT_EQ(FileTime2longlong(time), c.unixSeconds);
        EXPECT_EQ(CDateTime(time), c.date);
        time_t unixTime = 7;
        EXPECT_EQ(c.date.GetAsTime(unixTime), sizeof(time_t) > 4);
        EXPECT_EQ(unixTime, sizeof(time_t) > 4 ? static_cast<time_t>(c.unixSeconds) : 7);
    }
    EXPECT_EQ(CDateTime(_FILETIME{0xffffffff, 0xffffffff}).GetStatus(),
              CDateTime::invalid);  // the year 60056
}

TEST(DateTime, KnowsWhatIsNoDate) {
    const double nan = std::nan("");
    const double infinite = std::numeric_limits<double>::infinity();
    for (const CDateTime& bad :
         {CDateTime(2001, 2, 29, 0, 0, 0), CDateTime(2001, 13, 1, 0, 0, 0), CDateTime(99, 1, 1, 0, 0, 0),
          CDateTime(10000, 1, 1, 0, 0, 0), CDateTime(2001, 1, 1, 24, 0, 0), CDateTime(2001, 1, 1, 0, -1, 0),
          CDateTime(2001 + 65536, 1, 1, 0, 0, 0), CDateTime(-657435.0), CDateTime(2958466.0), CDateTime(nan),
          CDateTime(infinite), CDateTime(variant(VT_R8, nan)), CDateTime(variant(8, 1)),
          CDateTime(_SYSTEMTIME{}), CDateTime(tagUDS{})}) {
        EXPECT_EQ(bad.GetStatus(), CDateTime::invalid);
        EXPECT_EQ(bad.m_dt, 0);
        EXPECT_EQ(bad.GetYear(), -1);
        EXPECT_EQ(bad.GetDayOfWeek(), -1);
        EXPECT_EQ(bad.Format(), "Invalid DateTime");
        EXPECT_EQ(bad.Format("%Y"), "Invalid DateTime");
        _SYSTEMTIME date{};
        time_t time = 0;
        EXPECT_FALSE(bad.GetAsSystemTime(date) || bad.GetAsTime(time));
    }
    const CDateTime none(variant(VT_NULL, 1));
    EXPECT_EQ(none.GetStatus(), CDateTime::null);
    EXPECT_EQ(CDateTime(variant(VT_EMPTY, 1)), none);
    EXPECT_EQ(none.Format(), "");
    EXPECT_EQ(none.Format("%Y"), "");
}

TEST(DateTime, ReadsAndWritesText) {
    CDateTime date;
    EXPECT_TRUE(date.ParseDateTime("March 4, 2005, 1:05 pm"));  // commas count as blanks
    EXPECT_EQ(parts(date), std::tuple(2005, 3, 4, 13, 5, 0));
    EXPECT_EQ(date.Format(), "3/4/2005 13:05:00");
    EXPECT_EQ(date.Format(VAR_TIMEVALUEONLY), "13:05:00");
    EXPECT_EQ(date.Format(VAR_DATEVALUEONLY, 1033), "3/4/2005");
    EXPECT_EQ(date.Format("%Y-%m-%d %H:%M:%S %j %a %y"), "2005-03-04 13:05:00 063 Fri 05");
    EXPECT_EQ(date.Format(""), "");
    EXPECT_EQ(date.Format("%Z"), "");
    EXPECT_EQ(date.Format(std::string(500, 'x').c_str()).size(), 500U);
    EXPECT_EQ(date.Format("%2000000d"), "");
    EXPECT_EQ(CDateTime(-1.25).Format("%Y-%m-%d %H"), "1899-12-29 06");
    EXPECT_TRUE(date.ParseDateTime("10:30", VAR_TIMEVALUEONLY));
    EXPECT_EQ(date.m_dt, 0.4375);
    for (const char* text : {"", "no date", static_cast<const char*>(nullptr)}) {
        EXPECT_FALSE(date.ParseDateTime(text));
        EXPECT_EQ(date.GetStatus(), CDateTime::invalid);
    }
    date = CDateTime(2005, 3, 4, 0, 0, 0);
    EXPECT_THROW(date.ParseDateTime("1/2/2000", 0, 1031), CDateTimeException);  // not initialized
    EXPECT_THROW(date.Format(0, 1031), CDateTimeException);
    EXPECT_EQ(date, CDateTime(2005, 3, 4, 0, 0, 0));
}

// Across 1899-12-30, where the fraction of a value turns round.
TEST(DateTime, AddsAndComparesByTime) {
    const CDateTime before(1899, 12, 29, 6, 0, 0);
    const CDateTime noon(1899, 12, 29, 12, 0, 0);
    const CDateTime after(1899, 12, 30, 18, 0, 0);
    EXPECT_LT(before, noon);  // though -1.25 > -1.5
    EXPECT_LE(noon, after);
    EXPECT_GT(after, before);
    EXPECT_GE(noon, noon);
    EXPECT_EQ(after - before, CDateTimeSpan(1, 12, 0, 0));
    EXPECT_EQ(before + CDateTimeSpan(1, 12, 0, 0), after);
    EXPECT_EQ(after - CDateTimeSpan(1, 12, 0, 0), before);
    CDateTime date = before;
    date += CDateTimeSpan(0, 6, 0, 0);
    EXPECT_EQ(date, noon);
    date -= CDateTimeSpan(0, 6, 0, 0);
    EXPECT_EQ(date, before);

    CDateTime invalid(nan(""));
    CDateTime none;
    none.SetStatus(CDateTime::null);
    CDateTimeSpan noSpan;
    noSpan.SetStatus(CDateTimeSpan::null);
    EXPECT_EQ((CDateTime(9999, 12, 31, 0, 0, 0) + CDateTimeSpan(1.0)).GetStatus(), CDateTime::invalid);
    EXPECT_EQ((noon + CDateTimeSpan(nan(""))).GetStatus(), CDateTime::invalid);
    EXPECT_EQ((invalid + noSpan).GetStatus(), CDateTime::null);
    EXPECT_EQ((none - CDateTimeSpan(1.0)).GetStatus(), CDateTime::null);
    EXPECT_EQ((none - noon).GetStatus(), CDateTimeSpan::null);
    EXPECT_EQ((invalid - noon).GetStatus(), CDateTimeSpan::invalid);
    EXPECT_NE(none, CDateTime());
    for (const bool ordered : {none<noon, none> noon, none <= noon, none >= noon, invalid <= invalid})
        EXPECT_FALSE(ordered);
}

TEST(DateTimeSpan, HasPartsAndWholes) {
    const CDateTimeSpan span(1, 2, 3, 4);
    EXPECT_EQ(std::tuple(span.GetDays(), span.GetHours(), span.GetMinutes(), span.GetSeconds()),
              std::tuple(1, 2, 3, 4));
    EXPECT_EQ(std::lround(span.GetTotalSeconds()), 93784);
    EXPECT_DOUBLE_EQ(span.GetTotalHours(), 93784 / 3600.0);
    EXPECT_DOUBLE_EQ(span.GetTotalMinutes(), 93784 / 60.0);
    EXPECT_DOUBLE_EQ(span.GetTotalDays(), 93784 / 86400.0);
    EXPECT_EQ(span.Format("%D days, %H:%M:%S 100%% %x %"), "1 days, 02:03:04 100% %x %");
    EXPECT_EQ((-span).Format("%D %H %M %S"), "-1 -2 -3 -4");
    EXPECT_EQ(CDateTimeSpan(0, 23, 59, 60), CDateTimeSpan(1.0));
    EXPECT_EQ(CDateTimeSpan(1.0 - 1e-9).GetDays(), 1);  // rounded to the second
    EXPECT_EQ(span + CDateTimeSpan(0, 0, 0, 1) - CDateTimeSpan(0, 0, 0, 1), span);
    EXPECT_LT(-span, span);
    EXPECT_GE(span, span);
    EXPECT_EQ(CDateTimeSpan(3615897.0).GetStatus(), CDateTimeSpan::valid);
    for (CDateTimeSpan bad : {CDateTimeSpan(3615898.0), CDateTimeSpan(-1e300), CDateTimeSpan(nan("")),
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
}

TEST(Time, HasThePartsOfTheLocalClock) {
    setTimeZone(kNewYork);
    const CTime summer(1'000'000'000);
    EXPECT_EQ(std::tuple(summer.GetYear(), summer.GetMonth(), summer.GetDay(), summer.GetHour(),
                         summer.GetMinute(), summer.GetSecond(), summer.GetDayOfWeek()),
              std::tuple(2001, 9, 8, 21, 46, 40, 7));
    EXPECT_EQ(summer.Format("%Y-%m-%d %H:%M:%S %Z"), "2001-09-08 21:46:40 EDT");
    EXPECT_EQ(summer.FormatGmt("%Y-%m-%d %H:%M:%S %Z"), "2001-09-09 01:46:40 GMT");
    EXPECT_EQ(summer.Format(nullptr), "");
    EXPECT_EQ(CTime(2001, 9, 8, 21, 46, 40), summer);
    EXPECT_EQ(CTime(2001, 9, 8, 20, 46, 40, /*isDaylight=*/0), summer);
    EXPECT_EQ(CTime(2001, 8, 39, 21, 46, 40), summer);
    EXPECT_EQ(CTime(1969, 12, 31, 18, 59, 59).GetTime(), -1);
    _SYSTEMTIME date{};
    EXPECT_TRUE(summer.GetAsSystemTime(date));
    EXPECT_EQ(date.wHour, 21);
    EXPECT_EQ(CTime(date), summer);
    _FILETIME fileTime{};
    EXPECT_TRUE(summer.GetAsFileTime(fileTime));
    EXPECT_EQ(CTime(fileTime), summer);
    EXPECT_EQ(summer.GetGmtTm()->tm_hour, 1);
    tm fields{};
    EXPECT_EQ(summer.GetLocalTm(&fields), &fields);
    EXPECT_EQ(fields.tm_hour, 21);
    EXPECT_EQ(CTime().GetTime(), 0);
    traiklofox::test::FakeTime now;
    now.stopAt(1'000'000'000);
    EXPECT_EQ(CTime::GetCurrentTime(), summer);
}

TEST(Time, AddsSpansAndRefusesWhatItCannotHold) {
    setTimeZone("UTC0");
    CTime time(1'000'000'000);
    time += CTimeSpan(1, 2, 3, 4);
    EXPECT_EQ(time.GetTime(), 1'000'093'784);
    time -= CTimeSpan(93784);
    EXPECT_EQ(time - CTime(), CTimeSpan(1'000'000'000));
    EXPECT_GT(time, CTime());

    const CTimeSpan span(1, 2, 3, 4);
    EXPECT_EQ(std::tuple(span.GetDays(), span.GetHours(), span.GetMinutes(), span.GetSeconds()),
              std::tuple(1, 2, 3, 4));
    EXPECT_EQ(std::tuple(span.GetTotalHours(), span.GetTotalMinutes(), span.GetTotalSeconds()),
              std::tuple(26, 1563, 93784));
    EXPECT_EQ(span.Format("%D %H:%M:%S"), "1 02:03:04");
    EXPECT_EQ((CTimeSpan() - span).Format("%D %H"), "-1 -2");
    EXPECT_LT(CTimeSpan() - span, span);

    const CTime last(std::numeric_limits<time_t>::max());
    EXPECT_THROW((void)(last + CTimeSpan(1)), CDateTimeException);
    EXPECT_THROW((void)(CTime(std::numeric_limits<time_t>::min()) - CTimeSpan(1)), CDateTimeException);
    EXPECT_THROW((void)(CTimeSpan(std::numeric_limits<LONGLONG>::max()) + CTimeSpan(1)), CDateTimeException);
    EXPECT_THROW((void)CTime(std::numeric_limits<int>::min(), 1, 1, 0, 0, 0), CDateTimeException);
    if (sizeof(time_t) > 4) return;
    EXPECT_THROW((void)CTime(2040, 1, 1, 0, 0, 0), CDateTimeException);
    EXPECT_THROW((void)CTime(_FILETIME{0, 0}), CDateTimeException);
}

}  // namespace
