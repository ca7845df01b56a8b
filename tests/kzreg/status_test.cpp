// kzreg status and kzreg backup.

#include <traiklofox/registry.h>
#include <unistd.h>

#include <filesystem>

#include "kzreg/kzreg_fixture.h"

namespace traiklofox::test {
namespace {

using ::testing::HasSubstr;

class KzregStatus : public KzregTest {};

TEST_ROLE(holdsTheRegistryLock) {
    RegLockCache(REG_LOCK_EXCLUSIVE);
    tellTest("held");
    (void)hearTest();
    return 0;
}

TEST_F(KzregStatus, TellsOfFilesCountsAndTheLastWriter) {
    const std::string lockFile = "/usr/lib/tarnwell/twml_data.dat";
    EXPECT_EQ(kzreg({"status"}),
              done("registry:      " + registry() +
                   "\n"
                   "template:      " +
                   templateFile() +
                   "\n"
                   "backup:        " +
                   registry() +
                   ".bak (missing)\n"
                   "lock file:     " +
                   lockFile +
                   "\n"
                   "version stamp: 0\n"
                   "last writer:   none\n"
                   "lock owner:    none\n"
                   "file:          " +
                   std::to_string(readText(templateFile()).size()) + " bytes, 3 keys, 1 values\n"));
    add("software\\example\\a", "v", "1");
    ASSERT_EQ(kzreg({"backup"}), done("backed up to " + registry() + ".bak\n"));
    std::string json = kzreg({"status", "--json"}).output;
    const size_t writer = json.find("\"lastWriter\": ") + 14;
    EXPECT_THAT(kzreg({"status"}).output,
                HasSubstr("last writer:   process " + json.substr(writer, json.find(',', writer) - writer) +
                          " (has ended)\n"));
    json.replace(writer, json.find(',', writer) - writer, "PID");
    EXPECT_EQ(json,
              "{\n"
              "  \"registry\": \"" +
                  registry() +
                  "\",\n"
                  "  \"template\": \"" +
                  templateFile() +
                  "\",\n"
                  "  \"backup\": \"" +
                  registry() +
                  ".bak\",\n"
                  "  \"lockFile\": \"" +
                  lockFile +
                  "\",\n"
                  "  \"versionStamp\": 1,\n"
                  "  \"lastWriter\": PID,\n"
                  "  \"lockOwner\": null,\n"
                  "  \"bytes\": " +
                  std::to_string(registryText().size()) +
                  ",\n"
                  "  \"keys\": 4,\n"
                  "  \"values\": 2,\n"
                  "  \"defects\": 0\n"
                  "}\n");
}

TEST_F(KzregStatus, NamesTheOwnerOfTheLockWithoutWaitingForIt) {
    RoleProcess owner{"holdsTheRegistryLock"};
    ASSERT_EQ(owner.readLine(), "held");
    const std::string pid = std::to_string(owner.pid());
    EXPECT_THAT(kzreg({"status"}).output, HasSubstr("lock owner:    process " + pid + "\n"));
    EXPECT_THAT(kzreg({"status", "--json"}).output, HasSubstr("\"lockOwner\": " + pid + ",\n"));
    owner.kill(SIGKILL);
    EXPECT_EQ(owner.wait(), ExitStatus::killedBy(SIGKILL));
    EXPECT_THAT(kzreg({"status"}).output, HasSubstr("lock owner:    process " + pid + " (has ended)\n"));
    add("software\\example", "v", "1");
    EXPECT_THAT(kzreg({"status"}).output, HasSubstr("lock owner:    none\n"));
}

TEST_F(KzregStatus, TellsOfARegistryThatIsMissing) {
    add("software\\example", "v", "1");
    std::filesystem::remove(registry());
    EXPECT_THAT(kzreg({"status"}).output, HasSubstr("registry:      " + registry() + " (missing)\n"));
    EXPECT_THAT(kzreg({"status", "--json"}).output, HasSubstr("\"registry\": null,\n"));
}

TEST_F(KzregStatus, BackupCopiesTheRegistryAsItIs) {
    add("software\\example", "v", "1");
    ASSERT_EQ(kzreg({"backup"}), done("backed up to " + registry() + ".bak\n"));
    EXPECT_EQ(readText(registry() + ".bak"), registryText());
    add("software\\example", "v", "2");
    ASSERT_EQ(kzreg({"backup"}).status, ExitStatus::exited(0));
    EXPECT_EQ(readText(registry() + ".bak"), registryText());
    EXPECT_THAT(otherFiles(), ::testing::ElementsAre("tw.registry.bak"));
}

}  // namespace
}  // namespace traiklofox::test
