// Opening, locking, counting and closing; then what goes through the stream, and what becomes of it when the system
// fails.

#include <sys/wait.h>
#include <traiklofox/file_lock.h>

#include <fstream>
#include <future>
#include <latch>
#include <random>
#include <sstream>
#include <tuple>

#include "files/file_fixture.h"

namespace traiklofox::test {
namespace {

using namespace std::string_literals;

// Locks the file that it is given until it hears something.
TEST_ROLE(holdsALock) {
    FileLock file;
    if (!file.OpenAndLockFile(args.at(0).c_str(), FileLock::in, nullptr, 0)) return 1;
    tellTest("held");
    (void)hearTest();
    return file.CloseAndUnLockFile() ? 0 : 2;
}

/// Whether another process finds the file locked.
bool isLocked(const std::string& path) {
    const pid_t other = ::fork();
    if (other == 0) {
        const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        ::_exit(fd < 0 ? 2 : ::lockf(fd, F_TEST, 0) != 0);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(other, &status, 0), other);
    EXPECT_LT(WEXITSTATUS(status), 2) << path;
    return status != 0;
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

using FileLockOpening = FileTest;

TEST_F(FileLockOpening, MapsEachModeToItsFlags) {
    using enum FileLock::Mode;
    constexpr int kRefused = -1;
    // clang-format off
    const struct {
        int mode;
        int flags;  // access and O_APPEND, or kRefused
        std::string_view does = "makes";  // a missing file; "empties", "refuses" an existing one
    } kCases[] = {
        {in, O_RDONLY}, {out, O_WRONLY, "makes, empties"}, {out | trunc, O_WRONLY, "makes, empties"},
        {app, O_WRONLY | O_APPEND}, {out | app, O_WRONLY | O_APPEND}, {in | out, O_RDWR},
        {in | out | trunc, O_RDWR, "makes, empties"}, {in | app, O_RDWR | O_APPEND},
        {in | out | app, O_RDWR | O_APPEND}, {in | nocreate, O_RDONLY, ""}, {in | out | ate, O_RDWR},
        {out | trunc | nocreate, O_WRONLY, "empties"}, {out | trunc | noreplace, O_WRONLY, "makes, refuses"},
        {0, kRefused, ""}, {trunc, kRefused, ""}, {in | trunc, kRefused, ""}, {app | trunc, kRefused, ""},
        {in | 128, kRefused, ""}};
    // clang-format on
    for (const auto& row : kCases) {
        SCOPED_TRACE(row.mode);
        const auto does = [&](const char* what) { return row.does.find(what) != std::string_view::npos; };
        ::unlink(path_.c_str());
        FileLock file;
        EXPECT_EQ(file.OpenFileUnLocked(path_.c_str(), row.mode), does("makes"));
        EXPECT_EQ(fs::exists(path_), does("makes"));
        EXPECT_EQ(file.GetState(), does("makes") ? 0 : FileLock::failbit);
        if (does("makes")) {
            EXPECT_EQ(fs::status(path_).permissions() & ~fs::perms{0644}, fs::perms::none);
        }
        writeText(path_, "old");
        errno = 0;
        EXPECT_EQ(file.OpenFileUnLocked(path_.c_str(), row.mode), row.flags != kRefused && !does("refuses"));
        EXPECT_EQ(errno == EINVAL, row.flags == kRefused);
        EXPECT_EQ(readText(path_), does("empties") ? "" : "old");
        const int fd = file.GetFileDescriptor();
        if (fd == -1) continue;
        EXPECT_EQ(::fcntl(fd, F_GETFL) & (O_ACCMODE | O_APPEND), row.flags);
        EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), (row.mode & ate) != 0 ? 3 : 0);
    }
}

TEST_F(FileLockOpening, LocksInSevenModesOnlyUntilItIsClosed) {
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
        EXPECT_EQ(isLocked(path_), locks);
        EXPECT_EQ(::fcntl(file.GetFileDescriptor(), F_GETFL) & O_ACCMODE,
                  (mode & FileLock::in) != 0 ? O_RDWR : O_WRONLY);
        EXPECT_TRUE(file.CloseAndUnLockFile());
        EXPECT_FALSE(isLocked(path_));
    }
    {
        const FileLock constructed(path_.c_str(), FileLock::in);
        EXPECT_TRUE(isLocked(path_));
    }
    EXPECT_FALSE(isLocked(path_));
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
    EXPECT_TRUE(file.CloseAndUnLockFile() && isLocked(path_));
    EXPECT_TRUE(file.CloseAndUnLockFile() && !isLocked(path_));
    EXPECT_TRUE(!file.CloseAndUnLockFile() && file.GetFileDescriptor() == -1);
    for (const bool unlocked : {false, true}) {  // closing at once forgets the count
        EXPECT_EQ(open(path_, 1) + open(path_, 1), 1);
        if (unlocked)
            EXPECT_TRUE(file.CloseFileUnLocked());
        else
            file.CloseFile();
        EXPECT_EQ(file.GetFileDescriptor(), -1);
    }
    EXPECT_FALSE(
        file.OpenAndLockFile(path_.c_str(), FileLock::out, nullptr, 1));  // open and counted, not locked
    EXPECT_TRUE(file.WriteLine("kept", 4) && file.Flush());
    EXPECT_TRUE(file.OpenAndLockFile(path_.c_str(), FileLock::out, nullptr, 1));
    EXPECT_TRUE(file.CloseAndUnLockFile() && file.CloseAndUnLockFile());
    EXPECT_EQ(readText(path_), "kept");
    EXPECT_EQ(open(path_, 0) + open(other, 0), 0);
    EXPECT_TRUE(!isLocked(path_) && isLocked(other));
    EXPECT_EQ(openDescriptors(), before + 1);
    EXPECT_TRUE(file.CloseAndUnLockFile() && !isLocked(other));
}

TEST_F(FileLockOpening, NestedOpensOfManyThreadsOpenTheFileOnceAtATime) {
    constexpr int kThreads = 6;
    const int before = openDescriptors();
    FileLock file;
    std::latch start(kThreads);
    const auto openAndClose = [&] {
        start.arrive_and_wait();
        for (int round = 0; round < 500; ++round) {
            ASSERT_TRUE(file.OpenAndLockFile(path_.c_str(), FileLock::in, nullptr, 1));
            ASSERT_NE(::fcntl(file.GetFileDescriptor(), F_GETFD), -1) << "closed under a holder";
            ASSERT_TRUE(file.CloseAndUnLockFile());
        }
    };
    {
        std::vector<std::jthread> threads;
        while (threads.size() < kThreads) threads.emplace_back(openAndClose);
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
        EXPECT_EQ(errorOf(file.OpenAndLockFile(path, mode, &already, 1)), error);
        EXPECT_EQ(already, expected);
        EXPECT_EQ(file.GetFileDescriptor(), -1);
    }
    EXPECT_EQ(readText(path_), "old");
    EXPECT_TRUE(messages.text().starts_with("[FileLock::OpenAndLockFile] - Cannot open file " + missing +
                                            ", oflag:0x12, errno: 2,  No such file or directory\n"))
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
        EXPECT_EQ(errorOf(file.OpenAndLockFile(path_.c_str(), 18, nullptr, 1)), ENOLCK);
        EXPECT_EQ(messages.text(), std::string("lock failed, ") + std::strerror(ENOLCK) + "\n");
    }
    EXPECT_EQ(readText(path_), "old");
    EXPECT_EQ(openDescriptors(), before);
    ASSERT_TRUE(file.OpenAndLockFile(path_.c_str(), 18, nullptr, 0));
    {
        const FailCall noLocks{Call::Lockf, ENOLCK};
        EXPECT_EQ(errorOf(file.CloseAndUnLockFile()), ENOLCK);
    }
    EXPECT_NE(file.GetFileDescriptor(), -1);
    EXPECT_TRUE(file.CloseAndUnLockFile());
}

TEST_F(FileLockOpening, LocksAndUnlocksTheWholeFileWhereverTheStreamStands) {
    writeText(path_, "ten bytes.");
    FileLock file;
    ASSERT_TRUE(file.OpenFileUnLocked(path_.c_str(), FileLock::in | FileLock::out | FileLock::ate));
    EXPECT_TRUE(file.LockFile() && isLocked(path_));
    EXPECT_TRUE(file.WriteLine("more", 4));
    EXPECT_TRUE(file.UnLockFile() && !isLocked(path_));
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
    EXPECT_EQ(errorOf(file.CloseAndUnLockFile()), EBADF);
    EXPECT_TRUE(!file.ReadLine(buffer, 8) && *buffer == '\0');
    file.CloseFile();
    EXPECT_TRUE(file.CloseFileUnLocked());
}

constexpr int kEnd = FileLock::eofbit | FileLock::failbit;
constexpr size_t kBufferSize = 64 * 1024;

class FileLockStream : public FileTest {
  protected:
    /// Opens the file, holding `content`, for reading and writing from its beginning.
    void open(std::string_view content) {
        writeText(path_, content);
        ASSERT_TRUE(file_.OpenFileUnLocked(path_.c_str(), FileLock::in | FileLock::out));
    }
    void openEmptyAndLocked() {
        ASSERT_TRUE(
            file_.OpenAndLockFile(path_.c_str(), FileLock::in | FileLock::out | FileLock::trunc, nullptr, 0));
    }
    std::string readLine() {
        char line[100];
        return file_.ReadLine(line, sizeof line) ? line : "(none)";
    }
    /// Reads all lines of `content` into a buffer of `size`, and past the first failure; then the same by views.
    void expectLinesAsOfAStandardStream(const std::string& content, int size) {
        std::string buffer(static_cast<size_t>(size), '#'), expected(buffer);
        std::istringstream reference(content);
        std::vector<std::string> lines, views;
        open(content);
        for (int failures = 0; failures < 2;) {
            const bool isLine = !reference.getline(expected.data(), size).fail();
            ASSERT_EQ(file_.ReadLine(buffer.data(), size), isLine);
            const std::string line(expected, 0, static_cast<size_t>(reference.gcount()) - reference.good());
            ASSERT_EQ(buffer.substr(0, line.size() + 1), line + '\0');
            ASSERT_EQ(file_.GetState(), (reference.eof() ? 1 : 0) | (reference.fail() ? 2 : 0));
            ASSERT_EQ(file_.IsEndOfFile(), reference.eof());
            if (isLine)
                lines.push_back(line);
            else
                ++failures;
        }
        open(content);
        std::string_view view;
        while (file_.ReadLineView(view, static_cast<size_t>(size) - 1)) views.emplace_back(view);
        EXPECT_EQ(views, lines);
        EXPECT_EQ(file_.GetState(), (reference.eof() ? 1 : 0) | 2);
    }

    FileLock file_;
};

TEST_F(FileLockStream, ReadsLinesAsAStandardStreamDoes) {
    const std::string big(3 * kBufferSize, 'b');
    // clang-format off
    std::vector<std::string> contents{"", "\n", "one\ntwo", "\n\nx\n\n", "1234567\nx\n", "1234567", "a\r\nb\r",
        "x\n12345678\ny\n", "x\n12345678", "a\0b\n\0\n\0"s, "x\n" + big + "\n" + big};
    // clang-format on
    std::minstd_rand random(4711);
    while (contents.size() < 100) {
        const unsigned averageLength = 1u << random() % 8;
        std::string& content = contents.emplace_back(random() % 2000, 'x');
        for (char& character : content)
            if (random() % averageLength == 0) character = '\n';
    }
    for (size_t i = 0; i < contents.size(); ++i) {
        for (const int size : {1, 8, static_cast<int>(1 + random() % 299), 100'000, 200'000}) {
            SCOPED_TRACE("content " + std::to_string(i) + ", size " + std::to_string(size));
            ASSERT_NO_FATAL_FAILURE(expectLinesAsOfAStandardStream(contents[i], size));
        }
    }
}

TEST_F(FileLockStream, ReadsBlocksAndCharactersUntilTheEndWhichStaysTheEnd) {
    const std::string content = std::string(kBufferSize + 10, 'a') + "line\nA\xE9\xFFrest";
    open(content);
    std::string block(kBufferSize + 10, '#');
    EXPECT_EQ(file_.ReadBlk(block.data(), static_cast<int>(block.size())), static_cast<int>(block.size()));
    EXPECT_EQ(block, content.substr(0, block.size()));
    EXPECT_EQ(readLine(), "line");
    for (const int character : {+'A', -23, -1}) EXPECT_EQ(file_.ReadCharacter(), character);
    EXPECT_EQ(file_.GetState(), 0) << "that was a character";
    EXPECT_EQ(file_.ReadBlk(block.data(), 0) + file_.ReadBlk(block.data(), -1), 0);
    EXPECT_EQ(file_.ReadBlk(block.data(), 100), 4);
    EXPECT_EQ(block.substr(0, 4), "rest");
    writeText(path_, content + "grown meanwhile");
    EXPECT_EQ(file_.ReadBlk(block.data(), 100), 0);
    EXPECT_EQ(file_.ReadCharacter(), -1);
    EXPECT_EQ(readLine(), "(none)");
    EXPECT_EQ(file_.GetState(), kEnd);
}

TEST_F(FileLockStream, WritesWhereTheReaderStandsAndReadsOnBehind) {
    open("one\ntwo\nthree\n");
    EXPECT_EQ(readLine(), "one");
    EXPECT_TRUE(file_.WriteLine("TWO", 3));
    EXPECT_EQ(file_.ReadCharacter(), '\n');
    EXPECT_EQ(readLine(), "three");
    EXPECT_EQ(file_.ReadCharacter(), -1);
    EXPECT_FALSE(file_.WriteLine("no", 2)) << "the stream has failed";
    EXPECT_EQ(file_.WriteBlk("four", 4), 4) << "a block goes by the bad bit alone";
    ASSERT_TRUE(file_.Flush());
    EXPECT_EQ(readText(path_), "one\nTWO\nthree\nfour");
}

TEST_F(FileLockStream, WritesPiecesOfEverySizeInOrderAndContinuesAShortWrite) {
    openEmptyAndLocked();
    const FailCall cut{Call::Write, 0, {.path = path_, .transferAtMost = 3}};
    std::string expected;
    int digit = 0;
    for (const size_t size : std::initializer_list<size_t>{1, 0, 100, kBufferSize - 102, 1, kBufferSize,
                                                           3 * kBufferSize + 1, 5}) {
        const std::string piece(size, static_cast<char>('0' + digit++));
        EXPECT_EQ(file_.WriteBlk(piece.data(), static_cast<int>(size)), static_cast<int>(size));
        expected += piece;
    }
    struct stat status {};
    ASSERT_EQ(file_.FileStat(&status), 0);
    EXPECT_EQ(static_cast<size_t>(status.st_size), expected.size()) << "measured with text in the buffer";
    EXPECT_TRUE(file_.WriteLine("last", 4));
    EXPECT_TRUE(file_.Sync());
    EXPECT_EQ(readText(path_), expected + "last");
    EXPECT_TRUE(file_.CloseAndUnLockFile());
    EXPECT_EQ(cut.fired(), 1);
}

/// One operation on the stream, and whether it succeeded.
struct Operation {
    const char* what;
    std::function<bool()> succeeds;
    bool closes = false;
};

TEST_F(FileLockStream, AReadThatFailsIsBadAndNoEndOfFile) {
    char block[100];
    std::string_view view;
    const Operation kReads[] = {{"ReadLine", [&] { return file_.ReadLine(block, 100); }},
                                {"ReadLineView", [&] { return file_.ReadLineView(view, 100); }},
                                {"ReadBlk", [&] { return file_.ReadBlk(block, 100); }},
                                {"ReadCharacter", [&] { return file_.ReadCharacter() != -1; }}};
    std::string twoBuffers;
    while (twoBuffers.size() < 2 * kBufferSize) twoBuffers += "a line\n";
    for (const Operation& read : kReads) {
        for (const int onCall : {1, 2}) {
            SCOPED_TRACE(read.what + std::to_string(onCall));
            open(twoBuffers);
            const FailCall broken{Call::Read, EIO, {.onCall = onCall, .path = path_}};
            while (read.succeeds()) continue;
            EXPECT_EQ(broken.fired(), 1);
            EXPECT_EQ(errno, EIO);
            EXPECT_TRUE(file_.IsBad() && !file_.IsEndOfFile());
            EXPECT_EQ(file_.WriteBlk("x", 1), 0);
        }
    }
}

TEST_F(FileLockStream, EveryOperationThatWritesTellsOfAFullDisk) {
    const std::string big(2 * kBufferSize, 'b');
    struct stat status {};
    const auto writeBig = [&] { return file_.WriteBlk(big.data(), static_cast<int>(big.size())); };
    const Operation kWrites[] = {
        {"Flush", [&] { return file_.Flush(); }},
        {"Sync", [&] { return file_.Sync(); }},
        {"FileStat", [&] { return file_.FileStat(&status) == 0; }},
        {"UnLockFile", [&] { return file_.UnLockFile(); }},
        {"ReadCharacter", [&] { return file_.ReadCharacter() != -1; }},
        {"a big WriteBlk", writeBig},
        {"CloseAndUnLockFile", [&] { return file_.CloseAndUnLockFile(); }, /*closes=*/true},
        {"CloseFileUnLocked", [&] { return file_.CloseFileUnLocked(); }, /*closes=*/true}};
    for (const Operation& write : kWrites) {
        SCOPED_TRACE(write.what);
        openEmptyAndLocked();
        ASSERT_TRUE(file_.WriteLine("0123456789", 10));
        {
            const FailCall full{
                Call::Write, ENOSPC, {.andAllLater = true, .path = path_, .transferAtMost = 4}};
            errno = 0;
            EXPECT_EQ(errorOf(write.succeeds()), ENOSPC);
        }
        EXPECT_EQ(file_.GetFileDescriptor() == -1, write.closes);
        if (write.closes) continue;
        // There is room again, but what is missing in the middle stays missing.
        EXPECT_TRUE(file_.IsBad() && !file_.WriteLine("x", 1) && file_.WriteBlk("x", 1) == 0);
        EXPECT_EQ(errorOf(file_.Flush()), ENOSPC);
        EXPECT_TRUE(!file_.CloseAndUnLockFile() && file_.GetFileDescriptor() == -1);
        EXPECT_EQ(readText(path_), "0123");
    }
    openEmptyAndLocked();  // one that fails past the buffer fails those behind it
    const FailCall full{Call::Write, ENOSPC, {.path = path_}};
    EXPECT_TRUE(!writeBig() && file_.WriteBlk("x", 1) == 0 && !file_.CloseAndUnLockFile());
    EXPECT_EQ(readText(path_), "");
}

TEST_F(FileLockStream, TellsOfAnErrorThatComesWithTheCloseOrTheSync) {
    openEmptyAndLocked();
    {
        const FailCall late{Call::Fdatasync, EIO};
        EXPECT_EQ(errorOf(file_.Sync()), EIO);
    }
    EXPECT_FALSE(file_.Sync()) << "a second try proves nothing about what the first one lost";

    openEmptyAndLocked();
    const FailCall late{Call::Close, EDQUOT, {.path = path_}};
    EXPECT_EQ(errorOf(file_.CloseAndUnLockFile()), EDQUOT);
}

}  // namespace
}  // namespace traiklofox::test
