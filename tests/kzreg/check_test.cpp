// kzreg check: it names every line that the registry would not take as it looks.

#include "kzreg/kzreg_fixture.h"

namespace traiklofox::test {
namespace {

class KzregCheck : public KzregTest {};

TEST_F(KzregCheck, NamesEachBadLineAndNoOther) {
    using namespace std::string_literals;
    struct Line {
        std::string text;
        const char* finding;  // null for a good line
    };
    const Line lines[] = {
        {"# a comment", nullptr},
        {"early: 1; REG_SZ", "a value without a key"},
        {"hkey_local_machine:12", nullptr},
        {"hkey_local_machine\\a:0x1F", nullptr},
        {"", nullptr},
        {"text: one; REG_SZ", nullptr},
        {"number:8080;REG_DWORD", nullptr},
        {"list:\t\t;\tREG_MULTI_SZ", nullptr},
        {"no colon", "neither a key's nor a value's line: no colon"},
        {"name: data REG_SZ", "a value's line without a semicolon after its data"},
        {"name: data; REG_BINARY", "a value's line whose type is not REG_SZ, REG_DWORD or REG_MULTI_SZ"},
        {"name: data; REG_SZ ", "a value's line whose type is not REG_SZ, REG_DWORD or REG_MULTI_SZ"},
        {"dos: data; REG_SZ\r", "a value's line that ends in a carriage return"},
        {"cut: a;b;\tREG_SZ", "the value's data are cut at the first semicolon"},
        {"nul: a; REG_SZ\0more"s, "cut at a NUL character"},
        {"TEXT: two; REG_SZ", "takes the place of the value in line 6"},
        {"text: three; REG_SZ", "takes the place of the value in line 16"},
        {"word: eight; REG_DWORD", "the data of a REG_DWORD are no 32-bit number"},
        {"large: 0x100000000; REG_DWORD", "the data of a REG_DWORD are no 32-bit number"},
        {"none: ; REG_DWORD", "the data of a REG_DWORD are no 32-bit number"},
        {"octal: 0777; REG_DWORD", nullptr},
        {"hkey_local_machine\\b", "a key's line without a colon"},
        {"hkey_local_machine\\c:twelve", "what follows the key's name is no number"},
        {"hkey_local_machine\\c2:12\r", "what follows the key's name is no number"},
        {"hkey_local_machine\\d:0", "the key's number is outside 1 to 1073741822; it will be given another"},
        {"hkey_local_machine_e:3", "the key's name does not go on with a backslash"},
        {"f\\hkey_local_machine:4", "taken for a key's line, because it has \"hkey_local_machine\" in it"},
        {"HKEY_LOCAL_MACHINE\\g:5", "a key's name must begin with \"hkey_local_machine\" in lower case"},
        {"hkey_local_machine\\A:31", "the key of line 4 again; its number is ignored"},
        {"text: one; REG_SZ", nullptr},
        {"\\:hkey_local_machine", "a key's line that names no key"},
        {"nobody's: 1; REG_SZ", "a value without a key"},
        {std::string(4096, 'x'), "longer than 4095 characters; nothing from here on is read"},
        {"not read", nullptr},
    };
    std::string text;
    std::string expected;
    size_t number = 0;
    for (const Line& line : lines) {
        text += line.text + "\n";
        ++number;
        if (line.finding != nullptr)
            expected += file("written") + ":" + std::to_string(number) + ": " + line.finding + "\n";
    }
    EXPECT_EQ(kzreg({"check", fileWith(text)}), (Outcome{ExitStatus::exited(1), expected, ""}));
}

TEST_F(KzregCheck, FindsNothingInWhatTheLibraryWrites) {
    add("software\\example\\deep\\er", "v", "1");
    EXPECT_EQ(kzreg({"check", registry()}), done());
    EXPECT_EQ(kzreg({"check", templateFile()}), done());
}

TEST_F(KzregCheck, AFileWithoutAKeyIsNoRegistry) {
    const std::string finding = ":1: the file names no key; a registry like this is a lost one\n";
    for (const char* text : {"", "\n", "# nothing\n"})
        EXPECT_EQ(kzreg({"check", fileWith(text)}),
                  (Outcome{ExitStatus::exited(1), file("written") + finding, ""}));
}

TEST_F(KzregCheck, AFileThatCannotBeReadIsReported) {
    EXPECT_THAT(kzreg({"check", file("missing")}), Fails(1, file("missing") + ": No such file or directory"));
    EXPECT_EQ(
        kzreg({"check", directory()}),
        (Outcome{ExitStatus::exited(1), directory() + ":1: the file cannot be read any further\n", ""}));
}

}  // namespace
}  // namespace traiklofox::test
