// kzreg add and kzreg delete: what they change in the file, and what they refuse to.

#include "kzreg/kzreg_fixture.h"
#include "support/private_machine.h"

namespace traiklofox::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class KzregChange : public KzregTest {
  protected:
    std::string registryWithoutNumbers() const { return withoutNumbers(registryText()); }
    static Outcome addValue(const std::string& type, const std::string& data) {
        return kzreg({"add", "software\\example", "-v", "v", "-t", type, "-d", data});
    }
};

TEST_F(KzregChange, AddMakesEveryKeyOnTheWayInItsOwnRight) {
    EXPECT_EQ(kzreg({"add", "HKLM\\software\\example\\One\\two"}), done());
    EXPECT_EQ(registryWithoutNumbers(),
              "hkey_local_machine\n"
              "hkey_local_machine\\software\n"
              "hkey_local_machine\\software\\example\n"
              "Name:                 \tprimary;              \tREG_SZ\n"
              "hkey_local_machine\\software\\example\\One\n"
              "hkey_local_machine\\software\\example\\One\\two\n");
    const std::string before = registryText();
    EXPECT_EQ(kzreg({"add", "hkey_local_machine\\software\\EXAMPLE\\one\\TWO"}), done());
    EXPECT_EQ(registryText(), before) << "what is there stays as it is";
}

TEST_F(KzregChange, AddWritesEachTypeAsTheFileHoldsIt) {
    struct Case {
        const char* type;
        const char* data;
        const char* line;
    };
    const Case cases[] = {
        {"REG_SZ", "a text", "v:                    \ta text;               \tREG_SZ\n"},
        {"REG_SZ", "", "v:                    \t;                     \tREG_SZ\n"},
        {"reg_dword", "8080", "v:                    \t0x1f90;               \tREG_DWORD\n"},
        {"REG_DWORD", "0", "v:                    \t0;                    \tREG_DWORD\n"},
        {"REG_DWORD", "0XfFfFffff", "v:                    \t0xffffffff;           \tREG_DWORD\n"},
        {"REG_DWORD", "010", "v:                    \t0xa;                  \tREG_DWORD\n"},
        {"REG_MULTI_SZ", "one\\0two", "v:                    \tone two ;             \tREG_MULTI_SZ\n"},
        {"REG_MULTI_SZ", "one\\0two\\0\\0", "v:                    \tone two ;             \tREG_MULTI_SZ\n"},
        {"REG_MULTI_SZ", "", "v:                    \t;                     \tREG_MULTI_SZ\n"},
    };
    for (const Case& value : cases) {
        EXPECT_EQ(addValue(value.type, value.data), done()) << value.type << " " << value.data;
        EXPECT_THAT(registryText(), HasSubstr(std::string("\n") + value.line));
    }
    EXPECT_EQ(kzreg({"add", "software\\example", "-v", ""}), done());
    EXPECT_THAT(registryText(), HasSubstr("\n:                     \t;                     \tREG_SZ\n"));
}

TEST_F(KzregChange, AddRefusesWhatTheFileWouldNotGiveBackAndChangesNothing) {
    add("software\\example", "other", "1");
    const std::string before = registryText();
    struct Case {
        Words words;
        const char* said;
    };
    const std::string tooLong(5000, 'x');
    const Case cases[] = {
        {{"-v", "v", "-d", "a;b"}, "cannot contain a semicolon"},
        {{"-v", "v", "-d", " a"}, "cannot begin with white space"},
        {{"-v", "v", "-d", "a\nb"}, "a line feed in its data"},
        {{"-v", "v", "-d", "in hkey_local_machine"}, "hkey_local_machine"},
        {{"-v", "a:b", "-d", "x"}, "a colon in its name"},
        {{"-v", "#v", "-d", "x"}, "begins with \"#\""},
        {{"-v", "v", "-d", tooLong}, "too long"},
        {{"-v", "v", "-t", "REG_MULTI_SZ", "-d", "a b"}, "separates texts by blanks"},
        {{"-v", "v", "-t", "REG_MULTI_SZ", "-d", "a\\0\\0b"}, "one of its texts is empty"},
        {{"-v", "v", "-t", "REG_MULTI_SZ", "-d", "a\\0b;c"}, "cannot contain a semicolon"},
    };
    for (const Case& refused : cases) {
        Words words = {"add", "software\\example\\new"};
        words.insert(words.end(), refused.words.begin(), refused.words.end());
        EXPECT_THAT(kzreg(words), Fails(1, refused.said))
            << ::testing::PrintToString(refused.words).substr(0, 80);
    }
    for (const std::string& key :
         {std::string("software\\a:b\\c"), "software\\" + tooLong, std::string("software\\a\nb")})
        EXPECT_THAT(kzreg({"add", key}), Fails(1, "choose another name")) << key.substr(0, 80);
    EXPECT_EQ(registryText(), before);
}

TEST_F(KzregChange, DeleteRemovesAValueOrAKeyWithAllBelow) {
    add("software\\example\\a\\b", "v", "1");
    add("software\\example", "v", "1");
    EXPECT_EQ(kzreg({"delete", "software\\example", "-v", "V"}), done());
    EXPECT_EQ(kzreg({"delete", "software/EXAMPLE/a"}), done());
    EXPECT_EQ(registryWithoutNumbers(), withoutNumbers(readText(templateFile())));
}

TEST_F(KzregChange, DeleteSaysWhatIsMissing) {
    add("software\\example", "v", "1");
    const std::string before = registryText();
    EXPECT_THAT(kzreg({"delete", "software\\example", "-v", "w"}),
                Fails(1, "there is no value w in hkey_local_machine\\software\\example; kzreg query"));
    EXPECT_THAT(kzreg({"delete", "software\\nosuch", "-v", "w"}), Fails(1, "there is no key"));
    EXPECT_THAT(kzreg({"delete", "software\\nosuch\\key"}),
                Fails(1,
                      "there is no key hkey_local_machine\\software\\nosuch\\key; "
                      "kzreg query 'hkey_local_machine\\software' lists"));
    EXPECT_EQ(registryText(), before);
}

TEST_F(KzregChange, AChangeThatCannotBeWrittenIsAFailureAndNotInTheFile) {
    SmallDisk disk(home() + "/registry", 1024 * 1024);
    writeText(templateFile(), std::string(kExample) + ":1\n" + std::string(20000, '#') + "\n");
    writeText(registry(), "hkey_local_machine:1\n" + std::string(kExample) +
                              ":2\nv:                    \t1;                    \tREG_SZ\n");
    const std::string before = registryText();
    disk.leaveFree(0);
    const Words commands[] = {
        {"add", "software\\example", "-v", "new", "-d", "1"},
        {"add", "software\\example\\new"},
        {"delete", "software\\example", "-v", "v"},
        {"delete", "software\\example"},
    };
    for (const Words& words : commands) {
        const Outcome outcome = kzreg(words);
        EXPECT_THAT(outcome, Fails(1, "No space left on device")) << words[0];
        EXPECT_THAT(outcome.errors, HasSubstr("kzreg: the change is not on the disk: mend")) << words[0];
        EXPECT_EQ(registryText(), before);
    }
    EXPECT_THAT(kzreg({"backup"}), Fails(1, "there is no new backup"));
    disk.leaveFree(500'000);
    for (const Words& words : commands) EXPECT_EQ(kzreg(words), done()) << words[0];
    EXPECT_THAT(otherFiles(), ::testing::ElementsAre(".filler"));
}

}  // namespace
}  // namespace traiklofox::test
