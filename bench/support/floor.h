#pragma once

// Every measured operation stands beside its floor: the bare system calls or POSIX primitives that it cannot
// do without. Both run interleaved, several times, and the table at the end gives the medians and their
// ratio.
//
//     void setThenWait(benchmark::State& state) { for (auto _ : state) { ... } }
//     void lockSignalWait(benchmark::State& state) { ... }
//
//     const Comparison kSetThenWait{{
//         .operation = "event: set, then wait",
//         .body = setThenWait,
//         .floor = "mutex + condition",
//         .floorBody = lockSignalWait,
//         .aim = 1.5,
//     }};

#include <benchmark/benchmark.h>

#include <functional>
#include <string>

namespace traiklofox::bench {

struct Measurement {
    std::string operation;
    std::function<void(benchmark::State&)> body;
    std::string floor;
    std::function<void(benchmark::State&)> floorBody;
    double aim = 0;             ///< greatest wanted ratio; 0: none is set
    double aimNanoseconds = 0;  ///< greatest wanted time instead; 0: none is set
    /// The bodies give each iteration's time by `SetIterationTime`.
    bool measuresItself = false;
    /// Applied to the operation and to its floor, for arguments, threads or iterations.
    std::function<void(benchmark::internal::Benchmark&)> configure = {};
};

/// Registers an operation and its floor. Made before main, as a constant of a file.
class Comparison {
  public:
    explicit Comparison(const Measurement& measurement);
};

}  // namespace traiklofox::bench
