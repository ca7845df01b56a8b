#pragma once

// Where the registry's files are.

#include <traiklofox/strings.h>

namespace traiklofox::registry {

/// The installation directory, with a slash at its end: TWHOME as it was when first asked for, or the
/// default.
const CKZString& sRealInstallPath();

/// The path of the registry file; empty until it is set.
CKZString registryPath();

CKZString templatePath();
CKZString backupPath();
/// The directory of the registry file, with a slash at its end.
CKZString registryDirectory();

}  // namespace traiklofox::registry
