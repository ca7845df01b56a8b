// Many children, started and reaped by several threads through waits of several kinds.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "kernel/child.h"

namespace {

using namespace traiklofox::test;

/// Starts `count` children that exit with their number, at most so many at once as fit into a mixed wait beside an
/// event and a thread, and reaps each through such waits. The event interrupts them now and then.
void startAndReap(int count, unsigned int seed, std::atomic<int>& reaped) {
    std::mt19937 random(seed);
    const OwnedHandle interrupt = makeEvent(Kind::Auto);
    const OwnedHandle thread{new Thread(pthread_self())};
    std::vector<OwnedHandle> running;
    std::vector<DWORD> codes;
    int started = 0;
    while (started < count || !running.empty()) {
        const size_t most = 1 + random() % (MAXIMUM_WAIT_OBJECTS - 2);
        while (started < count && running.size() < most) {
            const DWORD code = static_cast<DWORD>(started++) % 256;
            const auto delay = std::to_string(random() % 30);
            running.push_back(startShell("sleep 0.0" + delay + "; exit " + std::to_string(code)));
            ASSERT_TRUE(running.back());
            codes.push_back(code);
        }
        std::vector<Handle*> handles{interrupt.get(), thread.get()};
        for (const OwnedHandle& process : running) handles.push_back(process.get());
        if (random() % 4 == 0) SetEvent(interrupt.get());
        const DWORD result = WaitForMultipleObjectsEx(static_cast<DWORD>(handles.size()), handles.data(),
                                                      FALSE, kBound, random() % 2 == 0);
        if (result == WAIT_OBJECT_0) {
            ResetEvent(interrupt.get());
            continue;
        }
        ASSERT_GE(result, WAIT_OBJECT_0 + 2);
        ASSERT_LT(result, handles.size()) << "a child was lost";
        const auto ended = static_cast<std::ptrdiff_t>(result - 2);
        DWORD code = 0;
        ASSERT_TRUE(GetExitCodeProcess(running[static_cast<size_t>(ended)].get(), &code));
        ASSERT_EQ(code, codes[static_cast<size_t>(ended)]);
        running.erase(running.begin() + ended);
        codes.erase(codes.begin() + ended);
        ++reaped;
    }
}

TEST(ProcessStress, MixedWaitsReapEveryChildAndLeaveNothing) {
    Process::StartThread();  // the one that watches, with what it sleeps on
    const int descriptors = openDescriptors();
    const int threads = threadCount();
    std::atomic<int> reaped = 0;
    constexpr int kThreads = 4;
    constexpr int kEach = 125;
    {
        std::vector<std::unique_ptr<Worker>> workers;
        for (unsigned int i = 0; i < kThreads; ++i)
            workers.push_back(std::make_unique<Worker>([&reaped, i] { startAndReap(kEach, i + 1, reaped); }));
    }
    EXPECT_EQ(reaped, kThreads * kEach);
    EXPECT_TRUE(isChildless());
    EXPECT_TRUE(soon([&] { return openDescriptors() == descriptors && threadCount() == threads; }));
}

// Handles are closed while their children run, end and are being watched, and by whom it happens.
TEST(ProcessStress, ClosedHandlesLeaveNoChild) {
    const OwnedHandle event = makeEvent(Kind::Auto);
    const int descriptors = openDescriptors();
    {
        const auto work = [&event] {
            for (int i = 0; i < rounds(60); ++i) {
                Child child;
                OwnedHandle second{OpenProcess(0, FALSE, static_cast<DWORD>(child.pid()))};
                Handle* handles[] = {child.handle.get(), event.get()};
                if (i % 2 == 0) {
                    EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, 0), WAIT_TIMEOUT);
                }
                if (i % 3 == 0) child.end();
                if (i % 5 == 0) {
                    EXPECT_TRUE(TerminateProcess(child.handle.get(), 0));
                }
                child.handle.reset();
                if (i % 7 != 0) continue;
                child.end();
                (void)WaitForSingleObject(second.get(), i % 2 == 0 ? INFINITE : 0);
            }
        };
        Worker first{work};
        Worker second{work};
        Worker third{work};
    }
    EXPECT_TRUE(becomesChildless());
    EXPECT_TRUE(soon([&] { return openDescriptors() == descriptors; }));
}

}  // namespace
