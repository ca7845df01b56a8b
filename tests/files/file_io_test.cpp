#include <traiklofox/events.h>
#include <traiklofox/file_attributes.h>
#include <traiklofox/file_io.h>

#include <utility>

#include "files/file_fixture.h"

namespace traiklofox::test {
namespace {

constexpr DWORD kFailed = 0xFFFFFFFF;
constexpr DWORD kReadWrite = GENERIC_READ | GENERIC_WRITE;

class FileIo : public FileTest {
  protected:
    OwnedHandle open(DWORD access, DWORD disposition) const {
        return OwnedHandle{CreateFile(path_.c_str(), access, FILE_SHARE_READ, nullptr, disposition,
                                      FILE_ATTRIBUTE_NORMAL, nullptr)};
    }
    static std::string messageFor(const char* function, const Handle* handle) {
        return std::string(function) + ": for fd " +
               std::to_string(static_cast<int>(reinterpret_cast<intptr_t>(handle))) +
               " errno: Bad file descriptor\n";
    }
};

TEST_F(FileIo, AccessCodesGiveTheOpenFlags) {
    const struct {
        DWORD access;
        int flags;
        const char* message = "";
    } kCases[] = {
        {0, O_RDONLY},
        {GENERIC_READ, O_RDONLY},
        {GENERIC_WRITE, O_WRONLY},
        {kReadWrite, O_RDWR},
        {FILE_APPEND_DATA, O_RDONLY | O_APPEND},
        {FILE_APPEND_DATA | GENERIC_READ, O_RDONLY, "CreateFile: dwDesiredAccess mode of 5 not suppported\n"},
        {FILE_APPEND_DATA | GENERIC_WRITE, O_WRONLY | O_APPEND},
        {FILE_APPEND_DATA | kReadWrite, O_RDWR | O_APPEND},
        {8, O_RDONLY, "CreateFile: dwDesiredAccess mode of 8 not suppported\n"},
        {0x80000000, O_RDONLY, "CreateFile: dwDesiredAccess mode of -2147483648 not suppported\n"}};
    writeText(path_, "content");
    for (const auto& row : kCases) {
        const CapturedStderr messages;
        const OwnedHandle file = open(row.access, OPEN_EXISTING);
        ASSERT_EQ(file->What(), static_cast<DWORD>(HANDLE_KIND_FILE)) << row.access;
        const int fd = static_cast<File*>(file.get())->GetFd();
        EXPECT_EQ(::fcntl(fd, F_GETFL) & (O_ACCMODE | O_APPEND), row.flags) << row.access;
        EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(messages.text(), row.message);
    }
}

TEST_F(FileIo, DispositionsDecideWhatIsMadeAndEmptied) {
    const struct {
        DWORD disposition;
        int errorIfMissing, errorIfThere;
        const char* left;
        const char* message = "";
    } kCases[] = {{CREATE_NEW, 0, EEXIST, "old"},
                  {CREATE_ALWAYS, 0, 0, ""},
                  {OPEN_EXISTING, ENOENT, 0, "old"},
                  {OPEN_ALWAYS, 0, 0, "old"},
                  {TRUNCATE_EXISTING, 0, 0, ""},
                  {0, ENOENT, 0, "old", "CreateFile: dwCreationDistribution of 0 not suppported\n"},
                  {6, ENOENT, 0, "old", "CreateFile: dwCreationDistribution of 6 not suppported\n"}};
    ::umask(022);
    const int before = openDescriptors();
    for (const auto& row : kCases) {
        for (const bool isThere : {false, true}) {
            SCOPED_TRACE(row.disposition);
            ::unlink(path_.c_str());
            if (isThere) writeText(path_, "old");
            const CapturedStderr messages;
            errno = 0;
            Handle* file = open(kReadWrite, row.disposition).release();
            const int error = isThere ? row.errorIfThere : row.errorIfMissing;
            EXPECT_EQ(file == INVALID_HANDLE_VALUE ? errno : 0, error);
            CloseHandle(file);
            EXPECT_EQ(messages.text(), row.message);
            struct stat status {};
            ASSERT_EQ(::stat(path_.c_str(), &status) == 0, isThere || error == 0);
            if (isThere) {
                EXPECT_EQ(readText(path_), row.left);
            }
            if (!isThere && error == 0) {
                EXPECT_EQ(status.st_mode & 07777, 0644u);
            }
        }
    }
    EXPECT_EQ(CreateFile(nullptr, GENERIC_READ, 0, nullptr, OPEN_ALWAYS, 0, nullptr), INVALID_HANDLE_VALUE);
    const FailCall noDescriptor{Call::Open, EMFILE};
    EXPECT_EQ(open(GENERIC_READ, OPEN_ALWAYS).release(), INVALID_HANDLE_VALUE);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(FileIo, ADirectoryIsOpenedToWatchItOnly) {
    writeText(path_, "content");
    for (const DWORD access : {FILE_LIST_DIRECTORY, kReadWrite}) {
        const OwnedHandle watched{CreateFile(directory_.path().c_str(), access, 0, nullptr, OPEN_EXISTING,
                                             FILE_FLAG_BACKUP_SEMANTICS, nullptr)};
        ASSERT_NE(watched.get(), INVALID_HANDLE_VALUE);
        EXPECT_EQ(watched->What(), static_cast<DWORD>(HANDLE_KIND_CHANGE_NOTIFICATION));
    }
    const struct {
        std::string path;
        DWORD access;
        Handle* result;
        int error;
    } kCases[] = {{path_, GENERIC_READ, INVALID_HANDLE_VALUE, ENOTDIR},
                  {directory_ / "missing", GENERIC_READ, INVALID_HANDLE_VALUE, ENOENT},
                  {directory_.path(), GENERIC_WRITE, nullptr, EINVAL},
                  {directory_.path(), 0, nullptr, EINVAL}};
    for (const auto& row : kCases) {
        errno = 0;
        EXPECT_EQ(CreateFile(row.path.c_str(), row.access, 0, nullptr, OPEN_EXISTING,
                             FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OVERLAPPED, nullptr),
                  row.result)
            << row.path;
        EXPECT_EQ(errno, row.error) << row.path;
    }
}

TEST_F(FileIo, ReadsAndWritesAtOnePositionWhateverInterruptsOrCutsShort) {
    const OwnedHandle file = open(kReadWrite, CREATE_NEW);
    DWORD done = 0;
    const faults::Options onlyThree{.path = path_, .transferAtMost = 3};
    const faults::Options thenThree{.onCall = 2, .path = path_, .transferAtMost = 3};
    const faults::Options hereOnly{.path = path_};
    {
        const FailCall interrupted{Call::Write, EINTR, hereOnly};
        EXPECT_TRUE(WriteFile(file.get(), "0123456789", 10, &done, nullptr));
        EXPECT_EQ(interrupted.fired(), 1);
    }
    EXPECT_EQ(done, 10u);
    {
        const FailCall cut{Call::Write, 0, onlyThree};
        EXPECT_FALSE(WriteFile(file.get(), "abcdef", 6, &done, nullptr)) << "not all of it";
    }
    EXPECT_EQ(done, 3u);
    {
        const FailCall full{Call::Write, ENOSPC, hereOnly};
        EXPECT_FALSE(WriteFile(file.get(), "x", 1, &done, nullptr));
    }
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(done, kFailed);
    EXPECT_EQ(readText(path_), "0123456789abc");
    EXPECT_TRUE(FlushFileBuffers(file.get()));

    char buffer[20] = {};
    EXPECT_EQ(SetFilePointer(file.get(), -5, nullptr, FILE_END), 8u);
    {
        const FailCall interrupted{Call::Read, EINTR, hereOnly};
        const FailCall cut{Call::Read, 0, thenThree};
        EXPECT_TRUE(ReadFile(file.get(), buffer, sizeof buffer, &done, nullptr));
    }
    EXPECT_EQ(std::string_view(buffer, done), "89a");
    SetFilePointer(file.get(), 0, nullptr, FILE_END);
    EXPECT_TRUE(ReadFile(file.get(), buffer, sizeof buffer, &done, nullptr)) << "the end is no error";
    EXPECT_EQ(done, 0u);
    const FailCall broken{Call::Read, EIO, hereOnly};
    EXPECT_FALSE(ReadFile(file.get(), buffer, sizeof buffer, &done, nullptr));
    EXPECT_EQ(done, kFailed);
    EXPECT_FALSE(ReadFile(file.get(), buffer, sizeof buffer, nullptr, nullptr));
    EXPECT_EQ(errorOf(WriteFile(file.get(), buffer, sizeof buffer, nullptr, nullptr)), EINVAL);
}

TEST_F(FileIo, MovesFromEachPlaceAndCutsToOneByteAlways) {
    writeText(path_, std::string(100, 'x'));
    const OwnedHandle file = open(kReadWrite, OPEN_EXISTING);
    const int fd = static_cast<File*>(file.get())->GetFd();
    LONG high = 77;
    const struct {
        LONG distance;
        DWORD method, result;
    } kMoves[] = {{10, FILE_BEGIN, 10},          {-3, FILE_CURRENT, 7},     {5, FILE_END, 105},
                  {-106, FILE_CURRENT, kFailed}, {-1, FILE_BEGIN, kFailed}, {0, 99, kFailed},
                  {0, FILE_CURRENT, 105}};
    for (const auto& move : kMoves)
        EXPECT_EQ(SetFilePointer(file.get(), move.distance, &high, move.method), move.result)
            << move.distance;
    EXPECT_EQ(high, 77);
    static_cast<File*>(file.get())->SetFd(-1);
    EXPECT_EQ(errorOf(SetFilePointer(file.get(), 0, nullptr, FILE_CURRENT) != kFailed), EBADF);
    static_cast<File*>(file.get())->SetFd(fd);  // which is open still

    EXPECT_EQ(tell(fd), 1);
    EXPECT_EQ(SetFilePointer(file.get(), 0, nullptr, FILE_CURRENT), 1u);
    EXPECT_EQ(tell(-1), -1);
    SetFilePointer(file.get(), 50, nullptr, FILE_BEGIN);
    EXPECT_TRUE(SetEndOfFile(file.get()));
    EXPECT_EQ(readText(path_), "x");
    const FailCall fails{Call::Ftruncate, EIO};
    EXPECT_FALSE(SetEndOfFile(file.get()));
}

TEST_F(FileIo, WhatIsNoFileHandleFailsWithEbadf) {
    const OwnedHandle event{CreateEvent(nullptr, FALSE, FALSE, nullptr)};
    for (Handle* handle : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE, event.get()}) {
        const CapturedStderr messages;
        char byte = 0;
        DWORD done = 0;
        const auto refuses = [](bool failed) { return failed && std::exchange(errno, 0) == EBADF; };
        for (const bool failed : {refuses(!ReadFile(handle, &byte, 1, &done, nullptr)),
                                  refuses(!WriteFile(handle, &byte, 1, &done, nullptr)),
                                  refuses(!FlushFileBuffers(handle)), refuses(!SetEndOfFile(handle)),
                                  refuses(SetFilePointer(handle, 0, nullptr, FILE_BEGIN) == kFailed),
                                  refuses(GetFileSize(handle, nullptr) == kFailed),
                                  refuses(GetFileTime(handle, nullptr, nullptr, nullptr))})
            EXPECT_TRUE(failed);
        EXPECT_EQ(messages.text(), messageFor("GetFileSize", handle) + messageFor("GetFileTime", handle));
    }
}

}  // namespace
}  // namespace traiklofox::test
