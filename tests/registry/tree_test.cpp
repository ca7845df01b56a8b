// What reading the file makes of the tree: the keys on the way to others, a line that is too long, and what other
// processes have deleted. What it makes of bad lines, the tests of `kzreg check` tell.

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

TEST_F(Tree, AReadingTakesWhatOthersDeletedAndBringsNothingBackThatWasDeletedHere) {
    const std::string text = keyLine("") + keyLine("a") + valueLine("v", "1") +
                             valueLine("A Mixed Case", "2") + keyLine("a\\sub") + keyLine("b\\c") +
                             valueLine("x", "3");
    startOn(text);
    const OpenKey root(""), a("a"), c("b\\c");
    bLazyFlush = 1;  // from here on changes stay in memory, as while a lazy writer sleeps
    setText(a, "v", "changed");
    setText(c, "new", "here");
    OpenKey made = OpenKey::createBelow(OpenKey("a\\sub"), "made");
    replaceFile(keyLine(""));
    EXPECT_TRUE(keyExists("a\\sub\\made"));
    EXPECT_EQ(valuesOf(a), Names{"v"});
    EXPECT_EQ(valuesOf(c), Names{"new"});
    bLazyFlush = 0;
    EXPECT_EQ(RegFlushKey(made), 0);
    EXPECT_EQ(fileKeys(),
              parseRegistry(keyLine("") + keyLine("a") + valueLine("v", "changed") + keyLine("a\\sub") +
                            keyLine("a\\sub\\made") + keyLine("b\\c") + valueLine("new", "here")));

    replaceFile(text);
    EXPECT_EQ(textAt("a", "A Mixed Case"), "2");
    bLazyFlush = 1;
    EXPECT_EQ(RegDeleteValue(a, "v") + RegDeleteValue(a, "A MIXED CASE") + RegDeleteKey(root, "B"), 0);
    replaceFile(text + keyLine("d"));
    EXPECT_EQ(subkeysOf(OpenKey("", KEY_READ)), (Names{"a", "d"}));
    EXPECT_EQ(valuesOf(a), Names{});
    // Made anew, neither has anything of what the file says of its former self.
    const OpenKey again = OpenKey::createBelow(root, "b");
    setText(again, "mine", "new");
    setText(a, "v", "new");
    replaceFile(text);
    EXPECT_FALSE(keyExists("b\\c"));
    EXPECT_EQ(valuesOf(again), Names{"mine"});
    EXPECT_EQ(textOf(a, "v"), "new");
    bLazyFlush = 0;
    EXPECT_EQ(RegFlushKey(a), 0);
    EXPECT_EQ(fileKeys(), parseRegistry(keyLine("") + keyLine("a") + valueLine("v", "new") +
                                        keyLine("a\\sub") + keyLine("b") + valueLine("mine", "new")));
    // With the write all this is done with: another process may make again and delete what it likes.
    replaceFile(text);
    EXPECT_TRUE(keyExists("b\\c"));
    EXPECT_EQ(textOf(a, "A Mixed Case"), "2");
    replaceFile(keyLine(""));
    EXPECT_EQ(subkeysOf(OpenKey("", KEY_READ)), Names{});
    EXPECT_EQ(setText(again, "v", "dead"), -1);
    EXPECT_EQ(RegHKEYtoString(a) + RegHKEYtoString(made), "");
    EXPECT_EQ(made.close(), 0);
}

}  // namespace
}  // namespace traiklofox::test
