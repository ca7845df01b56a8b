// How a process comes to have the registry: from its files, from the shared objects, and with the messages that end it.

#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "registry/registry_fixture.h"
#include "support/captured_output.h"
#include "support/fault_injection.h"

namespace traiklofox::test {
namespace {

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

class Startup : public RegistryTest {
  protected:
    /// Starts in another process; the value that it finds, or its exit status and all that it said.
    static std::string start(const RoleArguments& args) {
        const CapturedStderr said;
        RoleProcess process{"startsTheRegistry", args};
        const ExitStatus status = process.wait();
        if (status == ExitStatus::exited(0)) return process.readLine().value_or("");
        return std::to_string(status.value) + said.text();
    }
    std::string accessProblem(int error) const {
        return "1InitRegistry:  problem accessing " + directory() + "/ or " + file() +
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
        semid_ds shared{};
        EXPECT_EQ(::stat(file().c_str(), &status) + ::semctl(semaphore(), 0, IPC_STAT, &shared), 0);
        EXPECT_EQ(status.st_uid + status.st_gid + shared.sem_perm.uid, 3u);
        EXPECT_EQ(shared.sem_perm.mode & 0777, 0660);
    }
    const std::string text = fileText() + keyLine("kept");
    writeText(file(), text);
    EXPECT_EQ(start({"1", "create"}), "primary");
    EXPECT_EQ(fileText(), text);
    EXPECT_EQ(readText(file() + ".bak"), text);
    EXPECT_EQ(fs::status(file() + ".bak").permissions(), fs::perms{0640});
}

TEST_F(Startup, AnUnusableInstallationEndsTheProcessWithTheReason) {
    ::chmod(home().c_str(), 0755);
    const std::string nobody = start({"0", "create", "65534"});
    EXPECT_TRUE(nobody == accessProblem(EACCES) || nobody == std::to_string(kNoSuchUser)) << nobody;
    EXPECT_FALSE(fs::exists(file()));
    fs::remove(templateFile());
    EXPECT_EQ(start({"0", "create"}), "1\n\nInitRegistry: stat(" + templateFile() + ") failed, errno - " +
                                          std::strerror(ENOENT) + "\n Exiting...");
    writeText(templateFile(), keyLine(""));
    writeText(file(), "");
    EXPECT_EQ(start({"1", "create"}), "1\n\nInitRegistry: Registry is zero length.\nPlease restore " +
                                          file() + " from backup file " + file() + ".bak.\nExiting...\n");
    EXPECT_EQ(fileText(), "");
    EXPECT_EQ(otherFiles(), Names{});
    fs::remove_all(directory());
    EXPECT_EQ(start({"0", "create"}), accessProblem(ENOENT));
}

TEST_F(Startup, NeedsACreatorBeforeAndTheLockFileIsNeverReplaced) {
    const std::string tooEarly = start({"0", "find"});
    EXPECT_NE(tooEarly.find("Registry semaphore doesn't exist. Exiting.\n"), std::string::npos) << tooEarly;
    EXPECT_EQ(start({"0", "create"}), "primary");
    struct stat first {};
    struct stat second {};
    EXPECT_EQ(::stat(kLockFile, &first), 0);
    writeText(file(), keyLine(kExample) + valueLine("Name", "read at need"));
    EXPECT_EQ(start({"0", "find"}), "read at need") << "whatever the stamps say: it has read nothing yet";
    EXPECT_EQ(start({"0", "create"}), "read at need");
    ASSERT_EQ(::semctl(semaphore(), 0, IPC_RMID), 0);
    ASSERT_NE(::semget(::ftok(kLockFile, 1), 1, IPC_CREAT | 0660), -1) << "left half made";
    EXPECT_EQ(start({"0", "find"}), "read at need");
    EXPECT_EQ(::stat(kLockFile, &second), 0);
    EXPECT_EQ(first.st_ino, second.st_ino);
    // Where it cannot be made, that is said once, and work goes on.
    fs::remove(kLockFile);
    const CapturedStderr said;
    const FailCall fails{faults::Call::Open, EROFS, {.andAllLater = true, .path = kLockFile}};
    InitRegistry(0, true);
    EXPECT_EQ(textAt(kExample, "Name"), "read at need");
    EXPECT_NE(said.text().find(kLockFile), std::string::npos) << said.text();
    EXPECT_EQ(said.text().find(kLockFile), said.text().rfind(kLockFile)) << said.text();
}

TEST_F(Startup, AFailedCopyLeavesNoHalfRegistryAndAFailedBackupTheOldOne) {
    writeText(file() + ".bak", "an older one");
    const CapturedStderr said;
    const FailCall fails{faults::Call::Write, ENOSPC, {.andAllLater = true, .transferAtMost = 10}};
    InitRegistry(REG_INIT_BACKUP, true);
    EXPECT_NE(said.text().find("InitRegistry: Template copy failed!!\n"), std::string::npos) << said.text();
    EXPECT_NE(said.text().find("InitRegistry: Backup failed\n"), std::string::npos) << said.text();
    EXPECT_FALSE(fs::exists(file()));
    EXPECT_EQ(readText(file() + ".bak"), "an older one");
    EXPECT_EQ(otherFiles(), Names{"tw.registry.bak"});
}

}  // namespace
}  // namespace traiklofox::test
