#pragma once

#include <traiklofox/date_engine.h>

namespace traiklofox::locale {

/// `sarnu_VarDateFromStr` in a locale of these conventions.
HRESULT parseDate(const char* text, const tagDATEINFO& info, DWORD flags, double* value);

}  // namespace traiklofox::locale
