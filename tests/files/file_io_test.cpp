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
    static int descriptorOf(const OwnedHandle& file) { return static_cast<File*>(file.get())->GetFd(); }
};

TEST_F(FileIo, AccessCodesGiveTheOpenFlags) {
    constexpr DWORD kAppend = FILE_APPEND_DATA;
    const struct {
        DWORD access;
        int flags;
        const char* unsupported = nullptr;
    } kCases[] = {{0, O_RDONLY},
                  {GENERIC_READ, O_RDONLY},
                  {GENERIC_WRITE, O_WRONLY},
                  {kReadWrite, O_RDWR},
                  {kAppend, O_RDONLY | O_APPEND},
                  {kAppend | GENERIC_READ, O_RDONLY, "5"},
                  {kAppend | GENERIC_WRITE, O_WRONLY | O_APPEND},
                  {kAppend | kReadWrite, O_RDWR | O_APPEND},
                  {8, O_RDONLY, "8"},
                  {0x80000000, O_RDONLY, "-2147483648"}};
    writeText(path_, "content");
    for (const auto& row : kCases) {
        const CapturedStderr messages;
        const OwnedHandle file = open(row.access, OPEN_EXISTING);
        ASSERT_EQ(file->What(), static_cast<DWORD>(HANDLE_KIND_FILE)) << row.access;
        EXPECT_EQ(::fcntl(descriptorOf(file), F_GETFL) & (O_ACCMODE | O_APPEND), row.flags) << row.access;
        EXPECT_EQ(::fcntl(descriptorOf(file), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(messages.text(), row.unsupported == nullptr
                                       ? ""
                                       : "CreateFile: dwDesiredAccess mode of " +
                                             std::string(row.unsupported) + " not suppported\n");
    }
}

TEST_F(FileIo, DispositionsDecideWhatIsMadeAndEmptied) {
    const struct {
        DWORD disposition;
        int errorIfMissing, errorIfThere;
        const char *left, *message = "";
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
            EXPECT_EQ(errorOf(file != INVALID_HANDLE_VALUE), error);
            CloseHandle(file);
            EXPECT_EQ(messages.text(), row.message);
            ASSERT_EQ(fs::exists(path_), isThere || error == 0);
            if (isThere) {
                EXPECT_EQ(readText(path_), row.left);
            } else if (error == 0) {
                EXPECT_EQ(fs::status(path_).permissions(), fs::perms{0644});
            }
        }
    }
    EXPECT_EQ(CreateFile(nullptr, GENERIC_READ, 0, nullptr, OPEN_ALWAYS, 0, nullptr), INVALID_HANDLE_VALUE);
    const FailCall noDescriptor{Call::Open, EMFILE};
    EXPECT_EQ(errorOf(open(GENERIC_READ, OPEN_ALWAYS).release() != INVALID_HANDLE_VALUE), EMFILE);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(FileIo, ADirectoryIsOpenedToWatchItOnly) {
    writeText(path_, "content");
    const auto openDirectory = [](const std::string& path, DWORD access) {
        errno = 0;
        return CreateFile(path.c_str(), access, 0, nullptr, OPEN_EXISTING,
                          FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OVERLAPPED, nullptr);
    };
    for (const DWORD access : {FILE_LIST_DIRECTORY, kReadWrite}) {
        const OwnedHandle watched{openDirectory(directory_.path(), access)};
        ASSERT_NE(watched.get(), INVALID_HANDLE_VALUE);
        EXPECT_EQ(watched->What(), static_cast<DWORD>(HANDLE_KIND_CHANGE_NOTIFICATION));
    }
    EXPECT_EQ(openDirectory(path_, GENERIC_READ), INVALID_HANDLE_VALUE);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(openDirectory(directory_ / "missing", GENERIC_READ), INVALID_HANDLE_VALUE);
    EXPECT_EQ(errno, ENOENT);
    for (const DWORD access : {DWORD{0}, DWORD{GENERIC_WRITE}})
        EXPECT_EQ(errorOf(openDirectory(directory_.path(), access) != nullptr), EINVAL);
}

TEST_F(FileIo, ReadsAndWritesAtOnePositionWhateverInterruptsOrCutsShort) {
    const OwnedHandle file = open(kReadWrite, CREATE_NEW);
    char buffer[20] = {};
    DWORD done = 0;
    const auto write = [&](std::string_view text) {
        return WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &done, nullptr);
    };
    const auto read = [&] { return ReadFile(file.get(), buffer, sizeof buffer, &done, nullptr); };
    const faults::Options hereOnly{.path = path_};
    {
        const FailCall interrupted{Call::Write, EINTR, hereOnly};
        EXPECT_TRUE(write("0123456789") && done == 10 && interrupted.fired() == 1);
    }
    {
        const FailCall cut{Call::Write, 0, {.path = path_, .transferAtMost = 3}};
        EXPECT_TRUE(!write("abcdef") && done == 3) << "not all of it";
    }
    {
        const FailCall full{Call::Write, ENOSPC, hereOnly};
        EXPECT_EQ(errorOf(write("x")), ENOSPC);
        EXPECT_EQ(done, kFailed);
    }
    EXPECT_EQ(readText(path_), "0123456789abc");
    EXPECT_TRUE(FlushFileBuffers(file.get()));

    EXPECT_EQ(SetFilePointer(file.get(), -5, nullptr, FILE_END), 8u);
    {
        const FailCall interrupted{Call::Read, EINTR, hereOnly};
        const FailCall cut{Call::Read, 0, {.onCall = 2, .path = path_, .transferAtMost = 3}};
        EXPECT_TRUE(read());
    }
    EXPECT_EQ(std::string_view(buffer, done), "89a");
    SetFilePointer(file.get(), 0, nullptr, FILE_END);
    EXPECT_TRUE(read() && done == 0) << "the end is no error";
    const FailCall broken{Call::Read, EIO, hereOnly};
    EXPECT_TRUE(!read() && done == kFailed);
    EXPECT_FALSE(ReadFile(file.get(), buffer, sizeof buffer, nullptr, nullptr));
    EXPECT_EQ(errorOf(WriteFile(file.get(), buffer, sizeof buffer, nullptr, nullptr)), EINVAL);
}

TEST_F(FileIo, MovesFromEachPlaceAndCutsToOneByteAlways) {
    writeText(path_, std::string(100, 'x'));
    const OwnedHandle file = open(kReadWrite, OPEN_EXISTING);
    const int fd = descriptorOf(file);
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
    char byte = 0;
    DWORD done = 0;
    for (Handle* handle : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE, event.get()}) {
        const CapturedStderr messages;
        for (const auto& succeeds : std::initializer_list<std::function<bool()>>{
                 [&] { return ReadFile(handle, &byte, 1, &done, nullptr); },
                 [&] { return WriteFile(handle, &byte, 1, &done, nullptr); },
                 [&] { return FlushFileBuffers(handle); }, [&] { return SetEndOfFile(handle); },
                 [&] { return SetFilePointer(handle, 0, nullptr, FILE_BEGIN) != kFailed; },
                 [&] { return GetFileSize(handle, nullptr) != kFailed; },
                 [&] { return !GetFileTime(handle, nullptr, nullptr, nullptr); }}) {
            errno = 0;
            EXPECT_EQ(errorOf(succeeds()), EBADF);
        }
        const std::string rest = ": for fd " +
                                 std::to_string(static_cast<int>(reinterpret_cast<intptr_t>(handle))) +
                                 " errno: Bad file descriptor\n";
        EXPECT_EQ(messages.text(), "GetFileSize" + rest + "GetFileTime" + rest);
    }
}

}  // namespace
}  // namespace traiklofox::test
