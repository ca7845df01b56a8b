// registry_lookup_bench.cpp: looking a value up, and changing one, in registries of three sizes.

#include <algorithm>
#include <cstdio>
#include <map>
#include <mutex>
#include <numeric>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "support/floor.h"
#include "support/registry_installation.h"

namespace traiklofox::bench {
namespace {

constexpr int kSizes[] = {100, 10'000, 100'000};

/// One tree with a branch of each size, and the handle of each branch.
HKEY topOf(int keys) {
    static const std::map<int, HKEY> tops = [] {
        std::string text;
        for (const int size : kSizes) text += RegistryShape{size}.text();
        RegistryInstallation::get().hold(text);
        std::map<int, HKEY> opened;
        for (const int size : kSizes) opened[size] = openOrAbort(RegistryShape{size}.topKey());
        return opened;
    }();
    return tops.at(keys);
}

/// The path of every key, in an order that no cache foresees: the same one in each run.
const std::vector<std::string>& shuffledPaths(int keys) {
    static std::map<int, std::vector<std::string>> known;
    std::vector<std::string>& paths = known[keys];
    if (!paths.empty()) return paths;
    std::vector<int> order(static_cast<size_t>(keys));
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::minstd_rand{1});
    for (const int key : order) paths.push_back(RegistryShape::keyName(key));
    return paths;
}

void lookUp(benchmark::State& state) {
    const int keys = static_cast<int>(state.range(0));
    const HKEY top = topOf(keys);
    const std::vector<std::string>& paths = shuffledPaths(keys);
    size_t next = 0;
    for (auto _ : state) {
        HKEY key = 0;
        BYTE data[64];
        DWORD size = sizeof data;
        if (RegOpenKeyEx(top, paths[next].c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS ||
            RegQueryValueEx(key, "value3", nullptr, nullptr, data, &size) != ERROR_SUCCESS)
            state.SkipWithError("look-up failed");
        benchmark::DoNotOptimize(data);
        RegCloseKey(key);
        if (++next == paths.size()) next = 0;
    }
}

void hashLookUp(benchmark::State& state) {
    const int keys = static_cast<int>(state.range(0));
    static std::map<int, std::unordered_map<std::string, std::string>> maps;
    std::unordered_map<std::string, std::string>& map = maps[keys];
    if (map.empty())
        for (int key = 0; key < keys; ++key)
            map[RegistryShape::keyName(key)] = "some text of key " + std::to_string(key);
    const std::vector<std::string>& paths = shuffledPaths(keys);
    std::mutex lock;
    size_t next = 0;
    for (auto _ : state) {
        {
            BYTE data[64];
            const std::lock_guard guard(lock);
            const std::string& found = map.find(paths[next])->second;
            found.copy(reinterpret_cast<char*>(data), sizeof data);
            benchmark::DoNotOptimize(data);
        }
        if (++next == paths.size()) next = 0;
    }
}

const Comparison kLookUp{{
    .operation = "registry: open, query, close; keys",
    .body = lookUp,
    .floor = "one hash look-up and copy under one mutex",
    .floorBody = hashLookUp,
    .aim = 3,
    .configure =
        [](benchmark::internal::Benchmark& it) {
            for (const int keys : kSizes) it.Arg(keys);
        },
}};

void query(benchmark::State& state) {
    const HKEY top = topOf(kSizes[0]);
    HKEY key = 0;
    if (RegOpenKeyEx(top, shuffledPaths(kSizes[0])[0].c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
        state.SkipWithError("not opened");
    for (auto _ : state) {
        BYTE data[64];
        DWORD size = sizeof data;
        if (RegQueryValueEx(key, "value3", nullptr, nullptr, data, &size) != ERROR_SUCCESS)
            state.SkipWithError("look-up failed");
        benchmark::DoNotOptimize(data);
    }
    RegCloseKey(key);
}

void hashQuery(benchmark::State& state) {
    const std::unordered_map<std::string, std::string> map{{"value3", "some text of key 3"}};
    std::mutex lock;
    for (auto _ : state) {
        BYTE data[64];
        const std::lock_guard guard(lock);
        const std::string& found = map.find("value3")->second;
        found.copy(reinterpret_cast<char*>(data), sizeof data);
        benchmark::DoNotOptimize(data);
    }
}

const Comparison kQuery{{
    .operation = "registry: query a value of an open key",
    .body = query,
    .floor = "one hash look-up and copy under one mutex",
    .floorBody = hashQuery,
}};

void setValue(benchmark::State& state) {
    const HKEY top = topOf(kSizes[0]);
    DWORD number = 0;
    for (auto _ : state) {
        ++number;
        RegSetValueEx(top, "counter", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number);
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

}  // namespace
}  // namespace traiklofox::bench
