// date_text.cpp: the date engine's small operations on text.

#include "locale/date_text.h"

#include <traiklofox/date_engine.h>

#include <algorithm>

#include "locale/date_info.h"

using namespace traiklofox::locale;

int StringCompare(LCID /*locale*/, DWORD /*flags*/, const char* first, int firstLength, const char* second,
                  int secondLength) {
    const int length = std::max(0, std::min(firstLength, secondLength));
    const int order = strncasecmp(first, second, static_cast<size_t>(length));
    return order < 0 ? 1 : order == 0 ? 2 : 3;
}

HRESULT IntOfString(LCID locale, const char* text, int* value) {
    const tagDATEINFO& info = getDateInfo(locale);
    while (isSpace(info, *text)) ++text;
    const bool isNegative = *text == '-';
    if (*text == '+' || *text == '-') ++text;
    unsigned number = 0;
    for (; isDigit(info, *text); ++text) number = number * 10 + static_cast<unsigned>(*text - '0');
    while (isSpace(info, *text)) ++text;
    if (*text != '\0') return E_INVALIDARG;
    *value = static_cast<int>(isNegative ? 0 - number : number);
    return S_OK;
}

int IsPrefix(const char* text, int length, const char* prefix, LCID /*locale*/) {
    const size_t prefixLength = std::strlen(prefix);
    if (prefixLength == 0 || length < 0 || prefixLength > static_cast<size_t>(length)) return 0;
    return equalBytes(text, prefix, prefixLength) ? static_cast<int>(prefixLength) : 0;
}

void cleanDateString(LCID locale, CString& text) {
    const tagDATEINFO& info = getDateInfo(locale);
    if (std::strcmp(info.dateSeparator, ",") == 0 || std::strcmp(info.timeSeparator, ",") == 0) return;
    std::ranges::replace(text, ',', ' ');
}
