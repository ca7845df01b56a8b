#include <traiklofox/clocks.h>
#include <traiklofox/events.h>
#include <traiklofox/semaphores.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

#include "kernel/worker.h"

namespace {

using namespace traiklofox::test;
using std::chrono::milliseconds;

/// Queues `function(argument, 0, 0)` to the calling thread.
template <class Argument>
void queueToSelf(PAPCFUNC function, Argument& argument) {
    EXPECT_EQ(QueueUserAPC(function, GetCurrentThread(), reinterpret_cast<ULONG_PTR>(&argument)), 0u);
}

void count(void* counter, void*, void*) {
    ++*static_cast<std::atomic<int>*>(counter);
}

TEST(AsyncCall, RunsOnItsThreadWithItsArguments) {
    struct Call {
        void *a, *b, *c;
        pthread_t thread;
    };
    static Call ran;
    const auto record = [](void* a, void* b, void* c) { ran = {a, b, c, pthread_self()}; };
    EXPECT_EQ(QueueUserAPC(record, GetCurrentThread(), 7), 0u);
    EXPECT_EQ(SleepEx(kBound, TRUE), WAIT_IO_COMPLETION);
    EXPECT_EQ(ran.a, reinterpret_cast<void*>(7));
    EXPECT_EQ(ran.b, nullptr);
    EXPECT_EQ(ran.c, nullptr);
    EXPECT_EQ(ran.thread, pthread_self());
    int x = 0;
    int y = 0;
    int z = 0;
    static_cast<Thread*>(GetCurrentThread())->QueueAPC(record, &x, &y, &z);
    EXPECT_EQ(UserAPCCheck(), 1);
    EXPECT_EQ(ran.a, &x);
    EXPECT_EQ(ran.b, &y);
    EXPECT_EQ(ran.c, &z);
    EXPECT_EQ(UserAPCCheck(), 0);
}

TEST(AsyncCall, AllRunInOrderAlsoThoseThatACallQueues) {
    static std::vector<ULONG_PTR> order;
    order.clear();
    const PAPCFUNC append = [](void* number, void*, void*) {
        order.push_back(reinterpret_cast<ULONG_PTR>(number));
    };
    const PAPCFUNC queuesAnother = [](void* number, void*, void*) {
        order.push_back(reinterpret_cast<ULONG_PTR>(number));
        QueueUserAPC([](void* later, void*, void*) { order.push_back(reinterpret_cast<ULONG_PTR>(later)); },
                     GetCurrentThread(), reinterpret_cast<ULONG_PTR>(number) + 100);
    };
    for (ULONG_PTR i = 1; i <= 6; ++i)
        QueueUserAPC(i % 2 == 0 ? queuesAnother : append, GetCurrentThread(), i);
    EXPECT_EQ(UserAPCCheck(), 1);
    EXPECT_EQ(order, (std::vector<ULONG_PTR>{1, 2, 3, 4, 5, 6, 102, 104, 106}));
}

struct AlertableWait {
    const char* name;
    std::function<DWORD(DWORD timeout)> wait;
};

class AsyncCallInWait : public testing::Test {
  protected:
    OwnedHandle unset = makeEvent(Kind::Auto);
    OwnedHandle other = makeEvent(Kind::Manual);
    OwnedHandle file{new File(-1)};
    OwnedHandle semaphore{CreateSemaphore(nullptr, 0, 1, nullptr)};
    OwnedHandle mutex{CreateMutex(nullptr, FALSE, nullptr)};
    OwnedHandle stop = makeEvent(Kind::Manual);
    Worker never{[this] {
        WaitForSingleObject(mutex.get(), INFINITE);
        WaitForSingleObject(stop.get(), INFINITE);
    }};

    const std::vector<AlertableWait> waits{
        {"sleep", [](DWORD timeout) { return SleepEx(timeout, TRUE); }},
        {"event", [this](DWORD timeout) { return WaitForSingleObjectEx(unset.get(), timeout, TRUE); }},
        {"manual-reset event",
         [this](DWORD timeout) { return WaitForSingleObjectEx(other.get(), timeout, TRUE); }},
        {"semaphore",
         [this](DWORD timeout) { return WaitForSingleObjectEx(semaphore.get(), timeout, TRUE); }},
        {"mutex", [this](DWORD timeout) { return WaitForSingleObjectEx(mutex.get(), timeout, TRUE); }},
        {"thread", [this](DWORD timeout) { return WaitForSingleObjectEx(never.handle(), timeout, TRUE); }},
        {"any of several",
         [this](DWORD timeout) {
             std::array<Handle*, 2> handles{unset.get(), other.get()};
             return WaitForMultipleObjectsEx(2, handles.data(), FALSE, timeout, TRUE);
         }},
        {"all of several kinds",
         [this](DWORD timeout) {
             std::array<Handle*, 3> handles{file.get(), unset.get(), never.handle()};
             return WaitForMultipleObjectsEx(3, handles.data(), TRUE, timeout, TRUE);
         }},
    };

    AsyncCallInWait() { EXPECT_TRUE(never.fallsAsleep()); }
    ~AsyncCallInWait() override { SetEvent(stop.get()); }
};

TEST_F(AsyncCallInWait, QueuedBeforeEndsTheWaitAtOnce) {
    for (const auto& [name, wait] : waits) {
        std::atomic<int> ran = 0;
        queueToSelf(count, ran);
        queueToSelf(count, ran);
        const auto start = now();
        EXPECT_EQ(wait(kBound), WAIT_IO_COMPLETION) << name;
        EXPECT_LT(now() - start, kPrompt) << name;
        EXPECT_EQ(ran, 2) << name;
    }
    EXPECT_EQ(unset->GetRefCount(), 1);
}

TEST_F(AsyncCallInWait, QueuedMeanwhileEndsTheWaitAtOnce) {
    for (const auto& [name, wait] : waits) {
        std::atomic<int> ran = 0;
        Worker sleeper{[&, &wait = wait, &name = name] {
            const auto start = now();
            EXPECT_EQ(wait(kBound), WAIT_IO_COMPLETION) << name;
            EXPECT_LT(now() - start, kPrompt) << name;
            EXPECT_EQ(ran, 1) << name;
        }};
        EXPECT_TRUE(sleeper.fallsAsleep()) << name;
        EXPECT_EQ(QueueUserAPC(count, sleeper.handle(), reinterpret_cast<ULONG_PTR>(&ran)), 0u);
    }
    EXPECT_EQ(unset->GetRefCount(), 1);
}

TEST_F(AsyncCallInWait, ThatEndsOtherwiseLeavesTheCallsQueued) {
    std::atomic<int> ran = 0;
    queueToSelf(count, ran);
    const auto set = makeEvent(Kind::Manual, Initially::Set);
    std::array<Handle*, 2> handles{unset.get(), set.get()};
    EXPECT_EQ(WaitForSingleObjectEx(set.get(), kBound, TRUE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForMultipleObjectsEx(2, handles.data(), FALSE, kBound, TRUE), 1u);
    EXPECT_EQ(WaitForSingleObjectEx(unset.get(), 0, TRUE), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObjectEx(unset.get(), 5, FALSE), WAIT_TIMEOUT);
    EXPECT_EQ(SleepEx(0, TRUE), 0u);
    EXPECT_EQ(SleepEx(5, FALSE), 0u);
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(UserAPCCheck(), 1);
    EXPECT_EQ(ran, 1);
}

TEST_F(AsyncCallInWait, WithoutLimitIsNotDisturbed) {
    std::array<Handle*, 2> handles{unset.get(), other.get()};
    const std::function<DWORD()> infiniteWaits[] = {
        [&] { return WaitForSingleObjectEx(unset.get(), INFINITE, TRUE); },
        [&] { return WaitForMultipleObjectsEx(2, handles.data(), FALSE, INFINITE, TRUE); },
    };
    for (const auto& wait : infiniteWaits) {
        std::atomic<int> ran = 0;
        Worker sleeper{[&] {
            EXPECT_EQ(UserAPCCheck(), 0);
            EXPECT_EQ(wait(), WAIT_OBJECT_0);
            EXPECT_EQ(ran, 0);
            EXPECT_EQ(UserAPCCheck(), 1);
            EXPECT_EQ(ran, 1);
        }};
        EXPECT_TRUE(sleeper.fallsAsleep());
        QueueUserAPC(count, sleeper.handle(), reinterpret_cast<ULONG_PTR>(&ran));
        SetEvent(unset.get());
    }
}

TEST_F(AsyncCallInWait, MaySetTheVeryEventThatIsWaitedFor) {
    const auto set = [](void* event, void*, void*) { SetEvent(static_cast<Handle*>(event)); };
    for (const auto& [name, wait] : waits) {
        queueToSelf(set, *unset);
        EXPECT_EQ(wait(kBound), WAIT_IO_COMPLETION) << name;
        EXPECT_TRUE(isSet(unset)) << name;
        ResetEvent(unset.get());
    }
}

// More events than the wait that it interrupts has, so that the thread's place for such waits must grow.
TEST_F(AsyncCallInWait, MayItselfWaitForTheSameEventsAndMore) {
    std::vector<OwnedHandle> more;
    std::vector<Handle*> handles{unset.get(), other.get()};
    for (int i = 0; i < 40; ++i) handles.push_back(more.emplace_back(makeEvent(Kind::Auto)).get());
    const auto waitInside = [](void* untyped, void*, void*) {
        auto& all = *static_cast<std::vector<Handle*>*>(untyped);
        const auto size = static_cast<DWORD>(all.size());
        EXPECT_EQ(WaitForSingleObjectEx(all.front(), 1, TRUE), WAIT_TIMEOUT);
        EXPECT_EQ(WaitForMultipleObjectsEx(size, all.data(), FALSE, 1, TRUE), WAIT_TIMEOUT);
        SetEvent(all.back());
        EXPECT_EQ(WaitForMultipleObjectsEx(size, all.data(), FALSE, kBound, TRUE), size - 1);
    };
    for (const auto& [name, wait] : waits) {
        queueToSelf(waitInside, handles);
        EXPECT_EQ(wait(kBound), WAIT_IO_COMPLETION) << name;
        EXPECT_EQ(unset->GetRefCount(), 1) << name;
        EXPECT_EQ(other->GetRefCount(), 1) << name;
        SetEvent(unset.get());
        EXPECT_EQ(WaitForSingleObject(unset.get(), 0), WAIT_OBJECT_0) << name;
    }
}

TEST(AsyncCall, DoesNotShortenASleepThatIsNotAlertable) {
    constexpr DWORD kSleep = 100;
    std::atomic<int> ran = 0;
    std::atomic<bool> slept = false;
    Worker sleeper{[&] {
        EXPECT_EQ(UserAPCCheck(), 0);  // from now on a queued call sends a signal
        const auto start = now();
        EXPECT_EQ(SleepEx(kSleep, FALSE), 0u);
        EXPECT_GE(now() - start, milliseconds{kSleep});
        slept = true;
        EXPECT_EQ(ran, 0);
        while (UserAPCCheck()) continue;
    }};
    do {
        QueueUserAPC(count, sleeper.handle(), reinterpret_cast<ULONG_PTR>(&ran));
        std::this_thread::sleep_for(milliseconds{1});
    } while (!slept);
}

/// A pipe that a thread blocks on.
struct Pipe {
    std::array<int, 2> ends{};
    Pipe() { EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0); }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
        for (const int end : ends) ::close(end);
    }
    ssize_t readOne() const {
        char byte;
        return ::read(ends[0], &byte, 1);
    }
    void writeOne() const { EXPECT_EQ(::write(ends[1], "x", 1), 1); }
};

TEST_F(AsyncCallInWait, InterruptsAThreadThatHasFoundItsQueueEmptyInABlockingCall) {
    std::vector<AlertableWait> checks = waits;
    checks.push_back({"check", [](DWORD) { return static_cast<DWORD>(UserAPCCheck()); }});
    for (const auto& [name, check] : checks) {
        const Pipe pipe;
        std::atomic<int> ran = 0;
        Worker reader{[&, &check = check, &name = name] {
            (void)check(1);
            errno = 0;
            EXPECT_EQ(pipe.readOne(), -1) << name;
            EXPECT_EQ(errno, EINTR) << name;
            EXPECT_EQ(ran, 0) << name;
            EXPECT_EQ(UserAPCCheck(), 1) << name;
        }};
        EXPECT_TRUE(reader.fallsAsleep(SYS_read)) << name;
        QueueUserAPC(count, reader.handle(), reinterpret_cast<ULONG_PTR>(&ran));
        if (!within(milliseconds{2000}, [&] { return ran == 1; })) pipe.writeOne();  // it blocks for ever
    }
}

TEST(AsyncCall, DoesNotInterruptAThreadThatNeverChecks) {
    const Pipe pipe;
    std::atomic<int> ran = 0;
    Worker reader{[&] { EXPECT_EQ(pipe.readOne(), 1); }};
    EXPECT_TRUE(reader.fallsAsleep(SYS_read));
    for (int i = 0; i < 10; ++i) QueueUserAPC(count, reader.handle(), reinterpret_cast<ULONG_PTR>(&ran));
    pipe.writeOne();
    reader.join();
    EXPECT_EQ(ran, 0) << "lost with its thread";
}

// One thread waits alertably again and again, the others queue one call each and wait for it: a call that
// slips between the look at the queue and the sleep is found only when the sleep ends.
TEST_F(AsyncCallInWait, NoCallSlipsBetweenTheLookAtTheQueueAndTheSleep) {
    constexpr DWORD kLong = 10'000;
    constexpr int kCallers = 2;
    const int callsEach = rounds(1'500);
    for (const auto& [name, wait] : waits) {
        std::atomic<int> callersLeft = kCallers;
        Worker sleeper{[&, &wait = wait, &name = name] {
            while (callersLeft > 0) EXPECT_NE(wait(kLong), WAIT_TIMEOUT) << name;
        }};
        std::vector<std::unique_ptr<Worker>> callers;
        for (int i = 0; i < kCallers; ++i) {
            callers.push_back(std::make_unique<Worker>([&, i, &name = name] {
                std::atomic<int> ran = 0;
                for (int sent = 1; sent <= callsEach; ++sent) {
                    ASSERT_EQ(QueueUserAPC(count, sleeper.handle(), reinterpret_cast<ULONG_PTR>(&ran)), 0u);
                    // Some of them at once, some when the thread has had time to fall asleep.
                    ASSERT_TRUE(soon([&] { return ran == sent; })) << name << ", call " << sent;
                    for (int pause = 0; pause < sent % 64 * (i + 1); ++pause)
                        std::atomic_signal_fence(std::memory_order_seq_cst);
                }
                --callersLeft;
                QueueUserAPC([](void*, void*, void*) {}, sleeper.handle(), 0);
            }));
        }
    }
}

TEST(AsyncCall, QueuedWhileTheThreadForksLeavesTheChildItsQueue) {
    const auto nothing = [](void*, void*, void*) {};
    Handle* self = GetCurrentThread();
    std::atomic<bool> stop = false;
    std::atomic<int> queued = 0;
    std::thread other([&] {
        while (!stop) {
            QueueUserAPC(nothing, self, 0);
            if (++queued % 100 == 0) Sleep(1);
        }
    });
    int failed = 0;
    for (int i = 0; i < rounds(200); ++i) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(kBoundSeconds);  // which ends it if it hangs
            QueueUserAPC(nothing, self, 0);
            _exit(SleepEx(kBound, TRUE) == WAIT_IO_COMPLETION ? 0 : 1);
        }
        int status = -1;
        while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
        }
        if (status != 0) ++failed;
        UserAPCCheck();
    }
    stop = true;
    other.join();
    UserAPCCheck();
    EXPECT_EQ(failed, 0);
}

}  // namespace
