#include <traiklofox/critical_section.h>

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

namespace {

int tryEnterFromAnotherThread(_critsection& section) {
    int entered = -1;
    std::thread([&] {
        entered = TryEnterCriticalSection(&section);
        if (entered == 1) LeaveCriticalSection(&section);
    }).join();
    return entered;
}

TEST(CriticalSection, ZeroFilledMemoryIsAFreeSection) {
    const pthread_mutex_t free = PTHREAD_MUTEX_INITIALIZER;
    const pthread_mutex_t zero{};
    EXPECT_EQ(memcmp(&free, &zero, sizeof zero), 0);

    _critsection section;
    memset(&section, 0, sizeof section);
    EXPECT_EQ(tryEnterFromAnotherThread(section), 1);
}

TEST(CriticalSection, StaysHeldUntilEveryEnterIsLeft) {
    _critsection section{};
    EXPECT_EQ(EnterCriticalSection(&section), 0);
    EXPECT_EQ(EnterCriticalSection(&section), 0);
    EXPECT_EQ(TryEnterCriticalSection(&section), 1);
    EXPECT_EQ(tryEnterFromAnotherThread(section), 0);
    EXPECT_EQ(LeaveCriticalSection(&section), 3);
    EXPECT_EQ(LeaveCriticalSection(&section), 2);
    EXPECT_EQ(tryEnterFromAnotherThread(section), 0);
    EXPECT_EQ(LeaveCriticalSection(&section), 0);
    EXPECT_EQ(tryEnterFromAnotherThread(section), 1);
}

// The thread sanitizer rightly takes an unlock by a thread that never locked for a fault.
#ifndef __SANITIZE_THREAD__
TEST(CriticalSection, LeaveByAnotherThreadFreesItAtAnyDepth) {
    _critsection section{};
    EnterCriticalSection(&section);
    EnterCriticalSection(&section);
    std::thread([&] { EXPECT_EQ(LeaveCriticalSection(&section), 0); }).join();
    EXPECT_EQ(tryEnterFromAnotherThread(section), 1);
    EXPECT_EQ(EnterCriticalSection(&section), 0);
    EXPECT_EQ(LeaveCriticalSection(&section), 0);
    EXPECT_EQ(tryEnterFromAnotherThread(section), 1);
}
#endif

TEST(CriticalSection, LeaveOfAFreeSectionLeavesItFree) {
    _critsection section{};
    EXPECT_EQ(LeaveCriticalSection(&section), 0);
    EXPECT_EQ(EnterCriticalSection(&section), 0);
    EXPECT_EQ(tryEnterFromAnotherThread(section), 0);
    LeaveCriticalSection(&section);
}

TEST(CriticalSection, GuardsWhatItsThreadsShare) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 20'000;
    _critsection section{};
    int guarded = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                if (round % 2 == 0 || TryEnterCriticalSection(&section) == 0) EnterCriticalSection(&section);
                EnterCriticalSection(&section);
                ++guarded;
                LeaveCriticalSection(&section);
                ++guarded;
                LeaveCriticalSection(&section);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(guarded, 2 * kThreads * kRounds);
}

TEST(CriticalSection, NullIsTolerated) {
    EXPECT_EQ(EnterCriticalSection(nullptr), 0);
    EXPECT_EQ(TryEnterCriticalSection(nullptr), 0);
    EXPECT_EQ(LeaveCriticalSection(nullptr), 0);
}

}  // namespace
