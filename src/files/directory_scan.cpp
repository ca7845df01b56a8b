// directory_scan.cpp: one pass over a watched directory: what is there is compared with what was there.
//
// The pass is what a server with 100,000 files pays every few seconds. So a known file costs its `readdir` and one
// `statx` by its name alone, and is found where the last pass met it; paths are put together for directories and for
// what is reported.

#include "files/directory_scan.h"

#include <traiklofox/settings.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "files/file_attributes.h"
#include "files/file_status.h"
#include "files/file_time.h"
#include "files/notification_state.h"
#include "foundation/mutex.h"
#include "foundation/on_exit.h"
#include "foundation/sys.h"

constinit std::atomic<bool> bFileShutdownRequested{false};
constinit std::atomic<LONG> amInUnixDirScan{0};

namespace traiklofox::files {

using foundation::LockGuard;

namespace {

constexpr std::string_view kMarkerPrefix = ".KZ";
constexpr long long kYoungMarkerSeconds = 10800;
constexpr DWORD kForgetAfterScans = 1000;  // of a subdirectory that stays away

struct DirectoryCloser {
    void operator()(DIR* directory) const { (void)sys::closedir(directory); }  // nothing was written
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

/// A directory on the way down to the one that is read, by which a loop of links is known.
struct Ancestor {
    const Ancestor* above;
    FileId id;

    bool isAmong(const Ancestor* ancestors) const {
        for (; ancestors != nullptr; ancestors = ancestors->above)
            if (ancestors->id == id) return true;
        return false;
    }
};

/// Somebody who hears of changes, and of which.
struct Listener {
    NotificationState* state;
    DWORD filter;
    bool wantsSubtree;
};

/// What of a file differs, as filter bits.
DWORD differences(const FILE_ENTRY& file, const struct statx& status) {
    DWORD different = 0;
    if (file.mtimeSeconds != status.stx_mtime.tv_sec || file.mtimeNanoseconds != status.stx_mtime.tv_nsec)
        different |= FILE_NOTIFY_CHANGE_LAST_WRITE;
    if (file.size != status.stx_size) different |= FILE_NOTIFY_CHANGE_SIZE;
    if (file.mode != status.stx_mode || file.uid != status.stx_uid || file.gid != status.stx_gid)
        different |= FILE_NOTIFY_CHANGE_ATTRIBUTES;
    return different;
}

void update(FILE_ENTRY& file, const struct statx& status) {
    file.mtimeSeconds = status.stx_mtime.tv_sec;
    file.mtimeNanoseconds = status.stx_mtime.tv_nsec;
    file.size = status.stx_size;
    file.mode = status.stx_mode;
    file.uid = status.stx_uid;
    file.gid = status.stx_gid;
}

bool isDots(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

/// Neither a file, nor a directory, nor a link: nothing that a scan is about.
bool isOther(unsigned char type) {
    return type == DT_FIFO || type == DT_SOCK || type == DT_CHR || type == DT_BLK;
}

class Scan {
  public:
    Scan(DirectoryWatch& watch, ChangeNotificationHandle* extra)
        : watch_(watch), extra_(extra), path_(watch.path) {
        if (!path_.ends_with('/')) path_ += '/';
        rootLength_ = path_.size();
    }

    void run(bool (*deviceTest)(ULONGLONG device)) {
        Directory directory(sys::opendir(path_.c_str()));
        struct statx status;
        if (directory == nullptr || sys::fstat(::dirfd(directory.get()), &status) != 0) return;
        const bool isTrusted = deviceTest == nullptr || deviceTest(deviceOf(status));
        const LockGuard guard(watch_.lock);
        findListeners();
        noteDevice(isTrusted, status);
        const Ancestor root{nullptr, idOf(status)};
        watch_.entry.mtimeSeconds = status.stx_mtime.tv_sec;
        readDirectory(std::move(directory), watch_.entry, root);
    }

  private:
    void findListeners() TRAIKLOFOX_REQUIRES(watch_.lock) {
        const auto add = [this](ChangeNotificationHandle& handle) {
            NotificationState& state = NotificationState::of(handle);
            const LockGuard guard(state);
            listeners_.push_back({&state, state.filter, state.watchSubtree != 0});
        };
        for (ChangeNotificationHandle* handle : watch_.handles) add(*handle);
        if (extra_ != nullptr && std::ranges::find(watch_.handles, extra_) == watch_.handles.end())
            add(*extra_);
        wantsSubtree_ = std::ranges::any_of(listeners_, &Listener::wantsSubtree);
    }

    void noteDevice(bool isTrusted, const struct statx& status) TRAIKLOFOX_REQUIRES(watch_.lock) {
        DIR_ENTRY& entry = watch_.entry;
        if (isTrusted) {
            entry.flags &= ~DIR_ENTRY::kDeviceReported;
            return;
        }
        if ((entry.flags & DIR_ENTRY::kDeviceReported) != 0) return;
        const _NOTIFY_INFO record{.action = FILE_ACTION_DIRECTORY_CHANGED,
                                  .name = {},
                                  .time = fileTimeOf(status.stx_mtime.tv_sec),
                                  .attributes = FILE_ATTRIBUTE_DIRECTORY,
                                  .size = 0};
        for (const Listener& listener : listeners_) {
            const LockGuard guard(*listener.state);
            listener.state->changed = 1;
            listener.state->report(record, watch_.path);
        }
        entry.flags |= DIR_ENTRY::kDeviceReported;
        Invalidate_Dir_Entry(entry);  // all is said: no record for each file
    }

    /// Reads one directory and then, if somebody wants them, those below. The stream is closed in between, so that
    /// depth costs no descriptors.
    void scanBelow(DIR_ENTRY& entry, const Ancestor& above) {
        for (auto& [name, subdirectory] : entry.subdirectories) {
            if (subdirectory->missing > 0 || bFileShutdownRequested) continue;
            const size_t length = path_.size();
            path_.append(name).push_back('/');
            ++depth_;
            const auto back = foundation::onExit([&] {
                path_.resize(length);
                --depth_;
            });
            Directory directory(sys::opendir(path_.c_str()));
            struct statx status;
            if (directory == nullptr || sys::fstat(::dirfd(directory.get()), &status) != 0) continue;
            const Ancestor here{&above, idOf(status)};
            if (here.isAmong(&above)) continue;
            subdirectory->mtimeSeconds = status.stx_mtime.tv_sec;
            readDirectory(std::move(directory), *subdirectory, here);
        }
    }

    void readDirectory(Directory directory, DIR_ENTRY& entry, const Ancestor& here) {
        Reading reading{entry, ::dirfd(directory.get())};
        ++entry.scan;
        for (;;) {
            errno = 0;
            const dirent* found = bFileShutdownRequested ? nullptr : sys::readdir(directory.get());
            if (found == nullptr) break;
            if (!isDots(found->d_name)) meet(reading, *found);
        }
        const bool isWhole = errno == 0 && !bFileShutdownRequested;
        if (isWhole) {
            Purge_Dir_Entry(reading);
            entry.flags &= ~DIR_ENTRY::kNew;
        }
        directory.reset();
        if (wantsSubtree_) scanBelow(entry, here);
    }

    /// One directory being read.
    struct Reading {
        DIR_ENTRY& entry;
        int fd;
        FILE_ENTRY** link = &entry.first;    // where the file that is met next is hooked in
        FILE_ENTRY* expected = entry.first;  // the one that the last scan met here
        size_t filesSeen = 0;
        size_t subdirectoriesSeen = 0;
    };

    void meet(Reading& reading, const dirent& found) {
        const std::string_view name = found.d_name;
        const bool isMarker = bRunningInServer && name.starts_with(kMarkerPrefix);
        if (!isMarker && isOther(found.d_type)) return;
        if (!isMarker && found.d_type == DT_DIR) {
            meetDirectory(reading, name);
            return;
        }
        struct statx status {};
        if (sys::statx(reading.fd, found.d_name, AT_SYMLINK_NOFOLLOW, &status) != 0) {
            meetUnreadable(reading, name);
            return;
        }
        if (isMarker) {
            noteMarker(status);
            return;
        }
        const bool isLink = S_ISLNK(status.stx_mode);
        if (isLink && sys::statx(reading.fd, found.d_name, /*flags=*/0, &status) != 0) {
            meetUnreadable(reading, name);
            return;
        }
        if (S_ISDIR(status.stx_mode))
            meetDirectory(reading, name);
        else if (S_ISREG(status.stx_mode))
            meetFile(reading, name, isLink, status);
    }

    void meetDirectory(Reading& reading, std::string_view name) {
        if (!wantsSubtree_) return;
        auto& known = reading.entry.subdirectories;
        auto place = known.find(name);
        if (place == known.end()) place = known.emplace(name, std::make_unique<DIR_ENTRY>()).first;
        place->second->seenInScan = reading.entry.scan;
    }

    /// The file that the entry has under this name, or null.
    static FILE_ENTRY* findFile(const Reading& reading, std::string_view name) {
        if (reading.expected != nullptr && reading.expected->name == name) return reading.expected;
        const auto found = reading.entry.files.find(name);
        return found != reading.entry.files.end() ? found->second.get() : nullptr;
    }

    /// Notes the file as met; false when it was met before.
    static bool noteSeen(Reading& reading, FILE_ENTRY& file) {
        if (file.seenInScan == reading.entry.scan) return false;
        file.seenInScan = reading.entry.scan;
        reading.expected = file.next;
        *reading.link = &file;
        reading.link = &file.next;
        ++reading.filesSeen;
        return true;
    }

    /// A name that is there, and of which nothing can be learnt now, has not changed.
    static void meetUnreadable(Reading& reading, std::string_view name) {
        if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP) return;
        if (FILE_ENTRY* file = findFile(reading, name)) (void)noteSeen(reading, *file);  // once is enough
    }

    void noteMarker(const struct statx& status) {
        if (sys::wallSeconds() - status.stx_mtime.tv_sec > kYoungMarkerSeconds) return;
        for (const Listener& listener : listeners_) {
            if (!hears(listener)) continue;
            const LockGuard guard(*listener.state);
            listener.state->changed = 1;
        }
    }

    void meetFile(Reading& reading, std::string_view name, bool isLink, const struct statx& status) {
        FILE_ENTRY* file = findFile(reading, name);
        if (file == nullptr) {
            addFile(reading, name, isLink, status);
            return;
        }
        if (!noteSeen(reading, *file)) return;
        if (file->isLink != isLink) {  // another file by the same name
            report(FILE_ACTION_REMOVED, *file, kAnyFilter);
            update(*file, status);
            file->isLink = isLink;
            report(FILE_ACTION_ADDED, *file, kAnyFilter);
            return;
        }
        const DWORD different = differences(*file, status);
        if (different == 0) [[likely]]
            return;
        const bool isWanted = std::ranges::any_of(listeners_, [&](const Listener& listener) {
            return hears(listener) && (listener.filter & different) != 0;
        });
        if (!isWanted) return;
        update(*file, status);
        auto again =
            foundation::onExit([&] { file->size = kNoSize; });  // for want of memory: by the next scan
        report(FILE_ACTION_MODIFIED, *file, different, (reading.entry.flags & DIR_ENTRY::kNew) != 0);
        again.dismiss();
    }

    void addFile(Reading& reading, std::string_view name, bool isLink, const struct statx& status) {
        auto made = std::make_unique<FILE_ENTRY>();
        FILE_ENTRY& file = *made;
        file.name = name;
        file.isLink = isLink;
        update(file, status);
        report(FILE_ACTION_ADDED, file, kAnyFilter);
        reading.entry.files.emplace(file.name, std::move(made));
        FILE_ENTRY* const expected = reading.expected;
        (void)noteSeen(reading, file);  // it is new
        reading.expected = expected;
    }

    /// Forgets and reports the files that were not met. Called for a directory that was read to its end.
    void Purge_Dir_Entry(Reading& reading) {
        *reading.link = nullptr;
        DIR_ENTRY& entry = reading.entry;
        if (reading.filesSeen < entry.files.size()) {
            std::erase_if(entry.files, [&](const auto& known) {
                if (known.second->seenInScan == entry.scan) return false;
                report(FILE_ACTION_REMOVED, *known.second, kAnyFilter);
                return true;
            });
        }
        if (!wantsSubtree_) return;
        std::erase_if(entry.subdirectories, [&](const auto& known) {
            DIR_ENTRY& subdirectory = *known.second;
            subdirectory.missing = subdirectory.seenInScan == entry.scan ? 0 : subdirectory.missing + 1;
            return subdirectory.missing > kForgetAfterScans;
        });
    }

    static constexpr DWORD kAnyFilter = 0;
    static constexpr unsigned long long kNoSize = ~0ULL;

    bool hears(const Listener& listener) const { return depth_ == 0 || listener.wantsSubtree; }

    /// `different`: what of it concerns only those whose filter asks for it. `quietly`: pending, without a record.
    void report(DWORD action, const FILE_ENTRY& file, DWORD different, bool quietly = false) {
        const _NOTIFY_INFO record{.action = action,
                                  .name = std::string(path_, rootLength_) + file.name,
                                  .time = fileTimeOf(file.mtimeSeconds),
                                  .attributes = typeAttributeOf(file.mode),
                                  .size = static_cast<DWORD>(file.size)};
        const std::string_view directory =
            depth_ == 0 ? std::string_view(watch_.path) : std::string_view(path_).substr(0, path_.size() - 1);
        for (const Listener& listener : listeners_) {
            if (!hears(listener)) continue;
            if (different != kAnyFilter && (listener.filter & different) == 0) continue;
            if (quietly)
                listener.state->notePending(directory);
            else
                listener.state->report(record, directory);
        }
    }

    DirectoryWatch& watch_;
    ChangeNotificationHandle* const extra_;
    std::string path_;  // of the directory that is being read, with a slash at its end
    size_t rootLength_ = 0;
    int depth_ = 0;
    std::vector<Listener> listeners_;
    bool wantsSubtree_ = false;
};

}  // namespace

namespace {

constinit thread_local LONG scansOfThread = 0;

/// Counts one in `amInUnixDirScan`. The child of a fork has the scans of the thread that forked.
class ScanCount {
  public:
    ScanCount() {
        static const int registered =
            pthread_atfork(nullptr, nullptr, [] { amInUnixDirScan = scansOfThread; });
        (void)registered;  // without memory for it, a child may think that its parent's scans are its own
        ++scansOfThread;
        ++amInUnixDirScan;
    }
    ~ScanCount() {
        --amInUnixDirScan;
        --scansOfThread;
    }
    ScanCount(const ScanCount&) = delete;
    ScanCount& operator=(const ScanCount&) = delete;
};

}  // namespace

void scanWatch(DirectoryWatch& watch, ChangeNotificationHandle* extra, bool (*deviceTest)(ULONGLONG device)) {
    const ScanCount counted;
    Scan(watch, extra).run(deviceTest);
}

}  // namespace traiklofox::files

void UnixDirScan(const CKZString& directory, ChangeNotificationHandle* handle,
                 bool (*deviceTest)(ULONGLONG device)) {
    traiklofox::files::scanWatch(*traiklofox::files::pinnedWatch(directory), handle, deviceTest);
}

bool InUnixDirScan() {
    return amInUnixDirScan.load() > 0;
}
