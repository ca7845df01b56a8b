// What kzreg says of itself, and to those who call it wrongly.

#include "kzreg/kzreg_fixture.h"

namespace traiklofox::test {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class KzregUsage : public KzregTest {};

TEST_F(KzregUsage, HelpNeedsNoRegistry) {
    ::setenv("TWHOME", "/nowhere", /*overwrite=*/1);
    for (const char* name :
         {"query", "add", "delete", "export", "import", "backup", "status", "watch", "check"}) {
        const Outcome help = kzreg({name, "--help"});
        EXPECT_EQ(help.status, ExitStatus::exited(0)) << name;
        EXPECT_THAT(help.output, StartsWith(std::string("kzreg ") + name)) << name;
        EXPECT_EQ(help.errors, "") << name;
        EXPECT_THAT(kzreg({"--help"}).output, HasSubstr(std::string("  kzreg ") + name + " ")) << name;
    }
}

TEST_F(KzregUsage, WithoutACommandItShowsItsHelpAsAnError) {
    const Outcome outcome = kzreg({});
    EXPECT_EQ(outcome.status, ExitStatus::exited(2));
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors, kzreg({"--help"}).output);
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
    EXPECT_THAT(otherFiles(), ::testing::IsEmpty());
    EXPECT_THROW(registryText(), std::system_error) << "the registry was started";
}

TEST_F(KzregUsage, OptionsMayStandAnywhereAndEndAtTwoDashes) {
    add("software\\example", "-v", "-d");
    EXPECT_EQ(kzreg({"query", "-v", "-v", "--", "software\\example"}).output,
              std::string(kExample) + "\n    -v    REG_SZ    -d\n");
    EXPECT_THAT(kzreg({"query", "--", "-v"}), Fails(1, "there is no key hkey_local_machine\\-v"));
}

TEST_F(KzregUsage, AnOutputThatCannotBeWrittenIsAFailure) {
    EXPECT_THAT(kzreg({"query", "HKLM", "-s"}, {.outputFile = "/dev/full"}),
                Fails(1, "No space left on device"));
    EXPECT_THAT(kzreg({"export", "/dev/full"}), Fails(1, "No space left on device"));
}

}  // namespace
}  // namespace traiklofox::test
