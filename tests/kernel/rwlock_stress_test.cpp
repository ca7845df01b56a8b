// Many threads take, trade and give up one lock at once. The numbers that it guards are plain ones, so that
// the thread sanitizer sees every entry that should not have been; all threads come to their end only when
// nobody is stranded.

#include <traiklofox/rwlock.h>

#include <latch>

#include "kernel/worker.h"

namespace {

using namespace traiklofox::test;

/// What the lock guards, and what its users count as they go in and out.
struct Guarded {
    explicit Guarded(bool readerPriority) : lock(readerPriority, "stress") {}

    void read(std::minstd_rand& random) {
        readers.fetch_add(1, std::memory_order_relaxed);
        EXPECT_EQ(writers.load(std::memory_order_relaxed), 0) << "a reader beside a writer";
        if (random() % 8 == 0) std::this_thread::yield();
        EXPECT_EQ(number, mirror);
        readers.fetch_sub(1, std::memory_order_relaxed);
    }
    void write(std::minstd_rand& random) {
        EXPECT_EQ(writers.fetch_add(1, std::memory_order_relaxed), 0) << "two writers";
        EXPECT_EQ(readers.load(std::memory_order_relaxed), 0) << "a writer beside a reader";
        ++number;
        if (random() % 8 == 0) std::this_thread::yield();
        ++mirror;
        writers.fetch_sub(1, std::memory_order_relaxed);
    }

    RWLock lock;
    std::atomic<int> readers = 0;
    std::atomic<int> writers = 0;
    long number = 0;
    long mirror = 0;
};

/// One random use of the lock; returns how often it wrote.
long useOnce(Guarded& guarded, std::minstd_rand& random) {
    // 0 passes at once, 1500 hardly ever: these waits end in time, or the test does not.
    const DWORD timeout = std::array<DWORD, 3>{0, 1500, INFINITE}[random() % 3];
    RWLock& lock = guarded.lock;
    long written = 0;
    const auto writeAndLeave = [&](bool leaves = true) {
        guarded.write(random);
        ++written;
        if (leaves) lock.WriteUnlock();
    };
    const auto readAndLeave = [&] {
        guarded.read(random);
        lock.ReadUnlock();
    };
    const auto upgradeAndLeave = [&] {
        switch (lock.UpgradeLock(timeout)) {
            case RWLock::Acquired: writeAndLeave(); break;
            case RWLock::Busy: readAndLeave(); break;
            default: break;  // neither lock is held
        }
    };
    switch (random() % 5) {
        case 0:
            if (lock.ReadLock(timeout) == RWLock::Acquired) readAndLeave();
            break;
        case 1:
            if (lock.TryReadLock()) readAndLeave();
            if (lock.TryWriteLock()) writeAndLeave();
            break;
        case 2:
            if (lock.WriteLock(timeout) != RWLock::Acquired) break;
            writeAndLeave(false);
            if (lock.WriteLock() == RWLock::Acquired) writeAndLeave();
            lock.WriteUnlock();
            break;
        case 3:
            if (lock.WriteLock(timeout) != RWLock::Acquired) break;
            writeAndLeave(false);
            EXPECT_TRUE(lock.DowngradeLock());
            random() % 2 == 0 ? readAndLeave() : upgradeAndLeave();
            break;
        case 4:
            if (lock.ReadLock(timeout) != RWLock::Acquired) break;
            guarded.read(random);
            upgradeAndLeave();
    }
    return written;
}

class RWLockStress : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Priorities, RWLockStress, testing::Bool(), [](const auto& priority) {
    return priority.param ? "ReadersFirst" : "WritersFirst";
});

TEST_P(RWLockStress, MixedUsesKeepTheInvariantsAndStrandNobody) {
    constexpr int kThreads = 8;
    const int each = roundsOrStress(80'000) / kThreads;
    Guarded guarded(GetParam());
    std::atomic<long> written = 0;
    std::latch start(kThreads);
    Workers(kThreads, [&](int number) {
        std::minstd_rand random(static_cast<unsigned>(number + 1));
        start.arrive_and_wait();
        for (int round = 0; round < each; ++round) written += useOnce(guarded, random);
    }).clear();
    EXPECT_EQ(guarded.number, written);
    EXPECT_GT(written, each);
    EXPECT_TRUE(guarded.lock.TryWriteLock()) << "a count was left behind";
}

}  // namespace
