// Processes: waits on them alone and with other kinds, their exit codes, and who collects a child.

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <csignal>
#include <functional>
#include <memory>
#include <vector>

#include "kernel/child.h"
#include "support/fault_injection.h"
#include "support/role.h"

namespace {

using namespace traiklofox::test;

/// How a process's end can be seen: by a descriptor, or by looking where there is none.
struct Sight {
    const char* name;
    int pidfdError;  // 0: there are descriptors
};
constexpr Sight kSights[] = {
    {"descriptors", 0}, {"a kernel without descriptors", ENOSYS}, {"no descriptor left", EMFILE}};

void inEachSight(const std::function<void()>& body) {
    for (const Sight& sight : kSights) {
        const testing::ScopedTrace trace(__FILE__, __LINE__, sight.name);
        std::optional<FailCall> fault;
        if (sight.pidfdError != 0)
            fault.emplace(faults::Call::PidfdOpen, sight.pidfdError, faults::Options{.andAllLater = true});
        body();
    }
}

/// The ways to wait for one process. Those of several kinds have an event beside it, which is not set.
struct Way {
    const char* name;
    DWORD (*wait)(Handle* process);
};
const Way kWays[] = {
    {"single", [](Handle* process) { return WaitForSingleObject(process, INFINITE); }},
    {"any", [](Handle* process) { return WaitForMultipleObjects(1, &process, FALSE, INFINITE); }},
    {"all", [](Handle* process) { return WaitForMultipleObjectsEx(1, &process, TRUE, INFINITE, TRUE); }},
    {"mixed",
     [](Handle* process) {
         const OwnedHandle event = makeEvent(Kind::Auto);
         Handle* handles[] = {process, event.get()};
         return WaitForMultipleObjects(2, handles, FALSE, INFINITE);
     }},
    {"mixed, timed",
     [](Handle* process) {
         const OwnedHandle event = makeEvent(Kind::Auto);
         Handle* handles[] = {process, event.get()};
         return WaitForMultipleObjectsEx(2, handles, TRUE, kBound, TRUE);
     }},
};

TEST(ProcessWait, SeesTheEndOfAnyProcessHoweverItWaits) {
    inEachSight([] {
        for (const Way& way : kWays) {
            for (const Via via : {Via::CreateProcess, Via::DetachedProcess, Via::Fork}) {
                const testing::ScopedTrace trace(__FILE__, __LINE__, way.name + std::to_string(int(via)));
                Child child{via};
                std::atomic<int> seen = 0;
                {
                    const auto wait = [&] {
                        EXPECT_EQ(way.wait(child.handle.get()), WAIT_OBJECT_0);
                        ++seen;
                    };
                    Worker first{wait};
                    Worker second{wait};
                    EXPECT_TRUE(first.fallsAsleep() && second.fallsAsleep());
                    EXPECT_EQ(seen, 0);
                    EXPECT_EQ(child.process().GetState(), PROCESS_RUNNING);
                    child.end();
                }
                EXPECT_EQ(seen, 2);
                EXPECT_EQ(child.process().GetState(), PROCESS_EXITED);
                for (const Way& again : kWays)
                    EXPECT_EQ(again.wait(child.handle.get()), WAIT_OBJECT_0) << again.name;
                if (via == Via::Fork) {
                    EXPECT_EQ(::waitpid(child.pid(), nullptr, 0), child.pid()) << "stolen";
                }
            }
        }
    });
    EXPECT_TRUE(becomesChildless());
}

TEST(ProcessWait, FindsAnEndFromBeforeTheWait) {
    inEachSight([] {
        for (const Way& way : kWays) {
            Child child;
            child.endUnseen();
            EXPECT_EQ(way.wait(child.handle.get()), WAIT_OBJECT_0) << way.name;
            EXPECT_EQ(child.process().GetState(), PROCESS_EXITED) << way.name;

            Child tested;
            const OwnedHandle event = makeEvent(Kind::Auto);
            Handle* handles[] = {event.get(), tested.handle.get()};
            EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, 0), WAIT_TIMEOUT);
            tested.endUnseen();
            EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, 0), WAIT_OBJECT_0 + 1);
            EXPECT_EQ(handles[1], tested.handle.get()) << "only a wait on processes alone changes the array";
        }
    });
}

TEST(ProcessWait, AnyAndAllReportIndexesAndNullTheEntries) {
    inEachSight([] {
        Child children[3];
        Handle* const all[] = {children[0].handle.get(), nullptr, children[1].handle.get(),
                               INVALID_HANDLE_VALUE, children[2].handle.get()};
        Handle* any[5];
        std::copy(std::begin(all), std::end(all), any);
        children[1].end();
        EXPECT_EQ(WaitForMultipleObjects(5, any, FALSE, INFINITE), WAIT_OBJECT_0 + 2);
        EXPECT_EQ(any[2], nullptr);
        EXPECT_EQ(any[0], all[0]);
        EXPECT_EQ(any[4], all[4]);
        children[2].endUnseen();
        EXPECT_EQ(WaitForMultipleObjects(5, any, FALSE, INFINITE), WAIT_OBJECT_0 + 4)
            << "the rest of the array";

        Handle* waitedFor[5];
        std::copy(std::begin(all), std::end(all), waitedFor);
        DWORD result = WAIT_FAILED;
        Worker waiter{[&] { result = WaitForMultipleObjects(5, waitedFor, TRUE, INFINITE); }};
        EXPECT_TRUE(waiter.fallsAsleep());
        children[0].end();
        waiter.join();
        EXPECT_EQ(result, WAIT_OBJECT_0) << "the last to end";
        for (const size_t i : {0, 2, 4}) EXPECT_EQ(waitedFor[i], nullptr);

        Handle* nothing[] = {nullptr, INVALID_HANDLE_VALUE};
        EXPECT_EQ(WaitForMultipleObjects(2, nothing, FALSE, 0), WAIT_FAILED);
    });
}

TEST(ProcessWait, AnswersForProcessesThatAreNotThere) {
    Child collected;
    collected.end();
    ASSERT_TRUE(GetExitCodeProcess(collected.handle.get(), nullptr));
    const pid_t gone = collected.pid();
    const OwnedHandle self{OpenProcess(0, FALSE, GetCurrentProcessId())};
    const OwnedHandle event = makeEvent(Kind::Auto);

    inEachSight([&] {
        for (const pid_t id : {gone, pid_t{0}, pid_t{-1}, pid_t{0x7FFFFFFF}}) {
            const OwnedHandle none{OpenProcess(0, FALSE, static_cast<DWORD>(id))};
            Child child;
            Handle* handles[] = {child.handle.get(), none.get()};
            EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, INFINITE), WAIT_OBJECT_0 + 1) << id;
            EXPECT_EQ(WaitForMultipleObjects(2, handles, TRUE, 0), WAIT_OBJECT_0 + 1) << id;
            EXPECT_EQ(handles[1], none.get());
            EXPECT_EQ(static_cast<Process*>(none.get())->GetState(), PROCESS_RUNNING);
            Handle* mixed[] = {event.get(), none.get()};
            EXPECT_EQ(WaitForMultipleObjects(2, mixed, FALSE, INFINITE), WAIT_OBJECT_0 + 1) << id;
            child.end();
            // The one that is seen last; both at once, if the child is quicker than the wait.
            EXPECT_LT(WaitForMultipleObjects(2, handles, TRUE, INFINITE), WAIT_OBJECT_0 + 2) << id;
            EXPECT_EQ(handles[1], nullptr);
            EXPECT_FALSE(TerminateProcess(none.get(), 0)) << id;
            EXPECT_EQ(errno, ESRCH);
            DWORD code = 7;
            EXPECT_FALSE(GetExitCodeProcess(none.get(), &code)) << id;
            EXPECT_EQ(errno, ECHILD);
        }
        errno = 4711;
        EXPECT_EQ(WaitForSingleObject(self.get(), INFINITE), WAIT_FAILED);
        EXPECT_EQ(WaitForSingleObject(collected.handle.get(), INFINITE), WAIT_OBJECT_0);
        EXPECT_EQ(errno, 4711);
        Handle* withSelf[] = {self.get(), event.get()};
        EXPECT_EQ(WaitForMultipleObjects(2, withSelf, FALSE, 10), WAIT_TIMEOUT)
            << "an event can still be waited for";
        std::vector<Handle*> tooMany(65, self.get());
        tooMany[0] = event.get();
        EXPECT_EQ(WaitForMultipleObjects(65, tooMany.data(), FALSE, 0), WAIT_FAILED);
    });
}

TEST(ProcessWait, HasNoDeadline) {
    for (const DWORD milliseconds : {DWORD{0}, DWORD{1}}) {
        Child child;
        std::atomic<bool> over = false;
        Worker waiter{[&] {
            EXPECT_EQ(WaitForSingleObject(child.handle.get(), milliseconds), WAIT_OBJECT_0);
            over = true;
        }};
        EXPECT_TRUE(waiter.fallsAsleep());
        EXPECT_FALSE(over);
        child.end();
    }
}

TEST(ProcessWait, AlertableOneEndsForQueuedCallsAndMissesNone) {
    static std::atomic<int> ran = 0;
    const auto count = [](void*, void*, void*) { ++ran; };
    constexpr int kCalls = rounds(2'000);
    Child child;
    {
        Worker waiter{[&] {
            Handle* process = child.handle.get();
            while (WaitForMultipleObjectsEx(1, &process, TRUE, INFINITE, TRUE) == WAIT_IO_COMPLETION)
                continue;
            EXPECT_EQ(WaitForSingleObjectEx(child.handle.get(), 0, FALSE), WAIT_OBJECT_0);
        }};
        for (int i = 1; i <= kCalls; ++i) {
            QueueUserAPC(count, waiter.handle(), 0);
            if (i % 2 != 0) continue;
            ASSERT_TRUE(soon([&] { return ran == i; })) << i;
        }
        Worker deaf{
            [&] { EXPECT_EQ(WaitForSingleObjectEx(child.handle.get(), INFINITE, FALSE), WAIT_OBJECT_0); }};
        EXPECT_TRUE(deaf.fallsAsleep());
        QueueUserAPC(count, deaf.handle(), 0);
        EXPECT_TRUE(deaf.fallsAsleep());
        child.end();
    }
    EXPECT_EQ(ran, kCalls);
}

#if !defined(__SANITIZE_ADDRESS__)  // which takes the frames that a cancellation unwinds for live ones
TEST(ProcessWait, CancelledOneLeavesTheProcessToOthers) {
    for (const Way& way : kWays) {
        Child child;
        const LONG references = child.handle->GetRefCount();
        {
            Worker cancelled{[&] {
                (void)way.wait(child.handle.get());
                ADD_FAILURE() << way.name << ": not cancelled";
            }};
            EXPECT_TRUE(cancelled.fallsAsleep());
            pthread_cancel(cancelled.native());
        }
        child.process().FreeSynch();
        EXPECT_EQ(child.handle->GetRefCount(), references) << way.name;
        child.end();
        EXPECT_EQ(WaitForSingleObject(child.handle.get(), INFINITE), WAIT_OBJECT_0) << way.name;
    }
}
#endif

TEST(ProcessWatch, HoldsOneReferenceFromTheFirstMixedWaitToTheEnd) {
    inEachSight([] {
        Child early;
        Child late;
        const OwnedHandle event = makeEvent(Kind::Manual);
        Handle* handles[] = {early.handle.get(), late.handle.get(), event.get()};
        for (int i = 0; i < 3; ++i) EXPECT_EQ(WaitForMultipleObjects(3, handles, FALSE, 1), WAIT_TIMEOUT);
        EXPECT_EQ(late.handle->GetRefCount(), 2);
        late.process().FreeSynch();
        EXPECT_EQ(late.handle->GetRefCount(), 1);
        late.process().FreeSynch();  // nothing to undo
        EXPECT_EQ(late.handle->GetRefCount(), 1);

        Child joins;  // the watch of the first is running
        Handle* more[] = {joins.handle.get(), event.get()};
        EXPECT_EQ(WaitForMultipleObjects(2, more, FALSE, 1), WAIT_TIMEOUT);
        joins.end();
        EXPECT_EQ(WaitForMultipleObjects(2, more, FALSE, kBound), WAIT_OBJECT_0);
        late.end();
        EXPECT_EQ(WaitForMultipleObjects(3, handles, FALSE, kBound), WAIT_OBJECT_0 + 1);
        SetEvent(event.get());
        EXPECT_EQ(WaitForMultipleObjects(2, handles + 1, FALSE, kBound), WAIT_OBJECT_0)
            << "the end is seen again";
        ResetEvent(late.handle.get());
        EXPECT_EQ(WaitForMultipleObjects(2, handles + 1, FALSE, kBound), WAIT_OBJECT_0)
            << "whatever is reset";
        early.end();
        EXPECT_TRUE(
            soon([&] { return early.handle->GetRefCount() == 1 && joins.handle->GetRefCount() == 1; }));
    });
}

TEST(ProcessWatch, FailsTheWaitWhereItsThreadCannotBeMade) {
    Child child;
    const OwnedHandle event = makeEvent(Kind::Auto);
    Handle* handles[] = {event.get(), child.handle.get()};
    {
        const FailCall noThread{faults::Call::PthreadCreate, EAGAIN, {.andAllLater = true}};
        EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, kBound), WAIT_FAILED);
        Child forsaken;  // is collected all the same once there is a thread
    }
    EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, 1), WAIT_TIMEOUT);
    child.end();
    EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, kBound), WAIT_OBJECT_0 + 1);
    child.handle.reset();
    EXPECT_TRUE(becomesChildless());
}

#if !defined(__SANITIZE_THREAD__)  // which cannot have a thread made in a forked process
TEST(ProcessWatch, WorksInAForkedProcessToo) {
    Child before;
    const OwnedHandle event = makeEvent(Kind::Auto);
    Handle* handles[] = {before.handle.get(), event.get()};
    {
        // The watching thread runs: a sanitizer cannot have a fork while one is starting.
        Child first;
        Handle* both[] = {event.get(), first.handle.get()};
        ASSERT_EQ(WaitForMultipleObjects(2, both, FALSE, 1), WAIT_TIMEOUT);
        first.end();
        ASSERT_TRUE(soon([&] { return first.handle->GetRefCount() == 1; }));
    }
    ASSERT_EQ(WaitForMultipleObjects(2, handles, FALSE, 1), WAIT_TIMEOUT);
    PipeEnds goOn;
    const pid_t pid = ::fork();
    if (pid == 0) {
        goOn.out.reset();
        before.end();  // this process's share in it
        Child own;
        Handle* both[] = {event.get(), own.handle.get()};
        const bool none = WaitForMultipleObjects(2, both, FALSE, 1) == WAIT_TIMEOUT;
        own.end();
        const bool ownEnd = WaitForMultipleObjects(2, both, FALSE, kBound) == WAIT_OBJECT_0 + 1;
        (void)readAll(goOn.in);
        const bool othersEnd = WaitForMultipleObjects(2, handles, FALSE, kBound) == WAIT_OBJECT_0;
        const bool noCode = !GetExitCodeProcess(before.handle.get(), nullptr);
        ::_exit((none ? 0 : 1) | (ownEnd ? 0 : 2) | (othersEnd ? 0 : 4) | (noCode ? 0 : 8));
    }
    before.endUnseen();
    goOn.out.reset();
    int status = -1;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, kBound), WAIT_OBJECT_0);
    EXPECT_TRUE(GetExitCodeProcess(before.handle.get(), nullptr)) << "the fork has lost it";
}
#endif

TEST(ExitCode, IsGivenBeforeAndAfterAWaitAndAgain) {
    struct Case {
        const char* script;
        DWORD code;
    };
    constexpr Case kCases[] = {{"exit 0", 0},
                               {"exit 3", 3},
                               {"exit 255", 255},
                               {"kill -9 $$", 0xFFFFFFFF},
                               {"kill -15 $$", 0xFFFFFFFF}};
    for (const Case& c : kCases) {
        for (const Way* way : {static_cast<const Way*>(nullptr), &kWays[0], &kWays[3]}) {
            const OwnedHandle process = startShell(c.script);
            ASSERT_TRUE(process) << c.script;
            const auto& state = *static_cast<Process*>(process.get());
            if (way != nullptr) {
                EXPECT_EQ(way->wait(process.get()), WAIT_OBJECT_0);
            }
            const OwnedHandle other{OpenProcess(0, FALSE, GetProcessId(process.get()))};
            EXPECT_TRUE(GetExitCodeProcess(process.get(), nullptr)) << c.script;
            for (int i = 0; i < 2; ++i) {
                DWORD code = 4711;
                EXPECT_TRUE(GetExitCodeProcess(process.get(), &code)) << c.script;
                EXPECT_EQ(code, c.code) << c.script;
                EXPECT_EQ(state.GetState(), PROCESS_REAPED);
                EXPECT_EQ(state.GetExitStatus(), static_cast<int>(c.code));
            }
            DWORD code = 4711;
            EXPECT_TRUE(GetExitCodeProcess(other.get(), &code)) << "another handle to it";
            EXPECT_EQ(code, c.code);
            EXPECT_EQ(WaitForSingleObject(process.get(), 0), WAIT_OBJECT_0);
            EXPECT_EQ(state.GetState(), PROCESS_REAPED);
            EXPECT_TRUE(isChildless());
        }
    }
    const OwnedHandle event = makeEvent(Kind::Auto);
    EXPECT_FALSE(GetExitCodeProcess(nullptr, nullptr));
    EXPECT_FALSE(GetExitCodeProcess(event.get(), nullptr));
}

TEST(ExitCode, ComesToAllThreadsThatAskAtOnce) {
    Child child;
    std::atomic<int> got = 0;
    {
        const auto ask = [&] {
            DWORD code = 7;
            if (GetExitCodeProcess(child.handle.get(), &code) && code == 0) ++got;
        };
        Worker first{ask};
        Worker second{ask};
        EXPECT_TRUE(first.fallsAsleep() && second.fallsAsleep());
        child.end();
    }
    EXPECT_EQ(got, 2);
}

TEST(Collecting, IsForChildrenOfTheLibraryThatNoHandleNames) {
    inEachSight([] {
        {
            Child ended;
            ended.endUnseen();
            ended.handle.reset();
            EXPECT_TRUE(isChildless()) << "collected with the last handle";
        }
        {
            Child running;
            OwnedHandle second{OpenProcess(0, FALSE, static_cast<DWORD>(running.pid()))};
            running.handle.reset();
            running.endUnseen();
            EXPECT_TRUE(isChild(running.pid())) << "a handle still names it";
            second.reset();
            EXPECT_TRUE(isChildless());
        }
        {
            Child running;
            running.handle.reset();
            const OwnedHandle late{OpenProcess(0, FALSE, static_cast<DWORD>(running.pid()))};
            running.end();
            DWORD code = 7;
            EXPECT_TRUE(GetExitCodeProcess(late.get(), &code)) << "it was named in time";
            EXPECT_EQ(code, 0U);
        }
        {
            Child running;
            running.handle.reset();
            running.end();
            EXPECT_TRUE(becomesChildless()) << "collected when it ends";
        }
        char command[] = "/bin/true";
        EXPECT_TRUE(
            CreateProcess(nullptr, command, nullptr, nullptr, FALSE, 0, nullptr, nullptr, nullptr, nullptr));
        EXPECT_TRUE(becomesChildless()) << "nobody wanted a handle";
    });
}

TEST(Collecting, StealsNoChildThatIsTheApplications) {
    for (const Via via : {Via::Fork, Via::Spawn}) {
        const bool named = via == Via::Fork;
        Child child{via};
        if (!named) {
            const int pid = Spawn(0, nullptr, "/bin/true", nullptr, nullptr);
            int status = -1;
            EXPECT_EQ(::waitpid(pid, &status, 0), pid) << "no handle has named it";
            EXPECT_EQ(status, 0);
        }
        child.endUnseen();
        EXPECT_EQ(WaitForSingleObject(child.handle.get(), INFINITE), WAIT_OBJECT_0);
        child.handle.reset();
        EXPECT_EQ(isChild(child.pid()), named);
        if (named) {
            EXPECT_EQ(::waitpid(child.pid(), nullptr, 0), child.pid());
        }
    }
    Child stolen;
    stolen.end();
    EXPECT_EQ(::waitpid(stolen.pid(), nullptr, 0), stolen.pid());
    EXPECT_FALSE(GetExitCodeProcess(stolen.handle.get(), nullptr)) << "the application has it";
    EXPECT_EQ(WaitForSingleObject(stolen.handle.get(), INFINITE), WAIT_OBJECT_0);
}

TEST(CreateProcess, TakesTheCommandLineOrTheApplication) {
    const std::string longest = "/bin/true " + std::string(501, 'x');
    const std::string tooLong = longest + "x";
    struct Case {
        const char* application;
        const char* commandLine;
        int error;  // 0: it starts
    };
    const Case cases[] = {
        {"/bin/true", nullptr, 0},         {"/no/program", "/bin/true", 0},
        {tooLong.c_str(), "/bin/true", 0}, {"/bin/true", "/no/program", ENOENT},
        {"/bin/true", "", EINVAL},         {nullptr, nullptr, EINVAL},
        {longest.c_str(), nullptr, 0},     {nullptr, tooLong.c_str(), E2BIG},
    };
    for (const Case& c : cases) {
        std::string line = c.commandLine != nullptr ? c.commandLine : "";
        _PROCESS_INFORMATION info{nullptr, INVALID_HANDLE_VALUE, 1, 1};
        errno = 0;
        const BOOL started = CreateProcess(c.application, c.commandLine != nullptr ? line.data() : nullptr,
                                           nullptr, nullptr, FALSE, 0, nullptr, nullptr, nullptr, &info);
        EXPECT_EQ(started, c.error == 0) << errno;
        const OwnedHandle process{info.hProcess};
        if (started) {
            EXPECT_EQ(process->What(), HANDLE_KIND_PROCESS);
            EXPECT_EQ(GetProcessId(process.get()), info.dwProcessId);
            EXPECT_EQ(info.hThread, nullptr);
            EXPECT_EQ(info.dwThreadId, 0U);
            EXPECT_EQ(WaitForSingleObject(process.get(), INFINITE), WAIT_OBJECT_0);
        } else {
            EXPECT_EQ(errno, c.error);
            EXPECT_EQ(info.hThread, INVALID_HANDLE_VALUE) << "left alone";
        }
    }
    EXPECT_TRUE(isChildless());
}

TEST_ROLE(terminatesItself) {
    ::atexit([] { tellTest("unwound"); });
    TerminateProcess(args.at(0) == "null" ? nullptr : GetCurrentProcess(), 5);
    return 1;
}

TEST(TerminateProcess, AsksAProcessToEndOrEndsItself) {
    Child child;
    EXPECT_TRUE(TerminateProcess(child.handle.get(), 9));
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(child.handle.get(), &code));
    EXPECT_EQ(code, 0xFFFFFFFF);
    EXPECT_FALSE(TerminateProcess(child.handle.get(), 9)) << "its id may be another's";
    const OwnedHandle event = makeEvent(Kind::Auto);
    EXPECT_FALSE(TerminateProcess(event.get(), 9));
    for (const char* self : {"null", "current"}) {
        RoleProcess role{"terminatesItself", {self}};
        EXPECT_EQ(role.readLine(), "unwound");
        EXPECT_EQ(role.wait(), ExitStatus::exited(5));
    }
}

TEST(WinExec, AnswersAfterASecondAndLeavesNoChild) {
    struct Case {
        std::string line;
        UINT result;
    };
    const Case cases[] = {
        {"/bin/true   2 3 4 5 6 7 8 9 10 11 12 13 14 15 ", 32},
        {"/bin/sleep 1.5", 32},
        {"/no/program", 32},
        {"/bin/true 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16", 0},
        {"/bin/true " + std::string(1014, 'x'), 0},
        {"  ", 0},
    };
    std::vector<std::unique_ptr<Worker>> workers;
    for (const Case& c : cases) {
        workers.push_back(std::make_unique<Worker>([&c] {
            const auto begin = now();
            EXPECT_EQ(WinExec(c.line.c_str(), 0), c.result) << c.line;
            EXPECT_EQ(now() - begin >= std::chrono::seconds(1), c.result != 0) << c.line;
        }));
    }
    workers.clear();
    EXPECT_EQ(WinExec(nullptr, 0), 0U);
    const FailCall noProcess{faults::Call::PosixSpawn, EAGAIN};
    EXPECT_EQ(WinExec("/bin/true", 0), 0U);
    EXPECT_TRUE(becomesChildless());
}

std::atomic<int> childSignals = 0;

TEST(System, GivesTheWaitStatusAndKeepsSigchldAsItWas) {
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    pthread_sigmask(SIG_UNBLOCK, &child, nullptr);
    struct sigaction ours {};
    ours.sa_handler = [](int) { ++childSignals; };
    ours.sa_flags = SA_RESTART;
    ASSERT_EQ(::sigaction(SIGCHLD, &ours, nullptr), 0);

    EXPECT_EQ(System(nullptr), -1);
    struct Case {
        const char* command;
        int status;
    };
    constexpr Case kCases[] = {
        {"exit 0", 0},
        {"exit 5", 5 << 8},
        {"kill -9 $$", 9},
        {"exec /no/program 2>/dev/null", 127 << 8},
        {"test \"$(sed -n '/^SigBlk/s/.*\\(.\\)....$/\\1/p' /proc/self/status)\" = 0",
         0},  // SIGCHLD unblocked
    };
    for (const Case& c : kCases) EXPECT_EQ(System(c.command), c.status) << c.command;
    {
        const FailCall noProcess{faults::Call::PosixSpawn, EAGAIN};
        EXPECT_EQ(System("true"), 127);
    }
    {
        const FailCall noShell{faults::Call::PosixSpawn, ENOENT};
        EXPECT_EQ(System("true"), 127 << 8);
    }
    EXPECT_EQ(childSignals, 0);

    // Calls that overlap in any order, while another child ends, whose status must not get lost.
    const OwnedHandle other = startShell("sleep 0.2; exit 6");
    {
        const auto run = [] {
            for (int i = 0; i < 5; ++i) EXPECT_EQ(System("sleep 0.1; exit 4"), 4 << 8);
        };
        Worker first{run};
        Worker second{run};
    }
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(other.get(), &code));
    EXPECT_EQ(code, 6U);
    struct sigaction after {};
    ASSERT_EQ(::sigaction(SIGCHLD, nullptr, &after), 0);
    EXPECT_EQ(after.sa_handler, ours.sa_handler);
    EXPECT_EQ(after.sa_flags & SA_RESTART, SA_RESTART);

    Worker cancelled{[] { (void)System("sleep 0.3"); }};
    EXPECT_TRUE(cancelled.fallsAsleep(SYS_wait4) || cancelled.fallsAsleep());
    pthread_cancel(cancelled.native());
    cancelled.join();
    EXPECT_TRUE(becomesChildless()) << "the command of a cancelled thread";
}

}  // namespace
