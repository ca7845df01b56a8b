// What all waits have in common, whatever they wait for: signals, time-outs, queued calls, cancellation, and what
// functions answer for handles that are none or of another kind.

#include <fcntl.h>
#include <sys/wait.h>
#include <traiklofox/clocks.h>

#include <cerrno>

#include "kernel/worker.h"
#include "support/fault_injection.h"

namespace {

using namespace traiklofox::test;

/// One way to wait, and what ends it. A sleep has no signal.
struct Way {
    std::string name;
    std::function<DWORD(DWORD timeout, BOOL alertable)> wait;
    std::function<void()> signal;
    DWORD result = WAIT_OBJECT_0;
};

/// What the ways wait for: nothing of it is signalled.
struct Objects {
    OwnedHandle event = makeEvent();
    OwnedHandle manual = makeEvent(Kind::Manual);
    OwnedHandle file = makeFile();
    OwnedHandle semaphore = makeSemaphore(0, 9);
    OwnedHandle mutex = makeMutex();
    OwnedHandle held = makeEvent();
    OwnedHandle letGo = makeEvent(Kind::Manual);
    OwnedHandle holder = createThread([this] {
        waitFor(mutex);
        SetEvent(held.get());
        waitFor(letGo, INFINITE);
        ReleaseMutex(mutex.get());
    });
    std::vector<Way> ways;

    Objects() {
        const auto add = [this](const char* name, OwnedHandle& handle, std::function<void()> signal) {
            ways.push_back(
                {name, [&](DWORD ms, BOOL alertable) { return waitFor(handle, ms, alertable); }, signal});
        };
        ways.push_back({"sleep", SleepEx, nullptr, 0});
        add("event", event, [this] { SetEvent(event.get()); });
        add("manual-reset event", manual, [this] { SetEvent(manual.get()); });
        add("semaphore", semaphore, [this] { ReleaseSemaphore(semaphore.get(), 1, nullptr); });
        add("mutex", mutex, [this] { SetEvent(letGo.get()); });
        add("thread", holder, [this] { SetEvent(letGo.get()); });
        const auto any = [this](DWORD ms, BOOL alertable) {
            return waitForAny({manual.get(), event.get(), event.get()}, ms, alertable);
        };
        const auto mixed = [this](DWORD ms, BOOL alertable) {
            return waitForAll({file.get(), event.get(), holder.get()}, ms, alertable);
        };
        ways.push_back({"any", any, [this] { SetEvent(event.get()); }, 1});
        ways.push_back({"several kinds", mixed, [this] { file->Signal(); }});
        EXPECT_EQ(waitFor(held), WAIT_OBJECT_0);
    }
    ~Objects() {
        SetEvent(letGo.get());
        EXPECT_EQ(waitFor(holder), WAIT_OBJECT_0);
        for (const auto* each : {&event, &manual, &semaphore, &mutex}) EXPECT_EQ((*each)->GetRefCount(), 1);
    }
};

/// Each way with objects of its own; without those that have no signal, if it is needed.
template <class Body>
void inEachWay(bool needsSignal, Body body) {
    const size_t count = Objects{}.ways.size();
    for (size_t i = needsSignal ? 1 : 0; i < count; ++i) {
        Objects objects;
        SCOPED_TRACE(objects.ways[i].name);
        body(objects.ways[i], objects);
    }
}

TEST(Wait, EndsWithItsSignalAlsoWhenAnotherWaiterWasCancelled) {
    for (const DWORD timeout : {kBound, INFINITE - 1, INFINITE}) {
        for (const BOOL alertable : {FALSE, TRUE}) {
            inEachWay(true, [&](const Way& way, Objects& objects) {
#if defined(__SANITIZE_THREAD__)  // which sees no lock any more of a thread cancelled in sem_timedwait
                if (way.name == "semaphore" || way.name == "mutex") return;
#endif
                DWORD result = WAIT_FAILED;
                Worker cancelled{[&] { way.wait(timeout, alertable), ADD_FAILURE() << "not cancelled"; }};
                EXPECT_TRUE(cancelled.fallsAsleep());
                cancelled.cancel();
                Worker waiter{[&] { result = way.wait(timeout, alertable); }};
                EXPECT_TRUE(waiter.fallsAsleep());
                way.signal();
                waiter.join();
                EXPECT_EQ(result, way.result) << timeout << " ms, alertable " << alertable;
                SetEvent(objects.manual.get());
                ResetEvent(objects.manual.get());  // a waiter too many would hold it up for ever
            });
        }
    }
}

// The wall clock that the deadline is taken from is wrong by so much, so that the long ones end soon.
TEST(Wait, EndsAtItsDeadlineAndLeavesErrnoAlone) {
    const struct {
        DWORD timeout;
        int clockMs, realMs;
        BOOL alertable;
    } cases[] = {{1500, -1400, 100, TRUE}, {1000, -1000, 0, FALSE}, {70, 0, 70, FALSE}, {70, 0, 70, TRUE}};
    inEachWay(false, [&](const Way& way, Objects&) {
        for (const auto& c : cases) {
            FakeTime clock;
            clock.runAhead(0, c.clockMs * 1'000'000L);
            const auto start = now();
            errno = 12345;
            EXPECT_EQ(way.wait(c.timeout, c.alertable), way.signal ? WAIT_TIMEOUT : 0);
            EXPECT_EQ(errno, 12345);
            EXPECT_GE(now() - start, milliseconds{c.realMs - 1}) << c.timeout << " ms";
            EXPECT_LT(now() - start, milliseconds{c.realMs} + kPrompt) << c.timeout << " ms";
        }
        if (!way.signal) return;
        way.signal();
        EXPECT_EQ(way.wait(kBound, FALSE), way.result) << "the time-out took nothing";
    });
}

// Two threads wait, one of them is released, and another joins the one that is left; then a signal and the
// cancellation of the older waiter come at once. Whoever is still there must have the signal.
TEST(CancelledWait, HandsASignalThatItDidNotTakeToTheNextWaiter) {
    for (int round = 0; round < rounds(200); ++round) {
        bool ofEvent = round % 2 == 0;
#if defined(__SANITIZE_THREAD__)
        ofEvent = true;
#endif
        const OwnedHandle object = ofEvent ? makeEvent() : makeSemaphore(0, 9);
        const auto signal = [&] {
            (void)(ofEvent ? SetEvent(object.get()) : ReleaseSemaphore(object.get(), 1, nullptr));
        };
        std::atomic<int> released = 0;
        std::array<std::atomic<bool>, 3> got{};
        const auto wait = [&](size_t number) {
            EXPECT_EQ(waitFor(object), WAIT_OBJECT_0) << "round " << round;
            got[number] = true;
            ++released;
        };
        Worker first{[&] { wait(0); }};
        Worker second{[&] { wait(1); }};
        ASSERT_TRUE(first.fallsAsleep() && second.fallsAsleep());
        signal();
        ASSERT_TRUE(becomes(released, 1));
        Worker younger{[&] { wait(2); }};
        ASSERT_TRUE(younger.fallsAsleep());
        signal();
        (got[0] ? second : first).cancel();
        if (got[0] && got[1]) signal();  // the older one was quicker than its cancellation
        younger.join();
        ASSERT_TRUE(got[2]) << "round " << round;
        EXPECT_EQ(waitFor(object, 0), WAIT_TIMEOUT);
    }
}

// One thread waits alertably again and again, the others queue one call each and wait for it: a call that
// slips between the look at the queue and the sleep is found only when the sleep ends.
TEST(AsyncCall, EndsAnAlertableWaitWheneverItIsQueued) {
    inEachWay(false, [](const Way& way, Objects&) {
        std::atomic<int> callersLeft = 2;
        Worker sleeper{[&] {
            while (callersLeft > 0) EXPECT_EQ(way.wait(kBound / 2, TRUE), WAIT_IO_COMPLETION);
        }};
        const Workers callers(callersLeft, [&](int number) {
            std::atomic<int> ran = 0;
            for (int sent = 1; sent <= rounds(1'500); ++sent) {
                queueTo(sleeper.handle(), count, ran);
                // Some of them at once, some when the thread has had time to fall asleep.
                ASSERT_TRUE(becomes(ran, sent)) << "call " << sent;
                linger(sent % 64 * (number + 1));
            }
            --callersLeft;
            QueueUserAPC(nothing, sleeper.handle(), 0);
        });
    });
}

TEST(AsyncCall, StaysQueuedWhileAWaitEndsOtherwiseOrHasNoLimit) {
    Objects objects;
    std::atomic<int> ran = 0;
    queueTo(GetCurrentThread(), count, ran);
    const auto set = makeEvent(Kind::Manual, true);
    EXPECT_EQ(waitFor(set, kBound, TRUE), WAIT_OBJECT_0);
    EXPECT_EQ(waitForAny({objects.event.get(), set.get()}, kBound, TRUE), 1u);
    for (const Way& way : objects.ways)
        for (const auto& [timeout, alertable] : {std::pair{DWORD{0}, TRUE}, {DWORD{5}, FALSE}})
            EXPECT_EQ(way.wait(timeout, alertable), way.signal ? WAIT_TIMEOUT : 0) << way.name;
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(UserAPCCheck(), 1);
    for (const Way& way : objects.ways) {
        if (way.name != "event" && way.name != "any") continue;
        Worker sleeper{[&] {
            EXPECT_EQ(way.wait(INFINITE, TRUE), way.result) << way.name;
            EXPECT_EQ(ran, 1) << way.name;
        }};
        EXPECT_TRUE(sleeper.fallsAsleep());
        queueTo(sleeper.handle(), count, ran);
        way.signal();
    }
}

// More events than the wait that it interrupts has, so that the thread's place for such waits must grow.
TEST(AsyncCall, MaySetAndWaitForTheVeryEventsThatAreWaitedFor) {
    const auto waitInside = [](void* untyped, void*, void*) {
        auto& all = *static_cast<std::vector<Handle*>*>(untyped);
        EXPECT_EQ(WaitForSingleObjectEx(all.front(), 1, TRUE), WAIT_TIMEOUT);
        EXPECT_EQ(waitForAny(all, 1, TRUE), WAIT_TIMEOUT);
        SetEvent(all.back());
        EXPECT_EQ(waitForAny(all, kBound, TRUE), all.size() - 1);
    };
    inEachWay(false, [&](const Way& way, Objects& objects) {
        std::vector<OwnedHandle> more;
        std::vector<Handle*> handles{objects.event.get(), objects.manual.get()};
        for (int i = 0; i < 40; ++i) handles.push_back(more.emplace_back(makeEvent()).get());
        queueTo(GetCurrentThread(), waitInside, handles);
        EXPECT_EQ(way.wait(kBound, TRUE), WAIT_IO_COMPLETION);
        queueTo(GetCurrentThread(), setEvent, *objects.event);
        EXPECT_EQ(way.wait(kBound, TRUE), WAIT_IO_COMPLETION);
        EXPECT_EQ(waitFor(objects.event, 0), WAIT_OBJECT_0);
    });
}

TEST(AsyncCall, RunsInOrderWithItsArgumentsAlsoWhatACallQueues) {
    static std::vector<std::array<const char*, 3>> ran;
    static const PAPCFUNC record = [](void* a, void* b, void* c) {
        ran.push_back({static_cast<char*>(a), static_cast<char*>(b), static_cast<char*>(c)});
    };
    const PAPCFUNC queuesAnother = [](void* a, void* b, void* c) {
        record(a, b, c);
        QueueUserAPC(record, GetCurrentThread(), 0);
    };
    char x[] = "x", y[] = "y", z[] = "z";
    auto& self = static_cast<Thread&>(*GetCurrentThread());
    self.QueueAPC(queuesAnother, x, y, z);
    QueueUserAPC(record, &self, reinterpret_cast<ULONG_PTR>(y));
    EXPECT_EQ(UserAPCCheck(), 1);
    EXPECT_EQ(UserAPCCheck(), 0);
    EXPECT_EQ(ran, (decltype(ran){{x, y, z}, {y, nullptr, nullptr}, {nullptr, nullptr, nullptr}}));
}

TEST(AsyncCall, InterruptsABlockingCallOfAThreadThatFoundItsQueueEmptyAndOfNoOther) {
    const auto read = [](std::function<void()> check, bool interrupted) {
        int ends[2];
        ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        std::atomic<int> ran = 0;
        std::atomic<bool> checked = false;
        Worker reader{[&] {
            check();
            checked = true;
            char byte;
            EXPECT_EQ(::read(ends[0], &byte, 1), interrupted ? -1 : 1);
            EXPECT_EQ(ran, 0);
            EXPECT_EQ(UserAPCCheck(), 1);
        }};
        EXPECT_TRUE(soon([&] { return checked.load(); }) && reader.fallsAsleep());
        queueTo(reader.handle(), count, ran);
        EXPECT_TRUE((interrupted && within(kPrompt, [&] { return ran == 1; })) ||
                    ::write(ends[1], "x", 1) == 1);
        reader.join();
        for (const int end : ends) ::close(end);
    };
    inEachWay(false, [&](const Way& way, Objects&) { read([&] { (void)way.wait(1, TRUE); }, true); });
    read([] { (void)UserAPCCheck(); }, true);
    read([] {}, false);
}

// The kernel queues each such signal, for all processes of a user only so many.
TEST(AsyncCall, SendsAThreadThatTakesNoSignalsNoMoreThanOne) {
    sigset_t calls;
    sigemptyset(&calls);
    sigaddset(&calls, SIGRTMIN);
    pthread_sigmask(SIG_BLOCK, &calls, nullptr);
    UserAPCCheck();  // which finds nothing, so that the thread counts as idle
    Handle* const self = GetCurrentThread();
    std::atomic<int> ran = 0;
    std::thread([&] {
        for (int i = 0; i < 100; ++i) queueTo(self, count, ran);
    }).join();
    const timespec atOnce{};
    int signals = 0;
    while (sigtimedwait(&calls, nullptr, &atOnce) == SIGRTMIN) ++signals;
    EXPECT_EQ(signals, 1);
    EXPECT_EQ(UserAPCCheck(), 1);
    EXPECT_EQ(ran, 100);
}

TEST(AsyncCall, QueuedWhileTheThreadForksLeavesTheChildItsQueue) {
    Handle* self = GetCurrentThread();
    std::atomic<bool> stop = false;
    Worker other([&] {
        for (int queued = 1; !stop; ++queued) {
            QueueUserAPC(nothing, self, 0);
            if (queued % 100 == 0) Sleep(1);
        }
    });
    for (int i = 0; i < rounds(50); ++i) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(kBoundSeconds);  // which ends it if it hangs
            QueueUserAPC(nothing, self, 0);
            _exit(SleepEx(kBound, TRUE) == WAIT_IO_COMPLETION ? 0 : 1);
        }
        int status = -1;
        while (waitpid(child, &status, 0) == -1 && errno == EINTR) continue;
        EXPECT_EQ(status, 0);
        UserAPCCheck();
    }
    stop = true;
}

// Threads of the parent wait for what the child uses, and hold its locks at some of the forks.
TEST(Wait, ChildOfAForkUsesWhatItsParentsThreadsUse) {
    const auto event = makeEvent(), manual = makeEvent(Kind::Manual), answer = makeEvent();
    const auto semaphore = makeSemaphore(0, 10);
    auto closed = makeEvent();
    std::atomic<bool> stop = false;
    Workers waiters(1, [&](int) { waitForAny({event.get(), manual.get()}); });
    for (Handle* waitedFor : {event.get(), manual.get(), closed.get(), semaphore.get()})
        waiters.add(1, [waitedFor](int) { WaitForSingleObject(waitedFor, INFINITE); });
    Worker asks{[&] {
        while (!stop)
            SetEvent(answer.get()), waitFor(answer, 1), ReleaseSemaphore(semaphore.get(), 1, nullptr);
    }};
    Worker takes{[&] {
        while (!stop) waitFor(answer, 1), waitFor(semaphore, 1);
    }};
    EXPECT_TRUE(waiters[0]->fallsAsleep() && waiters[1]->fallsAsleep());
    for (int i = 0; i < rounds(50); ++i) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(kBoundSeconds);  // which ends it if it hangs
            closed.reset();
            SetEvent(manual.get()), ResetEvent(manual.get());
            ResetEvent(answer.get());
            while (waitFor(semaphore, 0) == WAIT_OBJECT_0) continue;
            std::atomic<bool> isRight = true;
#if !defined(__SANITIZE_THREAD__)  // which stops a forked process that makes a thread
            Worker own{[&] {
                for (int taken = 0; taken < 2; ++taken)
                    if (waitFor(event) + waitFor(semaphore) != WAIT_OBJECT_0) isRight = false;
            }};
            for (int given = 0; given < 2; ++given) {
                if (!own.fallsAsleep()) isRight = false;
                SetEvent(event.get()), ReleaseSemaphore(semaphore.get(), 1, nullptr);
                if (!soon([&] { return !isSet(event); })) isRight = false;
            }
            own.join();
#endif
            _exit(isRight ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(TEMP_FAILURE_RETRY(waitpid(child, &status, 0)), child);
        ASSERT_EQ(status, 0) << i;
    }
    stop = true;
    asks.join();
    takes.join();
    for (Handle* one : {manual.get(), event.get(), closed.get()}) SetEvent(one);
    ReleaseSemaphore(semaphore.get(), 1, nullptr);
}

TEST(Functions, RefuseWhatIsNoHandleOrOfAnotherKind) {
    const timespec due{};
    Handle* copy = nullptr;
    const auto event = makeEvent(), semaphore = makeSemaphore(0, 1), mutex = makeMutex();
    const struct {
        std::function<LONGLONG(Handle*)> call;
        LONGLONG refusal;
        Handle* another = INVALID_HANDLE_VALUE;
    } cases[] = {
        {CloseHandle, 0},
        {HandleClose, 0},
        {[&](Handle* none) { return DuplicateHandle(nullptr, none, nullptr, &copy, 0, FALSE, 0); }, 0},
        {[](Handle* none) { return WaitForSingleObjectEx(none, INFINITE, TRUE); }, WAIT_FAILED},
        {SetEvent, 0, semaphore.get()},
        {ResetEvent, 0, semaphore.get()},
        {PulseEvent, 0, semaphore.get()},
        {[](Handle* none) { return ReleaseSemaphore(none, 1, nullptr); }, 0, event.get()},
        {[](Handle* none) { return ReleaseSemaphore(none, 1, nullptr); }, 0, mutex.get()},
        {ReleaseMutex, 0, event.get()},
        {ReleaseMutex, 0, semaphore.get()},
        {SuspendThread, 0xFFFFFFFF, event.get()},
        {ResumeThread, 0xFFFFFFFF, event.get()},
        {GetThreadPriority, ESRCH, event.get()},
        {[](Handle* none) { return SetThreadPriority(none, 0); }, ESRCH, event.get()},
        {[](Handle* none) { return QueueUserAPC(nothing, none, 0); }, 0xFFFFFFFF, event.get()},
        {[](Handle* none) { return TerminateThread(none, 1); }, 1, event.get()},
        {[&](Handle* none) { return SetWaitableTimer(none, &due, 0, nothing, nullptr, 0); }, 0, event.get()},
        {CancelWaitableTimer, 0, event.get()},
    };
    for (const auto& c : cases)
        for (Handle* none : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE, c.another})
            EXPECT_EQ(c.call(none), c.refusal) << &c - cases;
    EXPECT_EQ(copy, nullptr);
    EXPECT_EQ(QueueUserAPC(nullptr, GetCurrentThread(), 0), 0u);
    EXPECT_EQ(SleepEx(kBound, TRUE), WAIT_IO_COMPLETION) << "a null call ends a wait";
}

}  // namespace
