// Files whose dates and sizes do not fit into 32 bits, through every call that asks for a file's status.

#include <sys/syscall.h>
#include <traiklofox/files.h>

#include <algorithm>

#include "files/watch_fixture.h"

namespace traiklofox::test {
namespace {

constexpr LONGLONG kLate = 2'208'988'800;  // in 2040
constexpr ULONGLONG kLateTicks = (kLate + 11'644'473'600) * 10'000'000;
constexpr ULONGLONG kLargeSize = (5ULL << 30) + 7;
constexpr DWORD kLargeLow = kLargeSize & 0xFFFFFFFF;

/// False where the file system has no such date.
bool dateLate(const std::string& path) {
    const struct {
        long long seconds, nanoseconds;
    } times[] = {{kLate, 0}, {kLate, 999'999'999}};  // as the system takes them where `timespec` has 32 bits
#if defined(SYS_utimensat_time64)
    constexpr long kCall = SYS_utimensat_time64;
#else
    constexpr long kCall = SYS_utimensat;
#endif
    struct statx status {};
    return ::syscall(kCall, AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0 &&
           ::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_MTIME, &status) == 0 &&
           status.stx_mtime.tv_sec == kLate;
}

bool isLate(const _FILETIME& time) {
    return (ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime) == kLateTicks;
}

/// Dated late, all of them: d/large, d/small ("content"), d/sub, d/link, which leads to "sub", and d.
class FileStatus : public testing::Test {
  protected:
    void SetUp() override {
        writeText(small, "content");
        writeText(large, "");
        fs::create_directory(sub);
        fs::create_symlink("sub", link);
        ASSERT_EQ(::truncate64(large.c_str(), kLargeSize), 0);
        for (const std::string& path : {large, small, link, sub, d})
            if (!dateLate(path)) GTEST_SKIP() << "the file system has no dates after 2038";
        errno = 0;
    }
    static OwnedHandle openFile(const std::string& path, DWORD flags = 0) {
        return OwnedHandle{CreateFile(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, flags, nullptr)};
    }

    const TempDir home;
    const std::string d = home / "d", large = d + "/large", small = d + "/small", sub = d + "/sub",
                      link = d + "/link";
};

TEST_F(FileStatus, IsToldWhateverTheFilesSizeAndDate) {
    DWORD high = 77;
    EXPECT_EQ(GetFileSize(openFile(large).get(), &high), kLargeLow);
    EXPECT_EQ(high, 0U);
    _FILETIME created, accessed, written;
    EXPECT_TRUE(GetFileTime(openFile(small).get(), &created, &accessed, &written) && isLate(created) &&
                isLate(accessed) && isLate(written));
    EXPECT_EQ(GetFileAttributes(large.c_str()), FILE_ATTRIBUTE_NORMAL);
    EXPECT_NE(openFile(d, FILE_FLAG_BACKUP_SEMANTICS).get(), INVALID_HANDLE_VALUE);

    _WIN32_FIND_DATA data;
    Handle* search = FindFirstFile((d + "/l*e").c_str(), &data);
    EXPECT_TRUE(search != INVALID_HANDLE_VALUE && FindClose(search) == 2 && isLate(data.ftCreationTime) &&
                isLate(data.ftLastAccessTime) && isLate(data.ftLastWriteTime) && data.nFileSizeHigh == 0 &&
                data.nFileSizeLow == kLargeLow);
    search = FindFirstFile(sub.c_str(), &data);
    EXPECT_TRUE(search != INVALID_HANDLE_VALUE && FindClose(search) == 2);
    EXPECT_STREQ(data.cFileName, ".");
    CFileFind finder;
    EXPECT_TRUE(finder.FindFile(large.c_str()) && !finder.FindNextFile() &&
                finder.GetLength() == kLargeSize && finder.GetLastWriteTime(&written) && isLate(written));

    const auto isCut = [](const struct stat& cut) {
        return cut.st_mtime == static_cast<time_t>(kLate) && cut.st_size == static_cast<off_t>(kLargeSize);
    };
    KZSuperGlob glob;
    struct stat cut {};
    ASSERT_TRUE(glob.AddPattern("large") && glob.GlobMore(d) && glob.count() == 1);
    glob.begin()->GetStat(&cut);
    EXPECT_TRUE(glob.begin()->modificationTime == kLate && isCut(cut));
    FileLock file(large.c_str(), FileLock::in | FileLock::nocreate);
    KZFileStatus whole{};
    EXPECT_TRUE(file.FileStat(&cut) == 0 && file.FileStat(&whole) && whole.modificationTime == kLate &&
                whole.size == kLargeSize && isCut(cut) && cut.st_ino == whole.inode);

    const OwnedHandle handle = watching(d, kAllFilters, /*subtree=*/TRUE);
    pass();
    ChangeNotificationHandle& watched = directoryOf(handle);
    watched.Lock();
    const NotifyRecords& records = *watched.GetNotifyData();
    EXPECT_EQ(records.size(), 2U);
    EXPECT_TRUE(std::ranges::all_of(records, [](const auto& record) {
        return isLate(record.time) && (record.name != "large" || record.size == kLargeLow);
    }));
    watched.Unlock();

    const DWORD size = GetDirectoryTreeSize(d);
    fs::remove(large);
    EXPECT_EQ(size - kLargeLow, GetDirectoryTreeSize(d));
}

TEST_F(FileStatus, StandsInNobodysWayWhateverTheFilesSizeAndDate) {
    const std::string copy = d + "/copy", made = d + "/made", other = home / "new";
    EXPECT_TRUE(SetFileAttributes(large.c_str(), FILE_ATTRIBUTE_NORMAL)) << errno;
    EXPECT_EQ(errorOf(CopyFile(small.c_str(), small.c_str(), FALSE)), EEXIST) << "onto itself";
    {
        const FailCall cannotTell{Call::Rename, EINVAL};
        EXPECT_EQ(errorOf(MoveFile(small.c_str(), large.c_str())), EEXIST);
    }
    EXPECT_TRUE(CopyFile(small.c_str(), copy.c_str(), TRUE)) << errno;
    writeText(other, "new");
    EXPECT_TRUE(CopyFile(other.c_str(), small.c_str(), FALSE) && readText(small) == "new") << errno;
    FileLock file;
    ASSERT_TRUE(dateLate(small));
    EXPECT_TRUE(file.OpenAndLockFile(small.c_str(), FileLock::out | FileLock::trunc, nullptr, 0)) << errno;
    EXPECT_EQ(readText(small), "");

    fs::permissions(sub, fs::perms{0711});
    EXPECT_TRUE(CreateDirectoryEx(sub.c_str(), made.c_str(), nullptr)) << errno;
    EXPECT_EQ(fs::status(made).permissions(), fs::perms{0711});
    EXPECT_TRUE(RemoveDirectory(link.c_str()) && !fs::is_symlink(link) && !fs::exists(sub)) << errno;

    const std::string name = "late-mapping-" + std::to_string(::getpid()), backing = "/tmp/." + name;
    writeText(backing, "");
    ASSERT_TRUE(::truncate64(backing.c_str(), kLargeSize) == 0 && dateLate(backing));
    const OwnedHandle mapping{
        CreateFileMapping(INVALID_HANDLE_VALUE, nullptr, PAGE_READONLY, 0, 4096, name.c_str())};
    ::unlink(backing.c_str());
    EXPECT_TRUE(UnmapViewOfFile(MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, 4096))) << errno;
}

}  // namespace
}  // namespace traiklofox::test
