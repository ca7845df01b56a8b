// search_bench.cpp: walking a directory of 100,000 files.

#include <traiklofox/files.h>

#include "support/floor.h"
#include "support/many_files.h"

namespace traiklofox::bench {
namespace {

constexpr int kEntries = kManyFiles + 2;  // with "." and ".."

void findAll(benchmark::State& state) {
    const std::string& path = directoryOfManyFiles();
    for (auto _ : state) {
        _WIN32_FIND_DATA data;
        Handle* const search = FindFirstFile(path.c_str(), &data);
        int entries = 1;
        while (FindNextFile(search, &data)) ++entries;
        FindClose(search);
        if (entries != kEntries) state.SkipWithError("entries missing");
    }
}

const Comparison kFindAll{{
    .operation = "search: FindFirstFile, then FindNextFile over 100,000 entries",
    .body = findAll,
    .floor = "readdir + fstatat",
    .floorBody = readAndStatManyFiles<0>,
    .aim = 1.2,
    .configure = [](benchmark::internal::Benchmark& it) { it.Unit(benchmark::kMillisecond); },
}};

}  // namespace
}  // namespace traiklofox::bench
