// What reading the file makes of the tree: keys, the keys on the way to them, bad lines, and what other processes
// have deleted.

#include "registry/registry_fixture.h"
#include "support/captured_output.h"

namespace traiklofox::test {
namespace {

class Tree : public RegistryTest {
  protected:
    /// Starts the registry on a file of the test's.
    void startOn(std::string_view text) const {
        writeText(file(), text);
        InitRegistry(/*flags=*/0, /*create=*/true);
    }
};

TEST_F(Tree, KeysOnTheWayShareNameAndNumberUntilTheyAreKeysThemselves) {
    startOn(keyLine("a\\b", "12"));
    for (const char* path : {"", "a", "a\\b"}) {
        const OpenKey key(path, KEY_READ);
        EXPECT_EQ(key, 12) << path;
        EXPECT_EQ(RegHKEYtoString(key), "hkey_local_machine\\a\\b") << path;
    }
    // Paths go by the place in the tree all the same.
    OpenKey a("a");
    EXPECT_EQ(RegFormatKey("b", a), "hkey_local_machine\\a\\b");
    OpenKey::createBelow(a, "c");
    EXPECT_TRUE(keyExists("a\\c"));
    EXPECT_EQ(fileKeys(), parseRegistry(keyLine("a\\b") + keyLine("a\\c")));

    // A value, a line of the file and a creation by name each make a key of them.
    setText(a, "v", "1");
    EXPECT_EQ(RegHKEYtoString(a), "hkey_local_machine\\a");
    EXPECT_EQ(a.close(), 0);
    replaceFile(keyLine("x\\y") + keyLine("x") + fileText());
    EXPECT_EQ(RegHKEYtoString(OpenKey("x", KEY_READ)), "hkey_local_machine\\x");
    const OpenKey root = OpenKey::createBelow(HKEY_LOCAL_MACHINE, "");
    EXPECT_EQ(RegHKEYtoString(root), "hkey_local_machine");
    EXPECT_EQ(RegFlushKey(root), 0);
    EXPECT_EQ(fileKeys(), parseRegistry(keyLine("") + keyLine("a") + valueLine("v", "1") + keyLine("a\\b") +
                                        keyLine("a\\c") + keyLine("x") + keyLine("x\\y")));
    // All that one creation makes has one number, which only one open key answers to.
    const OpenKey three = OpenKey::createBelow(root, "one\\two\\three");
    const OpenKey two("one\\two");
    EXPECT_EQ(RegHKEYtoString(two), "hkey_local_machine\\one\\two\\three");
    EXPECT_NE(two, three);
}

TEST_F(Tree, BadLinesAreSkippedAndTheRestIsKept) {
    const std::string bad[] = {"no colon",
                               "no type: x",
                               "no type: x;",
                               "bad type: x; REG_BINARY",
                               ":",
                               ";",
                               ":;",
                               "\t",
                               "\r",
                               "\x01\xff\xfe",
                               std::string("nul\0: x;\tREG_SZ", 15),
                               std::string(1, '\0'),
                               "hkey_local_machine without a colon",
                               std::string(4095, 'x'),
                               "#hkey_local_machine\\comment:1",
                               "# Name:\tcomment;\tREG_SZ"};
    std::string text =
        valueLine("orphan", "x") + keyLine("") + "\\\\:hkey_local_machine\n" + valueLine("nobody's", "x");
    for (size_t i = 0; i < std::size(bad); ++i)
        text += keyLine("k" + std::to_string(i)) + valueLine("before", "x") + bad[i] + "\n" +
                valueLine("after", "y");
    const Names numbers{"", "0", "0x10", "99999999999999999999", "1073741823", "-5", "seven"};
    for (const std::string& number : numbers) text += keyLine("n" + number, number) + valueLine("v", "x");
    startOn(text + "hkey_local_machine\\\\last\\:-1\nno line end:\tx;\tREG_SZ");
    for (size_t i = 0; i < std::size(bad); ++i)
        EXPECT_EQ(valuesOf(OpenKey("k" + std::to_string(i), KEY_READ)), (Names{"before", "after"})) << bad[i];
    for (const std::string& number : numbers) {
        const OpenKey key("n" + number);
        EXPECT_TRUE((key & ~kWriteBit) > 0 && (key & ~kWriteBit) < 0x3fffffff) << number;
        EXPECT_EQ(textOf(key, "v"), "x") << number;
    }
    EXPECT_EQ(OpenKey("n0x10", KEY_READ), 0x10);
    EXPECT_EQ(valuesOf(OpenKey("", KEY_READ)), Names{});
    EXPECT_EQ(textAt("last", "no line end"), "x");
    EXPECT_EQ(WriteRegistry(), 1);
    EXPECT_EQ(fileKeys().size(), std::size(bad) + numbers.size() + 2);
}

TEST_F(Tree, ALineThatIsTooLongStopsTheReadingUntilItIsMended) {
    const std::string tooLong = "longer than the longest line: " + std::string(4066, 'x') + "\n";
    const std::string tail = keyLine("b") + valueLine("w", "kept");
    const CapturedStderr said;
    const auto expectNoWrite = [&](HKEY key, const std::string& text) {
        setText(key, "mine", "unwritten");
        EXPECT_EQ(RegFlushKey(key), -1);
        EXPECT_EQ(WriteRegistry(), 0);
        EXPECT_EQ(fileText(), text);
    };
    const std::string badFromTheStart = keyLine("a") + tooLong + keyLine("b");
    startOn(badFromTheStart);
    const OpenKey a("a");
    expectNoWrite(a, badFromTheStart);

    replaceFile(keyLine("a") + valueLine("v", "old") + tail);
    EXPECT_EQ(textAt("b", "w"), "kept");
    const std::string bad = keyLine("a") + valueLine("v", "new") + tooLong + tail;
    replaceFile(bad);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(textAt("a", "v"), "new");
        EXPECT_EQ(textAt("b", "w"), "kept") << "purged by a reading that did not reach it";
    }
    expectNoWrite(a, bad);
    EXPECT_NE(said.text().find("line 3"), std::string::npos) << said.text();
    EXPECT_EQ(said.text().find("line 3"), said.text().rfind("line 3")) << "reported once: " << said.text();
    EXPECT_NE(said.text().find("WriteRegistry: "), std::string::npos) << said.text();

    replaceFile(keyLine("a") + valueLine("v", "new") + tail);
    EXPECT_EQ(RegFlushKey(a), 0);
    EXPECT_EQ(fileKeys(),
              parseRegistry(keyLine("a") + valueLine("v", "new") + valueLine("mine", "unwritten") + tail));
}

TEST_F(Tree, WhatOthersDeletedGoesUnlessItWasChangedHere) {
    startOn(keyLine("") + keyLine("a") + valueLine("v", "1") + valueLine("w", "2") + keyLine("a\\sub") +
            keyLine("b\\c") + valueLine("x", "3"));
    const OpenKey a("a");
    const OpenKey c("b\\c");
    bLazyFlush = 1;  // from here on changes stay in memory, as while a lazy writer sleeps
    setText(a, "w", "changed");
    setText(c, "new", "here");
    OpenKey made = OpenKey::createBelow(OpenKey("a\\sub"), "made");
    replaceFile(keyLine(""));
    EXPECT_TRUE(keyExists("a\\sub\\made"));
    EXPECT_EQ(valuesOf(a), Names{"w"});
    EXPECT_EQ(valuesOf(c), Names{"new"});
    bLazyFlush = 0;
    EXPECT_EQ(RegFlushKey(made), 0);
    EXPECT_EQ(fileKeys(),
              parseRegistry(keyLine("") + keyLine("a") + valueLine("w", "changed") + keyLine("a\\sub") +
                            keyLine("a\\sub\\made") + keyLine("b\\c") + valueLine("new", "here")));
    // Once written it is like anything else.
    replaceFile(keyLine(""));
    EXPECT_EQ(subkeysOf(OpenKey("", KEY_READ)), Names{});
    EXPECT_EQ(setText(made, "v", "dead"), -1);
    EXPECT_EQ(RegHKEYtoString(a), "");
    EXPECT_EQ(made.close(), 0);
}

TEST_F(Tree, WhatWasDeletedHereIsNotBroughtBackByAReading) {
    const std::string text = keyLine("") + keyLine("a") + valueLine("v", "1") +
                             valueLine("A Mixed Case", "2") + keyLine("b") + valueLine("w", "3") +
                             keyLine("b\\sub");
    startOn(text);
    const OpenKey root("");
    const OpenKey a("a");
    bLazyFlush = 1;
    EXPECT_EQ(RegDeleteValue(a, "v") + RegDeleteValue(a, "A MIXED CASE") + RegDeleteKey(root, "B"), 0);
    replaceFile(text + keyLine("c"));
    EXPECT_EQ(subkeysOf(OpenKey("", KEY_READ)), (Names{"a", "c"}));
    EXPECT_EQ(valuesOf(a), Names{});
    // Made anew, neither has anything of what the file says of its former self.
    const OpenKey again = OpenKey::createBelow(root, "b");
    setText(again, "mine", "new");
    setText(a, "v", "new");
    replaceFile(text);
    EXPECT_FALSE(keyExists("b\\sub"));
    EXPECT_EQ(valuesOf(again), Names{"mine"});
    EXPECT_EQ(textOf(a, "v"), "new");
    bLazyFlush = 0;
    EXPECT_EQ(RegFlushKey(a), 0);
    EXPECT_EQ(fileKeys(), parseRegistry(keyLine("") + keyLine("a") + valueLine("v", "new") + keyLine("b") +
                                        valueLine("mine", "new")));
    // The deletions are done with: another process may make these again.
    replaceFile(text);
    EXPECT_TRUE(keyExists("b\\sub"));
    EXPECT_EQ(textOf(a, "A Mixed Case"), "2");
}

}  // namespace
}  // namespace traiklofox::test
