// What goes through an open FileLock: lines, blocks and characters, and what becomes of it when the system
// fails.

#include <gtest/gtest.h>
#include <traiklofox/file_lock.h>

#include <cerrno>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "support/fault_injection.h"
#include "support/temp_dir.h"

namespace traiklofox::test {
namespace {

using faults::Call;
using namespace std::string_literals;

constexpr int kEnd = FileLock::eofbit | FileLock::failbit;
constexpr size_t kBufferSize = 64 * 1024;

class FileLockStream : public testing::Test {
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
    void expectLinesAsOfAStandardStream(const std::string& content, int size);

    TempDir directory_;
    const std::string path_ = directory_ / "file";
    FileLock file_;
};

/// Reads all lines of `content` into a buffer of `size`, and past the first failure; then the same by views.
void FileLockStream::expectLinesAsOfAStandardStream(const std::string& content, int size) {
    std::string buffer(static_cast<size_t>(size), '#'), expected(buffer);
    std::istringstream reference(content);
    std::vector<std::string> lines;
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
    std::vector<std::string> views;
    while (file_.ReadLineView(view, static_cast<size_t>(size) - 1)) views.emplace_back(view);
    EXPECT_EQ(views, lines);
    EXPECT_EQ(file_.GetState(), (reference.eof() ? 1 : 0) | 2);
}

TEST_F(FileLockStream, ReadsLinesAsAStandardStreamDoes) {
    const std::string big(3 * kBufferSize, 'b');
    std::vector<std::string> contents{"",
                                      "\n",
                                      "one\ntwo",
                                      "\n\nx\n\n",
                                      "1234567\nx\n",
                                      "1234567",
                                      "x\n12345678\ny\n",
                                      "x\n12345678",
                                      "a\0b\n\0\n\0"s,
                                      "a\r\nb\r",
                                      "x\n" + big + "\n" + big};
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

/// One operation on a stream, and whether it succeeded.
struct Operation {
    const char* what;
    bool (*succeeds)(FileLock&);
    bool closes = false;
};

TEST_F(FileLockStream, AReadThatFailsIsBadAndNoEndOfFile) {
    static char block[100];
    static std::string_view view;
    const Operation kReads[] = {
        {"ReadLine", [](FileLock& file) { return file.ReadLine(block, 100) != FALSE; }},
        {"ReadLineView", [](FileLock& file) { return file.ReadLineView(view, 100); }},
        {"ReadBlk", [](FileLock& file) { return file.ReadBlk(block, 100) != 0; }},
        {"ReadCharacter", [](FileLock& file) { return file.ReadCharacter() != -1; }},
    };
    std::string twoBuffers;
    while (twoBuffers.size() < 2 * kBufferSize) twoBuffers += "a line\n";
    for (const Operation& read : kReads) {
        for (const int onCall : {1, 2}) {
            SCOPED_TRACE(read.what + std::to_string(onCall));
            open(twoBuffers);
            const FailCall broken{Call::Read, EIO, {.onCall = onCall, .path = path_}};
            while (read.succeeds(file_)) {
            }
            EXPECT_EQ(broken.fired(), 1);
            EXPECT_EQ(errno, EIO);
            EXPECT_TRUE(file_.IsBad());
            EXPECT_FALSE(file_.IsEndOfFile());
            EXPECT_EQ(file_.WriteBlk("x", 1), 0);
        }
    }
}

TEST_F(FileLockStream, EveryOperationThatWritesTellsOfAFullDisk) {
    static const std::string big(2 * kBufferSize, 'b');
    static struct stat status {};
    const auto writeBig = [](FileLock& file) {
        return file.WriteBlk(big.data(), static_cast<int>(big.size())) != 0;
    };
    const Operation kWrites[] = {
        {"Flush", [](FileLock& file) { return file.Flush() != FALSE; }},
        {"Sync", [](FileLock& file) { return file.Sync() != FALSE; }},
        {"FileStat", [](FileLock& file) { return file.FileStat(&status) == 0; }},
        {"UnLockFile", [](FileLock& file) { return file.UnLockFile() != FALSE; }},
        {"ReadCharacter", [](FileLock& file) { return file.ReadCharacter() != -1; }},
        {"a big WriteBlk", writeBig},
        {"CloseAndUnLockFile", [](FileLock& file) { return file.CloseAndUnLockFile() != FALSE; }, true},
        {"CloseFileUnLocked", [](FileLock& file) { return file.CloseFileUnLocked() != FALSE; }, true},
    };
    for (const Operation& write : kWrites) {
        SCOPED_TRACE(write.what);
        openEmptyAndLocked();
        ASSERT_TRUE(file_.WriteLine("0123456789", 10));
        {
            const FailCall full{
                Call::Write, ENOSPC, {.andAllLater = true, .path = path_, .transferAtMost = 4}};
            errno = 0;
            EXPECT_FALSE(write.succeeds(file_));
            EXPECT_EQ(errno, ENOSPC);
        }
        EXPECT_EQ(file_.GetFileDescriptor() == -1, write.closes);
        if (write.closes) continue;
        // There is room again, but what is missing in the middle stays missing.
        EXPECT_TRUE(file_.IsBad());
        EXPECT_FALSE(file_.WriteLine("x", 1));
        EXPECT_EQ(file_.WriteBlk("x", 1), 0);
        EXPECT_FALSE(file_.Flush());
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_FALSE(file_.CloseAndUnLockFile());
        EXPECT_EQ(file_.GetFileDescriptor(), -1);
        EXPECT_EQ(readText(path_), "0123");
    }
    openEmptyAndLocked();  // one that fails past the buffer fails those behind it
    const FailCall full{Call::Write, ENOSPC, {.path = path_}};
    EXPECT_FALSE(writeBig(file_));
    EXPECT_EQ(file_.WriteBlk("x", 1), 0);
    EXPECT_FALSE(file_.CloseAndUnLockFile());
    EXPECT_EQ(readText(path_), "");
}

TEST_F(FileLockStream, TellsOfAnErrorThatComesWithTheCloseOrTheSync) {
    openEmptyAndLocked();
    {
        const FailCall late{Call::Fdatasync, EIO};
        EXPECT_FALSE(file_.Sync());
        EXPECT_EQ(errno, EIO);
    }
    EXPECT_FALSE(file_.Sync()) << "a second try proves nothing about what the first one lost";

    openEmptyAndLocked();
    const FailCall late{Call::Close, EDQUOT, {.path = path_}};
    EXPECT_FALSE(file_.CloseAndUnLockFile());
    EXPECT_EQ(errno, EDQUOT);
}

}  // namespace
}  // namespace traiklofox::test
