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
    const tagDATEINFO orders[] = {inOrder(DATE_ORDER_MDY), inOrder(DATE_ORDER_DMY), inOrder(DATE_ORDER_YMD)};
    const struct {
        tagUDS fields;
        DWORD flags;
        const char* texts[3];
    } kCases[] = {
        {uds(2005, 3, 4), 0, {"3/4/2005", "4/3/2005", "2005/3/4"}},
        {uds(1999, 3, 4), 0, {"3/4/99", "4/3/99", "99/3/4"}},
        {uds(1903, 11, 12), 0, {"11/12/03", "12/11/03", "03/11/12"}},
        {uds(1899, 3, 4), 0, {"3/4/1899", "4/3/1899", "1899/3/4"}},
        {uds(102, 3, 4), 0, {"3/4/102", "4/3/102", "102/3/4"}},
        {uds(2005, 3, 4, 13, 5), 0, {"3/4/2005 13:05:00", "4/3/2005 13:05:00", "2005/3/4 13:05:00"}},
        {uds(2005, 3, 4, 0, 0, 1), 0, {"3/4/2005 00:00:01", "4/3/2005 00:00:01", "2005/3/4 00:00:01"}},
        {uds(2005, 3, 4, 13, 5), kDate, {"3/4/2005", "4/3/2005", "2005/3/4"}},
        {uds(1899, 12, 29, 6), 0, {"12/29/1899 06:00:00", "29/12/1899 06:00:00", "1899/12/29 06:00:00"}},
        {uds(2005, 3, 4, 13, 5), kTime, {"13:05:00", "13:05:00", "13:05:00"}},
        {uds(2005, 3, 4), kTime, {"00:00:00", "00:00:00", "00:00:00"}},
        {uds(1899, 12, 30), 0, {"00:00:00", "00:00:00", "00:00:00"}},
        {uds(1899, 12, 30, 9, 8, 7), kDate, {"09:08:07", "09:08:07", "09:08:07"}}};
    for (const auto& [fields, flags, texts] : kCases)
        for (int i = 0; i < 3; ++i) EXPECT_EQ(rendered(packed(fields), orders[i], flags), texts[i]);
    EXPECT_EQ(rendered(1e9, inOrder(DATE_ORDER_MDY)), "");

    char* text = nullptr;
    EXPECT_EQ(sarnu_VarBstrFromDate(packed(uds(2005, 3, 4, 13, 5)), 1033, 0, &text), S_OK);
    EXPECT_STREQ(text, "3/4/2005 13:05:00");
    free(text);
}

TEST(DateRenderer, FollowsTheLocalesClock) {
    const struct {
        BOOL twelveHours, leadingZero, equal;
        const char *am, *pm;
        const char* texts[4];
    } kCases[] = {{0, 1, 0, "AM", "PM", {"00:00:00", "09:05:07", "12:00:00", "21:05:07"}},
                  {0, 0, 0, "AM", "PM", {"0:00:00", "9:05:07", "12:00:00", "21:05:07"}},
                  {1, 1, 0, "AM", "PM", {"12:00:00 AM", "09:05:07 AM", "12:00:00 PM", "09:05:07 PM"}},
                  {1, 0, 0, "am", "pm", {"12:00:00 am", "9:05:07 am", "12:00:00 pm", "9:05:07 pm"}},
                  {1, 0, 0, "am", "", {"12:00:00 am", "9:05:07 am", "12:00:00", "9:05:07"}},
                  {0, 0, 1, "Uhr", "Uhr", {"0:00:00 Uhr", "9:05:07 Uhr", "12:00:00 Uhr", "21:05:07 Uhr"}},
                  {0, 0, 1, "", "", {"0:00:00", "9:05:07", "12:00:00", "21:05:07"}}};
    for (const auto& c : kCases) {
        tagDATEINFO info = inOrder(DATE_ORDER_MDY);
        info.twelveHourClock = c.twelveHours;
        info.hourLeadingZero = c.leadingZero;
        info.designatorsEqual = c.equal;
        strcpy(info.amDesignator, c.am);
        strcpy(info.pmDesignator, c.pm);
        strcpy(info.timeSeparator, ".");  // not used
        for (const char* const* text = c.texts; const int second : {0, 32707, 43200, 75907})
            EXPECT_EQ(rendered(second / 86400.0, info), *text++);
    }
}

TEST(DateRenderer, WalksAPicture) {
    tagDATEINFO info = inOrder(DATE_ORDER_MDY);
    strcpy(info.longDays[5], "Friday");
    strcpy(info.shortDays[5], "Fri");
    const tagUDS date{2005, 3, 5, 4, 0, 0, 0, 0, 0};
    const auto expect = [&](const char* picture, const char* text) {
        EXPECT_EQ(inPicture(picture, date, info), text) << picture;
    };
    // clang-format off
    const std::pair<const char*, const char*> kPictures[] = {
        {"m/d/yy", "3/4/2005"}, {"MM-dd-yyyy", "03-04-2005"}, {"ddd, d MMM yyyy", "Fri, 4 Mar 2005"},
        {"dddd mmmm", "Friday March"}, {"dddddd", "Friday04"}, {"MMMMMMM", "MarchMar"},
        {"y yyy yyyyy", "y 2005y 2005y"}, {"D h:t", "D h:t"}, {"'day 'd' of 'm", "day 4 of 3"},
        {"d''m", "43"}, {"d 'open", "4 open"}, {"d'", "4"}, {"", ""},
    };
    // clang-format on
    for (const auto& [picture, text] : kPictures) expect(picture, text);
    strcpy(info.dateSeparator, ". ");
    expect("d/m/yy", "4. 3. 2005");
    info.dateSeparator[0] = '\0';
    expect("d/m", "4/3");
    EXPECT_EQ(inPicture("d/m/yy dddd MMM|", {1905, 13, 7, 99, 0, 0, 0, 0, 0}, info), "99/13/05  |");
}

TEST(DateRenderer, MonthsBesideADayTakeTheirGenitive) {
    const tagUDS date{2005, 5, 5, 4, 0, 0, 0, 0, 0};
    const std::string russian = genitiveOf(5, kRussian);
    for (const auto& [lcid, genitive] :
         {std::pair<LCID, std::string>{1033, "May"}, {kPolish, "m"}, {kRussian, russian}}) {
        tagDATEINFO info = inOrder(DATE_ORDER_DMY);
        info.lcid = lcid;
        for (const auto& [picture, text] : {std::pair{"mmmmd", genitive + "4"},
                                            {"d MMMM", "4 " + genitive},
                                            {"MMMM 'x' D", genitive + " x D"},
                                            {"MMMM yyyy", "May 2005"},
                                            {"MMMM 'd'", "May d"},
                                            {"MMM d", "May 4"}})
            EXPECT_EQ(inPicture(picture, date, info), text) << lcid << ' ' << picture;
    }
}

}  // namespace
