#pragma once

namespace traiklofox::registry {

/// Puts a whole copy of the registry file in the place of its backup; false, with the old backup kept, when that
/// fails. Under the exclusive cache lock.
bool copyToBackup();

}  // namespace traiklofox::registry
