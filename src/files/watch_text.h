#pragma once

#include <traiklofox/change_notification.h>

namespace traiklofox::files {

/// A handle as it is shown: a line with the label, and a line with its state.
CKZString textOf(const ChangeNotificationHandle& handle, const char* label);

}  // namespace traiklofox::files
