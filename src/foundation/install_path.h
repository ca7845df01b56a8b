#pragma once

#include <traiklofox/strings.h>

namespace traiklofox::foundation {

/// The installation directory, with a slash at its end: TWHOME as it was when first asked for, or the default.
const CKZString& installPath();

}  // namespace traiklofox::foundation
