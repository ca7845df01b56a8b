#include <gtest/gtest.h>
#include <sys/stat.h>
#include <traiklofox/file_attributes.h>
#include <traiklofox/move_file.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "files/file_attributes.h"
#include "support/captured_output.h"
#include "support/fault_injection.h"
#include "support/temp_dir.h"

namespace traiklofox::test {
namespace {

using faults::Call;

/// What the file holds, or "-" without one.
std::string contentOf(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0 ? readText(path) : "-";
}

class MoveFileTest : public testing::Test {
  protected:
    std::string left() const { return contentOf(from_) + " " + contentOf(to_); }

    TempDir directory_;
    const std::string from_ = directory_ / "from";
    const std::string to_ = directory_ / "to";
};

TEST_F(MoveFileTest, FlagsDecideWhetherAndHowItIsMoved) {
    constexpr DWORD kReplace = MOVEFILE_REPLACE_EXISTING;
    const std::string unsupported = "MoveFileEx: called with unsupported dwflags\n";
    const struct {
        DWORD flags;
        int renameError;
        Call alsoFails;
        int error;
        std::string left, message = {};
    } kCases[] = {
        {0, 0, Call::Fork, 0, "new old"},
        {MOVEFILE_COPY_ALLOWED, 0, Call::Fork, 0, "new old"},
        {MOVEFILE_WRITE_THROUGH, 0, Call::Fork, 0, "new old", unsupported},
        {kReplace, 0, Call::Fork, 0, "- new"},
        {kReplace | MOVEFILE_DELAY_UNTIL_REBOOT, 0, Call::Fork, 0, "- new", unsupported},
        {kReplace, EXDEV, Call::Fork, EXDEV, "new old"},
        {kReplace | MOVEFILE_COPY_ALLOWED, EACCES, Call::Fork, EACCES, "new old"},
        {kReplace | MOVEFILE_COPY_ALLOWED, EXDEV, Call::Fork, 0, "- new"},
        {kReplace | MOVEFILE_COPY_ALLOWED, EXDEV, Call::Write, EIO, "new "},
        {kReplace | MOVEFILE_COPY_ALLOWED, EXDEV, Call::Unlink, EIO, "new new"},
    };
    for (const auto& row : kCases) {
        SCOPED_TRACE(testing::Message() << row.flags << ' ' << row.renameError << ' ' << row.left);
        writeText(from_, "new");
        writeText(to_, "old");
        {
            const CapturedStderr messages;
            const FailCall rename{Call::Rename, row.renameError,
                                  faults::Options{.onCall = row.renameError != 0 ? 1 : 1000, .path = to_}};
            const FailCall also{row.alsoFails, EIO, faults::Options{.path = directory_.path()}};
            EXPECT_EQ(MoveFileEx(from_.c_str(), to_.c_str(), row.flags), row.error == 0);
            if (row.error != 0) {
                EXPECT_EQ(errno, row.error);
            }
            EXPECT_EQ(messages.text(), row.message);
        }
        EXPECT_EQ(left(), row.left);
    }
    EXPECT_FALSE(MoveFileEx(nullptr, to_.c_str(), kReplace));
    EXPECT_FALSE(MoveFileEx(from_.c_str(), nullptr, kReplace));
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(MoveFileTest, WithoutFlagsNothingIsReplaced) {
    const struct {
        const char* old;  // at the new name; null: nothing
        int renameError;  // 0: the system's own
        int error;
        const char* left;
    } kCases[] = {
        {nullptr, 0, 0, "- new"},
        {"old", 0, EEXIST, "new old"},
        {nullptr, EINVAL, 0, "- new"},
        {"old", EINVAL, EEXIST, "new old"},  // a file system that cannot tell
        {nullptr, EXDEV, 0, "- new"},
        {"old", EXDEV, EEXIST, "new old"},
        {nullptr, EACCES, EACCES, "new -"},
    };
    for (const auto& row : kCases) {
        SCOPED_TRACE(testing::Message() << row.left << ' ' << row.renameError);
        writeText(from_, "new");
        ::unlink(to_.c_str());
        if (row.old != nullptr) writeText(to_, row.old);
        {
            const FailCall rename{Call::Rename, row.renameError,
                                  faults::Options{.onCall = row.renameError != 0 ? 1 : 1000, .path = to_}};
            EXPECT_EQ(MoveFile(from_.c_str(), to_.c_str()), row.error == 0);
            if (row.error != 0) {
                EXPECT_EQ(errno, row.error);
            }
        }
        EXPECT_EQ(left(), row.left);
    }
    writeText(from_, "");
    EXPECT_TRUE(DeleteFile(from_.c_str()));
    EXPECT_FALSE(DeleteFile(from_.c_str()));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(DeleteFile(nullptr));
}

TEST(FileAttributes, FollowFromTheModeAndBack) {
    const TempDir directory;
    const std::string file = directory / "file", sub = directory / "sub", pipe = directory / "pipe";
    writeText(file, "");
    ASSERT_EQ(::mkdir(sub.c_str(), 0755), 0);
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0644), 0);
    const auto modeOf = [](const std::string& path) {
        struct stat status {};
        EXPECT_EQ(::stat(path.c_str(), &status), 0);
        return status.st_mode & 07777;
    };
    const struct {
        const std::string& path;
        mode_t mode;
        DWORD attributes;
    } kTold[] = {
        {file, 0755, 0xA0}, {file, 0644, 0x80}, {file, 0001, 0xA0},  {file, 0000, 0x80},
        {sub, 0755, 0x120}, {sub, 0600, 0x100}, {pipe, 0644, 0x000}, {pipe, 0744, 0x020},
    };
    for (const auto& row : kTold) {
        ASSERT_EQ(::chmod(row.path.c_str(), row.mode), 0);
        EXPECT_EQ(GetFileAttributes(row.path.c_str()), row.attributes) << row.path << row.mode;
    }
    const struct {
        const std::string& path;
        mode_t before;
        DWORD attributes;
        mode_t after;
    } kSet[] = {
        {file, 0755, FILE_ATTRIBUTE_READONLY, 0444},
        {file, 0400, FILE_ATTRIBUTE_SYSTEM, 0733},
        {file, 06755, 0x30, 06555},
        {file, 0755, FILE_ATTRIBUTE_NORMAL, 0666},
        {sub, 0700, FILE_ATTRIBUTE_DIRECTORY, 0622},
    };
    for (const auto& row : kSet) {
        ASSERT_EQ(::chmod(row.path.c_str(), row.before), 0);
        EXPECT_TRUE(SetFileAttributes(row.path.c_str(), row.attributes));
        EXPECT_EQ(modeOf(row.path), row.after) << std::oct << row.before;
    }
    const std::string missing = directory / "missing";
    EXPECT_EQ(GetFileAttributes(missing.c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_FALSE(SetFileAttributes(missing.c_str(), 0));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(GetFileAttributes(nullptr), INVALID_FILE_ATTRIBUTES);
    EXPECT_FALSE(SetFileAttributes(nullptr, 0));
    const FailCall denied{Call::Chmod, EPERM};
    EXPECT_FALSE(SetFileAttributes(file.c_str(), 0));
}

TEST(FileAttributes, AreNamedInTheOrderOfTheirNumbers) {
    EXPECT_EQ(FileAttribs2String(S_IFDIR | 0755), "Directory");
    for (const mode_t mode : {S_IFREG | 0755, S_IFIFO, S_IFLNK, 0})
        EXPECT_EQ(FileAttribs2String(mode), "Normal") << mode;
    EXPECT_EQ(files::attributeNames(0x1FF),
              "Archive,Compressed,Hidden,Offline,ReadOnly,System,Temporary,Normal,Directory");
    EXPECT_EQ(files::attributeNames(0x601), "Archive, Excess bits:0x600");
}

}  // namespace
}  // namespace traiklofox::test
