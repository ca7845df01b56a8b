// watch_bench.cpp: a pass over a watched directory of 100,000 files in which nothing has changed.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <traiklofox/change_notification.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/floor.h"
#include "support/temp_dir.h"

namespace traiklofox::bench {
namespace {

constexpr int kFiles = 100'000;

/// Gone with the process, which has no other moment to remove it.
const std::string& directory() {
    static const test::TempDir made;
    static const bool isFilled = [] {
        for (int i = 0; i < kFiles; ++i) {
            const std::string path = made / ("session-" + std::to_string(i * 7919LL % kFiles) + ".dat");
            const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
            if (fd < 0) std::abort();
            ::close(fd);
        }
        return true;
    }();
    (void)isFilled;  // it is the making that counts
    return made.path();
}

void scanUnchanged(benchmark::State& state) {
    const CKZString path = directory();
    auto* handle = static_cast<ChangeNotificationHandle*>(FindFirstChangeNotification(
        path.c_str(), FALSE,
        FILE_NOTIFY_CHANGE_ATTRIBUTES | FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE));
    UnixDirScan(path, handle, /*deviceTest=*/nullptr);
    handle->Clear();
    for (auto _ : state) UnixDirScan(path, handle, /*deviceTest=*/nullptr);
    if (handle->GetPending()) state.SkipWithError("something has changed");
    FindCloseChangeNotification(handle);
}

void readAndStat(benchmark::State& state) {
    const std::string& path = directory();
    for (auto _ : state) {
        DIR* const opened = ::opendir(path.c_str());
        int files = 0;
        while (const dirent64* const entry = ::readdir64(opened)) {
            struct stat64 status;
            if (::fstatat64(::dirfd(opened), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) ++files;
            benchmark::DoNotOptimize(status);
        }
        ::closedir(opened);
        if (files < kFiles) state.SkipWithError("files missing");
    }
}

const Comparison kScan{{
    .operation = "watch: a pass over 100,000 unchanged files",
    .body = scanUnchanged,
    .floor = "readdir + fstatat",
    .floorBody = readAndStat,
    .aim = 1.2,
    .configure = [](benchmark::internal::Benchmark& it) { it.Unit(benchmark::kMillisecond); },
}};

}  // namespace
}  // namespace traiklofox::bench
