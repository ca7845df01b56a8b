#pragma once

#include <traiklofox/change_notification.h>

#include <memory>

#include "files/directory_data.h"

namespace traiklofox::files {

/// Scans a watched path for its handles, and for `extra` (may be null) where that is none of them.
void scanWatch(DirectoryWatch& watch, ChangeNotificationHandle* extra, bool (*deviceTest)(ULONGLONG device));

}  // namespace traiklofox::files
