// How a value's line in the registry file is laid out and read back.

#include <gtest/gtest.h>

#include <string>

#include "registry/reg_value.h"

namespace {

using traiklofox::registry::kLongestLine;

std::string lineOf(const RegValue& value) {
    std::string text;
    value.appendLine(text);
    EXPECT_EQ(text.back(), '\n');
    text.pop_back();
    return text;
}

TEST(ValueLine, IsLaidOutInColumns) {
    EXPECT_EQ(lineOf({REG_DWORD, "Port", "0x1f4"}),
              "Port:                 \t0x1f4;                \tREG_DWORD");
    EXPECT_EQ(lineOf({REG_SZ, "", ""}), ":                     \t;                     \tREG_SZ");
    EXPECT_EQ(lineOf({REG_MULTI_SZ, "OneLessThanTheColumns", "a b "}),
              "OneLessThanTheColumns:\ta b ;                 \tREG_MULTI_SZ");
    EXPECT_EQ(lineOf({REG_SZ, "AnameAsLongAsTheColumn", "x"}),
              "AnameAsLongAsTheColumn:\tx;                    \tREG_SZ");
}

TEST(ValueLine, IsReadByItsMarks) {
    const std::pair<const char*, RegValue> rows[] = {
        {"Port:                 \t0x1f4;                \tREG_DWORD", {REG_DWORD, "Port", "0x1f4"}},
        {"Port:   ;REG_SZ", {REG_SZ, "Port", ""}},
        {":;REG_SZ", {REG_SZ, "", ""}},
        {" a name : data with blanks ; \t REG_MULTI_SZ", {REG_MULTI_SZ, " a name ", "data with blanks "}},
        {"a:b:c;\tREG_SZ", {REG_SZ, "a", "b:c"}},
        // Cut at the first semicolon; the type is still found.
        {"a:\tx;y;\tREG_SZ", {REG_SZ, "a", "x"}},
        {"a:\tx;y\tREG_DWORD;\tREG_SZ", {REG_SZ, "a", "x"}},
        {"a:\t;;\tREG_MULTI_SZ", {REG_MULTI_SZ, "a", ""}},
        {"a:\tx; ;\tREG_SZ", {REG_SZ, "a", "x"}},
    };
    for (const auto& [line, expected] : rows) {
        RegValue value;
        EXPECT_EQ(value.FormatValue(line), 1) << line;
        EXPECT_EQ(value, expected) << line;
    }
}

TEST(ValueLine, AnyOtherIsNoValueAndChangesNothing) {
    for (const char* line :
         {"", "\t", "no colon;\tREG_SZ", "no semicolon:\tx\tREG_SZ", "semicolon; first:\tx\tREG_SZ", "a:\tx;",
          "a:\tx;\tREG_SZ ", "a:\tx;\tREG_NONE", "a:\tx;\treg_sz", "a:\tx; y", "a:\tx;\tREG_SZ\r",
          "a:x;y; REG_SZ", static_cast<const char*>(nullptr)}) {
        RegValue value(REG_SZ, "before", "as it was");
        EXPECT_EQ(value.FormatValue(line), 0) << line;
        EXPECT_EQ(value, RegValue(REG_SZ, "before", "as it was")) << line;
    }
}

TEST(ValueLine, PrintedAndReadIsTheSame) {
    for (const DWORD type : {REG_SZ, REG_DWORD, REG_MULTI_SZ}) {
        for (const std::string& name :
             {std::string(), std::string("n"), std::string("tab\tin it"), std::string("\xff\x80"),
              std::string(21, 'n'), std::string(300, 'n')}) {
            for (const std::string& data :
                 {std::string(), std::string("a b  "), std::string("colon:\t"), std::string("\xe4"),
                  std::string(21, 'd'), std::string(3000, 'd')}) {
                const RegValue value(type, name, data);
                const std::string line = lineOf(value);
                EXPECT_EQ(value.lineLength(), line.size());
                RegValue read;
                EXPECT_EQ(read.FormatValue(line.c_str()), 1) << line;
                EXPECT_EQ(read, value) << line;
            }
        }
    }
}

// A line written by hand without columns may be as long as a line can be; with columns it would be longer than any
// reader takes, and the next one would stop there.
TEST(ValueLine, NeverGrowsTooLongToBeReadAgain) {
    for (size_t slack = 0; slack < 60; ++slack) {
        const std::string data(kLongestLine - std::string("n:;REG_SZ").size() - slack, 'd');
        const std::string line = lineOf({REG_SZ, "n", data});
        EXPECT_LE(line.size(), kLongestLine) << slack;
        RegValue read;
        EXPECT_EQ(read.FormatValue(line.c_str()), 1) << slack;
        EXPECT_EQ(read, RegValue(REG_SZ, "n", data)) << slack;
    }
}

}  // namespace
