// Threads: starting, ending, suspending them, and those made beside the handles.

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <traiklofox/clocks.h>

#include "kernel/worker.h"
#include "support/captured_output.h"
#include "support/fault_injection.h"

namespace {

using namespace traiklofox::test;
using traiklofox::test::faults::Call;

TEST(CreateThread, GivesTheNewThreadItsArgumentItsHandleAndItsId) {
    struct Seen {
        ULONG_PTR id = 0;                    // as `CreateThread` stores it ...
        ULONG_PTR idAtStart = 0, ownId = 0;  // ... before the thread starts
        Handle* handle = nullptr;
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
        ASSERT_EQ(waitFor(thread), WAIT_OBJECT_0);
        EXPECT_EQ(seen.handle, thread.get());
        EXPECT_EQ(seen.ownId, seen.id);
        ASSERT_EQ(seen.idAtStart, seen.id) << "round " << round;
    }
    const FailCall full{Call::PthreadCreate, EAGAIN};
    errno = 0;
    EXPECT_EQ(createThread([] {}), nullptr);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(Thread, IsSignalledToAllWaitersAndForEverOnceItHasEnded) {
    const auto release = makeEvent(), unset = makeEvent();
    const OwnedHandle handle = createThread([&] { waitFor(release, INFINITE); });
    auto& thread = static_cast<Thread&>(*handle);
    EXPECT_EQ(waitFor(handle, 1), WAIT_TIMEOUT);
    EXPECT_EQ(thread.Signal(), 1);
    EXPECT_EQ(waitFor(handle, 1), WAIT_OBJECT_0);
    EXPECT_EQ(waitFor(handle, 1), WAIT_TIMEOUT) << "a signal of the caller's counts once";
    EXPECT_EQ(TerminateThread(&thread, 1), 1);
    EXPECT_EQ(waitFor(handle, 0), WAIT_TIMEOUT) << "it runs on";
    EXPECT_EQ(thread.GetState(), THREAD_RUNNING);
    EXPECT_NE(thread.GetTid(), 0u);
    EXPECT_EQ(GetThreadPriority(&thread) + SetThreadPriority(&thread, 0), 0);
    EXPECT_EQ(SetThreadPriority(&thread, 1000), EINVAL);
    Workers waiters(8, [&](int number) {
        const DWORD timeout = number % 2 ? kBound : INFINITE;
        const BOOL alertable = number % 4 / 2;
        EXPECT_EQ(number < 4 ? waitFor(handle, timeout, alertable)
                             : waitForAny({unset.get(), handle.get()}, timeout, alertable) - 1,
                  WAIT_OBJECT_0);
    });
    EXPECT_TRUE(waiters.fallAsleep());
    SetEvent(release.get());
    waiters.clear();
    for (const DWORD timeout : {kBound, DWORD{0}, INFINITE})
        EXPECT_EQ(waitFor(handle, timeout), WAIT_OBJECT_0);
    EXPECT_EQ(thread.GetState(), THREAD_FINISHED);
    EXPECT_EQ(thread.GetTid(), 0u);
    EXPECT_EQ(SuspendThread(&thread), DWORD(-1));
    EXPECT_EQ(ResumeThread(&thread), DWORD(-1));
    EXPECT_EQ(GetThreadPriority(&thread), ESRCH);
    EXPECT_EQ(SetThreadPriority(&thread, 0), ESRCH);
    queueTo(&thread, nothing, unset);

    const OwnedHandle yetToBeCreated{new Thread(0)};
    EXPECT_EQ(GetThreadPriority(yetToBeCreated.get()), ESRCH);
    EXPECT_EQ(SuspendThread(yetToBeCreated.get()), DWORD(-1));
    static_cast<Thread&>(*yetToBeCreated).SetTid(pthread_self());
    EXPECT_EQ(GetThreadPriority(yetToBeCreated.get()), 0);
    static_cast<Thread&>(*yetToBeCreated).SetState(THREAD_FINISHED);
    EXPECT_EQ(waitFor(yetToBeCreated, 0), WAIT_OBJECT_0);

    Worker others{[] { EXPECT_EQ(static_cast<Thread*>(GetCurrentThread())->GetTid(), pthread_self()); }};
    EXPECT_NE(others.handle(), GetCurrentThread());
    EXPECT_EQ(WaitForSingleObject(others.handle(), kBound), WAIT_OBJECT_0)
        << "one that the library did not start";
}

// Who holds a reference may use, wait for, suspend and close it while the thread ends; a running one has its own.
TEST(Thread, EndIsMissedByNobodyWhoUsesTheHandleMeanwhile) {
    const auto unset = makeEvent(), closed = makeEvent(), done = makeEvent();
    for (int round = 0; round < rounds(3'000); ++round) {
        std::atomic<bool> go = false;
        OwnedHandle thread = createThread([&] { go.wait(false); });
        Handle* duplicate = nullptr;
        ASSERT_EQ(DuplicateHandle(nullptr, thread.get(), nullptr, &duplicate, 0, FALSE, 0), 1);
        std::thread other{[mine = OwnedHandle{duplicate}, round] {
            EXPECT_TRUE(round % 2 == 0 || waitFor(mine) == WAIT_OBJECT_0);
            QueueUserAPC(nothing, mine.get(), 0);
            (void)GetThreadPriority(mine.get());
        }};
        go = true;
        go.notify_one();
        linger(round % 50 * 20);
        EXPECT_TRUE(round % 4 < 2 || SuspendThread(thread.get()) != 0 || ResumeThread(thread.get()) == 1);
        ASSERT_EQ(round % 3 == 0   ? waitFor(thread, kBound, round % 2)
                  : round % 3 == 1 ? waitForAny({unset.get(), thread.get()}) - 1
                                   : 0,
                  WAIT_OBJECT_0);
        if (round % 3 == 2) soon([&] { return static_cast<Thread&>(*thread).GetState() == THREAD_FINISHED; });
        thread.reset();
        other.join();
    }
    createThread([&] {
        waitFor(closed);
        EXPECT_EQ(GetCurrentThread()->GetRefCount(), 1);
        SetEvent(done.get());
    }).reset();
    SetEvent(closed.get());
    EXPECT_EQ(waitFor(done), WAIT_OBJECT_0);
}

#if !defined(__SANITIZE_ADDRESS__)  // which takes the frames that an exit unwinds for live ones
TEST(Thread, ExitAndCancellationUnwindItsStackAndSignalIt) {
    for (const auto& [cancelled, alertable] : {std::pair{false, FALSE}, {true, FALSE}, {true, TRUE}}) {
#if defined(__SANITIZE_THREAD__)  // which sees no lock any more of a thread cancelled in a sleep
        if (cancelled) break;
#endif
        std::atomic<int> unwound = 0;
        std::atomic<pthread_t> id{};
        const OwnedHandle thread = createThread([&, cancelled = cancelled, alertable = alertable] {
            const std::unique_ptr<std::atomic<int>, void (*)(std::atomic<int>*)> local{&unwound,
                                                                                       [](auto* n) { ++*n; }};
            id = pthread_self();
            if (!cancelled) ExitThread(7);
            SleepEx(INFINITE - 1, alertable);
        });
        ASSERT_TRUE(soon([&] { return id != 0; }));
        if (cancelled) pthread_cancel(id);
        EXPECT_EQ(waitFor(thread), WAIT_OBJECT_0);
        EXPECT_EQ(unwound, 1);
    }
}
#endif

/// A thread that does one thing again and again.
class Busy {
  public:
    explicit Busy(std::function<void()> body)
        : worker_([this, body = std::move(body)] {
              for (; !stop_; ++turns_) body();
          }) {}
    ~Busy() { stop_ = true; }
    Handle* handle() const { return worker_.handle(); }
    /// Suspends and resumes it, at once or when it has stopped, and sees it go on: otherwise the signals would
    /// pile up.
    bool survivesSuspension(bool atOnce) {
        EXPECT_EQ(SuspendThread(handle()), 0u);
        if (!atOnce) (void)turnsWhenStopped();
        EXPECT_EQ(ResumeThread(handle()), 1u);
        return soon([this, reached = turns_.load()] { return turns_ != reached; });
    }
    long turnsWhenStopped() const {
        EXPECT_TRUE(worker_.fallsAsleep());
        return turns_;
    }

  private:
    std::atomic<bool> stop_ = false;
    std::atomic<long> turns_ = 0;
    Worker worker_;
};

TEST(Suspend, StopsAThreadUntilAsManyResumesFollow) {
    Busy thread{[] {}};
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(ResumeThread(thread.handle()), 0u) << "not suspended";
        EXPECT_EQ(SuspendThread(thread.handle()), 0u);
        EXPECT_EQ(SuspendThread(thread.handle()), 1u);
        const long reached = thread.turnsWhenStopped();
        EXPECT_EQ(ResumeThread(thread.handle()), 2u);
        EXPECT_EQ(thread.turnsWhenStopped(), reached);
        EXPECT_EQ(ResumeThread(thread.handle()), 1u);
        EXPECT_TRUE(thread.survivesSuspension(false));
    }
}

TEST(Suspend, ThreadMaySuspendItselfAndKeepsWhatItWaitsForUntilItIsResumed) {
    const auto event = makeEvent();
    std::atomic<int> ran = 0, wentOn = 0;
    Worker worker{[&] {
        EXPECT_EQ(SuspendThread(GetCurrentThread()), 0u);
        wentOn = 1;
        EXPECT_EQ(waitFor(event, kBound, TRUE), WAIT_IO_COMPLETION);
    }};
    EXPECT_TRUE(soon([&] { return ResumeThread(worker.handle()) == 1; })) << "it never stopped";
    EXPECT_TRUE(becomes(wentOn, 1) && worker.fallsAsleep());
    EXPECT_EQ(SuspendThread(worker.handle()), 0u);
    queueTo(worker.handle(), count, ran);
    EXPECT_TRUE(worker.fallsAsleep());
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(ResumeThread(worker.handle()), 1u);
    worker.join();
    EXPECT_EQ(ran, 1);
}

// A suspender who resumes gets in wherever the thread was stopped, also in the use of its own handle, and while other
// threads queue calls to it.
TEST(Suspend, ThreadMayBeStoppedAnywhere) {
    constexpr int kMostQueued = 4;  // more than the thread can run would keep it running them for ever
    static const auto ranOne = [](void* queued, void*, void*) { --*static_cast<std::atomic<int>*>(queued); };
    const auto unset = makeEvent();
    std::atomic<Handle*> peer =
        GetCurrentThread();  // whom the suspender uses, too, while the thread is stopped
    const std::function<void()> bodies[] = {
        [] { (void)static_cast<Thread*>(GetCurrentThread())->GetTid(); },
        [] { (void)GetThreadPriority(GetCurrentThread()); },
        [] {
            const sched_param usual{};
            pthread_setschedparam(pthread_self(), SCHED_OTHER, &usual);  // holds a lock of libc's
        },
        [] { QueueUserAPC(nothing, GetCurrentThread(), 0); },
        [&] { (void)waitFor(unset, 1, TRUE); },
        [&] { SetEvent(unset.get()), (void)waitFor(unset, 1); },
        [&] { (void)static_cast<Thread*>(peer.load())->GetTid(); },
        [&] { (void)GetThreadPriority(peer), (void)WaitForSingleObject(peer, 0); },
    };
    for (const auto& body : bodies) {
        std::atomic<int> queued = 0;
        Busy other{[] { Sleep(1); }};
        peer = other.handle();
        Busy thread{[&] { body(), (void)UserAPCCheck(); }};
        Busy caller{[&] {
            (void)GetThreadPriority(thread.handle());
            if (!soon([&] { return queued < kMostQueued; })) return;
            ++queued;
            queueTo(thread.handle(), ranOne, queued);
        }};
        for (int round = 0; round < rounds(200); ++round) {
            ASSERT_TRUE(thread.survivesSuspension(round % 8 != 0));
            EXPECT_EQ(SuspendThread(thread.handle()) + SuspendThread(other.handle()), 0u);
            EXPECT_EQ(ResumeThread(other.handle()) + ResumeThread(thread.handle()), 2u);
        }
    }
}

TEST(UserAPCInit, BlocksTheResumeSignalAloneInAThreadThatBlocksNone) {
    Worker{[] {
        sigset_t mask;
        sigemptyset(&mask);
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        UserAPCInit();
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        for (int number = 1; number < NSIG; ++number)
            EXPECT_EQ(sigismember(&mask, number), number == SIGRTMIN + 2) << number;
    }}.join();
}

TEST(UnixThread, RunsUnderTheCallersAttributesOrDetachedWithTheStackOfTheEnvironment) {
    static std::atomic<int> detachState;
    static std::atomic<size_t> stackSize;
    const auto report = [](void* given) -> void* {
        pthread_attr_t attributes;
        int state = -1;
        size_t size = 0;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &size);
        pthread_attr_getdetachstate(&attributes, &state);
        pthread_attr_destroy(&attributes);
        detachState = state;
        stackSize = size;
        return given;
    };
    pthread_t thread{};
    pthread_attr_t attributes;
    size_t usual = 0;
    pthread_attr_init(&attributes);
    pthread_attr_getstacksize(&attributes, &usual);
    for (const auto& [variable, size] : {std::pair{"1900", size_t{1'900'000}},
                                         {" 1850 kB", 1'850'000},
                                         {"0", usual},
                                         {"-1900", usual},
                                         {"large", usual},
                                         {"99999999999999999999", usual}}) {
        setenv("TW_THREAD_STACK_SIZE", variable, /*overwrite=*/1);
        stackSize = 0;
        ASSERT_EQ(unixthread_create_detached(report, nullptr), 0);
        ASSERT_TRUE(soon([] { return stackSize != 0; }));
        EXPECT_EQ(detachState, PTHREAD_CREATE_DETACHED);
        // The system rounds to whole pages. It uses a cached stack of up to four times the size, which the
        // first size here rules out for the usual 8 MB.
        EXPECT_NEAR(double(stackSize), double(size), 0.1 * double(size)) << variable;
    }
    void* result = nullptr;
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 300'000), 0);
    ASSERT_EQ(unixthread_create(&thread, &attributes, report, &usual), 0);
    pthread_join(thread, &result);
    EXPECT_EQ(result, &usual);
    EXPECT_LT(stackSize, usual / 2);

    ASSERT_EQ(pthread_attr_setstacksize(&attributes, SIZE_MAX - 0xFFFFFF), 0);
    CapturedStderr errors;
    EXPECT_EQ(unixthread_create(&thread, &attributes, report, nullptr), EAGAIN);
    pthread_attr_destroy(&attributes);
    const FailCall full{Call::PthreadCreate, EPERM};
    EXPECT_EQ(unixthread_create_detached(report, nullptr), EPERM);
    EXPECT_EQ(errors.text(),
              "unixthread_create: pthread_create failed, err=Resource temporarily unavailable\n"
              "unixthread_create_detached: pthread_create failed, err=Operation not permitted\n");
}

}  // namespace
