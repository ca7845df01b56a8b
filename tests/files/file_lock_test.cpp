// Opening, locking, counting and closing; what goes through the stream is in file_lock_stream_test.cpp.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <traiklofox/file_lock.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <future>
#include <latch>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/bounded_wait.h"
#include "support/captured_output.h"
#include "support/fault_injection.h"
#include "support/role.h"
#include "support/temp_dir.h"

namespace traiklofox::test {
namespace {

using faults::Call;

// Says of each file that it hears of whether another process has it locked.
TEST_ROLE(probesLocks) {
    while (const auto path = hearTest()) {
        const int fd = ::open(path->c_str(), O_RDWR | O_CLOEXEC);
        tellTest(fd < 0 ? "missing" : ::lockf(fd, F_TEST, 0) == 0 ? "free" : "locked");
        ::close(fd);
    }
    return 0;
}

class LockProbe {
  public:
    std::string operator()(const std::string& path) {
        process_.writeLine(path);
        return process_.readLine().value_or("no answer");
    }

  private:
    RoleProcess process_{"probesLocks"};
};

// Locks the file that it is given until it hears something.
TEST_ROLE(holdsALock) {
    FileLock file;
    if (!file.OpenAndLockFile(args.at(0).c_str(), FileLock::in, nullptr, 0)) return 1;
    tellTest("held");
    (void)hearTest();
    return file.CloseAndUnLockFile() ? 0 : 2;
}

bool somebodyWaitsForTheLockOf(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return false;
    const std::string inode = ":" + std::to_string(status.st_ino) + " ";
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);)
        if (line.find("->") != std::string::npos && line.find(inode) != std::string::npos) return true;
    return false;
}

class FileLockOpening : public testing::Test {
  protected:
    TempDir directory_;
    const std::string path_ = directory_ / "file";
};

TEST_F(FileLockOpening, MapsEachModeToItsFlags) {
    using enum FileLock::Mode;
    constexpr int kRefused = -1;
    constexpr struct {
        int mode;
        int flags;      // access and O_APPEND, or kRefused
        bool empties;   // an existing file
        bool makes;     // a missing file
        bool replaces;  // false: an existing file is refused
    } kCases[] = {
        {in, O_RDONLY, false, true, true},
        {out, O_WRONLY, true, true, true},
        {out | trunc, O_WRONLY, true, true, true},
        {app, O_WRONLY | O_APPEND, false, true, true},
        {out | app, O_WRONLY | O_APPEND, false, true, true},
        {in | out, O_RDWR, false, true, true},
        {in | out | trunc, O_RDWR, true, true, true},
        {in | app, O_RDWR | O_APPEND, false, true, true},
        {in | out | app, O_RDWR | O_APPEND, false, true, true},
        {in | nocreate, O_RDONLY, false, false, true},
        {out | trunc | nocreate, O_WRONLY, true, false, true},
        {out | trunc | noreplace, O_WRONLY, false, true, false},
        {in | out | ate, O_RDWR, false, true, true},
        {0, kRefused, false, false, false},
        {trunc, kRefused, false, false, false},
        {in | trunc, kRefused, false, false, false},
        {app | trunc, kRefused, false, false, false},
        {in | 128, kRefused, false, false, false},
    };
    for (const auto& row : kCases) {
        SCOPED_TRACE(row.mode);
        ::unlink(path_.c_str());
        FileLock file;
        EXPECT_EQ(file.OpenFileUnLocked(path_.c_str(), row.mode), row.makes);
        EXPECT_EQ(::access(path_.c_str(), F_OK) == 0, row.makes);
        EXPECT_EQ(file.GetState(), row.makes ? 0 : FileLock::failbit);
        struct stat status {};
        if (row.makes) {
            ASSERT_EQ(file.FileStat(&status), 0);
            EXPECT_EQ(status.st_mode & 0777 & ~0644u, 0u);
        }

        writeText(path_, "old");
        errno = 0;
        EXPECT_EQ(file.OpenFileUnLocked(path_.c_str(), row.mode), row.flags != kRefused && row.replaces);
        EXPECT_EQ(readText(path_), row.empties ? "" : "old");
        if (row.flags == kRefused) {
            EXPECT_EQ(errno, EINVAL);
        }
        if (file.GetFileDescriptor() == -1) continue;
        EXPECT_EQ(::fcntl(file.GetFileDescriptor(), F_GETFL) & (O_ACCMODE | O_APPEND), row.flags);
        EXPECT_EQ(::fcntl(file.GetFileDescriptor(), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(::lseek(file.GetFileDescriptor(), 0, SEEK_CUR), (row.mode & ate) != 0 ? 3 : 0);
    }
}

TEST_F(FileLockOpening, LocksInSevenModesOnlyUntilItIsClosed) {
    LockProbe probe;
    for (int mode = 0; mode < 128; ++mode) {
        SCOPED_TRACE(mode);
        const bool locks =
            mode == 1 || mode == 18 || mode == 19 || mode == 33 || mode == 50 || mode == 51 || mode == 82;
        ::unlink(path_.c_str());
        if ((mode & FileLock::nocreate) != 0 && (mode & FileLock::noreplace) == 0) writeText(path_, "old");
        const CapturedStderr ignored;
        FileLock file;
        EXPECT_EQ(file.OpenAndLockFile(path_.c_str(), mode, nullptr, 0), locks);
        if (file.GetFileDescriptor() == -1) {
            EXPECT_EQ(file.GetState(), FileLock::failbit);
            continue;
        }
        EXPECT_EQ(probe(path_), locks ? "locked" : "free");
        EXPECT_EQ(::fcntl(file.GetFileDescriptor(), F_GETFL) & O_ACCMODE,
                  (mode & FileLock::in) != 0 ? O_RDWR : O_WRONLY);
        EXPECT_TRUE(file.CloseAndUnLockFile());
        EXPECT_EQ(probe(path_), "free");
    }
    {
        const FileLock constructed(path_.c_str(), FileLock::in);
        EXPECT_EQ(probe(path_), "locked");
    }
    EXPECT_EQ(probe(path_), "free");
}

TEST_F(FileLockOpening, WaitsForTheHolderAndEmptiesOnlyThen) {
    writeText(path_, "the holder's text");
    RoleProcess holder{"holdsALock", {path_}};
    ASSERT_EQ(holder.readLine(), "held");
    FileLock file;
    auto opening = std::async(std::launch::async, [&] {
        return file.OpenAndLockFile(path_.c_str(), FileLock::out | FileLock::trunc, nullptr, 0);
    });
    EXPECT_TRUE(withinSeconds(30, [&] { return somebodyWaitsForTheLockOf(path_); }));
    EXPECT_EQ(readText(path_), "the holder's text");
    holder.writeLine("go on");
    EXPECT_TRUE(opening.get());
    EXPECT_EQ(readText(path_), "");
    EXPECT_EQ(holder.wait(), ExitStatus::exited(0));
}

TEST_F(FileLockOpening, CountedOpensNeedAsManyClosesAndUncountedOnesReplaceEachOther) {
    LockProbe probe;
    const std::string other = directory_ / "other";
    FileLock file;
    const auto open = [&](const std::string& path, int count) {
        int already = 0;
        EXPECT_TRUE(file.OpenAndLockFile(path.c_str(), FileLock::in, &already, count));
        return already;
    };
    const int before = openDescriptors();
    EXPECT_EQ(open(path_, 1), 0);
    const int fd = file.GetFileDescriptor();
    EXPECT_EQ(open("ignored", 0), 1);
    EXPECT_EQ(file.GetFileDescriptor(), fd);
    EXPECT_TRUE(file.CloseAndUnLockFile());
    EXPECT_EQ(probe(path_), "locked");
    EXPECT_TRUE(file.CloseAndUnLockFile());
    EXPECT_EQ(probe(path_), "free");
    EXPECT_EQ(file.GetFileDescriptor(), -1);
    EXPECT_FALSE(file.CloseAndUnLockFile());
    for (const bool unlocked : {false, true}) {  // closing at once forgets the count
        EXPECT_EQ(open(path_, 1) + open(path_, 1), 1);
        if (unlocked)
            EXPECT_TRUE(file.CloseFileUnLocked());
        else
            file.CloseFile();
        EXPECT_EQ(file.GetFileDescriptor(), -1);
    }
    EXPECT_EQ(open(path_, 0) + open(other, 0), 0);
    EXPECT_EQ(probe(path_) + probe(other), "freelocked");
    EXPECT_EQ(openDescriptors(), before + 1);
    EXPECT_TRUE(file.CloseAndUnLockFile());
    EXPECT_EQ(probe(other), "free");
}

TEST_F(FileLockOpening, NestedOpensOfManyThreadsOpenTheFileOnceAtATime) {
    constexpr int kThreads = 6;
    const int before = openDescriptors();
    FileLock file;
    std::latch start(kThreads);
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&] {
                start.arrive_and_wait();
                for (int round = 0; round < 500; ++round) {
                    ASSERT_TRUE(file.OpenAndLockFile(path_.c_str(), FileLock::in, nullptr, 1));
                    struct stat status {};
                    ASSERT_EQ(::fstat(file.GetFileDescriptor(), &status), 0) << "closed under a holder";
                    ASSERT_TRUE(file.CloseAndUnLockFile());
                }
            });
        }
    }
    EXPECT_EQ(file.GetFileDescriptor(), -1);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(FileLockOpening, AnOpenThatFailsSaysWhyUnlessTheFileMustNotBeReplaced) {
    writeText(path_, "old");
    const std::string missing = directory_ / "no%sdirectory/file";
    const CapturedStderr messages;
    FileLock file;
    for (const auto& [path, mode, error, expected] : {std::tuple{path_.c_str(), 82, EEXIST, 1},
                                                      {missing.c_str(), 18, ENOENT, 0},
                                                      {nullptr, 1, ENOENT, 0}}) {
        int already = 0;
        EXPECT_FALSE(file.OpenAndLockFile(path, mode, &already, 1));
        EXPECT_EQ(errno, error);
        EXPECT_EQ(already, expected);
        EXPECT_EQ(file.GetFileDescriptor(), -1);
    }
    EXPECT_EQ(readText(path_), "old");
    EXPECT_EQ(messages.text().find("[FileLock::OpenAndLockFile] - Cannot open file " + missing +
                                   ", oflag:0x12, errno: 2,  No such file or directory\n"),
              0u)
        << messages.text();
}

TEST_F(FileLockOpening, WaitsForADescriptorInStepsOfTenMilliseconds) {
    const CapturedStderr messages;
    const auto start = std::chrono::steady_clock::now();
    const FailCall first{Call::Open, EMFILE, {.onCall = 1, .path = path_}};
    const FailCall second{Call::Open, EMFILE, {.onCall = 2, .path = path_}};
    FileLock file;
    EXPECT_TRUE(file.OpenAndLockFile(path_.c_str(), FileLock::in, nullptr, 0));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
    EXPECT_EQ(first.calls(), 3);
    EXPECT_EQ(messages.text(), "");
}

TEST_F(FileLockOpening, ALockThatFailsLeavesTheFileWholeAndClosedAndAnUnlockLeavesItOpen) {
    writeText(path_, "old");
    const int before = openDescriptors();
    FileLock file;
    {
        const FailCall noLocks{Call::Lockf, ENOLCK};
        const CapturedStderr messages;
        EXPECT_FALSE(file.OpenAndLockFile(path_.c_str(), 18, nullptr, 1));
        EXPECT_EQ(errno, ENOLCK);
        EXPECT_EQ(messages.text(), std::string("lock failed, ") + std::strerror(ENOLCK) + "\n");
    }
    EXPECT_EQ(readText(path_), "old");
    EXPECT_EQ(openDescriptors(), before);
    ASSERT_TRUE(file.OpenAndLockFile(path_.c_str(), 18, nullptr, 0));
    {
        const FailCall noLocks{Call::Lockf, ENOLCK};
        EXPECT_FALSE(file.CloseAndUnLockFile());
        EXPECT_EQ(errno, ENOLCK);
    }
    EXPECT_NE(file.GetFileDescriptor(), -1);
    EXPECT_TRUE(file.CloseAndUnLockFile());
}

TEST_F(FileLockOpening, LocksAndUnlocksTheWholeFileWhereverTheStreamStands) {
    LockProbe probe;
    writeText(path_, "ten bytes.");
    FileLock file;
    ASSERT_TRUE(file.OpenFileUnLocked(path_.c_str(), FileLock::in | FileLock::out | FileLock::ate));
    ASSERT_TRUE(file.LockFile());
    EXPECT_EQ(probe(path_), "locked");
    EXPECT_TRUE(file.WriteLine("more", 4));
    EXPECT_TRUE(file.UnLockFile());
    EXPECT_EQ(probe(path_), "free");
    EXPECT_EQ(readText(path_), "ten bytes.more");
    EXPECT_TRUE(file.WriteLine("!", 1));
    EXPECT_TRUE(file.CloseFileUnLocked());
    EXPECT_EQ(readText(path_), "ten bytes.more!");
}

TEST_F(FileLockOpening, AClosedObjectRefusesEverything) {
    FileLock file;
    char buffer[8] = "before";
    struct stat status {};
    EXPECT_EQ(file.GetState() + file.ReadBlk(buffer, 8) + file.WriteBlk(buffer, 8), 0);
    EXPECT_EQ(file.GetFileDescriptor() + file.ReadCharacter() + file.FileStat(&status), -3);
    EXPECT_EQ(file.WriteLine(buffer, 1) + file.LockFile() + file.UnLockFile() + file.Sync(), 0);
    EXPECT_FALSE(file.CloseAndUnLockFile());
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(file.ReadLine(buffer, 8));
    EXPECT_STREQ(buffer, "");
    file.CloseFile();
    EXPECT_TRUE(file.CloseFileUnLocked());
}

}  // namespace
}  // namespace traiklofox::test
