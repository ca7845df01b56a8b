#pragma once

// A value's data between its text form, which the tree and the file hold, and the bytes that callers know.

#include <traiklofox/registry.h>

#include "registry/reg_value.h"

namespace traiklofox::registry {

/// Makes the text of raw bytes. False for null data where there must be some.
bool formDataText(DWORD type, const BYTE* data, DWORD size, CKZString& text);

/// The size in bytes of a REG_MULTI_SZ buffer that ends in an empty text; 0 for null data and other types.
DWORD multiStringSize(DWORD type, const BYTE* data);

/// Copies a value's data out as RegQueryValueEx does; the results are its own.
LONG copyOutQueried(const RegValue& value, LPBYTE data, LPDWORD size);

/// The same as RegEnumValue does: the size of a text is never stored, and types other than the three fail.
LONG copyOutEnumerated(const RegValue& value, LPBYTE data, LPDWORD size);

}  // namespace traiklofox::registry
