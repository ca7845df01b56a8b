// Writing the file: what is in it, whose it is, what is left lying about, and what becomes of everything when a
// system call fails.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <traiklofox/temp_name.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "registry/registry_fixture.h"
#include "support/bounded_wait.h"
#include "support/captured_output.h"
#include "support/fault_injection.h"
#include "support/private_machine.h"

namespace traiklofox::test {
namespace {

using faults::Call;
using Names = std::vector<std::string>;

class Writing : public RegistryTest {
  protected:
    void SetUp() override {
        RegistryTest::SetUp();
        if (IsSkipped()) return;
        key = OpenKey(kExample);
        before = fileText();
    }
    std::optional<std::string> written(const char* name) const { return inFile(kExamplePath, name); }
    OpenKey key;
    std::string before;
};

TEST_F(Writing, PutsKeysAndValuesInTheOrderOfTheirNames) {
    OpenKey::createBelow(key, "beta");
    OpenKey::createBelow(key, "Alpha\\below");
    setText(key, "zulu", "last");
    setNumber(key, "Alfa", 0);
    ASSERT_EQ(RegFlushKey(key), 0);
    const auto number = [](const char* path) { return std::to_string(OpenKey(path, KEY_READ)); };
    EXPECT_EQ(fileText(),
              "hkey_local_machine:1000001\n"
              "hkey_local_machine\\software:1000002\n"
              "hkey_local_machine\\software\\example:1000003\n"
              "Alfa:                 \t0;                    \tREG_DWORD\n"
              "Name:                 \tprimary;              \tREG_SZ\n"
              "zulu:                 \tlast;                 \tREG_SZ\n"
              "hkey_local_machine\\software\\example\\Alpha\\below:" +
                  number("software\\example\\alpha\\below") +
                  "\n"
                  "hkey_local_machine\\software\\example\\beta:" +
                  number("software\\example\\beta") + "\n");
}

TEST_F(Writing, GivesTheFileTheTemplatesOwnerAndMode) {
    setText(key, "v", "1");
    ASSERT_EQ(RegFlushKey(key), 0);
    struct stat ours {};
    struct stat theirs {};
    ASSERT_EQ(::stat(file().c_str(), &ours), 0);
    ASSERT_EQ(::stat(templateFile().c_str(), &theirs), 0);
    EXPECT_EQ(ours.st_mode & 07777, 0640u);
    EXPECT_EQ(ours.st_uid, theirs.st_uid);
    EXPECT_EQ(ours.st_gid, theirs.st_gid);
    EXPECT_EQ(otherFiles(), Names{});
}

TEST_ROLE(leavesATemporaryFile) {
    const CKZString name = KZTempNam(args.at(0).c_str());
    writeText(name, "half");
    tellTest(name);
    (void)hearTest();
    return 0;
}

TEST_F(Writing, RemovesTheTemporaryFilesOfTheDeadAlone) {
    RoleProcess dead{"leavesATemporaryFile", {directory()}};
    RoleProcess alive{"leavesATemporaryFile", {directory()}};
    const auto deads = dead.readLine();
    const auto alives = alive.readLine();
    ASSERT_TRUE(deads && alives);
    dead.kill(SIGKILL);
    ASSERT_EQ(dead.wait(), ExitStatus::killedBy(SIGKILL));
    writeText(directory() + "/.kztmp.notanumber.1", "somebody else's");
    setText(key, "v", "1");
    ASSERT_EQ(RegFlushKey(key), 0);
    EXPECT_FALSE(std::filesystem::exists(*deads));
    EXPECT_TRUE(std::filesystem::exists(*alives));
    EXPECT_TRUE(std::filesystem::exists(directory() + "/.kztmp.notanumber.1"));
}

TEST_F(Writing, AFullDiskLeavesTheOldFileWholeAndTheChangesForTheNextWrite) {
    SmallDisk disk(home() + "/small/registry", 1 << 20);
    std::filesystem::copy(directory(), disk.directory(), std::filesystem::copy_options::recursive);
    ASSERT_EQ(SetRegistryPath((home() + "/small/").c_str()), 1);
    const std::string smallFile = disk.directory() + "/tw.registry";
    const auto number = [](int i) { return std::to_string(i); };
    for (int i = 0; i < 20; ++i) setText(key, ("v" + number(i)).c_str(), std::string(3000, 'x'));
    for (const size_t room : {size_t{0}, size_t{4096}, size_t{32768}}) {
        disk.leaveFree(room);
        CapturedStderr said;
        EXPECT_EQ(RegFlushKey(key), -1) << room;
        EXPECT_NE(said.text().find("WriteRegistry: "), std::string::npos) << said.text();
        EXPECT_EQ(readText(smallFile), before);
        OpenKey again(kExample);
        EXPECT_EQ(again.close(), 0) << "closing succeeds all the same";
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(disk.directory()), {}), 3)
            << "file, template, filler";
    }
    disk.leaveFree(1 << 20);
    EXPECT_EQ(RegFlushKey(key), 0);
    const FileKeys keys = parseRegistry(readText(smallFile));
    for (int i = 0; i < 20; ++i) EXPECT_EQ(keys.at(kExamplePath).at("v" + number(i)).data.size(), 3000u);
}

// Whatever call fails: a flush that succeeded has put its value in the file; one that failed has left a whole file, and
// the next flush carries the value.
TEST_F(Writing, NoCallThatFailsLosesWhatWasAcknowledged) {
    struct Row {
        Call call;
        int error;
        size_t transferAtMost = SIZE_MAX;
    };
    const Row rows[] = {
        {Call::Open, ENOSPC},     {Call::Open, EACCES},  {Call::Write, ENOSPC},   {Call::Write, EIO},
        {Call::Write, ENOSPC, 7}, {Call::Write, EINTR},  {Call::Fdatasync, EIO},  {Call::Fsync, EIO},
        {Call::Fstat, EIO},       {Call::Fchown, EPERM}, {Call::Fchmod, EPERM},   {Call::Rename, ENOSPC},
        {Call::Lockf, ENOLCK},    {Call::Lockf, EINTR},  {Call::Access, EACCES},  {Call::Unlink, EACCES},
        {Call::Close, EIO},       {Call::Semop, EINTR},  {Call::Opendir, EMFILE}, {Call::Readdir, EIO},
    };
    int count = 0;
    int failures = 0;
    CapturedStderr quiet;
    for (const Row& row : rows) {
        faults::Options options;
        options.transferAtMost = row.transferAtMost;
        options.andAllLater = row.transferAtMost != SIZE_MAX;
        failEveryCall(
            row.call, row.error,
            [&](const FailCall& fault, int onCall) {
                SCOPED_TRACE("call kind " + std::to_string(static_cast<int>(row.call)) + ", call " +
                             std::to_string(onCall));
                before = fileText();
                const std::string name = "v" + std::to_string(++count % 10);
                const std::string text = std::to_string(count);
                ASSERT_EQ(setText(key, name.c_str(), text), 0);
                const LONG result = RegFlushKey(key);
                if (result == 0) {
                    EXPECT_EQ(inFile(kExamplePath, name), text);
                    return;
                }
                EXPECT_GT(fault.fired(), 0);
                ++failures;
                EXPECT_TRUE(fileText() == before || inFile(kExamplePath, name) == text)
                    << "neither the old file nor the new one:\n"
                    << fileText();
            },
            options);
        ASSERT_EQ(RegFlushKey(key), 0) << "what a failed write left is carried by the next";
        EXPECT_EQ(inFile(kExamplePath, "v" + std::to_string(count % 10)), std::to_string(count));
    }
    EXPECT_GE(failures, 7);
    setText(key, "last", "1");
    ASSERT_EQ(RegFlushKey(key), 0);
    Names left = otherFiles();
    EXPECT_LE(left.size(), 1u) << "one file could not be removed when Unlink failed";
    Peer peer;
    EXPECT_EQ(peer.get(kExample, "last"), "1");
}

TEST_F(Writing, AFailedWriteKeepsEveryKindOfChangeForTheNext) {
    OpenKey::createBelow(key, "doomed");
    setText(key, "gone", "1");
    ASSERT_EQ(RegFlushKey(key), 0);
    CapturedStderr quiet;
    {
        const FailCall fails{Call::Rename, EIO, {.andAllLater = true}};
        EXPECT_EQ(RegDeleteValue(key, "gone"), 0);
        EXPECT_EQ(RegDeleteKey(key, "doomed"), 0);
        OpenKey made = OpenKey::createBelow(key, "made");
        setText(made, "v", "1");
        EXPECT_EQ(RegFlushKey(made), -1);
        EXPECT_EQ(made.close(), 0);
        EXPECT_EQ(WriteRegistry(), 0);
    }
    replaceFile(fileText());  // a re-read meanwhile brings nothing back
    EXPECT_FALSE(keyExists("software\\example\\doomed"));
    EXPECT_EQ(RegFlushKey(key), 0);
    EXPECT_EQ(fileKeys(), (FileKeys{{"hkey_local_machine", {}},
                                    {"hkey_local_machine\\software", {}},
                                    {kExamplePath, {{"Name", {"REG_SZ", "primary"}}}},
                                    {std::string(kExamplePath) + "\\made", {{"v", {"REG_SZ", "1"}}}}}));
}

TEST_F(Writing, WithNothingToWriteTheOldFileStays) {
    ASSERT_EQ(RegDeleteKey(0, "software"), 0);
    const std::string lastLine = fileText();
    ASSERT_EQ(lastLine, "hkey_local_machine:1000001\n");
    replaceFile("# no key at all\n");
    CapturedStderr said;
    EXPECT_EQ(WriteRegistry(), 0);
    EXPECT_NE(said.text().find("WriteRegistry: Temp file -  "), std::string::npos) << said.text();
    EXPECT_NE(said.text().find(" is zero length.\n"), std::string::npos) << said.text();
    EXPECT_EQ(fileText(), "# no key at all\n");
    EXPECT_EQ(otherFiles(), Names{});
}

// A process without descriptors waits for one; the others must not wait for that process.
TEST_F(Writing, AProcessWithoutDescriptorsDoesNotBlockTheOthers) {
    Peer peer;
    peer.set(kExample, "warm", "1");
    ASSERT_EQ(textOf(OpenKey(kExample), "warm"), "1");
    setText(key, "v", "1");
    rlimit usual{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit few{64, usual.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    while (::open("/dev/null", O_RDONLY | O_CLOEXEC) != -1) {
    }
    std::thread writer([&] { EXPECT_EQ(RegFlushKey(key), 0); });
    CountCalls opens{Call::Open, {.path = ".kztmp."}};
    const bool waits = withinSeconds(30, [&] { return opens.calls() > 2; });
    peer.tell({"set", kExample, "w", "1"});
    const auto answer = peer.process().readLine(std::chrono::seconds{5});
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &usual), 0);
    writer.join();
    EXPECT_TRUE(waits);
    EXPECT_EQ(answer, "0");
    EXPECT_EQ(written("v"), "1");
    EXPECT_EQ(written("w"), "1");
}

TEST_F(Writing, ABackupIsAWholeCopyWithTheTemplatesMode) {
    writeText(file() + ".bak", "an older one");
    ASSERT_EQ(RegBackupRegistry(), 1);
    EXPECT_EQ(readText(file() + ".bak"), fileText());
    struct stat status {};
    ASSERT_EQ(::stat((file() + ".bak").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(otherFiles(), Names{"tw.registry.bak"});
    const std::string kept = readText(file() + ".bak");
    CapturedStderr said;
    for (const Call call : {Call::Write, Call::Rename}) {
        setText(key, "v", "changed");
        ASSERT_EQ(RegFlushKey(key), 0);
        const FailCall fails{call, ENOSPC};
        EXPECT_EQ(RegBackupRegistry(), 0);
        EXPECT_NE(said.text().find("RegBackupRegistry: "), std::string::npos) << said.text();
        EXPECT_EQ(readText(file() + ".bak"), kept);
        EXPECT_EQ(otherFiles(), Names{"tw.registry.bak"});
    }
}

}  // namespace
}  // namespace traiklofox::test
