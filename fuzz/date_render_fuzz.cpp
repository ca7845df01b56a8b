// A date rendered after any picture, and in each order read again.
//
// The input is the fields of a date, as they are in memory, then a day and a second, then the picture.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

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
};

/// In room of just the length that was counted, for the sanitizer to see its end.
void checkPicture(const Header& header, const std::string& picture) {
    tagDATEINFO info = defDateInfo;
    for (const LCID lcid : {LCID{1033}, LCID{1045}, LCID{1049}}) {
        info.lcid = lcid;
        TextLength length;
        RenderDate(header.fields, picture.c_str(), length, info);
        // No letter makes more than the longest name.
        require(length.length() <= picture.size() * sizeof info.longMonths[0], "no endless text");
        const auto room = std::make_unique<char[]>(length.length() + 1);
        TextOut out(room.get());
        RenderDate(header.fields, picture.c_str(), out, info);
        out.end();
        require(std::strlen(room.get()) == length.length(), "as long as was counted", room.get());
    }
}

/// Two digits of a year are those of 1930 to 2029 when they are read; seconds of the last day are cut.
bool isUnambiguous(LONG day) {
    constexpr LONG kFirstOf1900 = 2;
    constexpr LONG kFirstOf1930 = 10959;
    return (day < kFirstOf1900 || day >= kFirstOf1930) && day < kLastDay;
}

std::string rendered(double value, const tagDATEINFO& info, DWORD flags) {
    const std::unique_ptr<char, decltype(&free)> text(renderValue(value, info, flags), &free);
    return text.get();
}

/// In each order, with either clock, hours with and without a leading zero.
std::vector<tagDATEINFO> conventions() {
    std::vector<tagDATEINFO> all;
    for (const int order : {DATE_ORDER_MDY, DATE_ORDER_DMY, DATE_ORDER_YMD}) {
        for (const BOOL twelveHours : {FALSE, TRUE}) {
            for (const BOOL leadingZero : {FALSE, TRUE}) {
                tagDATEINFO& info = all.emplace_back(defDateInfo);
                info.dateOrder = order;
                info.twelveHourClock = twelveHours;
                info.hourLeadingZero = leadingZero;
            }
        }
    }
    return all;
}

void checkRoundTrip(LONG day, int second) {
    static const std::vector<tagDATEINFO> kConventions = conventions();
    static const std::vector<DateLexicon> kLexicons(kConventions.begin(), kConventions.end());
    const double value = valueOf(day, fractionOf(second));
    for (const DateLexicon& lexicon : kLexicons) {
        const std::string text = rendered(value, lexicon.info(), 0);
        double again = 1e300;
        require(parseDate(text.c_str(), lexicon, 0, &again) == S_OK, "what is rendered can be read", text);
        if (isUnambiguous(day)) require(again == value, "and is the same", text);
        const std::string time = rendered(value, lexicon.info(), VAR_TIMEVALUEONLY);
        if (day < kLastDay)
            require(parseDate(time.c_str(), lexicon, 0, &again) == S_OK && again == fractionOf(second),
                    "the time alone, too", time);
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
