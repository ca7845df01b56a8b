// That what the tests stand on does what it says: faults, clocks, roles, private machines, captured output.

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "support/bounded_wait.h"
#include "support/captured_output.h"
#include "support/fault_injection.h"
#include "support/private_machine.h"
#include "support/role.h"
#include "support/temp_dir.h"

namespace traiklofox::test {

using faults::Call;
using std::chrono::milliseconds;

struct FaultInjection : testing::Test {
    TempDir directory;
    std::string path = directory / "file", otherPath = directory / "other";
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    int other = ::open(otherPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ~FaultInjection() override { ::close(fd), ::close(other); }
};

TEST_F(FaultInjection, FailsTheCallsThatItsRuleChoosesAndNoOther) {
    const auto writes = [&](const faults::Options& options,
                            int to) {  // each text's result as a digit, - for a fault
        const FailCall rule{Call::Write, ENOSPC, options};
        std::string results;
        for (const char* text : {"a", "bcdef", "g"}) {
            errno = 0;
            const ssize_t result = ::write(to, text, strlen(text));
            results += result < 0 && errno == ENOSPC ? "-" : std::to_string(result);
        }
        return results + " " + std::to_string(rule.calls()) + std::to_string(rule.fired());
    };
    EXPECT_EQ(writes({.onCall = 2}, fd), "1-1 31");
    EXPECT_EQ(readText(path), "ag");
    EXPECT_EQ(writes({.onCall = 2, .andAllLater = true, .transferAtMost = 3}, fd), "13- 32")
        << "a disk that runs full";
    EXPECT_EQ(writes({.andAllLater = true, .path = "/file"}, fd), "--- 33");
    EXPECT_EQ(writes({.andAllLater = true, .path = "/file"}, other), "151 00");
    std::string elsewhere;
    const FailCall mine{Call::Fsync, EIO, {.andAllLater = true, .thisThreadOnly = true}};
    std::thread{[&] { elsewhere = ::fsync(fd) == 0 ? "spared" : "failed"; }}.join();
    EXPECT_EQ(elsewhere, "spared");
    EXPECT_EQ(::fsync(fd), -1);

    const FailCall rename{Call::Rename, EXDEV, {.path = "/target"}};
    EXPECT_EQ(::rename(otherPath.c_str(), (directory / "another").c_str()), 0);
    EXPECT_EQ(::rename((directory / "another").c_str(), (directory / "target").c_str()), -1);
    std::vector<int> failedAt;
    const auto access = [&](const FailCall&, int onCall) {
        for (int step = 1; step <= 3; ++step)
            if (::access(path.c_str(), R_OK) != 0) failedAt.push_back(step * 10 + onCall);
    };
    EXPECT_EQ(failEveryCall(Call::Access, EACCES, access), 3);
    EXPECT_EQ(failedAt, (std::vector<int>{11, 22, 33}));

    const CountCalls seeks{Call::Lseek};
    ASSERT_EQ(::ftruncate(fd, 0x1'2345'6789), 0);
    EXPECT_EQ(::lseek(fd, 0, SEEK_END), 0x1'2345'6789);
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(seeks.calls(), 1);
    const FailCall close{Call::Close, EIO};
    EXPECT_EQ(::close(other), -1);
    EXPECT_EQ(::fcntl(other, F_GETFD), -1) << "what fails to close is closed";
}

TEST_F(FaultInjection, AProcessDiesBeforeOrAfterTheChosenCall) {
    for (const auto& [moment, left] :
         {std::pair{KillAtCall::Moment::Before, "a"}, {KillAtCall::Moment::After, "ab"}}) {
        ASSERT_EQ(::ftruncate(fd, 0) + ::lseek(fd, 0, SEEK_SET), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            const KillAtCall death{moment, /*onCall=*/2};
            for (const char* text : {"a", "b", "c"}) (void)!::write(fd, text, 1);
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        EXPECT_EQ(readText(path), left);
    }
}

TEST(FakeTime, StopsShiftsAndGivesTheClockBack) {
    const time_t before = ::time(nullptr);
    timeval now{};
    {
        FakeTime clock;
        clock.stopAt(1'000'000'000, 250'000'000);
        EXPECT_EQ(::time(nullptr), 1'000'000'000);
        clock.advance(-2, 800'000'000);
        ::gettimeofday(&now, nullptr);
        EXPECT_TRUE(now.tv_sec == 999'999'999 && now.tv_usec == 50'000);
        clock.runAhead(-100'000);
        EXPECT_LT(::time(nullptr), before);
    }
    EXPECT_GE(::time(nullptr), before);
}

constexpr const char* kLockFile = "/usr/lib/tarnwell/selftest.dat";
constexpr key_t kKey = 0x7457;

TEST_ROLE(stepsIntoTheSameMachine) {
    const bool shared = PrivateMachine::enter().entered() && readText(kLockFile) == "lock";
    return shared && ::shmget(kKey, 4096, 0600) != -1 ? 0 : 1;
}

TEST(PrivateMachineTest, RolesShareItAndTheOutsideSeesNothing) {
    const auto& machine = PrivateMachine::enter();
    if (!machine.entered()) GTEST_SKIP() << machine.whyNot();
    writeText(kLockFile, "lock");
    ASSERT_NE(::shmget(kKey, 4096, IPC_CREAT | IPC_EXCL | 0600), -1) << "another test's objects are in sight";
    EXPECT_EQ(RoleProcess{"stepsIntoTheSameMachine"}.wait(), ExitStatus::exited(0));
    const TempDir scratch;
    std::error_code unreadable;
    for (const std::string& path : {std::string(kLockFile), scratch.path()})  // of whoever started this test
        EXPECT_FALSE(
            std::filesystem::exists("/proc/" + std::to_string(::getppid()) + "/root" + path, unreadable));

    SmallDisk disk{scratch / "disk", 1 << 20};
    const int fd = ::open((disk.directory() + "/file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string block(8192, 'x');
    for (const auto& [free, written] : {std::pair{8192, 8192}, {0, -1}, {1 << 19, 8192}}) {
        if (free != 0) disk.leaveFree(static_cast<size_t>(free));
        EXPECT_EQ(::write(fd, block.data(), block.size()), written) << free;
    }
    ::close(fd);
}

TEST(CapturedStderr, CatchesStreamsAndDescriptorsAndGivesThemBack) {
    const int before = openDescriptors();
    {
        const CapturedStderr errors;
        std::fputs("one ", stderr);
        ASSERT_EQ(::write(STDERR_FILENO, "two", 3), 3);
        EXPECT_EQ(errors.text(), "one two");
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_ROLE(repeatsUntilTheEnd) {
    while (const auto line = hearTest()) tellTest(args.at(0) + *line);
    EXPECT_STREQ(std::getenv("TRAIKLOFOX_TEST_VARIABLE"), "set");
    return args.at(0).empty() ? 0 : 7;
}

TEST(RoleProcess, TalksInLinesAndGivesItsExitStatus) {
    RoleProcess echo{"repeatsUntilTheEnd", {"re: "}, {"TRAIKLOFOX_TEST_VARIABLE=set"}};
    ASSERT_TRUE(echo.writeLine("one") && echo.writeLine("two"));
    EXPECT_EQ(echo.readLine(), "re: one");
    EXPECT_EQ(echo.readLine(), "re: two");
    EXPECT_EQ(echo.readLine(milliseconds{20}), std::nullopt);
    EXPECT_EQ(echo.wait(milliseconds{20}), ExitStatus::timedOut());
    echo.closeInput();
    EXPECT_EQ(echo.wait(), ExitStatus::exited(7));
    EXPECT_EQ(echo.readLine(), std::nullopt);

    RoleProcess killed{"repeatsUntilTheEnd", {""}}, failing{"repeatsUntilTheEnd", {""}};
    killed.kill(SIGKILL);
    EXPECT_EQ(killed.wait(), ExitStatus::killedBy(SIGKILL));
    failing.closeInput();
    EXPECT_EQ(failing.wait(), ExitStatus::exited(kRoleExpectationFailed));
    EXPECT_EQ(RoleProcess("noSuchRole").wait(), ExitStatus::exited(EXIT_FAILURE));
}

}  // namespace traiklofox::test
