#include "locale/date_renderer.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "locale/conventions.h"
#include "locale/month_genitives.h"

using namespace traiklofox::locale;
using traiklofox::test::inOrder;
using traiklofox::test::inPicture;
using traiklofox::test::rendered;
using traiklofox::test::uds;

namespace {

double packed(const tagUDS& fields) {
    tagVARIANT value{};
    EXPECT_EQ(ErrPackDate(&fields, &value, /*validate=*/1, 0), S_OK);
    return value.date;
}

TEST(DateRenderer, RendersDateAndTimeInTheLocalesOrder) {
    constexpr DWORD kTime = VAR_TIMEVALUEONLY;
    constexpr DWORD kDate = VAR_DATEVALUEONLY;
    struct Case {
        tagUDS fields;
        DWORD flags;
        const char* monthDayYear;
        const char* dayMonthYear;
        const char* yearMonthDay;
    };
    for (const Case& c : {
             Case{uds(2005, 3, 4), 0, "3/4/2005", "4/3/2005", "2005/3/4"},
             {uds(1999, 3, 4), 0, "3/4/99", "4/3/99", "99/3/4"},
             {uds(1903, 11, 12), 0, "11/12/03", "12/11/03", "03/11/12"},
             {uds(1899, 3, 4), 0, "3/4/1899", "4/3/1899", "1899/3/4"},
             {uds(102, 3, 4), 0, "3/4/102", "4/3/102", "102/3/4"},
             {uds(2005, 3, 4, 13, 5), 0, "3/4/2005 13:05:00", "4/3/2005 13:05:00", "2005/3/4 13:05:00"},
             {uds(2005, 3, 4, 0, 0, 1), 0, "3/4/2005 00:00:01", "4/3/2005 00:00:01", "2005/3/4 00:00:01"},
             {uds(2005, 3, 4, 13, 5), kDate, "3/4/2005", "4/3/2005", "2005/3/4"},
             {uds(2005, 3, 4, 13, 5), kTime, "13:05:00", "13:05:00", "13:05:00"},
             {uds(2005, 3, 4), kTime, "00:00:00", "00:00:00", "00:00:00"},
             {uds(1899, 12, 30), 0, "00:00:00", "00:00:00", "00:00:00"},
             {uds(1899, 12, 30, 9, 8, 7), kDate, "09:08:07", "09:08:07", "09:08:07"},
             {uds(1899, 12, 29, 6), 0, "12/29/1899 06:00:00", "29/12/1899 06:00:00", "1899/12/29 06:00:00"},
         }) {
        const double value = packed(c.fields);
        EXPECT_EQ(rendered(value, inOrder(DATE_ORDER_MDY), c.flags), c.monthDayYear);
        EXPECT_EQ(rendered(value, inOrder(DATE_ORDER_DMY), c.flags), c.dayMonthYear);
        EXPECT_EQ(rendered(value, inOrder(DATE_ORDER_YMD), c.flags), c.yearMonthDay);
    }
    EXPECT_EQ(rendered(1e9, inOrder(DATE_ORDER_MDY)), "");

    char* text = nullptr;
    EXPECT_EQ(sarnu_VarBstrFromDate(packed(uds(2005, 3, 4, 13, 5)), 1033, 0, &text), S_OK);
    EXPECT_STREQ(text, "3/4/2005 13:05:00");
    free(text);
}

TEST(DateRenderer, FollowsTheLocalesClock) {
    struct Case {
        BOOL twelveHours;
        BOOL leadingZero;
        BOOL equal;
        const char* am;
        const char* pm;
        const char* midnight;
        const char* morning;  // 09:05:07
        const char* noon;
        const char* evening;  // 21:05:07
    };
    for (const Case& c : {
             Case{0, 1, 0, "AM", "PM", "00:00:00", "09:05:07", "12:00:00", "21:05:07"},
             {0, 0, 0, "AM", "PM", "0:00:00", "9:05:07", "12:00:00", "21:05:07"},
             {1, 1, 0, "AM", "PM", "12:00:00 AM", "09:05:07 AM", "12:00:00 PM", "09:05:07 PM"},
             {1, 0, 0, "am", "pm", "12:00:00 am", "9:05:07 am", "12:00:00 pm", "9:05:07 pm"},
             {1, 0, 0, "am", "", "12:00:00 am", "9:05:07 am", "12:00:00", "9:05:07"},
             {0, 0, 1, "Uhr", "Uhr", "0:00:00 Uhr", "9:05:07 Uhr", "12:00:00 Uhr", "21:05:07 Uhr"},
             {0, 0, 1, "", "", "0:00:00", "9:05:07", "12:00:00", "21:05:07"},
         }) {
        tagDATEINFO info = inOrder(DATE_ORDER_MDY);
        info.twelveHourClock = c.twelveHours;
        info.hourLeadingZero = c.leadingZero;
        info.designatorsEqual = c.equal;
        strcpy(info.amDesignator, c.am);
        strcpy(info.pmDesignator, c.pm);
        strcpy(info.timeSeparator, ".");  // not used
        EXPECT_EQ(rendered(0, info), c.midnight);
        EXPECT_EQ(rendered(32707 / 86400.0, info), c.morning);
        EXPECT_EQ(rendered(0.5, info), c.noon);
        EXPECT_EQ(rendered(75907 / 86400.0, info), c.evening);
    }
}

TEST(DateRenderer, WalksAPicture) {
    tagDATEINFO info = inOrder(DATE_ORDER_MDY);
    strcpy(info.longDays[5], "Friday");
    strcpy(info.shortDays[5], "Fri");
    const tagUDS date{2005, 3, 5, 4, 0, 0, 0, 0, 0};
    const auto render = [&](const char* picture) { return inPicture(picture, date, info); };
    EXPECT_EQ(render("m/d/yy"), "3/4/2005");
    EXPECT_EQ(render("MM-dd-yyyy"), "03-04-2005");
    EXPECT_EQ(render("ddd, d MMM yyyy"), "Fri, 4 Mar 2005");
    EXPECT_EQ(render("dddd mmmm"), "Friday March");
    EXPECT_EQ(render("dddddd"), "Friday04");
    EXPECT_EQ(render("MMMMMMM"), "MarchMar");
    EXPECT_EQ(render("y yyy yyyyy"), "y 2005y 2005y");
    EXPECT_EQ(render("D h:t"), "D h:t");
    EXPECT_EQ(render("'day 'd' of 'm"), "day 4 of 3");
    EXPECT_EQ(render("d''m"), "43");
    EXPECT_EQ(render("d 'open"), "4 open");
    EXPECT_EQ(render("d'"), "4");
    EXPECT_EQ(render(""), "");
    strcpy(info.dateSeparator, ". ");
    EXPECT_EQ(render("d/m/yy"), "4. 3. 2005");
    info.dateSeparator[0] = '\0';
    EXPECT_EQ(render("d/m"), "4/3");
    EXPECT_EQ(inPicture("d/m/yy dddd MMM|", {1905, 13, 7, 99, 0, 0, 0, 0, 0}, info), "99/13/05  |");
}

TEST(DateRenderer, MonthsBesideADayTakeTheirGenitive) {
    const tagUDS date{2005, 5, 5, 4, 0, 0, 0, 0, 0};
    const std::string russian = genitiveOf(5, kRussian);
    for (const auto& [lcid, genitive] :
         {std::pair<LCID, std::string>{1033, "May"}, {kPolish, "m"}, {kRussian, russian}}) {
        tagDATEINFO info = inOrder(DATE_ORDER_DMY);
        info.lcid = lcid;
        EXPECT_EQ(inPicture("mmmmd", date, info), genitive + "4");
        EXPECT_EQ(inPicture("d MMMM", date, info), "4 " + genitive);
        EXPECT_EQ(inPicture("MMMM 'x' D", date, info), genitive + " x D");
        EXPECT_EQ(inPicture("MMMM yyyy", date, info), "May 2005");
        EXPECT_EQ(inPicture("MMMM 'd'", date, info), "May d");
        EXPECT_EQ(inPicture("MMM d", date, info), "May 4");
    }
}

}  // namespace
