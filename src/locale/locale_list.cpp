// locale_list.cpp: the locales that the library knows. Look-ups are by exact number.

#include "locale/locale_list.h"

#include <cstdlib>
#include <cstring>

namespace traiklofox::locale {

// Several rows have a bare language number; stored data name their locales by it.
constexpr LocaleRow DefaultLocalesArray[num_default_locales] = {
    {"English (Australian)", "en_AU", 3081},
    {"English (Canadian)", "en_CA", 4105},
    {"English (UK)", "en_UK", 2057},
    {"Czech", "cs_CZ", 5},
    {"Danish", "da_DK", 6},
    {"Dutch (Standard)", "nl_NL", 1043},
    {"Dutch (Belgian)", "nl_BE", 2067},
    {"Finnish", "fi_FI", 11},
    {"French (Belgian)", "fr_BE", 2060},
    {"French (Canadian)", "fr_CA", 3084},
    {"French (Standard)", "fr_FR", 1036},
    {"French (Swiss)", "fr_CH", 4108},
    {"German (Austrian)", "de_AT", 3079},
    {"German (Standard)", "de_DE", 1031},
    {"German (Swiss)", "de_CH", 2055},
    {"Hungarian", "hu_HU", 14},
    {"Icelandic", "is_IS", 15},
    {"Italian (Standard)", "it_IT", 1040},
    {"Italian (Swiss)", "it_CH", 2064},
    {"Norwegian (Bokmal)", "no_NO", 1044},
    {"Norwegian (Nynorsk)", "no_NO@nynorsk", 2068},
    {"Polish", "pl_PL", 21},
    {"Portuguese (Brazilian)", "pt_BR", 1046},
    {"Portuguese (Standard)", "pt_PT", 2070},
    {"Slovak", "sk_SK", 27},
    {"Spanish (Mexican)", "es_MX", 2058},
    {"Spanish (Modern)", "es_ES", 3082},
    {"Spanish (Standard)", "es_ES", 1034},
    {"Swedish", "sv_SE", 1053},
    {"Turkish", "tr_TR", 31},
};

const LocaleRow* findLocaleRow(LCID locale) {
    for (const LocaleRow& row : DefaultLocalesArray)
        if (row.lcid == locale) return &row;
    return nullptr;
}

}  // namespace traiklofox::locale

using namespace traiklofox::locale;

void getLocaleList(const LocaleRow** list, int* count) {
    *list = DefaultLocalesArray;
    *count = num_default_locales;
}

char* snGetLocaleFromLCID(LCID locale) {
    const LocaleRow* row = findLocaleRow(locale);
    return row != nullptr ? snCopyStr(row->posixName) : nullptr;
}

char* snCopyStr(const char* text) {
    return text != nullptr ? strdup(text) : nullptr;
}

LCID GetSystemDefaultLCID() {
    return 1033;
}

LCID MNLS_GetUserDefaultLCID() {
    return 1033;
}
