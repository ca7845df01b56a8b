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

class CopyFileTest : public testing::Test {
  protected:
    CopyFileTest() { EXPECT_EQ(::symlink("to", link_.c_str()), 0); }
    BOOL copy(BYTE failIfExists = FALSE) { return CopyFile(from_.c_str(), to_.c_str(), failIfExists); }
    struct stat copied() const {
        struct stat status {};
        EXPECT_EQ(::stat(to_.c_str(), &status), 0);
        return status;
    }

    TempDir directory_;
    const std::string from_ = directory_ / "from";
    const std::string to_ = directory_ / "to";
    const std::string link_ = directory_ / "link";  // to to_
};

TEST_F(CopyFileTest, CopiesEverySizeOverWhateverWasThere) {
    const CapturedStderr messages;
    const int before = openDescriptors();
    for (const size_t size : {0u, 1u, 4095u, 4096u, 4097u, 65536u, 65537u, 1'000'000u}) {
        const std::string content = randomBytes(size);
        writeText(from_, content);
        for (const std::string& to : {to_, link_}) {
            writeText(to_, randomBytes(70'000));
            EXPECT_TRUE(CopyFile(from_.c_str(), to.c_str(), FALSE)) << size;
            EXPECT_EQ(readText(to_), content) << size;
        }
        EXPECT_EQ(readText(from_), content) << size;
    }
    ::unlink(to_.c_str());
    EXPECT_TRUE(copy(TRUE));
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(messages.text(), "");
}

TEST_F(CopyFileTest, RefusalsHaveAReasonAndLeaveBothWhole) {
    writeText(from_, "precious");
    writeText(to_, "old");
    const std::string hard = directory_ / "hard", symbolic = directory_ / "symbolic",
                      dotted = directory_ / "./from", missing = directory_ / "missing",
                      nowhere = directory_ / "missing/to";
    ASSERT_EQ(::link(from_.c_str(), hard.c_str()), 0);
    ASSERT_EQ(::symlink("from", symbolic.c_str()), 0);
    const struct {
        const char *from, *to;
        BYTE failIfExists;
        int error;
    } kCases[] = {
        {from_.c_str(), to_.c_str(), TRUE, EEXIST},       {from_.c_str(), from_.c_str(), FALSE, EEXIST},
        {from_.c_str(), dotted.c_str(), FALSE, EEXIST},   {from_.c_str(), hard.c_str(), FALSE, EEXIST},
        {hard.c_str(), from_.c_str(), FALSE, EEXIST},     {from_.c_str(), symbolic.c_str(), FALSE, EEXIST},
        {symbolic.c_str(), from_.c_str(), FALSE, EEXIST}, {missing.c_str(), to_.c_str(), FALSE, ENOENT},
        {from_.c_str(), nowhere.c_str(), FALSE, ENOENT},  {nullptr, to_.c_str(), FALSE, EINVAL},
        {from_.c_str(), nullptr, FALSE, EINVAL},
    };
    const CapturedStderr quiet;
    for (const auto& row : kCases) {
        errno = 0;
        EXPECT_FALSE(CopyFile(row.from, row.to, row.failIfExists)) << row.from << ' ' << row.to;
        EXPECT_EQ(errno, row.error) << row.from << ' ' << row.to;
        EXPECT_EQ(readText(from_) + readText(to_), "preciousold");
    }
    EXPECT_NE(::access(missing.c_str(), F_OK), 0) << "a source must not be made";
}

TEST_F(CopyFileTest, KeepsTheModeOutsideTheServerOnlyAndWhereItMay) {
    ::umask(022);
    writeText(from_, "content");
    ASSERT_EQ(::chmod(from_.c_str(), 0751), 0);
    for (const bool inServer : {false, true}) {
        ::unlink(to_.c_str());
        bRunningInServer = inServer;
        EXPECT_TRUE(copy());
        EXPECT_EQ(copied().st_mode & 07777, inServer ? 0644u : 0751u);
    }
    bRunningInServer = false;
    const FailCall owner{Call::Fchown, EPERM};
    const FailCall mode{Call::Fchmod, EPERM};
    EXPECT_TRUE(copy());
    EXPECT_EQ(owner.fired() + mode.fired(), 2);
}

TEST_F(CopyFileTest, KeepsTheOwnerWhereTheProcessMay) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root gives files away";
    writeText(from_, "content");
    ASSERT_EQ(::chown(from_.c_str(), 4711, 4712), 0);
    ASSERT_EQ(::chmod(from_.c_str(), 04750), 0);
    EXPECT_TRUE(copy());
    EXPECT_EQ(copied().st_uid, 4711u);
    EXPECT_EQ(copied().st_gid, 4712u);
    EXPECT_EQ(copied().st_mode & 07777, 04750u) << "a change of owner takes the set-user-id bit away";
}

TEST_F(CopyFileTest, IsTrueExactlyWhenTheCopyIsWholeWhateverCallFails) {
    const std::string content = randomBytes(200'000);
    const struct {
        Call call;
        int error;
        int harmlessCall = 0;
        size_t transferAtMost = SIZE_MAX;  // before the disk is full
    } kCases[] = {
        {Call::Open, EACCES},   {Call::Fstat, EIO},    {Call::Lockf, ENOLCK},
        {Call::Read, EIO},      {Call::Write, EIO},    {Call::Write, ENOSPC, 0, 1000},
        {Call::Ftruncate, EIO}, {Call::Close, EIO, 2},  // the source's
    };
    const CapturedStderr quiet;
    for (const auto& row : kCases) {
        SCOPED_TRACE(static_cast<int>(row.call));
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
        faults::Options options{.path = directory_.path()};
        options.transferAtMost = row.transferAtMost;
        options.andAllLater = row.transferAtMost != SIZE_MAX;
        const int runs = failEveryCall(row.call, row.error, copyWithFault, options);
        EXPECT_GT(runs, 0) << "no such call was made";
    }
}

}  // namespace
}  // namespace traiklofox::test
