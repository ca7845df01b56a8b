// Many threads set and take events at once. Signals are counted; a wake-up that is lost shows as a wait that
// reaches its bound.

#include <traiklofox/events.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include <gtest/gtest.h>

#include <mutex>
#include <random>
#include <vector>

#include "kernel/worker.h"

namespace {

using namespace traiklofox::test;

using Workers = std::vector<std::unique_ptr<Worker>>;

template <class Body>
void addWorkers(Workers& workers, int count, Body body) {
    for (int i = 0; i < count; ++i) workers.push_back(std::make_unique<Worker>([body, i] { body(i); }));
}

/// How the consumers of a lane take its signals.
struct Lane {
    const char* name;
    int producers;
    int consumers;
    size_t events;
    int singleWaiters;  // of the consumers; the others wait for any of the events
    int signals;
};

class EventLane : public testing::TestWithParam<Lane> {
  protected:
    /// Puts one signal into a place that is free; the place says so before its event does.
    void produce(std::minstd_rand& random) {
        for (;;) {
            const size_t which = random() % places.size();
            int free = 0;
            if (places[which].full.compare_exchange_strong(free, 1)) {
                SetEvent(handles[which]);
                return;
            }
            ASSERT_EQ(WaitForSingleObject(emptied.get(), kBound), WAIT_OBJECT_0) << "a signal was lost";
        }
    }
    /// Takes signals until all are taken. Short time-outs race with the signals.
    void consume(int number) {
        const bool single = number < GetParam().singleWaiters;
        const DWORD timeout = number % 2 == 0 ? 1 : kBound;
        for (;;) {
            const DWORD which =
                single ? WaitForSingleObjectEx(handles[0], timeout, number % 3 == 0)
                       : WaitForMultipleObjectsEx(static_cast<DWORD>(handles.size()), handles.data(), FALSE,
                                                  timeout, number % 3 == 0);
            if (done) break;
            if (which == WAIT_TIMEOUT && timeout == 1) continue;
            ASSERT_LT(which, handles.size()) << "after " << taken << " signals";
            ++returns;
            if (places[which].full.exchange(0) == 0) continue;
            ++taken;
            SetEvent(emptied.get());
        }
        for (Handle* handle : handles) SetEvent(handle);  // so that the next one ends, too
    }

    struct Place {
        OwnedHandle event = makeEvent(Kind::Auto);
        std::atomic<int> full = 0;
    };
    std::vector<Place> places{GetParam().events};
    std::vector<Handle*> handles;
    OwnedHandle emptied = makeEvent(Kind::Auto);
    std::atomic<int> taken = 0;
    std::atomic<int> returns = 0;  // of waits, with a signal each
    std::atomic<bool> done = false;
};

INSTANTIATE_TEST_SUITE_P(EventStress, EventLane,
                         testing::Values(Lane{"SingleWaits", 4, 4, 1, 4, 40'000},
                                         Lane{"AnyOfTwo", 4, 4, 2, 0, 60'000},
                                         Lane{"OnePairAnyOfSixtyFour", 1, 1, 64, 0, 20'000},
                                         Lane{"AnyOfSixtyFour", 4, 4, 64, 0, 5'000},
                                         Lane{"SingleWaitsBesideAnyOfOne", 4, 4, 1, 2, 30'000}),
                         [](const auto& lane) { return std::string{lane.param.name}; });

// A single wait takes a signal that is nobody else's. A signal ends every multiple wait that includes its event, so
// that there may be more returns than signals, but never fewer.
TEST_P(EventLane, LosesNoSignal) {
    const Lane& lane = GetParam();
    const int each = roundsOrStress(lane.signals) / lane.producers;
    for (const Place& place : places) handles.push_back(place.event.get());
    Workers consumers;
    addWorkers(consumers, lane.consumers, [&](int number) { consume(number); });
    Workers producers;
    addWorkers(producers, lane.producers, [&](int number) {
        std::minstd_rand random(static_cast<unsigned>(number + 1));
        for (int i = 0; i < each && !HasFailure(); ++i) produce(random);
    });
    producers.clear();
    EXPECT_TRUE(withinSeconds(kBoundSeconds, [&] { return taken == each * lane.producers; }))
        << taken << " of " << each * lane.producers;
    if (lane.singleWaiters == lane.consumers) {
        EXPECT_EQ(returns, taken);
    } else {
        EXPECT_GE(returns, taken);
    }
    RecordProperty("returns", returns);
    done = true;
    for (Handle* handle : handles) SetEvent(handle);
}

/// Waits for `event`, alone or among others that are never set.
struct Receiver {
    explicit Receiver(size_t places) {
        for (size_t i = 0; i + 1 < places; ++i) never.push_back(makeEvent(Kind::Auto));
    }
    DWORD waitFor(Handle* event) {
        if (never.empty()) return WaitForSingleObject(event, kBound);
        std::vector<Handle*> handles;
        for (const auto& other : never) handles.push_back(other.get());
        handles.push_back(event);
        const auto count = static_cast<DWORD>(handles.size());
        const DWORD result = WaitForMultipleObjects(count, handles.data(), FALSE, kBound);
        return result == count - 1 ? WAIT_OBJECT_0 : result;
    }
    std::vector<OwnedHandle> never;
};

TEST(EventStress, EverybodySeesEveryBroadcast) {
    constexpr int kWaiters = 4;
    const int broadcasts = rounds(1'500);
    const std::array<OwnedHandle, 2> phase{makeEvent(Kind::Manual), makeEvent(Kind::Manual)};
    const auto allThrough = makeEvent(Kind::Auto);
    std::atomic<int> through = 0;
    Workers waiters;
    addWorkers(waiters, kWaiters, [&](int number) {
        Receiver receiver{number % 2 == 0 ? size_t{1} : size_t{3}};
        for (int i = 0; i < broadcasts; ++i) {
            ASSERT_EQ(receiver.waitFor(phase[static_cast<size_t>(i % 2)].get()), WAIT_OBJECT_0);
            if (++through % kWaiters == 0) SetEvent(allThrough.get());
        }
    });
    for (int i = 0; i < broadcasts; ++i) {
        SetEvent(phase[static_cast<size_t>(i % 2)].get());
        ASSERT_EQ(WaitForSingleObject(allThrough.get(), kBound), WAIT_OBJECT_0) << "broadcast " << i;
        ResetEvent(phase[static_cast<size_t>(i % 2)].get());
    }
}

// The waiter destroys the event while the `SetEvent` that woke it may still be on its way out.
TEST(EventStress, EventMayBeClosedAsSoonAsItsWaitReturns) {
    const int each = rounds(8'000);
    std::atomic<int> deaths = 0;
    std::atomic<Handle*> toSet = nullptr;
    std::atomic<bool> done = false;
    Worker setter{[&] {
        while (!done) {
            Handle* event = nullptr;
            ASSERT_TRUE(soon([&] { return (event = toSet.exchange(nullptr)) != nullptr || done; }));
            SetEvent(event);
        }
    }};
    const auto other = makeEvent(Kind::Auto);
    for (int i = 0; i < each; ++i) {
        Handle* event = new MortalEvent(i % 4 < 2 ? Kind::Auto : Kind::Manual, deaths);
        toSet = event;
        if (i % 2 == 0) {
            ASSERT_EQ(WaitForSingleObject(event, kBound), WAIT_OBJECT_0);
        } else {
            std::array<Handle*, 2> both{other.get(), event};
            ASSERT_EQ(WaitForMultipleObjects(2, both.data(), FALSE, kBound), 1u);
        }
        CloseHandle(event);
        ASSERT_EQ(deaths, i + 1);
    }
    done = true;
}

/// One random use of a few shared events by a thread that others queue calls to.
void useOnce(const std::vector<Handle*>& events, const Workers& peers, std::minstd_rand& random) {
    Handle* const event = events[random() % events.size()];
    std::vector<Handle*> several{event, nullptr, events[random() % events.size()], events.front()};
    const auto timeout = static_cast<DWORD>(random() % 3);
    const BOOL alertable = random() % 2;
    const BOOL forAll = random() % 2;
    switch (random() % 8) {
        case 0:
        case 1: SetEvent(event); break;
        case 2: ResetEvent(event); break;
        case 3: (void)WaitForSingleObjectEx(event, timeout, alertable); break;
        case 4:
        case 5: {
            const DWORD result = WaitForMultipleObjectsEx(4, several.data(), forAll, timeout, alertable);
            EXPECT_TRUE(result < 4 || result == WAIT_TIMEOUT || result == WAIT_IO_COMPLETION) << result;
            break;
        }
        case 6: PulseEvent(event); break;
        default:
            QueueUserAPC([](void* another, void*, void*) { SetEvent(static_cast<Handle*>(another)); },
                         peers[random() % peers.size()]->handle(), reinterpret_cast<ULONG_PTR>(event));
    }
}

TEST(EventStress, NoMixtureOfUsesLeavesAnEventStuck) {
    constexpr int kThreads = 4;
    const int each = rounds(3'000);
    std::vector<OwnedHandle> owned;
    std::vector<Handle*> events;
    for (const Kind kind : {Kind::Auto, Kind::Manual, Kind::Auto})
        events.push_back(owned.emplace_back(makeEvent(kind)).get());
    Workers workers;
    std::atomic<bool> go = false;
    addWorkers(workers, kThreads, [&](int number) {
        go.wait(false);
        std::minstd_rand random(static_cast<unsigned>(number + 1));
        for (int i = 0; i < each; ++i) useOnce(events, workers, random);
    });
    go = true;
    go.notify_all();
    for (const auto& worker : workers) worker->join();

    for (const auto& event : owned) ResetEvent(event.get());
    for (const auto& event : owned) {
        EXPECT_EQ(event->GetRefCount(), 1);
        EXPECT_EQ(WaitForMultipleObjects(3, events.data(), FALSE, 1), WAIT_TIMEOUT);
        Worker waiter{[&] { EXPECT_EQ(WaitForSingleObject(event.get(), kBound), WAIT_OBJECT_0); }};
        EXPECT_TRUE(waiter.fallsAsleep());
        SetEvent(event.get());
        waiter.join();
        ResetEvent(event.get());
    }
}

}  // namespace
