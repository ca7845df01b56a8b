#pragma once

// A directory of 100,000 files, and the bare calls that look at each of them.

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/temp_dir.h"

namespace traiklofox::bench {

constexpr int kManyFiles = 100'000;

/// Made at the first call. Gone with the process, which has no other moment to remove it.
inline const std::string& directoryOfManyFiles() {
    static const test::TempDir made;
    static const bool isFilled = [] {
        for (int i = 0; i < kManyFiles; ++i) {
            const std::string path = made / ("session-" + std::to_string(i * 7919LL % kManyFiles) + ".dat");
            const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
            if (fd < 0) std::abort();
            ::close(fd);
        }
        return true;
    }();
    (void)isFilled;  // it is the making that counts
    return made.path();
}

/// `readdir`, and `fstatat` with the flags, of each.
template <int kFlags>
void readAndStatManyFiles(benchmark::State& state) {
    const std::string& path = directoryOfManyFiles();
    for (auto _ : state) {
        DIR* const opened = ::opendir(path.c_str());
        int entries = 0;
        while (const dirent64* const entry = ::readdir64(opened)) {
            struct stat64 status;
            if (::fstatat64(::dirfd(opened), entry->d_name, &status, kFlags) == 0) ++entries;
            benchmark::DoNotOptimize(status);
        }
        ::closedir(opened);
        if (entries < kManyFiles) state.SkipWithError("files missing");
    }
}

}  // namespace traiklofox::bench
