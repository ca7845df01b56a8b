// Opening, creating, enumerating, deleting and closing keys: every result, and what a handle is good for.

#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "registry/registry_fixture.h"
#include "support/captured_output.h"

namespace traiklofox::test {
namespace {

class KeyApi : public StartedRegistryTest {
  protected:
    static LONG open(HKEY from, const char* path, HKEY* result) {
        return RegOpenKeyEx(from, path, 0, KEY_READ, result);
    }
    static LONG create(HKEY from, const char* path, HKEY* result, DWORD* disposition) {
        return RegCreateKeyEx(from, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, result, disposition);
    }
    /// Subkeys, longest of their names, longest class, values, longest of their names and data, security descriptor.
    static std::vector<DWORD> info(HKEY from) {
        std::vector<DWORD> n(7, 9);
        char className[] = "class";
        DWORD classSize = sizeof className;
        FILETIME written{1, 1};
        EXPECT_EQ(RegQueryInfoKey(from, className, &classSize, nullptr, &n[0], &n[1], &n[2], &n[3], &n[4],
                                  &n[5], &n[6], &written),
                  0);
        EXPECT_EQ(className + std::to_string(classSize + written.dwLowDateTime + written.dwHighDateTime),
                  "0");
        return n;
    }
    static LONG infoOfNothing(HKEY from) { return RegQueryInfoKey(from, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0); }
};

TEST_F(KeyApi, ResultsAreTheDocumentedOnes) {
    const OpenKey sub = OpenKey::createBelow(key, "sub");
    HKEY out = 0;
    DWORD disposition = 0;
    char name[8];
    // clang-format off
    expectResults({
        {"open: null result", 13, open(0, kExample, nullptr)},
        {"open: missing", 13, open(0, "software\\missing", &out)},
        {"open: below a missing one", 13, open(0, "missing\\example", &out)},
        {"open: another system's root", 13, open(static_cast<HKEY>(0x80000002), "software", &out)},
        {"create: null path", -1, create(key, nullptr, &out, &disposition)},
        {"create: null result", -1, create(key, "new", nullptr, &disposition)},
        {"close: root", -1, RegCloseKey(0)},
        {"close: unknown", -1, RegCloseKey(kUnknown)}, {"flush: unknown", -1, RegFlushKey(kUnknown)},
        {"flush: nothing to write", 0, RegFlushKey(key)}, {"info: unknown", -1, infoOfNothing(kUnknown)},
        {"info: of nothing", 0, infoOfNothing(key)}, {"enum: just fits", 0, RegEnumKey(key, 0, name, 4)},
        {"enum: one short", -1, RegEnumKey(key, 0, name, 3)}, {"enum: no buffer", -1, RegEnumKey(key, 0, nullptr, 8)},
        {"enum: past the end", 259, RegEnumKey(key, 1, name, 8)},
        {"enum: far", 259, RegEnumKey(key, 0xffffffff, name, 8)},
        {"delete: null path", -1, RegDeleteKey(key, nullptr)},
        {"delete: empty path", -1, RegDeleteKey(key, "")},
        {"delete: no name in the path", -1, RegDeleteKey(key, "\\")},
        {"delete: root", -1, RegDeleteKey(0, "\\\\")}, {"delete: missing", -1, RegDeleteKey(key, "missing")},
        {"unnotify: unknown", -1, RegUnnotifyChangeKeyValue(kUnknown, nullptr)},
    });
    // clang-format on
    EXPECT_TRUE(keyExists("software\\example\\sub"));
    for (const std::string& path :
         {std::string("line\nfeed"), std::string("ok\\co:lon"), std::string(4085, 'k')}) {
        const CapturedStderr said;
        EXPECT_EQ(create(key, path.c_str(), &out, nullptr), -1) << path;
        EXPECT_EQ(said.text().find("RegCreateKeyEx: "), 0u) << said.text();
        EXPECT_EQ(subkeysOf(key), Names{"sub"}) << "what the file cannot hold changes nothing";
    }
}

TEST_F(KeyApi, PathsIgnoreCaseAndBackslashesTooManyAndTheMaskMakesAHandleForWriting) {
    for (const char* path : {"SOFTWARE\\Example", "software\\example\\", "\\software\\\\example\\\\"})
        EXPECT_EQ(OpenKey(path), key) << path;
    for (const char* path : {static_cast<const char*>(nullptr), "", "\\"}) {
        HKEY again = 0;
        EXPECT_EQ(open(key, path, &again), 0);
        EXPECT_EQ(again, key & ~kWriteBit);
        EXPECT_EQ(RegCloseKey(again), 0);
    }
    EXPECT_EQ(RegFormatKey("x\\", key), std::string(kExamplePath) + "\\x");
    EXPECT_EQ(RegFormatKey(nullptr, 0), "HKEY_LOCAL_MACHINE");
    for (const REGSAM access :
         {REGSAM{0}, KEY_READ, KEY_SET_VALUE, KEY_WRITE, KEY_ALL_ACCESS, REGSAM{0x40000}}) {
        const OpenKey opened(kExample, access);
        const bool writes = (access & 0x60000) != 0;
        EXPECT_EQ((opened & kWriteBit) != 0, writes) << access;
        EXPECT_EQ(setText(opened, "v", "x"), writes ? 0 : -1) << access;
        EXPECT_EQ(RegDeleteValue(opened, "v"), writes ? 0 : -1) << access;
    }
}

TEST_F(KeyApi, CreatingTellsNewFromExisting) {
    const std::string path = std::string(kExamplePath) + "\\New\\Below";
    HKEY made = 0;
    DWORD disposition = 0;
    ASSERT_EQ(create(key, "New\\Below", &made, &disposition), 0);
    EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);
    EXPECT_EQ(RegHKEYtoString(made), path);
    ASSERT_EQ(RegCloseKey(made), 0);
    EXPECT_TRUE(fileKeys().contains(path));
    ASSERT_EQ(create(key, "NEW\\BELOW", &made, &disposition) + RegCloseKey(made), 0);
    EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);

    // Without a place for the answer the key is not marked as changed, and waits for another reason to write.
    const std::string before = fileText();
    ASSERT_EQ(create(key, "quiet", &made, nullptr) + RegCloseKey(made), 0);
    EXPECT_EQ(fileText(), before);
    replaceFile(before);
    ASSERT_TRUE(keyExists("software\\example\\quiet")) << "purged before it could be written";
    setText(key, "v", "x");
    ASSERT_EQ(RegFlushKey(key), 0);
    EXPECT_TRUE(fileKeys().contains(std::string(kExamplePath) + "\\quiet"));

    // Made directly below the root, it does not last: its line is no key's to a reader, its values are another's.
    OpenKey direct = OpenKey::createBelow(HKEY_LOCAL_MACHINE, kExample + std::string("\\direct"));
    EXPECT_EQ(RegHKEYtoString(direct), "HKEY_LOCAL_MACHINE\\software\\example\\direct");
    setText(direct, "astray", "x");
    ASSERT_EQ(direct.close(), 0);
    EXPECT_NE(fileText().find("\nHKEY_LOCAL_MACHINE\\software\\example\\direct:"), std::string::npos);
    Peer peer;
    EXPECT_EQ(peer.ask({"exists", "software\\example\\direct"}), "0");
    EXPECT_EQ(peer.ask({"get", "software\\example\\new\\below", "astray"}) + peer.get("astray"), "(none)x");
}

TEST_F(KeyApi, EnumerationIsInTheOrderOfCreationAndInfoCounts) {
    const OpenKey parent = OpenKey::createBelow(key, "parent");
    EXPECT_EQ(info(parent), (std::vector<DWORD>{0, 0, 0, 0, 0, 0, 0}));
    const Names made{"zebra", "ape", "Lion", "bee"};
    for (const std::string& name : made) {
        OpenKey::createBelow(parent, name);
        setText(parent, name, "made " + name);
    }
    EXPECT_EQ(subkeysOf(parent), made);
    EXPECT_EQ(valuesOf(parent), made);
    EXPECT_EQ(info(parent), (std::vector<DWORD>{4, 5, 0, 4, 5, 10, 0}));
    char name[10];
    const auto at = [&](DWORD index) {
        return RegEnumKey(parent, index, name, sizeof name) == 0 ? name : "none";
    };
    for (const DWORD i : {3u, 0u, 1u, 1u, 3u, 2u}) EXPECT_EQ(at(i), made[i]);
    // In the middle of a walk the list changes: nothing is read that is gone, and what is new is reached.
    EXPECT_STREQ(at(0), "zebra");
    ASSERT_EQ(RegDeleteKey(parent, "ape"), 0);
    EXPECT_STREQ(at(1), "Lion");
    EXPECT_STREQ(at(2), "bee");
    EXPECT_STREQ(at(3), "none");
    OpenKey::createBelow(parent, "eel");
    EXPECT_STREQ(at(3), "eel");
}

TEST_F(KeyApi, ADeletedKeyGoesWithAllBelowAndItsHandlesAnswerAsUnknownOnes) {
    OpenKey doomed = OpenKey::createBelow(key, "doomed");
    OpenKey below = OpenKey::createBelow(doomed, "deep\\below");
    setText(below, "v", "x");
    ASSERT_EQ(RegDeleteKey(0, "software\\example\\DOOMED\\"), 0);
    EXPECT_EQ(fileText().find("doomed"), std::string::npos) << "written at once";
    const HKEY gone = doomed;
    for (const HKEY dead : {gone, HKEY{below}, kUnknown}) {
        char name[9];
        DWORD size = sizeof name;
        HKEY out = 0;
        expectResults({
            {"set", -1, setText(dead, "v", "y")},
            {"delete value", -1, RegDeleteValue(dead, "v")},
            {"query", -1, RegQueryValueEx(dead, "v", nullptr, nullptr, nullptr, &size)},
            {"enum values", -1, RegEnumValue(dead, 0, name, &size, nullptr, nullptr, nullptr, nullptr)},
            {"enum keys", -1, RegEnumKey(dead, 0, name, sizeof name)},
            {"open", 13, open(dead, "", &out)},
            {"create", -1, create(dead, "new", &out, &size)},
            {"delete", -1, RegDeleteKey(dead, "new")},
            {"flush", -1, RegFlushKey(dead)},
            {"end a notification", -1, RegUnnotifyChangeKeyValue(dead, nullptr)},
        });
        EXPECT_EQ(RegHKEYtoString(dead) + RegFormatKey("sub", dead), "") << dead;
    }
    const OpenKey again = OpenKey::createBelow(key, "doomed");
    EXPECT_NE(again, gone) << "the old handle would name the new key";
    EXPECT_EQ(info(again), (std::vector<DWORD>{0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(doomed.close() + below.close(), 0);
    EXPECT_EQ(RegCloseKey(gone), -1);
}

TEST_F(KeyApi, TwoKeysNeverAnswerToOneHandle) {
    const Names numbers{"7",  "7",          "0",          "0",  "1073741823", "2147483655",
                        "16", "1073741831", "0xFFFFFFF9", "-7", "seven",      "99999999999999999999",
                        ""};
    std::string text = "hkey_local_machine:7\n";
    for (size_t i = 0; i < numbers.size(); ++i) text += keyLine("k" + std::to_string(i), numbers[i]);
    replaceFile(text + keyLine("hex", "0x20"));
    EXPECT_EQ(OpenKey("hex", KEY_READ), 32);
    std::vector<OpenKey> keys;
    std::set<HKEY> handles;
    for (size_t i = 0; i < numbers.size(); ++i) {
        const std::string path = "k" + std::to_string(i);
        const HKEY handle = keys.emplace_back(path, KEY_READ);
        EXPECT_TRUE(handle > 0 && handle < 0x3fffffff && handles.insert(handle).second) << numbers[i];
        EXPECT_EQ(RegFormatKey("", handle), "hkey_local_machine\\" + path);
    }
    // Processes forked from one parent draw equal numbers.
    const OpenKey root("");
    const pid_t child = ::fork();
    const std::string name = child == 0 ? "child" : "parent";
    const OpenKey made = OpenKey::createBelow(root, name);
    setText(made, "who", name);
    const LONG flushed = RegFlushKey(made);
    if (child == 0) ::_exit(flushed == 0 ? 0 : 1);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    const OpenKey other("child", KEY_READ);
    EXPECT_NE(other, made & ~kWriteBit);
    EXPECT_EQ(textOf(other, "who").value_or("") + textOf(made, "who").value_or(""), "childparent") << status;
}

}  // namespace
}  // namespace traiklofox::test
