// How a value's line in the registry file is laid out and read back.

#include <gtest/gtest.h>

#include <string>

#include "registry/reg_value.h"

namespace {

using traiklofox::registry::kLongestLine;

std::string lineOf(DWORD type, const std::string& name, const std::string& data) {
    std::string text;
    RegValue(type, name, data).appendLine(text);
    return text;
}

TEST(ValueLine, IsLaidOutInColumns) {
    EXPECT_EQ(lineOf(REG_DWORD, "Port", "0x1f4"),
              "Port:                 \t0x1f4;                \tREG_DWORD\n");
    EXPECT_EQ(lineOf(REG_SZ, "", ""), ":                     \t;                     \tREG_SZ\n");
    EXPECT_EQ(lineOf(REG_MULTI_SZ, "AnArrayOfExactly21xxx", "a b "),
              "AnArrayOfExactly21xxx:\ta b ;                 \tREG_MULTI_SZ\n");
    EXPECT_EQ(lineOf(REG_SZ, "ANameOfTwentyTwoLetter", "x"),
              "ANameOfTwentyTwoLetter:\tx;                    \tREG_SZ\n");
}

TEST(ValueLine, IsReadAsWritten) {
    struct Row {
        const char* line;
        DWORD type;
        const char* name;
        const char* data;
    };
    const Row rows[] = {
        {"Port:                 \t0x1f4;                \tREG_DWORD", REG_DWORD, "Port", "0x1f4"},
        {"Port:   ;REG_SZ", REG_SZ, "Port", ""},
        {":;REG_SZ", REG_SZ, "", ""},
        {" a name : data with blanks ; \t REG_MULTI_SZ", REG_MULTI_SZ, " a name ", "data with blanks "},
        {"a:b:c;\tREG_SZ", REG_SZ, "a", "b:c"},
        // Cut at the first semicolon; the type is still found.
        {"a:\tx;y;\tREG_SZ", REG_SZ, "a", "x"},
        {"a:\tx;y\tREG_DWORD;\tREG_SZ", REG_SZ, "a", "x"},
        {"a:\t;;\tREG_MULTI_SZ", REG_MULTI_SZ, "a", ""},
        {"a:\tx; ;\tREG_SZ", REG_SZ, "a", "x"},
    };
    for (const Row& row : rows) {
        RegValue value;
        ASSERT_EQ(value.FormatValue(row.line), 1) << row.line;
        EXPECT_EQ(value, RegValue(row.type, row.name, row.data)) << row.line;
    }
}

TEST(ValueLine, AnyOtherIsNoValueAndChangesNothing) {
    const char* const lines[] = {
        "",
        "no colon;\tREG_SZ",
        "no semicolon:\tx\tREG_SZ",
        "semicolon; first:\tx\tREG_SZ",
        "a:\tx;",
        "a:\tx;\tREG_SZ ",
        "a:\tx;\tREG_NONE",
        "a:\tx;\treg_sz",
        "a:\tx; y",
        "a:\tx;\tREG_SZ\r",
        "a:x;y; REG_SZ",
        "\t",
    };
    for (const char* line : lines) {
        RegValue value(REG_SZ, "before", "as it was");
        EXPECT_EQ(value.FormatValue(line), 0) << line;
        EXPECT_EQ(value, RegValue(REG_SZ, "before", "as it was")) << line;
    }
    EXPECT_EQ(RegValue().FormatValue(static_cast<const char*>(nullptr)), 0);
}

TEST(ValueLine, PrintedAndReadIsTheSame) {
    const std::string names[] = {
        "", "n", "#not first", "tab\tin it", "\xff\x80", std::string(21, 'n'), std::string(300, 'n')};
    const std::string datas[] = {"",
                                 "d",
                                 "a b ",
                                 "trailing  ",
                                 "colon:",
                                 "\xe4\xf6",
                                 "tab\tin it",
                                 std::string(21, 'd'),
                                 std::string(3000, 'd')};
    for (const DWORD type : {REG_SZ, REG_DWORD, REG_MULTI_SZ}) {
        for (const std::string& name : names) {
            for (const std::string& data : datas) {
                const RegValue value(type, name, data);
                std::string line;
                value.appendLine(line);
                ASSERT_EQ(line.back(), '\n');
                line.pop_back();
                EXPECT_EQ(value.lineLength(), line.size());
                RegValue read;
                ASSERT_EQ(read.FormatValue(line), 1) << line;
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
        RegValue value;
        ASSERT_EQ(value.FormatValue("n:" + data + ";REG_SZ"), 1);
        std::string line;
        value.appendLine(line);
        line.pop_back();
        ASSERT_LE(line.size(), kLongestLine) << slack;
        RegValue read;
        ASSERT_EQ(read.FormatValue(line), 1) << slack;
        EXPECT_EQ(read, value) << slack;
    }
}

}  // namespace
