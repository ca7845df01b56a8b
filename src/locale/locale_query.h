#pragma once

// Win32's locale queries, answered from the C library's data.

#include <traiklofox/locale.h>

#include <optional>
#include <string>

#include "locale/posix_locale.h"

namespace traiklofox::locale {

/// The categories (LC_TIME_MASK, ...) that the query needs; nothing for one that is not known.
std::optional<int> categoriesOf(LCTYPE query);

/// The answer to a query; nothing when it is not known, or the data do not have it. `data` must have the query's
/// categories.
std::optional<std::string> answerQuery(const PosixLocale& data, LCID locale, LCTYPE query);

}  // namespace traiklofox::locale
