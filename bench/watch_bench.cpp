// watch_bench.cpp: a pass over a watched directory of 100,000 files in which nothing has changed.

#include <traiklofox/change_notification.h>

#include "support/floor.h"
#include "support/many_files.h"

namespace traiklofox::bench {
namespace {

void scanUnchanged(benchmark::State& state) {
    const CKZString path = directoryOfManyFiles();
    auto* handle = static_cast<ChangeNotificationHandle*>(FindFirstChangeNotification(
        path.c_str(), FALSE,
        FILE_NOTIFY_CHANGE_ATTRIBUTES | FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE));
    UnixDirScan(path, handle, /*deviceTest=*/nullptr);
    handle->Clear();
    for (auto _ : state) UnixDirScan(path, handle, /*deviceTest=*/nullptr);
    if (handle->GetPending()) state.SkipWithError("something has changed");
    FindCloseChangeNotification(handle);
}

const Comparison kScan{{
    .operation = "watch: a pass over 100,000 unchanged files",
    .body = scanUnchanged,
    .floor = "readdir + fstatat",
    .floorBody = readAndStatManyFiles<AT_SYMLINK_NOFOLLOW>,
    .aim = 1.2,
    .configure = [](benchmark::internal::Benchmark& it) { it.Unit(benchmark::kMillisecond); },
}};

}  // namespace
}  // namespace traiklofox::bench
