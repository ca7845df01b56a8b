#include <traiklofox/clocks.h>
#include <traiklofox/events.h>
#include <traiklofox/wait.h>

#include <errno.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "kernel/worker.h"
#include "support/fault_injection.h"

namespace {

using namespace traiklofox::test;
using std::chrono::milliseconds;

TEST(Event, TestingWaitConsumesOnlyAnAutoResetSignal) {
    const struct {
        const char* name;
        Kind kind;
        Initially state;
        DWORD result;
        bool setAfter;
    } cases[] = {
        {"auto, unset", Kind::Auto, Initially::Unset, WAIT_TIMEOUT, false},
        {"auto, set", Kind::Auto, Initially::Set, WAIT_OBJECT_0, false},
        {"manual, unset", Kind::Manual, Initially::Unset, WAIT_TIMEOUT, false},
        {"manual, set", Kind::Manual, Initially::Set, WAIT_OBJECT_0, true},
    };
    for (const auto& c : cases) {
        for (const DWORD timeout : {DWORD{0}, DWORD{1}, DWORD{1000}, INFINITE}) {
            if (c.result == WAIT_TIMEOUT && timeout > 1) continue;
            const auto event = makeEvent(c.kind, c.state);
            EXPECT_EQ(WaitForSingleObjectEx(event.get(), timeout, FALSE), c.result) << c.name;
            EXPECT_EQ(isSet(event), c.setAfter) << c.name;
        }
    }
}

TEST(Event, SetAndResetAlwaysSucceed) {
    for (const Kind kind : {Kind::Auto, Kind::Manual}) {
        const auto event = makeEvent(kind);
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(SetEvent(event.get()), 1);
            EXPECT_TRUE(isSet(event));
        }
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(ResetEvent(event.get()), 1);
            EXPECT_FALSE(isSet(event));
        }
    }
}

TEST(Event, PulseReportsZeroAndLeavesTheEventSet) {
    for (const Kind kind : {Kind::Auto, Kind::Manual}) {
        const auto event = makeEvent(kind);
        EXPECT_EQ(PulseEvent(event.get()), 0);
        EXPECT_TRUE(isSet(event));
    }
}

TEST(Event, NoHandleIsRefusedByEveryFunction) {
    for (Handle* none : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE}) {
        EXPECT_EQ(SetEvent(none), 0);
        EXPECT_EQ(EventSet(none), 0);
        EXPECT_EQ(ResetEvent(none), 0);
        EXPECT_EQ(EventReset(none), 0);
        EXPECT_EQ(PulseEvent(none), 0);
        EXPECT_EQ(EventPulse(none), 0);
        EXPECT_EQ(CloseHandle(none), 0);
        EXPECT_EQ(HandleClose(none), 0);
        Handle* target = nullptr;
        EXPECT_EQ(DuplicateHandle(nullptr, none, nullptr, &target, 0, FALSE, 0), 0);
        EXPECT_EQ(target, nullptr);
        EXPECT_EQ(WaitForSingleObjectEx(none, 0, FALSE), WAIT_FAILED);
        EXPECT_EQ(WaitForSingleObjectEx(none, INFINITE, TRUE), WAIT_FAILED);
    }
}

TEST(Event, TwoEventsOfOneNameAreUnrelated) {
    char name[] = "shared";
    const OwnedHandle one{CreateEvent(nullptr, FALSE, FALSE, name)};
    std::fill_n(name, sizeof name - 1, 'x');  // the event has its own copy
    const OwnedHandle other{EventCreate(nullptr, FALSE, FALSE, "shared")};
    SetEvent(one.get());
    EXPECT_FALSE(isSet(other));
}

// The wall clock that the deadline is taken from is wrong by so much, so that the long ones end soon.
TEST(Event, WaitEndsAtItsDeadline) {
    const struct {
        DWORD timeout;
        int clockMilliseconds;
        int realMilliseconds;
    } cases[] = {{1500, -1400, 100}, {2000, -1900, 100}, {1000, -1000, 0}, {70, 0, 70}};
    const auto unset = makeEvent(Kind::Auto);
    const auto other = makeEvent(Kind::Manual);
    std::array<Handle*, 2> both{unset.get(), other.get()};
    for (const auto& c : cases) {
        FakeTime clock;
        clock.runAhead(0, c.clockMilliseconds * 1'000'000L);
        for (const BOOL alertable : {FALSE, TRUE}) {
            for (const bool several : {false, true}) {
                const auto start = now();
                const DWORD result =
                    several ? WaitForMultipleObjectsEx(2, both.data(), FALSE, c.timeout, alertable)
                            : WaitForSingleObjectEx(unset.get(), c.timeout, alertable);
                const auto lasted = now() - start;
                EXPECT_EQ(result, WAIT_TIMEOUT);
                EXPECT_GE(lasted, milliseconds{c.realMilliseconds - 1}) << c.timeout << " ms";
                EXPECT_LT(lasted, milliseconds{c.realMilliseconds} + kPrompt) << c.timeout << " ms";
            }
        }
    }
}

TEST(Event, SetEndsEveryKindOfWait) {
    const struct {
        const char* name;
        DWORD timeout;
        BOOL alertable;
    } cases[] = {
        {"infinite", INFINITE, FALSE},      {"infinite, alertable", INFINITE, TRUE}, {"timed", kBound, FALSE},
        {"timed, alertable", kBound, TRUE}, {"the longest", INFINITE - 1, FALSE},
    };
    for (const auto& c : cases) {
        const auto event = makeEvent(Kind::Auto);
        DWORD result = WAIT_FAILED;
        {
            Worker waiter{[&] { result = WaitForSingleObjectEx(event.get(), c.timeout, c.alertable); }};
            EXPECT_TRUE(waiter.fallsAsleep()) << c.name;
            SetEvent(event.get());
        }
        EXPECT_EQ(result, WAIT_OBJECT_0) << c.name;
        EXPECT_FALSE(isSet(event)) << c.name;
    }
}

TEST(Event, SetReleasesOneWaiterOfAnAutoResetEventAndEverybodyOfAManualResetOne) {
    constexpr int kWaiters = 4;
    for (const Kind kind : {Kind::Auto, Kind::Manual}) {
        const auto event = makeEvent(kind);
        std::atomic<int> released = 0;
        std::vector<std::unique_ptr<Worker>> waiters;
        for (int i = 0; i < kWaiters; ++i) {
            waiters.push_back(std::make_unique<Worker>([&, timeout = i % 2 == 0 ? kBound : INFINITE] {
                EXPECT_EQ(WaitForSingleObject(event.get(), timeout), WAIT_OBJECT_0);
                ++released;
            }));
        }
        for (const auto& waiter : waiters) EXPECT_TRUE(waiter->fallsAsleep());
        const int each = kind == Kind::Auto ? 1 : kWaiters;
        for (int awaited = each; awaited <= kWaiters; awaited += each) {
            SetEvent(event.get());
            EXPECT_TRUE(withinSeconds(kBoundSeconds, [&] { return released == awaited; }));
            EXPECT_EQ(isSet(event), kind == Kind::Manual);
        }
    }
}

TEST(Event, ResetLetsTheThreadsLeaveThatASetReleases) {
    constexpr int kWaiters = 3;
    for (int round = 0; round < rounds(200); ++round) {
        const auto event = makeEvent(Kind::Manual);
        std::vector<std::unique_ptr<Worker>> waiters;
        for (int i = 0; i < kWaiters; ++i) {
            waiters.push_back(std::make_unique<Worker>(
                [&] { EXPECT_EQ(WaitForSingleObject(event.get(), kBound), WAIT_OBJECT_0); }));
        }
        for (const auto& waiter : waiters) ASSERT_TRUE(waiter->fallsAsleep());
        SetEvent(event.get());
        ResetEvent(event.get());
        EXPECT_FALSE(isSet(event));
    }
}

TEST(Event, DuplicateIsTheSameObjectAndKeepsItAlive) {
    std::atomic<int> deaths = 0;
    Handle* event = new MortalEvent(Kind::Auto, deaths);
    EXPECT_EQ(event->GetRefCount(), 1);
    Handle* duplicate = nullptr;
    EXPECT_EQ(DuplicateHandle(nullptr, event, nullptr, &duplicate, 0, FALSE, 0), 1);
    EXPECT_EQ(duplicate, event);
    EXPECT_EQ(DuplicateHandle(nullptr, event, nullptr, nullptr, 0, FALSE, 0), 1);
    EXPECT_EQ(event->GetRefCount(), 3);
    for (int left = 2; left >= 0; --left) {
        EXPECT_EQ(deaths, 0);
        EXPECT_EQ(CloseHandle(event), 1);
    }
    EXPECT_EQ(deaths, 1);
}

TEST(EventData, AttachmentHoldsOneReferenceUntilItsOwnerDetachesIt) {
    const struct {
        const char* name;
        LONG initially;
        std::vector<LONG> attachedHere;
        std::vector<LONG> attachedByAnother;  // then
        BOOL detaches;                        // here
        LONG references;                      // before
    } cases[] = {
        {"nothing", -1, {}, {}, 0, 1},          {"own, replaced", -1, {7, 8}, {}, 1, 2},
        {"another's", -1, {}, {7}, 0, 2},       {"own, replaced by another", -1, {7}, {8}, 0, 2},
        {"the constructor's", 5, {}, {}, 0, 1}, {"the constructor's, replaced", 5, {6}, {}, 1, 2},
    };
    for (const auto& with : cases) {
        std::atomic<int> deaths = 0;
        auto* event = new MortalEvent(Kind::Auto, deaths, with.initially);
        LONG data = with.initially;
        for (const LONG attached : with.attachedHere) EXPECT_EQ(event->SetEventData(data = attached), 1);
        std::thread([&] {
            EXPECT_EQ(event->SetEventData(-1), 0) << with.name << ": not this thread's";
            for (const LONG attached : with.attachedByAnother) event->SetEventData(data = attached);
        }).join();
        EXPECT_EQ(event->GetEventData(), data) << with.name;
        EXPECT_EQ(event->GetRefCount(), with.references) << with.name;
        EXPECT_EQ(event->SetEventData(-1), with.detaches) << with.name;
        if (!with.detaches && with.references == 2) {  // it keeps the event alive
            CloseHandle(event);
            EXPECT_EQ(deaths, 0) << with.name;
            event->SetEventData(9);  // whoever replaces it is its owner
            event->SetEventData(-1);
        } else {
            CloseHandle(event);
        }
        EXPECT_EQ(deaths, 1) << with.name;
    }
}

TEST(EventData, RevisionStampCopiesTheDataOnlyOnDemand) {
    const auto handle = makeEvent(Kind::Auto);
    auto* event = static_cast<Event*>(handle.get());
    EXPECT_EQ(event->GetLastData(), -1);
    EXPECT_EQ(event->GetLastRev(), 0u);
    event->SetEventData(7);
    event->RevStamp(3, /*copyData=*/FALSE);
    EXPECT_EQ(event->GetLastRev(), 3u);
    EXPECT_EQ(event->GetLastData(), -1);
    event->RevStamp(4, /*copyData=*/TRUE);
    EXPECT_EQ(event->GetLastRev(), 4u);
    EXPECT_EQ(event->GetLastData(), 7);
    event->SetEventData(-1);
}

TEST(EventSection, IsRecursiveAndKeepsOthersOut) {
    std::atomic<bool> entered = false;
    Event::Lock();
    Event::Lock();
    Worker other{[&] {
        Event::Lock();
        entered = true;
        Event::Unlock();
    }};
    EXPECT_TRUE(other.fallsAsleep());
    Event::Unlock();
    EXPECT_FALSE(entered);

    const auto event = makeEvent(Kind::Auto);  // the library's own work goes on inside
    SetEvent(event.get());
    EXPECT_EQ(WaitForSingleObject(event.get(), kBound), WAIT_OBJECT_0);
    Event::Unlock();
    other.join();
    EXPECT_TRUE(entered);
}

TEST(Wait, LeavesErrnoAlone) {
    const auto set = makeEvent(Kind::Manual, Initially::Set);
    const auto unset = makeEvent(Kind::Auto);
    const struct {
        const char* name;
        std::function<void()> wait;
    } cases[] = {
        {"test", [&] { WaitForSingleObject(unset.get(), 0); }},
        {"time-out", [&] { WaitForSingleObject(unset.get(), 5); }},
        {"alertable time-out", [&] { WaitForSingleObjectEx(unset.get(), 5, TRUE); }},
        {"signalled", [&] { WaitForSingleObject(set.get(), 5); }},
        {"no handle", [&] { WaitForSingleObject(nullptr, 5); }},
        {"several",
         [&] {
             std::array<Handle*, 2> none{unset.get(), nullptr};
             WaitForMultipleObjectsEx(2, none.data(), FALSE, 5, TRUE);
         }},
        {"sleep", [] { SleepEx(5, FALSE); }},
        {"alertable sleep", [] { SleepEx(5, TRUE); }},
    };
    for (const auto& c : cases) {
        errno = 12345;
        c.wait();
        EXPECT_EQ(errno, 12345) << c.name;
    }
}

}  // namespace
