// uuid.cpp: making UUIDs.

#include <traiklofox/uuid.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>

#include "foundation/mutex.h"
#include "foundation/sys.h"

namespace sys = traiklofox::sys;
using traiklofox::foundation::LockGuard;
using traiklofox::foundation::LockRank;
using traiklofox::foundation::Mutex;

namespace {

constexpr LONG kMade = 0;
constexpr LONG kFailed = 1;

using Node = std::array<BYTE, 6>;

class NodeAddress {
  public:
    /// Nothing when the machine has no host identifier.
    std::optional<Node> get() {
        const LockGuard guard(lock_);
        if (!isKnown_) {
            const auto host = static_cast<std::uint32_t>(sys::gethostid());
            if (host == 0) return std::nullopt;
            std::memcpy(bytes_.data(), &host, sizeof host);
            isKnown_ = true;
        }
        return bytes_;
    }

  private:
    Mutex<LockRank::Leaf> lock_;
    bool isKnown_ TRAIKLOFOX_GUARDED_BY(lock_) = false;
    Node bytes_ TRAIKLOFOX_GUARDED_BY(lock_) = {};  // the last two stay zeros
};

struct Instant {
    std::uint32_t seconds;
    std::uint32_t microseconds;
    bool operator==(const Instant&) const = default;
};

class Clock {
  public:
    struct Reading {
        Instant time;
        std::uint16_t sequence;
    };

    /// A time that no call before has got. Nothing when there is none within a second.
    std::optional<Reading> read() {
        constexpr int kTries = 2;
        constexpr timespec kPause{.tv_sec = 1, .tv_nsec = 0};
        const LockGuard guard(lock_);
        for (int tries = 1;; ++tries) {
            const Instant time = now();
            if (!sequence_) sequence_ = static_cast<std::uint16_t>(time.seconds);
            if (time != last_) {
                last_ = time;
                return Reading{time, *sequence_};
            }
            if (tries == kTries) return std::nullopt;
            (void)sys::nanosleep(kPause,
                                 /*remaining=*/nullptr);  // a signal that ends it has let time pass, too
        }
    }

  private:
    static Instant now() {
        const timeval time = sys::now();
        return {static_cast<std::uint32_t>(time.tv_sec), static_cast<std::uint32_t>(time.tv_usec)};
    }

    Mutex<LockRank::Leaf> lock_;
    std::optional<std::uint16_t> sequence_ TRAIKLOFOX_GUARDED_BY(lock_);
    Instant last_ TRAIKLOFOX_GUARDED_BY(lock_) = {};
};

constinit NodeAddress nodeAddress;
constinit Clock uuidClock;

/// Who holds a lock, for a second perhaps, is not in a forked child, which begins anew.
void renewInChildren() {
    (void)pthread_atfork(nullptr, nullptr, [] {
        std::construct_at(&nodeAddress);
        std::construct_at(&uuidClock);
    });
}

}  // namespace

LONG UuidCreate(_GUID* out) {
    static constinit pthread_once_t once = PTHREAD_ONCE_INIT;
    if (out == nullptr) return kFailed;
    (void)pthread_once(&once, renewInChildren);  // cannot fail
    const auto node = nodeAddress.get();
    if (!node) return kFailed;
    const auto reading = uuidClock.read();
    if (!reading) return kFailed;

    constexpr unsigned int kVersion = 0x1000;
    constexpr unsigned int kVariant = 0x80;
    const auto& [time, sequence] = *reading;
    out->Data1 = time.microseconds;
    out->Data2 = static_cast<WORD>(time.seconds & 0xFFFF);
    out->Data3 = static_cast<WORD>(((time.seconds >> 16) & 0x0FFF) | kVersion);
    out->Data4[0] = static_cast<BYTE>(((sequence & 0x3F00) >> 8) | kVariant);
    out->Data4[1] = static_cast<BYTE>(sequence & 0xFF);
    std::ranges::copy(*node, &out->Data4[2]);
    return kMade;
}

LONG CoCreateGuid(_GUID* out) {
    return UuidCreate(out);
}
