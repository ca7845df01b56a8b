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

TEST(EventStress, EveryAcknowledgedSignalIsTakenExactlyOnce) {
    constexpr int kProducers = 3;
    constexpr int kConsumers = 4;
    const int each = rounds(2'000);
    const auto work = makeEvent(Kind::Auto);
    const auto taken = makeEvent(Kind::Auto);
    std::mutex turn;
    std::atomic<int> consumed = 0;
    std::atomic<bool> stop = false;

    Workers consumers;
    addWorkers(consumers, kConsumers, [&](int number) {
        // Short time-outs race with the signals, and calls and long ones with each other.
        const DWORD timeout = number % 2 == 0 ? 1 : kBound;
        while (!stop) {
            if (WaitForSingleObjectEx(work.get(), timeout, number % 3 == 0) != WAIT_OBJECT_0) continue;
            if (stop) break;
            ++consumed;
            SetEvent(taken.get());
        }
        SetEvent(work.get());  // so that the next one ends, too
    });
    Workers producers;
    addWorkers(producers, kProducers, [&](int) {
        for (int i = 0; i < each; ++i) {
            const std::lock_guard lock(turn);
            SetEvent(work.get());
            ASSERT_EQ(WaitForSingleObject(taken.get(), kBound), WAIT_OBJECT_0);
        }
    });
    producers.clear();
    EXPECT_EQ(consumed, kProducers * each);
    stop = true;
    SetEvent(work.get());
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

TEST(EventStress, PingPongLosesNoTurn) {
    const struct {
        size_t places;
        int turns;
    } cases[] = {{1, 10'000}, {2, 10'000}, {64, 4'000}};
    for (const auto& c : cases) {
        const int turns = rounds(c.turns);
        const auto ping = makeEvent(Kind::Auto);
        const auto pong = makeEvent(Kind::Auto);
        int ball = 0;  // passed on by the events alone
        Worker other{[&] {
            Receiver receiver{c.places};
            for (int i = 0; i < turns; ++i) {
                ASSERT_EQ(receiver.waitFor(ping.get()), WAIT_OBJECT_0) << c.places << " places";
                ++ball;
                SetEvent(pong.get());
            }
        }};
        Receiver receiver{c.places};
        for (int i = 0; i < turns; ++i) {
            SetEvent(ping.get());
            ASSERT_EQ(receiver.waitFor(pong.get()), WAIT_OBJECT_0) << c.places << " places";
        }
        EXPECT_EQ(ball, turns);
    }
}

// The signal comes without a pause between the consumer's look at the event and its sleep.
TEST(EventStress, MultipleWaitMissesNoSignalThatComesAsItRegisters) {
    constexpr int kEvents = 64;
    constexpr int kProducers = 2;
    const int each = rounds(6'000);
    std::vector<OwnedHandle> events;
    std::vector<Handle*> handles;
    for (int i = 0; i < kEvents; ++i) handles.push_back(events.emplace_back(makeEvent(Kind::Auto)).get());
    std::array<std::atomic<int>, kEvents> produced{};
    std::atomic<int> consumed = 0;

    Worker consumer{[&] {
        while (consumed < kProducers * each) {
            const DWORD which = WaitForMultipleObjects(kEvents, handles.data(), FALSE, kBound);
            ASSERT_LT(which, static_cast<DWORD>(kEvents)) << "after " << consumed;
            consumed += produced[which].exchange(0);
        }
    }};
    Workers producers;
    addWorkers(producers, kProducers, [&](int number) {
        std::minstd_rand random(static_cast<unsigned>(number + 1));
        for (int i = 0; i < each; ++i) {
            const auto which = static_cast<size_t>(
                number + kProducers * static_cast<int>(random() % (kEvents / kProducers)));
            ++produced[which];
            SetEvent(handles[which]);
            ASSERT_TRUE(soon([&] { return produced[which] == 0; })) << "signal " << i;
        }
    });
}

TEST(EventStress, ProducersAndConsumersOverManyEventsLoseNothing) {
    constexpr int kEvents = 4;
    constexpr int kThreads = 3;
    const int each = rounds(10'000);
    std::vector<OwnedHandle> events;
    std::vector<Handle*> handles;
    for (int i = 0; i < kEvents; ++i) handles.push_back(events.emplace_back(makeEvent(Kind::Auto)).get());
    const auto stop = makeEvent(Kind::Manual);
    handles.push_back(stop.get());
    std::array<std::atomic<int>, kEvents> produced{};
    std::atomic<int> consumed = 0;

    Workers consumers;
    addWorkers(consumers, kThreads, [&](int number) {
        const DWORD timeout = number == 0 ? 1 : kBound;
        for (;;) {
            const DWORD which =
                WaitForMultipleObjectsEx(kEvents + 1, handles.data(), FALSE, timeout, number == 1);
            if (which == kEvents) break;
            if (which == WAIT_TIMEOUT && number == 0) continue;
            ASSERT_LT(which, static_cast<DWORD>(kEvents));
            consumed += produced[which].exchange(0);
        }
    });
    Workers producers;
    addWorkers(producers, kThreads, [&](int number) {
        std::minstd_rand random(static_cast<unsigned>(number + 1));
        for (int i = 0; i < each; ++i) {
            const size_t which = random() % kEvents;
            ++produced[which];
            SetEvent(handles[which]);
        }
    });
    producers.clear();
    EXPECT_TRUE(withinSeconds(kBoundSeconds, [&] { return consumed == kThreads * each; }))
        << consumed << " of " << kThreads * each;
    SetEvent(stop.get());
}

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
