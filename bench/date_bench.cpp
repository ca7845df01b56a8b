// date_bench.cpp: reading, rendering, packing and unpacking dates, and reading the locales at the start.

#include <locale.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <traiklofox/dates.h>
#include <unistd.h>

#include <array>
#include <string>

#include "support/floor.h"

namespace traiklofox::bench {
namespace {

constexpr LCID kEnglish = 1033;

struct Typed {
    const char* text;
    const char* format;  // as strptime must be told
    double value;
};
constexpr Typed kTyped[] = {
    {"1/2/2000", "%m/%d/%Y", 36527},
    {"10:30:15 pm", "%I:%M:%S %p", 81015.0 / 86400},
    {"2 January 1999 13:05", "%d %B %Y %H:%M", 36162 + 785.0 / 1440},
};

void parse(benchmark::State& state, const Typed& typed) {
    double value = 0;
    for (auto _ : state) {
        const char* text = typed.text;
        benchmark::DoNotOptimize(text);
        if (sarnu_VarDateFromStr(text, kEnglish, 0, &value) != S_OK) return state.SkipWithError("not read");
        benchmark::DoNotOptimize(value);
    }
}

void parseWithFormat(benchmark::State& state, const Typed& typed) {
    for (auto _ : state) {
        tm fields{};
        const char* text = typed.text;
        benchmark::DoNotOptimize(text);
        if (strptime(text, typed.format, &fields) == nullptr) return state.SkipWithError("not read");
        benchmark::DoNotOptimize(fields);
    }
}

void render(benchmark::State& state, const Typed& typed) {
    for (auto _ : state) {
        double value = typed.value;
        benchmark::DoNotOptimize(value);
        char* text = nullptr;
        (void)sarnu_VarBstrFromDate(value, kEnglish, 0, &text);
        benchmark::DoNotOptimize(*text);
        free(text);
    }
}

void renderWithFormat(benchmark::State& state, const Typed& typed) {
    tm fields{};
    strptime(typed.text, typed.format, &fields);
    for (auto _ : state) {
        char text[64];
        benchmark::DoNotOptimize(fields);
        benchmark::DoNotOptimize(strftime(text, sizeof text, typed.format, &fields));
        benchmark::DoNotOptimize(text);
    }
}

/// What no rendering can do without, because its caller frees the text.
void allocate(benchmark::State& state, const Typed& typed) {
    for (auto _ : state) {
        char* text = static_cast<char*>(malloc(strlen(typed.text) + 1));
        benchmark::DoNotOptimize(*text);
        free(text);
    }
}

/// Values of a stride that meets every month, weekday and kind of year; made before they are needed, so that the loop
/// has no branch of its own to mispredict.
constexpr size_t kValues = 1024;
constexpr double kEpoch = 25569;  // 1970, from when gmtime_r has an easy time
constexpr auto kDates = [] {
    std::array<double, kValues> dates{};
    double value = kEpoch;
    for (double& date : dates) {
        date = value;
        value += 12345.678;
        if (value > 50000) value -= 50000 - kEpoch;
    }
    return dates;
}();

void unpack(benchmark::State& state) {
    size_t next = 0;
    tagUDS fields{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(VarUdateFromDate(kDates[next++ % kValues], 0, &fields));
        benchmark::DoNotOptimize(fields);
    }
}

void splitUnixTime(benchmark::State& state) {
    size_t next = 0;
    tm fields{};
    for (auto _ : state) {
        const auto seconds = static_cast<time_t>((kDates[next++ % kValues] - kEpoch) * 86400);
        benchmark::DoNotOptimize(gmtime_r(&seconds, &fields));
        benchmark::DoNotOptimize(fields);
    }
}

void pack(benchmark::State& state) {
    tagUDS fields{1999, 1, 0, 1, 13, 5, 7, 0, 0};
    tagVARIANT value{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(fields);
        benchmark::DoNotOptimize(ErrPackDate(&fields, &value, /*validate=*/1, 0));
        benchmark::DoNotOptimize(value);
        fields.wMonth = static_cast<WORD>(fields.wMonth % 12 + 1);
    }
}

void joinUnixTime(benchmark::State& state) {
    tm fields{};
    fields.tm_year = 99;
    fields.tm_mday = 1;
    fields.tm_hour = 13;
    for (auto _ : state) {
        benchmark::DoNotOptimize(fields);
        benchmark::DoNotOptimize(timegm(&fields));
        fields.tm_mon = (fields.tm_mon + 1) % 12;
    }
}

/// One iteration is a whole process's start: what was read once stays, so each is measured in a child.
template <class Body>
void inChildren(benchmark::State& state, Body body) {
    for (auto _ : state) state.SetIterationTime(body());
}

double secondsOf(const timespec& begin, const timespec& end) {
    return static_cast<double>(end.tv_sec - begin.tv_sec) +
           static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e9;
}

/// Runs the body in a child and returns how long it took there.
double measuredInChild(void (*body)()) {
    int ends[2];
    if (pipe(ends) != 0) return 0;
    const pid_t child = fork();
    if (child == 0) {
        timespec begin{};
        timespec end{};
        clock_gettime(CLOCK_MONOTONIC, &begin);
        body();
        clock_gettime(CLOCK_MONOTONIC, &end);
        const double seconds = secondsOf(begin, end);
        _exit(write(ends[1], &seconds, sizeof seconds) == sizeof seconds ? 0 : 1);
    }
    close(ends[1]);
    double seconds = 0;
    if (read(ends[0], &seconds, sizeof seconds) != sizeof seconds) seconds = 0;
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return seconds;
}

void initializeLocales(benchmark::State& state) {
    inChildren(state, [] { return measuredInChild([] { benchmark::DoNotOptimize(initLocaleInfo()); }); });
}

/// Opens the same locales' data, and asks nothing of them.
void openLocales(benchmark::State& state) {
    inChildren(state, [] {
        return measuredInChild([] {
            const LocaleRow* rows = nullptr;
            int count = 0;
            getLocaleList(&rows, &count);
            for (int i = 0; i < count; ++i)
                benchmark::DoNotOptimize(newlocale(LC_TIME_MASK | LC_CTYPE_MASK, rows[i].posixName, nullptr));
        });
    });
}

Measurement parseOf(const Typed& typed) {
    return {.operation = std::string("parse \"") + typed.text + "\"",
            .body = [&](benchmark::State& state) { parse(state, typed); },
            .floor = "strptime with the known format",
            .floorBody = [&](benchmark::State& state) { parseWithFormat(state, typed); },
            .aimNanoseconds = 100};
}

Measurement renderOf(const Typed& typed) {
    return {.operation = std::string("render \"") + typed.text + "\"",
            .body = [&](benchmark::State& state) { render(state, typed); },
            .floor = "strftime with such a format",
            .floorBody = [&](benchmark::State& state) { renderWithFormat(state, typed); },
            .aimNanoseconds = 60};
}

const Comparison kParseDate{parseOf(kTyped[0])};
const Comparison kParseTime{parseOf(kTyped[1])};
const Comparison kParseBoth{parseOf(kTyped[2])};
const Comparison kRenderDate{renderOf(kTyped[0])};
const Comparison kRenderTime{renderOf(kTyped[1])};
const Comparison kRenderBoth{renderOf(kTyped[2])};
const Comparison kAllocate{{
    .operation = "of a rendering: malloc and free of its text",
    .body = [](benchmark::State& state) { allocate(state, kTyped[2]); },
    .floor = "the same for the shortest of the three",
    .floorBody = [](benchmark::State& state) { allocate(state, kTyped[0]); },
}};
const Comparison kUnpack{{
    .operation = "unpack a date",
    .body = unpack,
    .floor = "gmtime_r",
    .floorBody = splitUnixTime,
    .aimNanoseconds = 15,
}};
const Comparison kPack{{
    .operation = "pack a date",
    .body = pack,
    .floor = "timegm",
    .floorBody = joinUnixTime,
    .aimNanoseconds = 15,
}};
const Comparison kStart{{
    .operation = "initLocaleInfo with 29 of its locales present",
    .body = initializeLocales,
    .floor = "newlocale for each, by its listed name",
    .floorBody = openLocales,
    .measuresItself = true,
    .configure =
        [](benchmark::internal::Benchmark& runs) { runs.Unit(benchmark::kMillisecond)->Iterations(20); },
}};

/// The locales that were built for the tests, for the machine has few.
__attribute__((constructor)) void useTestLocales() {
    setenv("LOCPATH", TRAIKLOFOX_TEST_LOCALES, /*replace=*/1);
}

}  // namespace
}  // namespace traiklofox::bench
