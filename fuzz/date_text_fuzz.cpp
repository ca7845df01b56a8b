// A date that somebody typed, read in each of the three orders.
//
// The input is the text.

#include <cstring>
#include <vector>

#include "locale/calendar.h"
#include "locale/date_info.h"
#include "locale/date_parser.h"
#include "locale/date_renderer.h"
#include "require.h"

namespace {

using namespace traiklofox::fuzz;
using namespace traiklofox::locale;

constexpr double kUntouched = 1e300;

bool isSame(const tagUDS& left, const tagUDS& right) {
    return std::memcmp(&left, &right, sizeof left) == 0;
}

/// A value that was read: it is one of a whole second, in range, and packs as it unpacks.
void checkValue(double value) {
    require(value > kFirstDay - 1 && value < kLastDay + 1, "in range");
    tagUDS fields{};
    require(VarUdateFromDate(value, 0, &fields) == S_OK, "unpacked");
    if (value >= kLastDay) return;  // its seconds are cut, not rounded
    tagVARIANT packed{};
    require(ErrPackDate(&fields, &packed, /*validate=*/1, 0) == S_OK && packed.date == value,
            "packed as it was");
    tagUDS again{};
    require(VarUdateFromDate(packed.date, 0, &again) == S_OK && isSame(fields, again), "unpacked as it was");
}

void checkReading(const char* text, const DateLexicon& lexicon) {
    double value = kUntouched;
    const HRESULT result = parseDate(text, lexicon, 0, &value);
    require(result == S_OK || result == DISP_E_TYPEMISMATCH, "read or not");
    require((result == S_OK) == (value != kUntouched), "nothing stored when it is not read");
    double day = kUntouched;
    double time = kUntouched;
    require(parseDate(text, lexicon, VAR_DATEVALUEONLY, &day) == result, "the same for the date alone");
    require(parseDate(text, lexicon, VAR_TIMEVALUEONLY, &time) == result, "the same for the time alone");
    if (result != S_OK) return;
    checkValue(value);
    require(time >= 0 && time < 1 && value == valueOf(static_cast<LONG>(day), time),
            "a date and a time of day");
}

/// The number, read as the lexer does.
void checkNumber(const char* text) {
    int value = 7;
    const HRESULT result = IntOfString(1033, text, &value);
    require(result == S_OK || (result == E_INVALIDARG && value == 7), "a number or nothing");
}

std::vector<tagDATEINFO> conventions() {
    std::vector<tagDATEINFO> all(3, defDateInfo);
    for (const int order : {DATE_ORDER_MDY, DATE_ORDER_DMY, DATE_ORDER_YMD})
        all[static_cast<size_t>(order)].dateOrder = order;
    tagDATEINFO odd = defDateInfo;  // what a locale may have
    odd.dateOrder = DATE_ORDER_DMY;
    std::strcpy(odd.dateSeparator, ". ");
    std::strcpy(odd.timeSeparator, ".");
    std::strcpy(odd.amDesignator, "\xd6\xd6");
    std::strcpy(odd.pmDesignator, "eftermid");
    std::strcpy(odd.shortMonths[1], "f\xe9vr");
    odd.shortMonthLengths[1] = 5;
    for (int byte = 0x80; byte < 256; ++byte) odd.characterClasses[byte] = CHARACTER_LETTER;
    for (const LCID lcid : {LCID{1033}, LCID{1038}, LCID{1045}, LCID{1049}}) {
        odd.lcid = lcid;
        all.push_back(odd);
    }
    return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, size_t size) {
    static const std::vector<tagDATEINFO> kConventions = conventions();
    static const std::vector<DateLexicon> kLexicons(kConventions.begin(), kConventions.end());
    std::string text(textOf(bytes, size));
    for (const DateLexicon& lexicon : kLexicons) checkReading(text.c_str(), lexicon);
    checkNumber(text.c_str());
    CString cleaned(text);
    cleanDateString(1033, cleaned);
    require(cleaned.size() == text.size() && cleaned.find(',') == cleaned.npos, "cleaned of commas");
    return 0;
}
