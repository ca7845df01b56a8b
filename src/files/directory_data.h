#pragma once

// What the last scans have found in the watched directories, and who hears of changes.

#include <traiklofox/change_notification.h>

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "files/ranked_rwlock.h"

namespace traiklofox::files {

/// A file as it was last seen.
struct FILE_ENTRY {
    std::string name;
    long long mtimeSeconds = 0;
    unsigned int mtimeNanoseconds = 0;
    unsigned long long size = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    unsigned int mode = 0;  // for a link, of its target
    bool isLink = false;
    DWORD seenInScan = 0;
    FILE_ENTRY* next = nullptr;  // the one that the last scan met after it
};

/// A directory as it was last seen. Its files are found by what the last scan met next, which spares an unchanged
/// directory the search, or by name.
struct DIR_ENTRY {
    static constexpr DWORD kNew = 1;             // not yet scanned whole
    static constexpr DWORD kDeviceReported = 4;  // its device's failure is reported already

    DWORD flags = kNew;
    DWORD scan = 0;        // number of the last one
    DWORD seenInScan = 0;  // of its parent
    DWORD missing = 0;     // whole scans of its parent since then
    long long mtimeSeconds = 0;
    std::unordered_map<std::string_view, std::unique_ptr<FILE_ENTRY>> files;
    FILE_ENTRY* first = nullptr;
    std::map<std::string, std::unique_ptr<DIR_ENTRY>, std::less<>> subdirectories;
};

/// Marks the entry for a scan that takes what it finds for granted.
inline void Invalidate_Dir_Entry(DIR_ENTRY& entry) {
    entry.flags |= DIR_ENTRY::kNew;
}

/// A watched path. A scan holds the lock from its first file to its last; so whoever takes a handle out of `handles`
/// waits for the scan's end.
class DirectoryWatch {
  public:
    DirectoryWatch(std::string_view watchedPath, const void* madeFor)
        : path(watchedPath), home(madeFor), lock("Directory entry") {}

    const CKZString path;
    const void* const home;  // the Dir_Data that it belongs to
    RankedRWLock<foundation::LockRank::DirectoryEntry> lock;
    DIR_ENTRY entry TRAIKLOFOX_GUARDED_BY(lock);
    // Those that are open, whether the scanner has them or they wait for their next `ReadDirectoryChanges`.
    std::vector<ChangeNotificationHandle*> handles TRAIKLOFOX_GUARDED_BY(lock);

    size_t users = 0;       // handles, and those about to be among them: guarded by the lock of Dir_Data
    bool isPinned = false;  // kept without any: likewise
};

/// The path's watch; one that has no handles stays.
std::shared_ptr<DirectoryWatch> pinnedWatch(const CKZString& path);
/// Makes the handle one of the path's, unless it is another path's already; returns its watch.
std::shared_ptr<DirectoryWatch> joinWatch(const CKZString& path, ChangeNotificationHandle& handle);
/// The handle hears of nothing any more; with the last of a path's handles, what is known of the path is forgotten.
void leaveWatch(ChangeNotificationHandle& handle);
/// Waits until no scan of the handle's path runs.
void awaitScan(ChangeNotificationHandle& handle);

std::vector<std::shared_ptr<DirectoryWatch>> allWatches();

}  // namespace traiklofox::files
