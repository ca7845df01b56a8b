// Several processes on one registry.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "registry/registry_fixture.h"
#include "registry/shared_state.h"
#include "support/bounded_wait.h"
#include "support/captured_output.h"

namespace traiklofox::test {
namespace {

using namespace std::chrono_literals;
using registry::ShmStruct;

class Sharing : public StartedRegistryTest {};

int semaphore() {
    return ::semget(::ftok("/usr/lib/tarnwell/twml_data.dat", 1), 1, 0);
}

TEST_F(Sharing, EachSeesTheOthersChangesAtItsNextLookUp) {
    Peer one;
    Peer two;
    one.set("v", "1");
    EXPECT_EQ(two.get("v"), "1");
    EXPECT_EQ(textAt(kExample, "v"), "1");
    two.set("v", "2");
    EXPECT_EQ(one.get("v"), "2");
    EXPECT_EQ(one.ask({"create", kExample, "sub"}), "1");
    EXPECT_EQ(two.ask({"exists", "software\\example\\sub"}), "1");
    EXPECT_EQ(two.ask({"deleteKey", kExample, "sub"}), "0");
    EXPECT_EQ(one.ask({"exists", "software\\example\\sub"}), "0");
    EXPECT_EQ(one.ask({"delete", kExample, "v"}), "0");
    EXPECT_EQ(two.get("v"), "(none)");
    EXPECT_EQ(textAt(kExample, "v"), std::nullopt);
}

TEST_F(Sharing, AChangeNotYetWrittenIsMergedWithWhatAnotherWrites) {
    Peer peer;
    setText(key, "both", "mine");
    setText(key, "mine", "1");
    peer.set("both", "theirs");
    peer.set("theirs", "2");
    EXPECT_EQ(RegUpdateCache(), 1);
    EXPECT_EQ(RegUpdateCache(), 0);
    EXPECT_EQ(textOf(key, "both"), "mine");
    peer.set("later", "3");
    ASSERT_EQ(RegFlushKey(key), 0);
    EXPECT_EQ(RegUpdateCache(), 0) << "writing has read what the other wrote";
    for (const auto& [name, text] :
         {std::pair{"both", "mine"}, {"mine", "1"}, {"theirs", "2"}, {"later", "3"}}) {
        EXPECT_EQ(inFile(name), text);
        EXPECT_EQ(peer.get(name), text);
    }
}

TEST_F(Sharing, TheExclusiveLockKeepsOthersOutUntilItsLastRelease) {
    Peer peer;
    EXPECT_EQ(peer.get("Name"), "primary");
    ASSERT_EQ(RegLockCache(REG_LOCK_EXCLUSIVE), 1);
    ASSERT_EQ(RegLockCache(REG_LOCK_EXCLUSIVE), 1);
    ASSERT_EQ(RegLockRegistryFile(), 1);
    ASSERT_EQ(RegLockCache(REG_LOCK_SHARED), 1);
    EXPECT_EQ(ShmStruct()->lockHolder.load(), static_cast<std::uint32_t>(::getpid()));
    setText(key, "v", "1");
    EXPECT_EQ(RegFlushKey(key), 0) << "who holds the lock may write";
    peer.tell({"set", kExample, "w", "2"});
    std::thread([] {
        EXPECT_EQ(RegUnlockCache(REG_LOCK_EXCLUSIVE), 0) << "another thread's";
        EXPECT_EQ(RegUnlockRegistryFile(), 0);
    }).join();
    EXPECT_EQ(RegUnlockCache(REG_LOCK_SHARED), 1);
    EXPECT_EQ(RegUnlockCache(REG_LOCK_EXCLUSIVE), 1);
    EXPECT_EQ(RegUnlockRegistryFile(), 1);
    EXPECT_EQ(peer.process().readLine(20ms), std::nullopt) << "let in before the last release";
    EXPECT_EQ(inFile("w"), std::nullopt);
    EXPECT_EQ(RegUnlockCache(REG_LOCK_EXCLUSIVE), 1);
    EXPECT_EQ(peer.answer(), "0");
    const auto other = static_cast<RegLockOp_t>(2);
    EXPECT_EQ(RegUnlockCache(REG_LOCK_EXCLUSIVE) + RegUnlockRegistryFile() + RegLockCache(other) +
                  RegUnlockCache(other),
              0);
    EXPECT_EQ(ShmStruct()->lockHolder.load(), 0u);
}

TEST_F(Sharing, ASharedLockHoldsBackTheWritersOfItsProcessAlone) {
    ASSERT_EQ(RegLockCache(REG_LOCK_SHARED), 1);
    std::thread([] { EXPECT_EQ(RegLockCache(REG_LOCK_SHARED) + RegUnlockCache(REG_LOCK_SHARED), 2); }).join();
    std::atomic<bool> entered{false};
    std::thread writer([&] {
        EXPECT_EQ(RegLockCache(REG_LOCK_EXCLUSIVE), 1);
        entered = true;
        EXPECT_EQ(RegUnlockCache(REG_LOCK_EXCLUSIVE), 1);
    });
    Peer peer;
    peer.set("v", "1");
    EXPECT_FALSE(entered);
    EXPECT_EQ(RegUnlockCache(REG_LOCK_SHARED), 1);
    writer.join();
}

TEST_F(Sharing, AKilledHolderLetsGoAndWhatItPutInPlaceIsSeen) {
    Peer peer;
    ASSERT_EQ(peer.ask({"lock"}), "1");
    writeText(file(), fileText() + valueLine("v", "uncounted"));
    peer.process().kill(SIGKILL);
    ASSERT_EQ(peer.process().wait(), ExitStatus::killedBy(SIGKILL));
    EXPECT_EQ(textAt(kExample, "v"), "uncounted");
    EXPECT_EQ(ShmStruct()->lockHolder.load(), 0u);
}

TEST_F(Sharing, ARemovedSemaphoreIsMadeAnew) {
    Peer peer;
    EXPECT_EQ(peer.get("Name"), "primary");
    ASSERT_EQ(::semctl(semaphore(), 0, IPC_RMID), 0);
    peer.set("v", "1");
    EXPECT_EQ(textAt(kExample, "v"), "1");
    setText(key, "w", "2");
    ASSERT_EQ(RegFlushKey(key), 0);
    EXPECT_EQ(peer.get("w"), "2");

    // Removed under a holder, with another waiting.
    ASSERT_EQ(RegLockCache(REG_LOCK_EXCLUSIVE), 1);
    const int held = semaphore();
    peer.tell({"set", kExample, "x", "3"});
    ASSERT_TRUE(withinSeconds(30, [&] { return ::semctl(held, 0, GETNCNT) == 1; }));
    ASSERT_EQ(::semctl(held, 0, IPC_RMID), 0);
    EXPECT_EQ(RegUnlockCache(REG_LOCK_EXCLUSIVE), 1);
    EXPECT_EQ(peer.answer(), "0");
    EXPECT_EQ(textAt(kExample, "x"), "3");
    EXPECT_EQ(::semctl(semaphore(), 0, GETVAL), 1);
}

TEST_F(Sharing, ABumpedVersionIsReadAgainAndShown) {
    const std::uint32_t stamp = ShmStruct()->stamp.load();
    writeText(file(), fileText() + valueLine("v", "edited"));
    EXPECT_EQ(textAt(kExample, "v"), std::nullopt);
    RegBumpVersion();
    EXPECT_EQ(textAt(kExample, "v"), "edited");
    const CapturedStdout printed;
    RegDumpVersion();
    std::fflush(stdout);
    EXPECT_EQ(printed.text(), "Lock owner PID: 0\nRegistry version stamp: " + std::to_string(stamp + 1) +
                                  "\nLast PID to write Registry: " + std::to_string(::getpid()) + "\n");
    Peer peer;
    peer.set("v", "x");
    EXPECT_EQ(ShmStruct()->stamp.load(), stamp + 2);
    EXPECT_EQ(ShmStruct()->lastWriter.load(), static_cast<std::uint32_t>(peer.process().pid()));
}

}  // namespace
}  // namespace traiklofox::test
