// What a scan finds; at the end, while others open, read and close.

#include <sys/wait.h>
#include <traiklofox/clocks.h>
#include <traiklofox/settings.h>
#include <traiklofox/threads.h>

#include <atomic>
#include <map>

#include "files/watch_fixture.h"

namespace traiklofox::test {
namespace {

constexpr DWORD kAdded = FILE_ACTION_ADDED, kRemoved = FILE_ACTION_REMOVED, kModified = FILE_ACTION_MODIFIED;

TEST(DirectoryWatch, ReportsEachChangeOnceWithItsAction) {
    const TempDir directory, elsewhere;
    const auto at = [&](const char* name) { return directory / name; };
    writeText(at("old"), "1");
    writeText(elsewhere / "target", "1");
    const OwnedHandle handle = watching(directory.path());
    EXPECT_EQ(passAndTake(handle), (Changes{{kAdded, "old"}}));

    const struct {
        const char* what;
        std::function<void()> act;
        Changes expected;
    } steps[] = {{"nothing", [] {}, {}},
                 {"create", [&] { writeText(at("a"), "1"); }, {{kAdded, "a"}}},
                 {"write", [&] { writeText(at("a"), "12"); }, {{kModified, "a"}}},
                 {"touch", [&] { touch(at("a")); }, {{kModified, "a"}}},
                 {"change of mode", [&] { ::chmod(at("a").c_str(), 0600); }, {{kModified, "a"}}},
                 {"rename", [&] { fs::rename(at("a"), at("b")); }, {{kRemoved, "a"}, {kAdded, "b"}}},
                 {"replace by rename",
                  [&] {
                      writeText(elsewhere / "new", "123");
                      fs::rename(elsewhere / "new", at("b"));
                  },
                  {{kModified, "b"}}},
                 {"link", [&] { fs::create_symlink(elsewhere / "target", at("l")); }, {{kAdded, "l"}}},
                 {"the link's target", [&] { writeText(elsewhere / "target", "12"); }, {{kModified, "l"}}},
                 {"dangling", [&] { fs::remove(elsewhere / "target"); }, {{kRemoved, "l"}}},
                 {"a link in a file's place",
                  [&] {
                      writeText(elsewhere / "target", "123");
                      fs::remove(at("b"));
                      fs::create_symlink(elsewhere / "target", at("b"));
                  },
                  {{kRemoved, "b"}, {kAdded, "b"}, {kAdded, "l"}}},
                 {"neither file nor link", [&] { ::mkfifo(at("pipe").c_str(), 0600); }, {}},
                 {"below", [&] { fs::create_directory(at("sub")), writeText(directory / "sub/x", ""); }, {}},
                 {"a directory in a file's place",
                  [&] { fs::remove(at("old")), fs::create_directory(at("old")); },
                  {{kRemoved, "old"}}},
                 {"several",
                  [&] { fs::remove(at("l")), writeText(at("m"), ""), writeText(at("n"), ""); },
                  {{kRemoved, "l"}, {kAdded, "m"}, {kAdded, "n"}}}};
    for (const auto& step : steps) {
        step.act();
        EXPECT_EQ(passAndTake(handle), step.expected) << step.what;
        EXPECT_EQ(passAndTake(handle), Changes()) << "again after: " << step.what;
    }
}

TEST(DirectoryWatch, AFilterChoosesWhatCountsAsModified) {
    const TempDir directory;
    const std::string file = directory / "file";
    const auto keepTime = [&](const std::function<void()>& act) {
        struct stat before {};
        ASSERT_EQ(::stat(file.c_str(), &before), 0);
        act();
        const timespec times[2] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    };
    std::string text = "1";
    const struct {
        const char* what;
        DWORD concerns;
        std::function<void()> act;
    } changes[] = {
        {"time", FILE_NOTIFY_CHANGE_LAST_WRITE, [&] { touch(file); }},
        {"size", FILE_NOTIFY_CHANGE_SIZE, [&] { keepTime([&] { writeText(file, text += "1"); }); }},
        {"mode", FILE_NOTIFY_CHANGE_ATTRIBUTES,
         [&] { ::chmod(file.c_str(), 0600), ::chmod(file.c_str(), 0640); }}};
    writeText(file, text);
    for (const DWORD filter : {0U, 4U, 8U, 0x10U, 0x1CU, 0xFE3U}) {
        for (const auto& change : changes) {
            ::chmod(file.c_str(), 0600);
            const OwnedHandle handle = watching(directory.path(), filter);
            EXPECT_EQ(passAndTake(handle).size(), 1U);
            change.act();
            const Changes expected{{kModified, "file"}};
            EXPECT_EQ(passAndTake(handle), (filter & change.concerns) != 0 ? expected : Changes())
                << change.what << " under " << filter;
        }
    }
}

TEST(DirectoryWatch, TenThousandFilesAtOnceAreReportedOnceEach) {
    const TempDir directory;
    const OwnedHandle handle = watching(directory.path());
    const auto each = [&](int from, int step, const std::function<void(const std::string&)>& act) {
        for (int i = from; i < 10'000; i += step) act(directory / std::to_string(i));
    };
    const auto count = [](const Changes& changes, DWORD action) {
        std::vector<std::string> names;
        for (const Change& change : changes)
            if (change.action == action) names.push_back(change.name);
        const auto size = names.size();
        EXPECT_TRUE(std::ranges::adjacent_find(names) == names.end());
        return size;
    };
    each(0, 1, [](const std::string& path) { writeText(path, ""); });
    Changes changes = passAndTake(handle);
    EXPECT_EQ(count(changes, kAdded), 10'000U);
    EXPECT_EQ(passAndTake(handle), Changes());
    each(0, 3, [](const std::string& path) { fs::remove(path); });
    each(1, 3, [](const std::string& path) { writeText(path, "1"); });
    each(2, 3, [](const std::string& path) { fs::rename(path, path + "new"); });
    changes = passAndTake(handle);
    EXPECT_EQ(count(changes, kRemoved), 3334U + 3333U);
    EXPECT_EQ(count(changes, kModified), 3333U);
    EXPECT_EQ(count(changes, kAdded), 3333U);
    EXPECT_EQ(passAndTake(handle), Changes());
}

TEST(DirectoryWatch, ASubtreeIsEnteredOnceThroughLoopsOfLinks) {
    const TempDir directory;
    fs::create_directories(directory / "sub/deep");
    writeText(directory / "sub/deep/x", "");
    fs::create_directory_symlink(directory.path(), directory / "sub/up");
    fs::create_directory_symlink(".", directory / "sub/deep/here");
    fs::create_directory_symlink("sub", directory / "other");
    const OwnedHandle all = watching(directory.path(), kAllFilters, TRUE);
    EXPECT_EQ(passAndTake(all), (Changes{{kAdded, "other/deep/x"}, {kAdded, "sub/deep/x"}}));
    EXPECT_EQ(directoryOf(all).GetChangeString(), directory / "sub/deep");

    // One more handle on the path, and one on a directory below it, are told for themselves.
    const OwnedHandle top = watching(directory.path()),
                      below = watching(directory / "sub", kAllFilters, TRUE);
    EXPECT_EQ(passAndTake(below), (Changes{{kAdded, "deep/x"}}));
    EXPECT_EQ(takeChanges(all), Changes());
    touch(directory / "sub/deep/x");
    writeText(directory / "y", "");
    pass();
    EXPECT_EQ(takeChanges(all),
              (Changes{{kModified, "other/deep/x"}, {kModified, "sub/deep/x"}, {kAdded, "y"}}));
    EXPECT_EQ(takeChanges(top), (Changes{{kAdded, "y"}}));
    EXPECT_EQ(takeChanges(below), (Changes{{kModified, "deep/x"}, {kAdded, "up/y"}}));
}

TEST(DirectoryWatch, ADirectoryThatIsAwayIsComparedWhenItComesBack) {
    const TempDir parent;
    for (const char* watched : {"dir", "."}) {  // as the watched directory, and below it
        const std::string directory = parent / "dir";
        const auto make = [&](std::initializer_list<const char*> names) {
            fs::create_directory(directory);
            for (const char* name : names) {
                writeText(directory + "/" + name, "");
                touch(directory + "/" + name);
            }
        };
        make({"a", "b"});
        const OwnedHandle handle = watching(parent / watched, kAllFilters, TRUE);
        EXPECT_EQ(passAndTake(handle).size(), 2U);
        fs::remove_all(directory);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(passAndTake(handle), Changes());
        make({"b", "c"});
        const std::string prefix = watched == std::string(".") ? "dir/" : "";
        EXPECT_EQ(passAndTake(handle),
                  (Changes{{kRemoved, prefix + "a"}, {kModified, prefix + "b"}, {kAdded, prefix + "c"}}));
        fs::remove_all(directory);
        if (prefix.empty()) continue;
        // What lies below is not remembered for ever.
        bFileShutdownRequested = false;
        for (int i = 0; i <= 1000; ++i) UnixDirScan(parent / watched, nullptr, nullptr);
        make({"b", "c"});
        EXPECT_EQ(passAndTake(handle), (Changes{{kAdded, prefix + "b"}, {kAdded, prefix + "c"}}));
    }
}

TEST(DirectoryWatch, APassThatIsCutShortReportsNothingAsGone) {
    const TempDir directory;
    for (int i = 0; i < 20; ++i) writeText(directory / std::to_string(i), "");
    const OwnedHandle handle = watching(directory.path());
    EXPECT_EQ(passAndTake(handle).size(), 20U);
    const auto expectNothing = [&](const char* what) { EXPECT_EQ(passAndTake(handle), Changes()) << what; };
    for (const faults::Call call : {Call::Opendir, Call::Readdir, Call::Fstat}) {
        const FailCall fails(call, EIO, {.onCall = 1, .andAllLater = true, .path = directory.path()});
        expectNothing("a failing call");
        EXPECT_GT(fails.fired(), 0);
    }
    {
        const FailCall fails(Call::Readdir, EIO, {.onCall = 5, .path = directory.path()});
        expectNothing("an error half way");
    }
    EXPECT_TRUE(bFileShutdownRequested) << "since the last scanner has ended";
    UnixDirScan(directory.path(), nullptr, nullptr);
    expectNothing("a shutdown");
    fs::remove(directory / "7");
    EXPECT_EQ(passAndTake(handle), (Changes{{kRemoved, "7"}}));
}

bool deviceIsTrusted = true;

TEST(DirectoryWatch, ADeviceThatCannotBeTrustedIsReportedOnce) {
    const TempDir directory;
    writeText(directory / "file", "");
    const OwnedHandle handle = watching(directory.path());
    const auto passOn = [&](bool trusted) {
        deviceIsTrusted = trusted;
        pass(1, [](ULONGLONG device) { return device != 0 && deviceIsTrusted; });
        return takeChanges(handle);
    };
    const Changes whole{{FILE_ACTION_DIRECTORY_CHANGED, ""}};
    EXPECT_EQ(passOn(true), (Changes{{kAdded, "file"}}));
    touch(directory / "file");
    EXPECT_EQ(passOn(false), whole) << "which stands for the modified file, too";
    touch(directory / "file");
    EXPECT_EQ(passOn(false), (Changes{{kModified, "file"}}));
    EXPECT_EQ(passOn(true), Changes());
    EXPECT_EQ(passOn(false), whole);
}

TEST(DirectoryWatch, MarkersOfTheServerAreNoFiles) {
    const TempDir directory;
    const OwnedHandle handle = watching(directory.path());
    bRunningInServer = true;
    writeText(directory / ".KZmarker", "");
    EXPECT_EQ(passAndTake(handle), Changes());
    EXPECT_TRUE(directoryOf(handle).GetChanged());
    directoryOf(handle).Clear();
    touch(directory / ".KZmarker");  // long ago
    EXPECT_EQ(passAndTake(handle), Changes());
    EXPECT_FALSE(directoryOf(handle).GetChanged());
    bRunningInServer = false;
    EXPECT_EQ(passAndTake(handle), (Changes{{kAdded, ".KZmarker"}}));
}

long long scanSeconds = 0;

TEST(DirectoryWatch, ThePauseGoesByTheTimeThatThePassTook) {
    const TempDir directory;
    const OwnedHandle handle = watching(directory.path());
    static FakeTime* clock = nullptr;
    FakeTime time;
    clock = &time;
    time.stopAt(1'700'000'000);
    const std::pair<int, DWORD> kPauses[] = {{0, 4000},    {2, 4000},    {3, 6000},
                                             {15, 30'000}, {16, 30'000}, {29, 30'000},
                                             {30, 30'000}, {31, 31'000}, {100, 100'000}};
    for (const auto& [seconds, pause] : kPauses) {
        scanSeconds = seconds;
        pass(1, [](ULONGLONG) {
            clock->advance(scanSeconds);
            return InUnixDirScan() && amInUnixDirScan == 1;
        });
        EXPECT_EQ(lastSleep, pause) << seconds;
    }
    EXPECT_FALSE(InUnixDirScan());
    EXPECT_TRUE(takeChanges(handle).empty());
}

TEST(DirectoryWatch, ShowsWhatItKnows) {
    const TempDir directory;
    fs::create_directory(directory / "sub");
    writeText(directory / "file", "");
    fs::create_symlink("file", directory / "link");
    setenv("TZ", "UTC", 1);
    const timespec times[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
    for (const char* name : {"file", "sub", "."})
        ASSERT_EQ(utimensat(AT_FDCWD, (directory / name).c_str(), times, 0), 0);
    const OwnedHandle handle = watching(directory.path(), kAllFilters, TRUE);
    const std::string path = directory.path();
    const auto padded = [](std::string text) {
        return text.append(40 - std::min<size_t>(40, text.size()), ' ');
    };
    const std::string rest = "  mod: 2001-09-09 01:46:40, DskMsg: 0, OOS: 0, Repl to/frm: 0/0, Flgs: 0\n";
    {
        const CapturedStderr shown;
        pass();
        EXPECT_EQ(shown.text(), "Abt2Signal:\nst: 0 watch: " + path + " change: " + path + "\n");
    }
    const CapturedStderr shown;
    DumpDirData();
    EXPECT_EQ(shown.text(), "\nDir_Data:\n " + padded(path) + rest +  //
                                "   " + padded("file") + "   mod: 2001-09-09 01:46:40 attr: Normal\n" +
                                "   " + padded("link") + "@  mod: 2001-09-09 01:46:40 attr: Normal\n " +
                                padded(path + "/sub") + rest +  //
                                "--CNH:\nst: 1 watch: " + path + " change: " + path + "\n");
}

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

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // whose own locks a fork may find taken

/// In the child of a fork: its own handles work, whatever the scanner was doing.
int watchInChild(const std::string& path) {
    ::alarm(60);
    Handle* handle = FindFirstChangeNotification(path.c_str(), TRUE, kAllFilters);
    UnixDirScan(path, static_cast<ChangeNotificationHandle*>(handle), nullptr);
    const DWORD result = WaitForSingleObject(handle, 0);
    (void)FindCloseChangeNotification(handle);
    return result == WAIT_OBJECT_0 && !InUnixDirScan() ? 0 : 1;
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
