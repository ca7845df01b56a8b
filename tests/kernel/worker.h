#pragma once

// What the kernel's tests share: owned handles, threads that can be seen to sleep, and bounds.

#include <sys/syscall.h>
#include <traiklofox/events.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "support/bounded_wait.h"

namespace traiklofox::test {

/// Milliseconds for a wait that something ends at once: whoever reaches them was not woken.
constexpr DWORD kBound = 20'000;
constexpr int kBoundSeconds = 20;
/// The longest that anything takes which nobody has to wait for, on a machine with other work to do.
constexpr std::chrono::seconds kPrompt{8};

/// Rounds of a stress test: fewer where a sanitizer makes each of them slow.
constexpr int rounds(int plain) {
#if defined(__SANITIZE_THREAD__)
    return plain / 10;
#elif defined(__SANITIZE_ADDRESS__)
    return plain / 4;
#else
    return plain;
#endif
}

/// The same where the environment does not say how many (`make stress` does).
inline int roundsOrStress(int plain) {
    const char* stress = std::getenv("TRAIKLOFOX_STRESS");
    return stress != nullptr ? std::atoi(stress) : rounds(plain);
}

struct HandleCloser {
    void operator()(Handle* handle) const { CloseHandle(handle); }
};
using OwnedHandle = std::unique_ptr<Handle, HandleCloser>;

enum class Kind { Auto, Manual };
enum class Initially { Unset, Set };

inline OwnedHandle makeEvent(Kind kind, Initially state = Initially::Unset) {
    return OwnedHandle{CreateEvent(nullptr, kind == Kind::Manual, state == Initially::Set, nullptr)};
}
inline bool isSet(const OwnedHandle& event) {
    return static_cast<Event*>(event.get())->EventIsSignaled() != 0;
}

/// An event that counts its destruction.
class MortalEvent : public Event {
  public:
    MortalEvent(Kind kind, std::atomic<int>& deaths, LONG initialData = -1)
        : Event(initialData, kind == Kind::Manual, /*initialState=*/FALSE, nullptr), deaths_(deaths) {}
    ~MortalEvent() override { ++deaths_; }

  private:
    std::atomic<int>& deaths_;
};

inline std::chrono::steady_clock::time_point now() {
    return std::chrono::steady_clock::now();
}

/// True as soon as `holds()` does, false after kBoundSeconds: for what another processor does in the next
/// moment. It spins, then sleeps, and never yields: the kernel may charge each yield as a whole time slice, and
/// on a busy machine a thread that yields again and again then hardly ever runs.
template <class Predicate>
bool soon(Predicate holds) {
    constexpr int kGlances = 1'000;
    const auto giveUp = now() + std::chrono::seconds{kBoundSeconds};
    for (int glances = 0; !holds(); ++glances) {
        if (glances < kGlances) {
            __builtin_ia32_pause();
            continue;
        }
        if (now() >= giveUp) return false;
        std::this_thread::sleep_for(std::chrono::microseconds{50});
    }
    return true;
}

/// A thread that the library did not start, with its handle. Its body must end by itself; the destructor
/// joins it.
class Worker {
  public:
    template <class Body>
    explicit Worker(Body body) {
        thread_ = std::thread([this, body = std::move(body)]() mutable {
            Handle* self = nullptr;
            DuplicateHandle(nullptr, GetCurrentThread(), nullptr, &self, 0, FALSE, 0);
            handle_.reset(self);
            native_ = pthread_self();
            tid_.store(::gettid(), std::memory_order_release);
            tid_.notify_one();
            body();
        });
        tid_.wait(0, std::memory_order_acquire);
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    ~Worker() { join(); }

    void join() {
        if (thread_.joinable()) thread_.join();
    }
    Handle* handle() const { return handle_.get(); }
    pthread_t native() const { return native_; }

    /// True once the thread blocks: in the call `number`, or in whatever call when it is -1.
    bool fallsAsleep(long number = -1) const {
        return withinSeconds(kBoundSeconds,
                             [&] { return number == -1 ? sleeps() : sleeps() && blockedIn() == number; });
    }

  private:
    bool sleeps() const {
        std::ifstream stat("/proc/self/task/" + std::to_string(tid_.load()) + "/stat");
        const std::string text{std::istreambuf_iterator<char>(stat), {}};
        const size_t name = text.rfind(')');
        return name != std::string::npos && name + 2 < text.size() && text[name + 2] == 'S';
    }
    long blockedIn() const {
        std::ifstream call("/proc/self/task/" + std::to_string(tid_.load()) + "/syscall");
        long number = -1;
        return call >> number ? number : -1;  // "running" otherwise
    }

    std::atomic<pid_t> tid_{0};
    OwnedHandle handle_;
    pthread_t native_{};
    std::thread thread_;
};

/// A thread made by `CreateThread` that runs `body`; null when it cannot be made.
inline OwnedHandle createThread(std::function<void()> body) {
    auto boxed = std::make_unique<std::function<void()>>(std::move(body));
    const auto run = [](void* argument) -> DWORD {
        const std::unique_ptr<std::function<void()>> mine(static_cast<std::function<void()>*>(argument));
        (*mine)();
        return 0;
    };
    OwnedHandle thread{CreateThread(nullptr, 0, run, boxed.get(), 0, nullptr)};
    if (thread) (void)boxed.release();  // the thread owns it
    return thread;
}

}  // namespace traiklofox::test
