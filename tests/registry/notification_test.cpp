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

class Notification : public RegistryTest {
  protected:
    void SetUp() override {
        RegistryTest::SetUp();
        if (IsSkipped()) return;
        key = OpenKey(kExample);
        event = static_cast<Event*>(CreateEvent(nullptr, FALSE, FALSE, nullptr));
        ASSERT_EQ(poll(), 0);
    }
    void TearDown() override {
        if (event == nullptr) return;
        event->SetEventData(-1);
        CloseHandle(event);
    }
    LONG poll() const { return RegNotifyChangeKeyValue(key, FALSE, 0, event, TRUE); }
    /// Polls; true when the event is signalled after that. The signal, and with it the tie, is used up.
    bool tellsOfAChange() const {
        EXPECT_EQ(poll(), 0);
        Handle* handle = event;
        const DWORD result = WaitForMultipleObjectsEx(1, &handle, FALSE, 0, FALSE);
        EXPECT_TRUE(result == WAIT_OBJECT_0 || result == WAIT_TIMEOUT) << result;
        return result == WAIT_OBJECT_0;
    }
    OpenKey key;
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
    // Changes between a report and the next tie are not missed.
    setText(key, "v", "2");
    EXPECT_TRUE(tellsOfAChange());
    setText(key, "v", "3");
    EXPECT_TRUE(tellsOfAChange());
    ASSERT_EQ(RegFlushKey(key), 0);
    EXPECT_FALSE(tellsOfAChange());
    OpenKey::createBelow(key, "sub");
    EXPECT_TRUE(tellsOfAChange());
    EXPECT_EQ(RegDeleteKey(key, "sub"), 0);
    EXPECT_TRUE(tellsOfAChange());
    EXPECT_FALSE(tellsOfAChange());
}

TEST_F(Notification, TellsOfWhatOtherProcessesDid) {
    Peer peer;
    for (const std::vector<std::string>& change :
         std::vector<std::vector<std::string>>{{"set", kExample, "v", "1"},
                                               {"set", kExample, "v", "2"},
                                               {"deleteValue", kExample, "v"},
                                               {"create", kExample, "sub"},
                                               {"deleteKey", kExample, "sub"}}) {
        (void)peer.ask(change);
        EXPECT_TRUE(tellsOfAChange()) << change[0];
        EXPECT_FALSE(tellsOfAChange()) << change[0];
    }
    peer.set("software", "elsewhere", "1");
    EXPECT_FALSE(tellsOfAChange()) << "another key";
}

TEST_F(Notification, TheTieHoldsOneReferenceUntilItIsUsedUp) {
    EXPECT_EQ(event->GetRefCount(), 2);
    EXPECT_EQ(poll(), 0);
    EXPECT_EQ(event->GetRefCount(), 2);
    setText(key, "v", "1");
    EXPECT_TRUE(tellsOfAChange());
    EXPECT_LE(event->GetRefCount(), 2);
    event->SetEventData(-1);
    EXPECT_EQ(event->GetRefCount(), 1);
    setText(key, "v", "2");
    EXPECT_EQ(poll(), 0);
    EXPECT_EQ(event->GetRefCount(), 2);
    EXPECT_EQ(RegUnnotifyChangeKeyValue(key, event), 0);
    event->SetEventData(-1);
    EXPECT_EQ(event->GetRefCount(), 1);
}

TEST_F(Notification, RefusesWhatIsNoEventAndNoKey) {
    Handle* thread = GetCurrentThread();
    EXPECT_EQ(RegNotifyChangeKeyValue(key, FALSE, 0, thread, TRUE), -1);
    EXPECT_EQ(RegNotifyChangeKeyValue(key, FALSE, 0, INVALID_HANDLE_VALUE, TRUE), -1);
    EXPECT_EQ(RegNotifyChangeKeyValue(0x3ffffff0, FALSE, 0, event, TRUE), -1);
    OpenKey doomed = OpenKey::createBelow(key, "doomed");
    Handle* other = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    EXPECT_EQ(RegNotifyChangeKeyValue(doomed, FALSE, 0, other, TRUE), 0);
    EXPECT_EQ(RegDeleteKey(key, "doomed"), 0);
    EXPECT_EQ(RegNotifyChangeKeyValue(doomed, FALSE, 0, other, TRUE), -1);
    EXPECT_EQ(doomed.close(), 0);
    static_cast<Event*>(other)->SetEventData(-1);
    CloseHandle(other);
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
            const std::string text = std::to_string(byAnother) + std::to_string(++change);
            if (byAnother)
                peer.set(kExample, "theirs", text);
            else
                setText(key, "v", text);
            return returned.load();
        }));
        waiter.join();
    }
}

}  // namespace
}  // namespace traiklofox::test
