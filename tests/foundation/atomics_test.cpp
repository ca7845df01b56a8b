#include <traiklofox/atomics.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

TEST(Atomics, ReturnOldOrNewValueAsEachPromises) {
    struct Case {
        const char* call;
        LONG (*run)(LONG* target);
        LONG result, left;
    };
    const Case cases[] = {
        {"AtomicAdd32 old", [](LONG* p) { return AtomicAdd32(p, 5, 1); }, 10, 15},
        {"AtomicAdd32 new", [](LONG* p) { return AtomicAdd32(p, -5, 0); }, 5, 5},
        {"AtomicExchange32", [](LONG* p) { return AtomicExchange32(p, 3); }, 10, 3},
        {"InterlockedIncrement", [](LONG* p) { return InterlockedIncrement(p); }, 11, 11},
        {"InterlockedDecrement", [](LONG* p) { return InterlockedDecrement(p); }, 9, 9},
        {"InterlockedExchangeAdd", [](LONG* p) { return InterlockedExchangeAdd(p, 5); }, 10, 15},
        {"InterlockedExchange", [](LONG* p) { return InterlockedExchange(p, 3); }, 10, 3},
        {"CompareExchange equal", [](LONG* p) { return InterlockedCompareExchange(p, 3, 10); }, 10, 3},
        {"CompareExchange unequal", [](LONG* p) { return InterlockedCompareExchange(p, 3, 4); }, 10, 10},
    };
    for (const Case& each : cases) {
        LONG target = 10;
        EXPECT_EQ(each.run(&target), each.result) << each.call;
        EXPECT_EQ(target, each.left) << each.call;
    }
}

TEST(Atomics, NoUpdateOfSeveralThreadsIsLost) {
    constexpr int kThreads = 4;
    constexpr LONG kRounds = 50'000;
    LONG sum = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (LONG round = 0; round < kRounds; ++round) {
                InterlockedIncrement(&sum);
                AtomicAdd32(&sum, 3, round % 2);
                InterlockedDecrement(&sum);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(InterlockedExchange(&sum, 0), 3 * kThreads * kRounds);
}

}  // namespace
