// Locks, mappings, temporary names, searches and copies, beside a watched directory in which files come and go.

#include <fcntl.h>
#include <traiklofox/change_notification.h>
#include <traiklofox/clocks.h>
#include <traiklofox/completion_ports.h>
#include <traiklofox/copy_file.h>
#include <traiklofox/file_lock.h>
#include <traiklofox/file_mapping.h>
#include <traiklofox/file_search.h>
#include <traiklofox/temp_name.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <thread>

#include "soak/life.h"
#include "soak/registry_state.h"
#include "soak/workers.h"
#include "support/owned_handle.h"
#include "support/temp_dir.h"

namespace traiklofox::soak {
namespace {

using namespace std::chrono_literals;
using test::OwnedHandle;
namespace fs = std::filesystem;

constexpr DWORD kBoundMs = 40'000;
constexpr int kSearched = 10;
constexpr size_t kCopied = 64 * 1024;

/// Each process's own place, made anew.
std::string makeOwnDirectory(size_t slot) {
    const std::string path = runDirectory() + "/files" + std::to_string(slot);
    fs::remove_all(path);
    fs::create_directories(path + "/watched");
    for (int i = 0; i < kSearched; ++i) test::writeText(path + "/found" + std::to_string(i) + ".dat", "");
    test::writeText(path + "/original", std::string(kCopied, 'o'));
    return path;
}

/// A number that is read, and a moment later written, under the lock alone.
void countUnderLock(Life& life) {
    Journal& journal = ownSlot().locks;
    ++journal.asked;
    FileLock file;
    const std::string path = runDirectory() + "/lock";
    const bool locked = timed(
        Op::FileLock, [&] { return file.OpenAndLockFile(path.c_str(), FileLock::in, nullptr, 0) != 0; });
    const std::uint32_t next = board().guarded + 1;
    if (life.random.below(2) == 0) std::this_thread::sleep_for(50us);
    board().guarded = next;
    std::this_thread::yield();
    check(LocksExclude, locked && board().guarded == next, "somebody else changed it under the lock");
    check(LocksExclude, file.CloseAndUnLockFile(), "not unlocked");
    ++journal.acknowledged;
}

void countInMapping() {
    Journal& journal = ownSlot().mapping;
    ++journal.asked;
    const bool changed = timed(Op::Mapping, [] {
        const OwnedHandle mapping(
            CreateFileMapping(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(Count), kMapping));
        auto* counter = static_cast<Count*>(MapViewOfFile(mapping.get(), FILE_MAP_ALL_ACCESS, 0, 0, 0));
        ++*counter;
        return UnmapViewOfFile(counter) != 0;
    });
    check(MappingsShared, changed, "not unmapped");
    ++journal.acknowledged;
}

/// In the directory of all, so that others could have the same name.
void makeTemporaryFiles() {
    const std::string directory = runDirectory() + "/temporary";
    (void)timed(Op::TemporaryName, [&] {
        const CKZString name = KZTempNam(directory.c_str());
        const int fd = ::open(name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
        check(NamesUnique, fd >= 0, "%s: %s", name.c_str(), std::strerror(errno));
        ::close(fd);
        char made[MAX_PATH];
        const UINT number = GetTempFileName(directory.c_str(), "skt", 0, made);
        check(NamesUnique, number != 0, "GetTempFileName: %s", std::strerror(errno));
        return ::unlink(name.c_str()) == 0 && ::unlink(made) == 0;
    });
}

void searchFor(const std::string& pattern) {
    (void)timed(Op::Search, [&] {
        _WIN32_FIND_DATA data;
        Handle* search = FindFirstFile(pattern.c_str(), &data);
        int found = search != INVALID_HANDLE_VALUE ? 1 : 0;
        while (found != 0 && FindNextFile(search, &data)) ++found;
        (void)FindClose(search);
        check(SearchesFind, found == kSearched, "%d of %d files", found, kSearched);
        return true;
    });
}

/// To the disk that runs full at times.
void copy(const std::string& original, size_t slot) {
    const std::string to = homeDirectory() + "/copy" + std::to_string(slot);
    if (timed(Op::Copy, [&] { return CopyFile(original.c_str(), to.c_str(), /*failIfExists=*/0) != 0; }))
        check(CopiesWhole, fs::file_size(to) == kCopied, "%zu bytes", static_cast<size_t>(fs::file_size(to)));
    ::unlink(to.c_str());
}

std::atomic<bool> scannerStops{false};

/// A directory that is watched through a completion port.
class Watched {
  public:
    explicit Watched(const std::string& path)
        : path_(path),
          port_(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0)),
          directory_(new ChangeNotificationHandle(path.c_str(), FALSE, FILE_NOTIFY_CHANGE_SIZE)) {
        check(FilesReported, CreateIoCompletionPort(directory_.get(), port_.get(), 1, 0) != nullptr,
              "no port");
        ask();
        scanner_.reset(CreateThread(nullptr, 0, WatchDirsThread, &callbacks, 0, nullptr));
    }
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;
    ~Watched() {
        scannerStops = true;
        check(NobodyBlocks, WaitForSingleObject(scanner_.get(), kBoundMs) == WAIT_OBJECT_0, "the scanner");
    }

    /// Files that come whole, grow, and go again: each is told once.
    void dropAndRemove(int round) {
        constexpr int kFiles = 4;
        const auto nameOf = [&](int i) { return std::to_string(round) + "-" + std::to_string(i); };
        const auto start = Clock::now();
        for (int i = 0; i < kFiles; ++i) {
            test::writeText(path_ + "/../dropped", "");
            fs::rename(path_ + "/../dropped", path_ + "/" + nameOf(i));
        }
        awaitEach(FILE_ACTION_ADDED, kFiles, nameOf);
        note(Op::DroppedFile, Clock::now() - start);
        for (int i = 0; i < kFiles; ++i) fs::resize_file(path_ + "/" + nameOf(i), 100);
        awaitEach(FILE_ACTION_MODIFIED, kFiles, nameOf);
        for (int i = 0; i < kFiles; ++i) fs::remove(path_ + "/" + nameOf(i));
        awaitEach(FILE_ACTION_REMOVED, kFiles, nameOf);
    }

  private:
    static inline WatchDirsCallbacks callbacks{
        .sleep = [](DWORD) { Sleep(5); },  // whatever the clock makes of it
        .stop = [] { return scannerStops.load(); },
        .onExit = nullptr,
        .deviceTest = nullptr};

    void ask() {
        check(FilesReported,
              ReadDirectoryChanges(directory_.get(), nullptr, 0, FALSE, FILE_NOTIFY_CHANGE_SIZE, nullptr,
                                   nullptr, nullptr),
              "not asked");
    }

    template <class NameOf>
    void awaitEach(DWORD action, int count, NameOf nameOf) {
        std::map<std::string, int> told;
        for (int i = 0; i < count; ++i) told[nameOf(i)] = 0;
        int left = count;
        while (left > 0) {
            DWORD bytes = 0;
            if (!GetQueuedCompletionStatus(port_.get(), &bytes, nullptr, nullptr, kBoundMs)) break;
            const char* next = static_cast<const char*>(directory_->GetBuffer());
            for (DWORD offset = 0; bytes != 0;) {
                _FILE_NOTIFY_INFORMATION record;
                std::memcpy(&record, next + offset, offsetof(_FILE_NOTIFY_INFORMATION, FileName));
                const std::string name(next + offset + offsetof(_FILE_NOTIFY_INFORMATION, FileName),
                                       record.FileNameLength);
                const auto expected = told.find(name);
                const bool isFirst = expected != told.end() && expected->second++ == 0;
                check(FilesReported, isFirst && record.Action == action,
                      "%s told again, or by %u instead of %u", name.c_str(),
                      static_cast<unsigned>(record.Action), static_cast<unsigned>(action));
                left -= isFirst;
                if (record.NextEntryOffset == 0) break;
                offset += record.NextEntryOffset;
            }
            ask();
        }
        check(FilesReported, left == 0, "%d of %d files are not told by %u", left, count,
              static_cast<unsigned>(action));
    }

    const std::string path_;
    const OwnedHandle port_;
    const std::unique_ptr<ChangeNotificationHandle, test::HandleCloser> directory_;
    OwnedHandle scanner_;
};

TEST_ROLE(files) {
    Life life(args, kSmallSteps);
    const std::string own = makeOwnDirectory(life.slot);
    fs::create_directories(runDirectory() + "/temporary");
    Watched watched(own + "/watched");
    int round = 0;
    return life.live([&] {
        const std::jthread watcher([&] { watched.dropAndRemove(++round); });
        for (int i = 0; i < 5; ++i) {
            countUnderLock(life);
            countInMapping();
            makeTemporaryFiles();
            searchFor(own + "/*.dat");
            copy(own + "/original", life.slot);
            std::this_thread::sleep_for(1ms * life.random.below(4));
        }
    });
}

}  // namespace
}  // namespace traiklofox::soak
