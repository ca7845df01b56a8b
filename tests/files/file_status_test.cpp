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

OwnedHandle openFile(const std::string& path) {
    return OwnedHandle{CreateFile(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr)};
}

/// Dated late, all of them: d/large, d/small ("content"), d/sub, d/link, which leads to "sub", and d.
struct Place {
    const TempDir home;
    const std::string d = home / "d";
    const std::string large = d + "/large";
    const std::string small = d + "/small";
    const std::string sub = d + "/sub";
    const std::string link = d + "/link";
};

struct Row {
    const char* call;
    bool (*works)(const Place& at);
};

const Row kRows[] = {
    {"GetFileSize",
     [](const Place& at) {
         DWORD high = 77;
         return GetFileSize(openFile(at.large).get(), &high) == kLargeLow && high == 0;
     }},
    {"GetFileTime",
     [](const Place& at) {
         _FILETIME created, accessed, written;
         return GetFileTime(openFile(at.small).get(), &created, &accessed, &written) && isLate(created) &&
                isLate(accessed) && isLate(written);
     }},
    {"GetFileAttributes",
     [](const Place& at) { return GetFileAttributes(at.large.c_str()) == FILE_ATTRIBUTE_NORMAL; }},
    {"SetFileAttributes",
     [](const Place& at) { return SetFileAttributes(at.large.c_str(), FILE_ATTRIBUTE_NORMAL) != FALSE; }},
    {"GetDirectoryTreeSize",
     [](const Place& at) {
         const DWORD size = GetDirectoryTreeSize(at.d);
         return ::unlink(at.large.c_str()) == 0 && size - kLargeLow == GetDirectoryTreeSize(at.d);
     }},
    {"FindFirstFile",
     [](const Place& at) {
         _WIN32_FIND_DATA data;
         Handle* const search = FindFirstFile((at.d + "/l*e").c_str(), &data);
         return search != INVALID_HANDLE_VALUE && FindClose(search) == 2 && isLate(data.ftCreationTime) &&
                isLate(data.ftLastAccessTime) && isLate(data.ftLastWriteTime) && data.nFileSizeHigh == 0 &&
                data.nFileSizeLow == kLargeLow;
     }},
    {"FindFirstFile, of a directory",
     [](const Place& at) {
         _WIN32_FIND_DATA data;
         Handle* const search = FindFirstFile(at.sub.c_str(), &data);
         return search != INVALID_HANDLE_VALUE && FindClose(search) == 2 &&
                data.cFileName == std::string(".");
     }},
    {"CFileFind",
     [](const Place& at) {
         CFileFind finder;
         _FILETIME time;
         return finder.FindFile(at.large.c_str()) && !finder.FindNextFile() &&
                finder.GetLength() == kLargeSize && finder.GetLastWriteTime(&time) && isLate(time);
     }},
    {"KZSuperGlob",
     [](const Place& at) {
         KZSuperGlob glob;
         struct stat cut {};
         if (!glob.AddPattern("large") || !glob.GlobMore(at.d) || glob.count() != 1) return false;
         glob.begin()->GetStat(&cut);
         return glob.begin()->modificationTime == kLate && cut.st_mtime == static_cast<time_t>(kLate) &&
                cut.st_size == static_cast<off_t>(kLargeSize);
     }},
    {"FileLock::FileStat",
     [](const Place& at) {
         FileLock file(at.large.c_str(), FileLock::in | FileLock::nocreate);
         struct stat cut {};
         KZFileStatus whole{};
         return file.FileStat(&cut) == 0 && file.FileStat(&whole) && whole.modificationTime == kLate &&
                whole.size == kLargeSize && cut.st_mtime == static_cast<time_t>(kLate) &&
                cut.st_size == static_cast<off_t>(kLargeSize) && cut.st_ino == whole.inode;
     }},
    {"FileLock::OpenAndLockFile",
     [](const Place& at) {
         FileLock file;
         return file.OpenAndLockFile(at.small.c_str(), FileLock::out | FileLock::trunc, nullptr, 0) &&
                readText(at.small).empty();
     }},
    {"CopyFile",
     [](const Place& at) { return CopyFile(at.small.c_str(), (at.d + "/new").c_str(), TRUE) != FALSE; }},
    {"CopyFile, over a late one",
     [](const Place& at) {
         writeText(at.home / "new", "new");
         return CopyFile((at.home / "new").c_str(), at.small.c_str(), FALSE) && readText(at.small) == "new";
     }},
    {"CopyFile, onto itself",
     [](const Place& at) { return !CopyFile(at.small.c_str(), at.small.c_str(), FALSE) && errno == EEXIST; }},
    {"MoveFile, where the system cannot tell whether the target exists",
     [](const Place& at) {
         const FailCall old{Call::Rename, EINVAL};
         return !MoveFile(at.small.c_str(), at.large.c_str()) && errno == EEXIST;
     }},
    {"CreateDirectoryEx",
     [](const Place& at) {
         const std::string made = at.d + "/made";
         return ::chmod(at.sub.c_str(), 0711) == 0 &&
                CreateDirectoryEx(at.sub.c_str(), made.c_str(), nullptr) &&
                fs::status(made).permissions() == fs::perms{0711};
     }},
    {"RemoveDirectory, of a link",
     [](const Place& at) {
         return RemoveDirectory(at.link.c_str()) && !fs::is_symlink(at.link) && !fs::exists(at.sub);
     }},
    {"CreateFile, of a directory",
     [](const Place& at) {
         return OwnedHandle{CreateFile(at.d.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_BACKUP_SEMANTICS, nullptr)} != nullptr;
     }},
    {"WatchDirsThread",
     [](const Place& at) {
         const OwnedHandle handle = watching(at.d, kAllFilters, /*subtree=*/TRUE);
         pass();
         ChangeNotificationHandle& watched = directoryOf(handle);
         watched.Lock();
         const auto& records = *watched.GetNotifyData();
         const bool areLate = std::ranges::all_of(records, [](const auto& record) {
             return isLate(record.time) && (record.name != "large" || record.size == kLargeLow);
         });
         const bool isWhole = records.size() == 2;
         watched.Unlock();
         return isWhole && areLate;
     }},
    {"CreateFileMapping", [](const Place&) {
         const std::string name = "late-mapping-" + std::to_string(::getpid());
         const std::string backing = "/tmp/." + name;
         writeText(backing, "");
         const bool isMade = ::truncate64(backing.c_str(), kLargeSize) == 0 && dateLate(backing);
         const OwnedHandle mapping{
             CreateFileMapping(INVALID_HANDLE_VALUE, nullptr, PAGE_READONLY, 0, 4096, name.c_str())};
         ::unlink(backing.c_str());
         const void* const view = isMade ? MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, 4096) : nullptr;
         return view != nullptr && UnmapViewOfFile(view);
     }}};

TEST(FileStatus, IsKnownWhateverTheFilesSizeAndDate) {
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.call);
        const Place at;
        writeText(at.small, "content");
        writeText(at.large, "");
        fs::create_directory(at.sub);
        fs::create_symlink("sub", at.link);
        ASSERT_EQ(::truncate64(at.large.c_str(), kLargeSize), 0);
        for (const std::string& path : {at.large, at.small, at.link, at.sub, at.d})
            if (!dateLate(path)) GTEST_SKIP() << "the file system has no dates after 2038";
        errno = 0;
        EXPECT_TRUE(row.works(at)) << std::strerror(errno);
    }
}

}  // namespace
}  // namespace traiklofox::test
