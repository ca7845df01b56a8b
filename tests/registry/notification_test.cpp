// Learning of a change by polling.

#include <traiklofox/events.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include <atomic>
#include <thread>

#include "registry/registry_fixture.h"
#include "support/bounded_wait.h"

namespace traiklofox::test {
namespace {

class Notification : public StartedRegistryTest {
  protected:
    void SetUp() override {
        StartedRegistryTest::SetUp();
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
    EXPECT_FALSE(tellsOfAChange());
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
}

TEST_F(Notification, TellsOfWhatOtherProcessesDid) {
    Peer peer;
    for (const Names& change :
         {Names{"set", kExample, "v", "1"}, Names{"set", kExample, "v", "2"}, Names{"delete", kExample, "v"},
          Names{"create", kExample, "sub"}, Names{"deleteKey", kExample, "sub"}}) {
        (void)peer.ask(change);
        EXPECT_TRUE(tellsOfAChange()) << change[0];
        EXPECT_FALSE(tellsOfAChange()) << change[0];
    }
    EXPECT_EQ(peer.ask({"set", "software", "elsewhere", "1"}), "0");
    EXPECT_FALSE(tellsOfAChange()) << "another key";
}

TEST_F(Notification, ATieHoldsOneReferenceAndIsRefusedToWhatIsNoEventOrNoKey) {
    EXPECT_EQ(event->GetRefCount(), 2);
    setText(key, "v", "1");
    EXPECT_TRUE(tellsOfAChange());
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
            if (byAnother)
                peer.set("theirs", std::to_string(++change));
            else
                setText(key, "mine", std::to_string(++change));
            return returned.load();
        }));
        waiter.join();
    }
}

}  // namespace
}  // namespace traiklofox::test
