// Many children, started and reaped by several threads through waits of several kinds.

#include "kernel/child.h"

namespace {

using namespace traiklofox::test;

/// Starts `count` children that exit with their number, at most so many at once as fit into a mixed wait beside an
/// event and a thread, and reaps each through such waits. The event interrupts them now and then.
void startAndReap(int count, unsigned int seed, std::atomic<int>& reaped) {
    std::mt19937 random(seed);
    const OwnedHandle interrupt = makeEvent();
    const OwnedHandle thread{new Thread(pthread_self())};
    std::vector<std::pair<OwnedHandle, DWORD>> running;  // with its exit code
    int started = 0;
    while (started < count || !running.empty()) {
        const size_t most = 1 + random() % (MAXIMUM_WAIT_OBJECTS - 2);
        for (; started < count && running.size() < most; ++started) {
            const DWORD code = static_cast<DWORD>(started) % 256;
            const auto delay = std::to_string(random() % 30);
            running.emplace_back(startShell("sleep 0.0" + delay + "; exit " + std::to_string(code)), code);
            ASSERT_TRUE(running.back().first);
        }
        std::vector<Handle*> handles{interrupt.get(), thread.get()};
        for (const auto& [process, code] : running) handles.push_back(process.get());
        if (random() % 4 == 0) SetEvent(interrupt.get());
        const DWORD result = waitForAny(handles, kBound, random() % 2 == 0);
        if (result == WAIT_OBJECT_0) {
            ResetEvent(interrupt.get());
            continue;
        }
        ASSERT_GE(result, WAIT_OBJECT_0 + 2);
        ASSERT_LT(result, handles.size()) << "a child was lost";
        const auto ended = running.begin() + static_cast<std::ptrdiff_t>(result - 2);
        DWORD code = 0;
        ASSERT_TRUE(GetExitCodeProcess(ended->first.get(), &code));
        ASSERT_EQ(code, ended->second);
        running.erase(ended);
        ++reaped;
    }
}

TEST(ProcessStress, MixedWaitsReapEveryChildAndLeaveNothing) {
    constexpr int kThreads = 4;
    constexpr int kEach = 125;
    Process::StartThread();  // the one that watches, with what it sleeps on
    const int descriptors = openDescriptors();
    const int threads = threadCount();
    std::atomic<int> reaped = 0;
    Workers(kThreads, [&](int i) { startAndReap(kEach, static_cast<unsigned>(i + 1), reaped); }).clear();
    EXPECT_EQ(reaped, kThreads * kEach);
    EXPECT_TRUE(isChildless());
    EXPECT_TRUE(soon([&] { return openDescriptors() == descriptors && threadCount() == threads; }));
}

// Handles are closed while their children run, end and are being watched, and by whom it happens.
TEST(ProcessStress, ClosedHandlesLeaveNoChild) {
    const OwnedHandle event = makeEvent();
    Process::StartThread();  // with what it sleeps on
    const int descriptors = openDescriptors();
    Workers(3, [&event](int) {
        for (int i = 0; i < rounds(60); ++i) {
            Child child;
            const OwnedHandle second = openProcess(child.pid());
            if (i % 2 == 0) {
                EXPECT_EQ(waitForAny({child.handle.get(), event.get()}, 0), WAIT_TIMEOUT);
            }
            if (i % 3 == 0) child.end();
            if (i % 5 == 0) {
                EXPECT_TRUE(TerminateProcess(child.handle.get(), 0));
            }
            child.handle.reset();
            if (i % 7 != 0) continue;
            child.end();
            (void)waitFor(second, i % 2 == 0 ? INFINITE : 0);
        }
    }).clear();
    EXPECT_TRUE(soon(isChildless));
    EXPECT_TRUE(soon([&] { return openDescriptors() == descriptors; }));
}

}  // namespace
