#include <sys/wait.h>
#include <traiklofox/clocks.h>
#include <traiklofox/threads.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <thread>

#include "files/watch_fixture.h"
#include "support/bounded_wait.h"

namespace traiklofox::test {
namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kRounds = 100;
#else
constexpr int kRounds = 1000;
#endif
constexpr int kFiles = 400;
constexpr ULONG_PTR kSteady = 7;
constexpr DWORD kBoundMs = 30'000;

std::atomic<bool> scannerStops{false};

OwnedHandle startScanner() {
    static WatchDirsCallbacks callbacks{.sleep = [](DWORD) { Sleep(1); },
                                        .stop = [] { return scannerStops.load(); },
                                        .onExit = nullptr,
                                        .deviceTest = [](ULONGLONG) { return true; }};
    scannerStops = false;
    return OwnedHandle(CreateThread(nullptr, 0, WatchDirsThread, &callbacks, 0, nullptr));
}

/// What else a server does with its handles meanwhile. True when every call said what it should.
bool openReadAndClose(const std::string& path, Handle* port, int round) {
    Handle* handle = FindFirstChangeNotification(path.c_str(), round % 2, kAllFilters);
    char buffer[300];
    DWORD bytes = 0;
    bool isGood = true;
    if (round % 3 == 0)
        isGood &= ReadDirectoryChanges(handle, buffer, sizeof buffer, FALSE, kAllFilters, nullptr, nullptr,
                                       nullptr) != 0;
    if (round % 5 == 0) isGood &= CreateIoCompletionPort(handle, port, /*key=*/1, 0) == port;
    if (round % 7 == 0) (void)WaitForSingleObject(handle, 2);                       // it may be signalled
    if (round % 2 == 0) (void)GetOverlappedResult(handle, nullptr, &bytes, FALSE);  // likewise
    const int way = round % 4;
    if (way == 0) return isGood && CloseHandle(handle);
    if (way == 1) isGood &= FindNextChangeNotification(handle) != 0;
    if (way == 3 && round % 5 != 0) {  // no delivery through the port can have taken it from the scanner
        isGood &= FindNextChangeNotification(handle) != 0;
        return FindCloseChangeNotification(handle) == 0 && isGood;
    }
    isGood &= FindCloseChangeNotification(handle, /*keep=*/1) == 0;
    return CloseHandle(handle) && isGood;
}

TEST(WatchStress, AFileIsReportedOnceWhateverElseIsOpenedReadAndClosed) {
    const TempDir directory;
    const OwnedHandle port(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
    const OwnedHandle steady = watching(directory.path());
    ASSERT_NE(CreateIoCompletionPort(steady.get(), port.get(), kSteady, 0), nullptr);
    const OwnedHandle scanner = startScanner();
    std::map<std::string, int> added;
    std::atomic<int> failures = 0;
    {
        std::vector<std::jthread> others;
        for (int i = 0; i < 2; ++i)
            others.emplace_back([&, i] {
                for (int round = 0; round < kRounds; ++round)
                    failures += !openReadAndClose(directory.path(), port.get(), round * 2 + i);
            });
        others.emplace_back([&] {
            for (int i = 0; i < kFiles; ++i) writeText(directory / std::to_string(i), "");
        });
        while (added.size() < kFiles) {
            DWORD bytes = 0;
            ULONG_PTR key = 0;
            ASSERT_TRUE(GetQueuedCompletionStatus(port.get(), &bytes, &key, nullptr, kBoundMs))
                << added.size();
            if (key != kSteady) continue;
            for (const Change& change : changesIn(directoryOf(steady).GetBuffer(), bytes)) {
                EXPECT_EQ(change.action, FILE_ACTION_ADDED);
                ++added[change.name];
            }
            ASSERT_TRUE(ask(steady));
        }
    }
    EXPECT_EQ(failures, 0);
    scannerStops = true;
    EXPECT_EQ(WaitForSingleObject(scanner.get(), kBoundMs), WAIT_OBJECT_0);
    EXPECT_TRUE(bFileShutdownRequested);
    for (const auto& [name, times] : added) EXPECT_EQ(times, 1) << name;
    pass();  // nothing is left over
    DWORD bytes = 0;
    EXPECT_FALSE(GetOverlappedResult(steady.get(), nullptr, &bytes, FALSE)) << bytes;
    EXPECT_EQ(steady->GetRefCount(), 3) << "the caller's, the scanner's and the port's";
}

#if !defined(__SANITIZE_ADDRESS__)  // whose own locks a fork may find taken

/// In the child of a fork: its own handles work, whatever the scanner was doing.
int watchInChild(const std::string& path) {
    ::alarm(60);
    Handle* handle = FindFirstChangeNotification(path.c_str(), TRUE, kAllFilters);
    UnixDirScan(path, static_cast<ChangeNotificationHandle*>(handle), nullptr);
    const DWORD result = WaitForSingleObject(handle, 0);
    (void)FindCloseChangeNotification(handle);
    return result == WAIT_OBJECT_0 ? 0 : 1;
}

TEST(WatchStress, AForkedChildWatchesForItself) {
    const TempDir directory;
    for (int i = 0; i < 200; ++i) writeText(directory / std::to_string(i), "");
    const OwnedHandle handle = watching(directory.path());
    const OwnedHandle scanner = startScanner();
    for (int i = 0; i < kRounds / 20; ++i) {
        ASSERT_TRUE(withinSeconds(20, [] { return InUnixDirScan(); }));
        const pid_t child = ::fork();
        if (child == 0) ::_exit(watchInChild(directory.path()));
        int status = -1;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
    }
    scannerStops = true;
    EXPECT_EQ(WaitForSingleObject(scanner.get(), kBoundMs), WAIT_OBJECT_0);
}

#endif

}  // namespace
}  // namespace traiklofox::test
