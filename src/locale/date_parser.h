#pragma once

#include <traiklofox/date_engine.h>

#include "locale/date_lexicon.h"

namespace traiklofox::locale {

/// `sarnu_VarDateFromStr` in a locale of these conventions.
HRESULT parseDate(const char* text, const DateLexicon& lexicon, DWORD flags, double* value);

}  // namespace traiklofox::locale
