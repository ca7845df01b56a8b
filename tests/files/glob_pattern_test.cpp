#include "files/glob_pattern.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <sstream>
#include <string>

namespace traiklofox::test {
namespace {

using files::GlobPattern;
using files::LeadingPeriod;

struct Row {
    const char *pattern, *matching, *others;  // names, with blanks between them; "~" is the empty one
};

void check(std::initializer_list<Row> rows, LeadingPeriod period) {
    for (const Row& row : rows) {
        const GlobPattern pattern(row.pattern, period);
        for (const bool isMatching : {true, false}) {
            std::istringstream names(isMatching ? row.matching : row.others);
            for (std::string name; names >> name;)
                EXPECT_EQ(pattern.matches(name == "~" ? "" : name), isMatching) << row.pattern << " " << name;
        }
    }
}

// clang-format off
TEST(GlobPattern, WildcardsMatchBytes) {
    check({
        {"", "~", "a"}, {"abc", "abc", "ab abcd ABC xabc"}, {"*", "~ a . .. .x", ""},
        {"?", "a . \xff", "~ ab \xc3\xa9"}, {"a?c", "abc a?c", "ac abbc"},
        {"*.txt", "a.txt .txt a.txt.txt", "a.txtx atxt xt"}, {"a*", "a abc", "~ ba"},
        {"a**b", "ab axb", "a b"}, {"*a*b*", "ab xaxbx aab", "ba a ~"},
        {"*ab*ab", "abab xabxab ababab", "ab aab ababa"}, {"*a?", "ab aaa xaab", "a aba-b"},
        {"?*?", "ab abc", "a"}, {"*?[c]", "abc cc", "c cb"}, {"\\*", "\\ \\a", "*"}}, LeadingPeriod::Ordinary);
}

TEST(GlobPattern, ClassesMatchOneByte) {
    check({
        {"[abc]", "a b c", "~ d ab [abc]"}, {"[a-c]x[0-9]", "ax0 cx9", "dx0 -x0 ax"},
        {"[!a-c]", "d ! -", "a b ~"}, {"[]]", "]", "[]]"}, {"[]-a]", "] ^ a", "- b"}, {"[!]]", "a", "]"},
        {"[a-]", "a -", "b"}, {"[-a]", "a -", "b"}, {"[a!]", "a !", "b"}, {"[--/]", "- . /", "0 ,"},
        {"[c-a]", "", "a b c -"}, {"[*?]", "* ?", "a"}, {"[\x80-\xff]", "\x80 \xc3 \xff", "\x7f a"},
        {"[,]", ",", "~"}, {"[abc", "[abc", "a"}, {"[]", "[]", "]"}, {"[!]", "[!]", "a"},
        {"[[]x[", "[x[", "[]x["}}, LeadingPeriod::Ordinary);
}

TEST(GlobPattern, BracesHoldAlternatives) {
    check({
        {"{a,b}", "a b", "~ c ab {a,b} a,b"}, {"{a,b{c,d}}", "a bc bd", "b ac bcd"},
        {"{{a,b},c}d", "ad bd cd", "d abd"}, {"x{,y}z", "xz xyz", "xyyz x,yz"}, {"{,,}", "~", ","},
        {"*.{jsp,html}", "a.jsp .html a.jsp.html", "a.htm a.jspx jsp"}, {"{ab,a}*b", "ab abb axb", "b a"},
        {"{a*,*b}{c,*d}", "ac xbc axxd bd", "c d xc"}, {"{a,ab}{c,bcd}", "ac abcd abc abbcd", "acd a"},
        {"{[,],b}", ", b", "[ [,]"}, {"{[a-c],?d}x", "ax ddx", "dx x"}, {"{a}", "a", "{a}"},
        {"p{a}*{b}s", "pabs paxbs", "ps"}, {"{}", "{}", "~"}, {"{a,{}}", "a {}", "{"},
        {"{a,b", "{a,b", "a b"}, {"a,b}", "a,b}", "a"}, {"{a,{b,c}", "{a,b {a,c", "a b"},
        {"{[}],a}", "} a", "["}}, LeadingPeriod::Ordinary);
}

TEST(GlobPattern, ALeadingPeriodIsMatchedByItselfAlone) {
    check({
        {"*", "a ~ a.b", ". .. .a"}, {"*.txt", "a.txt a..txt", ".txt .a.txt"}, {".*", ". .. .a", "a. ~"},
        {"?a", "ba", ".a"}, {"[.]a", "", ".a"}, {"[!b]a", "ca", ".a ba"}, {"a?b", "a.b", ""},
        {"{.,}a*", ".a a a.b", "..a"}, {"{*,.b}c", "c ac .bc", ".c .ac"}, {"{,a}*", "a ~", ". .a"}},
        LeadingPeriod::Explicit);
}
// clang-format on

// Tried way by way, each of these takes longer than the world has stood.
TEST(GlobPattern, NoPatternTakesLong) {
    const std::string name(255, 'a');
    std::string stars, braces, nested, optional;
    for (int i = 0; i < 200; ++i) {
        stars += "*a";
        braces += "{a,aa,*a}";
        optional += "{,a}{,a}";
        nested = "{" + nested + ",a*}";
    }
    for (const std::string& pattern :
         {stars + "*b", braces + "b", optional + "b", nested + "b", "{" + stars + ",}b",
          std::string(2000, '{') + "b", std::string(2000, '[') + "b"})
        EXPECT_FALSE(GlobPattern(pattern, LeadingPeriod::Ordinary).matches(name)) << pattern;
    EXPECT_TRUE(GlobPattern(stars + "*", LeadingPeriod::Ordinary).matches(name));
    EXPECT_TRUE(GlobPattern(braces, LeadingPeriod::Ordinary).matches(name));
    EXPECT_TRUE(GlobPattern(optional, LeadingPeriod::Ordinary).matches(name));
}

}  // namespace
}  // namespace traiklofox::test
