#include <traiklofox/events.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include <gtest/gtest.h>

#include "kernel/worker.h"

namespace {

using namespace traiklofox::test;

/// A thread that never sleeps by itself: it counts until told to stop.
class Runner {
  public:
    ~Runner() { stop(); }
    Handle* handle() const { return worker_.handle(); }
    void stop() {
        stop_ = true;
        worker_.join();
    }
    bool isStopped() const { return worker_.fallsAsleep(); }
    long progress() const { return progress_; }
    bool progressesBeyond(long count) const {
        return withinSeconds(kBoundSeconds, [&] { return progress_ > count; });
    }

  private:
    std::atomic<bool> stop_ = false;
    std::atomic<long> progress_ = 0;
    Worker worker_{[this] {
        while (!stop_) ++progress_;
    }};
};

TEST(Suspend, StopsAThreadUntilAsManyResumesFollow) {
    Runner runner;
    EXPECT_EQ(ResumeThread(runner.handle()), 0u) << "not suspended";
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(runner.progressesBeyond(runner.progress()));
        EXPECT_EQ(SuspendThread(runner.handle()), 0u);
        EXPECT_EQ(SuspendThread(runner.handle()), 1u);
        EXPECT_TRUE(runner.isStopped());
        const long reached = runner.progress();
        EXPECT_EQ(ResumeThread(runner.handle()), 2u);
        EXPECT_TRUE(runner.isStopped());
        EXPECT_EQ(runner.progress(), reached);
        EXPECT_EQ(ResumeThread(runner.handle()), 1u);
        EXPECT_TRUE(runner.progressesBeyond(reached));
        EXPECT_EQ(ResumeThread(runner.handle()), 0u);
    }
}

TEST(Suspend, ThreadThatSuspendsItselfGoesOnWhenAnotherResumesIt) {
    std::atomic<bool> wentOn = false;
    Worker worker{[&] {
        EXPECT_EQ(SuspendThread(GetCurrentThread()), 0u);
        wentOn = true;
    }};
    EXPECT_TRUE(worker.fallsAsleep());
    EXPECT_FALSE(wentOn);
    EXPECT_EQ(SuspendThread(worker.handle()), 1u);
    EXPECT_EQ(ResumeThread(worker.handle()), 2u);
    EXPECT_EQ(ResumeThread(worker.handle()), 1u);
    EXPECT_TRUE(withinSeconds(kBoundSeconds, [&] { return wentOn.load(); }));
}

TEST(Suspend, SuspendedThreadKeepsWhatItWaitsForUntilItIsResumed) {
    const auto event = makeEvent(Kind::Auto);
    std::atomic<int> ran = 0;
    std::atomic<DWORD> result = WAIT_FAILED;
    Worker waiter{[&] { result = WaitForSingleObjectEx(event.get(), kBound, TRUE); }};
    EXPECT_TRUE(waiter.fallsAsleep());
    EXPECT_EQ(SuspendThread(waiter.handle()), 0u);
    const auto count = [](void* counter, void*, void*) { ++*static_cast<std::atomic<int>*>(counter); };
    EXPECT_EQ(QueueUserAPC(count, waiter.handle(), reinterpret_cast<ULONG_PTR>(&ran)), 0u);
    EXPECT_TRUE(waiter.fallsAsleep());
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(ResumeThread(waiter.handle()), 1u);
    waiter.join();
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(result, WAIT_IO_COMPLETION);
}

/// A thread that does one thing again and again.
class Busy {
  public:
    explicit Busy(std::function<void()> body)
        : worker_([this, body = std::move(body)] {
              while (!stop_) {
                  body();
                  ++turns_;
              }
          }) {}
    ~Busy() { stop_ = true; }
    Handle* handle() const { return worker_.handle(); }
    /// Suspends and resumes it, at once or when it has stopped, and sees it go on: otherwise the signals would
    /// pile up.
    bool survivesSuspension(bool atOnce) {
        EXPECT_EQ(SuspendThread(handle()), 0u);
        if (!atOnce) {
            EXPECT_TRUE(worker_.fallsAsleep());
        }
        EXPECT_EQ(ResumeThread(handle()), 1u);
        return soon([this, reached = turns_.load()] { return turns_ != reached; });
    }

  private:
    std::atomic<bool> stop_ = false;
    std::atomic<long> turns_ = 0;
    Worker worker_;
};

// A suspender who resumes gets in wherever the thread was stopped, also in the use of its own handle.
TEST(Suspend, ThreadMayBeStoppedAnywhere) {
    const auto unset = makeEvent(Kind::Auto);
    const auto nothing = [](void*, void*, void*) {};
    const std::function<void()> bodies[] = {
        [] { (void)static_cast<Thread*>(GetCurrentThread())->GetTid(); },
        [] { (void)GetThreadPriority(GetCurrentThread()); },
        [&] {
            QueueUserAPC(nothing, GetCurrentThread(), 0);
            (void)UserAPCCheck();
        },
        [&] { (void)WaitForSingleObjectEx(unset.get(), 1, TRUE); },
        [&] { SetEvent(unset.get()), (void)WaitForSingleObject(unset.get(), 1); },
    };
    for (const auto& body : bodies) {
        Busy thread{body};
        for (int round = 0; round < rounds(200); ++round)
            ASSERT_TRUE(thread.survivesSuspension(round % 8 != 0));
    }
}

TEST(Suspend, CallsFromAnotherThreadDoNotKeepItFromBeingResumed) {
    constexpr int kMostQueued = 4;  // more than the thread can run would keep it running them for ever
    std::atomic<int> queued = 0;
    Busy target{[] { (void)UserAPCCheck(); }};
    Busy caller{[&] {
        if (!soon([&] { return queued < kMostQueued; })) return;
        ++queued;
        const auto ran = [](void* count, void*, void*) { --*static_cast<std::atomic<int>*>(count); };
        QueueUserAPC(ran, target.handle(), reinterpret_cast<ULONG_PTR>(&queued));
    }};
    for (int round = 0; round < rounds(400); ++round) ASSERT_TRUE(target.survivesSuspension(round % 8 != 0));
}

TEST(Suspend, ThreadThatEndsMeanwhileStillWakesItsWaiters) {
    std::atomic<bool> go = false;
    for (int round = 0; round < rounds(2'000); ++round) {
        go = false;
        const OwnedHandle thread = createThread([&] { go.wait(false); });
        go = true;
        go.notify_one();
        for (int pause = 0; pause < round % 50 * 20; ++pause)
            std::atomic_signal_fence(std::memory_order_seq_cst);
        if (SuspendThread(thread.get()) == 0) {
            EXPECT_EQ(ResumeThread(thread.get()), 1u);
        }
        ASSERT_EQ(WaitForSingleObject(thread.get(), kBound), WAIT_OBJECT_0) << "round " << round;
    }
}

}  // namespace
