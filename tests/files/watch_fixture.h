#pragma once

// What the tests of watched directories share: passes of the scanner without its pauses, and the changes as a caller
// reads them from his buffer.

#include <traiklofox/change_notification.h>
#include <traiklofox/completion_ports.h>
#include <traiklofox/events.h>
#include <traiklofox/wait.h>

#include <algorithm>
#include <memory>
#include <ostream>

#include "files/file_fixture.h"

namespace traiklofox::test {

inline ChangeNotificationHandle& directoryOf(const OwnedHandle& handle) {
    return static_cast<ChangeNotificationHandle&>(*handle);
}

inline int stopsLeft = 0;
inline DWORD lastSleep = 0;

/// Runs the scanner on this thread for so many passes.
inline void pass(int passes = 1, bool (*deviceTest)(ULONGLONG) = nullptr) {
    stopsLeft = passes;
    WatchDirsCallbacks callbacks{.sleep = [](DWORD milliseconds) { lastSleep = milliseconds; },
                                 .stop = [] { return stopsLeft-- == 0; },
                                 .onExit = [] { return DWORD{7}; },
                                 .deviceTest = deviceTest};
    ASSERT_EQ(WatchDirsThread(&callbacks), 7U);
}

struct Change {
    DWORD action;
    std::string name;
    auto operator<=>(const Change&) const = default;
};
inline std::ostream& operator<<(std::ostream& out, const Change& change) {
    return out << change.action << " " << change.name;
}
using Changes = std::vector<Change>;

/// The records in a buffer; reports a test failure where they are not as they should be.
inline Changes changesIn(const void* buffer, DWORD bytes) {
    Changes changes;
    const char* at = static_cast<const char*>(buffer);
    for (DWORD offset = 0; offset < bytes;) {
        _FILE_NOTIFY_INFORMATION fields{};
        std::memcpy(&fields, at + offset, offsetof(_FILE_NOTIFY_INFORMATION, FileName));
        const DWORD size = (fields.FileNameLength + 48 + 3) / 4 * 4;
        EXPECT_EQ(fields.NextEntryOffset, offset + size < bytes ? size : 0U);
        EXPECT_LE(offset + size, bytes);
        EXPECT_EQ(fields.FileAttributes, fields.Action == FILE_ACTION_DIRECTORY_CHANGED ? 0x100U : 0x80U);
        changes.push_back({fields.Action, std::string(at + offset + 44, fields.FileNameLength)});
        offset += size;
    }
    return changes;
}

constexpr DWORD kAllFilters =
    FILE_NOTIFY_CHANGE_ATTRIBUTES | FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE;

/// A handle that nobody watches yet.
inline OwnedHandle unwatched(const std::string& path = "/nowhere") {
    return OwnedHandle(new ChangeNotificationHandle(path.c_str(), /*watchSubtree=*/FALSE, /*filter=*/0));
}

inline BOOL ask(const OwnedHandle& handle, DWORD filter = kAllFilters, BOOL subtree = FALSE) {
    return ReadDirectoryChanges(handle.get(), /*buffer=*/nullptr, /*size=*/0, subtree, filter, nullptr,
                                nullptr, nullptr);
}

inline DWORD stateOf(const OwnedHandle& handle) {
    return WaitForSingleObject(handle.get(), /*milliseconds=*/0);
}

/// A handle that asks for changes into a buffer of the library's own.
inline OwnedHandle watching(const std::string& path, DWORD filter = kAllFilters, BOOL subtree = FALSE) {
    OwnedHandle handle(new ChangeNotificationHandle(path.c_str(), subtree, filter));
    EXPECT_TRUE(ask(handle, filter, subtree));
    return handle;
}

/// What has been reported, sorted by name; then the handle asks again.
inline Changes takeChanges(const OwnedHandle& handle) {
    auto& directory = directoryOf(handle);
    DWORD bytes = 0;
    if (!GetOverlappedResult(handle.get(), nullptr, &bytes, /*wait=*/FALSE)) {
        EXPECT_EQ(errno, EINPROGRESS);
        return {};
    }
    Changes changes = changesIn(directory.GetBuffer(), bytes);
    std::ranges::stable_sort(changes, {}, &Change::name);
    EXPECT_TRUE(ask(handle, directory.GetFilter(), directory.GetWatchSubtree()));
    return changes;
}

inline Changes passAndTake(const OwnedHandle& handle) {
    pass();
    return takeChanges(handle);
}

/// Gives a file a time of last write of its own.
inline void touch(const std::string& path) {
    static time_t next = 1'000'000'000;
    const timespec times[2] = {{++next, 0}, {next, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

}  // namespace traiklofox::test
