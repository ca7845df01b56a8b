// How a value's line in the registry file is laid out and read back.

#include <gtest/gtest.h>

#include <string>

#include "registry/reg_value.h"

namespace {

using traiklofox::registry::kLongestLine;

TEST(ValueLine, IsLaidOutInColumnsUnlessItWouldGrowTooLongToBeRead) {
    const std::string longest(kLongestLine - std::string("n:;REG_SZ").size(), 'd');
    for (const auto& [value, line] :
         {std::pair<RegValue, std::string>{{REG_DWORD, "Port", "0x1f4"},
                                           "Port:                 \t0x1f4;                \tREG_DWORD"},
          {{REG_SZ, "", ""}, ":                     \t;                     \tREG_SZ"},
          {{REG_MULTI_SZ, "OneLessThanTheColumns", "a b "},
           "OneLessThanTheColumns:\ta b ;                 \tREG_MULTI_SZ"},
          {{REG_SZ, "AnameAsLongAsTheColumn", "x"},
           "AnameAsLongAsTheColumn:\tx;                    \tREG_SZ"},
          {{REG_SZ, "n", longest}, "n:" + longest + ";REG_SZ"}}) {
        std::string text;
        value.appendLine(text);
        EXPECT_EQ(text, line + "\n");
        RegValue read;
        EXPECT_EQ(read.FormatValue(line.c_str()), 1) << line;
        EXPECT_EQ(read, value) << line;
    }
}

TEST(ValueLine, IsReadByItsMarks) {
    for (const auto& [line, expected] :
         {std::pair<const char*, RegValue>{"Port:   ;REG_SZ", {REG_SZ, "Port", ""}},
          {" a name : data with blanks ; \t REG_MULTI_SZ", {REG_MULTI_SZ, " a name ", "data with blanks "}},
          {"a:b:c;\tREG_SZ", {REG_SZ, "a", "b:c"}},
          {"a:\tx;y\tREG_DWORD;\tREG_SZ", {REG_SZ, "a", "x"}},   // cut, but the type is found
          {"a:\tx;\tREG_SZ ", {REG_SZ, "before", "as it was"}},  // no value, as those below
          {"a:\tx;\treg_sz", {REG_SZ, "before", "as it was"}},
          {"a:x;y; REG_SZ", {REG_SZ, "before", "as it was"}},
          {nullptr, {REG_SZ, "before", "as it was"}}}) {
        RegValue value(REG_SZ, "before", "as it was");
        EXPECT_EQ(value.FormatValue(line) != 0, expected.name != "before") << line;
        EXPECT_EQ(value, expected) << line;
    }
}

}  // namespace
