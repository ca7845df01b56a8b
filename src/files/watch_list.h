#pragma once

#include <traiklofox/change_notification.h>

#include <memory>
#include <vector>

#include "files/directory_data.h"
#include "files/handle_ref.h"

namespace traiklofox::files {

/// A handle that the scanner has, and the path that it is watched for.
struct WatchedHandle {
    HandleRef<ChangeNotificationHandle> handle;
    std::shared_ptr<DirectoryWatch> watch;
};

/// Gives the scanner a handle, with a reference; handles of one watch stand together. Nothing if it has it.
void listHandle(ChangeNotificationHandle& handle, const std::shared_ptr<DirectoryWatch>& watch);
/// Takes a handle, which may be any pointer, from the scanner; returns the reference, or none if it did not have it.
HandleRef<ChangeNotificationHandle> unlistHandle(const Handle* handle);
/// The handles at this moment, each with a reference.
std::vector<WatchedHandle> listedHandles();

}  // namespace traiklofox::files
