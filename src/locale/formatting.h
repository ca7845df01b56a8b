#pragma once

// The formats of the date and time classes.

#include <time.h>
#include <traiklofox/strings.h>

namespace traiklofox::locale {

/// What `strftime` makes of the fields, however long up to 1 MiB; empty for a null format.
CString formatFields(const char* format, const tm& fields);

/// The parts of a span for `%D`, `%H`, `%M`, `%S`.
CString formatSpan(const char* format, LONGLONG seconds);

}  // namespace traiklofox::locale
