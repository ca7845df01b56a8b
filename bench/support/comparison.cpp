#include "support/comparison.h"

#include <sys/utsname.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>

#include "support/floor.h"

namespace traiklofox::bench {

namespace {

constexpr std::string_view kFloorSuffix = "/floor";

struct Standard {
    size_t place;  // in the table: in the order of registration, which the random order of the runs hides
    std::string floor;
    std::string aim;
};

std::map<std::string, Standard>& standards() {
    static auto* known = new std::map<std::string, Standard>;  // filled before main, never destroyed
    return *known;
}

void add(const std::string& name, const std::function<void(benchmark::State&)>& body,
         const Measurement& measurement) {
    benchmark::internal::Benchmark* added = benchmark::RegisterBenchmark(name.c_str(), body);
    // By real time, because much of what is measured is waiting.
    (void)(measurement.measuresItself ? added->UseManualTime() : added->UseRealTime());
    if (measurement.configure) measurement.configure(*added);
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

std::string inSuitableUnit(double nanoseconds) {
    struct Unit {
        const char* name;
        double nanoseconds;
    };
    constexpr Unit kUnits[] = {{"s", 1e9}, {"ms", 1e6}, {"us", 1e3}, {"ns", 1}};
    const Unit* unit = std::begin(kUnits);
    while (unit + 1 != std::end(kUnits) && nanoseconds < unit->nanoseconds) ++unit;
    char text[32];
    std::snprintf(text, sizeof text, "%.3g %s", nanoseconds / unit->nanoseconds, unit->name);
    return text;
}

std::string ratioText(double ratio) {
    char text[32];
    std::snprintf(text, sizeof text, ratio < 10 ? "%.2f" : "%.0f", ratio);
    return text;
}

std::string aimText(const Measurement& measurement) {
    if (measurement.aimNanoseconds > 0) return inSuitableUnit(measurement.aimNanoseconds);
    return measurement.aim > 0 ? ratioText(measurement.aim) : "";
}

std::string processorModel() {
    std::ifstream file{"/proc/cpuinfo"};
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("model name")) return line.substr(line.find(':') + 2);
    }
    return "unknown processor";
}

}  // namespace

Comparison::Comparison(const Measurement& measurement) {
    const size_t place = standards().size();
    standards()[measurement.operation] = {place, measurement.floor, aimText(measurement)};
    // For who reads the run's JSON.
    benchmark::AddCustomContext("floor of " + measurement.operation, measurement.floor);
    benchmark::AddCustomContext("aim of " + measurement.operation, aimText(measurement));
    add(measurement.operation, measurement.body, measurement);
    add(measurement.operation + std::string{kFloorSuffix}, measurement.floorBody, measurement);
}

bool ComparisonReporter::ReportContext(const Context& context) {
    utsname system{};
    (void)::uname(&system);  // cannot fail with a valid pointer
    std::printf("\n%s, %d cores, Linux %s, %zu-bit\n", processorModel().c_str(), context.cpu_info.num_cpus,
                system.release, sizeof(void*) * 8);
    (void)std::fflush(stdout);
    return true;
}

ComparisonReporter::Row& ComparisonReporter::rowOf(const std::string& name, const std::string& operation) {
    const auto found =
        std::find_if(rows_.begin(), rows_.end(), [&](const Row& row) { return row.name == name; });
    if (found != rows_.end()) return *found;
    rows_.push_back({name, operation, {}, {}});
    return rows_.back();
}

void ComparisonReporter::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        if (run.error_occurred) {
            std::fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
            failed_ = true;
            continue;
        }
        if (run.run_type != Run::RT_Iteration) continue;  // an aggregate; the medians are taken here

        std::string operation = run.run_name.function_name;
        const bool isFloor = operation.ends_with(kFloorSuffix);
        if (isFloor) operation.resize(operation.size() - kFloorSuffix.size());
        std::string name = operation;
        if (!run.run_name.args.empty()) name += ", " + run.run_name.args;
        if (run.threads > 1) name += ", " + std::to_string(run.threads) + " threads";

        Row& row = rowOf(name, operation);
        const double each = run.real_accumulated_time * 1e9 / static_cast<double>(run.iterations);
        (isFloor ? row.floorNanoseconds : row.nanoseconds).push_back(each);
    }
}

void ComparisonReporter::Finalize() {
    std::stable_sort(rows_.begin(), rows_.end(), [](const Row& left, const Row& right) {
        return standards()[left.operation].place < standards()[right.operation].place;
    });
    int width = 9;
    for (const Row& row : rows_) width = std::max(width, static_cast<int>(row.name.size()));
    std::printf("%-*s | %10s | %10s | %6s | %6s | %s\n", width, "operation", "takes", "floor", "ratio", "aim",
                "what the floor is");
    for (const Row& row : rows_) {
        if (row.nanoseconds.empty()) continue;
        const Standard& standard = standards()[row.operation];
        const double taken = median(row.nanoseconds);
        const double floor = row.floorNanoseconds.empty() ? 0 : median(row.floorNanoseconds);
        std::printf("%-*s | %10s | %10s | %6s | %6s | %s\n", width, row.name.c_str(),
                    inSuitableUnit(taken).c_str(), floor > 0 ? inSuitableUnit(floor).c_str() : "",
                    floor > 0 ? ratioText(taken / floor).c_str() : "", standard.aim.c_str(),
                    standard.floor.c_str());
    }
    (void)std::fflush(stdout);
}

}  // namespace traiklofox::bench
