// Opening, creating, enumerating, deleting and closing keys: every result, and what a handle is good for.

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <set>

#include "registry/registry_fixture.h"
#include "support/captured_output.h"

namespace traiklofox::test {
namespace {

using Names = std::vector<std::string>;
constexpr HKEY kWriteBit = 0x40000000;
constexpr HKEY kUnknown = 0x3ffffff0;

class KeyApi : public RegistryTest {
  protected:
    static LONG open(HKEY key, const char* path, HKEY* result, REGSAM access = KEY_READ) {
        return RegOpenKeyEx(key, path, 0, access, result);
    }
    static LONG create(HKEY key, const char* path, HKEY* result, DWORD* disposition) {
        return RegCreateKeyEx(key, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, result, disposition);
    }
};

struct Call {
    const char* what;
    LONG expected;
    std::function<LONG()> make;
};

TEST_F(KeyApi, ResultsAreTheDocumentedOnes) {
    OpenKey example(kExample);
    HKEY closed = 0;
    ASSERT_EQ(open(0, kExample, &closed), 0);
    ASSERT_EQ(RegCloseKey(closed), 0);
    ASSERT_EQ(example.close(), 0);
    example = OpenKey(kExample);
    const OpenKey sub = OpenKey::createBelow(example, "sub");
    HKEY out = 0;
    DWORD disposition = 0;
    char name[8];
    const Call calls[] = {
        {"open: null result", 13, [&] { return open(0, kExample, nullptr); }},
        {"open: missing", 13, [&] { return open(0, "software\\missing", &out); }},
        {"open: below a missing one", 13, [&] { return open(0, "missing\\example", &out); }},
        {"open: unknown handle", 13, [&] { return open(kUnknown, "sub", &out); }},
        {"open: predefined handle of another system", 13,
         [&] { return open(static_cast<HKEY>(0x80000002), "software", &out); }},
        {"create: null path", -1, [&] { return create(example, nullptr, &out, &disposition); }},
        {"create: null result", -1, [&] { return create(example, "new", nullptr, &disposition); }},
        {"create: unknown handle", -1, [&] { return create(kUnknown, "new", &out, &disposition); }},
        {"close: root", -1, [] { return RegCloseKey(0); }},
        {"close: unknown", -1, [] { return RegCloseKey(kUnknown); }},
        {"flush: unknown", -1, [] { return RegFlushKey(kUnknown); }},
        {"flush: nothing to write", 0, [&] { return RegFlushKey(example); }},
        {"info: unknown", -1,
         [] {
             return RegQueryInfoKey(kUnknown, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                    nullptr, nullptr, nullptr, nullptr);
         }},
        {"enum: first", 0, [&] { return RegEnumKey(example, 0, name, 4); }},
        {"enum: one short", -1, [&] { return RegEnumKey(example, 0, name, 3); }},
        {"enum: no buffer", -1, [&] { return RegEnumKey(example, 0, nullptr, 8); }},
        {"enum: past the end", 259, [&] { return RegEnumKey(example, 1, name, 8); }},
        {"enum: far past the end", 259, [&] { return RegEnumKey(example, 0xffffffff, name, 8); }},
        {"enum: unknown", -1, [&] { return RegEnumKey(kUnknown, 0, name, 8); }},
        {"delete: null path", -1, [&] { return RegDeleteKey(example, nullptr); }},
        {"delete: empty path", -1, [&] { return RegDeleteKey(example, ""); }},
        {"delete: no name in the path", -1, [&] { return RegDeleteKey(example, "\\"); }},
        {"delete: root", -1, [] { return RegDeleteKey(0, "\\"); }},
        {"delete: missing", -1, [&] { return RegDeleteKey(example, "missing"); }},
        {"delete: unknown", -1, [] { return RegDeleteKey(kUnknown, "sub"); }},
        {"unnotify: unknown", -1, [] { return RegUnnotifyChangeKeyValue(kUnknown, nullptr); }},
    };
    for (const Call& call : calls) EXPECT_EQ(call.make(), call.expected) << call.what;
    EXPECT_EQ(RegHKEYtoString(kUnknown), "");
    EXPECT_EQ(RegFormatKey("sub", kUnknown), "");
    EXPECT_TRUE(keyExists("software\\example\\sub"));
}

TEST_F(KeyApi, PathsIgnoreCaseAndBackslashesTooMany) {
    const OpenKey example(kExample);
    for (const char* path : {"SOFTWARE\\Example", "software\\example\\", "\\software\\\\example\\\\"}) {
        HKEY key = 0;
        EXPECT_EQ(open(0, path, &key, KEY_ALL_ACCESS), 0) << path;
        EXPECT_EQ(key, example) << path;
        EXPECT_EQ(RegCloseKey(key), 0);
    }
    for (const char* path : {static_cast<const char*>(nullptr), "", "\\"}) {
        HKEY key = 0;
        EXPECT_EQ(open(example, path, &key), 0);
        EXPECT_EQ(key, example & ~kWriteBit);
        EXPECT_EQ(RegCloseKey(key), 0);
    }
    EXPECT_EQ(RegFormatKey("x\\", example), std::string(kExamplePath) + "\\x");
    EXPECT_EQ(RegFormatKey(nullptr, 0), "HKEY_LOCAL_MACHINE");
}

TEST_F(KeyApi, TheAccessMaskMakesAHandleForWriting) {
    for (const auto& [access, writes] : {std::pair{REGSAM{0}, false},
                                         {KEY_READ, false},
                                         {KEY_SET_VALUE, false},
                                         {KEY_WRITE, true},
                                         {KEY_ALL_ACCESS, true},
                                         {0x40000, true}}) {
        const OpenKey key(kExample, access);
        EXPECT_EQ((key & kWriteBit) != 0, writes) << access;
        EXPECT_EQ(setText(key, "v", "x"), writes ? 0 : -1) << access;
        EXPECT_EQ(RegDeleteValue(key, "v"), writes ? 0 : -1) << access;
    }
}

TEST_F(KeyApi, CreatingTellsNewFromExisting) {
    const OpenKey example(kExample);
    HKEY key = 0;
    DWORD disposition = 0;
    ASSERT_EQ(create(example, "New\\Below", &key, &disposition), 0);
    EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);
    EXPECT_EQ(RegHKEYtoString(key), std::string(kExamplePath) + "\\New\\Below");
    ASSERT_EQ(RegCloseKey(key), 0);
    EXPECT_TRUE(fileKeys().contains(std::string(kExamplePath) + "\\New\\Below"));
    ASSERT_EQ(create(example, "NEW\\BELOW", &key, &disposition), 0);
    EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);
    ASSERT_EQ(RegCloseKey(key), 0);

    // Without a place for the answer the key is not marked as changed, and waits for another reason to write.
    ASSERT_EQ(create(example, "quiet", &key, nullptr), 0);
    const std::string before = fileText();
    ASSERT_EQ(RegCloseKey(key), 0);
    EXPECT_EQ(fileText(), before);
    replaceFile(before);
    ASSERT_TRUE(keyExists("software\\example\\quiet")) << "purged before it could be written";
    setText(example, "v", "x");
    ASSERT_EQ(RegFlushKey(example), 0);
    EXPECT_TRUE(fileKeys().contains(std::string(kExamplePath) + "\\quiet"));
}

TEST_F(KeyApi, KeysMadeDirectlyBelowTheRootDoNotLast) {
    OpenKey made = OpenKey::createBelow(HKEY_LOCAL_MACHINE, "direct");
    EXPECT_EQ(RegHKEYtoString(made), "HKEY_LOCAL_MACHINE\\direct");
    setText(made, "astray", "x");
    ASSERT_EQ(made.close(), 0);
    EXPECT_NE(fileText().find("\nHKEY_LOCAL_MACHINE\\direct:"), std::string::npos);
    // Its line is no key's to a reader, and its values go to the key before it.
    Peer peer;
    EXPECT_EQ(peer.ask({"exists", "direct"}), "0");
    EXPECT_EQ(peer.get("", "astray"), "x");
}

TEST_F(KeyApi, EnumerationIsInTheOrderOfCreation) {
    const OpenKey example(kExample);
    const Names made{"zebra", "ape", "Lion", "bee"};
    for (const std::string& name : made) {
        OpenKey::createBelow(example, name);
        setText(example, name.c_str(), name);
    }
    EXPECT_EQ(subkeysOf(example), made);
    EXPECT_EQ(valuesOf(example), (Names{"Name", "zebra", "ape", "Lion", "bee"}));
    char name[10];
    for (const DWORD i : {3u, 0u, 1u, 1u, 3u, 2u}) {
        ASSERT_EQ(RegEnumKey(example, i, name, sizeof name), 0);
        EXPECT_EQ(name, made[i]);
    }
    // In the middle of a walk the list changes: no item is read that is gone, and new ones are reached.
    ASSERT_EQ(RegEnumKey(example, 0, name, sizeof name), 0);
    ASSERT_EQ(RegDeleteKey(example, "ape"), 0);
    ASSERT_EQ(RegEnumKey(example, 1, name, sizeof name), 0);
    EXPECT_STREQ(name, "Lion");
    ASSERT_EQ(RegEnumKey(example, 2, name, sizeof name), 0);
    EXPECT_EQ(RegEnumKey(example, 3, name, sizeof name), 259);
    OpenKey::createBelow(example, "eel");
    ASSERT_EQ(RegEnumKey(example, 3, name, sizeof name), 0);
    EXPECT_STREQ(name, "eel");
}

TEST_F(KeyApi, InfoCountsAndMeasures) {
    const OpenKey key = OpenKey::createBelow(OpenKey(kExample), "info");
    const auto info = [&] {
        DWORD n[7] = {9, 9, 9, 9, 9, 9, 9};
        FILETIME written{1, 1};
        char className[4] = "abc";
        DWORD classSize = 4;
        EXPECT_EQ(RegQueryInfoKey(key, className, &classSize, nullptr, &n[0], &n[1], &n[2], &n[3], &n[4],
                                  &n[5], &n[6], &written),
                  0);
        EXPECT_STREQ(className, "");
        EXPECT_EQ(classSize + written.dwLowDateTime + written.dwHighDateTime, 0u);
        return std::vector<DWORD>(n, n + 7);
    };
    EXPECT_EQ(info(), (std::vector<DWORD>{0, 0, 0, 0, 0, 0, 0}));
    OpenKey::createBelow(key, "four\\and below");
    OpenKey::createBelow(key, "sixsix");
    setText(key, "name", "a longer text");
    setNumber(key, "longer name", 1);
    EXPECT_EQ(info(), (std::vector<DWORD>{2, 6, 0, 2, 11, 13, 0}));
    EXPECT_EQ(RegQueryInfoKey(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                              nullptr, nullptr, nullptr),
              0);
}

TEST_F(KeyApi, ADeletedKeyGoesWithAllBelowAndItsHandlesAnswerNothing) {
    OpenKey example(kExample);
    OpenKey doomed = OpenKey::createBelow(example, "doomed");
    OpenKey below = OpenKey::createBelow(doomed, "deep\\below");
    setText(below, "v", "x");
    ASSERT_EQ(RegDeleteKey(0, "software\\example\\DOOMED\\"), 0);
    EXPECT_EQ(fileText().find("doomed"), std::string::npos) << "written at once";
    const HKEY handles[] = {doomed, below};
    for (const HKEY dead : handles) {
        char name[9];
        DWORD size = sizeof name;
        BYTE data[9];
        HKEY out = 0;
        DWORD disposition = 0;
        EXPECT_EQ(setText(dead, "v", "y"), -1);
        EXPECT_EQ(RegDeleteValue(dead, "v"), -1);
        EXPECT_EQ(RegQueryValueEx(dead, "v", nullptr, nullptr, data, &size), -1);
        EXPECT_EQ(RegEnumValue(dead, 0, name, &size, nullptr, nullptr, nullptr, nullptr), -1);
        EXPECT_EQ(RegEnumKey(dead, 0, name, sizeof name), -1);
        EXPECT_EQ(open(dead, "", &out), 13);
        EXPECT_EQ(create(dead, "new", &out, &disposition), -1);
        EXPECT_EQ(RegDeleteKey(dead, "new"), -1);
        EXPECT_EQ(RegHKEYtoString(dead), "");
    }
    const OpenKey again = OpenKey::createBelow(example, "doomed");
    EXPECT_NE(again, handles[0]) << "the old handle would name the new key";
    EXPECT_EQ(valuesOf(again), Names{});
    EXPECT_EQ(subkeysOf(again), Names{});
    EXPECT_EQ(doomed.close(), 0);
    EXPECT_EQ(below.close(), 0);
    EXPECT_EQ(RegCloseKey(handles[0]), -1);
}

TEST_F(KeyApi, TwoKeysNeverAnswerToOneHandle) {
    writeText(
        file(),
        "hkey_local_machine\\a:7\nhkey_local_machine\\b:7\nhkey_local_machine\\c:0\nhkey_local_machine\\d:0\n"
        "hkey_local_machine\\e:1073741823\nhkey_local_machine\\f:2147483655\nhkey_local_machine\\g:"
        "1073741831\n"
        "hkey_local_machine\\h:-7\n");
    std::vector<OpenKey> keys;
    std::set<HKEY> numbers;
    for (const char* path : {"", "a", "b", "c", "d", "e", "f", "g", "h"}) {
        keys.emplace_back(path, KEY_READ);
        ASSERT_GT(keys.back(), 0) << path;
        EXPECT_TRUE(numbers.insert(keys.back()).second) << path;
        EXPECT_EQ(RegFormatKey("", keys.back()),
                  *path ? std::string("hkey_local_machine\\") + path : "hkey_local_machine");
    }
    // Processes forked from one parent draw equal numbers.
    WriteRegistry();
    const OpenKey root("");
    const pid_t child = ::fork();
    const std::string name = child == 0 ? "child" : "parent";
    const OpenKey made = OpenKey::createBelow(root, name);
    setText(made, "who", name);
    const LONG flushed = RegFlushKey(made);
    if (child == 0) ::_exit(flushed == 0 ? 0 : 1);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    const OpenKey other("child", KEY_READ);
    EXPECT_NE(other, made & ~kWriteBit);
    EXPECT_EQ(textOf(other, "who"), "child");
    EXPECT_EQ(textOf(made, "who"), "parent");
}

TEST_F(KeyApi, WhatTheFileCannotHoldIsRefusedAndChangesNothing) {
    const OpenKey example(kExample);
    const std::string before = fileText();
    const std::string tooLong(4085, 'k');
    for (const char* path : {"line\nfeed", "co:lon", "ok\\hkey:x", tooLong.c_str()}) {
        HKEY key = 0;
        DWORD disposition = 0;
        CapturedStderr said;
        EXPECT_EQ(create(example, path, &key, &disposition), -1) << path;
        EXPECT_EQ(said.text().find("RegCreateKeyEx: "), 0u) << said.text();
        const std::string line = said.text().substr(0, said.text().find('\n') + 1);
        EXPECT_EQ(subkeysOf(example), Names{}) << path;
    }
    ASSERT_EQ(WriteRegistry(), 1);
    EXPECT_EQ(parseRegistry(fileText()).size(), 3u);
}

}  // namespace
}  // namespace traiklofox::test
