// Semaphores and mutexes: their counts and owners, who is woken, and many threads at once. How calls and cancellation
// end their waits is in async_call_test.cpp and cancel_test.cpp, with those of the other kinds.

#include <traiklofox/events.h>
#include <traiklofox/semaphores.h>

#include <gtest/gtest.h>
#include <limits.h>

#include <vector>

#include "kernel/worker.h"

namespace {

using namespace traiklofox::test;

using Workers = std::vector<std::unique_ptr<Worker>>;

OwnedHandle makeSemaphore(LONG count, LONG most) {
    return OwnedHandle{CreateSemaphore(nullptr, count, most, nullptr)};
}
OwnedHandle makeMutex() {
    return OwnedHandle{CreateMutex(nullptr, FALSE, "named")};
}
DWORD waitBriefly(const OwnedHandle& handle, DWORD milliseconds = 0) {
    return WaitForSingleObject(handle.get(), milliseconds);
}
template <class Body>
void inAnotherThread(Body body) {
    std::thread{body}.join();
}

TEST(Semaphore, CountsFromItsInitialCountUpToItsMaximum) {
    const struct {
        LONG initial, most, amount;
        BOOL made, released;
        LONG after;
    } cases[] = {
        {2, 1, 1, FALSE, 0, 0},
        {-1, 1, 1, FALSE, 0, 0},
        {0, -1, 1, FALSE, 0, 0},
        {-1, -1, 1, FALSE, 0, 0},
        {0, 0, 1, TRUE, 0, 0},
        {0, 1, 1, TRUE, 1, 1},
        {1, 1, 1, TRUE, 0, 1},
        {3, 5, 2, TRUE, 1, 5},
        {3, 5, 3, TRUE, 0, 3},
        {3, 5, 0, TRUE, 0, 3},
        {3, 5, -1, TRUE, 0, 3},
        {3, INT_MAX, INT_MAX, TRUE, 0, 3},
        {3, INT_MAX, INT_MAX - 3, TRUE, 1, INT_MAX},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.initial << " of " << c.most << ", " << c.amount << " more");
        const OwnedHandle semaphore{CreateSemaphore(nullptr, c.initial, c.most, "named")};
        ASSERT_EQ(semaphore != nullptr, c.made);
        if (!semaphore) continue;
        LONG previous = 77;
        EXPECT_EQ(ReleaseSemaphore(semaphore.get(), c.amount, &previous), c.released);
        EXPECT_EQ(previous, c.released ? c.initial : 77);
        if (c.after == INT_MAX) continue;
        for (LONG left = c.after; left > 0; --left)
            EXPECT_EQ(waitBriefly(semaphore, static_cast<DWORD>(left % 2)), WAIT_OBJECT_0);
        EXPECT_EQ(waitBriefly(semaphore), WAIT_TIMEOUT);
    }
    const auto semaphore = makeSemaphore(1, 1);
    LONG previous = 77;
    EXPECT_EQ(static_cast<Semaphore*>(semaphore.get())->Release(0, &previous), 1);
    EXPECT_EQ(previous, 1);
    EXPECT_EQ(ReleaseSemaphore(semaphore.get(), 1, nullptr), 0);
}

TEST(Semaphore, FunctionsRefuseWhatIsOfAnotherKind) {
    const auto semaphore = makeSemaphore(0, 1);
    const auto mutex = makeMutex();
    const auto event = makeEvent(Kind::Auto);
    for (Handle* none : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE, event.get()}) {
        EXPECT_EQ(ReleaseSemaphore(none, 1, nullptr), 0);
        EXPECT_EQ(ReleaseMutex(none), 0);
    }
    EXPECT_EQ(ReleaseSemaphore(mutex.get(), 1, nullptr), 0);
    EXPECT_EQ(ReleaseMutex(semaphore.get()), 0);
    for (const auto* handle : {&semaphore, &mutex}) {
        EXPECT_EQ(SetEvent(handle->get()), 0);
        EXPECT_EQ(ResetEvent(handle->get()), 0);
    }
    EXPECT_EQ(waitBriefly(semaphore), WAIT_TIMEOUT);
}

TEST(Semaphore, ReleaseWakesAsManyAsItReleases) {
    constexpr int kWaiters = 5;
    const auto semaphore = makeSemaphore(0, kWaiters);
    std::atomic<int> through = 0;
    Workers waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.push_back(std::make_unique<Worker>([&, timeout = i % 2 == 0 ? kBound : INFINITE] {
            EXPECT_EQ(WaitForSingleObject(semaphore.get(), timeout), WAIT_OBJECT_0);
            ++through;
        }));
    }
    for (const auto& waiter : waiters) EXPECT_TRUE(waiter->fallsAsleep());
    int released = 0;
    for (const int amount : {2, 1, 2}) {
        LONG previous = 77;
        EXPECT_EQ(ReleaseSemaphore(semaphore.get(), amount, &previous), 1);
        EXPECT_EQ(previous, 0);
        released += amount;
        EXPECT_TRUE(withinSeconds(kBoundSeconds, [&] { return through == released; }));
        EXPECT_EQ(waitBriefly(semaphore), WAIT_TIMEOUT) << "nothing is left over";
        EXPECT_EQ(through, released);
    }
}

TEST(Semaphore, WaitEndsAtItsTimeOutAndTakesNothing) {
    const auto semaphore = makeSemaphore(0, 1);
    const auto start = now();
    EXPECT_EQ(waitBriefly(semaphore, 60), WAIT_TIMEOUT);
    EXPECT_GE(now() - start, std::chrono::milliseconds{59});
    ReleaseSemaphore(semaphore.get(), 1, nullptr);
    EXPECT_EQ(waitBriefly(semaphore), WAIT_OBJECT_0);
}

TEST(Mutex, IsItsOwnersUntilReleasedAsOftenAsTaken) {
    const auto mutex = makeMutex();
    EXPECT_EQ(mutex->What(), HANDLE_KIND_MUTEX);
    for (const DWORD timeout : {DWORD{0}, kBound, INFINITE})
        EXPECT_EQ(waitBriefly(mutex, timeout), WAIT_OBJECT_0);
    for (int released = 0; released < 3; ++released) {
        inAnotherThread([&] {
            EXPECT_EQ(waitBriefly(mutex), WAIT_TIMEOUT) << released << " times released";
            EXPECT_EQ(waitBriefly(mutex, 1), WAIT_TIMEOUT) << released << " times released";
            EXPECT_EQ(ReleaseMutex(mutex.get()), 0);
        });
        EXPECT_EQ(ReleaseMutex(mutex.get()), 1);
    }
    EXPECT_EQ(ReleaseMutex(mutex.get()), 0);
    inAnotherThread([&] {
        EXPECT_EQ(waitBriefly(mutex), WAIT_OBJECT_0);
        EXPECT_EQ(ReleaseMutex(mutex.get()), 1);
    });
}

TEST(Mutex, InitialOwnerCountsAsOwnerUntilAnotherThreadTakesIt) {
    for (const int waitsFirst : {0, 2}) {
        for (const bool releasesFirst : {false, true}) {
            const OwnedHandle mutex{CreateMutex(nullptr, TRUE, nullptr)};
            for (int i = 0; i < waitsFirst; ++i) EXPECT_EQ(waitBriefly(mutex), WAIT_OBJECT_0);
            if (releasesFirst) {
                for (int i = 0; i < waitsFirst; ++i) EXPECT_EQ(ReleaseMutex(mutex.get()), 1);
                EXPECT_EQ(ReleaseMutex(mutex.get()), 0) << "it was never taken";
            }
            Worker taker{[&] {
                EXPECT_EQ(waitBriefly(mutex), WAIT_OBJECT_0);
                inAnotherThread([&] { EXPECT_EQ(waitBriefly(mutex), WAIT_TIMEOUT); });
            }};
            taker.join();
            EXPECT_EQ(ReleaseMutex(mutex.get()), 0);
            EXPECT_EQ(waitBriefly(mutex), WAIT_TIMEOUT) << "another's now";
        }
    }
}

TEST(WaitForSeveral, NeverSeesASemaphoreAMutexOrATimer) {
    const auto semaphore = makeSemaphore(0, 2);
    const auto mutex = makeMutex();
    const auto event = makeEvent(Kind::Auto);
    for (const auto* handle : {&semaphore, &mutex}) {
        std::array<Handle*, 2> alike{handle->get(), handle->get()};
        EXPECT_EQ(WaitForMultipleObjects(2, alike.data(), TRUE, INFINITE), 0u) << "of one kind: at once";
    }
    std::array<Handle*, 3> mixed{semaphore.get(), mutex.get(), event.get()};
    ReleaseSemaphore(semaphore.get(), 1, nullptr);
    EXPECT_EQ(WaitForMultipleObjects(3, mixed.data(), FALSE, 20), WAIT_TIMEOUT);
    DWORD result = WAIT_FAILED;
    {
        Worker waiter{[&] { result = WaitForMultipleObjects(3, mixed.data(), FALSE, kBound); }};
        EXPECT_TRUE(waiter.fallsAsleep());
        ReleaseSemaphore(semaphore.get(), 1, nullptr);
        waitBriefly(mutex);
        ReleaseMutex(mutex.get());
        SetEvent(event.get());
    }
    EXPECT_EQ(result, 2u);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(waitBriefly(semaphore), WAIT_OBJECT_0) << "nothing was taken";
}

// Short time-outs race with the releases: whoever leaves empty-handed passes its wake-up on.
TEST(SemaphoreStress, ProducersAndConsumersAgreeExactly) {
    constexpr int kThreads = 4;
    const int each = rounds(200'000 / 2 / kThreads);
    const auto items = makeSemaphore(0, INT_MAX);
    const auto places = makeSemaphore(3, 3);
    std::atomic<int> inside = 0;
    std::atomic<int> taken = 0;
    Workers workers;
    for (int number = 0; number < kThreads; ++number) {
        workers.push_back(std::make_unique<Worker>([&] {
            for (int i = 0; i < each; ++i) {
                ASSERT_EQ(WaitForSingleObject(places.get(), kBound), WAIT_OBJECT_0);
                EXPECT_LE(++inside, 3);
                ASSERT_EQ(ReleaseSemaphore(items.get(), 1, nullptr), 1);
            }
        }));
        workers.push_back(std::make_unique<Worker>([&, number] {
            const DWORD timeout = number % 2 == 0 ? kBound : 1;
            for (int i = 0; i < each;) {
                const DWORD result = WaitForSingleObjectEx(items.get(), timeout, number == 1);
                if (result == WAIT_TIMEOUT && timeout == 1) continue;
                ASSERT_EQ(result, WAIT_OBJECT_0) << "after " << taken;
                --inside;
                ++taken;
                ++i;
                ASSERT_EQ(ReleaseSemaphore(places.get(), 1, nullptr), 1);
            }
        }));
    }
    for (const auto& worker : workers) worker->join();
    EXPECT_EQ(taken, kThreads * each);
    EXPECT_EQ(waitBriefly(items), WAIT_TIMEOUT);
}

TEST(MutexStress, GuardsAPlainNumber) {
    constexpr int kThreads = 4;
    const int each = rounds(20'000);
    const auto mutex = makeMutex();
    long number = 0;
    Workers workers;
    for (int i = 0; i < kThreads; ++i) {
        workers.push_back(std::make_unique<Worker>([&, i] {
            const DWORD timeout = i == 0 ? 1 : kBound;
            for (int round = 0; round < each;) {
                if (WaitForSingleObject(mutex.get(), timeout) != WAIT_OBJECT_0) continue;
                ++number;
                if (round++ % 8 == 0) {
                    EXPECT_EQ(waitBriefly(mutex), WAIT_OBJECT_0);
                    EXPECT_EQ(ReleaseMutex(mutex.get()), 1);
                }
                ASSERT_EQ(ReleaseMutex(mutex.get()), 1);
            }
        }));
    }
    for (const auto& worker : workers) worker->join();
    EXPECT_EQ(number, long{kThreads} * each);
}

// The waiter destroys the semaphore while the release that woke it may still be on its way out.
TEST(SemaphoreStress, MayBeClosedAsSoonAsItsWaitReturns) {
    std::atomic<Handle*> toRelease = nullptr;
    std::atomic<bool> done = false;
    Worker releaser{[&] {
        while (!done) {
            Handle* semaphore = nullptr;
            ASSERT_TRUE(soon([&] { return (semaphore = toRelease.exchange(nullptr)) != nullptr || done; }));
            if (semaphore != nullptr) ReleaseSemaphore(semaphore, 1, nullptr);
        }
    }};
    for (int i = 0; i < rounds(8'000); ++i) {
        const auto semaphore = makeSemaphore(0, 1);
        toRelease = semaphore.get();
        ASSERT_EQ(WaitForSingleObject(semaphore.get(), kBound), WAIT_OBJECT_0);
    }
    done = true;
}

}  // namespace
