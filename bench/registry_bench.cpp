// registry_bench.cpp: looking a value up, changing one, and reading and writing the file, in a registry of
// 10,000 keys and 50,000 values on a machine of its own.

#include <fcntl.h>
#include <sys/stat.h>
#include <traiklofox/registry.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "support/floor.h"
#include "support/private_machine.h"
#include "support/temp_dir.h"

namespace traiklofox::bench {
namespace {

constexpr int kGroups = 100;
constexpr int kKeysPerGroup = 100;
constexpr int kValuesPerKey = 5;
constexpr int kKeys = kGroups * kKeysPerGroup;

std::string keyName(int group, int key) {
    return "group" + std::to_string(group) + "\\key" + std::to_string(key);
}

/// A registry file as the library writes it, but for the order of its names.
std::string registryText() {
    std::string text = "hkey_local_machine\\software\\bench:1\n";
    int number = 2;
    char line[256];
    for (int group = 0; group < kGroups; ++group) {
        for (int key = 0; key < kKeysPerGroup; ++key) {
            text += "hkey_local_machine\\software\\bench\\" + keyName(group, key) + ":" +
                    std::to_string(number++) + "\n";
            for (int value = 0; value < kValuesPerKey; ++value) {
                const std::string name = "value" + std::to_string(value) + ":";
                const std::string data = "some text of key " + std::to_string(number) + ";";
                std::snprintf(line, sizeof line, "%-22s\t%-22s\tREG_SZ\n", name.c_str(), data.c_str());
                text += line;
            }
        }
    }
    return text;
}

/// The registry that all benchmarks here use, on a machine of its own when that can be had.
class Installation {
  public:
    static Installation& get() {
        static auto& made = *new Installation;
        return made;
    }
    HKEY top() const { return top_; }
    std::string path(const char* name) const { return home_ / (std::string("registry/") + name); }

  private:
    Installation() {
        if (const auto& machine = test::PrivateMachine::enter(); !machine.entered())
            std::fprintf(stderr, "registry benchmarks share this machine's semaphore: %s\n",
                         machine.whyNot().c_str());
        text_ = registryText();
        test::writeText(path("tw.registry.template"), text_);
        setenv("TWHOME", home_.path().c_str(), 1);
        InitRegistry(0, true);
        if (RegOpenKeyEx(HKEY_LOCAL_MACHINE, "software\\bench", 0, KEY_ALL_ACCESS, &top_) != ERROR_SUCCESS)
            std::abort();
    }

    test::TempDir home_;
    std::string text_;
    HKEY top_ = 0;
};

/// Paths in an order that no cache foresees, the same one in each run.
std::vector<std::string> shuffledPaths() {
    std::vector<std::string> paths;
    unsigned int seed = 1;
    for (int i = 0; i < 4096; ++i) {
        const int key = static_cast<int>(static_cast<unsigned int>(rand_r(&seed)) % kKeys);
        paths.push_back(keyName(key / kKeysPerGroup, key % kKeysPerGroup));
    }
    return paths;
}

void lookUp(benchmark::State& state) {
    Installation& installation = Installation::get();
    const std::vector<std::string> paths = shuffledPaths();
    size_t next = 0;
    for (auto _ : state) {
        HKEY key = 0;
        BYTE data[64];
        DWORD size = sizeof data;
        if (RegOpenKeyEx(installation.top(), paths[next++ % paths.size()].c_str(), 0, KEY_READ, &key) !=
                ERROR_SUCCESS ||
            RegQueryValueEx(key, "value3", nullptr, nullptr, data, &size) != ERROR_SUCCESS)
            state.SkipWithError("look-up failed");
        benchmark::DoNotOptimize(data);
        RegCloseKey(key);
    }
}

void hashLookUp(benchmark::State& state) {
    std::unordered_map<std::string, std::string> map;
    for (int group = 0; group < kGroups; ++group)
        for (int key = 0; key < kKeysPerGroup; ++key) map[keyName(group, key)] = "some text of a key";
    const std::vector<std::string> paths = shuffledPaths();
    std::mutex lock;
    size_t next = 0;
    for (auto _ : state) {
        const std::lock_guard guard(lock);
        benchmark::DoNotOptimize(map.find(paths[next++ % paths.size()])->second.data());
    }
}

const Comparison kLookUp{{
    .operation = "registry: open, query, close (10,000 keys)",
    .body = lookUp,
    .floor = "one hash look-up under one mutex",
    .floorBody = hashLookUp,
    .aim = 3,
}};

void setValue(benchmark::State& state) {
    Installation& installation = Installation::get();
    DWORD number = 0;
    for (auto _ : state) {
        ++number;
        RegSetValueEx(installation.top(), "counter", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number),
                      sizeof number);
    }
}

void hashAssign(benchmark::State& state) {
    std::unordered_map<std::string, std::string> map{{"counter", "0"}};
    std::mutex lock;
    unsigned int number = 0;
    for (auto _ : state) {
        char text[16];
        std::snprintf(text, sizeof text, "%#x", ++number);
        const std::lock_guard guard(lock);
        map["counter"] = text;
    }
}

const Comparison kSetValue{{
    .operation = "registry: set a number",
    .body = setValue,
    .floor = "format, assign in a hash map under one mutex",
    .floorBody = hashAssign,
}};

void readFile(benchmark::State& state) {
    Installation& installation = Installation::get();
    for (auto _ : state) {
        if (!ReadRegistry(/*purge=*/1)) state.SkipWithError("not read");
    }
    struct stat status {};
    (void)stat(installation.path("tw.registry").c_str(), &status);
    state.SetBytesProcessed(state.iterations() * status.st_size);
}

/// Reads the lines and puts names and data into hash maps.
void readLines(benchmark::State& state) {
    Installation& installation = Installation::get();
    for (auto _ : state) {
        std::unordered_map<std::string, std::unordered_map<std::string, std::string>> keys;
        std::unordered_map<std::string, std::string>* current = nullptr;
        std::ifstream file(installation.path("tw.registry"));
        std::string line;
        while (std::getline(file, line)) {
            const size_t colon = line.find(':');
            if (line.find("hkey_local_machine") != line.npos)
                current = &keys[line.substr(0, colon)];
            else if (current != nullptr)
                (*current)[line.substr(0, colon)] = line.substr(23, line.find(';') - 23);
        }
        benchmark::DoNotOptimize(keys.size());
    }
}

const Comparison kRead{{
    .operation = "registry: read the file (50,000 values)",
    .body = readFile,
    .floor = "read the lines, fill hash maps",
    .floorBody = readLines,
    .aim = 1.5,
    .configure = [](benchmark::internal::Benchmark& it) { it.Unit(benchmark::kMillisecond); },
}};

void writeFile(benchmark::State& state) {
    (void)Installation::get();
    for (auto _ : state) {
        if (!WriteRegistry()) state.SkipWithError("not written");
    }
}

/// Builds the same text, writes, syncs and renames it.
void writeLines(benchmark::State& state) {
    Installation& installation = Installation::get();
    const std::string temporary = installation.path("bench.tmp");
    const std::string path = installation.path("bench.out");
    for (auto _ : state) {
        const std::string text = registryText();
        const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            state.SkipWithError("short write");
        fdatasync(fd);
        close(fd);
        rename(temporary.c_str(), path.c_str());
    }
}

const Comparison kWrite{{
    .operation = "registry: write the file (50,000 values)",
    .body = writeFile,
    .floor = "build the text, write, sync and rename it",
    .floorBody = writeLines,
    .aim = 1.3,
    .configure = [](benchmark::internal::Benchmark& it) { it.Unit(benchmark::kMillisecond); },
}};

}  // namespace
}  // namespace traiklofox::bench
