// A date rendered after any picture, and in each order read again.
//
// The input is the fields of a date, as they are in memory, then a day and a second, then the picture.

#include <algorithm>
#include <cstring>
#include <memory>

#include "locale/calendar.h"
#include "locale/date_info.h"
#include "locale/date_parser.h"
#include "locale/date_renderer.h"
#include "require.h"

namespace {

using namespace traiklofox::fuzz;
using namespace traiklofox::locale;

struct Header {
    tagUDS fields;
    std::uint32_t day;
    std::uint32_t second;
    std::uint32_t room;
};

std::string inPicture(const tagUDS& date, const std::string& picture, size_t size, const tagDATEINFO& info) {
    const auto room = std::make_unique<char[]>(size);  // of that size, for the sanitizer to see its end
    TextOut out(room.get(), size);
    RenderDate(date, picture.c_str(), out, info);
    return std::string(out.text());
}

void checkPicture(const Header& header, const std::string& picture) {
    tagDATEINFO info = defDateInfo;
    for (const LCID lcid : {LCID{1033}, LCID{1045}, LCID{1049}}) {
        info.lcid = lcid;
        // No letter makes more than the longest name.
        const size_t enough = picture.size() * sizeof info.longMonths[0] + 1;
        const std::string whole = inPicture(header.fields, picture, enough, info);
        require(whole.size() < enough, "room for all");
        const size_t less = header.room % (whole.size() + 1);
        require(inPicture(header.fields, picture, less, info) == whole.substr(0, less), "cut to its room",
                whole);
    }
}

/// Two digits of a year are those of 1930 to 2029 when they are read; seconds of the last day are cut.
bool isUnambiguous(LONG day) {
    constexpr LONG kFirstOf1900 = 2;
    constexpr LONG kFirstOf1930 = 10959;
    return (day < kFirstOf1900 || day >= kFirstOf1930) && day < kLastDay;
}

std::string rendered(double value, const tagDATEINFO& info, DWORD flags) {
    char room[128];
    TextOut out(room, sizeof room);
    return std::string(renderValue(value, info, flags, out));
}

void checkRoundTrip(LONG day, int second) {
    const double value = valueOf(day, fractionOf(second));
    for (const int order : {DATE_ORDER_MDY, DATE_ORDER_DMY, DATE_ORDER_YMD}) {
        for (const BOOL twelveHours : {FALSE, TRUE}) {
            tagDATEINFO info = defDateInfo;
            info.dateOrder = order;
            info.twelveHourClock = twelveHours;
            info.hourLeadingZero = second % 2;
            const std::string text = rendered(value, info, 0);
            double again = 1e300;
            require(parseDate(text.c_str(), info, 0, &again) == S_OK, "what is rendered can be read", text);
            if (isUnambiguous(day)) require(again == value, "and is the same", text);
            const std::string time = rendered(value, info, VAR_TIMEVALUEONLY);
            if (day < kLastDay)
                require(parseDate(time.c_str(), info, 0, &again) == S_OK && again == fractionOf(second),
                        "the time alone, too", time);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, size_t size) {
    Header header{};
    std::memcpy(&header, bytes, std::min(size, sizeof header));
    checkRoundTrip(kFirstDay + static_cast<LONG>(header.day % (kLastDay - kFirstDay + 1)),
                   static_cast<int>(header.second % 86400));
    if (size <= sizeof header) return 0;
    const std::string_view rest = textOf(bytes + sizeof header, size - sizeof header);
    checkPicture(header, std::string(rest.substr(0, rest.find('\0'))));
    return 0;
}
