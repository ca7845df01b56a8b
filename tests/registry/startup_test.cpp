// How a process comes to have the registry: from its files, from the shared objects, and with the messages that end it.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
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
using Names = std::vector<std::string>;

constexpr const char* kLockFolder = "/usr/lib/tarnwell";
constexpr const char* kLockFile = "/usr/lib/tarnwell/twml_data.dat";
constexpr uid_t kNobody = 65534;

/// Starts the registry: arguments are the flags, whether to create, and a user to become.
TEST_ROLE(startsTheRegistry) {
    if (args.size() > 2 && ::setuid(static_cast<uid_t>(std::stoul(args[2]))) != 0) return 77;
    InitRegistry(static_cast<DWORD>(std::stoul(args.at(0))), args.at(1) == "create");
    InitRegistry(0, false);
    tellTest(GetRegistryPath());
    if (hearTest() == "read") tellTest(textAt(kExample, "Name").value_or("(none)"));
    return 0;
}

class Startup : public RegistryTest {
  protected:
    /// Has another process start; its exit status and all that it said.
    static std::pair<ExitStatus, std::string> start(const RoleArguments& args) {
        CapturedStderr said;
        RoleProcess process{"startsTheRegistry", args};
        process.closeInput();
        const ExitStatus status = process.wait();
        return {status, said.text()};
    }
    mode_t modeOf(const std::string& path) const {
        struct stat status {};
        return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
    }
};

TEST_F(Startup, AMissingRegistryIsMadeFromTheTemplateAndAPresentOneIsKept) {
    const bool otherOwner = ::chown(templateFile().c_str(), 1, 1) == 0;
    InitRegistry(0, true);
    EXPECT_EQ(bRegInitialized, 1);
    EXPECT_EQ(GetRegistryPath(), file());  // TWHOME has no slash at its end
    EXPECT_EQ(fileText(), readText(templateFile()));
    EXPECT_EQ(modeOf(file()), 0640u);
    EXPECT_EQ(otherFiles(), Names{}) << "no backup unless it is asked for";
    if (otherOwner) {
        struct stat status {};
        ASSERT_EQ(::stat(file().c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, 1u);
        EXPECT_EQ(status.st_gid, 1u);
        semid_ds semaphore{};
        ASSERT_EQ(::semctl(::semget(::ftok(kLockFile, 1), 1, 0), 0, IPC_STAT, &semaphore), 0);
        EXPECT_EQ(semaphore.sem_perm.uid, 1u);
        EXPECT_EQ(semaphore.sem_perm.mode & 0777, 0660);
    }
    writeText(file(), fileText() + "hkey_local_machine\\kept:4\n");
    const std::string text = fileText();
    EXPECT_EQ(start({"1", "create"}).first, ExitStatus::exited(0));
    EXPECT_EQ(fileText(), text);
    EXPECT_EQ(readText(file() + ".bak"), text);
    EXPECT_EQ(modeOf(file() + ".bak"), 0640u);
}

TEST_F(Startup, AnUnusableInstallationEndsTheProcessWithTheReason) {
    std::filesystem::remove(templateFile());
    EXPECT_EQ(
        start({"0", "create"}),
        (std::pair{ExitStatus::exited(1), "\n\nInitRegistry: stat(" + templateFile() + ") failed, errno - " +
                                              std::strerror(ENOENT) + "\n Exiting..."}));
    writeText(templateFile(), "hkey_local_machine:1\n");
    writeText(file(), "");
    EXPECT_EQ(start({"1", "create"}),
              (std::pair{ExitStatus::exited(1),
                         "\n\nInitRegistry: Registry is zero length.\nPlease restore " + file() +
                             " from backup file " + file() + ".bak.\nExiting...\n"}));
    EXPECT_EQ(fileText(), "");
    EXPECT_EQ(otherFiles(), Names{});
    std::filesystem::remove_all(directory());
    const auto [status, said] = start({"0", "create"});
    EXPECT_EQ(status, ExitStatus::exited(1));
    EXPECT_EQ(said, "InitRegistry:  problem accessing " + directory() + "/ or " + file() +
                        ", errno: " + std::to_string(ENOENT) + "/" + std::strerror(ENOENT) + "\n");
}

TEST_F(Startup, WhoMayNotWriteTheDirectoryIsTurnedAway) {
    ::chmod(home().c_str(), 0755);
    const auto [status, said] = start({"0", "create", std::to_string(kNobody)});
    if (status == ExitStatus::exited(77)) GTEST_SKIP() << "no second user here";
    EXPECT_EQ(status, ExitStatus::exited(1));
    EXPECT_EQ(said, "InitRegistry:  problem accessing " + directory() + "/ or " + file() +
                        ", errno: " + std::to_string(EACCES) + "/" + std::strerror(EACCES) + "\n");
    EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_F(Startup, WithoutCreatingItNeedsACreatorBefore) {
    EXPECT_EQ(start({"0", "find"}).first, ExitStatus::exited(1));
    const auto [status, said] = start({"0", "find"});
    EXPECT_NE(said.find("Registry semaphore doesn't exist. Exiting.\n"), std::string::npos) << said;
    EXPECT_EQ(start({"0", "create"}).first, ExitStatus::exited(0));
    writeText(file(), "hkey_local_machine\\software\\example:3\nName:\tread at need;\tREG_SZ\n");
    RoleProcess finder{"startsTheRegistry", {"0", "find"}};
    EXPECT_EQ(finder.readLine(), file());
    ASSERT_TRUE(finder.writeLine("read"));
    EXPECT_EQ(finder.readLine(), "read at need") << "whatever the stamps say: it has read nothing yet";
    EXPECT_EQ(finder.wait(), ExitStatus::exited(0));
}

TEST_F(Startup, AFailedCopyOfTheTemplateLeavesNoHalfRegistry) {
    CapturedStderr said;
    const FailCall fails{Call::Write, ENOSPC, {.andAllLater = true, .transferAtMost = 10}};
    InitRegistry(0, true);
    EXPECT_NE(said.text().find("InitRegistry: Template copy failed!!\n"), std::string::npos) << said.text();
    EXPECT_FALSE(std::filesystem::exists(file()));
    EXPECT_EQ(otherFiles(), Names{});
}

TEST_F(Startup, AFailedBackupKeepsTheOldOne) {
    writeText(file() + ".bak", "an older one");
    CapturedStderr said;
    const FailCall fails{Call::Write, ENOSPC, {.andAllLater = true, .path = ".bak", .transferAtMost = 10}};
    const FailCall failsToo{Call::Rename, ENOSPC, {.path = ".bak"}};
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
    std::vector<std::thread> others;
    for (int i = 0; i < 3; ++i) others.emplace_back([] { EXPECT_EQ(textAt(kExample, "Name"), "primary"); });
    ASSERT_EQ(holder.ask({"unlock"}), "1");
    for (std::thread& other : others) other.join();
    first.join();
}

TEST_F(Startup, ACreatorThatDiedHalfWayIsStoodInFor) {
    writeText(kLockFile, "");
    const key_t key = ::ftok(kLockFile, 1);
    const int half = ::semget(key, 1, IPC_CREAT | IPC_EXCL | 0660);
    ASSERT_NE(half, -1);
    Peer one;
    Peer two;
    one.tell({"setMany", kExample, "a", "20"});
    two.tell({"setMany", kExample, "b", "20"});
    EXPECT_EQ(one.answer(), "0");
    EXPECT_EQ(two.answer(), "0");
    EXPECT_EQ(fileKeys().at(kExamplePath).size(), 41u);
    EXPECT_EQ(::semctl(half, 0, GETVAL), 1);
}

TEST_F(Startup, TheLockFileIsMadeWhenMissingAndNeverReplaced) {
    std::filesystem::remove(kLockFile);
    EXPECT_EQ(start({"0", "create"}).first, ExitStatus::exited(0));
    struct stat made {};
    ASSERT_EQ(::stat(kLockFile, &made), 0);
    EXPECT_EQ(start({"0", "create"}).first, ExitStatus::exited(0));
    struct stat again {};
    ASSERT_EQ(::stat(kLockFile, &again), 0);
    EXPECT_EQ(again.st_ino, made.st_ino);
    EXPECT_NE(::shmget(::ftok(kLockFile, 1), 1, 0), -1);
    // Where it cannot be made, that is said once, and work goes on.
    std::filesystem::remove(kLockFile);
    CapturedStderr said;
    const FailCall fails{Call::Open, EROFS, {.andAllLater = true, .path = kLockFolder}};
    InitRegistry(0, true);
    EXPECT_EQ(textAt(kExample, "Name"), "primary");
    EXPECT_NE(said.text().find(kLockFile), std::string::npos) << said.text();
    EXPECT_EQ(said.text().find(kLockFile), said.text().rfind(kLockFile)) << said.text();
    EXPECT_FALSE(std::filesystem::exists(kLockFile));
}

}  // namespace
}  // namespace traiklofox::test
