// kzreg add, delete and watch: what they change in the file, what they refuse to, and what others see of it.

#include <signal.h>

#include "kzreg/kzreg_fixture.h"

namespace traiklofox::test {
namespace {

class KzregChange : public KzregTest {};

TEST_F(KzregChange, AddMakesEveryKeyOnTheWayAndDeleteRemovesAllBelow) {
    EXPECT_EQ(kzreg({"add", "HKLM\\software\\example\\One\\two"}), done());
    const std::string before = registryText();
    EXPECT_EQ(withoutNumbers(before), withoutNumbers(readText(templateFile())) +
                                          "hkey_local_machine\\software\\example\\One\n"
                                          "hkey_local_machine\\software\\example\\One\\two\n");
    EXPECT_EQ(kzreg({"add", "hkey_local_machine\\software\\EXAMPLE\\one\\TWO"}), done());
    EXPECT_EQ(registryText(), before) << "what is there stays as it is";
    add("software\\example", "v", "1");
    const std::string with = registryText();
    for (const auto& [words, said] :
         {std::pair{Words{"delete", "software\\example", "-v", "w"},
                    "there is no value w in hkey_local_machine\\software\\example; kzreg query"},
          {Words{"delete", "software\\nosuch", "-v", "w"}, "there is no key"},
          {Words{"delete", "software\\nosuch\\key"},
           "there is no key hkey_local_machine\\software\\nosuch\\key; "
           "kzreg query 'hkey_local_machine\\software' lists"}})
        EXPECT_THAT(kzreg(words), Fails(1, said));
    EXPECT_EQ(registryText(), with);
    EXPECT_EQ(kzreg({"delete", "software\\example", "-v", "V"}), done());
    EXPECT_EQ(kzreg({"delete", "software/EXAMPLE/one"}), done());
    EXPECT_EQ(withoutNumbers(registryText()), withoutNumbers(readText(templateFile())));
}

TEST_F(KzregChange, AddWritesEachTypeAsTheFileHoldsItOrRefusesWhatItWouldNotGiveBack) {
    for (const auto& [type, data, line] :
         {std::tuple{"REG_SZ", "a text", "v:                    \ta text;               \tREG_SZ\n"},
          {"REG_SZ", "", "v:                    \t;                     \tREG_SZ\n"},
          {"reg_dword", "8080", "v:                    \t0x1f90;               \tREG_DWORD\n"},
          {"REG_DWORD", "0", "v:                    \t0;                    \tREG_DWORD\n"},
          {"REG_DWORD", "0XfFfFffff", "v:                    \t0xffffffff;           \tREG_DWORD\n"},
          {"REG_DWORD", "010", "v:                    \t0xa;                  \tREG_DWORD\n"},
          {"REG_MULTI_SZ", "one\\0two", "v:                    \tone two ;             \tREG_MULTI_SZ\n"},
          {"REG_MULTI_SZ", "one\\0two\\0\\0",
           "v:                    \tone two ;             \tREG_MULTI_SZ\n"},
          {"REG_MULTI_SZ", "", "v:                    \t;                     \tREG_MULTI_SZ\n"}}) {
        EXPECT_EQ(kzreg({"add", "software\\example", "-v", "v", "-t", type, "-d", data}), done())
            << type << data;
        EXPECT_THAT(registryText(), HasSubstr(std::string("\n") + line));
    }
    EXPECT_EQ(kzreg({"add", "software\\example", "-v", ""}), done());
    EXPECT_THAT(registryText(), HasSubstr("\n:                     \t;                     \tREG_SZ\n"));

    const std::string before = registryText(), tooLong(5000, 'x');
    for (const auto& [name, type, data, said] :
         {std::tuple{"v", "REG_SZ", "a;b", "cannot contain a semicolon"},
          {"v", "REG_SZ", " a", "cannot begin with white space"},
          {"v", "REG_SZ", "a\nb", "a line feed in its data"},
          {"v", "REG_SZ", "in hkey_local_machine", "hkey_local_machine"},
          {"a:b", "REG_SZ", "x", "a colon in its name"},
          {"#v", "REG_SZ", "x", "begins with \"#\""},
          {"v", "REG_SZ", tooLong.c_str(), "too long"},
          {"v", "REG_MULTI_SZ", "a b", "separates texts by blanks"},
          {"v", "REG_MULTI_SZ", "a\\0\\0b", "one of its texts is empty"},
          {"v", "REG_MULTI_SZ", "a\\0b;c", "cannot contain a semicolon"}})
        EXPECT_THAT(kzreg({"add", "software\\new", "-v", name, "-t", type, "-d", data}), Fails(1, said))
            << said;
    for (const std::string& key :
         {std::string("software\\a:b\\c"), "software\\" + tooLong, std::string("a\nb")})
        EXPECT_THAT(kzreg({"add", key}), Fails(1, "choose another name"));
    EXPECT_EQ(registryText(), before);
}

TEST_F(KzregChange, AChangeThatCannotBeWrittenIsAFailureAndNotInTheFile) {
    SmallDisk disk(directory(), 1024 * 1024);
    writeText(templateFile(), std::string(kExample) + ":1\n" + std::string(20000, '#') + "\n");
    writeText(registry(), "hkey_local_machine:1\n" + std::string(kExample) +
                              ":2\nv:                    \t1;                    \tREG_SZ\n");
    const std::string before = registryText(), toImport = file("import");
    writeText(toImport, "hkey_local_machine\\software\\imported:7\nv: 1; REG_SZ\n");
    disk.leaveFree(0);
    const Words commands[] = {{"add", "software\\example", "-v", "new", "-d", "1"},
                              {"add", "software\\example\\new"},
                              {"delete", "software\\example", "-v", "v"},
                              {"import", toImport},
                              {"delete", "software\\example"}};
    for (const Words& words : commands) {
        const Outcome outcome = kzreg(words);
        EXPECT_THAT(outcome, Fails(1, "No space left on device")) << words[0];
        EXPECT_THAT(outcome.errors, HasSubstr("kzreg: the change is not on the disk: mend")) << words[0];
        EXPECT_EQ(registryText(), before);
    }
    EXPECT_THAT(kzreg({"backup"}), Fails(1, "there is no new backup"));
    disk.leaveFree(500'000);
    for (const Words& words : commands)
        EXPECT_EQ(kzreg(words).status, ExitStatus::exited(0)) << ::testing::PrintToString(words);
    EXPECT_EQ(otherFiles(), ".filler");
}

TEST_F(KzregChange, WatchPrintsEachChangeByOthersUntilItIsInterruptedOrItsKeyIsGone) {
    const std::string key = "software\\example\\watched";
    EXPECT_EQ(kzreg({"add", key + "\\sub"}), done());
    const std::pair<Words, const char*> changes[] = {
        {{"add", key, "-v", "Port", "-t", "REG_DWORD", "-d", "80"}, "value set    Port    REG_DWORD    0x50"},
        {{"add", key, "-v", "Port", "-d", "eighty"}, "value set    Port    REG_SZ    eighty"},
        {{"delete", key, "-v", "Port"}, "value deleted    Port    REG_SZ    eighty"},
        {{"add", key + "\\new"}, "key created    new"},
        {{"delete", key + "\\new"}, "key deleted    new"},
        {{"add", "software\\example", "-v", "elsewhere", "-d", "1"}, nullptr},
        {{"add", key + "\\sub", "-v", "below", "-d", "1"}, nullptr},
        {{"add", key, "-v", "", "-d", "last"}, "value set    (Default)    REG_SZ    last"},
        {{"delete", key, "-v", ""}, "value deleted    (Default)    REG_SZ    last"}};
    for (const int signal : {SIGINT, SIGTERM, 0}) {
        Kzreg watch({"watch", key});
        ASSERT_EQ(watch.errorLine(), "kzreg: watching hkey_local_machine\\" + key + " until interrupted");
        for (const auto& [words, line] : changes) {
            EXPECT_EQ(kzreg(words), done()) << ::testing::PrintToString(words);
            if (line != nullptr) {
                EXPECT_EQ(watch.outputLine(), line);
            }
        }
        if (signal != 0) {
            watch.kill(signal);
            EXPECT_EQ(watch.finish(), done());
        } else {
            EXPECT_EQ(kzreg({"delete", "software\\example"}), done());
            EXPECT_THAT(watch.finish(), Fails(1, "the key has been deleted"));
        }
    }
    EXPECT_THAT(kzreg({"watch", key}), Fails(1, "there is no key"));
}

}  // namespace
}  // namespace traiklofox::test
