// kzreg export and kzreg import: what goes out comes back, and nothing goes half way.

#include <sys/stat.h>
#include <unistd.h>

#include "kzreg/kzreg_fixture.h"

namespace traiklofox::test {
namespace {

class KzregExchange : public KzregTest {
  protected:
    /// So many keys with ten values each.
    static std::string manyKeys(int count) {
        std::string text;
        for (int key = 0; key < count; ++key) {
            text += "hkey_local_machine\\software\\many\\k" + std::to_string(key) + ":" +
                    std::to_string(key + 1) + "\n";
            for (int value = 0; value < 10; ++value)
                text += "value" + std::to_string(value) + ": data of it; REG_SZ\n";
        }
        return text;
    }
};

TEST_F(KzregExchange, WhatIsExportedIsWhatTheLibraryWritesAndComesBackTheSame) {
    const std::string text =
        "hkey_local_machine:1\n"
        "hkey_local_machine\\software:2\n"
        ":                     \tnameless;             \tREG_SZ\n"
        "a name that is longer than a column:\tdata that are longer still;\tREG_SZ\n"
        "AnameAsLongAsTheColumn:\t;                     \tREG_SZ\n"
        "BOneLessThanTheColumn:\t0xffffffff;           \tREG_DWORD\n"
        "List:                 \tone two ;             \tREG_MULTI_SZ\n"
        "Zero:                 \t0;                    \tREG_DWORD\n"
        "hkey_local_machine\\software\\a b/c:4\n";
    const std::string key =
        "hkey_local_machine\\software\\Key:3\n"
        "V\xE4lue:                \t\xC3\xA4 = %n;              \tREG_SZ\n"
        "hkey_local_machine\\software\\Key\\step\\below:5\n";
    writeText(registry(), text + key);
    ::chmod(templateFile().c_str(), 0640);
    ::umask(0);
    ASSERT_EQ(kzreg({"export", file("all")}), done());
    EXPECT_EQ(readText(file("all")), text + key) << "numbers and all";
    EXPECT_EQ(fs::status(file("all")).permissions(), fs::perms{0640}) << "no more open than the template";
    ASSERT_EQ(kzreg({"export", file("key"), "software/key"}), done());
    EXPECT_EQ(withoutNumbers(readText(file("key"))), withoutNumbers(key));
    EXPECT_EQ(kzreg({"export", "/dev/stdout", "software\\Key"}).output, readText(file("key")));
    fs::remove(registry());
    ASSERT_EQ(kzreg({"delete", "software\\example"}), done());
    ASSERT_EQ(kzreg({"import", file("all")}),
              done("imported 5 keys and 7 values from " + file("all") + "\n"));
    EXPECT_EQ(withoutNumbers(registryText()), withoutNumbers(text + key));
}

TEST_F(KzregExchange, ExportReplacesAFileWholeOrNotAtAllAndRefusesPlacesThatAreNone) {
    SmallDisk disk(file("disk"), 256 * 1024);
    const std::string target = file("disk") + "/out";
    writeText(target, "old");
    fs::create_symlink(target, file("link"));
    ASSERT_EQ(kzreg({"import", fileWith(manyKeys(200))}).status, ExitStatus::exited(0));
    disk.leaveFree(10'000);
    EXPECT_THAT(kzreg({"export", file("link")}), Fails(1, "No space left on device; it is as it was before"));
    EXPECT_EQ(readText(target), "old");
    disk.leaveFree(200'000);
    EXPECT_EQ(kzreg({"export", file("link")}), done());
    EXPECT_EQ(readText(target), registryText());
    EXPECT_TRUE(fs::is_symlink(file("link")));
    EXPECT_EQ(std::distance(fs::directory_iterator(file("disk")), fs::directory_iterator()), 2)
        << "and the filler";

    const std::string before = registryText();
    fs::create_symlink(registry(), file("self"));
    for (const auto& [place, status, said] : {std::tuple{registry(), 2, "is the registry itself"},
                                              {file("self"), 2, "is the registry itself"},
                                              {directory(), 2, "is a directory"},
                                              {file("no/such/place"), 1, "No such file or directory"}})
        EXPECT_THAT(kzreg({"export", place, "software"}), Fails(status, said)) << place;
    EXPECT_THAT(kzreg({"export", file("none"), "software\\nosuch"}), Fails(1, "there is no key"));
    EXPECT_FALSE(fs::exists(file("none")));
    EXPECT_EQ(registryText(), before);
    EXPECT_EQ(otherFiles(), "");

    const std::string hidden = fileWith("hkey_local_machine\\a:1\n"), closed = file("closed/out");
    writeText(closed, "old");
    ::chmod(hidden.c_str(), 0);
    ::chmod(file("closed").c_str(), 0555);
    const Surroundings user{.unprivileged = true};
    EXPECT_THAT(kzreg({"check", hidden}, user), Fails(1, hidden + ": Permission denied"));
    EXPECT_THAT(kzreg({"import", hidden}, user), Fails(1, hidden + ": Permission denied"));
    EXPECT_THAT(kzreg({"export", closed}, user),
                Fails(1, "cannot write " + closed + ": Permission denied; it is as it was"));
    EXPECT_EQ(readText(closed), "old");
}

TEST_F(KzregExchange, ImportAddsToWhatIsThereAndWritesOnceOrNamesTheBadLines) {
    const auto stamp = [] {
        const std::string status = kzreg({"status"}).output;
        return status.substr(status.find("version stamp: "), 16);
    };
    add("software\\example", "kept", "1");
    add("software\\example", "replaced", "1");
    EXPECT_EQ(stamp(), "version stamp: 2");
    const std::string good = fileWith(
        "# a comment\n"
        "hkey_local_machine\\software\\example:77\n"
        "Replaced: 2; REG_SZ\n"
        "new:0x10;REG_DWORD\n"
        "\n"
        "hkey_local_machine\\software\\new\\key:78\n"
        "v: 1; REG_SZ\n");
    EXPECT_EQ(kzreg({"import", good}), done("imported 2 keys and 3 values from " + good + "\n"));
    EXPECT_EQ(stamp(), "version stamp: 3");
    EXPECT_EQ(withoutNumbers(registryText()),
              "hkey_local_machine\n"
              "hkey_local_machine\\software\n"
              "hkey_local_machine\\software\\example\n"
              "kept:                 \t1;                    \tREG_SZ\n"
              "Name:                 \tprimary;              \tREG_SZ\n"
              "new:                  \t0x10;                 \tREG_DWORD\n"
              "Replaced:             \t2;                    \tREG_SZ\n"
              "hkey_local_machine\\software\\new\\key\n"
              "v:                    \t1;                    \tREG_SZ\n");
    const std::string before = registryText();
    const std::string bad = fileWith(
        "hkey_local_machine\\software\\bad:1\n"
        "new: 1; REG_SZ\n"
        "cut: a;b;\tREG_SZ\n"
        "nonsense\n"
        "xhkey_local_machine\\other:2\n"
        "elsewhere: 1; REG_SZ\n");
    const std::string findings = bad + ":3: the value's data are cut at the first semicolon\n" + bad +
                                 ":4: neither a key's nor a value's line: no colon\n" + bad +
                                 ":5: taken for a key's line, because it has \"hkey_local_machine\" in it\n";
    EXPECT_THAT(kzreg({"import", bad}),
                Fails(1, findings + "kzreg: nothing is imported: mend these lines (kzreg check"));
    EXPECT_EQ(registryText(), before);
    EXPECT_EQ(kzreg({"import", "--force", bad}).errors, findings);
    const std::string key = "hkey_local_machine\\software\\bad\n";
    EXPECT_EQ(kzreg({"query", "software\\bad"}),
              done(key + "    cut    REG_SZ    a\n    new    REG_SZ    1\n"));
}

TEST_F(KzregExchange, AFileThatIsNoRegistryOrSaysMoreThanItCanHoldImportsNothing) {
    std::string lines;
    for (int i = 0; i < 25; ++i) lines += "not a registry\n";
    for (const std::string& text :
         {lines, std::string(), "hkey_local_machine\\a:1\n" + std::string(5000, 'x')})
        for (const Words& words : {Words{"import", fileWith(text)}, {"import", "--force", fileWith(text)}})
            EXPECT_THAT(kzreg(words), Fails(1, "nothing is imported"));
    const std::string errors = kzreg({"import", fileWith(lines)}).errors;
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 12) << "the first ten lines";
    EXPECT_THAT(errors, HasSubstr("\nand 15 more\n"));
    EXPECT_THAT(kzreg({"import", file("missing")}),
                Fails(1, file("missing") + ": No such file or directory"));
    EXPECT_FALSE(fs::exists(registry())) << "the registry was started";

    // A line that a hand wrote without columns may say more than there is room for with them.
    add("software\\example", "v", "1");
    const std::string before = registryText();
    const std::string source = fileWith(
        "hkey_local_machine\\software\\new:7\nw: 2; REG_SZ\nv:" + std::string(4080, 'x') + ";REG_SZ\n");
    EXPECT_EQ(kzreg({"check", source}), done());
    const Outcome refused = kzreg({"import", source});
    EXPECT_THAT(
        refused,
        Fails(1, "nothing is imported: see above what the registry cannot hold of key software\\new"));
    EXPECT_THAT(refused.errors, HasSubstr("value \"v\" refused: it is too long for a line of the file"));
    EXPECT_EQ(registryText(), before);
}

TEST_F(KzregExchange, ALongImportShowsItsProgressOnATerminal) {
    const std::string source = fileWith(manyKeys(500));
    const Outcome plain = done("imported 500 keys and 5000 values from " + source + "\n");
    EXPECT_EQ(kzreg({"import", source}), plain);
    EXPECT_EQ(kzreg({"query", "software\\many\\k499", "-v", "value9"}),
              done("hkey_local_machine\\software\\many\\k499\n    value9    REG_SZ    data of it\n"));
    const Outcome watched = kzreg({"import", source}, {.terminal = true});
    EXPECT_EQ(watched.output, plain.output);
    EXPECT_THAT(watched.errors, HasSubstr("\r\033[Kimporting 50%\r"));
    EXPECT_TRUE(watched.errors.ends_with("\r\033[Kimporting 100%\r\033[Kwriting\r\033[K"));
    EXPECT_EQ(kzreg({"import", fileWith(manyKeys(5))}, {.terminal = true}).errors, "") << "a short one";
}

}  // namespace
}  // namespace traiklofox::test
