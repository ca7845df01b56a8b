#pragma once

// What the kernel's tests share: threads that can be seen to sleep, bounds, and shorthands for handles and waits.

#include <gtest/gtest.h>
#include <traiklofox/events.h>
#include <traiklofox/semaphores.h>
#include <traiklofox/threads.h>
#include <traiklofox/timers.h>
#include <traiklofox/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/bounded_wait.h"
#include "support/owned_handle.h"

namespace traiklofox::test {

using std::chrono::milliseconds;

/// Milliseconds for a wait that something ends at once: whoever reaches them was not woken.
constexpr DWORD kBound = 60'000;
constexpr int kBoundSeconds = 60;
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

enum class Kind { Auto, Manual };
inline OwnedHandle makeEvent(Kind kind = Kind::Auto, bool initiallySet = false) {
    return OwnedHandle{CreateEvent(nullptr, kind == Kind::Manual, initiallySet, nullptr)};
}
inline OwnedHandle makeSemaphore(LONG count, LONG most) {
    return OwnedHandle{CreateSemaphore(nullptr, count, most, "named")};
}
inline OwnedHandle makeMutex(BOOL owned = FALSE) {
    return OwnedHandle{CreateMutex(nullptr, owned, "named")};
}
inline OwnedHandle makeTimer(Kind kind = Kind::Auto) {
    return OwnedHandle{CreateWaitableTimer(nullptr, kind == Kind::Manual, "named")};
}
inline OwnedHandle makeFile(int fd = -1) {
    return OwnedHandle{new File(fd)};
}
inline bool isSet(const OwnedHandle& event) {
    return static_cast<Event*>(event.get())->EventIsSignaled() != 0;
}

inline DWORD waitFor(const OwnedHandle& handle, DWORD timeout = kBound, BOOL alertable = FALSE) {
    return WaitForSingleObjectEx(handle.get(), timeout, alertable);
}
inline DWORD waitForAny(std::vector<Handle*> handles, DWORD timeout = kBound, BOOL alertable = FALSE) {
    return WaitForMultipleObjectsEx(static_cast<DWORD>(handles.size()), handles.data(), FALSE, timeout,
                                    alertable);
}
inline DWORD waitForAll(std::vector<Handle*> handles, DWORD timeout = kBound, BOOL alertable = FALSE) {
    return WaitForMultipleObjectsEx(static_cast<DWORD>(handles.size()), handles.data(), TRUE, timeout,
                                    alertable);
}

inline std::chrono::steady_clock::time_point now() {
    return std::chrono::steady_clock::now();
}
/// True as soon as `holds()` does, false after kBoundSeconds: for what another processor does in the next
/// moment. It spins, then sleeps, and never yields: the kernel may charge each yield as a whole time slice, and
/// on a busy machine a thread that yields again and again then hardly ever runs.
template <class Predicate>
bool soon(Predicate holds) {
    const auto giveUp = now() + std::chrono::seconds{kBoundSeconds};
    for (int glances = 0; !holds(); ++glances) {
        if (glances < 1'000) {
            __builtin_ia32_pause();
        } else {
            if (now() >= giveUp) return false;
            std::this_thread::sleep_for(std::chrono::microseconds{50});
        }
    }
    return true;
}
inline bool becomes(const std::atomic<int>& number, int value) {
    return soon([&] { return number == value; });
}
/// A pause of some processor's steps, which no other thread gets to use.
inline void linger(int steps) {
    while (steps-- > 0) std::atomic_signal_fence(std::memory_order_seq_cst);
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
    void cancel() {
        pthread_cancel(thread_.native_handle());
        join();
    }
    Handle* handle() const { return handle_.get(); }
    /// True once the thread blocks.
    bool fallsAsleep() const {
        return withinSeconds(kBoundSeconds, [this] {
            std::ifstream stat("/proc/self/task/" + std::to_string(tid_.load()) + "/stat");
            const std::string text{std::istreambuf_iterator<char>(stat), {}};
            return text.find(") S ") != std::string::npos;
        });
    }

  private:
    std::atomic<pid_t> tid_{0};
    OwnedHandle handle_;
    std::thread thread_;
};

/// Threads with numbers from 0, joined at the end or by `clear`.
class Workers : public std::vector<std::unique_ptr<Worker>> {
  public:
    Workers() = default;
    template <class Body>
    Workers(int count, Body body) {
        add(count, body);
    }
    template <class Body>
    void add(int count, Body body) {
        for (int i = 0; i < count; ++i) push_back(std::make_unique<Worker>([body, i] { body(i); }));
    }
    bool fallAsleep() const {
        return std::all_of(begin(), end(), [](const auto& worker) { return worker->fallsAsleep(); });
    }
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

/// Queues `function(&argument, 0, 0)` to `thread`.
template <class Argument>
void queueTo(Handle* thread, PAPCFUNC function, Argument& argument) {
    EXPECT_EQ(QueueUserAPC(function, thread, reinterpret_cast<ULONG_PTR>(&argument)), 0u);
}
inline void count(void* counter, void*, void*) {
    ++*static_cast<std::atomic<int>*>(counter);
}
inline void setEvent(void* event, void*, void*) {
    SetEvent(static_cast<Handle*>(event));
}
inline void nothing(void*, void*, void*) {}

}  // namespace traiklofox::test
