// kzreg finds out whether it can use the registry before the registry does, which would end the process.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "kzreg/kzreg_fixture.h"

namespace traiklofox::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

class KzregAccess : public KzregTest {
  protected:
    /// Every command that needs the registry says this, and the registry itself nothing.
    void expectAllRefuse(const std::string& said, bool unprivileged = false) const {
        const std::string importable = fileWith("hkey_local_machine\\a:1\n");
        const Words commands[] = {
            {"query", "HKLM"},
            {"add", "software\\a"},
            {"delete", "software\\a"},
            {"export", file("out")},
            {"import", importable},
            {"backup"},
            {"status"},
            {"watch", "HKLM"},
        };
        for (const Words& words : commands) {
            const Outcome outcome = kzreg(words, {.unprivileged = unprivileged});
            EXPECT_THAT(outcome, Fails(2, said)) << words[0];
            EXPECT_THAT(outcome.errors, Not(HasSubstr("InitRegistry"))) << words[0];
            EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), 1) << outcome.errors;
        }
        EXPECT_FALSE(fs::exists(file("out")));
        EXPECT_EQ(kzreg({"check", importable}, {.unprivileged = unprivileged}), done())
            << "it needs no registry";
    }
};

TEST_F(KzregAccess, WithoutAnInstallDirectoryItSaysWhereItLooked) {
    ::setenv("TWHOME", "/nowhere", /*overwrite=*/1);
    expectAllRefuse("/nowhere/registry/ is no directory; TWHOME is \"/nowhere\"");
    ::unsetenv("TWHOME");
    expectAllRefuse("TWHOME is not set, so /usr/lib/tarnwell/../ was looked in");
}

TEST_F(KzregAccess, WithoutATemplateItAsksForOne) {
    fs::remove(templateFile());
    expectAllRefuse("the template " + templateFile() + ": No such file or directory; install it again");
    writeText(templateFile(), "");
    expectAllRefuse("is empty, and " + registry() + " is missing");
}

TEST_F(KzregAccess, AnEmptyRegistryIsToBeRestored) {
    writeText(registry(), "");
    expectAllRefuse(registry() + " is empty: restore it from " + registry() + ".bak");
    EXPECT_EQ(registryText(), "");
}

TEST_F(KzregAccess, ARegistryThatIsNoFileIsRefused) {
    fs::create_directory(registry());
    expectAllRefuse(registry() + " is no regular file");
}

TEST_F(KzregAccess, WithoutPermissionItNamesTheOwner) {
    add("software\\example", "v", "1");
    const std::string before = registryText();
    ::chmod(registry().c_str(), 0);
    expectAllRefuse(registry() + " may not be read and written: run kzreg as root or as user ",
                    /*unprivileged=*/true);
    ::chmod(registry().c_str(), 0644);
    ::chmod(directory().c_str(), 0555);
    expectAllRefuse(directory() + "/ may not be written: run kzreg as root or as user ",
                    /*unprivileged=*/true);
    ::chmod(directory().c_str(), 0);
    expectAllRefuse(templateFile().substr(0, directory().size()), /*unprivileged=*/true);
    ::chmod(directory().c_str(), 0755);
    EXPECT_EQ(kzreg({"query", "HKLM"}, {.unprivileged = true}).status, ExitStatus::exited(0));
    EXPECT_EQ(registryText(), before);
}

TEST_F(KzregAccess, FilesThatMayNotBeReadOrWrittenAreNamed) {
    const std::string hidden = fileWith("hkey_local_machine\\a:1\n");
    const std::string closed = file("closed/out");
    writeText(closed, "old");
    ::chmod(hidden.c_str(), 0);
    ::chmod(file("closed").c_str(), 0555);
    const std::string denied = ": Permission denied";
    const Kzreg::Surroundings user{.unprivileged = true};
    EXPECT_THAT(kzreg({"check", hidden}, user), Fails(1, hidden + denied));
    EXPECT_THAT(kzreg({"import", hidden}, user), Fails(1, hidden + denied));
    EXPECT_THAT(kzreg({"export", closed}, user),
                Fails(1, "cannot write " + closed + denied + "; it is as it was"));
    EXPECT_EQ(readText(closed), "old");
}

TEST_F(KzregAccess, ASemaphoreOfSomebodyElsesIsNoticed) {
    constexpr const char* kLockFile = "/usr/lib/tarnwell/twml_data.dat";
    writeText(kLockFile, "");
    ASSERT_NE(::semget(::ftok(kLockFile, 1), 1, IPC_CREAT | IPC_EXCL | 0), -1);
    expectAllRefuse("the registry's semaphore belongs to somebody else", /*unprivileged=*/true);
}

TEST_F(KzregAccess, ARegistryThatIsCutShortByALongLineIsNotUsedAsIfItWereWhole) {
    writeText(registry(),
              readText(templateFile()) + std::string(5000, 'x') + "\nhkey_local_machine\\behind:7\n");
    const std::string said =
        registry() + ":5: longer than 4095 characters; nothing from here on is read; mend that line first";
    const std::string before = registryText();
    const std::string importable = fileWith("hkey_local_machine\\a:1\n");
    for (const Words& words : {Words{"query", "behind"},
                               {"add", "behind"},
                               {"delete", "software"},
                               {"export", file("out")},
                               {"import", importable},
                               {"backup"},
                               {"watch", "HKLM"}})
        EXPECT_THAT(kzreg(words), Fails(2, said)) << words[0];
    EXPECT_EQ(registryText(), before);
    EXPECT_THAT(kzreg({"status"}).output,
                HasSubstr("defects:       1; kzreg check '" + registry() + "' lists them"));
}

TEST_F(KzregAccess, ARegistryWithoutAKeyIsNoPlaceToAddOneTo) {
    writeText(registry(), "# nothing\n");
    for (const Words& words : {Words{"query", "HKLM"}, {"add", "software"}, {"watch", "HKLM"}})
        EXPECT_THAT(kzreg(words), Fails(2, "the registry holds no key: restore " + registry())) << words[0];
}

}  // namespace
}  // namespace traiklofox::test
