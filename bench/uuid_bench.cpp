// uuid_bench.cpp: printing and reading UUIDs.

#include <traiklofox/uuid.h>

#include <cstdio>
#include <cstdlib>

#include "support/floor.h"

namespace traiklofox::bench {
namespace {

const _GUID kUuid{0x01234567, 0x89ab, 0xcdef, {0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32, 0x10}};
const unsigned char kText[] = "01234567-89ab-cdef-fedc-ba9876543210";
constexpr size_t kTextSize = 128;

void print(benchmark::State& state) {
    for (auto _ : state) {
        unsigned char* text = nullptr;
        UuidToString(&kUuid, &text);
        benchmark::DoNotOptimize(text);
        RpcStringFree(&text);
    }
}

void printByFormat(benchmark::State& state) {
    for (auto _ : state) {
        auto* const text = static_cast<char*>(std::malloc(kTextSize));
        const BYTE* const b = kUuid.Data4;
        std::snprintf(text, kTextSize, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                      static_cast<unsigned int>(kUuid.Data1), kUuid.Data2, kUuid.Data3, b[0], b[1], b[2],
                      b[3], b[4], b[5], b[6], b[7]);
        benchmark::DoNotOptimize(text);
        std::free(text);
    }
}

void read(benchmark::State& state) {
    for (auto _ : state) {
        _GUID uuid;
        if (UuidFromString(kText, &uuid) != 0) state.SkipWithError("not read");
        benchmark::DoNotOptimize(uuid);
    }
}

void readByFormat(benchmark::State& state) {
    for (auto _ : state) {
        unsigned long first = 0;
        unsigned int f[10];
        const int fields =
            std::sscanf(reinterpret_cast<const char*>(kText), "%8lx-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x",
                        &first, &f[0], &f[1], &f[2], &f[3], &f[4], &f[5], &f[6], &f[7], &f[8], &f[9]);
        if (fields != 11) state.SkipWithError("not read");
        benchmark::DoNotOptimize(f);
    }
}

const Comparison kPrint{{
    .operation = "uuid: to a text, and free it",
    .body = print,
    .floor = "malloc + snprintf + free",
    .floorBody = printByFormat,
    .aim = 0.2,
}};
const Comparison kRead{{
    .operation = "uuid: from a text",
    .body = read,
    .floor = "sscanf",
    .floorBody = readByFormat,
    .aim = 0.2,
}};

}  // namespace
}  // namespace traiklofox::bench
