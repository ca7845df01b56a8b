// What reading the file makes of the tree: keys, the keys on the way to them, bad lines, and what other processes
// have deleted.

#include <filesystem>
#include <map>

#include "registry/registry_fixture.h"
#include "support/captured_output.h"

namespace traiklofox::test {
namespace {

using Names = std::vector<std::string>;

const std::string kLongLine = "a line longer than the longest: " + std::string(4064, 'x') + "\n";

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
};

TEST_F(Tree, KeysOnTheWayShareNameAndNumberUntilTheyAreKeysThemselves) {
    const std::string b = "hkey_local_machine\\a\\b";
    startOn(b + ":12\n");
    for (const char* path : {"", "a", "a\\b"}) {
        const OpenKey key(path, KEY_READ);
        EXPECT_EQ(key, 12) << path;
        EXPECT_EQ(RegHKEYtoString(key), b) << path;
    }
    // Paths go by the place in the tree all the same.
    OpenKey a("a");
    EXPECT_EQ(RegFormatKey("b", a), b);
    OpenKey::createBelow(a, "c");
    EXPECT_TRUE(keyExists("a\\c"));
    ASSERT_EQ(WriteRegistry(), 1);
    EXPECT_EQ(fileKeys(), (FileKeys{{b, {}}, {"hkey_local_machine\\a\\c", {}}}));

    // A value, a line of the file and a creation by name each make a key of them.
    setText(a, "v", "1");
    EXPECT_EQ(RegHKEYtoString(a), "hkey_local_machine\\a");
    EXPECT_EQ(a.close(), 0);
    replaceFile("hkey_local_machine\\x\\y:1\nhkey_local_machine\\x:2\n" + fileText());
    EXPECT_EQ(RegHKEYtoString(OpenKey("x", KEY_READ)), "hkey_local_machine\\x");
    OpenKey root = OpenKey::createBelow(HKEY_LOCAL_MACHINE, "");
    EXPECT_EQ(RegHKEYtoString(root), "hkey_local_machine");
    EXPECT_EQ(RegFlushKey(root), 0);
    EXPECT_EQ(fileKeys(), (FileKeys{{"hkey_local_machine", {}},
                                    {"hkey_local_machine\\a", {{"v", {"REG_SZ", "1"}}}},
                                    {b, {}},
                                    {"hkey_local_machine\\a\\c", {}},
                                    {"hkey_local_machine\\x", {}},
                                    {"hkey_local_machine\\x\\y", {}}}));
}

TEST_F(Tree, OneWalkMakesAllItsKeysWithOneNumber) {
    startOn("hkey_local_machine:5\n");
    const OpenKey made = OpenKey::createBelow(OpenKey(""), "one\\two\\three");
    const HKEY number = made & 0x3fffffff;
    const OpenKey two("one\\two", KEY_READ);
    EXPECT_NE(two, number) << "two keys answer to one handle";
    EXPECT_EQ(RegHKEYtoString(two), "hkey_local_machine\\one\\two\\three");
}

TEST_F(Tree, BadLinesAreSkippedAndTheRestIsKept) {
    const std::string lines[] = {"no colon",
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
                                 "# Name:\tcomment;\tREG_SZ",
                                 std::string(4094, '\\') + ":"};
    std::string text = "orphan:\tx;\tREG_SZ\nhkey_local_machine:1\n";
    int count = 0;
    for (const std::string& line : lines) {
        const std::string number = std::to_string(++count);
        text += "hkey_local_machine\\k" + number + ":" + number + "\nbefore:\tx;\tREG_SZ\n" + line +
                "\nafter:\ty;\tREG_SZ\n";
    }
    startOn(text + "hkey_local_machine\\last:1\nno line end:\tx;\tREG_SZ");
    for (int i = 1; i <= count; ++i) {
        const OpenKey key("k" + std::to_string(i), KEY_READ);
        EXPECT_EQ(valuesOf(key), (Names{"before", "after"})) << i << ": " << lines[i - 1].substr(0, 50);
    }
    EXPECT_EQ(valuesOf(OpenKey("", KEY_READ)), Names{});
    EXPECT_EQ(textAt("last", "no line end"), "x");
    EXPECT_EQ(WriteRegistry(), 1);
    EXPECT_EQ(fileKeys().size(), static_cast<size_t>(count) + 2);
}

TEST_F(Tree, KeyLinesOfEveryKindLoad) {
    const std::string deep = [] {
        std::string path = "hkey_local_machine";
        while (path.size() < 4000) path += "\\d";
        return path;
    }();
    const std::string lines[] = {":hkey_local_machine",
                                 "\\\\:hkey_local_machine",
                                 "hkey_local_machine\\\\x\\:-1",
                                 "hkey_local_machine\\n:",
                                 "hkey_local_machine\\n2:0",
                                 "hkey_local_machine\\n3:0x10",
                                 "hkey_local_machine\\n4:99999999999999999999",
                                 "hkey_local_machine\\n5:1073741823",
                                 deep + ":7"};
    std::string text;
    for (const std::string& line : lines) text += line + "\nv:\tx;\tREG_SZ\n";
    startOn(text);
    for (const char* path : {"x", "n", "n2", "n3", "n4", "n5"}) {
        const OpenKey key(path);
        EXPECT_GT(key & 0x3fffffff, 0) << path;
        EXPECT_LT(key & 0x3fffffff, 0x3fffffff) << path;
        EXPECT_EQ(textOf(key, "v"), "x") << path;
    }
    EXPECT_EQ(OpenKey("n3", KEY_READ), 0x10);
    EXPECT_EQ(WriteRegistry(), 1);
    EXPECT_EQ(inFile(deep, "v"), "x");
}

// Numbers as the library writes them may take more room than those that a hand wrote.
TEST_F(Tree, AKeyLineThatJustFitsStillFitsWhenWritten) {
    const std::string name = "hkey_local_machine\\" + std::string(4070, 'k');
    startOn("hkey_local_machine\\other:1\n" + name + ":00001\nv:\tx;\tREG_SZ\n");
    const OpenKey other("other");
    const OpenKey key(std::string(4070, 'k'));  // draws another number: this one is taken
    setText(other, "w", "1");
    ASSERT_EQ(RegFlushKey(other), 0);
    Peer peer;
    EXPECT_EQ(peer.get(std::string(4070, 'k'), "v"), "x");
}

TEST_F(Tree, ALineThatIsTooLongStopsTheReadingUntilItIsMended) {
    const std::string head = "hkey_local_machine:1\nhkey_local_machine\\a:2\nv:\told;\tREG_SZ\n";
    const std::string tail = "hkey_local_machine\\b:3\nw:\tkept;\tREG_SZ\n";
    startOn(head + tail);
    const OpenKey a("a");
    const std::string bad =
        "hkey_local_machine:1\nhkey_local_machine\\a:2\nv:\tnew;\tREG_SZ\n" + kLongLine + tail;
    replaceFile(bad);
    CapturedStderr said;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(textAt("a", "v"), "new");
        EXPECT_EQ(textAt("b", "w"), "kept") << "purged by a reading that did not reach it";
    }
    EXPECT_NE(said.text().find("line 4"), std::string::npos) << said.text();
    EXPECT_EQ(said.text().find("line 4"), said.text().rfind("line 4")) << "reported once: " << said.text();
    setText(a, "mine", "unwritten");
    EXPECT_EQ(RegFlushKey(a), -1);
    EXPECT_EQ(WriteRegistry(), 0);
    EXPECT_EQ(fileText(), bad);
    EXPECT_NE(said.text().find("WriteRegistry: "), std::string::npos) << said.text();

    replaceFile(head + tail);
    EXPECT_EQ(RegFlushKey(a), 0);
    EXPECT_EQ(inFile("hkey_local_machine\\a", "mine"), "unwritten");
    EXPECT_EQ(inFile("hkey_local_machine\\b", "w"), "kept");
}

TEST_F(Tree, AFileThatIsBadFromTheStartIsNotWrittenOver) {
    CapturedStderr said;
    const std::string bad = "hkey_local_machine\\a:2\n" + kLongLine + "hkey_local_machine\\b:3\n";
    startOn(bad);
    const OpenKey a("a");
    setText(a, "v", "1");
    EXPECT_EQ(RegFlushKey(a), -1);
    EXPECT_EQ(fileText(), bad);
}

TEST_F(Tree, WhatOthersDeletedGoesUnlessItWasChangedHere) {
    startOn(
        "hkey_local_machine:1\nhkey_local_machine\\a:2\nv:\t1;\tREG_SZ\nw:\t2;\tREG_SZ\n"
        "hkey_local_machine\\a\\sub:3\nhkey_local_machine\\b\\c:4\nx:\t3;\tREG_SZ\n");
    OpenKey a("a");
    OpenKey sub("a\\sub");
    OpenKey c("b\\c");
    holdWritesBack();
    setText(a, "w", "changed");
    setText(c, "new", "here");
    OpenKey made = OpenKey::createBelow(sub, "made");
    replaceFile("hkey_local_machine:1\n");

    EXPECT_TRUE(keyExists("a"));
    EXPECT_EQ(textOf(a, "v"), std::nullopt);
    EXPECT_EQ(textOf(a, "w"), "changed");
    EXPECT_EQ(valuesOf(c), Names{"new"});
    EXPECT_TRUE(keyExists("a\\sub\\made"));
    writeAtOnce();
    EXPECT_EQ(RegFlushKey(made), 0);
    EXPECT_EQ(fileKeys(), (FileKeys{{"hkey_local_machine", {}},
                                    {"hkey_local_machine\\a", {{"w", {"REG_SZ", "changed"}}}},
                                    {"hkey_local_machine\\a\\sub", {}},
                                    {"hkey_local_machine\\a\\sub\\made", {}},
                                    {"hkey_local_machine\\b\\c", {{"new", {"REG_SZ", "here"}}}}}));
    // Once written it is like anything else.
    replaceFile("hkey_local_machine:1\n");
    EXPECT_FALSE(keyExists("a"));
    EXPECT_FALSE(keyExists("b"));
    EXPECT_EQ(setText(made, "v", "dead"), -1);
    EXPECT_EQ(textOf(sub, "w"), std::nullopt);
    EXPECT_EQ(RegHKEYtoString(a), "");
    EXPECT_EQ(made.close(), 0);
    EXPECT_EQ(subkeysOf(OpenKey("", KEY_READ)), Names{});
}

TEST_F(Tree, WhatWasDeletedHereIsNotBroughtBackByAReading) {
    const std::string text =
        "hkey_local_machine:1\nhkey_local_machine\\a:2\nv:\t1;\tREG_SZ\nA Value Of Mixed Case:\t2;\tREG_SZ\n"
        "hkey_local_machine\\b:3\nw:\t3;\tREG_SZ\nhkey_local_machine\\b\\sub:4\n";
    startOn(text);
    OpenKey root("");
    OpenKey a("a");
    holdWritesBack();
    EXPECT_EQ(RegDeleteValue(a, "v"), 0);
    EXPECT_EQ(RegDeleteValue(a, "A VALUE OF MIXED CASE"), 0);
    EXPECT_EQ(RegDeleteKey(root, "B"), 0);
    replaceFile(text + "other:\tprocess;\tREG_SZ\nhkey_local_machine\\c:9\n");
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
    EXPECT_EQ(fileKeys(), (FileKeys{{"hkey_local_machine", {}},
                                    {"hkey_local_machine\\a", {{"v", {"REG_SZ", "new"}}}},
                                    {"hkey_local_machine\\b", {{"mine", {"REG_SZ", "new"}}}}}));
    // The deletions are done with: another process may make these again.
    replaceFile(text);
    EXPECT_TRUE(keyExists("b\\sub"));
    EXPECT_EQ(textOf(a, "A Value Of Mixed Case"), "2");
}

TEST_F(Tree, EveryKeyOfAWholeServersRegistryIsFoundByWalking) {
    const auto example =
        std::filesystem::path(__FILE__).parent_path() / "../../examples/registry/tw.registry.template";
    const std::string text = readText(example);
    startOn(text);
    std::string bare;
    for (size_t start = 0; start < text.size();) {
        const std::string line = text.substr(start, text.find('\n', start) + 1 - start);
        start += line.size();
        if (line != "\n" && line.front() != '#') bare += line;
    }
    const FileKeys expected = parseRegistry(bare);
    ASSERT_GT(expected.size(), 300u);

    std::map<std::string, size_t> walked;  // how many values each key has
    Names left{""};
    while (!left.empty()) {
        const std::string path = left.back();
        left.pop_back();
        const OpenKey key(path, KEY_READ);
        ASSERT_TRUE(key.isOpen()) << path;
        const Names values = valuesOf(key);
        if (!path.empty()) walked[RegFormatKey("", key)] = values.size();
        for (const std::string& value : values) {
            DWORD size = 5000;
            BYTE data[5000];
            EXPECT_EQ(RegQueryValueEx(key, value.c_str(), nullptr, nullptr, data, &size), 0)
                << path << " " << value;
        }
        for (const std::string& name : subkeysOf(key))
            left.push_back(path.empty() ? name : path + "\\" + name);
    }
    std::map<std::string, size_t> counts;
    for (const auto& [name, values] : expected) counts[name] = values.size();
    counts.erase("hkey_local_machine");
    EXPECT_EQ(walked, counts);
    ASSERT_EQ(WriteRegistry(), 1);
    EXPECT_EQ(fileKeys(), expected);
}

}  // namespace
}  // namespace traiklofox::test
