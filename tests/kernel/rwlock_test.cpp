// Who gets in, who waits and who is told to go on, step by step. What many threads do at once is in
// rwlock_stress_test.cpp.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <traiklofox/rwlock.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/bounded_wait.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using traiklofox::test::within;
using Clock = std::chrono::steady_clock;

constexpr bool kReadersFirst = true;
constexpr bool kWritersFirst = false;
constexpr seconds kBound{30};  // of every wait for what must happen

// Opens the lock's counts of waiting threads to the tests, who must know that a thread sleeps before they go
// on.
template <pthread_mutex_t RWLock::*Mutex, DWORD RWLock::*Readers, DWORD RWLock::*Writers>
struct Inside {
    friend DWORD waitingReaders(RWLock& lock) { return read(lock, lock.*Readers); }
    friend DWORD waitingWriters(RWLock& lock) { return read(lock, lock.*Writers); }
    static DWORD read(RWLock& lock, const DWORD& count) {
        pthread_mutex_lock(&(lock.*Mutex));
        const DWORD value = count;
        pthread_mutex_unlock(&(lock.*Mutex));
        return value;
    }
};
template struct Inside<&RWLock::lock, &RWLock::waitingReaders, &RWLock::waitingWriters>;
DWORD waitingReaders(RWLock& lock);
DWORD waitingWriters(RWLock& lock);

[[nodiscard]] bool untilWaiting(RWLock& lock, DWORD readers, DWORD writers) {
    return within(kBound, [&] { return waitingReaders(lock) == readers && waitingWriters(lock) == writers; });
}

/// A thread that does what it is told, step after step: a write lock belongs to its thread.
class Actor {
  public:
    Actor() : thread_([this](std::stop_token stop) { work(stop); }) {}

    template <class Step>
    auto start(Step step) {
        std::packaged_task<decltype(step())()> task(std::move(step));
        auto result = task.get_future();
        {
            const std::lock_guard guard(mutex_);
            steps_.emplace_back(std::move(task));
        }
        more_.notify_one();
        return result;
    }
    template <class Step>
    auto run(Step step) {
        return start(std::move(step)).get();
    }

  private:
    void work(std::stop_token stop) {
        std::unique_lock guard(mutex_);
        while (more_.wait(guard, stop, [&] { return !steps_.empty(); })) {
            auto step = std::move(steps_.front());
            steps_.pop_front();
            guard.unlock();
            step();
            guard.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable_any more_;
    std::deque<std::packaged_task<void()>> steps_;
    std::jthread thread_;
};

template <class Result>
[[nodiscard]] bool isReady(std::future<Result>& result, milliseconds patience = kBound) {
    return result.wait_for(patience) == std::future_status::ready;
}

enum class Side { Read, Write };

DWORD takeForever(RWLock& lock, Side side) {
    return side == Side::Read ? lock.ReadLockPrim(/*tryOnly=*/false, INFINITE, nullptr)
                              : lock.WriteLockPrim(/*tryOnly=*/false, INFINITE, nullptr);
}

/// A thread that takes the lock without limit, to be cancelled while it waits, and lets it go if it gets it.
class Doomed {
  public:
    Doomed(RWLock& lock, Side side) : lock_(lock), side_(side) {
        pthread_create(&thread_, nullptr, &Doomed::body, this);
    }
    /// Cancels the thread and waits for its end. False when it had got the lock before.
    bool cancel() {
        pthread_cancel(thread_);
        void* result = nullptr;
        pthread_join(thread_, &result);
        return result == PTHREAD_CANCELED;
    }

  private:
    static void* body(void* self) {
        const auto& doomed = *static_cast<Doomed*>(self);
        takeForever(doomed.lock_, doomed.side_);
        (void)(doomed.side_ == Side::Read ? doomed.lock_.ReadUnlock() : doomed.lock_.WriteUnlock());
        return nullptr;
    }
    RWLock& lock_;
    const Side side_;
    pthread_t thread_{};
};

TEST(RWLock, HasTheGivenNameOrAStandardOne) {
    std::string given = "Dir_Data_lock";
    const RWLock named(kReadersFirst, given.c_str(), false);
    given = "changed since";
    EXPECT_STREQ(named.GetName(), "Dir_Data_lock");
    EXPECT_STREQ(RWLock(kReadersFirst, nullptr, false).GetName(), "UNNAMED LOCK");
}

TEST(RWLock, TryLocksAnswerForEveryStateOfTheLock) {
    enum class Holder { None, Reader, Writer };
    enum class Waiter { None, Writer };
    constexpr struct {
        const char* state;
        bool priority;
        Holder holder;
        Waiter waiter;
        DWORD read;
        DWORD write;
    } kCases[] = {
        {"free", kWritersFirst, Holder::None, Waiter::None, 0, 0},
        {"free, readers first", kReadersFirst, Holder::None, Waiter::None, 0, 0},
        {"read", kWritersFirst, Holder::Reader, Waiter::None, 0, 128},
        {"read, readers first", kReadersFirst, Holder::Reader, Waiter::None, 0, 128},
        {"read, a writer waits", kWritersFirst, Holder::Reader, Waiter::Writer, 128, 128},
        {"read, a writer waits, readers first", kReadersFirst, Holder::Reader, Waiter::Writer, 0, 128},
        {"written", kWritersFirst, Holder::Writer, Waiter::None, 128, 128},
        {"written, readers first", kReadersFirst, Holder::Writer, Waiter::None, 128, 128},
    };
    for (const auto& row : kCases) {
        SCOPED_TRACE(row.state);
        RWLock lock(row.priority);
        Actor waiter;
        std::future<DWORD> waiting;
        if (row.holder == Holder::Reader) lock.ReadLock();
        if (row.holder == Holder::Writer) lock.WriteLock();
        if (row.waiter == Waiter::Writer) {
            waiting = waiter.start([&] { return takeForever(lock, Side::Write); });
            ASSERT_TRUE(untilWaiting(lock, 0, 1));
        }

        Actor other;
        EXPECT_EQ(other.run([&] { return lock.ReadLockPrim(/*tryOnly=*/true, INFINITE, nullptr); }),
                  row.read);
        if (row.read == 0) lock.ReadUnlock();
        EXPECT_EQ(other.run([&] { return lock.WriteLockPrim(/*tryOnly=*/true, INFINITE, nullptr); }),
                  row.write);

        if (row.holder == Holder::Reader) lock.ReadUnlock();
        if (row.holder == Holder::Writer) lock.WriteUnlock();
        if (waiting.valid()) {
            ASSERT_TRUE(isReady(waiting));
            EXPECT_EQ(waiting.get(), 0u);
        }
    }
}

TEST(RWLock, WritingNestsForItsThreadAndIsNobodyElsesToRelease) {
    RWLock lock;
    Actor other;
    EXPECT_TRUE(lock.ReadUnlock()) << "a read lock that nobody holds";
    for (int depth = 0; depth < 3; ++depth) ASSERT_EQ(lock.WriteLock(), 0u);
    EXPECT_TRUE(lock.TryWriteLock());
    EXPECT_TRUE(lock.IsWriteLockedByMe());
    EXPECT_FALSE(lock.DowngradeLock()) << "nested";
    EXPECT_FALSE(
        other.run([&] { return lock.WriteUnlock() || lock.DowngradeLock() || lock.IsWriteLockedByMe(); }));
    EXPECT_TRUE(lock.ReadUnlock());
    for (int depth = 0; depth < 4; ++depth) {
        EXPECT_FALSE(other.run([&] { return lock.TryReadLock(); })) << depth << " times released";
        EXPECT_TRUE(lock.WriteUnlock());
    }
    EXPECT_FALSE(lock.IsWriteLockedByMe());
    EXPECT_FALSE(lock.WriteUnlock());
    EXPECT_TRUE(other.run([&] { return lock.TryWriteLock(); }));
}

TEST(RWLock, ATimeOutUnderASecondPassesAtOnceUnlessTheLockIsFree) {
    RWLock lock;
    Actor other;
    EXPECT_EQ(lock.ReadLock(999), 0u);
    lock.ReadUnlock();
    ASSERT_EQ(lock.WriteLock(999), 0u);
    for (const DWORD ms : {0u, 500u, 999u, 0x80000000u}) {
        const auto start = Clock::now();
        EXPECT_EQ(other.run([&] { return lock.ReadLockPrim(/*tryOnly=*/false, ms, nullptr); }), 258u);
        EXPECT_EQ(other.run([&] { return lock.WriteLockPrim(/*tryOnly=*/false, ms, nullptr); }), 258u);
        EXPECT_LT(Clock::now() - start, milliseconds(500)) << ms;
    }
}

TEST(RWLock, ALongerTimeOutPassesInItsTime) {
    RWLock written, read;
    ASSERT_EQ(written.WriteLock(), 0u);
    ASSERT_EQ(read.ReadLock(), 0u);
    ASSERT_EQ(read.ReadLock(), 0u);
    Actor reader, writer, upgrader;
    const auto start = Clock::now();
    auto reading = reader.start([&] { return written.ReadLock(1200); });
    auto writing = writer.start([&] { return written.WriteLock(1200); });
    auto upgrading = upgrader.start([&] { return read.UpgradeLock(1200); });
    for (auto* result : {&reading, &writing, &upgrading}) EXPECT_EQ(result->get(), 258u);
    EXPECT_GE(Clock::now() - start, milliseconds(1190));  // wall-clock deadline, monotonic measure
    EXPECT_LT(Clock::now() - start, kBound);
    EXPECT_TRUE(written.WriteUnlock());
    EXPECT_TRUE(written.TryWriteLock()) << "a reader or writer that gave up left a count behind";
}

TEST(RWLock, DowngradeLetsTheWaitingReadersInBeforeTheWaitingWriter) {
    for (const bool priority : {kReadersFirst, kWritersFirst}) {
        RWLock lock(priority);
        ASSERT_EQ(lock.WriteLock(), 0u);
        Actor readers[3], writer;
        std::future<DWORD> reading[3];
        std::atomic<int> readersIn = 0;
        for (int i = 0; i < 3; ++i) {
            reading[i] = readers[i].start([&] {
                const DWORD result = takeForever(lock, Side::Read);
                ++readersIn;
                return result;
            });
        }
        auto writing = writer.start([&] {
            takeForever(lock, Side::Write);
            return readersIn.load();
        });
        ASSERT_TRUE(untilWaiting(lock, 3, 1));

        ASSERT_TRUE(lock.DowngradeLock());
        lock.ReadUnlock();  // even so: the places of the three are kept
        for (auto& result : reading) {
            ASSERT_TRUE(isReady(result));
            EXPECT_EQ(result.get(), 0u);
        }
        EXPECT_FALSE(isReady(writing, milliseconds(0)));
        for (int i = 0; i < 3; ++i) lock.ReadUnlock();
        ASSERT_TRUE(isReady(writing));
        EXPECT_EQ(writing.get(), 3);
    }
}

TEST(RWLock, ReadersThatGiveUpTakeTheirPlaceInAHandoffWithThem) {
    RWLock lock(kWritersFirst);
    ASSERT_EQ(lock.WriteLock(), 0u);
    Actor patient, hasty;
    auto entering = patient.start([&] { return takeForever(lock, Side::Read); });
    Doomed unlucky(lock, Side::Read);
    ASSERT_TRUE(untilWaiting(lock, 2, 0));
    ASSERT_EQ(hasty.run([&] { return lock.ReadLock(0); }), 258u);
    ASSERT_TRUE(lock.DowngradeLock());
    (void)unlucky.cancel();  // before or after it enters
    ASSERT_TRUE(isReady(entering));

    // The handoff is over: a reader waits for the writer who came before it, and both get in.
    Actor writer, later;
    auto writing = writer.start([&] { return takeForever(lock, Side::Write); });
    ASSERT_TRUE(untilWaiting(lock, 0, 1));
    EXPECT_FALSE(later.run([&] { return lock.TryReadLock(); }));
    lock.ReadUnlock();
    lock.ReadUnlock();
    ASSERT_TRUE(isReady(writing));
    EXPECT_TRUE(writer.run([&] { return lock.WriteUnlock(); }));
    EXPECT_TRUE(later.run([&] { return lock.TryReadLock(); }));
}

TEST(RWLock, ReleasingTheWriteLockWakesWhoeverWaits) {
    for (const bool priority : {kReadersFirst, kWritersFirst}) {
        for (const Side side : {Side::Read, Side::Write}) {
            RWLock lock(priority);
            ASSERT_EQ(lock.WriteLock(), 0u);
            Actor waiter;
            auto waiting = waiter.start([&] { return takeForever(lock, side); });
            ASSERT_TRUE(within(kBound, [&] { return waitingReaders(lock) + waitingWriters(lock) == 1; }));
            lock.WriteUnlock();
            EXPECT_TRUE(isReady(waiting)) << (priority ? "readers" : "writers") << " first";
        }
    }
}

TEST(RWLock, AWriterThatGivesUpWakesTheReadersThatItHeldBack) {
    RWLock lock(kWritersFirst);
    ASSERT_EQ(lock.ReadLock(), 0u);
    Actor reader, writer;

    Doomed cancelled(lock, Side::Write);
    ASSERT_TRUE(untilWaiting(lock, 0, 1));
    auto first = reader.start([&] { return takeForever(lock, Side::Read); });
    ASSERT_TRUE(untilWaiting(lock, 1, 1));
    EXPECT_TRUE(cancelled.cancel());
    ASSERT_TRUE(isReady(first));

    auto writing = writer.start([&] { return lock.WriteLock(1000); });
    ASSERT_TRUE(untilWaiting(lock, 0, 1));
    auto second = reader.start([&] { return takeForever(lock, Side::Read); });
    EXPECT_EQ(writing.get(), 258u);
    ASSERT_TRUE(isReady(second));
}

TEST(RWLock, AReaderThatIsCancelledWakesTheWriterThatItHeldBack) {
    // With readers first, a release wakes the waiting reader and leaves the writer to it.
    for (int round = 0; round < 100; ++round) {
        RWLock lock(kReadersFirst);
        ASSERT_EQ(lock.WriteLock(), 0u);
        Actor writer;
        auto writing = writer.start([&] { return takeForever(lock, Side::Write); });
        Doomed reader(lock, Side::Read);
        ASSERT_TRUE(untilWaiting(lock, 1, 1));
        const std::jthread cancelling([&] { (void)reader.cancel(); });
        lock.WriteUnlock();
        ASSERT_TRUE(isReady(writing));
    }
}

TEST(RWLock, UpgradeEntersWhenTheOtherReadersHaveLeft) {
    RWLock lock;
    Actor upgrader, other;
    ASSERT_TRUE(lock.TryReadLock());
    ASSERT_EQ(lock.UpgradeLock(0), 0u) << "the only reader need not wait";
    EXPECT_TRUE(lock.IsWriteLockedByMe());
    ASSERT_TRUE(lock.DowngradeLock());

    ASSERT_TRUE(upgrader.run([&] { return lock.TryReadLock(); }));
    auto upgrading = upgrader.start([&] { return lock.UpgradeLock(INFINITE); });
    ASSERT_TRUE(untilWaiting(lock, 0, 1));
    EXPECT_EQ(lock.UpgradeLock(INFINITE), 128u) << "two that upgrade would wait for each other";
    lock.ReadUnlock();
    EXPECT_EQ(upgrading.get(), 0u);
    EXPECT_FALSE(other.run([&] { return lock.TryReadLock(); }));
    EXPECT_TRUE(upgrader.run([&] { return lock.WriteUnlock(); }));
}

TEST(RWLock, ARefusedUpgradeKeepsTheReadLockAndATimedOutOneLosesIt) {
    RWLock lock;
    Actor other, writer;
    ASSERT_TRUE(lock.TryReadLock());
    auto writing = writer.start([&] { return takeForever(lock, Side::Write); });
    ASSERT_TRUE(untilWaiting(lock, 0, 1));
    EXPECT_EQ(lock.UpgradeLock(INFINITE), 128u);
    EXPECT_FALSE(isReady(writing, milliseconds(0)));
    lock.ReadUnlock();
    ASSERT_EQ(writing.get(), 0u);
    ASSERT_TRUE(writer.run([&] { return lock.DowngradeLock(); }));

    ASSERT_TRUE(lock.TryReadLock());
    EXPECT_EQ(lock.UpgradeLock(500), 258u);
    EXPECT_FALSE(other.run([&] { return lock.TryWriteLock(); }));
    lock.ReadUnlock();
    EXPECT_TRUE(other.run([&] { return lock.TryWriteLock(); })) << "one read lock was left, not two";
}

TEST(RWLock, AChildResetsWhatTheParentsThreadsHold) {
    RWLock lock(kWritersFirst, "forked");
    Actor holder, waiter;
    ASSERT_TRUE(holder.run([&] { return lock.TryWriteLock(); }));
    auto waiting = waiter.start([&] { return takeForever(lock, Side::Read); });
    ASSERT_TRUE(untilWaiting(lock, 1, 0));

    const pid_t child = fork();
    if (child == 0) {
        if (lock.TryReadLock()) _exit(1);
        lock.ResetInChild();
        if (!lock.TryReadLock() || !lock.ReadUnlock()) _exit(2);
        if (!lock.TryWriteLock() || !lock.DowngradeLock() || !lock.ReadUnlock()) _exit(3);
        _exit(std::string_view(lock.GetName()) == "forked" ? 0 : 4);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "exit status " << WEXITSTATUS(status);
    EXPECT_TRUE(holder.run([&] { return lock.WriteUnlock(); }));
    EXPECT_EQ(waiting.get(), 0u);
}

}  // namespace
