#include <traiklofox/events.h>
#include <traiklofox/wait.h>

#include <gtest/gtest.h>

#include <vector>

#include "kernel/worker.h"
#include "support/captured_output.h"

namespace {

using namespace traiklofox::test;

enum class Until { Any, All };

DWORD waitFor(std::vector<Handle*> handles, Until until, DWORD milliseconds, BOOL alertable = FALSE) {
    return WaitForMultipleObjectsEx(static_cast<DWORD>(handles.size()), handles.data(), until == Until::All,
                                    milliseconds, alertable);
}

class MultiWait : public testing::Test {
  protected:
    OwnedHandle a = makeEvent(Kind::Auto);
    OwnedHandle b = makeEvent(Kind::Auto);
    OwnedHandle c = makeEvent(Kind::Auto);
    OwnedHandle manual = makeEvent(Kind::Manual);
};

TEST_F(MultiWait, ForAnyReportsTheFirstSignalAndConsumesThatOne) {
    SetEvent(b.get());
    SetEvent(c.get());
    for (const DWORD milliseconds : {DWORD{0}, kBound, INFINITE}) {
        SetEvent(b.get());
        EXPECT_EQ(waitFor({a.get(), b.get(), c.get()}, Until::Any, milliseconds), 1u);
        EXPECT_FALSE(isSet(b));
        EXPECT_TRUE(isSet(c));
    }
    SetEvent(manual.get());
    EXPECT_EQ(waitFor({a.get(), manual.get()}, Until::Any, kBound), 1u);
    EXPECT_TRUE(isSet(manual));
}

TEST_F(MultiWait, ForAllThatFindsAllSignalledConsumesNothing) {
    for (const auto* event : {&a, &b, &manual}) SetEvent(event->get());
    for (const DWORD milliseconds : {DWORD{0}, kBound}) {
        EXPECT_EQ(waitFor({a.get(), b.get(), manual.get()}, Until::All, milliseconds), 0u);
        for (const auto* event : {&a, &b, &manual}) EXPECT_TRUE(isSet(*event));
    }
}

TEST_F(MultiWait, ForAllWithoutTimeNeedsEverySignal) {
    SetEvent(a.get());
    EXPECT_EQ(waitFor({a.get(), b.get()}, Until::All, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(isSet(a));
    EXPECT_EQ(waitFor({a.get(), nullptr}, Until::All, 0), WAIT_TIMEOUT) << "a null entry is never signalled";
}

TEST_F(MultiWait, BlockedWaitForAllEndsWithTheFirstSetAndResetsEveryAutoResetEvent) {
    SetEvent(a.get());
    DWORD result = WAIT_FAILED;
    {
        Worker waiter{[&] {
            result = waitFor({a.get(), b.get(), c.get(), manual.get()}, Until::All, kBound);
        }};
        EXPECT_TRUE(waiter.fallsAsleep());
        SetEvent(a.get());  // has its signal already and posts nothing
        SetEvent(manual.get());
    }
    EXPECT_EQ(result, 3u);
    EXPECT_FALSE(isSet(a));
    EXPECT_FALSE(isSet(b));
    EXPECT_TRUE(isSet(manual));
}

TEST_F(MultiWait, SetOfAnyEventEndsABlockedWait) {
    for (const BOOL alertable : {FALSE, TRUE}) {
        for (const DWORD milliseconds : {kBound, INFINITE}) {
            const std::vector<Handle*> handles{a.get(), nullptr, b.get(), INVALID_HANDLE_VALUE, manual.get()};
            for (const size_t which : {0u, 2u, 4u}) {
                DWORD result = WAIT_FAILED;
                {
                    Worker waiter{[&] { result = waitFor(handles, Until::Any, milliseconds, alertable); }};
                    for (const auto* event : {&a, &b, &manual}) {
                        EXPECT_TRUE(withinSeconds(kBoundSeconds, [&] {
                            return (*event)->GetRefCount() == 2;
                        })) << "a wait holds its events";
                    }
                    SetEvent(handles[which]);
                }
                EXPECT_EQ(result, which);
                for (const auto* event : {&a, &b, &manual}) EXPECT_EQ((*event)->GetRefCount(), 1);
                EXPECT_FALSE(isSet(a));
                EXPECT_FALSE(isSet(b));
                ResetEvent(manual.get());
            }
        }
    }
}

TEST_F(MultiWait, WithoutASignalTimesOutAndLeavesNothingBehind) {
    SetEvent(c.get());
    EXPECT_EQ(waitFor({a.get(), b.get()}, Until::Any, 0), WAIT_TIMEOUT);
    EXPECT_EQ(waitFor({a.get(), b.get()}, Until::Any, 20), WAIT_TIMEOUT);
    EXPECT_EQ(waitFor({a.get(), c.get()}, Until::All, 20), WAIT_TIMEOUT);
    for (const auto* event : {&a, &b, &c}) EXPECT_EQ((*event)->GetRefCount(), 1);
    EXPECT_TRUE(isSet(c)) << "a wait that times out consumes nothing";
}

TEST_F(MultiWait, OfNoHandleAtAllFails) {
    EXPECT_EQ(WaitForMultipleObjectsEx(1, nullptr, FALSE, 0, FALSE), WAIT_FAILED);
    Handle* one = a.get();
    EXPECT_EQ(WaitForMultipleObjectsEx(0, &one, FALSE, INFINITE, FALSE), WAIT_FAILED);
    EXPECT_EQ(waitFor({nullptr, INVALID_HANDLE_VALUE}, Until::Any, INFINITE), WAIT_FAILED);
}

TEST_F(MultiWait, EventThatStandsTwiceIsReportedAtItsFirstPlace) {
    SetEvent(a.get());
    EXPECT_EQ(waitFor({b.get(), a.get(), a.get()}, Until::Any, kBound), 1u);
    EXPECT_EQ(waitFor({b.get(), a.get(), a.get()}, Until::Any, 0), WAIT_TIMEOUT);
    DWORD result = WAIT_FAILED;
    {
        Worker waiter{[&] { result = waitFor({b.get(), a.get(), a.get()}, Until::Any, kBound); }};
        EXPECT_TRUE(waiter.fallsAsleep());
        SetEvent(a.get());
    }
    EXPECT_EQ(result, 1u);
    EXPECT_FALSE(isSet(a));
    EXPECT_EQ(a->GetRefCount(), 1);
}

TEST_F(MultiWait, LargerAndSmallerArraysFollowEachOther) {
    for (const size_t count : {2u, 200u, 3u, 500u}) {
        std::vector<OwnedHandle> owned;
        std::vector<Handle*> handles;
        for (size_t i = 0; i < count; ++i) {
            owned.push_back(makeEvent(Kind::Auto));
            handles.push_back(owned.back().get());
        }
        EXPECT_EQ(waitFor(handles, Until::Any, 1), WAIT_TIMEOUT);
        Worker setter{[last = handles.back()] { SetEvent(last); }};
        EXPECT_EQ(waitFor(handles, Until::Any, kBound), count - 1);
    }
}

TEST_F(MultiWait, ReportUsesUpTheDataOfItsOwnThread) {
    auto* event = static_cast<Event*>(a.get());
    const struct {
        const char* name;
        bool attachedByWaiter;
        bool reported;
        LONG dataAfter;
    } cases[] = {
        {"own, reported", true, true, -1},
        {"own, not reported", true, false, 7},
        {"somebody else's", false, true, 7},
    };
    for (const auto& with : cases) {
        if (!with.attachedByWaiter) event->SetEventData(7);
        {
            Worker waiter{[&] {
                if (with.attachedByWaiter) event->SetEventData(7);
                EXPECT_EQ(waitFor({b.get(), a.get()}, Until::Any, kBound), with.reported ? 1u : 0u);
                EXPECT_EQ(event->GetEventData(), with.dataAfter) << with.name;
                EXPECT_EQ(event->GetRefCount(), with.dataAfter == -1 ? 1 : 2) << with.name;
                if (with.attachedByWaiter) event->SetEventData(-1);
            }};
            EXPECT_TRUE(waiter.fallsAsleep());
            SetEvent(with.reported ? a.get() : b.get());
        }
        event->SetEventData(-1);
        EXPECT_EQ(event->GetRefCount(), 1) << with.name;
    }
}

TEST_F(MultiWait, LastReferenceMayGoDuringTheWait) {
    std::atomic<int> deaths = 0;
    Handle* mortal = new MortalEvent(Kind::Auto, deaths);
    {
        Worker waiter{[&] { EXPECT_EQ(waitFor({mortal, a.get()}, Until::Any, kBound), 1u); }};
        EXPECT_TRUE(waiter.fallsAsleep());
        CloseHandle(mortal);
        EXPECT_EQ(deaths, 0);
        SetEvent(a.get());
    }
    EXPECT_EQ(deaths, 1);
}

TEST_F(MultiWait, EverySingleWaitAndEveryMultipleWaitOfOneEventIsReleased) {
    std::vector<std::unique_ptr<Worker>> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.push_back(std::make_unique<Worker>([&] {
            EXPECT_EQ(waitFor({a.get(), manual.get()}, Until::Any, kBound), 1u);
        }));
        waiters.push_back(std::make_unique<Worker>(
            [&] { EXPECT_EQ(WaitForSingleObject(manual.get(), kBound), WAIT_OBJECT_0); }));
    }
    for (const auto& waiter : waiters) EXPECT_TRUE(waiter->fallsAsleep());
    SetEvent(manual.get());
}

class MixedWait : public MultiWait {
  protected:
    OwnedHandle file{new File(-1)};
    OwnedHandle otherFile{new File(-1)};
};

TEST_F(MixedWait, SignalledEventIsReportedAtOnceAndKeepsItsSignal) {
    SetEvent(a.get());
    for (int i = 0; i < 3; ++i) {
        for (const Until until : {Until::Any, Until::All})
            EXPECT_EQ(waitFor({file.get(), a.get(), b.get()}, until, 0), 1u);
    }
    EXPECT_TRUE(isSet(a));
}

TEST_F(MixedWait, SignalOfABaseKindIsConsumedAsItIsReported) {
    EXPECT_EQ(file->Signal(), 0) << "nobody ever asked for its event";
    EXPECT_EQ(waitFor({a.get(), file.get()}, Until::Any, 0), WAIT_TIMEOUT);
    EXPECT_EQ(file->Signal(), 1);
    EXPECT_EQ(waitFor({a.get(), file.get()}, Until::Any, 0), 1u);
    EXPECT_EQ(waitFor({a.get(), file.get()}, Until::Any, 0), WAIT_TIMEOUT);
    file->Signal();
    EXPECT_EQ(file->Reset(), 1);
    EXPECT_EQ(waitFor({a.get(), file.get()}, Until::Any, 0), WAIT_TIMEOUT);
    EXPECT_EQ(otherFile->Reset(), 0);
}

TEST_F(MixedWait, SignalOfAnyKindEndsABlockedWait) {
    const auto release = makeEvent(Kind::Auto);
    const OwnedHandle thread = createThread([&] { WaitForSingleObject(release.get(), kBound); });
    const std::vector<Handle*> handles{thread.get(), nullptr, a.get(), file.get()};
    const struct {
        std::function<void()> act;
        DWORD result;
    } cases[] = {
        {[&] { file->Signal(); }, 3},
        {[&] { SetEvent(a.get()); }, 2},
        {[&] { SetEvent(release.get()); }, 0},
    };
    for (const auto& with : cases) {
        DWORD result = WAIT_FAILED;
        {
            Worker waiter{[&] { result = waitFor(handles, Until::Any, kBound); }};
            EXPECT_TRUE(waiter.fallsAsleep());
            with.act();
        }
        EXPECT_EQ(result, with.result);
        EXPECT_FALSE(isSet(a));
    }
    EXPECT_EQ(waitFor({a.get(), file.get()}, Until::Any, 0), WAIT_TIMEOUT);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(waitFor(handles, Until::Any, kBound), 0u) << "ended for ever";
}

TEST_F(MixedWait, HoldsAtMostSixtyFourHandles) {
    std::vector<Handle*> handles(MAXIMUM_WAIT_OBJECTS, a.get());
    handles.front() = file.get();
    handles.back() = b.get();
    SetEvent(b.get());
    EXPECT_EQ(waitFor(handles, Until::Any, 0), MAXIMUM_WAIT_OBJECTS - 1);
    handles.push_back(nullptr);
    EXPECT_EQ(waitFor(handles, Until::Any, 0), WAIT_FAILED);
}

TEST_F(MultiWait, OfNothingButThreadsFailsWithAMessage) {
    CapturedStderr errors;
    EXPECT_EQ(waitFor({GetCurrentThread(), GetCurrentThread()}, Until::Any, INFINITE), WAIT_FAILED);
    EXPECT_EQ(errors.text(), "Thread::WaitForMultiple: called without an event!\n");
}

TEST_F(MixedWait, OfNothingButFilesReturnsAtOnce) {
    EXPECT_EQ(waitFor({file.get(), otherFile.get()}, Until::All, INFINITE), 0u);
    EXPECT_EQ(WaitForSingleObject(file.get(), INFINITE), WAIT_OBJECT_0);
}

}  // namespace
