#include "soak/life.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "support/bounded_wait.h"

namespace traiklofox::soak {

namespace {

// Of what a healthy process gains without leaking: pieces of the heap that threads leave to one another.
constexpr long kResidentSlackKiB = 8 * 1024;
constexpr long kHeapSlackKiB = 512;
constexpr std::chrono::seconds kBetweenStocks{1};

}  // namespace

Holdings Holdings::now() {
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;  // the second number
    const struct mallinfo2 heap = ::mallinfo2();
    return {.descriptors = test::openDescriptors(),
            .threads = test::threadCount(),
            .residentKiB = pages * (::sysconf(_SC_PAGESIZE) / 1024),
            .heapKiB = static_cast<long>((heap.uordblks + heap.hblkhd) / 1024)};
}

Life::Life(const test::RoleArguments& args, std::chrono::milliseconds clockSteps)
    : random{std::mt19937(static_cast<unsigned>(std::stoul(args.at(2))))},
      slot(std::stoul(args.at(1))),
      isMortal(args.at(3) == "mortal"),
      clockSteps_(clockSteps) {
    playAs(args.at(0), slot);
    ownSlot().beat = monotonicSeconds();
}

void Life::stepClock() {
    const auto most = clockSteps_.count();
    const long long lead = static_cast<long long>(random.below(static_cast<DWORD>(2 * most))) - most;
    clock_.runAhead(lead / 1000, static_cast<long>(lead % 1000) * 1'000'000);
    ++board().clockSteps;
}

void Life::takeStock(int rounds) {
    ownSlot().beat = monotonicSeconds();
    const bool isWarm = rounds > 1 && monotonicSeconds() >= board().warmUntil;
    if (isWarm || Clock::now() < nextStock_) return;
    nextStock_ = Clock::now() + kBetweenStocks;
    Holdings holdings = Holdings::now();
    if (warm_) {  // what is left over by each round is left over by the first
        holdings.descriptors = warm_->descriptors;
        holdings.threads = warm_->threads;
    }
    warm_ = holdings;
}

void Life::checkLeftOvers() const {
    constexpr int kSeconds = 20;  // for threads that have done all but end
    Holdings last = Holdings::now();
    (void)test::withinSeconds(kSeconds, [&] {
        last = Holdings::now();
        return last.descriptors <= warm_->descriptors && last.threads <= warm_->threads;
    });
    check(NothingLeaks, last.descriptors <= warm_->descriptors, "%d descriptors, %d after the first round",
          last.descriptors, warm_->descriptors);
    check(NothingLeaks, last.threads <= warm_->threads, "%d threads, %d after the first round", last.threads,
          warm_->threads);
    if (test::kSanitized) return;  // a sanitizer keeps what is freed
    raise(board().residentGrowthKiB,
          static_cast<std::uint32_t>(std::max(0L, last.residentKiB - warm_->residentKiB)));
    raise(board().heapGrowthKiB, static_cast<std::uint32_t>(std::max(0L, last.heapKiB - warm_->heapKiB)));
    check(MemoryBounded, last.residentKiB <= warm_->residentKiB + kResidentSlackKiB,
          "%ld KiB resident, %ld when warm", last.residentKiB, warm_->residentKiB);
    check(MemoryBounded, last.heapKiB <= warm_->heapKiB + kHeapSlackKiB, "%ld KiB on the heap, %ld when warm",
          last.heapKiB, warm_->heapKiB);
}

}  // namespace traiklofox::soak
