#include <gtest/gtest.h>
#include <sys/stat.h>
#include <traiklofox/copy_file.h>
#include <traiklofox/settings.h>
#include <unistd.h>

#include <cerrno>
#include <random>
#include <string>

#include "support/bounded_wait.h"
#include "support/captured_output.h"
#include "support/fault_injection.h"
#include "support/temp_dir.h"

namespace traiklofox::test {
namespace {

using faults::Call;

std::string randomBytes(size_t size) {
    std::minstd_rand random(static_cast<unsigned>(size) + 1);
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

struct stat statusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status;
}

class CopyFileTest : public testing::Test {
  protected:
    BOOL copy(BYTE failIfExists = FALSE) { return CopyFile(from_.c_str(), to_.c_str(), failIfExists); }

    TempDir directory_;
    const std::string from_ = directory_ / "from";
    const std::string to_ = directory_ / "to";
    const CapturedStderr messages_;
};

TEST_F(CopyFileTest, CopiesEverySizeOverWhateverWasThere) {
    const int before = openDescriptors();
    for (const size_t size : {0u, 1u, 4095u, 4096u, 4097u, 65536u, 65537u, 1'000'000u}) {
        const std::string content = randomBytes(size);
        writeText(from_, content);
        writeText(to_, randomBytes(70'000));
        EXPECT_TRUE(copy()) << size;
        EXPECT_EQ(readText(to_), content) << size;
        EXPECT_EQ(readText(from_), content) << size;
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(messages_.text(), "");
}

TEST_F(CopyFileTest, RefusesAnExistingDestinationWhenAsked) {
    writeText(from_, "new");
    EXPECT_TRUE(copy(TRUE));
    EXPECT_EQ(readText(to_), "new");
    writeText(from_, "newer");
    EXPECT_FALSE(copy(TRUE));
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(readText(to_), "new");
    EXPECT_EQ(messages_.text(), "");
}

TEST_F(CopyFileTest, LeavesAFileWholeThatIsCopiedOntoItself) {
    writeText(from_, "precious");
    const std::string hardLink = directory_ / "hard", symbolicLink = directory_ / "symbolic";
    ASSERT_EQ(::link(from_.c_str(), hardLink.c_str()), 0);
    ASSERT_EQ(::symlink("from", symbolicLink.c_str()), 0);
    for (const std::string& self : {from_, directory_ / "./from", hardLink, symbolicLink}) {
        EXPECT_FALSE(CopyFile(from_.c_str(), self.c_str(), FALSE)) << self;
        EXPECT_EQ(errno, EEXIST);
        EXPECT_FALSE(CopyFile(self.c_str(), from_.c_str(), FALSE)) << self;
        EXPECT_EQ(readText(from_), "precious");
    }
}

TEST_F(CopyFileTest, CopiesThroughASymbolicLink) {
    writeText(from_, "content");
    writeText(to_, "old");
    const std::string link = directory_ / "link";
    ASSERT_EQ(::symlink("to", link.c_str()), 0);
    EXPECT_TRUE(CopyFile(from_.c_str(), link.c_str(), FALSE));
    EXPECT_EQ(readText(to_), "content");
}

TEST_F(CopyFileTest, KeepsTheModeOutsideTheServerOnly) {
    const mode_t usual = ::umask(022);
    writeText(from_, "content");
    ASSERT_EQ(::chmod(from_.c_str(), 0751), 0);
    EXPECT_TRUE(copy());
    EXPECT_EQ(statusOf(to_).st_mode & 07777, 0751u);

    ::unlink(to_.c_str());
    bRunningInServer = true;
    EXPECT_TRUE(copy());
    bRunningInServer = false;
    EXPECT_EQ(statusOf(to_).st_mode & 07777, 0644u);
    ::umask(usual);
}

TEST_F(CopyFileTest, KeepsTheOwnerWhereTheProcessMay) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root gives files away";
    writeText(from_, "content");
    ASSERT_EQ(::chown(from_.c_str(), 4711, 4712), 0);
    ASSERT_EQ(::chmod(from_.c_str(), 04750), 0);
    EXPECT_TRUE(copy());
    EXPECT_EQ(statusOf(to_).st_uid, 4711u);
    EXPECT_EQ(statusOf(to_).st_gid, 4712u);
    EXPECT_EQ(statusOf(to_).st_mode & 07777, 04750u) << "a change of owner takes the set-user-id bit away";
}

TEST_F(CopyFileTest, SucceedsWhereOwnerAndModeCannotBeGiven) {
    writeText(from_, "content");
    const FailCall owner{Call::Fchown, EPERM};
    const FailCall mode{Call::Fchmod, EPERM};
    EXPECT_TRUE(copy());
    EXPECT_EQ(owner.fired() + mode.fired(), 2);
}

TEST_F(CopyFileTest, RefusesWhatIsNotThere) {
    const std::string nowhere = directory_ / "missing/to";
    EXPECT_FALSE(copy());
    EXPECT_EQ(errno, ENOENT);
    EXPECT_NE(::access(from_.c_str(), F_OK), 0) << "a source must not be made";
    writeText(from_, "content");
    EXPECT_FALSE(CopyFile(from_.c_str(), nowhere.c_str(), FALSE));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(CopyFile(nullptr, to_.c_str(), FALSE));
    EXPECT_FALSE(CopyFile(from_.c_str(), nullptr, FALSE));
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(CopyFileTest, ADiskThatRunsFullHalfWayIsAFailure) {
    const std::string content = randomBytes(300'000);
    writeText(from_, content);
    const FailCall full{
        Call::Write, ENOSPC, {.onCall = 2, .andAllLater = true, .path = to_, .transferAtMost = 1000}};
    EXPECT_FALSE(copy());
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(readText(from_), content);
    EXPECT_LT(statusOf(to_).st_size, 300'000);
}

TEST_F(CopyFileTest, IsTrueExactlyWhenTheCopyIsWholeWhateverCallFails) {
    const std::string content = randomBytes(200'000);
    const struct {
        const char* what;
        Call call;
        int error;
        int harmlessCall;  // 0: none
    } kCases[] = {
        {"open", Call::Open, EACCES, 0},  {"stat", Call::Fstat, EIO, 0},
        {"lock", Call::Lockf, ENOLCK, 0}, {"read", Call::Read, EIO, 0},
        {"write", Call::Write, EIO, 0},   {"truncate", Call::Ftruncate, EIO, 0},
        {"close", Call::Close, EIO, 2},  // the source's
    };
    for (const auto& row : kCases) {
        SCOPED_TRACE(row.what);
        const auto copyWithFault = [&](const FailCall& fault, int onCall) {
            SCOPED_TRACE(onCall);
            writeText(from_, content);
            writeText(to_, "old");
            const bool copied = copy() != FALSE;
            const int error = errno;
            EXPECT_EQ(readText(from_), content);
            EXPECT_EQ(copied, fault.fired() == 0 || onCall == row.harmlessCall);
            EXPECT_EQ(copied ? readText(to_) : content, content);
            EXPECT_EQ(copied ? row.error : error, row.error);
        };
        const int runs = failEveryCall(row.call, row.error, copyWithFault, {.path = directory_.path()});
        EXPECT_GT(runs, 0) << "no such call was made";
    }
}

}  // namespace
}  // namespace traiklofox::test
