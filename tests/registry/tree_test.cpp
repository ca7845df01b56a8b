// What reading the file makes of the tree: keys, the keys on the way to them, bad lines, and what other processes
// have deleted.

#include <filesystem>

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
    /// From here on changes stay in memory, as while a lazy writer sleeps.
    static void holdWritesBack() { bLazyFlush = 1; }
    static void writeAtOnce() { bLazyFlush = 0; }
    const std::string tooLong = "longer than the longest line: " + std::string(4066, 'x') + "\n";
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
    const Names lines{"no colon",
                      "no type: x",
                      "no type: x;",
                      "bad type: x; REG_BINARY",
                      ":",
                      ";",
                      ":;",
                      "\t",
                      " ",
                      "\r",
                      "\x01\xff\xfe",
                      std::string("nul\0: x;\tREG_SZ", 15),
                      std::string(1, '\0'),
                      "hkey_local_machine without a colon",
                      std::string(4095, 'x'),
                      "#hkey_local_machine\\comment:1",
                      "# Name:\tcomment;\tREG_SZ"};
    std::string text = valueLine("orphan", "x") + keyLine("");
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string number = std::to_string(i);
        text += keyLine("k" + number, number) + valueLine("before", "x") + lines[i] + "\n" +
                valueLine("after", "y");
    }
    startOn(text + keyLine("last") + "no line end:\tx;\tREG_SZ");
    for (size_t i = 0; i < lines.size(); ++i)
        EXPECT_EQ(valuesOf(OpenKey("k" + std::to_string(i), KEY_READ)), (Names{"before", "after"}))
            << lines[i];
    EXPECT_EQ(valuesOf(OpenKey("", KEY_READ)), Names{});
    EXPECT_EQ(textAt("last", "no line end"), "x");
    EXPECT_EQ(WriteRegistry(), 1);
    EXPECT_EQ(fileKeys().size(), lines.size() + 2);
}

TEST_F(Tree, KeyLinesOfEveryKindLoad) {
    std::string deep = "d";
    while (deep.size() < 4000) deep += "\\d";
    std::string text;
    for (const char* line :
         {":hkey_local_machine\n", "\\\\:hkey_local_machine\n", "hkey_local_machine\\\\x\\:-1\n"})
        text += line + valueLine("v", "x");
    for (const char* number : {"", "0", "0x10", "99999999999999999999", "1073741823", "-5", "seven"})
        text += keyLine(std::string("n") + number, number) + valueLine("v", "x");
    startOn(text + keyLine(deep, "7") + valueLine("v", "x"));
    for (const char* path :
         {"x", "n", "n0", "n0x10", "n99999999999999999999", "n1073741823", "n-5", "nseven"}) {
        const OpenKey key(path);
        EXPECT_GT(key & ~kWriteBit, 0) << path;
        EXPECT_LT(key & ~kWriteBit, 0x3fffffff) << path;
        EXPECT_EQ(textOf(key, "v"), "x") << path;
    }
    EXPECT_EQ(OpenKey("n0x10", KEY_READ), 0x10);
    EXPECT_EQ(textAt(deep, "v"), "x");
    EXPECT_EQ(WriteRegistry(), 1);
}

// A number that the library gives may take more room than the one that a hand wrote.
TEST_F(Tree, AKeyLineThatJustFitsStillFitsWhenWritten) {
    const std::string name(4070, 'k');
    startOn(keyLine("other") + keyLine(name, "00001") + valueLine("v", "x"));
    const OpenKey other("other");
    const OpenKey key(name);  // draws another number: this one is taken
    setText(other, "w", "1");
    ASSERT_EQ(RegFlushKey(other), 0);
    Peer peer;
    EXPECT_EQ(peer.ask({"get", name, "v"}), "x");
}

TEST_F(Tree, ALineThatIsTooLongStopsTheReadingUntilItIsMended) {
    const std::string tail = keyLine("b") + valueLine("w", "kept");
    startOn(keyLine("a") + valueLine("v", "old") + tail);
    const OpenKey a("a");
    const std::string bad = keyLine("a") + valueLine("v", "new") + tooLong + tail;
    replaceFile(bad);
    const CapturedStderr said;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(textAt("a", "v"), "new");
        EXPECT_EQ(textAt("b", "w"), "kept") << "purged by a reading that did not reach it";
    }
    EXPECT_NE(said.text().find("line 3"), std::string::npos) << said.text();
    EXPECT_EQ(said.text().find("line 3"), said.text().rfind("line 3")) << "reported once: " << said.text();
    setText(a, "mine", "unwritten");
    EXPECT_EQ(RegFlushKey(a), -1);
    EXPECT_EQ(WriteRegistry(), 0);
    EXPECT_EQ(fileText(), bad);
    EXPECT_NE(said.text().find("WriteRegistry: "), std::string::npos) << said.text();

    replaceFile(keyLine("a") + valueLine("v", "new") + tail);
    EXPECT_EQ(RegFlushKey(a), 0);
    EXPECT_EQ(fileKeys(),
              parseRegistry(keyLine("a") + valueLine("v", "new") + valueLine("mine", "unwritten") + tail));
}

TEST_F(Tree, AFileThatIsBadFromTheStartIsNotWrittenOver) {
    const CapturedStderr quiet;
    const std::string bad = keyLine("a") + tooLong + keyLine("b");
    startOn(bad);
    const OpenKey a("a");
    setText(a, "v", "1");
    EXPECT_EQ(RegFlushKey(a), -1);
    EXPECT_EQ(fileText(), bad);
}

TEST_F(Tree, WhatOthersDeletedGoesUnlessItWasChangedHere) {
    startOn(keyLine("") + keyLine("a") + valueLine("v", "1") + valueLine("w", "2") + keyLine("a\\sub") +
            keyLine("b\\c") + valueLine("x", "3"));
    OpenKey a("a");
    OpenKey sub("a\\sub");
    OpenKey c("b\\c");
    holdWritesBack();
    setText(a, "w", "changed");
    setText(c, "new", "here");
    OpenKey made = OpenKey::createBelow(sub, "made");
    replaceFile(keyLine(""));

    EXPECT_TRUE(keyExists("a"));
    EXPECT_EQ(textOf(a, "v"), std::nullopt);
    EXPECT_EQ(textOf(a, "w"), "changed");
    EXPECT_EQ(valuesOf(c), Names{"new"});
    EXPECT_TRUE(keyExists("a\\sub\\made"));
    writeAtOnce();
    EXPECT_EQ(RegFlushKey(made), 0);
    EXPECT_EQ(fileKeys(),
              parseRegistry(keyLine("") + keyLine("a") + valueLine("w", "changed") + keyLine("a\\sub") +
                            keyLine("a\\sub\\made") + keyLine("b\\c") + valueLine("new", "here")));
    // Once written it is like anything else.
    replaceFile(keyLine(""));
    EXPECT_FALSE(keyExists("a"));
    EXPECT_FALSE(keyExists("b"));
    EXPECT_EQ(setText(made, "v", "dead"), -1);
    EXPECT_EQ(RegHKEYtoString(a), "");
    EXPECT_EQ(made.close(), 0);
    EXPECT_EQ(subkeysOf(OpenKey("", KEY_READ)), Names{});
}

TEST_F(Tree, WhatWasDeletedHereIsNotBroughtBackByAReading) {
    const std::string text = keyLine("") + keyLine("a") + valueLine("v", "1") +
                             valueLine("A Value Of Mixed Case", "2") + keyLine("b") + valueLine("w", "3") +
                             keyLine("b\\sub");
    startOn(text);
    const OpenKey root("");
    const OpenKey a("a");
    holdWritesBack();
    EXPECT_EQ(RegDeleteValue(a, "v"), 0);
    EXPECT_EQ(RegDeleteValue(a, "A VALUE OF MIXED CASE"), 0);
    EXPECT_EQ(RegDeleteKey(root, "B"), 0);
    replaceFile(text + keyLine("c"));
    EXPECT_TRUE(keyExists("c"));
    EXPECT_FALSE(keyExists("b"));
    EXPECT_FALSE(keyExists("b\\sub"));
    EXPECT_EQ(valuesOf(a), Names{});
    // Made anew, neither has anything of what the file says of its former self.
    const OpenKey again = OpenKey::createBelow(root, "b");
    setText(again, "mine", "new");
    setText(a, "v", "new");
    replaceFile(text);
    EXPECT_FALSE(keyExists("b\\sub"));
    EXPECT_EQ(valuesOf(again), Names{"mine"});
    EXPECT_EQ(textOf(a, "v"), "new");
    writeAtOnce();
    EXPECT_EQ(RegFlushKey(a), 0);
    EXPECT_EQ(fileKeys(), parseRegistry(keyLine("") + keyLine("a") + valueLine("v", "new") + keyLine("b") +
                                        valueLine("mine", "new")));
    // The deletions are done with: another process may make these again.
    replaceFile(text);
    EXPECT_TRUE(keyExists("b\\sub"));
    EXPECT_EQ(textOf(a, "A Value Of Mixed Case"), "2");
}

TEST_F(Tree, EveryKeyOfAWholeServersRegistryIsFoundByWalking) {
    const auto example =
        std::filesystem::path(__FILE__).parent_path() / "../../examples/registry/tw.registry.template";
    std::string text = readText(example);
    startOn(text);
    while (text.starts_with('#')) text.erase(0, text.find('\n') + 1);  // the comment is at its head
    const FileKeys expected = parseRegistry(text);
    ASSERT_GT(expected.size(), 300u);

    FileKeys walked;
    Names left{""};
    while (!left.empty()) {
        const std::string path = left.back();
        left.pop_back();
        const OpenKey key(path, KEY_READ);
        ASSERT_TRUE(key.isOpen()) << path;
        const std::string full = path.empty() ? "hkey_local_machine" : "hkey_local_machine\\" + path;
        EXPECT_EQ(RegFormatKey("", key), full);
        for (const std::string& name : valuesOf(key)) {
            const FileValue& value = expected.at(full).at(name);
            EXPECT_EQ(textOf(key, name).value_or(value.data), value.data);
            walked[full][name] = value;
        }
        (void)walked[full];
        for (const std::string& name : subkeysOf(key))
            left.push_back(path.empty() ? name : path + "\\" + name);
    }
    EXPECT_EQ(walked, expected);
    ASSERT_EQ(WriteRegistry(), 1);
    EXPECT_EQ(fileKeys(), expected);
}

}  // namespace
}  // namespace traiklofox::test
