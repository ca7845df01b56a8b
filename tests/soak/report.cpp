#include "soak/report.h"

#include <iomanip>
#include <sstream>
#include <thread>

#include "soak/workers.h"

namespace traiklofox::soak {

namespace {

bool isLookedAt(size_t invariant) {
    // A sanitizer keeps what is freed, so that memory is not looked at.
    return board().invariants[invariant].checks > 0 ||
           (test::kSanitized && invariant == static_cast<size_t>(MemoryBounded));
}

double secondsOf(Clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

void listOperations(std::ostream& out) {
    out << std::left << std::setw(48) << "operation" << std::right << std::setw(12) << "done" << std::setw(10)
        << "refused" << std::setw(12) << "worst ms" << '\n';
    for (size_t i = 0; i < kOperationCount; ++i) {
        const auto& entry = board().operations[i];
        out << std::left << std::setw(48) << kOperations[i] << std::right << std::setw(12)
            << entry.done.load() << std::setw(10) << entry.refused.load() << std::setw(12) << std::fixed
            << std::setprecision(1) << entry.worstUs.load() / 1000.0 << '\n';
    }
}

void listInvariants(std::ostream& out) {
    out << "verdict      checks  invariant\n";
    for (size_t i = 0; i < kInvariantCount; ++i) {
        const auto& entry = board().invariants[i];
        const char* verdict = entry.broken > 0 ? "BROKEN" : isLookedAt(i) ? "held" : "NOT SEEN";
        out << std::left << std::setw(8) << verdict << std::right << std::setw(11) << entry.checks.load()
            << "  " << kInvariants[i] << '\n';
        if (entry.broken > 0)
            out << "        " << entry.broken.load() << " times, first: " << entry.first << '\n';
    }
}

}  // namespace

bool allHeld() {
    for (size_t i = 0; i < kInvariantCount; ++i)
        if (board().invariants[i].broken > 0 || !isLookedAt(i)) return false;
    return true;
}

std::string report(const Run& run, const Supervisor& supervisor) {
    std::ostringstream out;
    size_t processes = 0;
    for (const WorkerRow& row : kWorkers) processes += row.steady + row.mortal;
    out << "soak: " << (allHeld() ? "every invariant held" : "BROKEN") << "\n\n"
        << std::fixed << std::setprecision(1) << "seed " << run.seed << ", " << secondsOf(run.asked)
        << " s asked, " << secondsOf(run.took) << " s with start and end; " << processes << " processes, "
        << std::thread::hardware_concurrency() << " processors, " << 8 * sizeof(void*) << " bits\n"
        << "killed at any moment:";
    for (const auto& [role, kills] : supervisor.kills()) out << ' ' << role << ' ' << kills;
    out << "; at a system call of its own: " << supervisor.ownKills() << '\n'
        << "disk full " << supervisor.fullDisks() << " times; system calls made to fail " << board().faults
        << "; clock steps " << board().clockSteps
        << "\nmemory of a process grew after the warm-up by at most " << board().residentGrowthKiB
        << " KiB resident, " << board().heapGrowthKiB << " KiB on the heap\n\n";
    listOperations(out);
    out << '\n';
    listInvariants(out);
    return out.str();
}

}  // namespace traiklofox::soak
