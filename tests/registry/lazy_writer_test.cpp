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

bool isLazy() {
    return std::atomic_ref(bLazyFlush).load() != 0;
}

class LazyWriter : public StartedRegistryTest {
  protected:
    void startWriter(DWORD milliseconds) {
        interval = milliseconds;
        const auto run = [](void* every) -> void* {
            RegLazyWriteThread(every);
            return nullptr;
        };
        ASSERT_EQ(::pthread_create(&writer, nullptr, run, &interval), 0);
        ASSERT_TRUE(withinSeconds(30, isLazy));
    }
    void cancelWriter() {
        ASSERT_EQ(::pthread_cancel(writer), 0);
        void* result = nullptr;
        ASSERT_EQ(::pthread_join(writer, &result), 0);
        EXPECT_EQ(result, PTHREAD_CANCELED);
    }
    void setAndFlush(const std::string& name, const std::string& text) {
        ASSERT_EQ(setText(key, name, text), 0);
        ASSERT_EQ(RegFlushKey(key), 0);
    }
    bool reachesFile(const std::string& name, const std::string& text) {
        return withinSeconds(30, [&] { return inFile(name) == text; });
    }
    DWORD interval = 0;
    pthread_t writer{};
};

TEST_F(LazyWriter, AThousandChangesBecomeFewWrites) {
    startWriter(100);
    const CountCalls renames{Call::Rename};
    for (int i = 0; i < 1000; ++i) setAndFlush("v", std::to_string(i));
    setText(key, "last", "1");
    ASSERT_EQ(key.close(), 0);
    EXPECT_TRUE(reachesFile("last", "1"));
    EXPECT_EQ(inFile("v"), "999");
    EXPECT_LE(renames.calls(), 100);
    cancelWriter();
}

TEST_F(LazyWriter, ACancelledOneWritesOnceMoreAndLaterChangesAreWrittenAtOnce) {
    for (const DWORD milliseconds : {60'000u, 0u}) {
        startWriter(milliseconds);
        const std::string text = std::to_string(milliseconds);
        setAndFlush("pending", text);
        EXPECT_TRUE(milliseconds == 0 || inFile("pending") == std::nullopt);
        cancelWriter();
        EXPECT_FALSE(isLazy());
        EXPECT_EQ(inFile("pending"), text);
        setAndFlush("direct", text);
        EXPECT_EQ(inFile("direct"), text);
    }
}

TEST_F(LazyWriter, AFailedWriteIsTriedAgain) {
    const CapturedStderr quiet;
    startWriter(20);
    {
        const FailCall fails{Call::Fdatasync, EIO, {.andAllLater = true}};
        setAndFlush("v", "1");
        ASSERT_TRUE(withinSeconds(30, [&] { return fails.fired() >= 2; }));
        EXPECT_EQ(inFile("v"), std::nullopt);
    }
    EXPECT_TRUE(reachesFile("v", "1"));
    cancelWriter();
}

}  // namespace
}  // namespace traiklofox::test
