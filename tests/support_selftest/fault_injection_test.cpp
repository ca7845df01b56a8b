#include "support/fault_injection.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "support/temp_dir.h"

namespace traiklofox::test {

using faults::Call;

struct FaultInjection : testing::Test {
    TempDir directory;
    std::string path = directory / "file";
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ~FaultInjection() override {
        if (fd >= 0) ::close(fd);
    }
};

TEST_F(FaultInjection, OnlyTheChosenCallFails) {
    const FailCall full{Call::Write, ENOSPC, /*onCall=*/2};
    EXPECT_EQ(::write(fd, "a", 1), 1);
    EXPECT_EQ(::write(fd, "b", 1), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(::write(fd, "c", 1), 1);
    EXPECT_EQ(full.calls(), 3);
    EXPECT_EQ(full.fired(), 1);
    EXPECT_EQ(readText(path), "ac");
}

TEST_F(FaultInjection, EndsWithItsScope) {
    { const FailCall broken{Call::Open, EMFILE, {.andAllLater = true}}; }
    const int second = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(second, 0);
    ::close(second);
}

TEST_F(FaultInjection, PathChoosesDescriptorsAndNames) {
    const int other = ::open((directory / "other").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    const FailCall write{Call::Write, EIO, {.andAllLater = true, .path = "/file"}};
    const FailCall rename{Call::Rename, EXDEV, {.path = "/target"}};
    EXPECT_EQ(::write(other, "a", 1), 1);
    EXPECT_EQ(::write(fd, "a", 1), -1);
    EXPECT_EQ(::rename((directory / "other").c_str(), (directory / "another").c_str()), 0);
    EXPECT_EQ(::rename((directory / "another").c_str(), (directory / "target").c_str()), -1);
    EXPECT_EQ(errno, EXDEV);
    ::close(other);
}

TEST_F(FaultInjection, DiskThatRunsFullTransfersARestFirst) {
    const FailCall full{Call::Write, ENOSPC, {.onCall = 1, .andAllLater = true, .transferAtMost = 3}};
    EXPECT_EQ(::write(fd, "abcdef", 6), 3);
    EXPECT_EQ(::write(fd, "def", 3), -1);
    EXPECT_EQ(readText(path), "abc");
}

TEST_F(FaultInjection, RuleOfOneThreadSparesTheOthers) {
    const FailCall sync{Call::Fsync, EIO, {.andAllLater = true, .thisThreadOnly = true}};
    int elsewhere = -1;
    std::thread{[&] { elsewhere = ::fsync(fd); }}.join();
    EXPECT_EQ(elsewhere, 0);
    EXPECT_EQ(::fsync(fd), -1);
}

TEST_F(FaultInjection, EveryCallIsMadeToFailOnce) {
    std::vector<int> failedAt;
    const int runs = failEveryCall(Call::Access, EACCES, [&](const FailCall&, int onCall) {
        for (int step = 1; step <= 3; ++step) {
            if (::access(path.c_str(), R_OK) != 0) failedAt.push_back(step * 10 + onCall);
        }
    });
    EXPECT_EQ(runs, 3);
    EXPECT_EQ(failedAt, (std::vector<int>{11, 22, 33}));
}

TEST_F(FaultInjection, WhatFailsToCloseIsClosed) {
    const FailCall fails{Call::Close, EIO};
    EXPECT_EQ(::close(fd), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(::close(std::exchange(fd, -1)), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(FaultInjection, AProcessDiesBeforeOrAfterTheChosenCall) {
    for (const auto moment : {KillAtCall::Moment::Before, KillAtCall::Moment::After}) {
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
        EXPECT_EQ(readText(path), moment == KillAtCall::Moment::Before ? "a" : "ab");
    }
}

TEST_F(FaultInjection, EveryListedFunctionPassesThroughUnharmed) {
    const CountCalls seeks{Call::Lseek};
    const CountCalls stats{Call::Fstat};
    ASSERT_EQ(::ftruncate(fd, 0x1'2345'6789), 0);
    EXPECT_EQ(::lseek(fd, 0, SEEK_END), 0x1'2345'6789);
    struct stat status {};
    EXPECT_EQ(::fstat(fd, &status), 0);
    EXPECT_EQ(status.st_size, 0x1'2345'6789);
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(seeks.calls(), 1);
    EXPECT_EQ(stats.calls(), 1);
}

TEST(FakeTime, StopsShiftsAndGivesTheClockBack) {
    const time_t before = ::time(nullptr);
    timeval now{};
    {
        FakeTime clock;
        clock.stopAt(1'000'000'000, 250'000'000);
        EXPECT_EQ(::time(nullptr), 1'000'000'000);
        ::gettimeofday(&now, nullptr);
        EXPECT_EQ(now.tv_sec, 1'000'000'000);
        EXPECT_EQ(now.tv_usec, 250'000);
        clock.advance(-2, 800'000'000);
        ::gettimeofday(&now, nullptr);
        EXPECT_EQ(now.tv_sec, 999'999'999);
        EXPECT_EQ(now.tv_usec, 50'000);
        clock.runAhead(-100'000);
        EXPECT_LT(::time(nullptr), before);
    }
    EXPECT_GE(::time(nullptr), before);
}

}  // namespace traiklofox::test
