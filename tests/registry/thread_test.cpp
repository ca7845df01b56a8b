// Many threads in one registry, threads that are cancelled in it, and processes forked out of it.

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>

#include "registry/open_keys.h"
#include "registry/registry_fixture.h"
#include "support/bounded_wait.h"

namespace traiklofox::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Random = std::mt19937;

class Threads : public RegistryTest {
  protected:
    void SetUp() override {
        RegistryTest::SetUp();
        if (!IsSkipped()) key = OpenKey(kExample);
    }
    OpenKey key;
};

bool isKnown(LONG result) {
    return result == 0 || result == -1 || result == 13 || result == 234 || result == 259;
}

/// One thing that a thread may do to the keys that all of them share.
LONG disturb(HKEY parent, Random& random) {
    const std::string name = "k" + std::to_string(random() % 4);
    const std::string path = random() % 2 ? name + "\\below" : name;
    char buffer[300];
    DWORD size = sizeof buffer - 1;
    HKEY opened = 0;
    DWORD disposition = 0;
    switch (random() % 6) {
        case 0: return RegDeleteKey(parent, path.c_str());
        case 1: return RegEnumKey(parent, random() % 4, buffer, sizeof buffer);
        case 2:
            return RegQueryInfoKey(parent, nullptr, nullptr, nullptr, &size, nullptr, nullptr, nullptr,
                                   nullptr, nullptr, nullptr, nullptr);
        default: break;
    }
    LONG result =
        RegCreateKeyEx(parent, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &opened, &disposition);
    if (result != 0) return result;
    const std::string value = "a value with a name of some length " + std::to_string(random() % 3);
    for (int i = 0; i < 3; ++i) {
        result = setText(opened, value.c_str(), std::to_string(random()));
        if (!isKnown(result)) break;
        result = RegEnumValue(opened, random() % 3, buffer, &size, nullptr, nullptr, nullptr, nullptr);
        if (random() % 4 == 0) result = RegDeleteValue(opened, value.c_str());
    }
    return RegCloseKey(opened) == 0 ? result : -2;
}

TEST_F(Threads, ManyAtOnceKeepTheRegistryWhole) {
    constexpr size_t kThreads = 5;
    std::atomic<bool> stop{false};
    std::vector<int> last(kThreads, 0);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            Random random(static_cast<Random::result_type>(t + 1));
            const OpenKey own = OpenKey::createBelow(key, "own" + std::to_string(t));
            while (!stop) {
                const LONG result = disturb(key, random);
                if (!isKnown(result)) ADD_FAILURE() << result;
                ASSERT_EQ(setText(own, "v", std::to_string(++last[t])), 0);
                ASSERT_EQ(textOf(own, "v"), std::to_string(last[t]));
                if (random() % 4 == 0) {
                    ASSERT_EQ(RegFlushKey(own), 0);
                }
            }
            ASSERT_EQ(RegFlushKey(own), 0);
        });
    }
    Peer peer;
    int written = 0;
    for (const auto end = Clock::now() + 2s; Clock::now() < end;) {
        EXPECT_EQ(peer.ask({"setMany", kExample, "peer" + std::to_string(written++ % 50) + "_", "2"}), "0");
        (void)RegUpdateCache();
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_GT(written, 2);
    const FileKeys keys = fileKeys();
    for (size_t t = 0; t < kThreads; ++t) {
        const std::string own = "\\own" + std::to_string(t);
        EXPECT_EQ(keys.at(kExamplePath + own).at("v").data, std::to_string(last[t]));
        EXPECT_EQ(peer.get(kExample + own, "v"), std::to_string(last[t]));
    }
    EXPECT_EQ(keys.at(kExamplePath).count("peer0_1"), 1u);
    EXPECT_EQ(otherFiles(), std::vector<std::string>{});
}

void* setAndFlushForEver(void* handle) {
    const HKEY key = *static_cast<HKEY*>(handle);
    for (int i = 0;; ++i) {
        (void)setText(key, "cancelled", std::to_string(i));
        (void)RegFlushKey(key);
        pthread_testcancel();
    }
}

TEST_F(Threads, ACancelledOneLeavesTheRegistryUsable) {
    Peer peer;
    Random random(7);
    HKEY handle = key;
    for (int i = 0; i < 50; ++i) {
        pthread_t thread{};
        ASSERT_EQ(::pthread_create(&thread, nullptr, setAndFlushForEver, &handle), 0);
        std::this_thread::sleep_for(
            std::chrono::microseconds{random() % 2000});  // a random moment of its work
        ASSERT_EQ(::pthread_cancel(thread), 0);
        void* result = nullptr;
        ASSERT_EQ(::pthread_join(thread, &result), 0);
        EXPECT_EQ(result, PTHREAD_CANCELED);
        setText(key, "v", std::to_string(i));
        ASSERT_EQ(RegFlushKey(key), 0);
        ASSERT_EQ(peer.get(kExample, "v"), std::to_string(i));
    }
    EXPECT_EQ(otherFiles(), std::vector<std::string>{});
}

/// Forks; the child works on the registry, and is killed if it hangs. Returns its id.
pid_t forkWorker(const std::string& value) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    ::alarm(20);
    const OpenKey example(kExample);
    const OpenKey made = OpenKey::createBelow(example, "forked");
    const bool done = setText(made, value.c_str(), value) == 0 && RegFlushKey(made) == 0 &&
                      textAt(kExample, "Name") == "primary";
    ::_exit(done ? 0 : 1);
}
int waitFor(pid_t child) {
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return status;
}

TEST_F(Threads, AForkedChildCanWorkWhateverItsParentsThreadsWereDoing) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    // A sanitizer's allocator does not survive a fork while another thread is in it.
    for (unsigned t = 0; t < (kSanitized ? 0 : 3); ++t) {
        threads.emplace_back([&, t] {
            Random random(t + 1);
            while (!stop) {
                (void)textAt(kExample, "Name");
                if (random() % 100 == 0) (void)disturb(key, random);
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        const auto value = "c" + std::to_string(i);
        ASSERT_EQ(waitFor(forkWorker(value)), 0) << i;
        ASSERT_EQ(textAt("software\\example\\forked", value.c_str()), value);
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
}

// The same, with a thread that is held up in the very middle of an operation.
TEST_F(Threads, AForkWaitsForThoseWhoAreInAKey) {
    for (const char* path : {"", kExample}) {
        const OpenKey opened(path);
        const auto inside = registry::keyOf(opened);
        std::atomic<bool> held{false};
        std::atomic<bool> forking{false};
        std::thread thread([&] {
            const foundation::LockGuard guard(inside->lock);
            held = true;
            EXPECT_TRUE(withinSeconds(30, [&] { return forking.load(); }));
            std::this_thread::sleep_for(50ms);  // for the fork to be under way
        });
        ASSERT_TRUE(withinSeconds(30, [&] { return held.load(); }));
        forking = true;
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(20);
            ::_exit(setText(key, "v", "1") == 0 && textAt(kExample, "Name") == "primary" ? 0 : 1);
        }
        EXPECT_EQ(waitFor(child), 0);
        thread.join();
    }
}

TEST_F(Threads, AForkedChildDoesNotHaveItsParentsLock) {
    Peer peer;
    EXPECT_EQ(peer.get(kExample, "Name"), "primary");
    ASSERT_EQ(RegLockCache(REG_LOCK_EXCLUSIVE), 1);
    const pid_t releaser = ::fork();
    if (releaser == 0) ::_exit(RegUnlockCache(REG_LOCK_EXCLUSIVE) + RegUnlockRegistryFile());
    EXPECT_EQ(waitFor(releaser), 0);
    const pid_t worker = forkWorker("waited");
    peer.tell({"set", kExample, "v", "1"});
    EXPECT_EQ(peer.process().readLine(20ms), std::nullopt);
    EXPECT_EQ(::waitpid(worker, nullptr, WNOHANG), 0);
    EXPECT_EQ(RegUnlockCache(REG_LOCK_EXCLUSIVE), 1);
    EXPECT_EQ(peer.answer(), "0");
    EXPECT_EQ(waitFor(worker), 0);
    EXPECT_EQ(textAt("software\\example\\forked", "waited"), "waited");
}

class Forking : public RegistryTest {};

TEST_F(Forking, WhileAnotherThreadStartsTheRegistryWaitsForTheStart) {
    Peer holder;
    ASSERT_EQ(holder.ask({"lock"}), "1");
    std::thread first([] { InitRegistry(0, true); });
    ASSERT_TRUE(withinSeconds(30, [] { return std::atomic_ref(lRegReady).load() == 1; }));
    std::atomic<bool> forking{false};
    std::thread second([&] {
        forking = true;
        EXPECT_EQ(waitFor(forkWorker("started")), 0);
    });
    ASSERT_TRUE(withinSeconds(30, [&] { return forking.load(); }));
    ASSERT_EQ(holder.ask({"unlock"}), "1");
    first.join();
    second.join();
    EXPECT_EQ(textAt("software\\example\\forked", "started"), "started");
}

}  // namespace
}  // namespace traiklofox::test
