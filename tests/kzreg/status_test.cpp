// kzreg status and kzreg backup.

#include <traiklofox/registry.h>
#include <unistd.h>

#include <filesystem>

#include "kzreg/kzreg_fixture.h"

namespace traiklofox::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

class KzregStatus : public KzregTest {
  protected:
    /// The text with the paths of the registry and its template and the file's size in the places of @, ~ and #.
    std::string filledIn(const std::string& text) const {
        const std::string present = fs::exists(registry()) ? registry() : templateFile();
        std::string filled;
        for (const char c : text)
            filled += c == '@'   ? registry()
                      : c == '~' ? templateFile()
                      : c == '#' ? std::to_string(fs::file_size(present))
                                 : std::string(1, c);
        return filled;
    }
};

TEST_ROLE(holdsTheRegistryLock) {
    RegLockCache(REG_LOCK_EXCLUSIVE);
    tellTest("held");
    (void)hearTest();
    return 0;
}

TEST_F(KzregStatus, TellsOfFilesCountsAndTheLastWriter) {
    EXPECT_EQ(kzreg({"status"}), done(filledIn("registry:      @\n"
                                               "template:      ~\n"
                                               "backup:        @.bak (missing)\n"
                                               "lock file:     /usr/lib/tarnwell/twml_data.dat\n"
                                               "version stamp: 0\n"
                                               "last writer:   none\n"
                                               "lock owner:    none\n"
                                               "file:          # bytes, 3 keys, 1 values\n")));
    add("software\\example\\a", "v", "1");
    ASSERT_EQ(kzreg({"backup"}), done(filledIn("backed up to @.bak\n")));
    std::string json = kzreg({"status", "--json"}).output;
    const size_t writer = json.find("\"lastWriter\": ") + 14;
    const std::string pid = json.substr(writer, json.find(',', writer) - writer);
    EXPECT_THAT(kzreg({"status"}).output, HasSubstr("last writer:   process " + pid + " (has ended)\n"));
    EXPECT_EQ(json.replace(writer, pid.size(), "0"), filledIn(R"({
  "registry": "@",
  "template": "~",
  "backup": "@.bak",
  "lockFile": "/usr/lib/tarnwell/twml_data.dat",
  "versionStamp": 1,
  "lastWriter": 0,
  "lockOwner": null,
  "bytes": #,
  "keys": 4,
  "values": 2,
  "defects": 0
}
)"));
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
    fs::remove(registry());
    EXPECT_THAT(kzreg({"status"}).output, HasSubstr("registry:      " + registry() + " (missing)\n"));
    EXPECT_THAT(kzreg({"status", "--json"}).output, HasSubstr("\"registry\": null,\n"));
}

TEST_F(KzregStatus, BackupCopiesTheRegistryAsItIs) {
    for (const char* data : {"1", "2"}) {
        add("software\\example", "v", data);
        ASSERT_EQ(kzreg({"backup"}), done(filledIn("backed up to @.bak\n")));
        EXPECT_EQ(readText(registry() + ".bak"), registryText());
        EXPECT_THAT(otherFiles(), ::testing::ElementsAre("tw.registry.bak"));
    }
}

}  // namespace
}  // namespace traiklofox::test
