// Values: what is stored for which type, every result of reading them, and what is refused. Their lines in the file
// are told by the tests of kzreg and by the fuzz target of such lines.

#include <filesystem>

#include "registry/reg_value.h"
#include "registry/registry_fixture.h"
#include "support/captured_output.h"

namespace traiklofox::test {
namespace {

using registry::kLongestLine;

class ValueApi : public StartedRegistryTest {
  protected:
    void SetUp() override {
        StartedRegistryTest::SetUp();
        if (IsSkipped()) return;
        ASSERT_EQ(RegDeleteValue(key, "Name"), 0);
        setText(key, "text", "four");
        setNumber(key, "number", 500);
        setBytes(REG_MULTI_SZ, "multi", kMulti);
        setBytes(/*type=*/3, "other", "bytes");  // which ends an enumeration
    }
    LONG setBytes(DWORD type, const char* name, const std::string& bytes) const {
        return RegSetValueEx(key, name, 0, type, reinterpret_cast<const BYTE*>(bytes.data()),
                             static_cast<DWORD>(bytes.size()));
    }
    const std::string kText{"four\0", 5}, kNumber{"\xf4\x01\0\0", 4}, kMulti{"a\0b\0\0", 5};
};

// One value read with a buffer of `size` bytes, or with none: by its name, and by its index.
TEST_F(ValueApi, ReadingsGiveTheDocumentedResultsSizesAndBytes) {
    // clang-format off
    const struct { DWORD index; const char* name; DWORD size; bool buffer; LONG queried; DWORD queriedSize;
                   LONG enumerated; DWORD enumeratedSize; std::string bytes; } kRows[] = {
        {0, "text", 5, true, 0, 5, 0, 5, kText},       {0, "TEXT", 99, true, 0, 99, 0, 99, kText},
        {0, "text", 4, true, 234, 5, 234, 4, ""},      {0, "text", 0, true, 234, 5, 234, 0, ""},
        {0, "text", 0, false, 0, 0, 0, 0, ""},         {1, "number", 4, true, 0, 4, 0, 4, kNumber},
        {1, "number", 99, true, 0, 4, 0, 4, kNumber},  {1, "number", 3, true, 234, 4, 234, 4, ""},
        {1, "number", 0, false, 0, 4, 0, 4, ""},       {2, "multi", 5, true, 0, 5, 0, 5, kMulti},
        {2, "multi", 99, true, 0, 5, 0, 99, kMulti},   {2, "multi", 4, true, 234, 4, 234, 4, ""},
        {2, "multi", 7, false, 0, 5, 0, 7, ""},        {3, "other", 99, true, 0, 99, -1, 99, ""},
        {4, "missing", 99, true, 13, 99, 259, 99, ""}};
    // clang-format on
    char name[] = "????????";
    DWORD length = 0;
    for (const auto& row : kRows)
        for (const bool byName : {true, false}) {
            SCOPED_TRACE(std::string(row.name) + (byName ? " queried, " : " enumerated, ") +
                         std::to_string(row.size));
            std::string bytes(100, '?');
            const auto buffer = row.buffer ? reinterpret_cast<LPBYTE>(bytes.data()) : nullptr;
            DWORD size = row.size;
            length = sizeof name - 1;
            EXPECT_EQ(byName ? RegQueryValueEx(key, row.name, nullptr, nullptr, buffer, &size)
                             : RegEnumValue(key, row.index, name, &length, nullptr, nullptr, buffer, &size),
                      byName ? row.queried : row.enumerated);
            EXPECT_EQ(size, byName ? row.queriedSize : row.enumeratedSize);
            EXPECT_EQ(bytes, row.bytes + std::string(100 - row.bytes.size(), '?'));
        }
    // An enumerated name needs room for its length alone.
    std::fill_n(name, 8, '?');
    length = 3;
    DWORD type = REG_NONE;
    EXPECT_EQ(RegEnumValue(key, 0, name, &length, nullptr, &type, nullptr, nullptr), 234);
    EXPECT_TRUE(length == 4 && type == REG_NONE && name == std::string("????????"));
    EXPECT_EQ(RegEnumValue(key, 0, name, &length, nullptr, &type, nullptr, nullptr), 0);
    EXPECT_TRUE(length == 4 && type == REG_SZ && std::string(name, 8) == std::string("text\0???", 8));
}

TEST_F(ValueApi, ResultsOfTheOtherCalls) {
    BYTE data[8] = {};
    char name[8];
    DWORD size = 8;
    const auto query = [&](HKEY from, const char* value, BYTE* to, DWORD* room) {
        return RegQueryValueEx(from, value, nullptr, nullptr, to, room);
    };
    const auto enumerate = [&](char* to, DWORD* length) {
        return RegEnumValue(key, 0, to, length, nullptr, nullptr, nullptr, nullptr);
    };
    // clang-format off
    expectResults({
        {"query: nowhere to put it", 0, query(kUnknown, "text", nullptr, nullptr)},
        {"query: no empty name", 13, query(key, nullptr, data, &size)},
        {"query: no size of a number", 0, query(key, "number", data, nullptr)},
        {"query: no size of a text", 0, query(key, "text", data, nullptr)},
        {"enum: no name", -1, enumerate(nullptr, &size)},
        {"enum: no length", -1, enumerate(name, nullptr)},
        {"set: null number", -1, RegSetValueEx(key, "v", 0, REG_DWORD, nullptr, 4)},
        {"set: null text", 0, RegSetValueEx(key, "null", 0, REG_SZ, nullptr, 4)},
        {"set: null texts", 0, RegSetValueEx(key, "nulls", 0, REG_MULTI_SZ, nullptr, 4)},
        {"set: no texts", 0, RegSetValueEx(key, "no texts", 0, REG_MULTI_SZ, data, 0)},
        {"set: null name", 0, RegSetValueEx(key, nullptr, 0, REG_SZ, data, 1)},
        {"query: the empty name", 0, query(key, nullptr, data, &size)},
        {"delete: null name", -1, RegDeleteValue(key, nullptr)},
        {"delete: missing", -1, RegDeleteValue(key, "missing")}, {"delete: empty name", 0, RegDeleteValue(key, "")},
        {"node: null", -1, RegSetValueNode("n", REG_SZ, data, nullptr)},
    });
    // clang-format on
    // Names ignore case, and the last spelling stays.
    const std::string upper = "A Name From A To Z That Is Too Long To Be Kept In Place";
    const std::string lower = "a name from a to z that is too long to be kept in place";
    for (const char* gone : {"other", "null", "nulls", "no texts"}) EXPECT_EQ(RegDeleteValue(key, gone), 0);
    for (const auto& [spelt, text] : {std::pair{upper, "1"}, {upper, "2"}, {lower, "3"}, {lower, "4"}}) {
        EXPECT_EQ(setText(key, spelt, text), 0);
        EXPECT_EQ(textOf(key, upper), text);
        EXPECT_EQ(textOf(key, lower), text);
        EXPECT_EQ(valuesOf(key), (Names{"text", "number", "multi", spelt}));
    }
    EXPECT_EQ(RegDeleteValue(key, upper.c_str()), 0);
    EXPECT_EQ(valuesOf(key), (Names{"text", "number", "multi"}));
}

TEST_F(ValueApi, OnlyAChangeIsWrittenAndOfATypeOneThatTheFileHasAWordFor) {
    ASSERT_EQ(RegFlushKey(key), 0);
    setText(key, "text", "four");
    setNumber(key, "number", 500);
    std::filesystem::remove(file());
    EXPECT_EQ(RegFlushKey(key), 0);
    EXPECT_FALSE(std::filesystem::exists(file()));
    setBytes(REG_MULTI_SZ, "text", kText);
    EXPECT_EQ(RegFlushKey(key), 0);
    EXPECT_EQ(fileKeys().at(kExamplePath).at("text"), (FileValue{"REG_MULTI_SZ", "four"}));
    setBytes(/*type=*/3, "text", "bytes");
    EXPECT_EQ(RegFlushKey(key), 0);
    EXPECT_EQ(inFile("text"), std::nullopt);
}

TEST_F(ValueApi, WhatTheFileCannotHoldIsRefusedWithALineAndABatchIsSetAsOne) {
    const std::string fits(kLongestLine - 23 - 2 - 6,
                           'd');  // the name's column, the data's end and tab, the type
    const CKZString withNul(std::string("n\0ul", 4));
    EXPECT_EQ(setText(key, "longest", fits), 0);
    for (const auto& [name, data] : {std::pair<CKZString, CKZString>{"line\nfeed", ""},
                                     {"v", "line\nfeed"},
                                     {"co:lon", ""},
                                     {"#hidden", ""},
                                     {"", fits + "d"},
                                     {"longest", fits + "d"},
                                     {"hkey_local_machine", ""},
                                     {"v", "in hkey_local_machine\\x"},
                                     {withNul, "x"},
                                     {"v", withNul}}) {
        const CapturedStderr said;
        EXPECT_EQ(RegBatchSetValueEx(key, {{"good", REG_SZ, "x"}, {name, REG_SZ, data}}), -1) << name;
        EXPECT_EQ(textOf(key, "good"), std::nullopt) << "half a batch";
        if (std::string(name + data).find('\0') != std::string::npos)
            continue;  // not to be said to the other call
        EXPECT_EQ(setText(key, name, data), -1) << name;
        EXPECT_EQ(said.text().find("RegBatchSetValueEx: "), 0u) << said.text();
        EXPECT_NE(said.text().find("\nRegSetValueEx: "), std::string::npos) << said.text();
    }
    RegValueList text, number, multi, null;
    BYTE seven[] = {7, 0, 0, 0};
    char texts[] = "x\0yz\0";
    auto* bytes = reinterpret_cast<BYTE*>(texts);
    expectResults({
        {"a text", 0, RegSetValueNode("t", REG_SZ, bytes, &text)},
        {"a number", 0, RegSetValueNode("n", REG_DWORD, seven, &number)},
        {"texts", 0, RegSetValueNode("m", REG_MULTI_SZ, bytes, &multi)},
        {"null number", -1, RegSetValueNode("null", REG_DWORD, nullptr, &null)},
        {"null texts", 0, RegSetValueNode("null", REG_MULTI_SZ, nullptr, &null)},
        {"handle for reading", -1, RegBatchSetValueEx(OpenKey(kExample, KEY_READ), {text})},
        {"unknown handle", -1, RegBatchSetValueEx(kUnknown, {text})},
        {"empty", 0, RegBatchSetValueEx(key, {})},
        {"all", 0, RegBatchSetValueEx(key, {text, number, multi, null})},
        {"no value's line", 0, RegValue().FormatValue(nullptr)},
    });
    setNumber(key, "zero", 0);
    setNumber(key, "most", 0xffffffff);
    setText(key, "cut", "before;after");
    setText(key, "blanks", "  at both ends  ");
    ASSERT_EQ(RegFlushKey(key), 0);
    const FileKeys::mapped_type expected{{"text", {"REG_SZ", "four"}},
                                         {"number", {"REG_DWORD", "0x1f4"}},
                                         {"multi", {"REG_MULTI_SZ", "a b "}},
                                         {"longest", {"REG_SZ", fits}},
                                         {"t", {"REG_SZ", "x"}},
                                         {"n", {"REG_DWORD", "0x7"}},
                                         {"m", {"REG_MULTI_SZ", "x yz "}},
                                         {"null", {"REG_MULTI_SZ", ""}},
                                         {"zero", {"REG_DWORD", "0"}},
                                         {"most", {"REG_DWORD", "0xffffffff"}},
                                         {"cut", {"REG_SZ", "before"}},
                                         {"blanks", {"REG_SZ", "at both ends  "}}};
    EXPECT_EQ(fileKeys().at(kExamplePath), expected);
    EXPECT_NE(fileText().find("\tbefore;after;"), std::string::npos);
}

}  // namespace
}  // namespace traiklofox::test
