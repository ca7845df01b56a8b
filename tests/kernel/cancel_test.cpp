// What a cancelled thread leaves behind: its wait is over for everybody else, and no signal went with it.

#include <traiklofox/events.h>
#include <traiklofox/semaphores.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include <gtest/gtest.h>

#include "kernel/worker.h"

namespace {

using namespace traiklofox::test;

struct CancelCase {
    const char* name;
    DWORD (*wait)(Handle* event);
};

const CancelCase kWaits[] = {
    {"infinite", [](Handle* event) { return WaitForSingleObjectEx(event, INFINITE, FALSE); }},
    {"timed", [](Handle* event) { return WaitForSingleObjectEx(event, kBound, FALSE); }},
    {"alertable", [](Handle* event) { return WaitForSingleObjectEx(event, kBound, TRUE); }},
    {"several",
     [](Handle* event) {
         const OwnedHandle other = makeEvent(Kind::Auto);
         std::array<Handle*, 3> handles{other.get(), event, event};
         return WaitForMultipleObjectsEx(3, handles.data(), FALSE, kBound, TRUE);
     }},
    {"several kinds",
     [](Handle* event) {
         const OwnedHandle file{new File(-1)};
         std::array<Handle*, 2> handles{file.get(), event};
         return WaitForMultipleObjectsEx(2, handles.data(), FALSE, INFINITE, FALSE);
     }},
};

TEST(CancelledWait, LeavesItsEventUsable) {
    for (const CancelCase& c : kWaits) {
        for (const Kind kind : {Kind::Auto, Kind::Manual}) {
            const auto event = makeEvent(kind);
            {
                Worker cancelled{[&] {
                    (void)c.wait(event.get());
                    ADD_FAILURE() << c.name << ": not cancelled";
                }};
                EXPECT_TRUE(cancelled.fallsAsleep());
                pthread_cancel(cancelled.native());
            }
            EXPECT_EQ(event->GetRefCount(), 1) << c.name;
            SetEvent(event.get());
            EXPECT_EQ(WaitForSingleObject(event.get(), 0), WAIT_OBJECT_0) << c.name;

            // A waiter too many would hold up the reset of a manual-reset event for ever.
            SetEvent(event.get());
            ResetEvent(event.get());
            DWORD result = WAIT_FAILED;
            {
                Worker next{[&] { result = WaitForSingleObject(event.get(), kBound); }};
                EXPECT_TRUE(next.fallsAsleep());
                SetEvent(event.get());
            }
            EXPECT_EQ(result, WAIT_OBJECT_0) << c.name;
        }
    }
}

// Two threads wait, one of them is released, and another joins the one that is left; then a signal and the
// cancellation of the older waiter come at once. Whoever is still there must have the signal.
TEST(CancelledWait, HandsASignalThatItDidNotTakeToTheNextWaiter) {
    for (int round = 0; round < rounds(200); ++round) {
        const auto event = makeEvent(Kind::Auto);
        std::atomic<int> released = 0;
        const auto wait = [&](std::atomic<bool>& got) {
            EXPECT_EQ(WaitForSingleObject(event.get(), kBound), WAIT_OBJECT_0) << "round " << round;
            got = true;
            ++released;
        };
        std::array<std::atomic<bool>, 3> got{};
        Worker first{[&] { wait(got[0]); }};
        Worker second{[&] { wait(got[1]); }};
        ASSERT_TRUE(first.fallsAsleep() && second.fallsAsleep());
        SetEvent(event.get());
        ASSERT_TRUE(withinSeconds(kBoundSeconds, [&] { return released == 1; }));
        Worker& older = got[0] ? second : first;

        Worker younger{[&] { wait(got[2]); }};
        ASSERT_TRUE(younger.fallsAsleep());
        SetEvent(event.get());
        pthread_cancel(older.native());
        older.join();
        if (got[0] && got[1]) SetEvent(event.get());  // the older one was quicker than its cancellation
        younger.join();
        ASSERT_TRUE(got[2]) << "round " << round;
    }
}

#if !defined( \
    __SANITIZE_THREAD__)  // which sees no lock any more of a thread that was cancelled in sem_timedwait
TEST(CancelledWait, OfASemaphoreTakesNothingAndHandsItsWakeUpOn) {
    for (int round = 0; round < rounds(200); ++round) {
        const OwnedHandle semaphore{CreateSemaphore(nullptr, 0, 9, nullptr)};
        std::atomic<bool> got = false;
        Worker older{[&] {
            EXPECT_EQ(WaitForSingleObject(semaphore.get(), kBound), WAIT_OBJECT_0);
            got = true;
        }};
        ASSERT_TRUE(older.fallsAsleep());
        Worker younger{
            [&] { EXPECT_EQ(WaitForSingleObject(semaphore.get(), kBound), WAIT_OBJECT_0) << round; }};
        ASSERT_TRUE(younger.fallsAsleep());
        ReleaseSemaphore(semaphore.get(), 1, nullptr);
        pthread_cancel(older.native());
        older.join();
        if (got) ReleaseSemaphore(semaphore.get(), 1, nullptr);  // it was quicker than its cancellation
        younger.join();
        EXPECT_EQ(WaitForSingleObject(semaphore.get(), 0), WAIT_TIMEOUT);
    }
}
#endif

TEST(CancelledWait, LeavesAThreadThatItWaitedForUsable) {
    const auto release = makeEvent(Kind::Auto);
    const OwnedHandle thread = createThread([&] { WaitForSingleObject(release.get(), kBound); });
    {
        Worker cancelled{[&] {
            WaitForSingleObjectEx(thread.get(), kBound, TRUE);
            ADD_FAILURE() << "not cancelled";
        }};
        EXPECT_TRUE(cancelled.fallsAsleep());
        pthread_cancel(cancelled.native());
    }
    EXPECT_EQ(WaitForSingleObject(thread.get(), 0), WAIT_TIMEOUT);
    SetEvent(release.get());
    EXPECT_EQ(WaitForSingleObject(thread.get(), kBound), WAIT_OBJECT_0);
}

TEST(CancelledThread, IsSignalledToItsWaiters) {
    const auto never = makeEvent(Kind::Auto);
    std::atomic<pthread_t> id{};
    const OwnedHandle thread = createThread([&] {
        id = pthread_self();
        WaitForSingleObject(never.get(), INFINITE);
    });
    ASSERT_TRUE(withinSeconds(kBoundSeconds, [&] { return id != 0; }));
    Worker waiter{[&] { EXPECT_EQ(WaitForSingleObject(thread.get(), kBound), WAIT_OBJECT_0); }};
    EXPECT_TRUE(waiter.fallsAsleep());
    pthread_cancel(id);
}

}  // namespace
