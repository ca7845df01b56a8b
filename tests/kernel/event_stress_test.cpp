// Many threads set and take events at once. Signals are counted; a wake-up that is lost shows as a wait that
// reaches its bound.

#include "kernel/worker.h"

namespace {

using namespace traiklofox::test;

/// How the consumers of a lane take its signals.
struct Lane {
    const char* name;
    int threads;  // that produce, and as many that consume
    size_t events;
    int singleWaiters;  // of the consumers; the others wait for any of the events
    int signals;
};

class EventLane : public testing::TestWithParam<Lane> {
  protected:
    /// Puts one signal into a place that is free; the place says so before its event does.
    void produce(std::minstd_rand& random) {
        for (;;) {
            const size_t which = random() % handles.size();
            int free = 0;
            if (full[which].compare_exchange_strong(free, 1)) return (void)SetEvent(handles[which]);
            ASSERT_EQ(waitFor(emptied), WAIT_OBJECT_0) << "a signal was lost";
        }
    }
    /// Takes signals until all are taken. Short time-outs race with the signals.
    void consume(int number) {
        const DWORD timeout = number % 2 == 0 ? 1 : kBound;
        const BOOL alertable = number % 3 == 0;
        for (;;) {
            const DWORD which = number < GetParam().singleWaiters ? waitFor(events[0], timeout, alertable)
                                                                  : waitForAny(handles, timeout, alertable);
            if (done) break;
            if (which == WAIT_TIMEOUT && timeout == 1) continue;
            ASSERT_LT(which, handles.size()) << "after " << taken << " signals";
            ++returns;
            if (full[which].exchange(0) == 0) continue;
            ++taken;
            SetEvent(emptied.get());
        }
        for (Handle* handle : handles) SetEvent(handle);  // so that the next one ends, too
    }

    std::vector<OwnedHandle> events;
    std::vector<Handle*> handles;
    std::vector<std::atomic<int>> full = std::vector<std::atomic<int>>(GetParam().events);
    OwnedHandle emptied = makeEvent();
    std::atomic<int> taken = 0;
    std::atomic<int> returns = 0;  // of waits, with a signal each
    std::atomic<bool> done = false;
};

INSTANTIATE_TEST_SUITE_P(EventStress, EventLane,
                         testing::Values(Lane{"SingleWaits", 4, 1, 4, 40'000},
                                         Lane{"AnyOfTwo", 4, 2, 0, 60'000},
                                         Lane{"OnePairAnyOfSixtyFour", 1, 64, 0, 20'000},
                                         Lane{"AnyOfSixtyFour", 4, 64, 0, 5'000},
                                         Lane{"SingleWaitsBesideAnyOfOne", 4, 1, 2, 30'000}),
                         [](const auto& lane) { return std::string{lane.param.name}; });

// A single wait takes a signal that is nobody else's. A signal ends every multiple wait that includes its event, so
// that there may be more returns than signals, but never fewer.
TEST_P(EventLane, LosesNoSignal) {
    const Lane& lane = GetParam();
    const int each = roundsOrStress(lane.signals) / lane.threads;
    for (size_t i = 0; i < lane.events; ++i) handles.push_back(events.emplace_back(makeEvent()).get());
    const Workers consumers(lane.threads, [&](int number) { consume(number); });
    Workers(lane.threads, [&](int number) {
        std::minstd_rand random(static_cast<unsigned>(number + 1));
        for (int i = 0; i < each && !HasFailure(); ++i) produce(random);
    }).clear();
    EXPECT_TRUE(becomes(taken, each * lane.threads)) << taken << " of " << each * lane.threads;
    EXPECT_GE(returns, taken);
    EXPECT_TRUE(returns == taken || lane.singleWaiters < lane.threads);
    RecordProperty("returns", returns);
    done = true;
    for (Handle* handle : handles) SetEvent(handle);
}

// The waiter destroys the object while the signal that woke it may still be on its way out.
TEST(EventStress, EventOrSemaphoreMayBeClosedAsSoonAsItsWaitReturns) {
    std::atomic<Handle*> toSignal = nullptr;
    std::atomic<bool> done = false;
    Worker setter{[&] {
        while (!done) {
            Handle* object = nullptr;
            ASSERT_TRUE(soon([&] { return (object = toSignal.exchange(nullptr)) != nullptr || done; }));
            if (!SetEvent(object)) ReleaseSemaphore(object, 1, nullptr);
        }
    }};
    const auto other = makeEvent();
    for (int i = 0; i < rounds(16'000); ++i) {
        const auto object =
            i % 8 < 4 ? makeEvent(i % 4 < 2 ? Kind::Auto : Kind::Manual) : makeSemaphore(0, 1);
        const bool alone = i % 8 >= 4 || i % 2 == 0;  // a wait for several does not see a semaphore
        toSignal = object.get();
        ASSERT_EQ(alone ? waitFor(object) : waitForAny({other.get(), object.get()}) - 1, WAIT_OBJECT_0) << i;
        ASSERT_EQ(object->GetRefCount(), 1);
    }
    done = true;
}

/// One random use of a few shared events by a thread that others queue calls to.
void useOnce(const std::vector<Handle*>& events, const Workers& peers, std::minstd_rand& random) {
    Handle* const event = events[random() % events.size()];
    const std::vector<Handle*> several{event, nullptr, events[random() % events.size()], events.front()};
    const auto timeout = static_cast<DWORD>(random() % 3);
    const BOOL alertable = random() % 2;
    switch (random() % 8) {
        case 0:
        case 1: SetEvent(event); break;
        case 2: ResetEvent(event); break;
        case 3: (void)WaitForSingleObjectEx(event, timeout, alertable); break;
        case 4: (void)waitForAny(several, timeout, alertable); break;
        case 5: (void)waitForAll(several, timeout, alertable); break;
        case 6: PulseEvent(event); break;
        default: queueTo(peers[random() % peers.size()]->handle(), setEvent, *event);
    }
}

TEST(EventStress, EveryResetReturnsThoughNewWaitersCome) {
    const auto event = makeEvent(Kind::Manual);
    std::atomic<int> busy = 4;
    Workers workers(4, [&](int) {
        for (int i = 0; i < rounds(2'000); ++i) {
            ASSERT_EQ(waitFor(event), WAIT_OBJECT_0);
            ResetEvent(event.get());
        }
        --busy;
    });
    EXPECT_TRUE(soon([&] { return SetEvent(event.get()), busy == 0; }));
}

TEST(EventStress, NoMixtureOfUsesLeavesAnEventStuck) {
    const OwnedHandle owned[] = {makeEvent(), makeEvent(Kind::Manual), makeEvent()};
    const std::vector<Handle*> events{owned[0].get(), owned[1].get(), owned[2].get()};
    Workers workers;
    std::atomic<bool> go = false;
    workers.add(4, [&](int number) {
        go.wait(false);
        std::minstd_rand random(static_cast<unsigned>(number + 1));
        for (int i = 0; i < rounds(3'000); ++i) useOnce(events, workers, random);
    });
    go = true;
    go.notify_all();
    for (const auto& worker : workers) worker->join();
    for (Handle* event : events) ResetEvent(event);
    for (const auto& event : owned) {
        EXPECT_EQ(event->GetRefCount(), 1);
        EXPECT_EQ(waitForAny(events, 1), WAIT_TIMEOUT);
        Worker waiter{[&] { EXPECT_EQ(waitFor(event), WAIT_OBJECT_0); }};
        EXPECT_TRUE(waiter.fallsAsleep());
        SetEvent(event.get());
        waiter.join();
        ResetEvent(event.get());
    }
}

}  // namespace
