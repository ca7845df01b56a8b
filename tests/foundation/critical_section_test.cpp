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

TEST(CriticalSection, IsHeldUntilEveryEnterIsLeft) {
    const pthread_mutex_t free = PTHREAD_MUTEX_INITIALIZER;
    _critsection section;
    memset(&section, 0, sizeof section);
    EXPECT_EQ(memcmp(&free, &section.mutex, sizeof free), 0) << "zero-filled memory is a free one";
    EXPECT_EQ(tryEnterFromAnotherThread(section), 1);
    EXPECT_EQ(EnterCriticalSection(&section), 0);
    EXPECT_EQ(EnterCriticalSection(&section), 0);
    EXPECT_EQ(TryEnterCriticalSection(&section), 1);
    EXPECT_EQ(tryEnterFromAnotherThread(section), 0);
    EXPECT_EQ(LeaveCriticalSection(&section), 3);
    EXPECT_EQ(LeaveCriticalSection(&section), 2);
    EXPECT_EQ(tryEnterFromAnotherThread(section), 0);
    EXPECT_EQ(LeaveCriticalSection(&section), 0);
    EXPECT_EQ(tryEnterFromAnotherThread(section), 1);
    EXPECT_EQ(LeaveCriticalSection(&section), 0) << "of a free one";
    EXPECT_EQ(EnterCriticalSection(&section), 0);
    EXPECT_EQ(tryEnterFromAnotherThread(section), 0);
    EXPECT_EQ(LeaveCriticalSection(&section), 0);
    EXPECT_EQ(
        EnterCriticalSection(nullptr) + TryEnterCriticalSection(nullptr) + LeaveCriticalSection(nullptr), 0);
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

TEST(CriticalSection, GuardsWhatItsThreadsShare) {
    constexpr int kRounds = 20'000;
    _critsection section{};
    int guarded = 0;
    {
        std::vector<std::jthread> threads(4);
        for (std::jthread& thread : threads) {
            thread = std::jthread([&] {
                for (int round = 0; round < kRounds; ++round) {
                    if (round % 2 == 0 || TryEnterCriticalSection(&section) == 0)
                        EnterCriticalSection(&section);
                    EnterCriticalSection(&section);
                    ++guarded;
                    LeaveCriticalSection(&section);
                    ++guarded;
                    LeaveCriticalSection(&section);
                }
            });
        }
    }
    EXPECT_EQ(guarded, 2 * 4 * kRounds);
}

}  // namespace
