// Writing the file: what is in it, whose it is, what is left lying about, and the thread that makes few writes of many
// changes.

#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "registry/registry_fixture.h"
#include "support/bounded_wait.h"
#include "support/captured_output.h"
#include "support/fault_injection.h"

namespace traiklofox::test {
namespace {

using faults::Call;
namespace fs = std::filesystem;

class Writing : public StartedRegistryTest {};

TEST_F(Writing, PutsKeysAndValuesInTheOrderOfTheirNamesOrNothing) {
    OpenKey::createBelow(key, "beta");
    OpenKey::createBelow(key, "Alpha\\below");
    setText(key, "zulu", "last");
    setText(key, "Alfa", "first");
    ASSERT_EQ(RegFlushKey(key), 0);
    const auto line = [](const std::string& path) {
        return keyLine(path, std::to_string(OpenKey(path, KEY_READ)));
    };
    EXPECT_EQ(fileText(), keyLine("", "1000001") + keyLine("software", "1000002") +
                              keyLine(kExample, "1000003") + valueLine("Alfa", "first") +
                              valueLine("Name", "primary") + valueLine("zulu", "last") +
                              line("software\\example\\Alpha\\below") + line("software\\example\\beta"));
    replaceFile("# no key at all\n");
    const CapturedStderr said;
    EXPECT_EQ(WriteRegistry(), 0);
    EXPECT_EQ(said.text().find("WriteRegistry: Temp file -  "), 0u) << said.text();
    EXPECT_NE(said.text().find(" is zero length.\n"), std::string::npos) << said.text();
    EXPECT_EQ(fileText(), "# no key at all\n");
    EXPECT_EQ(otherFiles(), Names{});
}

TEST_F(Writing, ABackupIsAWholeCopyAndAFailedOneKeepsTheOld) {
    const std::string backup = file() + ".bak";
    writeText(backup, "an older one");
    ASSERT_EQ(RegBackupRegistry(), 1);
    const std::string copied = readText(backup);
    EXPECT_EQ(copied, fileText());
    EXPECT_EQ(fs::status(backup).permissions(), fs::perms{0640});
    for (const Call call : {Call::Write, Call::Fchmod, Call::Fdatasync, Call::Rename}) {
        setText(key, "v", std::to_string(static_cast<int>(call)));
        ASSERT_EQ(RegFlushKey(key), 0);
        const CapturedStderr said;
        const FailCall fails{call, ENOSPC, {.andAllLater = true}};
        setText(key, "v", "unwritten");
        EXPECT_EQ(RegFlushKey(key), -1);
        EXPECT_EQ(OpenKey(kExample).close(), 0) << "closing succeeds all the same";
        EXPECT_EQ(RegBackupRegistry(), 0);
        EXPECT_NE(said.text().find("RegBackupRegistry: "), std::string::npos) << said.text();
        EXPECT_EQ(readText(backup), copied);
        EXPECT_EQ(otherFiles(), Names{"tw.registry.bak"});
    }
}

TEST_F(Writing, GoesToTheInstallationThatIsSet) {
    const std::string before = fileText(), other = home() + "/other/";
    const Names namesBefore = otherFiles();
    EXPECT_EQ(SetRegistryPath(other.c_str()), 0) << "there is none yet";
    fs::create_directory(other);
    fs::copy(directory(), other + "registry", fs::copy_options::recursive);
    writeText(other + "registry/tw.registry", before + keyLine("others"));
    EXPECT_EQ(SetRegistryPath(other.c_str()), 1);
    EXPECT_EQ(GetRegistryPath(), other + "registry/tw.registry");
    setText(key, "v", "1");
    EXPECT_EQ(RegFlushKey(key), 0);
    const std::string written = readText(GetRegistryPath());
    EXPECT_EQ(parseRegistry(written).at(kExamplePath).at("v").data, "1");
    EXPECT_TRUE(parseRegistry(written).contains("hkey_local_machine\\others"));
    EXPECT_EQ(RegBackupRegistry(), 1);
    EXPECT_EQ(readText(GetRegistryPath() + ".bak"), written);
    EXPECT_EQ(fileText(), before);
    EXPECT_EQ(otherFiles(), namesBefore);
}

class LazyWriter : public StartedRegistryTest {
  protected:
    static bool isLazy() { return std::atomic_ref(bLazyFlush).load() != 0; }
    void startWriter(DWORD milliseconds) {
        interval = milliseconds;
        const auto run = [](void* every) -> void* { return RegLazyWriteThread(every), nullptr; };
        ASSERT_EQ(::pthread_create(&writer, nullptr, run, &interval), 0);
        ASSERT_TRUE(withinSeconds(30, isLazy));
    }
    void cancelWriter() {
        ASSERT_EQ(::pthread_cancel(writer), 0);
        void* result = nullptr;
        ASSERT_EQ(::pthread_join(writer, &result), 0);
        EXPECT_EQ(result, PTHREAD_CANCELED);
        EXPECT_FALSE(isLazy());
    }
    void setAndFlush(const std::string& name, const std::string& text) {
        ASSERT_EQ(setText(key, name, text) + RegFlushKey(key), 0);
    }
    DWORD interval = 0;
    pthread_t writer{};
};

TEST_F(LazyWriter, AThousandChangesBecomeFewWritesAndAFailedOneIsTriedAgain) {
    const CapturedStderr quiet;
    startWriter(100);
    const CountCalls renames{Call::Rename};
    for (int i = 0; i < 1000; ++i) setAndFlush("v", std::to_string(i));
    {
        const FailCall fails{Call::Fdatasync, EIO, {.andAllLater = true}};
        setText(key, "last", "1");
        ASSERT_EQ(key.close(), 0);
        ASSERT_TRUE(withinSeconds(30, [&] { return fails.fired() >= 2; }));
        EXPECT_EQ(inFile("last"), std::nullopt);
    }
    EXPECT_TRUE(withinSeconds(30, [&] { return inFile("last") == "1" && inFile("v") == "999"; }));
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
        EXPECT_EQ(inFile("pending"), text);
        setAndFlush("direct", text);
        EXPECT_EQ(inFile("direct"), text);
    }
}

// A process without descriptors waits for one, or fails; the others must not wait for that process.
TEST_F(LazyWriter, AProcessWithoutDescriptorsDoesNotBlockTheOthers) {
    const CapturedStderr quiet;
    {
        const FailCall oneIsLeft{Call::Open, EMFILE, {.onCall = 2, .andAllLater = true, .path = directory()}};
        EXPECT_EQ(RegBackupRegistry(), 0);
    }
    Peer peer;
    for (const bool lazy : {false, true}) {
        const std::string text = std::to_string(lazy);
        if (lazy) startWriter(1);
        std::optional<FailCall> noDescriptor(std::in_place, Call::Open, EMFILE,
                                             faults::Options{.andAllLater = true, .path = ".kztmp."});
        setText(key, "v", text);
        std::thread flusher([&] { EXPECT_EQ(RegFlushKey(key), 0); });
        EXPECT_TRUE(withinSeconds(30, [&] { return noDescriptor->calls() > 2; }));
        peer.tell({"set", kExample, "w", text});
        EXPECT_EQ(peer.process.readLine(std::chrono::seconds{5}), "0");
        noDescriptor.reset();
        flusher.join();
        EXPECT_TRUE(withinSeconds(30, [&] { return inFile("v") == text && inFile("w") == text; }));
    }
    cancelWriter();
}

}  // namespace
}  // namespace traiklofox::test
