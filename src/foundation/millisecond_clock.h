#pragma once

// A 32-bit millisecond count extended to 64 bits. Lock-free, so that neither a forked child nor a signal
// handler can find it locked for ever.

#include <traiklofox/types.h>

#include <atomic>
#include <cstdint>

namespace traiklofox::foundation {

class MillisecondClock {
  public:
    /// Extends the present tick count, which `readTick` returns: 2^31 for every flip of bit 31 seen so far,
    /// in either direction, plus the lower 31 bits.
    template <class ReadTick>
    ULONGLONG read(ReadTick readTick) {
        std::uint32_t flips = flips_.load();
        for (;;) {
            // Bit 31 started at 0, so its last known value is that of bit 0 of the number of flips. The tick
            // is younger than `flips`: if they disagree, a flip is due, and whoever loses the race to count
            // it takes a fresh tick, because the winner's may be younger than ours.
            const DWORD tick = readTick();
            const bool flipped = (tick >> 31) != (flips & 1);
            if (!flipped || flips_.compare_exchange_strong(flips, flips + 1))
                return (ULONGLONG{flips + flipped} << 31) + (tick & 0x7FFF'FFFF);
        }
    }

  private:
    std::atomic<std::uint32_t> flips_{0};
};

}  // namespace traiklofox::foundation
