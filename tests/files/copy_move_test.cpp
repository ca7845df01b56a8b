// Copying, moving and deleting files, and their attributes.

#include <traiklofox/copy_file.h>
#include <traiklofox/file_attributes.h>
#include <traiklofox/move_file.h>
#include <traiklofox/settings.h>

#include <random>

#include "files/file_attributes.h"
#include "files/file_fixture.h"

namespace traiklofox::test {
namespace {

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
        {from_.c_str(), nullptr, FALSE, EINVAL}};
    const CapturedStderr quiet;
    for (const auto& row : kCases) {
        EXPECT_EQ(errorOf(CopyFile(row.from, row.to, row.failIfExists)), row.error)
            << row.from << ' ' << row.to;
        EXPECT_EQ(readText(from_) + readText(to_), "preciousold");
    }
    EXPECT_NE(::access(missing.c_str(), F_OK), 0) << "a source must not be made";
}

TEST_F(CopyFileTest, KeepsModeAndOwnerOutsideTheServerOnlyAndWhereItMay) {
    ::umask(022);
    writeText(from_, "content");
    const bool isRoot = ::geteuid() == 0 && ::chown(from_.c_str(), 4711, 4712) == 0;
    ASSERT_EQ(::chmod(from_.c_str(), 04751), 0);
    for (const bool inServer : {false, true}) {
        ::unlink(to_.c_str());
        bRunningInServer = inServer;
        EXPECT_TRUE(copy());
        EXPECT_EQ(copied().st_mode & 07777, inServer ? 0644u : 04751u) << "a change of owner takes bits away";
        EXPECT_EQ(copied().st_uid, isRoot && !inServer ? 4711u : ::geteuid());
    }
    bRunningInServer = false;
    const FailCall owner{Call::Fchown, EPERM}, mode{Call::Fchmod, EPERM};
    EXPECT_TRUE(copy());
    EXPECT_EQ(owner.fired() + mode.fired(), 2);
}

TEST_F(CopyFileTest, IsTrueExactlyWhenTheCopyIsWholeWhateverCallFails) {
    const std::string content = randomBytes(200'000);
    const struct {
        Call call;
        int error;
        int harmlessCall = 0;
        size_t transferAtMost = SIZE_MAX;  // before the disk is full
    } kCases[] = {
        {Call::Open, EACCES},   {Call::Fstat, EIO},   {Call::Lockf, ENOLCK},
        {Call::Read, EIO},      {Call::Write, EIO},   {Call::Write, ENOSPC, 0, 1000},
        {Call::Ftruncate, EIO}, {Call::Close, EIO, 2}  // the source's
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
    } kCases[] = {{0, 0, Call::Fork, 0, "new old"},
                  {MOVEFILE_COPY_ALLOWED, 0, Call::Fork, 0, "new old"},
                  {MOVEFILE_WRITE_THROUGH, 0, Call::Fork, 0, "new old", unsupported},
                  {kReplace, 0, Call::Fork, 0, "- new"},
                  {kReplace | MOVEFILE_DELAY_UNTIL_REBOOT, 0, Call::Fork, 0, "- new", unsupported},
                  {kReplace, EXDEV, Call::Fork, EXDEV, "new old"},
                  {kReplace | MOVEFILE_COPY_ALLOWED, EACCES, Call::Fork, EACCES, "new old"},
                  {kReplace | MOVEFILE_COPY_ALLOWED, EXDEV, Call::Fork, 0, "- new"},
                  {kReplace | MOVEFILE_COPY_ALLOWED, EXDEV, Call::Write, EIO, "new "},
                  {kReplace | MOVEFILE_COPY_ALLOWED, EXDEV, Call::Unlink, EIO, "new new"}};
    for (const auto& row : kCases) {
        SCOPED_TRACE(testing::Message() << row.flags << ' ' << row.renameError << ' ' << row.left);
        writeText(from_, "new");
        writeText(to_, "old");
        {
            const CapturedStderr messages;
            const FailCall rename{Call::Rename, row.renameError,
                                  faults::Options{.onCall = row.renameError != 0 ? 1 : 1000, .path = to_}};
            const FailCall also{row.alsoFails, EIO, faults::Options{.path = directory_.path()}};
            EXPECT_EQ(errorOf(MoveFileEx(from_.c_str(), to_.c_str(), row.flags)), row.error);
            EXPECT_EQ(messages.text(), row.message);
        }
        EXPECT_EQ(left(), row.left);
    }
    EXPECT_FALSE(MoveFileEx(nullptr, to_.c_str(), kReplace));
    EXPECT_EQ(errorOf(MoveFileEx(from_.c_str(), nullptr, kReplace)), EINVAL);
}

TEST_F(MoveFileTest, WithoutFlagsNothingIsReplaced) {
    const struct {
        const char* old;  // at the new name; null: nothing
        int renameError;  // 0: the system's own
        int error;
        const char* left;
    } kCases[] = {{nullptr, 0, 0, "- new"},
                  {"old", 0, EEXIST, "new old"},
                  {nullptr, EINVAL, 0, "- new"},
                  {"old", EINVAL, EEXIST, "new old"},  // a file system that cannot tell
                  {nullptr, EXDEV, 0, "- new"},
                  {"old", EXDEV, EEXIST, "new old"},
                  {nullptr, EACCES, EACCES, "new -"}};
    for (const auto& row : kCases) {
        SCOPED_TRACE(testing::Message() << row.left << ' ' << row.renameError);
        writeText(from_, "new");
        ::unlink(to_.c_str());
        if (row.old != nullptr) writeText(to_, row.old);
        {
            const FailCall rename{Call::Rename, row.renameError,
                                  faults::Options{.onCall = row.renameError != 0 ? 1 : 1000, .path = to_}};
            EXPECT_EQ(errorOf(MoveFile(from_.c_str(), to_.c_str())), row.error);
        }
        EXPECT_EQ(left(), row.left);
    }
    writeText(from_, "");
    EXPECT_TRUE(DeleteFile(from_.c_str()));
    EXPECT_EQ(errorOf(DeleteFile(from_.c_str())), ENOENT);
    EXPECT_FALSE(DeleteFile(nullptr));
}

TEST(FileAttributes, FollowFromTheModeAndBack) {
    const TempDir directory;
    const std::string file = directory / "file", sub = directory / "sub", pipe = directory / "pipe";
    writeText(file, "");
    ASSERT_EQ(::mkdir(sub.c_str(), 0755), 0);
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0644), 0);
    const struct {
        const std::string& path;
        mode_t mode;
        DWORD attributes;
    } kTold[] = {{file, 0755, 0xA0}, {file, 0644, 0x80}, {file, 0001, 0xA0},  {file, 0000, 0x80},
                 {sub, 0755, 0x120}, {sub, 0600, 0x100}, {pipe, 0644, 0x000}, {pipe, 0744, 0x020}};
    for (const auto& row : kTold) {
        ASSERT_EQ(::chmod(row.path.c_str(), row.mode), 0);
        EXPECT_EQ(GetFileAttributes(row.path.c_str()), row.attributes) << row.path << row.mode;
    }
    const struct {
        const std::string& path;
        mode_t before;
        DWORD attributes;
        mode_t after;
    } kSet[] = {{file, 0755, FILE_ATTRIBUTE_READONLY, 0444},
                {file, 0400, FILE_ATTRIBUTE_SYSTEM, 0733},
                {file, 06755, 0x30, 06555},
                {file, 0755, FILE_ATTRIBUTE_NORMAL, 0666},
                {sub, 0700, FILE_ATTRIBUTE_DIRECTORY, 0622}};
    for (const auto& row : kSet) {
        ASSERT_EQ(::chmod(row.path.c_str(), row.before), 0);
        EXPECT_TRUE(SetFileAttributes(row.path.c_str(), row.attributes));
        EXPECT_EQ(fs::status(row.path).permissions(), fs::perms{row.after}) << std::oct << row.before;
    }
    const std::string missing = directory / "missing";
    EXPECT_EQ(GetFileAttributes(missing.c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(errorOf(SetFileAttributes(missing.c_str(), 0)), ENOENT);
    EXPECT_EQ(GetFileAttributes(nullptr), INVALID_FILE_ATTRIBUTES);
    EXPECT_FALSE(SetFileAttributes(nullptr, 0));
    const FailCall denied{Call::Chmod, EPERM};
    EXPECT_FALSE(SetFileAttributes(file.c_str(), 0));
}

TEST(FileAttributes, AreNamedInTheOrderOfTheirNumbers) {
    EXPECT_EQ(FileAttribs2String(S_IFDIR | 0755), "Directory");
    for (const mode_t mode : {S_IFREG | 0755u, mode_t{S_IFIFO}, mode_t{S_IFLNK}, mode_t{0}})
        EXPECT_EQ(FileAttribs2String(mode), "Normal") << mode;
    EXPECT_EQ(files::attributeNames(0x1FF),
              "Archive,Compressed,Hidden,Offline,ReadOnly,System,Temporary,Normal,Directory");
    EXPECT_EQ(files::attributeNames(0x601), "Archive, Excess bits:0x600");
}

}  // namespace
}  // namespace traiklofox::test
