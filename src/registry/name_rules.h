#pragma once

// What the registry file can hold. Anything else would damage the entries around it, and is refused before it
// gets into the tree, with a line on standard error that says why.

#include <traiklofox/strings.h>

#include "registry/reg_value.h"

namespace traiklofox::registry {

/// True when a key of that full name can be written. `function` names the caller in the message.
bool keyCanBeWritten(const char* function, std::string_view fullName);

/// True when the value can be written, or never will be because of its type.
bool valueCanBeWritten(const char* function, const RegValue& value);

}  // namespace traiklofox::registry
