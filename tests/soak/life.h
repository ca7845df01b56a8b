#pragma once

// A worker's life: rounds until the run ends, under a clock that steps, and an account of what is left over.

#include <chrono>
#include <optional>

#include "registry/registry_fixture.h"
#include "soak/board.h"
#include "support/fault_injection.h"

namespace traiklofox::soak {

/// How far the wall clock may be ahead or behind. Waits go by real time, so that those who wait for a time of the wall
/// clock wait by so much too long: for them it is short.
constexpr std::chrono::milliseconds kSmallSteps{200};
constexpr std::chrono::milliseconds kGreatSteps{std::chrono::hours{36}};

/// What a process holds that could be leaked.
struct Holdings {
    static Holdings now();
    int descriptors;
    int threads;
    long residentKiB;
    long heapKiB;
};

class Life {
  public:
    /// The arguments are those of every role: its name, the slot, a seed, and "mortal" for one that may kill itself.
    Life(const test::RoleArguments& args, std::chrono::milliseconds clockSteps);

    /// Rounds until the run is over, and enough of them to tell what one leaves behind. 0, the role's result.
    template <class Round>
    int live(Round round) {
        for (int rounds = 1; rounds <= kLeastRounds || board().stop == 0; ++rounds) {
            if (random.below(8) == 0) stepClock();
            round();
            takeStock(rounds);
        }
        checkLeftOvers();
        return 0;
    }

    test::Random random;
    const size_t slot;
    const bool isMortal;

  private:
    static constexpr int kLeastRounds = 3;

    void stepClock();
    void takeStock(int rounds);
    void checkLeftOvers() const;

    const std::chrono::milliseconds clockSteps_;
    test::FakeTime clock_;
    std::optional<Holdings> warm_;
    Clock::time_point nextStock_;
};

}  // namespace traiklofox::soak
