// The thread that turns many changes into few writes.

#include <pthread.h>

#include <atomic>

#include "registry/registry_fixture.h"
#include "support/bounded_wait.h"
#include "support/captured_output.h"
#include "support/fault_injection.h"

namespace traiklofox::test {
namespace {

using faults::Call;

bool flushNeeded() {
    return std::atomic_ref(bRegistryFlushNeeded).load() != 0;
}
bool isLazy() {
    return std::atomic_ref(bLazyFlush).load() != 0;
}

void* runLazyWriter(void* interval) {
    RegLazyWriteThread(interval);
    return nullptr;
}

class LazyWriter : public RegistryTest {
  protected:
    void SetUp() override {
        RegistryTest::SetUp();
        if (!IsSkipped()) key = OpenKey(kExample);
    }
    void startWriter(DWORD milliseconds) {
        interval = milliseconds;
        ASSERT_EQ(::pthread_create(&writer, nullptr, runLazyWriter, &interval), 0);
        ASSERT_TRUE(withinSeconds(30, isLazy));
    }
    void cancelWriter() {
        ASSERT_EQ(::pthread_cancel(writer), 0);
        void* result = nullptr;
        ASSERT_EQ(::pthread_join(writer, &result), 0);
        EXPECT_EQ(result, PTHREAD_CANCELED);
    }
    bool reachesFile(const char* name, const std::string& text) {
        return withinSeconds(30, [&] { return inFile(kExamplePath, name) == text; });
    }
    OpenKey key;
    DWORD interval = 0;
    pthread_t writer{};
};

TEST_F(LazyWriter, AThousandChangesBecomeFewWrites) {
    startWriter(100);
    const CountCalls renames{Call::Rename};
    for (int i = 0; i < 1000; ++i) {
        setText(key, "v", std::to_string(i));
        ASSERT_EQ(RegFlushKey(key), 0);
    }
    setText(key, "last", "1");
    ASSERT_EQ(key.close(), 0);
    EXPECT_TRUE(reachesFile("last", "1"));
    EXPECT_EQ(inFile(kExamplePath, "v"), "999");
    EXPECT_LE(renames.calls(), 100);
    // With nothing to write it writes nothing.
    ASSERT_TRUE(withinSeconds(30, [] { return !flushNeeded(); }));
    cancelWriter();
}

TEST_F(LazyWriter, ACancelledOneWritesOnceMoreAndLaterChangesAreWrittenAtOnce) {
    for (const DWORD milliseconds : {60'000u, 0u}) {
        startWriter(milliseconds);
        const std::string text = std::to_string(milliseconds);
        setText(key, "pending", text);
        ASSERT_EQ(RegFlushKey(key), 0);
        if (milliseconds != 0) {
            EXPECT_NE(inFile(kExamplePath, "pending"), text);
        }
        cancelWriter();
        EXPECT_FALSE(isLazy());
        EXPECT_EQ(inFile(kExamplePath, "pending"), text);
        setText(key, "direct", text);
        ASSERT_EQ(RegFlushKey(key), 0);
        EXPECT_EQ(inFile(kExamplePath, "direct"), text);
    }
}

TEST_F(LazyWriter, AFailedWriteIsTriedAgain) {
    CapturedStderr quiet;
    startWriter(20);
    {
        const FailCall fails{Call::Fdatasync, EIO, {.andAllLater = true}};
        setText(key, "v", "1");
        ASSERT_EQ(RegFlushKey(key), 0) << "what becomes of it shows later";
        ASSERT_TRUE(withinSeconds(30, [&] { return fails.fired() >= 2; }));
        EXPECT_EQ(inFile(kExamplePath, "v"), std::nullopt);
    }
    EXPECT_TRUE(reachesFile("v", "1"));
    cancelWriter();
}

TEST_F(LazyWriter, MergesWhatOthersWroteMeanwhile) {
    startWriter(60'000);
    setText(key, "mine", "1");
    ASSERT_EQ(RegFlushKey(key), 0);
    Peer peer;
    peer.set(kExample, "theirs", "2");
    EXPECT_EQ(textAt(kExample, "theirs"), "2");
    EXPECT_EQ(textAt(kExample, "mine"), "1");
    cancelWriter();
    EXPECT_EQ(inFile(kExamplePath, "mine"), "1");
    EXPECT_EQ(inFile(kExamplePath, "theirs"), "2");
}

}  // namespace
}  // namespace traiklofox::test
