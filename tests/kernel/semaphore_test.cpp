// Semaphores and mutexes: their counts and owners, who is woken, and many threads at once.

#include <limits.h>

#include "kernel/worker.h"

namespace {

using namespace traiklofox::test;

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
        {3, INT_MAX, INT_MAX, TRUE, 0, 3},
        {3, 5, -1, TRUE, 0, 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.initial << " of " << c.most << ", " << c.amount << " more");
        const auto semaphore = makeSemaphore(c.initial, c.most);
        ASSERT_EQ(semaphore != nullptr, c.made);
        if (!semaphore) continue;
        LONG previous = 77;
        EXPECT_EQ(ReleaseSemaphore(semaphore.get(), c.amount, &previous), c.released);
        EXPECT_EQ(previous, c.released ? c.initial : 77);
        for (LONG left = c.after; left > 0; --left)
            EXPECT_EQ(waitFor(semaphore, static_cast<DWORD>(left % 2)), WAIT_OBJECT_0);
        EXPECT_EQ(waitFor(semaphore, 0), WAIT_TIMEOUT);
        EXPECT_EQ(static_cast<Semaphore*>(semaphore.get())->Release(0, &previous), 1);
        EXPECT_EQ(previous, 0);
    }
}

TEST(Semaphore, ReleaseWakesAsManyAsItReleases) {
    const auto semaphore = makeSemaphore(0, 25);
    std::atomic<int> through = 0;
    const Workers waiters(25, [&](int number) {
        EXPECT_EQ(waitFor(semaphore, number % 2 == 0 ? kBound : INFINITE), WAIT_OBJECT_0);
        ++through;
    });
    EXPECT_TRUE(waiters.fallAsleep());
    int released = 0;
    for (const int amount : {2, 1, 22}) {
        LONG previous = 77;
        EXPECT_EQ(ReleaseSemaphore(semaphore.get(), 26, nullptr), 0) << "more than its maximum";
        EXPECT_EQ(ReleaseSemaphore(semaphore.get(), amount, &previous), 1);
        EXPECT_EQ(previous, 0);
        EXPECT_TRUE(becomes(through, released += amount));
        EXPECT_EQ(waitFor(semaphore, 0), WAIT_TIMEOUT) << "nothing is left over";
    }
}

TEST(Mutex, IsItsOwnersUntilReleasedAsOftenAsTaken) {
    const auto mutex = makeMutex();
    for (const DWORD timeout : {DWORD{0}, kBound, INFINITE})
        EXPECT_EQ(waitFor(mutex, timeout), WAIT_OBJECT_0);
    for (int released = 0; released < 4; ++released) {
        const bool free = released == 3;
        std::thread([&] {
            EXPECT_EQ(waitFor(mutex, 0), free ? WAIT_OBJECT_0 : WAIT_TIMEOUT)
                << released << " times released";
            EXPECT_EQ(ReleaseMutex(mutex.get()), free);
        }).join();
        EXPECT_EQ(ReleaseMutex(mutex.get()), !free);
    }
}

TEST(Mutex, InitialOwnerCountsAsOwnerUntilAnotherThreadTakesIt) {
    for (const int releases : {0, 2}) {
        const auto mutex = makeMutex(TRUE);
        for (int i = 0; i < 2; ++i) EXPECT_EQ(waitFor(mutex, 0), WAIT_OBJECT_0);
        for (int i = 0; i < releases; ++i) EXPECT_EQ(ReleaseMutex(mutex.get()), 1);
        EXPECT_FALSE(releases == 2 && ReleaseMutex(mutex.get())) << "it was never taken";
        std::thread([&] {
            EXPECT_EQ(waitFor(mutex, 0), WAIT_OBJECT_0);
            std::thread([&] { EXPECT_EQ(waitFor(mutex, 0), WAIT_TIMEOUT); }).join();
        }).join();
        EXPECT_EQ(ReleaseMutex(mutex.get()), 0);
        EXPECT_EQ(waitFor(mutex, 0), WAIT_TIMEOUT) << "another's now";
    }
}

// Short time-outs race with the releases: whoever leaves empty-handed passes its wake-up on.
TEST(SemaphoreStress, ProducersAndConsumersAgreeExactly) {
    constexpr int kThreads = 4;
    const int each = rounds(200'000 / 2 / kThreads);
    const auto items = makeSemaphore(0, INT_MAX), places = makeSemaphore(3, 3), mutex = makeMutex();
    std::atomic<int> inside = 0;
    long taken = 0;  // guarded by the mutex, which is taken twice now and then
    Workers workers(kThreads, [&](int) {
        for (int i = 0; i < each; ++i) {
            ASSERT_EQ(waitFor(places), WAIT_OBJECT_0);
            EXPECT_LE(++inside, 3);
            ASSERT_EQ(ReleaseSemaphore(items.get(), 1, nullptr), 1);
        }
    });
    workers.add(kThreads, [&](int number) {
        const auto take = [&](const OwnedHandle& object) {
            if (number % 2 == 0) return waitFor(object) == WAIT_OBJECT_0;
            return soon([&] { return waitFor(object, 1, number == 1) == WAIT_OBJECT_0; });
        };
        for (int i = 0; i < each; ++i) {
            ASSERT_TRUE(take(items));
            --inside;
            ASSERT_EQ(ReleaseSemaphore(places.get(), 1, nullptr), 1);
            for (int twice = 0; twice <= i % 2; ++twice) ASSERT_TRUE(take(mutex));
            ++taken;
            for (int twice = 0; twice <= i % 2; ++twice) ASSERT_EQ(ReleaseMutex(mutex.get()), 1);
        }
    });
    workers.clear();
    EXPECT_EQ(taken, long{kThreads} * each);
    EXPECT_EQ(waitFor(items, 0), WAIT_TIMEOUT);
}

}  // namespace
