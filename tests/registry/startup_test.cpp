// How a process comes to have the registry: from its files, from the shared objects, and with the messages that end it.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
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

constexpr const char* kLockFile = "/usr/lib/tarnwell/twml_data.dat";
constexpr int kNoSuchUser = 77;

/// Starts the registry: arguments are the flags, whether to create, and a user to become.
TEST_ROLE(startsTheRegistry) {
    if (args.size() > 2 && ::setuid(static_cast<uid_t>(std::stoul(args[2]))) != 0) return kNoSuchUser;
    InitRegistry(static_cast<DWORD>(std::stoul(args.at(0))), args.at(1) == "create");
    InitRegistry(0, false);
    tellTest(textAt(kExample, "Name").value_or("(none)"));
    return 0;
}

/// How a start in another process ended, and all that it said.
struct Started {
    ExitStatus status;
    std::string said;
};
Started start(const RoleArguments& args) {
    const CapturedStderr said;
    RoleProcess process{"startsTheRegistry", args};
    const ExitStatus status = process.wait();
    return {status, said.text()};
}

class Startup : public RegistryTest {
  protected:
    std::string accessProblem(int error) const {
        return "InitRegistry:  problem accessing " + directory() + "/ or " + file() +
               ", errno: " + std::to_string(error) + "/" + std::strerror(error) + "\n";
    }
};

TEST_F(Startup, AMissingRegistryIsMadeFromTheTemplateAndAPresentOneIsKept) {
    const bool otherOwner = ::chown(templateFile().c_str(), 1, 1) == 0;
    InitRegistry(0, true);
    EXPECT_EQ(bRegInitialized, 1);
    EXPECT_EQ(GetRegistryPath(), file());  // TWHOME has no slash at its end
    EXPECT_EQ(fileText(), readText(templateFile()));
    EXPECT_EQ(fs::status(file()).permissions(), fs::perms{0640});
    EXPECT_EQ(otherFiles(), Names{}) << "no backup unless it is asked for";
    if (otherOwner) {
        struct stat status {};
        ASSERT_EQ(::stat(file().c_str(), &status), 0);
        EXPECT_EQ(status.st_uid + status.st_gid, 2u);
        semid_ds semaphore{};
        ASSERT_EQ(::semctl(::semget(::ftok(kLockFile, 1), 1, 0), 0, IPC_STAT, &semaphore), 0);
        EXPECT_EQ(semaphore.sem_perm.uid, 1u);
        EXPECT_EQ(semaphore.sem_perm.mode & 0777, 0660);
    }
    const std::string text = fileText() + keyLine("kept");
    writeText(file(), text);
    EXPECT_EQ(start({"1", "create"}).status, ExitStatus::exited(0));
    EXPECT_EQ(fileText(), text);
    EXPECT_EQ(readText(file() + ".bak"), text);
    EXPECT_EQ(fs::status(file() + ".bak").permissions(), fs::perms{0640});
}

TEST_F(Startup, AnUnusableInstallationEndsTheProcessWithTheReason) {
    fs::remove(templateFile());
    const Started noTemplate = start({"0", "create"});
    EXPECT_EQ(noTemplate.status, ExitStatus::exited(1));
    EXPECT_EQ(noTemplate.said, "\n\nInitRegistry: stat(" + templateFile() + ") failed, errno - " +
                                   std::strerror(ENOENT) + "\n Exiting...");
    writeText(templateFile(), keyLine(""));
    writeText(file(), "");
    const Started empty = start({"1", "create"});
    EXPECT_EQ(empty.status, ExitStatus::exited(1));
    EXPECT_EQ(empty.said, "\n\nInitRegistry: Registry is zero length.\nPlease restore " + file() +
                              " from backup file " + file() + ".bak.\nExiting...\n");
    EXPECT_EQ(fileText(), "");
    EXPECT_EQ(otherFiles(), Names{});
    fs::remove_all(directory());
    const Started noDirectory = start({"0", "create"});
    EXPECT_EQ(noDirectory.status, ExitStatus::exited(1));
    EXPECT_EQ(noDirectory.said, accessProblem(ENOENT));
}

TEST_F(Startup, WhoMayNotWriteTheDirectoryIsTurnedAway) {
    ::chmod(home().c_str(), 0755);
    const Started nobody = start({"0", "create", "65534"});
    if (nobody.status == ExitStatus::exited(kNoSuchUser)) GTEST_SKIP() << "no second user here";
    EXPECT_EQ(nobody.status, ExitStatus::exited(1));
    EXPECT_EQ(nobody.said, accessProblem(EACCES));
    EXPECT_FALSE(fs::exists(file()));
}

TEST_F(Startup, WithoutCreatingItNeedsACreatorBefore) {
    const Started tooEarly = start({"0", "find"});
    EXPECT_EQ(tooEarly.status, ExitStatus::exited(1));
    EXPECT_NE(tooEarly.said.find("Registry semaphore doesn't exist. Exiting.\n"), std::string::npos)
        << tooEarly.said;
    EXPECT_EQ(start({"0", "create"}).status, ExitStatus::exited(0));
    writeText(file(), keyLine(kExample) + valueLine("Name", "read at need"));
    RoleProcess finder{"startsTheRegistry", {"0", "find"}};
    EXPECT_EQ(finder.readLine(), "read at need") << "whatever the stamps say: it has read nothing yet";
    EXPECT_EQ(finder.wait(), ExitStatus::exited(0));
}

TEST_F(Startup, AFailedCopyOfTheTemplateLeavesNoHalfRegistry) {
    const CapturedStderr said;
    const FailCall fails{Call::Write, ENOSPC, {.andAllLater = true, .transferAtMost = 10}};
    InitRegistry(0, true);
    EXPECT_NE(said.text().find("InitRegistry: Template copy failed!!\n"), std::string::npos) << said.text();
    EXPECT_FALSE(fs::exists(file()));
    EXPECT_EQ(otherFiles(), Names{});
}

TEST_F(Startup, AFailedBackupKeepsTheOldOne) {
    writeText(file(), readText(templateFile()));
    writeText(file() + ".bak", "an older one");
    const CapturedStderr said;
    const FailCall fails{Call::Write, ENOSPC, {.andAllLater = true, .transferAtMost = 10}};
    InitRegistry(REG_INIT_BACKUP, true);
    EXPECT_NE(said.text().find("InitRegistry: Backup failed\n"), std::string::npos) << said.text();
    EXPECT_EQ(readText(file() + ".bak"), "an older one");
    EXPECT_EQ(textAt(kExample, "Name"), "primary");
}

TEST_F(Startup, OtherThreadsWaitUntilTheFirstHasRead) {
    Peer holder;
    ASSERT_EQ(holder.ask({"lock"}), "1");
    std::thread first([] { InitRegistry(0, true); });
    ASSERT_TRUE(withinSeconds(30, [] { return std::atomic_ref(lRegReady).load() == 1; }));
    std::thread second([] { EXPECT_EQ(textAt(kExample, "Name"), "primary"); });
    ASSERT_EQ(holder.ask({"unlock"}), "1");
    first.join();
    second.join();
}

TEST_F(Startup, TheLockFileIsMadeWhenMissingAndNeverReplaced) {
    const auto inode = [] {
        struct stat status {};
        return ::stat(kLockFile, &status) == 0 ? status.st_ino : 0;
    };
    EXPECT_EQ(start({"0", "create"}).status, ExitStatus::exited(0));
    const ino_t made = inode();
    EXPECT_NE(made, 0u);
    EXPECT_EQ(start({"0", "create"}).status, ExitStatus::exited(0));
    EXPECT_EQ(inode(), made);
    // Where it cannot be made, that is said once, and work goes on.
    fs::remove(kLockFile);
    const CapturedStderr said;
    const FailCall fails{Call::Open, EROFS, {.andAllLater = true, .path = kLockFile}};
    InitRegistry(0, true);
    EXPECT_EQ(textAt(kExample, "Name"), "primary");
    EXPECT_NE(said.text().find(kLockFile), std::string::npos) << said.text();
    EXPECT_EQ(said.text().find(kLockFile), said.text().rfind(kLockFile)) << said.text();
}

}  // namespace
}  // namespace traiklofox::test
