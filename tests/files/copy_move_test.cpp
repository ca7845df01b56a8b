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
    BOOL copy(BYTE failIfExists = FALSE) { return CopyFile(from_.c_str(), to_.c_str(), failIfExists); }
    /// What the two files hold, "-" for one that is missing.
    std::string left() const {
        const auto content = [](const std::string& path) { return fs::exists(path) ? readText(path) : "-"; };
        return content(from_) + " " + content(to_);
    }

    const TempDir directory_;
    const std::string from_ = directory_ / "from";
    const std::string to_ = directory_ / "to";
};
using MoveFileTest = CopyFileTest;

TEST_F(CopyFileTest, CopiesEverySizeOverWhateverWasThere) {
    const std::string link = directory_ / "link";
    fs::create_symlink("to", link);
    const CapturedStderr messages;
    const int before = openDescriptors();
    for (const size_t size : {0u, 1u, 4095u, 4096u, 4097u, 65536u, 65537u, 1'000'000u}) {
        const std::string content = randomBytes(size);
        writeText(from_, content);
        for (const std::string& to : {to_, link}) {
            writeText(to_, randomBytes(70'000));
            EXPECT_TRUE(CopyFile(from_.c_str(), to.c_str(), FALSE)) << size;
            EXPECT_TRUE(readText(to_) == content && readText(from_) == content) << size;
        }
    }
    ::unlink(to_.c_str());
    EXPECT_TRUE(copy(TRUE));
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(messages.text(), "");
}

TEST_F(CopyFileTest, RefusalsHaveAReasonAndLeaveBothWhole) {
    writeText(from_, "precious");
    writeText(to_, "old");
    fs::create_hard_link(from_, directory_ / "hard");
    fs::create_symlink("from", directory_ / "symbolic");
    fs::current_path(directory_.path());
    const struct {
        const char *from, *to;
        int error = EEXIST;
        BYTE failIfExists = FALSE;
    } kCases[] = {{"from", "to", EEXIST, TRUE},
                  {"from", "from"},
                  {"from", "./from"},
                  {"from", "hard"},
                  {"hard", "from"},
                  {"from", "symbolic"},
                  {"symbolic", "from"},
                  {"missing", "to", ENOENT},
                  {"from", "missing/to", ENOENT},
                  {nullptr, "to", EINVAL},
                  {"from", nullptr, EINVAL}};
    const CapturedStderr quiet;
    for (const auto& row : kCases) {
        EXPECT_EQ(errorOf(CopyFile(row.from, row.to, row.failIfExists)), row.error)
            << row.from << ' ' << row.to;
        EXPECT_EQ(left(), "precious old");
    }
    EXPECT_FALSE(fs::exists("missing")) << "a source must not be made";
    fs::current_path("/");
}

TEST_F(CopyFileTest, KeepsModeAndOwnerOutsideTheServerOnlyAndWhereItMay) {
    ::umask(022);
    writeText(from_, "content");
    const uid_t user = ::geteuid();
    const bool isRoot = user == 0 && ::chown(from_.c_str(), 4711, 4712) == 0;
    ASSERT_EQ(::chmod(from_.c_str(), 04751), 0);
    ASSERT_EQ(::chmod(directory_.path().c_str(), 0777), 0);
    for (const auto& [inServer, asOwner] : {std::pair{true, false}, {false, false}, {false, true}}) {
        ::unlink(to_.c_str());
        bRunningInServer = inServer;
        ASSERT_EQ(::seteuid(isRoot && asOwner ? 4711 : user), 0);
        EXPECT_TRUE(copy());
        ASSERT_EQ(::seteuid(user), 0);
        struct stat copied {};
        ASSERT_EQ(::stat(to_.c_str(), &copied), 0);
        EXPECT_EQ(copied.st_mode & 07777, inServer ? 0644u : 04751u)
            << "a change of owner takes bits away, and so does writing for all but root";
        EXPECT_EQ(copied.st_uid, isRoot && !inServer ? 4711u : user);
    }
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
        const auto copyWithFault = [&](const FailCall& fault, int onCall) {
            SCOPED_TRACE(testing::Message() << static_cast<int>(row.call) << ' ' << onCall);
            writeText(from_, content);
            writeText(to_, "old");
            const bool copied = copy() != FALSE;
            EXPECT_EQ(copied ? row.error : errno, row.error);
            EXPECT_EQ(copied, fault.fired() == 0 || onCall == row.harmlessCall);
            EXPECT_TRUE(readText(from_) == content && (!copied || readText(to_) == content));
        };
        faults::Options options{.path = directory_.path()};
        options.transferAtMost = row.transferAtMost;
        options.andAllLater = row.transferAtMost != SIZE_MAX;
        EXPECT_GT(failEveryCall(row.call, row.error, copyWithFault, options), 0) << "no such call was made";
    }
}

TEST_F(MoveFileTest, FlagsDecideWhetherAndHowItIsMoved) {
    constexpr DWORD kReplace = MOVEFILE_REPLACE_EXISTING, kCopy = MOVEFILE_COPY_ALLOWED,
                    kEx = kReplace | kCopy, kThrough = MOVEFILE_WRITE_THROUGH,
                    kDelay = MOVEFILE_DELAY_UNTIL_REBOOT;
    constexpr DWORD kPlain = ~0u;  // MoveFile, which has no flags
    // clang-format off
    const struct {
        DWORD flags;
        const char* before;  // at the new name; null: nothing
        int renameError;     // 0: the system's own
        int error;
        std::string left;
        Call alsoFails = Call::Fork;  // which is not called
    } kCases[] = {
        {0, "old", 0, 0, "new old"}, {kCopy, "old", 0, 0, "new old"}, {kThrough, "old", 0, 0, "new old"},
        {kReplace, "old", 0, 0, "- new"}, {kReplace | kDelay, "old", 0, 0, "- new"},
        {kReplace, "old", EXDEV, EXDEV, "new old"}, {kEx, "old", EACCES, EACCES, "new old"},
        {kEx, "old", EXDEV, 0, "- new"}, {kEx, "old", EXDEV, EIO, "new ", Call::Write},
        {kEx, "old", EXDEV, EIO, "new new", Call::Unlink},
        // Nothing is replaced, also where the file system cannot tell.
        {kPlain, nullptr, 0, 0, "- new"}, {kPlain, "old", 0, EEXIST, "new old"},
        {kPlain, nullptr, EINVAL, 0, "- new"}, {kPlain, "old", EINVAL, EEXIST, "new old"},
        {kPlain, nullptr, EXDEV, 0, "- new"}, {kPlain, "old", EXDEV, EEXIST, "new old"},
        {kPlain, nullptr, EACCES, EACCES, "new -"}};
    // clang-format on
    for (const auto& row : kCases) {
        SCOPED_TRACE(testing::Message() << row.flags << ' ' << row.renameError << ' ' << row.left);
        writeText(from_, "new");
        ::unlink(to_.c_str());
        if (row.before != nullptr) writeText(to_, row.before);
        {
            const CapturedStderr messages;
            const FailCall rename{Call::Rename, row.renameError,
                                  faults::Options{.onCall = row.renameError != 0 ? 1 : 1000, .path = to_}};
            const FailCall also{row.alsoFails, EIO, faults::Options{.path = directory_.path()}};
            EXPECT_EQ(errorOf(row.flags == kPlain ? MoveFile(from_.c_str(), to_.c_str())
                                                  : MoveFileEx(from_.c_str(), to_.c_str(), row.flags)),
                      row.error);
            const bool isUnsupported = row.flags != kPlain && (row.flags & (kThrough | kDelay)) != 0;
            EXPECT_EQ(messages.text(), isUnsupported ? "MoveFileEx: called with unsupported dwflags\n" : "");
        }
        EXPECT_EQ(left(), row.left);
    }
    EXPECT_FALSE(MoveFileEx(nullptr, to_.c_str(), kReplace));
    EXPECT_EQ(errorOf(MoveFileEx(from_.c_str(), nullptr, kReplace)), EINVAL);
    EXPECT_TRUE(DeleteFile(from_.c_str()));
    EXPECT_EQ(errorOf(DeleteFile(from_.c_str())), ENOENT);
    EXPECT_FALSE(DeleteFile(nullptr));
}

TEST(FileAttributes, FollowFromTheModeAndBack) {
    const TempDir directory;
    const std::string file = directory / "file", sub = directory / "sub", pipe = directory / "pipe";
    writeText(file, "");
    fs::create_directory(sub);
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0644), 0);
    const struct {
        const std::string& path;
        mode_t mode;
        DWORD attributes;
    } kTold[] = {{file, 0755, 0xA0}, {file, 0644, 0x80}, {file, 0001, 0xA0},  {file, 0000, 0x80},
                 {sub, 0755, 0x120}, {sub, 0600, 0x100}, {pipe, 0644, 0x000}, {pipe, 0744, 0x020}};
    for (const auto& row : kTold) {
        fs::permissions(row.path, fs::perms{row.mode});
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
        fs::permissions(row.path, fs::perms{row.before});
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
