// search_bench.cpp: walking a directory of 100,000 files.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <traiklofox/files.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/floor.h"
#include "support/temp_dir.h"

namespace traiklofox::bench {
namespace {

constexpr int kFiles = 100'000;
constexpr int kEntries = kFiles + 2;  // with "." and ".."

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

void findAll(benchmark::State& state) {
    const std::string& path = directory();
    for (auto _ : state) {
        _WIN32_FIND_DATA data;
        Handle* const search = FindFirstFile(path.c_str(), &data);
        int entries = 1;
        while (FindNextFile(search, &data)) ++entries;
        FindClose(search);
        if (entries != kEntries) state.SkipWithError("entries missing");
    }
}

void readAndStat(benchmark::State& state) {
    const std::string& path = directory();
    for (auto _ : state) {
        DIR* const opened = ::opendir(path.c_str());
        int entries = 0;
        while (const dirent64* const entry = ::readdir64(opened)) {
            struct stat64 status;
            if (::fstatat64(::dirfd(opened), entry->d_name, &status, 0) == 0) ++entries;
            benchmark::DoNotOptimize(status);
        }
        ::closedir(opened);
        if (entries != kEntries) state.SkipWithError("entries missing");
    }
}

const Comparison kFindAll{{
    .operation = "search: FindFirstFile, then FindNextFile over 100,000 entries",
    .body = findAll,
    .floor = "readdir + fstatat",
    .floorBody = readAndStat,
    .aim = 1.2,
    .configure = [](benchmark::internal::Benchmark& it) { it.Unit(benchmark::kMillisecond); },
}};

}  // namespace
}  // namespace traiklofox::bench
