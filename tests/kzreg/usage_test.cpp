// What kzreg says of itself, to those who call it wrongly, and where it cannot use the registry: it finds that out
// before the registry does, which would end the process.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "kzreg/kzreg_fixture.h"

namespace traiklofox::test {
namespace {

using ::testing::Not;
using ::testing::StartsWith;

class KzregUsage : public KzregTest {
  protected:
    std::vector<Words> commandsThatNeedTheRegistry() const {
        return {{"query", "HKLM"},
                {"add", "software\\a"},
                {"delete", "software\\a"},
                {"export", file("out")},
                {"import", fileWith("hkey_local_machine\\a:1\n")},
                {"backup"},
                {"watch", "HKLM"},
                {"status"}};
    }
};

TEST_F(KzregUsage, HelpNeedsNoRegistry) {
    ::setenv("TWHOME", "/nowhere", /*overwrite=*/1);
    const std::string help = kzreg({"--help"}).output;
    for (const char* name :
         {"query", "add", "delete", "export", "import", "backup", "status", "watch", "check"}) {
        const Outcome own = kzreg({name, "--help"});
        EXPECT_EQ(own, done(own.output)) << name;
        EXPECT_THAT(own.output, StartsWith(std::string("kzreg ") + name)) << name;
        EXPECT_THAT(help, HasSubstr(std::string("  kzreg ") + name + " ")) << name;
    }
    EXPECT_EQ(kzreg({}), (Outcome{ExitStatus::exited(2), "", help}));
}

TEST_F(KzregUsage, AWrongCommandLineIsRefusedBeforeTheRegistryIsTouched) {
    struct Case {
        Words words;
        const char* said;
    };
    const Case cases[] = {
        {{"frobnicate"}, "there is no command frobnicate"},
        {{"query"}, "something is missing; see kzreg query --help"},
        {{"query", "HKLM", "software"}, "\"software\" is too much"},
        {{"query", "HKLM", "-x"}, "there is no option -x"},
        {{"query", "HKLM", "--yaml"}, "there is no option --yaml"},
        {{"query", "HKLM", "-v"}, "-v needs something behind it"},
        {{"query", "HKLM", "-d", "x"}, "query takes no -d"},
        {{"export", "file", "--json"}, "export takes no --json"},
        {{"query", ""}, "write HKLM for the root"},
        {{"query", "HKEY_USERS\\x"}, "there is no root HKEY_USERS"},
        {{"query", "hkcu/x"}, "there is no root hkcu"},
        {{"delete", "hklm"}, "the root cannot be deleted"},
        {{"add", "software", "-v", "a", "-v", "b"}, "-v is given twice"},
        {{"add", "software", "-d", "x"}, "which value?"},
        {{"add", "software", "-t", "REG_SZ"}, "which value?"},
        {{"add", "software", "-v", "x", "-t", "REG_BINARY"}, "there is no type REG_BINARY"},
        {{"add", "software", "-v", "x", "-t", "REG_DWORD"}, "needs a number"},
    };
    for (const Case& wrong : cases)
        EXPECT_THAT(kzreg(wrong.words), Fails(2, wrong.said)) << ::testing::PrintToString(wrong.words);
    for (const char* number : {"", " 1", "-1", "+1", "1x", "0x", "0x100000000", "4294967296", "ff", "1 "})
        EXPECT_THAT(kzreg({"add", "software", "-v", "x", "-t", "REG_DWORD", "-d", number}),
                    Fails(2, "32-bit number"))
            << number;
    EXPECT_EQ(kzreg({"check", templateFile()}), done());
    EXPECT_FALSE(fs::exists(registry())) << "the registry was started";

    add("software\\example", "-v", "-d");
    EXPECT_EQ(kzreg({"query", "-v", "-v", "--", "software\\example"}),
              done(std::string(kExample) + "\n    -v    REG_SZ    -d\n"));
    EXPECT_THAT(kzreg({"query", "--", "-v"}), Fails(1, "there is no key hkey_local_machine\\-v"));
    EXPECT_THAT(kzreg({"query", "HKLM", "-s"}, {.outputFile = "/dev/full"}),
                Fails(1, "No space left on device"));
    EXPECT_THAT(kzreg({"export", "/dev/full"}), Fails(1, "No space left on device"));
}

TEST_F(KzregUsage, WithoutAUsableRegistryEveryCommandSaysWhyAndTheRegistryNothing) {
    const auto deny = [](const std::string& path, mode_t mode) {
        add("software\\example", "v", "1");
        ::chmod(path.c_str(), mode);
    };
    constexpr const char* kLockFile = "/usr/lib/tarnwell/twml_data.dat";
    const struct {
        std::function<void()> spoil;
        const char* said;
        bool unprivileged = false;
        bool hasStatus = false;
    } cases[] = {
        {[] { ::setenv("TWHOME", "/nowhere", /*overwrite=*/1); },
         "/nowhere/registry/ is no directory; TWHOME is \"/nowhere\""},
        {[] { ::unsetenv("TWHOME"); }, "TWHOME is not set, so /usr/lib/tarnwell/../ was looked in"},
        {[&] { fs::remove(templateFile()); }, "the template ~: No such file or directory; install it again"},
        {[&] { writeText(templateFile(), ""); }, "is empty, and @ is missing"},
        {[&] { writeText(registry(), ""); }, "@ is empty: restore it from @.bak"},
        {[&] { fs::create_directory(registry()); }, "@ is no regular file"},
        {[&] { deny(registry(), 0); }, "@ may not be read and written: run kzreg as root or as user ", true},
        {[&] { deny(directory(), 0555); }, "%/ may not be written: run kzreg as root or as user ", true},
        {[&] { deny(directory(), 0); }, "%", true},
        {[&] {
             fs::remove_all(kLockFile);
             writeText(kLockFile, "");
             ASSERT_NE(::semget(::ftok(kLockFile, 1), 1, IPC_CREAT | IPC_EXCL | 0), -1);
         },
         "the registry's semaphore belongs to somebody else", true},
        {[&] { writeText(registry(), readText(templateFile()) + std::string(5000, 'x') + "\n"); },
         "@:5: longer than 4095 characters; nothing from here on is read; mend that", false, true},
    };
    for (const auto& c : cases) {
        installAnew();
        c.spoil();
        const bool present = fs::is_regular_file(registry());
        const std::string before = present ? registryText() : "";
        for (const Words& words : commandsThatNeedTheRegistry()) {
            if (c.hasStatus && words[0] == "status") continue;
            const Outcome outcome = kzreg(words, {.unprivileged = c.unprivileged});
            EXPECT_THAT(outcome, Fails(2, filledIn(c.said))) << words[0] << outcome;
            EXPECT_THAT(outcome.errors, Not(HasSubstr("InitRegistry"))) << words[0];
            EXPECT_EQ(outcome.errors.find('\n') + 1, outcome.errors.size()) << outcome.errors;
        }
        EXPECT_FALSE(fs::exists(file("out")));
        EXPECT_EQ(present ? registryText() : "", before);
        EXPECT_EQ(kzreg({"check", file("written")}, {.unprivileged = c.unprivileged}), done())
            << "needs no registry";
        ::chmod(directory().c_str(), 0755);
    }
    writeText(registry(), readText(templateFile()) + std::string(5000, 'x') + "\n");
    EXPECT_THAT(kzreg({"status"}).output,
                HasSubstr(filledIn("defects:       1; kzreg check '@' lists them")));
    writeText(registry(), "# nothing\n");
    for (const Words& words : {Words{"query", "HKLM"}, {"add", "software"}, {"watch", "HKLM"}})
        EXPECT_THAT(kzreg(words), Fails(2, filledIn("the registry holds no key: restore @"))) << words[0];
}

}  // namespace
}  // namespace traiklofox::test
