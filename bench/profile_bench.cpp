// profile_bench.cpp: reading a value of a profile of 10,000 lines, which is in memory or has just been changed, and
// changing one in memory.

#include <traiklofox/profiles.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <unordered_map>

#include "support/floor.h"
#include "support/temp_dir.h"

namespace traiklofox::bench {
namespace {

constexpr int kSections = 100;
constexpr int kKeys = 99;  // and the section's own line
constexpr const char* kSection = "section-61";
constexpr const char* kKey = "SettingNumber61";
constexpr const char* kValue = "value-61-61";

/// Gone with the process, which has no other moment to remove it.
const std::string& profile() {
    static const test::TempDir directory;
    static const std::string path = [] {
        std::string text;
        for (int section = 0; section < kSections; ++section) {
            text += "[section-" + std::to_string(section) + "]\n";
            for (int key = 0; key < kKeys; ++key)
                text += "SettingNumber" + std::to_string(key) + "=value-" + std::to_string(section) + "-" +
                        std::to_string(key) + "\n";
        }
        test::writeText(directory / "server.ini", text);
        return directory / "server.ini";
    }();
    return path;
}

bool isRight(benchmark::State& state, const char* read) {
    if (std::strcmp(read, kValue) == 0) return true;
    state.SkipWithError("another value");
    return false;
}

void readCached(benchmark::State& state) {
    const char* path = profile().c_str();
    char buffer[64];
    for (auto _ : state)
        benchmark::DoNotOptimize(GetPrivateProfileString(kSection, kKey, "", buffer, sizeof buffer, path));
    isRight(state, buffer);
}

void lookUpAndCopy(benchmark::State& state) {
    std::unordered_map<std::string, std::string> values;
    for (int section = 0; section < kSections; ++section)
        for (int key = 0; key < kKeys; ++key)
            values["section-" + std::to_string(section) + "\nSettingNumber" + std::to_string(key)] =
                "value-" + std::to_string(section) + "-" + std::to_string(key);
    const std::string name = std::string(kSection) + "\n" + kKey;
    char buffer[64];
    for (auto _ : state) {
        const std::string& value = values.find(name)->second;
        std::memcpy(buffer, value.c_str(), value.size() + 1);
        benchmark::DoNotOptimize(buffer);
    }
    isRight(state, buffer);
}

void readUncached(benchmark::State& state) {
    const char* path = profile().c_str();
    char buffer[64];
    for (auto _ : state) {
        WritePrivateProfileString(nullptr, nullptr, nullptr,
                                  path);  // so that the next read looks at the file
        benchmark::DoNotOptimize(GetPrivateProfileString(kSection, kKey, "", buffer, sizeof buffer, path));
    }
    isRight(state, buffer);
}

void readLines(benchmark::State& state) {
    const std::string& path = profile();
    for (auto _ : state) {
        std::ifstream file(path);
        int lines = 0;
        for (std::string line; std::getline(file, line);) ++lines;
        if (lines != kSections * (kKeys + 1)) state.SkipWithError("lines missing");
    }
}

/// Changes one key after the other in memory; the writing to the file is not counted.
void changeCached(benchmark::State& state, const std::string& path) {
    constexpr int kMostKept = 900;  // at 1,000 the library writes
    SetProfileWriteCaching(TRUE);
    int kept = 0;
    for (auto _ : state) {
        const std::string key = "SettingNumber" + std::to_string(kept % kKeys);
        benchmark::DoNotOptimize(WritePrivateProfileString(kSection, key.c_str(), kValue, path.c_str()));
        if (++kept < kMostKept) continue;
        state.PauseTiming();
        WritePrivateProfileString(nullptr, nullptr, nullptr, path.c_str());
        kept = 0;
        state.ResumeTiming();
    }
    SetProfileWriteCaching(FALSE);
}

void changeLarge(benchmark::State& state) {
    static const std::string path = profile() + ".changed";
    test::writeText(path, test::readText(profile()));
    changeCached(state, path);
}

void changeSmall(benchmark::State& state) {
    static const std::string path = profile() + ".small";
    test::writeText(path, "[section]\n");
    changeCached(state, path);
}

const Comparison kChanged{{
    .operation = "profile: WritePrivateProfileString, 10,000 lines cached",
    .body = changeLarge,
    .floor = "the same in a file of a line",
    .floorBody = changeSmall,
}};

const Comparison kCached{{
    .operation = "profile: GetPrivateProfileString, 10,000 lines cached",
    .body = readCached,
    .floor = "unordered_map look-up + copy",
    .floorBody = lookUpAndCopy,
    .aimNanoseconds = 300,
}};

const Comparison kUncached{{
    .operation = "profile: GetPrivateProfileString, 10,000 lines to be read",
    .body = readUncached,
    .floor = "reading the lines",
    .floorBody = readLines,
    .aim = 1.2,
}};

}  // namespace
}  // namespace traiklofox::bench
