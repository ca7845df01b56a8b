// Events, alone and among others in waits for several handles. What all kinds of waits have in common is in
// wait_test.cpp.

#include <cstring>

#include "kernel/worker.h"
#include "support/captured_output.h"

namespace {

using namespace traiklofox::test;

TEST(Event, KeepsItsSignalUntilItIsResetOrAWaitConsumesIt) {
    for (const Kind kind : {Kind::Auto, Kind::Manual}) {
        const auto event = makeEvent(kind, true);
        EXPECT_EQ(static_cast<Event*>(event.get())->IsManualReset(), kind == Kind::Manual);
        for (const DWORD timeout : {DWORD{0}, DWORD{1}, kBound, INFINITE}) {
            EXPECT_EQ(waitFor(event, timeout), WAIT_OBJECT_0);
            EXPECT_EQ(isSet(event), kind == Kind::Manual);
            for (int twice = 0; twice < 2; ++twice) EXPECT_EQ(ResetEvent(event.get()), 1);
            EXPECT_EQ(waitFor(event, timeout % 2), WAIT_TIMEOUT);
            EXPECT_EQ(PulseEvent(event.get()), 0) << "which leaves it set";
            EXPECT_TRUE(isSet(event));
            EXPECT_EQ(SetEvent(event.get()), 1);
        }
    }
}

TEST(Event, SetReleasesOneWaiterOfAnAutoResetEventAndEverybodyOfAManualResetOne) {
    constexpr int kWaiters = 6;
    const auto other = makeEvent();
    for (int round = 0; round < rounds(100); ++round) {
        const Kind kind = round % 4 == 0 ? Kind::Auto : Kind::Manual;
        const auto event = makeEvent(kind);
        std::atomic<int> released = 0;
        const Workers waiters(kWaiters, [&](int number) {
            const DWORD timeout = number % 2 == 0 ? kBound : INFINITE;
            if (kind == Kind::Manual && number > 3) {
                EXPECT_EQ(waitForAny({other.get(), event.get()}, timeout), 1u);
            } else {
                EXPECT_EQ(waitFor(event, timeout), WAIT_OBJECT_0);
            }
            ++released;
        });
        ASSERT_TRUE(waiters.fallAsleep());
        const int each = kind == Kind::Auto ? 1 : kWaiters;
        for (int awaited = each; awaited <= kWaiters; awaited += each) {
            SetEvent(event.get());
            if (round % 2 == 1) ResetEvent(event.get());  // which lets them leave
            EXPECT_TRUE(becomes(released, awaited));
            EXPECT_EQ(isSet(event), round % 4 == 2);
        }
    }
}

/// An event that counts its destruction.
struct MortalEvent : Event {
    MortalEvent(std::atomic<int>& counted, LONG initially)
        : Event(initially, FALSE, FALSE, nullptr), deaths(counted) {}
    ~MortalEvent() override { ++deaths; }
    std::atomic<int>& deaths;
};

TEST(MultiEvent, IsToldOfTheEventsThatItsThreadWaitsForAlone) {
    const auto first = makeEvent(), second = makeEvent(), stranger = makeEvent();
    std::atomic<MultiEvent*> told = nullptr;
    Worker waiter{[&] {
        EXPECT_EQ(waitForAny({first.get(), second.get()}, 1), WAIT_TIMEOUT);
        told = GetThreadContext()->multiEvent;
        EXPECT_EQ(told.load()->PostEvent(static_cast<Event*>(first.get())), 0);
        EXPECT_EQ(waitForAny({first.get(), second.get()}), WAIT_OBJECT_0 + 1);
    }};
    ASSERT_TRUE(soon([&] { return told != nullptr; }) && waiter.fallsAsleep());
    EXPECT_EQ(told.load()->PostEvent(static_cast<Event*>(stranger.get())), 1);
    EXPECT_EQ(told.load()->PostEvent(static_cast<Event*>(second.get())), 1);
    waiter.join();
}

TEST(Event, LivesUntilItsLastHandleAndTheWaitsForItAreGone) {
    std::atomic<int> deaths = 0;
    Handle* event = new MortalEvent(deaths, -1);
    Handle* duplicate = nullptr;
    EXPECT_EQ(DuplicateHandle(nullptr, event, nullptr, &duplicate, 0, FALSE, 0), 1);
    EXPECT_EQ(duplicate, event);
    EXPECT_EQ(DuplicateHandle(nullptr, event, nullptr, nullptr, 0, FALSE, 0), 1);
    const auto other = makeEvent();
    Worker waiter{[&] { EXPECT_EQ(waitForAny({event, other.get()}), 1u); }};
    EXPECT_TRUE(waiter.fallsAsleep());
    for (int handles = 0; handles < 3; ++handles) EXPECT_EQ(CloseHandle(event), 1);
    EXPECT_EQ(deaths, 0);
    SetEvent(other.get());
    waiter.join();
    EXPECT_EQ(deaths, 1);
}

TEST(EventData, AttachmentHoldsOneReferenceUntilItsOwnerDetachesIt) {
    const struct {
        const char* name;
        LONG initially, here, byAnother;  // attached, in this order, or -1
        BOOL detaches;                    // here
        LONG references;                  // before
    } cases[] = {
        {"nothing", -1, -1, -1, 0, 1},          {"own", -1, 7, -1, 1, 2},
        {"another's", -1, -1, 7, 0, 2},         {"own, replaced by another", -1, 7, 8, 0, 2},
        {"the constructor's", 5, -1, -1, 0, 1}, {"the constructor's, replaced", 5, 6, -1, 1, 2},
    };
    for (const auto& with : cases) {
        SCOPED_TRACE(with.name);
        std::atomic<int> deaths = 0;
        auto* event = new MortalEvent(deaths, with.initially);
        EXPECT_TRUE(with.here == -1 || event->SetEventData(9) + event->SetEventData(with.here) == 2);
        std::thread([&] {
            EXPECT_EQ(event->SetEventData(-1), 0) << "not this thread's";
            EXPECT_TRUE(with.byAnother == -1 || event->SetEventData(with.byAnother) == 1);
        }).join();
        event->RevStamp(3, /*copyData=*/FALSE);
        EXPECT_EQ(event->GetLastData(), with.initially);
        event->RevStamp(4, /*copyData=*/TRUE);
        EXPECT_EQ(event->GetLastData(), std::max({with.initially, with.here, with.byAnother}));
        EXPECT_EQ(event->GetRefCount(), with.references);
        EXPECT_EQ(event->SetEventData(-1), with.detaches);
        CloseHandle(event);
        if (!with.detaches && with.references == 2) {
            EXPECT_EQ(deaths, 0) << "the attachment keeps it";
            event->SetEventData(9);  // whoever replaces it is its owner
            event->SetEventData(-1);
        }
        EXPECT_EQ(deaths, 1);
    }
}

/// Handles by letters: auto-reset events a, b, c and a manual-reset one, m; files f, g; a semaphore s, a mutex u, a
/// timer w; a running thread t; none (- and x).
class WaitForSeveral : public testing::Test {
  protected:
    ~WaitForSeveral() override {
        SetEvent(stop.get());
        EXPECT_EQ(waitFor(at('t')), WAIT_OBJECT_0);
    }

    const OwnedHandle& at(char letter) const {
        return owned[static_cast<size_t>(strchr(kLetters, letter) - kLetters)];
    }
    std::vector<Handle*> these(const std::string& letters) const {
        std::vector<Handle*> handles;
        for (const char letter : letters)
            handles.push_back(letter == '-'   ? nullptr
                              : letter == 'x' ? INVALID_HANDLE_VALUE
                                              : at(letter).get());
        return handles;
    }
    void signal(const std::string& letters) const {
        for (const char letter : letters)
            EXPECT_EQ(letter == 's'               ? ReleaseSemaphore(at('s').get(), 1, nullptr)
                      : letter == 't'             ? SetEvent(stop.get())
                      : strchr("fg", letter) != 0 ? at(letter)->Signal()
                                                  : SetEvent(at(letter).get()),
                      1);
    }
    DWORD wait(const char* letters, char anyOrAll, DWORD timeout, BOOL alertable = FALSE) const {
        return (anyOrAll == '|' ? waitForAny : waitForAll)(these(letters), timeout, alertable);
    }
    /// The events that are set, which resets them; and that nobody but this test holds them.
    std::string eventsLeft() const {
        std::string left;
        for (const char letter : {'a', 'b', 'c', 'm'}) {
            if (isSet(at(letter))) left += letter;
            ResetEvent(at(letter).get());
            EXPECT_EQ(at(letter)->GetRefCount(), 1) << letter;
        }
        return left;
    }

    static constexpr const char* kLetters = "abcmfgsuwt";
    OwnedHandle stop = makeEvent(Kind::Manual);
    const OwnedHandle owned[10] = {makeEvent(),         makeEvent(),
                                   makeEvent(),         makeEvent(Kind::Manual),
                                   makeFile(),          makeFile(),
                                   makeSemaphore(0, 9), makeMutex(),
                                   makeTimer(),         createThread([this] { waitFor(stop, INFINITE); })};
};

TEST_F(WaitForSeveral, FindsWhatIsSignalledAlready) {
    const struct {
        const char *handles, *signalled;
        char anyOrAll;
        std::vector<DWORD> timeouts;
        DWORD result;
        const char* left;
    } cases[] = {
        {"abc", "bc", '|', {0, kBound, INFINITE}, 1, "c"},  // the first, which alone is consumed
        {"am", "m", '|', {0, kBound}, 1, "m"},
        {"baa", "a", '|', {0, kBound}, 1, ""},
        {"abm", "abm", '&', {0, kBound}, 0, "abm"},  // all, of which none is consumed
        {"ab", "a", '&', {0, 20}, WAIT_TIMEOUT, "a"},
        {"a-", "a", '&', {0}, WAIT_TIMEOUT, "a"},
        {"ab", "c", '|', {0, 20}, WAIT_TIMEOUT, "c"},
        {"-x", "", '|', {INFINITE}, WAIT_FAILED, ""},
        {"", "", '|', {INFINITE}, WAIT_FAILED, ""},
        {"fab",
         "a",
         '|',
         {0, kBound},
         1,
         "a"},  // of several kinds: an event keeps its signal, a file does not
        {"fab", "a", '&', {0, kBound}, 1, "a"},
        {"af", "f", '|', {0, kBound}, 1, ""},
        {"af", "", '|', {0, 5}, WAIT_TIMEOUT, ""},
        {"sua", "s", '|', {0, 20}, WAIT_TIMEOUT, ""},  // whose signals a wait for several never sees
        {"wa", "", '|', {20}, WAIT_TIMEOUT, ""},
        {"fg", "", '&', {INFINITE}, 0, ""},  // of one of these kinds: at once
        {"ss", "", '&', {INFINITE}, 0, ""},
        {"uu", "", '|', {INFINITE}, 0, ""},
        {"ww", "", '&', {INFINITE}, 0, ""},
    };
    for (const auto& c : cases) {
        for (const DWORD timeout : c.timeouts) {
            SCOPED_TRACE(testing::Message()
                         << c.handles << " with " << c.signalled << ", " << timeout << " ms");
            signal(c.signalled);
            EXPECT_EQ(wait(c.handles, c.anyOrAll, timeout), c.result);
            EXPECT_EQ(eventsLeft(), c.left);
        }
    }
    for (int i = 0; i < 2; ++i) EXPECT_EQ(waitFor(at('s'), 0), WAIT_OBJECT_0) << "nothing was taken";
    EXPECT_EQ(waitFor(at('f'), INFINITE) + waitFor(at('w'), INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForMultipleObjectsEx(1, nullptr, FALSE, 0, FALSE), WAIT_FAILED);
    EXPECT_EQ(at('g')->Signal() + at('g')->Reset(), 0) << "nobody ever asked for its event";
    EXPECT_EQ(at('f')->Signal() + at('f')->Reset(), 2);
    EXPECT_EQ(wait("af", '|', 0), WAIT_TIMEOUT);
    const std::string most = "f" + std::string(MAXIMUM_WAIT_OBJECTS - 2, 'a') + "b";
    signal("b");
    EXPECT_EQ(wait(most.c_str(), '|', 0), MAXIMUM_WAIT_OBJECTS - 1);
    EXPECT_EQ(wait((most + "-").c_str(), '|', 0), WAIT_FAILED);
    CapturedStderr errors;
    EXPECT_EQ(wait("tt", '|', INFINITE), WAIT_FAILED);
    EXPECT_EQ(errors.text(), "Thread::WaitForMultiple: called without an event!\n");
}

TEST_F(WaitForSeveral, EndsWithTheFirstSignalWhenItHasToBlock) {
    const struct {
        const char *handles, *before, *then;
        char anyOrAll;
        DWORD result;
        const char* left;
    } cases
        [] =
            {
                {"a-bxm", "", "a", '|', 0, ""},   {"a-bxm", "", "b", '|', 2, ""},
                {"a-bxm", "", "m", '|', 4, "m"},  {"baa", "", "a", '|', 1, ""},
                {"abcm", "a", "am", '&', 3, "m"},  // a has its signal; the auto-reset ones are all reset
                {"t-af", "", "f", '|', 3, ""},    {"t-af", "", "a", '&', 2, ""},
                {"suab", "s", "sb", '|', 3, ""},  {"t-af", "", "t", '|', 0, ""},
                {"t-af", "", "", '|', 0, ""},  // ended for ever
            };
    for (const auto& c : cases) {
        for (const DWORD timeout : {kBound, INFINITE}) {
            SCOPED_TRACE(testing::Message() << c.handles << ", " << c.then << ", " << timeout << " ms");
            signal(c.before);
            DWORD result = WAIT_FAILED;
            Worker waiter{[&] { result = wait(c.handles, c.anyOrAll, timeout, c.result % 2); }};
            EXPECT_TRUE((c.result == 0 && c.handles[0] == 't') || waiter.fallsAsleep());
            signal(c.then);
            waiter.join();
            EXPECT_EQ(result, c.result);
            EXPECT_EQ(eventsLeft(), c.left);
        }
    }
}

}  // namespace
