#pragma once

// Dates as text.

#include <traiklofox/date_engine.h>

#include "locale/text_out.h"

namespace traiklofox::locale {

// Both of these render to a `TextLength` or to a `TextOut`.

/// Renders the date after a picture: "/" is the date separator; "M" or "m" the month and "d" the day, one to four of
/// them the number, the number of two digits, the short name, the long name; "yyyy" the year, "yy" its last two digits
/// if it is one of 1900 to 1999; text between "'" is literal, and so is all else. A month or weekday that there is not
/// has the empty name.
template <class Out>
void RenderDate(const tagUDS& date, const char* picture, Out& out, const tagDATEINFO& info);

/// Renders hour, minute and second with ":" between them, whatever the locale's separator, and the designator.
template <class Out>
void RenderTime(const tagUDS& time, Out& out, const tagDATEINFO& info);

extern template void RenderDate(const tagUDS&, const char*, TextLength&, const tagDATEINFO&);
extern template void RenderDate(const tagUDS&, const char*, TextOut&, const tagDATEINFO&);
extern template void RenderTime(const tagUDS&, TextLength&, const tagDATEINFO&);
extern template void RenderTime(const tagUDS&, TextOut&, const tagDATEINFO&);

/// `sarnu_VarBstrFromDate` in a locale of these conventions: a text to be freed with `free`, or null.
char* renderValue(double value, const tagDATEINFO& info, DWORD flags);

}  // namespace traiklofox::locale
