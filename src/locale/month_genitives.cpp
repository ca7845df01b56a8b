#include "locale/month_genitives.h"

#include <string_view>

namespace traiklofox::locale {

namespace {

constexpr GenitiveNames littleEndian(const std::u16string_view (&names)[12]) {
    GenitiveNames table{};
    for (int month = 0; month < 12; ++month) {
        int byte = 0;
        for (const char16_t unit : names[month]) {
            table.bytes[month][byte++] = static_cast<char>(unit & 0xff);
            table.bytes[month][byte++] = static_cast<char>(unit >> 8);
        }
    }
    return table;
}

}  // namespace

// clang-format off
constinit const GenitiveNames g_rgszPolishMonth2 = littleEndian({
    u"stycznia", u"lutego", u"marca", u"kwietnia", u"maja", u"czerwca",
    u"lipca", u"sierpnia", u"września", u"października", u"listopada", u"grudnia",
});

// The second one is spelled as stored data has it.
constinit const GenitiveNames g_rgszRussianMonth2 = littleEndian({
    u"января", u"феврапя", u"марта", u"апреля", u"мая", u"июня",
    u"июля", u"августа", u"сентября", u"октября", u"ноября", u"декабря",
});
// clang-format on

const char* genitiveOf(int month, LCID locale) {
    if (locale == kPolish) return g_rgszPolishMonth2.bytes[month - 1];
    if (locale == kRussian) return g_rgszRussianMonth2.bytes[month - 1];
    return nullptr;
}

}  // namespace traiklofox::locale
