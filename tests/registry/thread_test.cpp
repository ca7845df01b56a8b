// Many threads in one registry, threads that are cancelled in it, processes forked out of it, and what it may cost.

#include <linux/seccomp.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "registry/open_keys.h"
#include "registry/registry_fixture.h"
#include "registry/shared_state.h"
#include "support/bounded_wait.h"

namespace traiklofox::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class Threads : public StartedRegistryTest {};

/// One thing that a thread may do to the keys that all of them share; true when the results are documented ones.
bool disturb(HKEY parent, Random& random) {
    const std::string name = "k" + std::to_string(random.below(4));
    const std::string path = random.below(2) != 0 ? name + "\\below" : name;
    const std::string value = "a value with a name of some length " + std::to_string(random.below(3));
    char buffer[300];
    DWORD size = sizeof buffer - 1;
    HKEY opened = 0;
    DWORD disposition = 0;
    if (random.below(6) == 0) (void)RegDeleteKey(parent, path.c_str());
    const LONG listed = RegEnumKey(parent, random.below(6), buffer, sizeof buffer);
    if (RegCreateKeyEx(parent, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &opened, &disposition) !=
        0)
        return listed == 0 || listed == 259;
    LONG set = 0;
    for (int i = 0; i < 3 && set == 0; ++i) set = setText(opened, value, std::to_string(random.below(1000)));
    const LONG read =
        RegEnumValue(opened, random.below(3), buffer, &size, nullptr, nullptr, nullptr, nullptr);
    if (random.below(4) == 0) (void)RegDeleteValue(opened, value.c_str());
    return (set == 0 || set == -1) && (read == 0 || read == -1 || read == 259) && RegCloseKey(opened) == 0;
}

TEST_F(Threads, ManyAtOnceKeepTheRegistryWhole) {
    constexpr unsigned kThreads = 5;
    std::atomic<bool> stop{false};
    std::vector<int> last(kThreads, 0);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            Random random{std::mt19937(t)};
            const OpenKey own = OpenKey::createBelow(key, "own" + std::to_string(t));
            while (!stop) {
                ASSERT_TRUE(disturb(key, random));
                ASSERT_EQ(setText(own, "v", std::to_string(++last[t])), 0);
                ASSERT_EQ(textOf(own, "v"), std::to_string(last[t]));
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
    const FileKeys keys = fileKeys();
    for (unsigned t = 0; t < kThreads; ++t) {
        const std::string own = "\\own" + std::to_string(t);
        EXPECT_EQ(keys.at(kExamplePath + own).at("v").data, std::to_string(last[t]));
        EXPECT_EQ(peer.ask({"get", kExample + own, "v"}), std::to_string(last[t]));
    }
    EXPECT_EQ(keys.at(kExamplePath).count("peer0_1"), 1u);
    EXPECT_EQ(otherFiles(), Names{});
}

// Apart from the loop, since a sanitizer forgets to clear the stack of a frame that a cancellation leaves.
[[gnu::noinline]] void setAndFlush(HKEY key) {
    static std::atomic<int> count{0};
    (void)setText(key, "cancelled", std::to_string(++count));
    (void)RegFlushKey(key);
}
void* setAndFlushForEver(void* handle) {
    for (;;) {
        setAndFlush(*static_cast<HKEY*>(handle));
        pthread_testcancel();
    }
}

TEST_F(Threads, ACancelledOneLeavesTheRegistryUsable) {
    Peer peer;
    Random random;
    HKEY handle = key;
    for (int i = 0; i < 50; ++i) {
        pthread_t thread{};
        ASSERT_EQ(::pthread_create(&thread, nullptr, setAndFlushForEver, &handle), 0);
        std::this_thread::sleep_for(
            std::chrono::microseconds{random.below(2000)});  // a random moment of its work
        ASSERT_EQ(::pthread_cancel(thread) + ::pthread_join(thread, nullptr), 0);
        peer.set("v", std::to_string(i));
        ASSERT_EQ(textAt(kExample, "v"), std::to_string(i));
    }
    EXPECT_EQ(otherFiles(), Names{});
}

/// Forks; the child works on the registry, and is killed if it hangs. Returns its id.
pid_t forkWorker(const std::string& value) {
    const pid_t child = ::fork();
    if (child != 0) return child;
    ::alarm(20);
    const OpenKey made = OpenKey::createBelow(OpenKey(kExample), "forked");
    const bool done = setText(made, value, value) == 0 && RegFlushKey(made) == 0;
    ::_exit(done && textAt(kExample, "Name") == "primary" ? 0 : 1);
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
            Random random{std::mt19937(t)};
            while (!stop) {
                (void)textAt(kExample, "Name");
                if (random.below(100) == 0) (void)disturb(key, random);
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        const std::string value = "c" + std::to_string(i);
        ASSERT_EQ(waitFor(forkWorker(value)), 0) << i;
        ASSERT_EQ(textAt("software\\example\\forked", value), value);
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
}

// The same, with a thread that is held up in the very middle of an operation.
TEST_F(Threads, AForkWaitsForThoseWhoAreInAKey) {
    for (const char* path : {"", kExample}) {
        const auto inside = registry::keyOf(OpenKey(path));
        std::atomic<bool> held{false}, forking{false}, forked{false};
        std::thread thread([&] {
            {
                const foundation::LockGuard guard(inside->lock);
                held = true;
                EXPECT_TRUE(withinSeconds(30, [&] { return forking.load(); }));
                std::this_thread::sleep_for(50ms);  // a wide window for a fork that does not wait
            }
            // The thread sanitizer blames a child for its parent's threads that have ended unjoined.
            EXPECT_TRUE(withinSeconds(30, [&] { return forked.load(); }));
        });
        ASSERT_TRUE(withinSeconds(30, [&] { return held.load(); }));
        forking = true;
        EXPECT_EQ(waitFor(forkWorker("in a key")), 0);
        forked = true;
        thread.join();
    }
}

TEST_F(Threads, TheExclusiveLockKeepsOthersAndForkedChildrenOutUntilItsLastRelease) {
    Peer peer;
    EXPECT_EQ(peer.get("Name"), "primary");
    ASSERT_EQ(RegLockCache(REG_LOCK_EXCLUSIVE) + RegLockCache(REG_LOCK_EXCLUSIVE) + RegLockRegistryFile() +
                  RegLockCache(REG_LOCK_SHARED),
              4);
    EXPECT_EQ(registry::ShmStruct()->lockHolder.load(), static_cast<std::uint32_t>(::getpid()));
    setText(key, "v", "1");
    EXPECT_EQ(RegFlushKey(key), 0) << "who holds the lock may write";
    const auto release = [] { return RegUnlockCache(REG_LOCK_EXCLUSIVE) + RegUnlockRegistryFile(); };
    const pid_t releaser = ::fork();
    if (releaser == 0) ::_exit(release());
    EXPECT_EQ(waitFor(releaser), 0);
    const pid_t worker = forkWorker("waited");
    peer.tell({"set", kExample, "w", "2"});
    std::thread([&] { EXPECT_EQ(release(), 0) << "another thread's"; }).join();
    EXPECT_EQ(RegUnlockCache(REG_LOCK_SHARED) + release(), 3);
    EXPECT_EQ(peer.process.readLine(20ms), std::nullopt) << "let in before the last release";
    EXPECT_EQ(::waitpid(worker, nullptr, WNOHANG), 0);
    EXPECT_EQ(inFile("w"), std::nullopt);
    EXPECT_EQ(RegUnlockCache(REG_LOCK_EXCLUSIVE), 1);
    EXPECT_EQ(peer.answer(), "0");
    EXPECT_EQ(waitFor(worker), 0);
    EXPECT_EQ(textAt("software\\example\\forked", "waited"), "waited");
    const auto noLock = static_cast<RegLockOp_t>(2);
    EXPECT_EQ(release() + RegLockCache(noLock) + RegUnlockCache(noLock), 0);
    EXPECT_EQ(registry::ShmStruct()->lockHolder.load(), 0u);
}

TEST_F(Threads, WhoHasTheLockAmongProcessesAloneMayLookUpWhileAnotherThreadDoes) {
    ASSERT_EQ(RegLockRegistryFile(), 1);
    std::thread other([] { EXPECT_EQ(textAt(kExample, "Name"), "primary"); });
    std::this_thread::sleep_for(50ms);  // a wide window for one that waits with the other lock in its hands
    EXPECT_EQ(textAt(kExample, "Name"), "primary");
    EXPECT_EQ(RegUnlockRegistryFile(), 1);
    other.join();
    EXPECT_EQ(registry::ShmStruct()->lockHolder.load(), 0u);
}

class Starting : public RegistryTest {};

TEST_F(Starting, OtherThreadsAndForksWaitUntilTheFirstHasRead) {
    Peer holder;
    ASSERT_EQ(holder.ask({"lock"}), "1");
    std::vector<std::thread> threads;
    threads.emplace_back([] { InitRegistry(0, true); });
    ASSERT_TRUE(withinSeconds(30, [] { return std::atomic_ref(lRegReady).load() == 1; }));
    std::atomic<int> begun{0};
    threads.emplace_back([&] { EXPECT_TRUE(++begun > 0 && textAt(kExample, "Name") == "primary"); });
    threads.emplace_back([&] { EXPECT_TRUE(++begun > 0 && waitFor(forkWorker("started")) == 0); });
    ASSERT_TRUE(withinSeconds(30, [&] { return begun == 2; }));
    ASSERT_EQ(holder.ask({"unlock"}), "1");
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(textAt("software\\example\\forked", "started"), "started");
}

class Cost : public StartedRegistryTest {
  protected:
    void SetUp() override {
        if (kSanitized) GTEST_SKIP() << "a sanitizer makes system calls, and allocates, on its own account";
        StartedRegistryTest::SetUp();
    }
};

TEST_F(Cost, LookUpMakesNoSystemCall) {
    setText(key, "name", "value");
    OpenKey::createBelow(key, "deep\\down");
    ASSERT_EQ(RegFlushKey(key), 0);
    const pid_t child = ::fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        // From here on the kernel kills the process for any call but read, write and exit.
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT);
        LONG failed = 0;
        for (int i = 0; i < 1'000; ++i) {
            HKEY opened = 0;
            char text[16];
            DWORD size = sizeof text;
            failed |= RegOpenKeyEx(key, "deep\\DOWN", 0, KEY_READ, &opened) | RegCloseKey(opened);
            failed |= RegQueryValueEx(key, "name", nullptr, nullptr, reinterpret_cast<BYTE*>(text), &size);
        }
        syscall(SYS_exit, failed == 0 ? 0 : 1);
    }
    EXPECT_EQ(waitFor(child), 0);
}

TEST_F(Cost, ValuesAndDeepPathsTakeFewBytesOfMemory) {
    constexpr size_t kKeys = 2'000;
    constexpr size_t kValues = 5;
    std::string text = keyLine(kExample);
    for (size_t number = 0; number < kKeys; ++number) {
        text += keyLine(std::string(kExample) + "\\group\\key" + std::to_string(number));
        for (size_t value = 0; value < kValues; ++value)
            text += valueLine("value" + std::to_string(value), "a text of common length");
    }
    const size_t before = mallinfo2().uordblks;
    replaceFile(text);
    ASSERT_TRUE(keyExists(std::string(kExample) + "\\group\\key1999"));
    EXPECT_LT((mallinfo2().uordblks - before) / (kKeys * kValues), 400u);

    constexpr size_t kDepth = 1'900, kLines = 50;
    text = keyLine(kExample);
    for (size_t line = 0; line < kLines; ++line) {
        std::string path = std::to_string(line);
        while (path.size() < 2 * kDepth) path += "\\d";
        text += keyLine(path);
    }
    const size_t shallow = mallinfo2().uordblks;
    replaceFile(text);
    ASSERT_TRUE(keyExists("49\\d"));
    EXPECT_LT((mallinfo2().uordblks - shallow) / (kLines * kDepth), 400u) << "a key on the way to another";
}

}  // namespace
}  // namespace traiklofox::test
