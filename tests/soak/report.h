#pragma once

#include <string>

#include "soak/supervisor.h"

namespace traiklofox::soak {

struct Run {
    unsigned seed;
    Clock::duration asked;
    Clock::duration took;
};

/// True when each invariant was looked at, and held.
bool allHeld();

/// A page: what was done, what was done to it, and each invariant with its verdict.
std::string report(const Run& run, const Supervisor& supervisor);

}  // namespace traiklofox::soak
