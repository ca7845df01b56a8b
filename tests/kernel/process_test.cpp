// Processes: waits on them alone and with other kinds, their exit codes, and who collects a child.

#include <csignal>

#include "kernel/child.h"
#include "support/fault_injection.h"
#include "support/role.h"

namespace {

using namespace traiklofox::test;

/// A process's end can be seen by a descriptor, or by looking where the kernel has none or none is left.
template <class Body>
void inEachSight(Body body) {
    for (const int error : {0, ENOSYS, EMFILE}) {
        SCOPED_TRACE(error);
        const faults::Options options{.onCall = error != 0 ? 1 : INT_MAX, .andAllLater = true};
        const FailCall fault{faults::Call::PidfdOpen, error, options};
        body();
    }
}

/// The ways to wait for one process. Those of several kinds have an event beside it, which is not set.
const OwnedHandle unset = makeEvent();
const struct {
    const char* name;
    DWORD (*wait)(Handle* process);
} kWays[] = {
    {"single", [](Handle* process) { return WaitForSingleObject(process, INFINITE); }},
    {"any", [](Handle* process) { return waitForAny({process}, INFINITE); }},
    {"all", [](Handle* process) { return waitForAll({process}, INFINITE, TRUE); }},
    {"mixed",
     [](Handle* process) {
         return waitForAny({process, unset.get()}, INFINITE);
     }},
    {"timed",
     [](Handle* process) {
         return waitForAll({process, unset.get()}, kBound, TRUE);
     }},
};

TEST(ProcessWait, SeesTheEndOfAnyProcessHoweverAndWheneverItWaits) {
    inEachSight([] {
        for (const auto& way : kWays) {
            for (const Via via : {Via::CreateProcess, Via::DetachedProcess, Via::Fork}) {
                SCOPED_TRACE(way.name + std::to_string(int(via)));
                Child child{via};
                Workers waiters(2, [&](int) { EXPECT_EQ(way.wait(child.handle.get()), WAIT_OBJECT_0); });
                EXPECT_TRUE(waiters.fallAsleep());
                EXPECT_EQ(child.process().GetState(), PROCESS_RUNNING);
                child.end();
                waiters.clear();
                EXPECT_EQ(child.process().GetState(), PROCESS_EXITED);
                for (const auto& again : kWays) EXPECT_EQ(again.wait(child.handle.get()), WAIT_OBJECT_0);
                EXPECT_TRUE(via != Via::Fork || ::waitpid(child.pid(), nullptr, 0) == child.pid())
                    << "stolen";

                Child early;
                EXPECT_EQ(waitForAny({early.handle.get(), unset.get()}, 0), WAIT_TIMEOUT);
                early.endUnseen();
                EXPECT_EQ(way.wait(early.handle.get()), WAIT_OBJECT_0);
                EXPECT_EQ(early.process().GetState(), PROCESS_EXITED);
            }
        }
    });
    EXPECT_TRUE(soon(isChildless));
}

TEST(ProcessWait, AnyAndAllReportIndexesAndNullTheEntries) {
    inEachSight([] {
        Child children[3];
        const auto wait = [&](std::array<Handle*, 5>& handles, bool all) {
            return WaitForMultipleObjects(5, handles.data(), all, INFINITE);
        };
        const std::array<Handle*, 5> all{children[0].handle.get(), nullptr, children[1].handle.get(),
                                         INVALID_HANDLE_VALUE, children[2].handle.get()};
        std::array<Handle*, 5> any = all, each = all;
        children[1].end();
        EXPECT_EQ(wait(any, false), WAIT_OBJECT_0 + 2);
        EXPECT_EQ(any, (std::array{all[0], all[1], static_cast<Handle*>(nullptr), all[3], all[4]}));
        children[2].endUnseen();
        EXPECT_EQ(wait(any, false), WAIT_OBJECT_0 + 4) << "the rest of the array";

        Worker waiter{[&] { EXPECT_EQ(wait(each, true), WAIT_OBJECT_0) << "the last to end"; }};
        EXPECT_TRUE(waiter.fallsAsleep());
        children[0].end();
        waiter.join();
        for (const size_t i : {0u, 2u, 4u}) EXPECT_EQ(each[i], nullptr);
        EXPECT_EQ(waitForAny({nullptr, INVALID_HANDLE_VALUE}, 0), WAIT_FAILED);
    });
}

TEST(ProcessWait, AnswersForProcessesThatAreNotThere) {
    Child collected;
    collected.end();
    ASSERT_TRUE(GetExitCodeProcess(collected.handle.get(), nullptr));
    const OwnedHandle self = openProcess(::getpid());
    inEachSight([&] {
        for (const pid_t id : {collected.pid(), pid_t{0}, pid_t{-1}, pid_t{0x7FFFFFFF}}) {
            const OwnedHandle none = openProcess(id);
            Child child;
            EXPECT_EQ(waitForAny({child.handle.get(), none.get()}, INFINITE), WAIT_OBJECT_0 + 1) << id;
            EXPECT_EQ(waitForAll({child.handle.get(), none.get()}, 0), WAIT_OBJECT_0 + 1) << id;
            EXPECT_EQ(static_cast<Process*>(none.get())->GetState(), PROCESS_RUNNING);
            EXPECT_EQ(waitForAny({unset.get(), none.get()}, INFINITE), WAIT_OBJECT_0 + 1) << id;
            DWORD code = 7;
            EXPECT_FALSE(TerminateProcess(none.get(), 0));
            EXPECT_EQ(errno, ESRCH);
            EXPECT_FALSE(GetExitCodeProcess(none.get(), &code));
            EXPECT_EQ(errno, ECHILD);
        }
        errno = 4711;
        EXPECT_EQ(waitFor(self, INFINITE), WAIT_FAILED);
        EXPECT_EQ(waitFor(collected.handle, INFINITE), WAIT_OBJECT_0);
        EXPECT_EQ(errno, 4711);
        EXPECT_EQ(waitForAny({self.get(), unset.get()}, 10), WAIT_TIMEOUT) << "the event may come";
        std::vector<Handle*> tooMany(65, self.get());
        tooMany[0] = unset.get();
        EXPECT_EQ(waitForAny(tooMany, 0), WAIT_FAILED);
    });
}

TEST(ProcessWait, HasNoDeadlineEndsForQueuedCallsAndLeavesTheProcessWhenCancelled) {
    std::atomic<int> ran = 0;
    constexpr int kCalls = rounds(2'000);
    Child child;
    Workers waiters;
    for (const DWORD timeout : {DWORD{0}, DWORD{1}})
        waiters.add(1, [&, timeout](int) { EXPECT_EQ(waitFor(child.handle, timeout), WAIT_OBJECT_0); });
    Worker alertable{[&] {
        while (waitForAll({child.handle.get()}, INFINITE, TRUE) == WAIT_IO_COMPLETION) continue;
    }};
    for (int i = 1; i <= kCalls; ++i) {
        queueTo(alertable.handle(), count, ran);
        ASSERT_TRUE(i % 2 != 0 || becomes(ran, i));
    }
    EXPECT_TRUE(waiters.fallAsleep());
    queueTo(waiters[0]->handle(), count, ran);  // which is not alertable
#if !defined(__SANITIZE_ADDRESS__)  // which takes the frames that a cancellation unwinds for live ones
    for (const auto& way : kWays) {
        Worker cancelled{
            [&] { way.wait(child.handle.get()), ADD_FAILURE() << way.name << ": not cancelled"; }};
        EXPECT_TRUE(cancelled.fallsAsleep());
        cancelled.cancel();
    }
#endif
    child.end();
    waiters.clear();
    alertable.join();
    EXPECT_TRUE(soon([&] { return child.handle->GetRefCount() == 1; }));
    EXPECT_EQ(ran, kCalls);
}

TEST(ProcessWatch, HoldsOneReferenceFromTheFirstMixedWaitToTheEnd) {
    inEachSight([] {
        Child early, late, joins;
        const OwnedHandle event = makeEvent(Kind::Manual);
        const std::vector<Handle*> handles{early.handle.get(), late.handle.get(), event.get()};
        const std::vector<Handle*> lateFirst{late.handle.get(), event.get()};
        for (int i = 0; i < 3; ++i) EXPECT_EQ(waitForAny(handles, 1), WAIT_TIMEOUT);
        for (const LONG references : {2, 1, 1}) {
            EXPECT_EQ(late.handle->GetRefCount(), references);
            late.process().FreeSynch();
        }
        // The watch of the first is running.
        EXPECT_EQ(waitForAny({joins.handle.get(), event.get()}, 1), WAIT_TIMEOUT);
        joins.end();
        EXPECT_EQ(waitForAny({joins.handle.get(), event.get()}, kBound), WAIT_OBJECT_0);
        late.end();
        EXPECT_EQ(waitForAny(handles), WAIT_OBJECT_0 + 1);
        SetEvent(event.get());
        EXPECT_EQ(waitForAny(lateFirst, kBound), WAIT_OBJECT_0) << "the end is seen again";
        ResetEvent(late.handle.get());
        EXPECT_EQ(waitForAny(lateFirst, kBound), WAIT_OBJECT_0) << "whatever is reset";
        early.end();
        EXPECT_TRUE(soon([&] { return early.handle->GetRefCount() + joins.handle->GetRefCount() == 2; }));
    });
}

// A process of its own, where no test before has had the thread made.
TEST_ROLE(watchesWithoutAThread) {
    Child child;
    const std::vector<Handle*> handles{unset.get(), child.handle.get()};
    {
        const FailCall noThread{faults::Call::PthreadCreate, EAGAIN, {.andAllLater = true}};
        EXPECT_EQ(waitForAny(handles), WAIT_FAILED);
        Child forsaken;  // is collected all the same once there is a thread
    }
    EXPECT_EQ(waitForAny(handles, 1), WAIT_TIMEOUT);
    child.end();
    EXPECT_EQ(waitForAny(handles), WAIT_OBJECT_0 + 1);
    child.handle.reset();
    EXPECT_TRUE(soon(isChildless));
    return 0;
}

TEST(ProcessWatch, FailsTheWaitWhereItsThreadCannotBeMade) {
    EXPECT_EQ(RoleProcess("watchesWithoutAThread").wait(), ExitStatus::exited(0));
}

#if !defined(__SANITIZE_THREAD__)  // which cannot have a thread made in a forked process
TEST(ProcessWatch, WorksInAForkedProcessToo) {
    Child before, first;
    const std::vector<Handle*> handles{before.handle.get(), unset.get()};
    // The watching thread runs: a sanitizer cannot have a fork while one is starting.
    ASSERT_EQ(waitForAny({first.handle.get(), unset.get()}, 1), WAIT_TIMEOUT);
    first.end();
    ASSERT_TRUE(soon([&] { return first.handle->GetRefCount() == 1; }));
    ASSERT_EQ(waitForAny(handles, 1), WAIT_TIMEOUT);
    PipeEnds goOn, looked;
    EXPECT_EQ(GetCurrentProcessId(), static_cast<DWORD>(::getpid()));
    const pid_t pid = ::fork();
    if (pid == 0) {
        EXPECT_EQ(GetCurrentProcessId(), static_cast<DWORD>(::getpid()));
        goOn.out.reset();
        before.end();  // this process's share in it
        Child own;
        const std::vector<Handle*> both{unset.get(), own.handle.get()};
        EXPECT_EQ(waitForAny(both, 1), WAIT_TIMEOUT);
        own.end();
        EXPECT_EQ(waitForAny(both), WAIT_OBJECT_0 + 1);
        EXPECT_EQ(waitForAny(handles, 1), WAIT_TIMEOUT) << "its parent's child runs";
        looked.out.reset();
        (void)readAll(goOn.in);
        EXPECT_EQ(waitForAny(handles), WAIT_OBJECT_0);
        EXPECT_FALSE(GetExitCodeProcess(before.handle.get(), nullptr));
        ExitProcess(::testing::Test::HasFailure() ? 1 : 0);
    }
    looked.out.reset();
    (void)readAll(looked.in);
    before.endUnseen();
    goOn.out.reset();
    int status = -1;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(GetExitCodeProcess(before.handle.get(), nullptr)) << "the fork has lost it";
}
#endif

TEST(ExitCode, IsGivenBeforeAndAfterAWaitAndAgainToAllWhoAsk) {
    for (const auto& [script, expected] : {std::pair{"exit 0", DWORD{0}},
                                           {"sleep 0.1; exit 3", 3},
                                           {"exit 255", 255},
                                           {"kill -9 $$", 0xFFFFFFFF}}) {
        for (const int way : {-1, 0, 3}) {
            SCOPED_TRACE(script + std::to_string(way));
            const OwnedHandle process = startShell(script);
            const auto& state = *static_cast<Process*>(process.get());
            EXPECT_TRUE(way == -1 || kWays[way].wait(process.get()) == WAIT_OBJECT_0);
            const OwnedHandle other = openProcess(static_cast<pid_t>(GetProcessId(process.get())));
            EXPECT_TRUE(GetExitCodeProcess(process.get(), nullptr));
            Workers(3, [&, code = expected](int asker) {
                DWORD given = 4711;
                EXPECT_TRUE(GetExitCodeProcess((asker == 0 ? other : process).get(), &given));
                EXPECT_EQ(given, code);
            }).clear();
            EXPECT_EQ(waitFor(process, 0), WAIT_OBJECT_0);
            EXPECT_EQ(state.GetState(), PROCESS_REAPED);
            EXPECT_EQ(state.GetExitStatus(), static_cast<int>(expected));
            EXPECT_TRUE(isChildless());
        }
    }
    EXPECT_FALSE(GetExitCodeProcess(nullptr, nullptr) || GetExitCodeProcess(unset.get(), nullptr));
}

TEST(Collecting, IsForChildrenOfTheLibraryThatNoHandleNames) {
    inEachSight([] {
        Child ended, running, alone;
        ended.endUnseen();
        ended.handle.reset();
        EXPECT_FALSE(isChild(ended.pid())) << "collected with the last handle";
        OwnedHandle second = openProcess(running.pid());
        running.handle.reset();
        running.endUnseen();
        EXPECT_TRUE(isChild(running.pid())) << "a handle still names it";
        second.reset();
        EXPECT_FALSE(isChild(running.pid()));
        alone.handle.reset();
        second = openProcess(alone.pid());
        alone.end();
        DWORD code = 7;
        EXPECT_TRUE(GetExitCodeProcess(second.get(), &code)) << "it was named in time";
        EXPECT_EQ(code, 0U);
        Child last;
        last.handle.reset();
        last.end();
        char command[] = "/bin/true";
        EXPECT_TRUE(
            CreateProcess(nullptr, command, nullptr, nullptr, FALSE, 0, nullptr, nullptr, nullptr, nullptr));
        EXPECT_TRUE(soon(isChildless)) << "collected when they end";
    });
}

TEST(Collecting, StealsNoChildThatIsTheApplications) {
    Child forked{Via::Fork}, spawned{Via::Spawn}, stolen;
    for (Child* child : {&forked, &spawned}) {
        child->endUnseen();
        EXPECT_EQ(waitFor(child->handle, INFINITE), WAIT_OBJECT_0);
        child->handle.reset();
    }
    EXPECT_FALSE(isChild(spawned.pid())) << "a handle has named it";
    EXPECT_EQ(::waitpid(forked.pid(), nullptr, 0), forked.pid());
    const int unnamed = Spawn(0, nullptr, "/bin/true", nullptr, nullptr);
    EXPECT_EQ(::waitpid(unnamed, nullptr, 0), unnamed);
    stolen.end();
    EXPECT_EQ(::waitpid(stolen.pid(), nullptr, 0), stolen.pid());
    EXPECT_FALSE(GetExitCodeProcess(stolen.handle.get(), nullptr)) << "the application has it";
    EXPECT_EQ(waitFor(stolen.handle, INFINITE), WAIT_OBJECT_0);
}

TEST(CreateProcess, TakesTheCommandLineOrTheApplication) {
    const std::string longest = "/bin/true " + std::string(501, 'x');
    const std::string tooLong = longest + "x";
    const struct {
        const char *application, *commandLine;
        int error;  // 0: it starts
    } cases[] = {
        {"/bin/true", nullptr, 0},         {"/no/program", "/bin/true", 0},
        {tooLong.c_str(), "/bin/true", 0}, {"/bin/true", "/no/program", ENOENT},
        {"/bin/true", "", EINVAL},         {nullptr, nullptr, EINVAL},
        {longest.c_str(), nullptr, 0},     {nullptr, tooLong.c_str(), E2BIG},
    };
    for (const auto& c : cases) {
        std::string line = c.commandLine != nullptr ? c.commandLine : "";
        _PROCESS_INFORMATION info{nullptr, INVALID_HANDLE_VALUE, 1, 1};
        errno = 0;
        const BOOL started = CreateProcess(c.application, c.commandLine != nullptr ? line.data() : nullptr,
                                           nullptr, nullptr, FALSE, 0, nullptr, nullptr, nullptr, &info);
        EXPECT_EQ(started ? 0 : errno, c.error);
        EXPECT_EQ(info.hThread, started ? nullptr : INVALID_HANDLE_VALUE);
        EXPECT_EQ(info.dwThreadId, started ? 0U : 1U);
        const OwnedHandle process{info.hProcess};
        if (!started) continue;
        EXPECT_EQ(GetProcessId(process.get()), info.dwProcessId);
        EXPECT_EQ(waitFor(process, INFINITE), WAIT_OBJECT_0);
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
    EXPECT_FALSE(TerminateProcess(unset.get(), 9));
    for (const char* self : {"null", "current"}) {
        RoleProcess role{"terminatesItself", {self}};
        EXPECT_EQ(role.readLine(), "unwound");
        EXPECT_EQ(role.wait(), ExitStatus::exited(5));
    }
}

TEST(WinExec, AnswersAfterASecondAndLeavesNoChild) {
    const std::pair<std::string, UINT> cases[] = {
        {"/bin/true   2 3 4 5 6 7 8 9 10 11 12 13 14 15 ", 32},
        {"/bin/sleep 1.5", 32},
        {"/no/program", 32},
        {"/bin/true 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16", 0},
        {"/bin/true " + std::string(1014, 'x'), 0},
        {"  ", 0},
    };
    Workers(std::size(cases), [&](int number) {
        const auto& [line, result] = cases[number];
        const auto begin = now();
        EXPECT_EQ(WinExec(line.c_str(), 0), result) << line;
        EXPECT_TRUE(result == 0 || now() - begin >= std::chrono::seconds(1)) << line;
    }).clear();
    EXPECT_EQ(WinExec(nullptr, 0), 0U);
    const FailCall noProcess{faults::Call::PosixSpawn, EAGAIN};
    EXPECT_EQ(WinExec("/bin/true", 0), 0U);
    EXPECT_TRUE(soon(isChildless));
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
    for (const auto& [command, status] : {std::pair{"exit 0", 0},
                                          {"exit 5", 5 << 8},
                                          {"kill -9 $$", 9},
                                          {"exec /no/program 2>/dev/null", 127 << 8},
                                          {"test \"$(sed -n '/^SigBlk/s/.*\\(.\\)....$/\\1/p' "
                                           "/proc/self/status)\" = 0",  // SIGCHLD is unblocked
                                           0}})
        EXPECT_EQ(System(command), status) << command;
    for (const auto& [error, status] : {std::pair{EAGAIN, 127}, {ENOENT, 127 << 8}}) {
        const FailCall noProcess{faults::Call::PosixSpawn, error};
        EXPECT_EQ(System("true"), status);
    }
    EXPECT_EQ(childSignals, 0);

    // Calls that overlap in any order, while another child ends, whose status must not get lost.
    const OwnedHandle other = startShell("sleep 0.2; exit 6");
    Workers(2, [](int) {
        for (int i = 0; i < 5; ++i) EXPECT_EQ(System("sleep 0.1; exit 4"), 4 << 8);
    }).clear();
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(other.get(), &code));
    EXPECT_EQ(code, 6U);
    struct sigaction after {};
    ASSERT_EQ(::sigaction(SIGCHLD, nullptr, &after), 0);
    EXPECT_EQ(after.sa_handler, ours.sa_handler);
    EXPECT_EQ(after.sa_flags & SA_RESTART, SA_RESTART);

    Worker cancelled{[] { (void)System("sleep 0.3"); }};
    EXPECT_TRUE(cancelled.fallsAsleep());
    cancelled.cancel();
    EXPECT_TRUE(soon(isChildless)) << "the command of a cancelled thread";
}

}  // namespace
