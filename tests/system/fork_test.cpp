#include <gtest/gtest.h>
#include <sys/wait.h>
#include <traiklofox/process.h>
#include <traiklofox/system_info.h>
#include <traiklofox/uuid.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "support/bounded_wait.h"
#include "support/fault_injection.h"
#include "support/temp_dir.h"

namespace traiklofox::test {
namespace {

/// True when a forked child's `call` comes back, with true.
template <class Call>
bool holdsInChild(Call call) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(20);
        ::_exit(call() ? 0 : 1);
    }
    int status = -1;
    return ::waitpid(child, &status, 0) == child && status == 0;
}

TEST(Fork, ChildCallsWhatAnotherThreadOfItsParentIsIn) {
    std::atomic<bool> isDone = false;
    std::thread setter([&] {
        while (!isDone) SetEnvironmentVariable("TRAIKLOFOX_FORK", "parent");
    });
    for (int i = 0; i < 100; ++i)
        if (!holdsInChild([] { return SetEnvironmentVariable("TRAIKLOFOX_FORK", "child") != FALSE; })) {
            ADD_FAILURE() << "SetEnvironmentVariable, fork " << i;
            break;
        }
    isDone = true;
    setter.join();

#if !defined(__SANITIZE_THREAD__)  // which takes the parent's thread for one of the child's
    if (::gethostid() == 0) GTEST_SKIP() << "this machine has no host identifier";
    FakeTime time;
    time.stopAt(0x6543EBCD);
    const CountCalls sleeps(faults::Call::Nanosleep);
    std::thread maker([&] {
        _GUID uuid;
        while (!isDone || sleeps.calls() == 0) UuidCreate(&uuid);
    });
    EXPECT_TRUE(withinSeconds(30, [&] { return sleeps.calls() > 0; }));
    EXPECT_TRUE(holdsInChild([] {
        _GUID uuid;
        return UuidCreate(&uuid) == 0;
    }));
    maker.join();
#endif
}

void onChild(int /*signal*/) {}

TEST(Fork, ChildHasTheHandlerThatARunningCommandSetAside) {
    const TempDir directory;
    const std::string end = directory / "end";
    struct sigaction own {
    }, before{};
    own.sa_handler = onChild;
    ASSERT_EQ(::sigaction(SIGCHLD, &own, &before), 0);
    const auto hasHandler = [] {
        struct sigaction now {};
        return ::sigaction(SIGCHLD, nullptr, &now) == 0 && now.sa_handler == onChild;
    };
    std::thread runner(
        [&] { EXPECT_EQ(System(("until [ -e " + end + " ]; do sleep 0.01; done").c_str()), 0); });
    EXPECT_TRUE(withinSeconds(30, [&] { return !hasHandler(); }));
    EXPECT_TRUE(holdsInChild([&] { return hasHandler() && System("exit 0") == 0 && hasHandler(); }));
    writeText(end, "");
    runner.join();
    EXPECT_TRUE(hasHandler());
    ::sigaction(SIGCHLD, &before, nullptr);
}

}  // namespace
}  // namespace traiklofox::test
