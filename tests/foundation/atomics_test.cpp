#include <traiklofox/atomics.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

TEST(Atomics, ReturnOldOrNewValueAsEachPromises) {
    const struct {
        const char* call;
        LONG (*run)(LONG* target);
        LONG result, left;
    } kCases[] = {
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
    for (const auto& row : kCases) {
        LONG target = 10;
        EXPECT_EQ(row.run(&target), row.result) << row.call;
        EXPECT_EQ(target, row.left) << row.call;
    }
}

TEST(Atomics, NoUpdateOfSeveralThreadsIsLost) {
    constexpr LONG kRounds = 50'000;
    LONG sum = 0;
    {
        std::vector<std::jthread> threads(4);
        for (std::jthread& thread : threads) {
            thread = std::jthread([&] {
                for (LONG round = 0; round < kRounds; ++round) {
                    InterlockedIncrement(&sum);
                    AtomicAdd32(&sum, 3, round % 2);
                    InterlockedDecrement(&sum);
                }
            });
        }
    }
    EXPECT_EQ(InterlockedExchange(&sum, 0), 3 * 4 * kRounds);
}

}  // namespace
