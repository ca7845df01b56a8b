#include "locale/formatting.h"

#include <cstdio>

namespace traiklofox::locale {

CString formatFields(const char* format, const tm& fields) {
    constexpr size_t kLongest = 1 << 20;
    if (format == nullptr) return {};
    // With a blank behind it no text is empty, so that 0 means that the room was too small.
    const std::string withBlank = std::string(format) + " ";
    std::string text;
    for (const size_t room : {size_t{128}, size_t{8192}, kLongest + sizeof " "}) {
        text.resize(room);
        const size_t length = strftime(text.data(), room, withBlank.c_str(), &fields);
        if (length == 0) continue;
        text.resize(length - 1);
        return text;
    }
    return {};
}

CString formatSpan(const char* format, LONGLONG seconds) {
    CString text;
    if (format == nullptr) return text;
    const auto add = [&](const char* number, LONGLONG value) {
        char digits[32];
        std::snprintf(digits, sizeof digits, number, value);
        text += digits;
    };
    for (; *format != '\0'; ++format) {
        if (format[0] != '%' || format[1] == '\0') {
            text += *format;
            continue;
        }
        switch (*++format) {
            case 'D': add("%lld", seconds / 86400); break;
            case 'H': add("%02lld", seconds / 3600 % 24); break;
            case 'M': add("%02lld", seconds / 60 % 60); break;
            case 'S': add("%02lld", seconds % 60); break;
            case '%': text += '%'; break;
            default: text += '%'; text += *format;
        }
    }
    return text;
}

}  // namespace traiklofox::locale
