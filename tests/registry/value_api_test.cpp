// Values: what is stored for which type, every result of reading them, and what is refused.

#include <filesystem>
#include <functional>

#include "registry/registry_fixture.h"
#include "support/captured_output.h"

namespace traiklofox::test {
namespace {

using Names = std::vector<std::string>;
constexpr HKEY kUnknown = 0x3ffffff0;
constexpr DWORD kUntouched = 0xabcd;

class ValueApi : public RegistryTest {
  protected:
    void SetUp() override {
        RegistryTest::SetUp();
        if (IsSkipped()) return;
        key = OpenKey::createBelow(OpenKey(kExample), "values");
        setText(key, "text", "four");
        setNumber(key, "number", 500);
        setBytes(REG_MULTI_SZ, "multi", std::string("a\0b\0\0", 5));
        setBytes(/*type=*/3, "other", "bytes");
    }
    LONG setBytes(DWORD type, const char* name, const std::string& bytes) const {
        return RegSetValueEx(key, name, 0, type, reinterpret_cast<const BYTE*>(bytes.data()),
                             static_cast<DWORD>(bytes.size()));
    }
    OpenKey key;
};

// A reading of one value with a buffer of `size` bytes: what comes back, which size is stored, which bytes.
struct Reading {
    const char* name;
    DWORD size;
    bool buffer;
    LONG result;
    DWORD storedSize;
    std::string bytes;
};

const std::string kNumber{"\xf4\x01\0\0", 4};
const std::string kMulti{"a\0b\0\0", 5};

TEST_F(ValueApi, QueriesGiveTheDocumentedResultsSizesAndBytes) {
    const Reading rows[] = {
        {"text", 5, true, 0, 5, std::string("four\0", 5)},
        {"TEXT", 99, true, 0, 99, std::string("four\0", 5)},
        {"text", 4, true, 234, 5, ""},
        {"text", 0, true, 234, 5, ""},
        {"text", 0, false, 0, 0, ""},
        {"number", 4, true, 0, 4, kNumber},
        {"number", 99, true, 0, 4, kNumber},
        {"number", 3, true, 234, 4, ""},
        {"number", 0, false, 0, 4, ""},
        {"multi", 5, true, 0, 5, kMulti},
        {"multi", 99, true, 0, 5, kMulti},
        {"multi", 4, true, 234, 4, ""},
        {"multi", 0, false, 0, 5, ""},
        {"other", 99, true, 0, 99, ""},
        {"missing", 99, true, 13, 99, ""},
    };
    for (const Reading& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ", size " + std::to_string(row.size));
        std::string bytes(100, '?');
        DWORD size = row.size;
        const auto buffer = row.buffer ? reinterpret_cast<LPBYTE>(bytes.data()) : nullptr;
        EXPECT_EQ(RegQueryValueEx(key, row.name, nullptr, nullptr, buffer, &size), row.result);
        EXPECT_EQ(size, row.storedSize);
        EXPECT_EQ(bytes, row.bytes + std::string(100 - row.bytes.size(), '?'));
    }
}

TEST_F(ValueApi, EnumerationNeverStoresTheSizeOfATextAndRefusesOtherTypes) {
    const Reading rows[] = {
        {"text", 5, true, 0, 5, std::string("four\0", 5)},
        {"text", 4, true, 234, 4, ""},
        {"text", 0, false, 0, 0, ""},
        {"number", 99, true, 0, 4, kNumber},
        {"number", 3, true, 234, 4, ""},
        {"multi", 99, true, 0, 99, kMulti},
        {"multi", 4, true, 234, 4, ""},
        {"multi", 7, false, 0, 7, ""},
        {"other", 99, true, -1, 99, ""},
    };
    const Names names = valuesOf(key);
    for (const Reading& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ", size " + std::to_string(row.size));
        DWORD index = 0;
        while (index < 3 && names.at(index) != row.name) ++index;
        std::string bytes(100, '?');
        char name[20];
        DWORD length = sizeof name - 1;
        DWORD size = row.size;
        const auto buffer = row.buffer ? reinterpret_cast<LPBYTE>(bytes.data()) : nullptr;
        EXPECT_EQ(RegEnumValue(key, index, name, &length, nullptr, nullptr, buffer, &size), row.result);
        EXPECT_STREQ(name, row.name);
        EXPECT_EQ(size, row.storedSize);
        EXPECT_EQ(bytes, row.bytes + std::string(100 - row.bytes.size(), '?'));
    }
}

TEST_F(ValueApi, AnEnumeratedNameNeedsRoomForItsLengthAlone) {
    char name[] = "????????";
    DWORD length = 3;
    DWORD type = kUntouched;
    EXPECT_EQ(RegEnumValue(key, 0, name, &length, nullptr, &type, nullptr, nullptr), 234);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(type, kUntouched);
    EXPECT_STREQ(name, "????????");
    EXPECT_EQ(RegEnumValue(key, 0, name, &length, nullptr, &type, nullptr, nullptr), 0);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(type, REG_SZ);
    EXPECT_EQ(std::string(name, 8), std::string("text\0???", 8));
}

TEST_F(ValueApi, ResultsOfTheOtherCalls) {
    BYTE data[8] = {};
    char name[8];
    DWORD size = 8;
    struct Call {
        const char* what;
        LONG expected;
        std::function<LONG()> make;
    };
    const Call calls[] = {
        {"query: nowhere to put it", 0,
         [&] { return RegQueryValueEx(kUnknown, "text", nullptr, nullptr, nullptr, nullptr); }},
        {"query: unknown handle", -1,
         [&] { return RegQueryValueEx(kUnknown, "text", nullptr, nullptr, data, &size); }},
        {"query: no size", 0,
         [&] { return RegQueryValueEx(key, "number", nullptr, nullptr, data, nullptr); }},
        {"query: no empty name", 13,
         [&] { return RegQueryValueEx(key, nullptr, nullptr, nullptr, data, &size); }},
        {"enum: no name", -1,
         [&] { return RegEnumValue(key, 0, nullptr, &size, nullptr, nullptr, nullptr, nullptr); }},
        {"enum: no length", -1,
         [&] { return RegEnumValue(key, 0, name, nullptr, nullptr, nullptr, nullptr, nullptr); }},
        {"enum: unknown handle", -1,
         [&] { return RegEnumValue(kUnknown, 0, name, &size, nullptr, nullptr, nullptr, nullptr); }},
        {"enum: past the end", 259,
         [&] { return RegEnumValue(key, 4, name, &size, nullptr, nullptr, nullptr, nullptr); }},
        {"set: unknown handle", -1, [&] { return setText(kUnknown | 0x40000000, "v", "x"); }},
        {"set: null number", -1, [&] { return RegSetValueEx(key, "v", 0, REG_DWORD, nullptr, 4); }},
        {"set: null text", 0, [&] { return RegSetValueEx(key, "null text", 0, REG_SZ, nullptr, 4); }},
        {"set: null texts", 0, [&] { return RegSetValueEx(key, "null texts", 0, REG_MULTI_SZ, nullptr, 4); }},
        {"set: no texts", 0, [&] { return RegSetValueEx(key, "no texts", 0, REG_MULTI_SZ, data, 0); }},
        {"set: null name", 0, [&] { return RegSetValueEx(key, nullptr, 0, REG_SZ, data, 1); }},
        {"query: the empty name", 0,
         [&] { return RegQueryValueEx(key, nullptr, nullptr, nullptr, data, &size); }},
        {"delete: null name", -1, [&] { return RegDeleteValue(key, nullptr); }},
        {"delete: missing", -1, [&] { return RegDeleteValue(key, "missing"); }},
        {"delete: empty name", 0, [&] { return RegDeleteValue(key, ""); }},
        {"delete: unknown handle", -1, [&] { return RegDeleteValue(kUnknown | 0x40000000, "text"); }},
        {"node: null entry", -1, [&] { return RegSetValueNode("n", REG_SZ, data, nullptr); }},
    };
    for (const Call& call : calls) EXPECT_EQ(call.make(), call.expected) << call.what;
}

TEST_F(ValueApi, NamesIgnoreCaseAndTheLastSpellingStays) {
    const char* const kLong = "A Name That Is Far Too Long To Be Kept In Place";
    setText(key, kLong, "1");
    setText(key, kLong, "2");
    setText(key, "a name that is far too long to be kept in place", "3");
    setText(key, "a name that is far too long to be kept in place", "4");
    EXPECT_EQ(textOf(key, kLong), "4");
    const Names names = valuesOf(key);
    EXPECT_EQ(names, (Names{"text", "number", "multi"})) << "enumeration ends at the value of another type";
    EXPECT_EQ(RegDeleteValue(key, "other"), 0);
    EXPECT_EQ(valuesOf(key).back(), "a name that is far too long to be kept in place");
    EXPECT_EQ(RegDeleteValue(key, kLong), 0);
    EXPECT_EQ(valuesOf(key), names);
}

TEST_F(ValueApi, ValuesLastAsTheFileHoldsThem) {
    setNumber(key, "zero", 0);
    setNumber(key, "all", 0xffffffff);
    setText(key, "cut", "before;after");
    setText(key, "blanks", "  leading and trailing  ");
    ASSERT_EQ(key.close(), 0);
    const FileKeys keys = fileKeys();
    EXPECT_EQ(keys.at(std::string(kExamplePath) + "\\values"),
              (FileKeys::mapped_type{{"text", {"REG_SZ", "four"}},
                                     {"number", {"REG_DWORD", "0x1f4"}},
                                     {"multi", {"REG_MULTI_SZ", "a b "}},
                                     {"zero", {"REG_DWORD", "0"}},
                                     {"all", {"REG_DWORD", "0xffffffff"}},
                                     {"cut", {"REG_SZ", "before;after"}},
                                     {"blanks", {"REG_SZ", "  leading and trailing  "}}}));
    Peer peer;
    EXPECT_EQ(peer.get("software\\example\\values", "cut"), "before");
    EXPECT_EQ(peer.get("software\\example\\values", "blanks"), "leading and trailing  ");
}

TEST_F(ValueApi, WhatTheFileCannotHoldIsRefusedWithALine) {
    const std::string fits(4095 - 23 - 2 - 6, 'd');  // the name's column, the data's end and tab, the type
    EXPECT_EQ(setText(key, "longest", fits), 0);
    const Names before = valuesOf(key);
    const std::string tooLong = fits + "d";
    const std::pair<const char*, std::string> rows[] = {
        {"line\nfeed", ""},
        {"v", "line\nfeed"},
        {"co:lon", ""},
        {"#hidden", ""},
        {"", tooLong},
        {"longest", tooLong},
        {"hkey_local_machine", ""},
        {"v", "see hkey_local_machine\\x"},
    };
    for (const auto& [name, data] : rows) {
        CapturedStderr said;
        EXPECT_EQ(setText(key, name, data), -1) << name;
        EXPECT_EQ(said.text().find("RegSetValueEx: "), 0u) << said.text();
        EXPECT_EQ(RegBatchSetValueEx(key, {{"good", REG_SZ, "x"}, {name, REG_SZ, data.c_str()}}), -1) << name;
        EXPECT_EQ(textOf(key, "good"), std::nullopt) << "half a batch";
    }
    CapturedStderr said;
    EXPECT_EQ(RegBatchSetValueEx(key, {{CKZString(std::string("n\0ul", 4)), REG_SZ, "x"}}), -1);
    EXPECT_EQ(RegBatchSetValueEx(key, {{"v", REG_SZ, CKZString(std::string("n\0ul", 4))}}), -1);
    EXPECT_EQ(valuesOf(key), before);
    EXPECT_EQ(textOf(key, "longest"), fits);
    ASSERT_EQ(RegFlushKey(key), 0);
    Peer peer;
    EXPECT_EQ(peer.get("software\\example\\values", "longest"), fits);
    EXPECT_EQ(peer.get("software\\example\\values", "text"), "four");
}

TEST_F(ValueApi, ABatchIsSetAsOne) {
    RegValueList text, number, multi, null;
    DWORD seven = 7;
    char texts[] = "x\0yz\0";
    EXPECT_EQ(RegSetValueNode("t", REG_SZ, reinterpret_cast<BYTE*>(texts), &text), 0);
    EXPECT_EQ(RegSetValueNode("n", REG_DWORD, reinterpret_cast<BYTE*>(&seven), &number), 0);
    EXPECT_EQ(RegSetValueNode("m", REG_MULTI_SZ, reinterpret_cast<BYTE*>(texts), &multi), 0);
    EXPECT_EQ(RegSetValueNode("null", REG_DWORD, nullptr, &null), -1);
    EXPECT_EQ(RegSetValueNode("null", REG_MULTI_SZ, nullptr, &null), 0);
    const OpenKey reading("software\\example\\values", KEY_READ);
    EXPECT_EQ(RegBatchSetValueEx(reading, {text}), -1);
    EXPECT_EQ(RegBatchSetValueEx(kUnknown | 0x40000000, {text}), -1);
    EXPECT_EQ(RegBatchSetValueEx(key, {}), 0);
    EXPECT_EQ(RegBatchSetValueEx(key, {text, number, multi, null}), 0);
    ASSERT_EQ(RegFlushKey(key), 0);
    const auto values = fileKeys().at(std::string(kExamplePath) + "\\values");
    EXPECT_EQ(values.at("t"), (FileValue{"REG_SZ", "x"}));
    EXPECT_EQ(values.at("n"), (FileValue{"REG_DWORD", "0x7"}));
    EXPECT_EQ(values.at("m"), (FileValue{"REG_MULTI_SZ", "x yz "}));
    EXPECT_EQ(values.at("null"), (FileValue{"REG_MULTI_SZ", ""}));
}

TEST_F(ValueApi, AChangeOfTypeIsAChangeAndAnEqualValueIsNone) {
    ASSERT_EQ(RegFlushKey(key), 0);
    const std::string before = fileText();
    setText(key, "text", "four");
    setNumber(key, "number", 500);
    ASSERT_EQ(std::filesystem::remove(file()), true);
    EXPECT_EQ(RegFlushKey(key), 0);
    EXPECT_FALSE(std::filesystem::exists(file())) << "written without a change";
    setBytes(REG_MULTI_SZ, "text", std::string("four\0\0", 6));
    EXPECT_EQ(RegFlushKey(key), 0);
    EXPECT_EQ(inFile(std::string(kExamplePath) + "\\values", "text"), "four ");
    // A type that the file has no word for stays in memory, and leaves the file.
    setBytes(/*type=*/3, "text", "bytes");
    EXPECT_EQ(RegFlushKey(key), 0);
    EXPECT_EQ(inFile(std::string(kExamplePath) + "\\values", "text"), std::nullopt);
}

}  // namespace
}  // namespace traiklofox::test
