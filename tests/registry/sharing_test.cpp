// Several processes on one registry, and learning of a change by polling.

#include <sys/sem.h>
#include <sys/shm.h>
#include <traiklofox/events.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>
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

TEST_F(Sharing, AChangeNotYetWrittenIsMergedWithWhatAnotherWrites) {
    Peer peer;
    setText(key, "both", "mine");
    setText(key, "mine", "1");
    peer.set("both", "theirs");
    peer.set("theirs", "2");
    EXPECT_EQ(RegUpdateCache(), 1);
    EXPECT_EQ(RegUpdateCache(), 0);
    EXPECT_EQ(textOf(key, "both"), "mine");
    // A set that equals a copy gone stale is a change all the same.
    ASSERT_EQ(RegFlushKey(key), 0);
    peer.set("both", "theirs");
    EXPECT_EQ(peer.ask({"delete", kExample, "mine"}), "0");
    EXPECT_EQ(setText(key, "both", "mine") + setText(key, "mine", "1"), 0);
    peer.set("later", "3");
    ASSERT_EQ(RegFlushKey(key), 0);
    EXPECT_EQ(RegUpdateCache(), 0) << "writing has read what the other wrote";
    for (const auto& [name, text] :
         {std::pair{"both", "mine"}, {"mine", "1"}, {"theirs", "2"}, {"later", "3"}})
        EXPECT_TRUE(inFile(name) == text && peer.get(name) == text) << name;
}

TEST_F(Sharing, AValueThatTheFileCannotHoldStaysHereUntilAnotherHasTheName) {
    Peer peer;
    constexpr DWORD kBinary = 3;
    const auto setBinary = [&](const char* name) {
        return RegSetValueEx(key, name, 0, kBinary, reinterpret_cast<const BYTE*>("x"), 1);
    };
    ASSERT_EQ(setBinary("odd") + setBinary("taken") + RegFlushKey(key), 0);
    peer.set("taken", "theirs");
    setText(key, "v", "1");
    ASSERT_EQ(RegFlushKey(key), 0);
    EXPECT_EQ(inFile("taken"), "theirs");
    DWORD type = REG_NONE, size = 0;
    EXPECT_EQ(RegQueryValueEx(key, "odd", nullptr, &type, nullptr, &size), 0);
    EXPECT_EQ(type, kBinary);
}

TEST_F(Sharing, ASharedLockHoldsBackTheWritersOfItsProcessAlone) {
    Peer peer;
    ASSERT_EQ(RegLockCache(REG_LOCK_SHARED), 1);
    std::thread([] { EXPECT_EQ(RegLockCache(REG_LOCK_SHARED) + RegUnlockCache(REG_LOCK_SHARED), 2); }).join();
    std::atomic<bool> entered{false};
    std::thread writer([&] {
        EXPECT_EQ(RegLockCache(REG_LOCK_EXCLUSIVE), 1);
        entered = true;
        EXPECT_EQ(RegUnlockCache(REG_LOCK_EXCLUSIVE), 1);
    });
    peer.set("v", "1");
    EXPECT_FALSE(entered);
    EXPECT_EQ(RegUnlockCache(REG_LOCK_SHARED), 1);
    writer.join();
}

TEST_F(Sharing, ARemovedSemaphoreIsMadeAnew) {
    Peer peer;
    EXPECT_EQ(peer.get("Name"), "primary");
    ASSERT_EQ(::semctl(semaphore(), 0, IPC_RMID), 0);
    peer.set("v", "1");
    EXPECT_EQ(textAt(kExample, "v"), "1");
    // Removed under a holder, with another waiting.
    ASSERT_EQ(RegLockCache(REG_LOCK_EXCLUSIVE), 1);
    const int held = semaphore();
    peer.tell({"set", kExample, "x", "3"});
    ASSERT_TRUE(withinSeconds(30, [&] { return ::semctl(held, 0, GETNCNT) == 1; }));
    ASSERT_EQ(::semctl(held, 0, IPC_RMID), 0);
    EXPECT_EQ(RegUnlockCache(REG_LOCK_EXCLUSIVE), 1);
    EXPECT_EQ(peer.answer(), "0");
    EXPECT_EQ(textAt(kExample, "x"), "3");
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(Sharing, WhatNoStampTellsOfIsMergedAllTheSame) {
    setText(key, "v", "1");
    ASSERT_EQ(RegFlushKey(key), 0);
    const int page = ::shmget(::ftok("/usr/lib/tarnwell/twml_data.dat", 1), 1, 0);
    ASSERT_EQ(::shmctl(page, IPC_RMID, nullptr), 0);
    Peer peer;
    peer.set("w", "on a page of its own");
    setText(key, "v", "2");
    ASSERT_EQ(RegFlushKey(key), 0);
    EXPECT_EQ(inFile("w"), "on a page of its own");
    writeText(file(), fileText() + valueLine("x", "by hand"));
    setText(key, "v", "3");
    ASSERT_EQ(RegFlushKey(key), 0);
    EXPECT_EQ(inFile("v").value_or("") + inFile("x").value_or(""), "3by hand");
}

TEST_F(Sharing, ATemporaryFileIsLeftAloneWhileItIsLockedWhateverItsMakersId) {
    const std::string name = ".kztmp.99999999.0-0";  // of a process that is not seen from here
    {
        Peer maker;
        EXPECT_EQ(maker.ask({"lockFile", directory() + "/" + name}), "0");
        EXPECT_EQ(WriteRegistry(), 1);
        EXPECT_EQ(otherFiles(), Names{name});
    }
    EXPECT_EQ(WriteRegistry(), 1);
    EXPECT_EQ(otherFiles(), Names{});
}

TEST_F(Sharing, ABumpedVersionIsReadAgainAndShown) {
    Peer peer;
    const std::uint32_t stamp = ShmStruct()->stamp.load();
    writeText(file(), fileText() + valueLine("v", "edited"));
    EXPECT_EQ(textAt(kExample, "v"), std::nullopt);
    RegBumpVersion();
    EXPECT_EQ(textAt(kExample, "v"), "edited");
    {
        const CapturedStdout printed;
        RegDumpVersion();
        RegSetCacheLockName(nullptr);  // and those that are kept for their callers
        RegWatchFile(0, nullptr, nullptr);
        DumpRegistryCache();
        std::vector<RegKey*> keys;
        EXPECT_EQ(RegKeyWakeup(&keys), 0);
        EXPECT_EQ(printed.text(), "Lock owner PID: 0\nRegistry version stamp: " + std::to_string(stamp + 1) +
                                      "\nLast PID to write Registry: " + std::to_string(::getpid()) + "\n");
    }
    peer.set("v", "x");
    EXPECT_EQ(ShmStruct()->stamp.load(), stamp + 2);
    EXPECT_EQ(ShmStruct()->lastWriter.load(), static_cast<std::uint32_t>(peer.process.pid()));
}

class Notification : public Sharing {
  protected:
    void SetUp() override {
        Sharing::SetUp();
        if (IsSkipped()) return;
        event = static_cast<Event*>(CreateEvent(nullptr, FALSE, FALSE, nullptr));
        ASSERT_EQ(poll(key, event), 0);
    }
    void TearDown() override {
        if (event == nullptr) return;
        event->SetEventData(-1);
        EXPECT_EQ(event->GetRefCount(), 1);
        CloseHandle(event);
    }
    static LONG poll(HKEY watched, Handle* tied) {
        return RegNotifyChangeKeyValue(watched, FALSE, 0, tied, TRUE);
    }
    /// Polls; true when the event is signalled after that. The signal is used up.
    bool tellsOfAChange() const {
        EXPECT_EQ(poll(key, event), 0);
        Handle* handle = event;
        return WaitForMultipleObjectsEx(1, &handle, FALSE, 0, FALSE) == WAIT_OBJECT_0;
    }
    Event* event = nullptr;
};

TEST_F(Notification, ThePollAfterAChangeSignals) {
    EXPECT_FALSE(tellsOfAChange());
    setText(key, "v", "1");
    EXPECT_FALSE(event->EventIsSignaled()) << "the change alone signals nothing";
    EXPECT_TRUE(tellsOfAChange());
    setText(key, "v", "1");
    EXPECT_FALSE(tellsOfAChange()) << "nothing became different";
    EXPECT_EQ(RegDeleteValue(key, "v"), 0);
    EXPECT_TRUE(tellsOfAChange());
    ASSERT_EQ(RegFlushKey(key), 0);
    EXPECT_FALSE(tellsOfAChange());
    OpenKey::createBelow(key, "sub");
    EXPECT_TRUE(tellsOfAChange());
    EXPECT_EQ(RegDeleteKey(key, "sub"), 0);
    EXPECT_TRUE(tellsOfAChange());
    // The tie used up: a change before the next tie is not missed.
    event->SetEventData(-1);
    setText(key, "v", "2");
    EXPECT_FALSE(tellsOfAChange());
    EXPECT_TRUE(tellsOfAChange());
    EXPECT_FALSE(tellsOfAChange());
    // A tie holds one reference, and is refused to what is no event or no key.
    const OpenKey doomed = OpenKey::createBelow(key, "doomed");
    EXPECT_EQ(poll(doomed, event) + RegUnnotifyChangeKeyValue(key, event) + RegDeleteKey(key, "doomed"), 0);
    EXPECT_EQ(event->GetRefCount(), 2);
    expectResults({
        {"a thread", -1, poll(key, GetCurrentThread())},
        {"no handle", -1, poll(key, INVALID_HANDLE_VALUE)},
        {"an unknown key", -1, poll(kUnknown, event)},
        {"a deleted key", -1, poll(doomed, event)},
    });
}

TEST_F(Notification, EachSeesTheOthersChangesAndIsToldOfThem) {
    Peer peer;
    const std::string sub = kExample + std::string("\\sub");
    Peer third;
    const struct {
        Names change;
        std::string value, subExists;
    } kSteps[] = {{{"set", kExample, "v", "1"}, "1", "0"},
                  {{"set", kExample, "v", "2"}, "2", "0"},
                  {{"delete", kExample, "v"}, "(none)", "0"},
                  {{"create", kExample, "sub"}, "(none)", "1"},
                  {{"deleteKey", kExample, "sub"}, "(none)", "0"}};
    for (const auto& step : kSteps) {
        EXPECT_EQ(peer.ask(step.change), "0");
        EXPECT_EQ(third.get("v") + third.ask({"exists", sub}), step.value + step.subExists) << step.change[0];
        EXPECT_TRUE(tellsOfAChange()) << step.change[0];
        EXPECT_FALSE(tellsOfAChange()) << step.change[0];
        EXPECT_EQ(textOf(key, "v").value_or("(none)") + std::to_string(keyExists(sub)),
                  step.value + step.subExists);
    }
    EXPECT_EQ(peer.ask({"set", "software", "elsewhere", "1"}), "0");
    EXPECT_FALSE(tellsOfAChange()) << "another key";
}

TEST_F(Notification, TheSynchronousCallReturnsAfterAChange) {
    Peer peer;
    for (const bool byAnother : {false, true}) {
        std::atomic<bool> returned{false};
        std::thread waiter([&] {
            EXPECT_EQ(RegNotifyChangeKeyValue(key, FALSE, 0, nullptr, FALSE), 0);
            returned = true;
        });
        // When it ties is not to be seen from outside; a later change comes in any case.
        int change = 0;
        EXPECT_TRUE(withinSeconds(30, [&] {
            const std::string text = std::to_string(++change);
            byAnother ? peer.set("theirs", text) : (void)setText(key, "mine", text);
            return returned.load();
        }));
        waiter.join();
    }
}

}  // namespace
}  // namespace traiklofox::test
