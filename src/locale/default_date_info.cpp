// default_date_info.cpp: US English, which needs no data of the machine.

#include "locale/date_info.h"
#include "locale/date_lexicon.h"

namespace traiklofox::locale {

namespace {

constexpr BYTE classOf(int byte) {
    if (byte == ' ' || (byte >= '\t' && byte <= '\r')) return CHARACTER_SPACE;
    if ((byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z')) return CHARACTER_LETTER;
    if (byte >= '0' && byte <= '9') return CHARACTER_DIGIT;
    return byte > ' ' && byte < 0x7f ? CHARACTER_PUNCTUATION : 0;
}

constexpr tagDATEINFO usEnglish() {
    tagDATEINFO info{
        .lcid = 1033,
        .dateOrder = DATE_ORDER_MDY,
        .amDesignator = "AM",
        .pmDesignator = "PM",
        .designatorsEqual = FALSE,
        .dateSeparator = "/",
        .timeSeparator = ":",
        .hourLeadingZero = TRUE,
        .twelveHourClock = FALSE,
        .longMonths = {"January", "February", "March", "April", "May", "June", "July", "August", "September",
                       "October", "November", "December"},
        .shortMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"},
        .shortMonthLengths = {3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3},
        .shortDatePicture = " ",
        .longDays = {"Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"},
        .shortDays = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"},
        .characterClasses = {},
    };
    for (int byte = 0; byte < 256; ++byte) info.characterClasses[byte] = classOf(byte);
    return info;
}

}  // namespace

constexpr tagDATEINFO defDateInfo = usEnglish();
constexpr DateLexicon defaultLexicon = defDateInfo;

}  // namespace traiklofox::locale
