// The main function of every benchmark program. The command line may override what is set here.

#include <vector>

#include "support/comparison.h"

int main(int argc, char** argv) {
    // Several short repetitions in random order, so that a passing disturbance of the machine hits an
    // operation and its floor alike and the median drops it.
    char interleaving[] = "--benchmark_enable_random_interleaving=true";
    char repetitions[] = "--benchmark_repetitions=7";
    char minimalTime[] = "--benchmark_min_time=0.03";
    std::vector<char*> arguments{argv[0], interleaving, repetitions, minimalTime};
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;

    traiklofox::bench::ComparisonReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return reporter.hasFailed() ? 1 : 0;
}
