// All subsystems at once, in several processes, for minutes: some of them killed, the disk full at times, the clock
// stepping. Ends in a page that says what was done and which invariants held.
//
// usage: soak [--minutes M] [--seed S]      10 minutes and a seed of its own; the page tells it
// Exit status: 0 all held, 1 one is broken or was never looked at, 2 usage, 77 no private machine to be had.

#include <charconv>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>
#include <random>

#include "soak/report.h"
#include "soak/supervisor.h"
#include "support/captured_output.h"
#include "support/role.h"
#include "support/temp_dir.h"

namespace {

using namespace traiklofox::soak;
using namespace traiklofox::test;

constexpr int kUsage = 2;
constexpr int kSkipped = 77;

struct Options {
    double minutes = 10;
    unsigned seed = std::random_device{}();
};

template <class Number>
bool readNumber(const char* text, Number& number) {
    const auto [end, error] = std::from_chars(text, text + std::strlen(text), number);
    return error == std::errc{} && *end == '\0';
}

std::optional<Options> readOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; i += 2) {
        const std::string_view name = argv[i];
        const bool isRead =
            i + 1 < argc && ((name == "--minutes" && readNumber(argv[i + 1], options.minutes)) ||
                             (name == "--seed" && readNumber(argv[i + 1], options.seed)));
        if (!isRead) return std::nullopt;
    }
    if (!(options.minutes > 0 && options.minutes < 100'000)) return std::nullopt;
    return options;
}

/// What the processes complained of: the invariants' breaks, and the last lines.
std::string endOf(const std::string& log) {
    constexpr size_t kMost = 6'000;
    std::string breaks;
    for (size_t at = 0; (at = log.find("BROKEN: ", at)) != log.npos && breaks.size() < kMost;) {
        const size_t end = std::min(log.find('\n', at), log.size());
        breaks += log.substr(at, end - at) + '\n';
        at = end;
    }
    return breaks + "...\n" + log.substr(log.size() > kMost ? log.size() - kMost : 0);
}

int soak(const Options& options) {
    const TempDir directory;
    ::setenv("SOAK_DIRECTORY", directory.path().c_str(), /*overwrite=*/1);
    ::setenv("TWHOME", (directory / "home").c_str(), /*overwrite=*/1);
    std::cout << "soak: " << options.minutes << " minutes, seed " << options.seed << std::endl;

    Run run{options.seed,
            std::chrono::duration_cast<Clock::duration>(
                std::chrono::duration<double, std::ratio<60>>(options.minutes)),
            {}};
    const auto start = Clock::now();
    const auto warmUp = std::min<Clock::duration>(run.asked / 4, std::chrono::minutes{1});
    board().warmUntil = monotonicSeconds() + static_cast<std::uint32_t>(warmUp / std::chrono::seconds{1});
    std::string log;
    {
        const CapturedStderr captured;
        Supervisor supervisor(options.seed);
        supervisor.runUntil(start + run.asked);
        supervisor.finish();
        run.took = Clock::now() - start;
        log = captured.text();
        std::cout << report(run, supervisor);
    }
    const int status = allHeld() ? 0 : 1;
    if (status != 0) std::cout << "\nstandard error of the processes:\n" << endOf(log);
    std::cout << "\nexit status " << status << std::endl;
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    if (const auto status = runRequestedRole(argc, argv)) return *status;
    const auto options = readOptions(argc, argv);
    if (!options) {
        std::cerr << "usage: soak [--minutes M] [--seed S]\n";
        return kUsage;
    }
    if (const auto& machine = PrivateMachine::enter(); !machine.entered()) {
        std::cerr << "soak: " << machine.whyNot() << '\n';
        return kSkipped;
    }
    return soak(*options);
}
