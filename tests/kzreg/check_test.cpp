// kzreg check: it names every line that the registry would not take as it looks.

#include <sstream>

#include "kzreg/kzreg_fixture.h"

namespace traiklofox::test {
namespace {

class KzregCheck : public KzregTest {};

/// Keys and values in the order of their names, as in "[\a] v=1 w=0x2 [\b]".
std::string contentOf(const std::string& query) {
    std::istringstream lines(query);
    std::string content;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("    ")) {
            const size_t type = line.find("    ", 4);
            content += " " + line.substr(4, type - 4) + "=" + line.substr(line.find("    ", type + 4) + 4);
        } else if (!line.empty()) {
            content +=
                (content.empty() ? "[" : " [") + line.substr(std::string("hkey_local_machine").size()) + "]";
        }
    }
    return content;
}

TEST_F(KzregCheck, EveryKindOfBadFileIsNamedAndLoadsAsFarAsItIsGood) {
    const std::string root = "hkey_local_machine:1\n";
    const std::string a = "hkey_local_machine\\a:2\n";
    const std::string v = "v: 1; REG_SZ\n";
    const std::string noKey = "1: the file names no key; a registry like this is a lost one\n";
    const std::string tooLong = "longer than 4095 characters; nothing from here on is read";
    std::string deep = "hkey_local_machine";
    while (deep.size() < 4080) deep += "\\d";
    const auto everySecondByteNul = [](const std::string& text) {
        std::string wide;
        for (const char c : text) (wide += c) += '\0';
        return wide;
    };
    struct File {
        const char* kind;
        std::string text;
        std::string findings;  // by `check`, each with its line number
        std::string content;   // by `query`, when loaded; or, after a "!", why it is not used
    };
    const File files[] = {
        {"nothing", "", noKey, "!is empty: restore it from"},
        {"only comments", "# v: 1; REG_SZ\n\n#hkey_local_machine\\a:1\n", noKey,
         "!the registry holds no key: restore"},
        {"no line end at the end", a + "v: 1; REG_SZ", "", "[] [\\a] v=1"},
        {"DOS line ends", "hkey_local_machine\\a:2\r\nv: 1; REG_SZ\r\n\r\n",
         "1: what follows the key's name is no number\n"
         "2: a value's line that ends in a carriage return\n"
         "3: neither a key's nor a value's line: no colon\n",
         "[] [\\a]"},
        {"carriage returns alone", "hkey_local_machine:1\rhkey_local_machine\\a:2\rv: 1; REG_SZ\r",
         "1: what follows the key's name is no number\n", "[]"},
        {"a mark of the byte order in front", "\xEF\xBB\xBF" + root + a + v,
         "1: taken for a key's line, because it has \"hkey_local_machine\" in it\n", "[] [\\a] v=1"},
        {"UTF-16", everySecondByteNul(root + a),
         "1: neither a key's nor a value's line: no colon\n2: cut at a NUL character\n3: cut at a NUL "
         "character\n",
         "!the registry holds no key: restore"},
        {"values before any key", v + root + a + v, "1: a value without a key\n", "[] [\\a] v=1"},
        {"no key at all", v + v, "1: a value without a key\n2: a value without a key\n",
         "!the registry holds no key"},
        {"a key in upper case, whose values go to the one before",
         a + v + "HKEY_LOCAL_MACHINE\\b:3\nw: 2; REG_SZ\n",
         "3: a key's name must begin with \"hkey_local_machine\" in lower case\n", "[] [\\a] v=1 w=2"},
        {"keys and values twice",
         a + v + "hkey_local_machine\\b:3\n" + v + "hkey_local_machine\\A:4\nV: 2; REG_SZ\n" + v,
         "5: the key of line 1 again; its number is ignored\n7: takes the place of the value in line 6\n",
         "[] [\\a] v=1 [\\b] v=1"},
        {"missing separators and unknown types",
         a + "hkey_local_machine\\b\nv 1; REG_SZ\nv: 1 REG_SZ\nv: 1;\nv: 1; reg_sz\nv: 1; "
             "REG_BINARY\n:\n;\n:;\n"
             "w: 2; REG_SZ\n",
         "2: a key's line without a colon\n"
         "3: neither a key's nor a value's line: no colon\n"
         "4: a value's line without a semicolon after its data\n"
         "5: a value's line whose type is not REG_SZ, REG_DWORD or REG_MULTI_SZ\n"
         "6: a value's line whose type is not REG_SZ, REG_DWORD or REG_MULTI_SZ\n"
         "7: a value's line whose type is not REG_SZ, REG_DWORD or REG_MULTI_SZ\n"
         "8: a value's line without a semicolon after its data\n"
         "9: neither a key's nor a value's line: no colon\n"
         "10: a value's line whose type is not REG_SZ, REG_DWORD or REG_MULTI_SZ\n",
         "[] [\\a] w=2"},
        {"numbers that are none, or too large",
         a + "n: eight; REG_DWORD\no: 0x1ffffffff; REG_DWORD\np: -1; REG_DWORD\nq: 4294967295; REG_DWORD\n"
             "hkey_local_machine\\b:4294967298\nhkey_local_machine\\c:-3\nhkey_local_machine\\d:"
             "9999999999999999999999\n",
         "2: the data of a REG_DWORD are no 32-bit number\n"
         "3: the data of a REG_DWORD are no 32-bit number\n"
         "4: the data of a REG_DWORD are no 32-bit number\n"
         "6: what follows the key's name is no number\n"
         "7: the key's number is outside 1 to 1073741822; it will be given another\n"
         "8: what follows the key's name is no number\n",
         "[] [\\a] n=0 o=0xffffffff p=0xffffffff q=0xffffffff [\\b] [\\c] [\\d]"},
        {"data with semicolons and escapes", a + "u:a\\0b\\n\\;c;\tREG_MULTI_SZ\n" + "v:\ta;b;\tREG_SZ\n",
         "2: the value's data are cut at the first semicolon\n3: the value's data are cut at the first "
         "semicolon\n",
         "[] [\\a] u=a\\0b\\n\\ v=a"},
        {"what only resembles a key", a + "hkey_local_machine_e:3\n\\:hkey_local_machine\n" + v,
         "2: the key's name does not go on with a backslash\n3: a key's line that names no key\n4: a value "
         "without "
         "a key\n",
         "[] [\\a]"},
        {"backslashes too many",
         "hkey_local_machine\\\\a:2\n" + v + "hkey_local_machine\\a\\:3\nw: 2; REG_SZ\n",
         "1: the key's name has a backslash too many, which is passed over\n"
         "3: the key's name has a backslash too many, which is passed over\n",
         "[] [\\a] v=1 w=2"},
        {"NULs", a + std::string("v: 1; REG_SZ\0x\n\0\nw\0: 2; REG_SZ\n", 29),
         "2: cut at a NUL character\n3: cut at a NUL character\n4: neither a key's nor a value's line: no "
         "colon\n",
         "[] [\\a] v=1"},
        {"blanks and control characters", a + " \n\t\n\x01\x1b[2J\n" + v,
         "2: neither a key's nor a value's line: no colon\n"
         "3: neither a key's nor a value's line: no colon\n"
         "4: neither a key's nor a value's line: no colon\n",
         "[] [\\a] v=1"},
        {"a line that just fits", a + "v:" + std::string(4086, 'x') + ";REG_SZ\n", "",
         "[] [\\a] v=" + std::string(4086, 'x')},
        {"a line that is too long", a + "v:" + std::string(4087, 'x') + ";REG_SZ\n" + v,
         "2: " + tooLong + "\n", "!:2: " + tooLong + "; mend that line first"},
        {"a line of 10 MB", a + std::string(10 << 20, 'x') + "\n" + v, "2: " + tooLong + "\n",
         "!:2: " + tooLong + "; mend that line first"},
        {"a line of 1 MB of NULs without an end", a + std::string(1 << 20, '\0'), "2: " + tooLong + "\n",
         "!:2: " + tooLong + "; mend that line first"},
    };
    for (const File& bad : files) {
        SCOPED_TRACE(bad.kind);
        writeText(registry(), bad.text);
        std::istringstream findings(bad.findings);
        std::string expected;
        for (std::string line; std::getline(findings, line);) expected += registry() + ":" + line + "\n";
        EXPECT_EQ(kzreg({"check", registry()}),
                  (Outcome{ExitStatus::exited(expected.empty() ? 0 : 1), expected, ""}));

        const Outcome loaded = kzreg({"query", "HKLM", "-s"});
        if (bad.content.starts_with('!')) {
            EXPECT_THAT(loaded, Fails(2, bad.content.substr(1)));
            continue;
        }
        EXPECT_EQ(loaded.status, ExitStatus::exited(0)) << loaded;
        EXPECT_EQ(contentOf(loaded.output), bad.content);
        // What was read survives being written.
        EXPECT_EQ(kzreg({"add", "HKLM\\z"}), done());
        EXPECT_EQ(contentOf(kzreg({"query", "HKLM", "-s"}).output), bad.content + " [\\z]");
    }
    writeText(registry(), deep + ":7\n" + v);
    EXPECT_EQ(kzreg({"check", registry()}), done());
    EXPECT_EQ(kzreg({"query", deep, "-v", "v"}), done(deep + "\n    v    REG_SZ    1\n"));
    EXPECT_THAT(kzreg({"query", "HKLM", "-s"}).output,
                ::testing::EndsWith(deep + "\n    v    REG_SZ    1\n"));
    EXPECT_THAT(kzreg({"check", file("missing")}), Fails(1, file("missing") + ": No such file or directory"));
    EXPECT_EQ(kzreg({"check", directory()}).output,
              directory() + ":1: the file cannot be read any further\n");
}

}  // namespace
}  // namespace traiklofox::test
