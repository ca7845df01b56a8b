// What goes through an open FileLock: lines, blocks and characters, and what becomes of it when the system
// fails.

#include <gtest/gtest.h>
#include <traiklofox/file_lock.h>

#include <cerrno>
#include <cstring>
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
constexpr int kTooLong = FileLock::failbit;
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

    TempDir directory_;
    const std::string path_ = directory_ / "file";
    FileLock file_;
};

/// Reads all lines into a buffer of `size` characters. Since lines may hold NULs, `expected` gives their
/// lengths.
std::vector<std::string> readLines(FileLock& file, int size, const std::vector<std::string>& expected) {
    std::vector<std::string> lines;
    std::string buffer(static_cast<size_t>(size), '#');
    while (file.ReadLine(buffer.data(), size)) {
        const size_t length =
            lines.size() < expected.size() ? expected[lines.size()].size() : std::strlen(buffer.data());
        EXPECT_EQ(buffer[length], '\0');
        lines.push_back(buffer.substr(0, length));
    }
    return lines;
}

std::vector<std::string> viewLines(FileLock& file, size_t longest) {
    std::vector<std::string> lines;
    std::string_view line;
    while (file.ReadLineView(line, longest)) lines.emplace_back(line);
    return lines;
}

TEST_F(FileLockStream, ReadsLinesThatFitAndFailsAtOneThatDoesNot) {
    const std::string big(3 * kBufferSize, 'b');
    const struct {
        const char* what;
        std::string content;
        int size;
        std::vector<std::string> lines;
        int state;
    } kCases[] = {
        {"nothing", "", 8, {}, kEnd},
        {"only a line feed", "\n", 8, {""}, kEnd},
        {"no line feed at the end", "one\ntwo", 8, {"one", "two"}, kEnd},
        {"line feed at the end", "one\ntwo\n", 8, {"one", "two"}, kEnd},
        {"empty lines", "\n\nx\n\n", 8, {"", "", "x", ""}, kEnd},
        {"exactly size - 1", "1234567\nx\n", 8, {"1234567", "x"}, kEnd},
        {"exactly size - 1 at the end", "1234567", 8, {"1234567"}, kEnd},
        {"exactly size", "x\n12345678\ny\n", 8, {"x"}, kTooLong},
        {"exactly size at the end", "x\n12345678", 8, {"x"}, kTooLong},
        {"NULs", "a\0b\n\0\n\0"s, 8, {"a\0b"s, "\0"s, "\0"s}, kEnd},
        {"carriage return", "a\r\nb\r", 8, {"a\r", "b\r"}, kEnd},
        {"room for the NUL only", "\n\nx\n", 1, {"", ""}, kTooLong},
        {"longer than the buffer", "x\n" + big + "\n" + big, 200'000, {"x", big, big}, kEnd},
        {"too long for the buffer and the caller", "x\n" + big, 100'000, {"x"}, kTooLong},
    };
    for (const auto& row : kCases) {
        SCOPED_TRACE(row.what);
        open(row.content);
        EXPECT_EQ(readLines(file_, row.size, row.lines), row.lines);
        EXPECT_EQ(file_.GetState(), row.state);
        EXPECT_EQ(file_.IsEndOfFile(), row.state == kEnd);

        open(row.content);
        EXPECT_EQ(viewLines(file_, static_cast<size_t>(row.size) - 1), row.lines);
        EXPECT_EQ(file_.GetState(), row.state);
    }
}

TEST_F(FileLockStream, GivesTheBeginningOfALineThatDoesNotFit) {
    open("12345678\n");
    char buffer[] = "########";
    EXPECT_FALSE(file_.ReadLine(buffer, 5));
    EXPECT_STREQ(buffer, "1234");
    EXPECT_FALSE(file_.ReadLine(buffer, 5)) << "the stream has failed";
    EXPECT_STREQ(buffer, "");
}

TEST_F(FileLockStream, TheEndOnceReadIsTheEnd) {
    open("last");
    char line[8];
    EXPECT_TRUE(file_.ReadLine(line, 8));
    writeText(path_, "last line\n");  // grown meanwhile
    EXPECT_FALSE(file_.ReadLine(line, 8));
    EXPECT_EQ(file_.GetState(), kEnd);
}

TEST_F(FileLockStream, ReadsEveryTextAsTheStandardStreamDoes) {
    std::minstd_rand random(4711);
    std::string buffer(300, '#'), expected(300, '#');
    for (int round = 0; round < 300; ++round) {
        const unsigned averageLength = 1u << random() % 8;
        std::string content(random() % 2000, 'x');
        for (char& character : content)
            if (random() % averageLength == 0) character = '\n';
        const int size = static_cast<int>(1 + random() % 299);

        open(content);
        std::istringstream reference(content);
        for (int line = 0; file_.GetState() < FileLock::failbit; ++line) {
            ASSERT_EQ(file_.ReadLine(buffer.data(), size), !reference.getline(expected.data(), size).fail());
            ASSERT_STREQ(buffer.c_str(), expected.c_str()) << "round " << round << ", line " << line;
            ASSERT_EQ(file_.GetState(), (reference.eof() ? 1 : 0) | (reference.fail() ? 2 : 0));
        }
    }
}

TEST_F(FileLockStream, ReadsBlocksAndAShortOneAtTheEnd) {
    const std::string content = std::string(kBufferSize + 10, 'a') + "line\nrest";
    open(content);
    std::string block(kBufferSize + 10, '#');
    EXPECT_EQ(file_.ReadBlk(block.data(), static_cast<int>(block.size())), static_cast<int>(block.size()));
    EXPECT_EQ(block, content.substr(0, block.size()));
    char line[8];
    EXPECT_TRUE(file_.ReadLine(line, 8));
    EXPECT_STREQ(line, "line");
    EXPECT_EQ(file_.ReadCharacter(), 'r');
    EXPECT_EQ(file_.ReadBlk(block.data(), 0), 0);
    EXPECT_EQ(file_.ReadBlk(block.data(), -1), 0);
    EXPECT_EQ(file_.ReadBlk(block.data(), 100), 3);
    EXPECT_EQ(block.substr(0, 3), "est");
    EXPECT_EQ(file_.ReadBlk(block.data(), 100), 0);
    EXPECT_EQ(file_.GetState(), kEnd);
}

TEST_F(FileLockStream, ReadsCharactersAsSignedValues) {
    open("A\xE9\xFF");
    EXPECT_EQ(file_.ReadCharacter(), 'A');
    EXPECT_EQ(file_.ReadCharacter(), -23);
    EXPECT_EQ(file_.ReadCharacter(), -1);
    EXPECT_EQ(file_.GetState(), 0) << "that was a character";
    EXPECT_EQ(file_.ReadCharacter(), -1);
    EXPECT_EQ(file_.GetState(), kEnd);
}

TEST_F(FileLockStream, WritesWhereTheReaderStandsAndReadsOnBehind) {
    open("one\ntwo\nthree\n");
    char line[8];
    ASSERT_TRUE(file_.ReadLine(line, 8));
    EXPECT_TRUE(file_.WriteLine("TWO", 3));
    EXPECT_EQ(file_.ReadCharacter(), '\n');
    ASSERT_TRUE(file_.ReadLine(line, 8));
    EXPECT_STREQ(line, "three");
    EXPECT_EQ(file_.ReadCharacter(), -1);
    EXPECT_FALSE(file_.WriteLine("no", 2)) << "the stream has failed";
    EXPECT_EQ(file_.WriteBlk("four", 4), 4) << "a block goes by the bad bit alone";
    ASSERT_TRUE(file_.Flush());
    EXPECT_EQ(readText(path_), "one\nTWO\nthree\nfour");
}

TEST_F(FileLockStream, WritesPiecesOfEverySizeInOrder) {
    openEmptyAndLocked();
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
    EXPECT_TRUE(file_.CloseAndUnLockFile());
    EXPECT_EQ(readText(path_), expected);
}

TEST_F(FileLockStream, ContinuesAShortWrite) {
    openEmptyAndLocked();
    const FailCall cut{Call::Write, 0, {.path = path_, .transferAtMost = 3}};
    EXPECT_TRUE(file_.WriteLine("0123456789", 10));
    EXPECT_TRUE(file_.Sync());
    EXPECT_EQ(cut.fired(), 1);
    EXPECT_EQ(readText(path_), "0123456789");
}

TEST_F(FileLockStream, AReadThatFailsIsBadAndNoEndOfFile) {
    const struct {
        const char* what;
        bool (*read)(FileLock&);
    } kCases[] = {
        {"ReadLine",
         [](FileLock& file) {
             char line[100];
             return file.ReadLine(line, 100) != FALSE;
         }},
        {"ReadLineView",
         [](FileLock& file) {
             std::string_view line;
             return file.ReadLineView(line, 100);
         }},
        {"ReadBlk",
         [](FileLock& file) {
             char block[100];
             return file.ReadBlk(block, 100) != 0;
         }},
        {"ReadCharacter", [](FileLock& file) { return file.ReadCharacter() != -1; }},
    };
    std::string twoBuffers;
    while (twoBuffers.size() < 2 * kBufferSize) twoBuffers += "a line\n";
    for (const auto& row : kCases) {
        SCOPED_TRACE(row.what);
        for (const int onCall : {1, 2}) {
            open(twoBuffers);
            const FailCall broken{Call::Read, EIO, {.onCall = onCall, .path = path_}};
            while (row.read(file_)) {
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
    const struct {
        const char* what;
        bool (*act)(FileLock&);
        bool closes;
    } kCases[] = {
        {"Flush", [](FileLock& file) { return file.Flush() != FALSE; }, false},
        {"Sync", [](FileLock& file) { return file.Sync() != FALSE; }, false},
        {"FileStat",
         [](FileLock& file) {
             struct stat status {};
             return file.FileStat(&status) == 0;
         },
         false},
        {"UnLockFile", [](FileLock& file) { return file.UnLockFile() != FALSE; }, false},
        {"ReadCharacter", [](FileLock& file) { return file.ReadCharacter() != -1; }, false},
        {"a big WriteBlk",
         [](FileLock& file) {
             const std::string big(kBufferSize, 'b');
             return file.WriteBlk(big.data(), static_cast<int>(big.size())) != 0;
         },
         false},
        {"CloseAndUnLockFile", [](FileLock& file) { return file.CloseAndUnLockFile() != FALSE; }, true},
        {"CloseFileUnLocked", [](FileLock& file) { return file.CloseFileUnLocked() != FALSE; }, true},
    };
    for (const auto& row : kCases) {
        SCOPED_TRACE(row.what);
        openEmptyAndLocked();
        ASSERT_TRUE(file_.WriteLine("0123456789", 10));
        {
            const FailCall full{
                Call::Write, ENOSPC, {.andAllLater = true, .path = path_, .transferAtMost = 4}};
            errno = 0;
            EXPECT_FALSE(row.act(file_));
            EXPECT_EQ(errno, ENOSPC);
        }
        EXPECT_EQ(file_.GetFileDescriptor() == -1, row.closes);
        if (row.closes) continue;
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
}

TEST_F(FileLockStream, AWriteThatFailsPastTheBufferFailsThoseBehindIt) {
    openEmptyAndLocked();
    const FailCall full{Call::Write, ENOSPC, {.path = path_}};
    const std::string big(2 * kBufferSize, 'b');
    EXPECT_EQ(file_.WriteBlk(big.data(), static_cast<int>(big.size())), 0);
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
