// Many threads take, trade and give up one lock at once. The numbers that it guards are plain ones, so that
// the thread sanitizer sees every entry that should not have been; all threads come to their end only when
// nobody is stranded.

#include <gtest/gtest.h>
#include <traiklofox/rwlock.h>

#include <array>
#include <atomic>
#include <latch>
#include <random>
#include <thread>
#include <vector>

#include "kernel/worker.h"

namespace {

using namespace traiklofox::test;

/// What the lock guards, and what its users count as they go in and out.
struct Guarded {
    explicit Guarded(bool readerPriority) : lock(readerPriority, "stress") {}

    void readOnce(std::minstd_rand& random) {
        readers.fetch_add(1, std::memory_order_relaxed);
        EXPECT_EQ(writers.load(std::memory_order_relaxed), 0) << "a reader beside a writer";
        sometimesLetOthersCome(random);
        EXPECT_EQ(number, mirror);
        readers.fetch_sub(1, std::memory_order_relaxed);
    }
    void writeOnce(std::minstd_rand& random) {
        EXPECT_EQ(writers.fetch_add(1, std::memory_order_relaxed), 0) << "two writers";
        EXPECT_EQ(readers.load(std::memory_order_relaxed), 0) << "a writer beside a reader";
        ++number;
        sometimesLetOthersCome(random);
        ++mirror;
        writers.fetch_sub(1, std::memory_order_relaxed);
    }

    static void sometimesLetOthersCome(std::minstd_rand& random) {
        if (random() % 8 == 0) std::this_thread::yield();
    }

    RWLock lock;
    std::atomic<int> readers = 0;
    std::atomic<int> writers = 0;
    long number = 0;
    long mirror = 0;
};

// 0 passes at once, 1500 hardly ever: these waits end in time, or the test does not.
constexpr std::array<DWORD, 3> kTimeouts = {0, 1500, INFINITE};

/// One random use of the lock; returns how often it wrote.
long useOnce(Guarded& guarded, std::minstd_rand& random) {
    RWLock& lock = guarded.lock;
    const DWORD timeout = kTimeouts[random() % kTimeouts.size()];
    long written = 0;
    const auto write = [&] {
        guarded.writeOnce(random);
        ++written;
    };
    const auto readAndLeave = [&] {
        guarded.readOnce(random);
        lock.ReadUnlock();
    };
    const auto upgradeAndLeave = [&] {
        switch (lock.UpgradeLock(timeout)) {
            case RWLock::Acquired:
                write();
                lock.WriteUnlock();
                break;
            case RWLock::Busy: readAndLeave(); break;
            default: break;  // neither lock is held
        }
    };
    switch (random() % 6) {
        case 0:
        case 1:
            if (lock.ReadLock(timeout) == RWLock::Acquired) readAndLeave();
            break;
        case 2:
            if (lock.TryReadLock()) readAndLeave();
            if (lock.TryWriteLock()) {
                write();
                lock.WriteUnlock();
            }
            break;
        case 3:
            if (lock.WriteLock(timeout) != RWLock::Acquired) break;
            write();
            if (lock.WriteLock() == RWLock::Acquired) {
                write();
                lock.WriteUnlock();
            }
            lock.WriteUnlock();
            break;
        case 4:
            if (lock.WriteLock(timeout) != RWLock::Acquired) break;
            write();
            EXPECT_TRUE(lock.DowngradeLock());
            if (random() % 2 == 0) {
                readAndLeave();
            } else {
                upgradeAndLeave();
            }
            break;
        case 5:
            if (lock.ReadLock(timeout) != RWLock::Acquired) break;
            guarded.readOnce(random);
            upgradeAndLeave();
            break;
    }
    return written;
}

class RWLockStress : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Priorities, RWLockStress, testing::Bool(), [](const auto& priority) {
    return priority.param ? "ReadersFirst" : "WritersFirst";
});

TEST_P(RWLockStress, MixedUsesKeepTheInvariantsAndStrandNobody) {
    constexpr unsigned kThreads = 8;
    const int each = roundsOrStress(80'000) / static_cast<int>(kThreads);
    Guarded guarded(GetParam());
    std::atomic<long> written = 0;
    std::latch start(kThreads);
    {
        std::vector<std::jthread> threads;
        for (unsigned seed = 1; seed <= kThreads; ++seed) {
            threads.emplace_back([&, seed] {
                std::minstd_rand random(seed);
                long mine = 0;
                start.arrive_and_wait();
                for (int round = 0; round < each; ++round) mine += useOnce(guarded, random);
                written += mine;
            });
        }
    }
    EXPECT_EQ(guarded.number, written);
    EXPECT_GT(written, each);
    EXPECT_TRUE(guarded.lock.TryWriteLock()) << "a count was left behind";
}

void* useUntilCancelled(void* argument) {
    auto& guarded = *static_cast<Guarded*>(argument);
    std::minstd_rand random(static_cast<unsigned>(pthread_self()));
    for (;;) {
        useOnce(guarded, random);
        pthread_testcancel();
    }
}

TEST_P(RWLockStress, ThreadsCancelledWhileTheyWaitLeaveNothingBehind) {
    constexpr int kRounds = 150;
    Guarded guarded(GetParam());
    std::atomic<bool> done = false;
    {
        std::vector<std::jthread> steady;
        for (unsigned seed = 1; seed <= 2; ++seed) {
            steady.emplace_back([&, seed] {
                std::minstd_rand random(seed);
                while (!done) useOnce(guarded, random);
            });
        }
        for (int round = 0; round < kRounds; ++round) {
            std::array<pthread_t, 4> threads{};
            for (pthread_t& thread : threads) pthread_create(&thread, nullptr, useUntilCancelled, &guarded);
            std::this_thread::yield();
            for (const pthread_t thread : threads) pthread_cancel(thread);
            for (const pthread_t thread : threads) pthread_join(thread, nullptr);
        }
        done = true;
    }
    EXPECT_EQ(guarded.number, guarded.mirror);
    EXPECT_TRUE(guarded.lock.TryWriteLock()) << "a cancelled thread left a count behind";
}

}  // namespace
