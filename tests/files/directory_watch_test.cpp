// What a scan finds; at the end, while others open, read and close.

#include <sys/resource.h>
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

class DirectoryWatch : public testing::Test {
  protected:
    const TempDir directory_;
    const std::string path_ = directory_.path(), file_ = path_ + "/file";
};
using WatchStress = DirectoryWatch;

TEST_F(DirectoryWatch, ReportsEachChangeOnceWithItsAction) {
    const TempDir elsewhere;
    const std::string target = elsewhere / "target";
    const auto at = [&](const char* name) { return directory_ / name; };
    writeText(at("old"), "1");
    writeText(target, "1");
    const OwnedHandle handle = watching(path_);
    EXPECT_EQ(passAndTake(handle), (Changes{{kAdded, "old"}}));
    // clang-format off
    const struct {
        const char* what;
        std::function<void()> act;
        Changes expected;
    } steps[] = {
        {"nothing", [] {}, {}},
        {"create", [&] { writeText(at("a"), "1"); }, {{kAdded, "a"}}},
        {"write", [&] { writeText(at("a"), "12"); }, {{kModified, "a"}}},
        {"touch", [&] { touch(at("a")); }, {{kModified, "a"}}},
        {"change of mode", [&] { ::chmod(at("a").c_str(), 0600); }, {{kModified, "a"}}},
        {"rename", [&] { fs::rename(at("a"), at("b")); }, {{kRemoved, "a"}, {kAdded, "b"}}},
        {"replace", [&] { writeText(elsewhere / "new", "123"), fs::rename(elsewhere / "new", at("b")); },
         {{kModified, "b"}}},
        {"link", [&] { fs::create_symlink(target, at("l")); }, {{kAdded, "l"}}},
        {"the link's target", [&] { writeText(target, "12"); }, {{kModified, "l"}}},
        {"dangling", [&] { fs::remove(target); }, {{kRemoved, "l"}}},
        {"a link in a file's place",
         [&] { writeText(target, "123"), fs::remove(at("b")), fs::create_symlink(target, at("b")); },
         {{kRemoved, "b"}, {kAdded, "b"}, {kAdded, "l"}}},
        {"neither file nor link", [&] { ::mkfifo(at("pipe").c_str(), 0600); }, {}},
        {"below", [&] { writeText(at("sub/x"), ""); }, {}},
        {"a directory in a file's place", [&] { fs::remove(at("old")), fs::create_directory(at("old")); },
         {{kRemoved, "old"}}},
        {"several", [&] { fs::remove(at("l")), writeText(at("m"), ""), writeText(at("n"), ""); },
         {{kRemoved, "l"}, {kAdded, "m"}, {kAdded, "n"}}}};
    // clang-format on
    for (const auto& step : steps) {
        step.act();
        EXPECT_EQ(passAndTake(handle), step.expected) << step.what;
        EXPECT_EQ(passAndTake(handle), Changes()) << "again after: " << step.what;
    }
}

TEST_F(DirectoryWatch, AFilterChoosesWhatCountsAsModified) {
    constexpr DWORD kTime = FILE_NOTIFY_CHANGE_LAST_WRITE, kSize = FILE_NOTIFY_CHANGE_SIZE,
                    kMode = FILE_NOTIFY_CHANGE_ATTRIBUTES;
    writeText(file_, "1");
    for (const bool isAlone : {true, false})
        for (const DWORD filter : {0U, 4U, 8U, 0x10U, 0x1CU, 0xFE3U})
            for (const DWORD change : {kTime, kSize, kMode}) {
                ::chmod(file_.c_str(), 0600);
                const OwnedHandle handle = watching(path_, filter);
                const OwnedHandle other = isAlone ? nullptr : watching(path_);
                EXPECT_EQ(passAndTake(handle).size(), 1U);
                const auto time = fs::last_write_time(file_);
                if (change == kTime) touch(file_);
                if (change == kMode) ::chmod(file_.c_str(), 0640);
                if (change == kSize) {
                    fs::resize_file(file_, fs::file_size(file_) + 1);
                    fs::last_write_time(file_, time);
                }
                const Changes modified{{kModified, "file"}};
                EXPECT_EQ(passAndTake(handle), (filter & change) != 0 ? modified : Changes())
                    << change << " under " << filter;
            }
}

TEST_F(DirectoryWatch, TenThousandFilesAtOnceAreReportedOnceEach) {
    constexpr int kFiles = 10'000;
    const OwnedHandle handle = watching(path_);
    Changes added, changed;
    for (int i = 0; i < kFiles; ++i) {
        const std::string name = std::to_string(i);
        writeText(directory_ / name, "");
        added.push_back({kAdded, name});
        if (i % 3 != 1) changed.push_back({kRemoved, name});
        if (i % 3 == 1) changed.push_back({kModified, name});
        if (i % 3 == 2) changed.push_back({kAdded, name + "new"});
    }
    for (Changes* changes : {&added, &changed}) std::ranges::sort(*changes, {}, &Change::name);
    EXPECT_TRUE(passAndTake(handle) == added);
    EXPECT_EQ(passAndTake(handle), Changes());
    for (int i = 0; i < kFiles; ++i) {
        const std::string path = directory_ / std::to_string(i);
        if (i % 3 == 0) fs::remove(path);
        if (i % 3 == 1) writeText(path, "1");
        if (i % 3 == 2) fs::rename(path, path + "new");
    }
    EXPECT_TRUE(passAndTake(handle) == changed);
    EXPECT_EQ(passAndTake(handle), Changes());
}

TEST_F(DirectoryWatch, ASubtreeIsEnteredOnceThroughLoopsOfLinks) {
    const std::string file = directory_ / "sub/deep/x";
    writeText(file, "");
    fs::create_directory_symlink(path_, directory_ / "sub/up");
    fs::create_directory_symlink(".", directory_ / "sub/deep/here");
    fs::create_directory_symlink("sub", directory_ / "other");
    const OwnedHandle all = watching(path_, kAllFilters, TRUE);
    const int free = ::dup(0);
    rlimit limit{};
    ASSERT_TRUE(::close(free) == 0 && ::getrlimit(RLIMIT_NOFILE, &limit) == 0);
    const rlimit one{static_cast<rlim_t>(free) + 1, limit.rlim_max};  // depth costs no descriptors
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &one), 0);
    pass();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(takeChanges(all), (Changes{{kAdded, "other/deep/x"}, {kAdded, "sub/deep/x"}}));
    EXPECT_EQ(directoryOf(all).GetChangeString(), directory_ / "sub/deep");

    // One more handle on the path, and one on a directory below it, are told for themselves.
    const OwnedHandle top = watching(path_), below = watching(directory_ / "sub", kAllFilters, TRUE);
    EXPECT_EQ(passAndTake(below), (Changes{{kAdded, "deep/x"}}));
    EXPECT_EQ(takeChanges(all), Changes());
    touch(file);
    writeText(directory_ / "y", "");
    EXPECT_EQ(passAndTake(all),
              (Changes{{kModified, "other/deep/x"}, {kModified, "sub/deep/x"}, {kAdded, "y"}}));
    EXPECT_EQ(takeChanges(top), (Changes{{kAdded, "y"}}));
    EXPECT_EQ(takeChanges(below), (Changes{{kModified, "deep/x"}, {kAdded, "up/y"}}));
}

TEST_F(DirectoryWatch, IsComparedWhenItComesBack) {
    for (const std::string prefix : {"", "dir/"}) {  // as the watched directory, and below it
        const std::string directory = directory_ / "dir", watched = prefix.empty() ? directory : path_;
        const auto make = [&](const std::string& names) {
            for (const char name : names) {
                writeText(directory + "/" + name, "");
                touch(directory + "/" + name);
            }
        };
        make("ab");
        const OwnedHandle handle = watching(watched, kAllFilters, TRUE);
        EXPECT_EQ(passAndTake(handle).size(), 2U);
        fs::remove_all(directory);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(passAndTake(handle), Changes());
        make("bc");
        EXPECT_EQ(passAndTake(handle),
                  (Changes{{kRemoved, prefix + "a"}, {kModified, prefix + "b"}, {kAdded, prefix + "c"}}));
        fs::remove_all(directory);
        if (prefix.empty()) continue;
        // What lies below is not remembered for ever.
        bFileShutdownRequested = false;
        for (int i = 0; i <= 1000; ++i) UnixDirScan(watched, nullptr, nullptr);
        make("bc");
        EXPECT_EQ(passAndTake(handle), (Changes{{kAdded, prefix + "b"}, {kAdded, prefix + "c"}}));
    }
}

TEST_F(DirectoryWatch, APassThatIsCutShortReportsNothingAsGone) {
    for (int i = 0; i < 20; ++i) writeText(directory_ / std::to_string(i), "");
    const OwnedHandle handle = watching(path_);
    EXPECT_EQ(passAndTake(handle).size(), 20U);
    for (const auto& [call, onCall] :
         {std::pair{Call::Opendir, 1}, {Call::Readdir, 1}, {Call::Fstat, 1}, {Call::Readdir, 5}}) {
        const FailCall fails(call, EIO, {.onCall = onCall, .andAllLater = true, .path = path_});
        EXPECT_EQ(passAndTake(handle), Changes()) << static_cast<int>(call) << " at " << onCall;
        EXPECT_GT(fails.fired(), 0);
    }
    EXPECT_TRUE(bFileShutdownRequested) << "since the last scanner has ended";
    UnixDirScan(path_, nullptr, nullptr);
    EXPECT_EQ(passAndTake(handle), Changes()) << "a shutdown";
    fs::remove(directory_ / "7");
    EXPECT_EQ(passAndTake(handle), (Changes{{kRemoved, "7"}}));
}

bool deviceIsTrusted = true;

TEST_F(DirectoryWatch, ADeviceThatCannotBeTrustedIsReportedOnce) {
    writeText(file_, "");
    const OwnedHandle handle = watching(path_);
    const auto passOn = [&](bool trusted) {
        deviceIsTrusted = trusted;
        pass(1, [](ULONGLONG device) { return device != 0 && deviceIsTrusted; });
        return takeChanges(handle);
    };
    const Changes whole{{FILE_ACTION_DIRECTORY_CHANGED, ""}};
    EXPECT_EQ(passOn(true), (Changes{{kAdded, "file"}}));
    touch(file_);
    EXPECT_EQ(passOn(false), whole) << "which stands for the modified file, too";
    touch(file_);
    EXPECT_EQ(passOn(false), (Changes{{kModified, "file"}}));
    EXPECT_EQ(passOn(true), Changes());
    EXPECT_EQ(passOn(false), whole);
}

TEST_F(DirectoryWatch, MarkersOfTheServerAreNoFiles) {
    const OwnedHandle handle = watching(path_), all = watching(path_, kAllFilters, TRUE);
    const std::string marker = directory_ / ".KZmarker";
    bRunningInServer = true;
    writeText(directory_ / "sub/.KZmarker", "");
    pass();
    EXPECT_TRUE(directoryOf(all).GetChanged() && !directoryOf(handle).GetChanged());
    writeText(marker, "");
    for (const bool isYoung : {true, false}) {
        if (!isYoung) touch(marker);  // long ago
        EXPECT_EQ(passAndTake(handle), Changes());
        EXPECT_EQ(directoryOf(handle).GetChanged(), isYoung);
        directoryOf(handle).Clear();
    }
    bRunningInServer = false;
    EXPECT_EQ(passAndTake(handle), (Changes{{kAdded, ".KZmarker"}}));
}

long long scanSeconds = 0;
FakeTime* scanClock = nullptr;

TEST_F(DirectoryWatch, ThePauseGoesByTheTimeThatThePassTook) {
    const OwnedHandle handle = watching(path_);
    FakeTime time;
    scanClock = &time;
    const std::pair<int, DWORD> kPauses[] = {{0, 4000},    {2, 4000},    {3, 6000},
                                             {15, 30'000}, {16, 30'000}, {29, 30'000},
                                             {30, 30'000}, {31, 31'000}, {100, 100'000}};
    for (const auto& [seconds, pause] : kPauses) {
        scanSeconds = seconds;
        time.stopMonotonicAt(1000);
        pass(1, [](ULONGLONG) {
            scanClock->stopMonotonicAt(1000 + scanSeconds);
            scanClock->advance(scanSeconds % 2 == 0 ? -3600 : 3600);  // somebody sets the wall clock
            return InUnixDirScan() && amInUnixDirScan == 1;
        });
        EXPECT_EQ(lastSleep, pause) << seconds;
    }
    EXPECT_FALSE(InUnixDirScan());
    EXPECT_TRUE(takeChanges(handle).empty());
}

TEST_F(DirectoryWatch, ShowsWhatItKnows) {
    fs::create_directory(directory_ / "sub");
    writeText(file_, "");
    fs::create_symlink("file", directory_ / "link");
    setenv("TZ", "UTC", 1);
    const timespec times[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
    for (const char* name : {"file", "sub", "."})
        ASSERT_EQ(utimensat(AT_FDCWD, (directory_ / name).c_str(), times, 0), 0);
    const OwnedHandle handle = watching(path_, kAllFilters, TRUE);
    const auto padded = [](std::string text) {
        return text.append(40 - std::min<size_t>(40, text.size()), ' ');
    };
    const std::string rest = "  mod: 2001-09-09 01:46:40, DskMsg: 0, OOS: 0, Repl to/frm: 0/0, Flgs: 0\n";
    const std::string both = " watch: " + path_ + " change: " + path_ + "\n";
    const CapturedStderr shown;
    pass();
    DumpDirData();
    EXPECT_EQ(shown.text(), "Abt2Signal:\nst: 0" + both + "\nDir_Data:\n " + padded(path_) + rest +  //
                                "   " + padded("file") + "   mod: 2001-09-09 01:46:40 attr: Normal\n" +
                                "   " + padded("link") + "@  mod: 2001-09-09 01:46:40 attr: Normal\n " +
                                padded(path_ + "/sub") + rest + "--CNH:\nst: 1" + both);
}

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kRounds = 100;
#else
constexpr int kRounds = 1000;
#endif
constexpr int kFiles = 400;
constexpr ULONG_PTR kSteady = 7;
constexpr DWORD kBoundMs = 30'000;

/// A thread that scans without a pause until the end of its life.
class Scanner {
  public:
    Scanner() {
        stops_ = false;
        thread_.reset(CreateThread(nullptr, 0, WatchDirsThread, &callbacks_, 0, nullptr));
    }
    ~Scanner() {
        stops_ = true;
        EXPECT_EQ(WaitForSingleObject(thread_.get(), kBoundMs), WAIT_OBJECT_0);
        EXPECT_TRUE(bFileShutdownRequested);
    }

  private:
    static inline std::atomic<bool> stops_{false};
    WatchDirsCallbacks callbacks_{.sleep = [](DWORD) { Sleep(1); },
                                  .stop = [] { return stops_.load(); },
                                  .onExit = nullptr,
                                  .deviceTest = [](ULONGLONG) { return true; }};
    OwnedHandle thread_;
};

/// What else a server does with its handles meanwhile. True when every call said what it should.
bool openReadAndClose(const std::string& path, Handle* port, int round) {
    OwnedHandle handle(FindFirstChangeNotification(path.c_str(), round % 2, kAllFilters));
    char buffer[300];
    DWORD bytes = 0;
    bool isGood = round % 3 != 0 || ReadDirectoryChanges(handle.get(), buffer, sizeof buffer, FALSE,
                                                         kAllFilters, nullptr, nullptr, nullptr);
    if (round % 5 == 0) isGood &= CreateIoCompletionPort(handle.get(), port, /*key=*/1, 0) == port;
    if (round % 7 == 0) (void)WaitForSingleObject(handle.get(), 2);  // it may be signalled
    if (round % 2 == 0) (void)GetOverlappedResult(handle.get(), nullptr, &bytes, FALSE);  // likewise
    const int way = round % 4;
    if (way == 0) return CloseHandle(handle.release()) && isGood;
    if (way != 2) isGood &= FindNextChangeNotification(handle.get()) != 0;
    if (way == 3 && round % 5 != 0)  // no delivery through the port can have taken it from the scanner
        return FindCloseChangeNotification(handle.release()) == 0 && isGood;
    isGood &= FindCloseChangeNotification(handle.get(), /*keep=*/1) == 0;
    return CloseHandle(handle.release()) && isGood;
}

TEST_F(WatchStress, AFileIsReportedOnceWhateverElseIsOpenedReadAndClosed) {
    const OwnedHandle port(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
    const OwnedHandle steady = watching(path_);
    ASSERT_NE(CreateIoCompletionPort(steady.get(), port.get(), kSteady, 0), nullptr);
    std::map<std::string, int> added;
    std::atomic<int> failures = 0;
    DWORD bytes = 0;
    {
        const Scanner scanner;
        std::vector<std::jthread> others;
        for (int i = 0; i < 2; ++i)
            others.emplace_back([&, i] {
                for (int round = 0; round < kRounds; ++round)
                    failures += !openReadAndClose(path_, port.get(), round * 2 + i);
            });
        others.emplace_back([&] {
            for (int i = 0; i < kFiles; ++i) writeText(directory_ / std::to_string(i), "");
        });
        while (added.size() < kFiles) {
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
    for (const auto& [name, times] : added) EXPECT_EQ(times, 1) << name;
    pass();  // nothing is left over
    EXPECT_FALSE(GetOverlappedResult(steady.get(), nullptr, &bytes, FALSE)) << bytes;
    EXPECT_EQ(steady->GetRefCount(), 3) << "the caller's, the scanner's and the port's";
}

TEST_F(WatchStress, AChangeThatIsFoundWhileItIsAskedForIsSignalled) {
    const OwnedHandle handle = watching(path_);
    bFileShutdownRequested = false;
    std::atomic<int> scans = 0;
    const std::jthread scanner([&](const std::stop_token& stop) {
        for (; !stop.stop_requested(); ++scans) UnixDirScan(path_, nullptr, nullptr);
    });
    for (int round = 0; round < kRounds / 2; ++round) {
        DWORD bytes = 0;
        ASSERT_TRUE(directoryOf(handle).GetChangeData(&bytes, nullptr));  // and the scanner has it no more
        round % 2 == 0 ? writeText(file_, "") : (void)fs::remove(file_);
        ASSERT_TRUE(ask(handle));
        ASSERT_TRUE(withinSeconds(20, [&, before = scans.load()] { return scans >= before + 2; }));
        ASSERT_EQ(stateOf(handle), WAIT_OBJECT_0) << round;
    }
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

TEST_F(WatchStress, AForkedChildWatchesForItself) {
    for (int i = 0; i < 200; ++i) writeText(directory_ / std::to_string(i), "");
    const OwnedHandle handle = watching(path_);
    const Scanner scanner;
    for (int i = 0; i < kRounds / 20; ++i) {
        ASSERT_TRUE(withinSeconds(20, [] { return InUnixDirScan(); }));
        const pid_t child = ::fork();
        if (child == 0) ::_exit(watchInChild(path_));
        int status = -1;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
    }
}

#endif

}  // namespace
}  // namespace traiklofox::test
