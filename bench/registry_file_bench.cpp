// registry_file_bench.cpp: reading and writing the registry file, and making one change durable.

#include <fcntl.h>
#include <malloc.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "support/floor.h"
#include "support/registry_installation.h"

namespace {

bool syncsAreSkipped = false;

}  // namespace

// In place of libc's, for the library too: what the disk takes is not what is compared where these are skipped.
extern "C" int fsync(int fd) {
    return syncsAreSkipped ? 0 : static_cast<int>(syscall(SYS_fsync, fd));
}
extern "C" int fdatasync(int fd) {
    return syncsAreSkipped ? 0 : static_cast<int>(syscall(SYS_fdatasync, fd));
}

namespace traiklofox::bench {
namespace {

constexpr int kValuesPerKey = 5;
const std::string kNothing = "hkey_local_machine\\software:1\n";

const std::string& textOf(std::int64_t values) {
    static std::map<std::int64_t, std::string> known;
    std::string& text = known[values];
    if (text.empty()) text = RegistryShape{static_cast<int>(values / kValuesPerKey), kValuesPerKey}.text();
    return text;
}

/// Makes the tree that of a file with so many values, unless it is.
void holdValues(std::int64_t values) {
    static std::int64_t held = 0;
    if (held == values) return;
    RegistryInstallation& installation = RegistryInstallation::get();
    installation.hold(kNothing);
    malloc_trim(0);
    const size_t before = mallinfo2().uordblks;
    installation.hold(textOf(values));
    const size_t used = mallinfo2().uordblks - before;
    held = values;
    static std::map<std::int64_t, size_t> told;
    if (!std::exchange(told[values], used))
        std::printf("%lld values in memory: %zu bytes each\n", static_cast<long long>(values),
                    used / static_cast<size_t>(values));
}

void countBytes(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(textOf(state.range(0)).size()));
}

void sizes(benchmark::internal::Benchmark& it) {
    it.Unit(benchmark::kMillisecond)->Arg(10'000)->Arg(1'000'000)->Repetitions(5);
}

/// Reads the file into an empty tree, as a start does.
void readFirst(benchmark::State& state) {
    RegistryInstallation& installation = RegistryInstallation::get();
    holdValues(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        installation.hold(kNothing);
        test::writeText(installation.path("tw.registry"), textOf(state.range(0)));
        state.ResumeTiming();
        if (!ReadRegistry(/*purge=*/1)) state.SkipWithError("not read");
    }
    countBytes(state);
}

/// Reads it again, as after a change by another process.
void readAgain(benchmark::State& state) {
    holdValues(state.range(0));
    for (auto _ : state)
        if (!ReadRegistry(/*purge=*/1)) state.SkipWithError("not read");
    countBytes(state);
}

/// Reads the lines and puts names and data into hash maps.
void readLines(benchmark::State& state) {
    RegistryInstallation& installation = RegistryInstallation::get();
    holdValues(state.range(0));
    for (auto _ : state) {
        auto keys =
            std::make_unique<std::unordered_map<std::string, std::unordered_map<std::string, std::string>>>();
        std::unordered_map<std::string, std::string>* current = nullptr;
        std::ifstream file(installation.path("tw.registry"));
        std::string line;
        while (std::getline(file, line)) {
            const size_t colon = line.find(':');
            if (line.find("hkey_local_machine") != line.npos)
                current = &(*keys)[line.substr(0, colon)];
            else if (current != nullptr)
                (*current)[line.substr(0, colon)] = line.substr(23, line.find(';') - 23);
        }
        benchmark::DoNotOptimize(keys->size());
        state.PauseTiming();
        keys.reset();
        state.ResumeTiming();
    }
    countBytes(state);
}

const Comparison kReadFirst{{
    .operation = "registry: read the file at the start; values",
    .body = readFirst,
    .floor = "read the lines, fill hash maps",
    .floorBody = readLines,
    .aim = 1.5,
    .configure = sizes,
}};
const Comparison kReadAgain{{
    .operation = "registry: read the file again; values",
    .body = readAgain,
    .floor = "read the lines, fill hash maps",
    .floorBody = readLines,
    .aim = 1.5,
    .configure = sizes,
}};

/// Skips the syncs for a scope.
struct WithoutSyncs {
    WithoutSyncs() { syncsAreSkipped = true; }
    ~WithoutSyncs() { syncsAreSkipped = false; }
};

void writeAll(benchmark::State& state) {
    holdValues(state.range(0));
    const WithoutSyncs without;
    for (auto _ : state)
        if (!WriteRegistry()) state.SkipWithError("not written");
    countBytes(state);
}

void putInPlace(benchmark::State& state, const std::string& text) {
    RegistryInstallation& installation = RegistryInstallation::get();
    const std::string temporary = installation.path("bench.tmp");
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        state.SkipWithError("short write");
    fsync(fd);
    close(fd);
    if (rename(temporary.c_str(), installation.path("bench.out").c_str()) != 0)
        state.SkipWithError("not renamed");
}

void writeText(benchmark::State& state) {
    (void)RegistryInstallation::get();
    const RegistryShape shape{static_cast<int>(state.range(0)) / kValuesPerKey, kValuesPerKey};
    const WithoutSyncs without;
    for (auto _ : state) putInPlace(state, shape.text());
    countBytes(state);
}

const Comparison kWrite{{
    .operation = "registry: write the file, no syncs; values",
    .body = writeAll,
    .floor = "build the text, write and rename it",
    .floorBody = writeText,
    .aim = 1.3,
    .configure = sizes,
}};

void makeDurable(benchmark::State& state) {
    holdValues(state.range(0));
    const HKEY key = openOrAbort("software\\bench");
    DWORD number = 0;
    for (auto _ : state) {
        ++number;
        RegSetValueEx(key, "counter", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number);
        if (RegFlushKey(key) != ERROR_SUCCESS) state.SkipWithError("not written");
    }
    RegCloseKey(key);
}

void writeSyncRename(benchmark::State& state) {
    RegistryInstallation& installation = RegistryInstallation::get();
    const std::string& text = textOf(state.range(0));
    const int directory = open(installation.path("").c_str(), O_RDONLY | O_DIRECTORY);
    for (auto _ : state) {
        putInPlace(state, text);
        fsync(directory);
    }
    close(directory);
}

const Comparison kDurable{{
    .operation = "registry: set a value and flush; values",
    .body = makeDurable,
    .floor = "write, sync and rename a file of those bytes",
    .floorBody = writeSyncRename,
    .configure = [](benchmark::internal::Benchmark& it) { it.Unit(benchmark::kMillisecond)->Arg(10'000); },
}};

}  // namespace
}  // namespace traiklofox::bench
