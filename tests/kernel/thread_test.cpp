#include <traiklofox/events.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>

#include <optional>
#include <vector>

#include "kernel/worker.h"
#include "support/captured_output.h"
#include "support/fault_injection.h"

namespace {

using namespace traiklofox::test;
using traiklofox::test::faults::Call;

/// A thread that waits until the test lets it end.
class HeldThread {
  public:
    HeldThread()
        : handle_(createThread([release = release_.get()] { WaitForSingleObject(release, INFINITE); })) {}
    HeldThread(const HeldThread&) = delete;
    HeldThread& operator=(const HeldThread&) = delete;
    ~HeldThread() { end(); }

    Handle* handle() const { return handle_.get(); }
    Thread& thread() const { return static_cast<Thread&>(*handle_); }
    void release() { SetEvent(release_.get()); }
    void end() {
        release();
        EXPECT_EQ(WaitForSingleObject(handle_.get(), kBound), WAIT_OBJECT_0);
    }

  private:
    OwnedHandle release_ = makeEvent(Kind::Manual);
    OwnedHandle handle_;
};

TEST(CreateThread, GivesTheNewThreadItsArgumentItsHandleAndItsId) {
    struct Seen {
        ULONG_PTR id = 0;         // as `CreateThread` stores it ...
        ULONG_PTR idAtStart = 0;  // ... before the thread starts
        Handle* handle = nullptr;
        ULONG_PTR ownId = 0;
    };
    const auto start = [](void* argument) -> DWORD {
        auto& seen = *static_cast<Seen*>(argument);
        seen.idAtStart = seen.id;
        seen.ownId = GetCurrentThreadId();
        seen.handle = GetCurrentThread();
        return 0;
    };
    for (int round = 0; round < rounds(500); ++round) {
        Seen seen;
        const OwnedHandle thread{CreateThread(nullptr, 0, start, &seen, 0, &seen.id)};
        ASSERT_NE(thread, nullptr);
        EXPECT_EQ(thread->What(), HANDLE_KIND_THREAD);
        ASSERT_EQ(WaitForSingleObject(thread.get(), kBound), WAIT_OBJECT_0);
        EXPECT_EQ(seen.handle, thread.get());
        ASSERT_EQ(seen.idAtStart, seen.id) << "round " << round;
        EXPECT_EQ(seen.ownId, seen.id);
    }
}

TEST(CreateThread, ReturnsNullAndTheReasonWhenTheSystemHasNoThread) {
    const FailCall full{Call::PthreadCreate, EAGAIN};
    ULONG_PTR id = 0;
    errno = 0;
    EXPECT_EQ(CreateThread(
                  nullptr, 0, [](void*) -> DWORD { return 0; }, nullptr, 0, &id),
              nullptr);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(CreateThread, RunningThreadKeepsItsHandleAlive) {
    const auto go = makeEvent(Kind::Manual);
    const auto done = makeEvent(Kind::Manual);
    OwnedHandle thread = createThread([&] {
        WaitForSingleObject(go.get(), kBound);
        EXPECT_EQ(GetCurrentThread()->GetRefCount(), 1);
        SetEvent(done.get());
    });
    thread.reset();
    SetEvent(go.get());
    EXPECT_EQ(WaitForSingleObject(done.get(), kBound), WAIT_OBJECT_0);
}

TEST(Thread, IsSignalledForEverOnceItHasEnded) {
    HeldThread held;
    EXPECT_EQ(WaitForSingleObject(held.handle(), 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(held.handle(), 5), WAIT_TIMEOUT);
    EXPECT_EQ(held.thread().GetState(), THREAD_RUNNING);
    EXPECT_NE(held.thread().GetTid(), 0u);
    held.release();
    for (const DWORD timeout : {kBound, DWORD{0}, INFINITE, DWORD{0}})
        EXPECT_EQ(WaitForSingleObject(held.handle(), timeout), WAIT_OBJECT_0);
    EXPECT_EQ(held.thread().GetState(), THREAD_FINISHED);
    EXPECT_EQ(held.thread().GetTid(), 0u);
}

TEST(Thread, EndReleasesEveryWaiterWhateverItsKindOfWait) {
    HeldThread held;
    const auto unset = makeEvent(Kind::Auto);
    std::vector<std::unique_ptr<Worker>> waiters;
    for (int i = 0; i < 4; ++i) {
        for (const DWORD timeout : {kBound, INFINITE}) {
            waiters.push_back(std::make_unique<Worker>([&, timeout, alertable = i % 2] {
                EXPECT_EQ(WaitForSingleObjectEx(held.handle(), timeout, alertable), WAIT_OBJECT_0);
            }));
            waiters.push_back(std::make_unique<Worker>([&, timeout, alertable = i % 2] {
                std::array<Handle*, 2> mixed{unset.get(), held.handle()};
                EXPECT_EQ(WaitForMultipleObjectsEx(2, mixed.data(), FALSE, timeout, alertable), 1u);
            }));
        }
    }
    for (const auto& waiter : waiters) EXPECT_TRUE(waiter->fallsAsleep());
    held.release();
}

TEST(Thread, WaitThatRacesWithTheEndSeesIt) {
    for (int round = 0; round < rounds(2000); ++round) {
        const OwnedHandle thread = createThread([] {});
        ASSERT_TRUE(thread);
        const OwnedHandle unset = makeEvent(Kind::Auto);
        std::array<Handle*, 2> mixed{unset.get(), thread.get()};
        if (round % 2 == 0) {
            ASSERT_EQ(WaitForSingleObjectEx(thread.get(), kBound, round % 4 == 0), WAIT_OBJECT_0);
        } else {
            ASSERT_EQ(WaitForMultipleObjectsEx(2, mixed.data(), FALSE, kBound, FALSE), 1u);
        }
    }
}

// Who holds a reference may use and close it while the thread ends.
TEST(Thread, HandleIsSharedAndClosedWhileTheThreadEnds) {
    for (int round = 0; round < rounds(400); ++round) {
        OwnedHandle thread = createThread([] {});
        Handle* duplicate = nullptr;
        ASSERT_EQ(DuplicateHandle(nullptr, thread.get(), nullptr, &duplicate, 0, FALSE, 0), 1);
        std::thread other{[duplicate, round] {
            const OwnedHandle mine{duplicate};
            if (round % 2 == 0) {
                EXPECT_EQ(WaitForSingleObject(mine.get(), kBound), WAIT_OBJECT_0);
            }
            QueueUserAPC([](void*, void*, void*) {}, mine.get(), 0);
            (void)GetThreadPriority(mine.get());
        }};
        if (round % 3 == 0) (void)WaitForSingleObject(thread.get(), kBound);
        thread.reset();
        other.join();
    }
}

TEST(Thread, RunsOnAfterASignalAndATermination) {
    HeldThread held;
    EXPECT_EQ(WaitForSingleObject(held.handle(), 1), WAIT_TIMEOUT);
    EXPECT_EQ(held.thread().Signal(), 1);
    EXPECT_EQ(WaitForSingleObject(held.handle(), 1), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(held.handle(), 1), WAIT_TIMEOUT) << "a signal of the caller's counts once";
    EXPECT_EQ(TerminateThread(held.handle(), 1), 1);
    EXPECT_EQ(WaitForSingleObject(held.handle(), 5), WAIT_TIMEOUT);
}

TEST(Thread, OnceEndedRefusesWhatNeedsARunningOne) {
    HeldThread held;
    EXPECT_EQ(GetThreadPriority(held.handle()), 0);
    EXPECT_EQ(SetThreadPriority(held.handle(), 0), 0);
    EXPECT_EQ(SetThreadPriority(held.handle(), 1000), EINVAL);
    held.end();
    EXPECT_EQ(SuspendThread(held.handle()), DWORD(-1));
    EXPECT_EQ(ResumeThread(held.handle()), DWORD(-1));
    EXPECT_EQ(GetThreadPriority(held.handle()), ESRCH);
    EXPECT_EQ(SetThreadPriority(held.handle(), 0), ESRCH);
    EXPECT_EQ(QueueUserAPC([](void*, void*, void*) { FAIL() << "no thread to run on"; }, held.handle(), 0),
              0u);
}

TEST(Thread, FunctionsRefuseWhatIsNoThread) {
    const auto event = makeEvent(Kind::Auto);
    for (Handle* none : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE, event.get()}) {
        EXPECT_EQ(SuspendThread(none), DWORD(-1));
        EXPECT_EQ(ResumeThread(none), DWORD(-1));
        EXPECT_EQ(GetThreadPriority(none), ESRCH);
        EXPECT_EQ(SetThreadPriority(none, 0), ESRCH);
        EXPECT_EQ(QueueUserAPC([](void*, void*, void*) {}, none, 0), 0xFFFFFFFFu);
        EXPECT_EQ(TerminateThread(none, 1), 1);
    }
    EXPECT_EQ(QueueUserAPC(nullptr, GetCurrentThread(), 0), 0xFFFFFFFFu);
}

TEST(Thread, ExitUnwindsItsStack) {
    std::atomic<int> unwound = 0;
    struct CountsItself {
        std::atomic<int>& count;
        ~CountsItself() { ++count; }
    };
    const OwnedHandle thread = createThread([&] {
        const CountsItself local{unwound};
        ExitThread(7);
    });
    EXPECT_EQ(WaitForSingleObject(thread.get(), kBound), WAIT_OBJECT_0);
    EXPECT_EQ(unwound, 1);
}

TEST(CurrentThread, OfAThreadThatTheLibraryDidNotStartIsItsOwnAndEndsWithIt) {
    Handle* const mine = GetCurrentThread();
    EXPECT_EQ(GetCurrentThread(), mine);
    EXPECT_EQ(static_cast<Thread*>(mine)->GetTid(), pthread_self());
    Handle* other = nullptr;
    std::thread([&] { DuplicateHandle(nullptr, GetCurrentThread(), nullptr, &other, 0, FALSE, 0); }).join();
    const OwnedHandle owned{other};
    EXPECT_NE(other, mine);
    EXPECT_EQ(WaitForSingleObject(other, kBound), WAIT_OBJECT_0);
    EXPECT_EQ(static_cast<Thread*>(other)->GetState(), THREAD_FINISHED);
}

TEST(UnixThread, RunsItsFunctionUnderTheCallersAttributes) {
    int argument = 7;
    pthread_t thread{};
    ASSERT_EQ(unixthread_create(
                  &thread, nullptr, [](void* given) { return given; }, &argument),
              0);
    void* result = nullptr;
    EXPECT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, &argument);
}

TEST(UnixThread, FailureIsReturnedAndReported) {
    pthread_attr_t absurd;
    pthread_attr_init(&absurd);
    ASSERT_EQ(pthread_attr_setstacksize(&absurd, SIZE_MAX - 0xFFFFFF), 0);
    pthread_t thread{};
    CapturedStderr errors;
    const auto nothing = [](void*) -> void* { return nullptr; };
    EXPECT_EQ(unixthread_create(&thread, &absurd, nothing, nullptr), EAGAIN);
    pthread_attr_destroy(&absurd);
    {
        const FailCall full{Call::PthreadCreate, EPERM};
        EXPECT_EQ(unixthread_create_detached(nothing, nullptr), EPERM);
    }
    EXPECT_EQ(errors.text(),
              "unixthread_create: pthread_create failed, err=Resource temporarily unavailable\n"
              "unixthread_create_detached: pthread_create failed, err=Operation not permitted\n");
}

size_t stackSizeOf(const pthread_attr_t& attributes) {
    size_t size = 0;
    pthread_attr_getstacksize(&attributes, &size);
    return size;
}

struct DetachedThread {
    OwnedHandle done = makeEvent(Kind::Auto);
    size_t stackSize = 0;
    int detachState = -1;

    static void* report(void* untyped) {
        auto& self = *static_cast<DetachedThread*>(untyped);
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        self.stackSize = stackSizeOf(attributes);
        pthread_attr_getdetachstate(&attributes, &self.detachState);
        pthread_attr_destroy(&attributes);
        SetEvent(self.done.get());
        return nullptr;
    }
};

TEST(UnixThread, DetachedThreadHasTheStackThatTheEnvironmentAsksFor) {
    pthread_attr_t defaults;
    pthread_attr_init(&defaults);
    const size_t usual = stackSizeOf(defaults);
    pthread_attr_destroy(&defaults);
    const struct {
        const char* variable;
        size_t size;
    } cases[] = {
        {"1900", 1'900'000}, {" 1850 kB", 1'850'000}, {nullptr, usual}, {"0", usual},
        {"-1900", usual},    {"large", usual},        {"", usual},      {"99999999999999999999", usual},
    };
    for (const auto& c : cases) {
        if (c.variable != nullptr) {
            setenv("TW_THREAD_STACK_SIZE", c.variable, /*overwrite=*/1);
        } else {
            unsetenv("TW_THREAD_STACK_SIZE");
        }
        DetachedThread thread;
        ASSERT_EQ(unixthread_create_detached(DetachedThread::report, &thread), 0);
        ASSERT_EQ(WaitForSingleObject(thread.done.get(), kBound), WAIT_OBJECT_0);
        EXPECT_EQ(thread.detachState, PTHREAD_CREATE_DETACHED);
        // The system rounds to whole pages. It uses a cached stack of up to four times the size, which the
        // first size here rules out for the usual 8 MB.
        constexpr double kSlack = 0.1;
        EXPECT_NEAR(static_cast<double>(thread.stackSize), static_cast<double>(c.size),
                    static_cast<double>(c.size) * kSlack)
            << (c.variable != nullptr ? c.variable : "unset");
    }
    unsetenv("TW_THREAD_STACK_SIZE");
}

}  // namespace
