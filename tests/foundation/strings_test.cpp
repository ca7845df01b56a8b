// The string classes, and numbers as text.

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <traiklofox/numbers.h>
#include <traiklofox/strings.h>

#include <stdexcept>
#include <thread>
#include <tuple>

namespace {

template <class String>
class BothStrings : public ::testing::Test {};
using StringTypes = ::testing::Types<CKZString, CString>;
TYPED_TEST_SUITE(BothStrings, StringTypes);

TYPED_TEST(BothStrings, NullIsTheEmptyStringAndAPartOfItselfIsTaken) {
    const char* const null = nullptr;
    TypeParam text = null;
    EXPECT_TRUE(text.empty() && text == null && null == text && NULL == text);
    text = "a";
    EXPECT_TRUE(text != null && text > null);
    EXPECT_EQ(text + null, "a");
    EXPECT_EQ(null + text, "a");
    text += null;
    EXPECT_EQ(text, "a");
    text = null;
    text.Format(null);
    EXPECT_TRUE(text.empty());
    text = "some longer text that lives on the heap";
    text = text.c_str() + 5;  // a part of itself
    EXPECT_EQ(text, "longer text that lives on the heap");
    text += text;
    EXPECT_EQ(text, "longer text that lives on the heaplonger text that lives on the heap");
    text = 'c';
    EXPECT_EQ(text, "c");
}

TYPED_TEST(BothStrings, CompareBytesUnsignedThenLengths) {
    const char* const ascending[] = {"", "B", "a", "ab", "abc", "abd", "b", "\x80"};
    for (size_t i = 0; i < std::size(ascending); ++i) {
        for (size_t j = 0; j < std::size(ascending); ++j) {
            const TypeParam left = ascending[i], right = ascending[j];
            SCOPED_TRACE(left + " against " + right);
            EXPECT_TRUE((left == right) == (i == j) && (left != right.c_str()) == (i != j));
            EXPECT_TRUE((left.c_str() < right) == (i < j) && (left <= right) == (i <= j));
            EXPECT_TRUE((left > right.c_str()) == (i > j) && (left.c_str() >= right) == (i >= j));
        }
    }
}

TYPED_TEST(BothStrings, SumsJoinLeftAndRightInEveryCombination) {
    const TypeParam text = "ab";
    const std::string standard = "cd";
    const auto chain = '<' + ("x" + text) + '/' + "y" + text + standard + std::string("ef");
    static_assert(std::is_same_v<decltype(chain), const TypeParam>);
    EXPECT_EQ(chain, "<xab/yabcdef");
    EXPECT_EQ(standard + text + (std::string("ef") + text), "cdabefab");
    // Of two classes the left one's is the sum's.
    const CKZString ours = "a";
    const CString mfc = "b";
    static_assert(std::is_same_v<decltype(ours + mfc), CKZString> &&
                  std::is_same_v<decltype(mfc + ours), CString>);
    EXPECT_EQ(ours + mfc, "ab");
    EXPECT_TRUE(ours < mfc && mfc > ours && ours != mfc);
}

TYPED_TEST(BothStrings, FormatGivesWhatPrintfDoesOrKeepsTheString) {
    TypeParam text = "old";
    text.Format("%-6s|%+05d|%#x|%.*f|%*c|%%|%lld", "ab", 42, 255, 2, 3.14159, 3, 'z', -9000000000LL);
    EXPECT_EQ(text, "ab    |+0042|0xff|3.14|  z|%|-9000000000");
    for (const int length : {0, 1, 511, 512, 513, 100'000}) {
        text.Format("%*s", length, "");
        EXPECT_EQ(text, std::string(static_cast<size_t>(length), ' '));
    }
    for (const size_t length : {3u, 2000u}) {  // the string itself as an argument
        const std::string before(length, 'a');
        text = before;
        text.Format("<%s%s>", text.c_str(), text.c_str());
        EXPECT_EQ(text, "<" + before + before + ">");
    }
    const TypeParam kept = text;
    text.Format("%ls", L"\x263a");  // no such character in the "C" locale
    EXPECT_EQ(errno, EILSEQ);
    const std::string tooWide = "%2147483648d";
    EXPECT_THROW(text.Format(tooWide.c_str(), 1), std::length_error);
    EXPECT_EQ(text, kept);
}

TYPED_TEST(BothStrings, TrimmingRemovesBlanksOfAllKindsFromOneEnd) {
    for (const auto& [text, left, right] : {std::tuple{" \t\r\n\v\f ", "", ""},
                                            {" a b ", "a b ", " a b"},
                                            {"\xa0 a \xff", "\xa0 a \xff", "\xa0 a \xff"}}) {
        TypeParam fromLeft = text, fromRight = text;
        fromLeft.TrimLeft();
        fromRight.TrimRight();
        EXPECT_TRUE(fromLeft == left && fromRight == right) << text;
    }
}

TEST(CKZString, ReplaceTakesOccurrencesFromLeftToRightOnce) {
    for (const auto& [text, from, to, result] : {std::tuple{"aaaa", "aa", "b", "bb"},
                                                 {"aaa", "aa", "b", "ba"},
                                                 {"aa", "a", "aa", "aaaa"},
                                                 {"xabyabz", "ab", "", "xyz"},
                                                 {"abc", "abcd", "e", "abc"},
                                                 {"abc", "", "x", "abc"},
                                                 {"", "a", "b", ""}}) {
        CKZString replaced = text;
        replaced.replace(from, to);
        EXPECT_EQ(replaced, result) << text << ": " << from << " -> " << to;
    }
    CKZString text = "a.b.c";
    text.replace('.', "--").replace("--", '+').replace('+', '.').replace('.', text);
    EXPECT_EQ(text, "aa.b.cba.b.cc");
    text.replace(text, text);
    text.replace(0, 12, "standard \\");
    EXPECT_EQ(text.MakeForwardSlash(), "standard /c");
}

TEST(CString, SubstringsAndDeletionsCutWhatRunsOutOfTheText) {
    const CString text = "hello";
    for (const auto& [actual, expected] : {std::pair{text.Mid(-2, 3), "hel"},
                                           {text.Mid(3, 100), "lo"},
                                           {text.Mid(0, 5), "hello"},
                                           {text.Mid(5, 1), ""},
                                           {text.Mid(6, 1), ""},
                                           {text.Mid(1, -1), ""},
                                           {text.Mid(INT_MAX, INT_MAX), ""},
                                           {text.Mid(2), "llo"},
                                           {text.Mid(INT_MIN), "hello"},
                                           {text.Mid(9), ""},
                                           {text.Left(2), "he"},
                                           {text.Left(-1), ""},
                                           {text.Left(6), "hello"},
                                           {text.Right(2), "lo"},
                                           {text.Right(-1), ""},
                                           {text.Right(6), "hello"}})
        EXPECT_EQ(actual, expected);
    for (const auto& [index, count, left] : {std::tuple{1, 3, "ho"},
                                             {-1, 2, "llo"},
                                             {3, 100, "hel"},
                                             {5, 1, "hello"},
                                             {100, 1, "hello"},
                                             {0, -1, "hello"}}) {
        CString cut = text;
        EXPECT_EQ(cut.Delete(index, count), static_cast<int>(strlen(left)));
        EXPECT_EQ(cut, left) << index << ", " << count;
    }
}

TEST(CString, IsBuiltOfPiecesAndItsBufferHoldsTheTextAndWhatIsWritten) {
    CString text = "ab";
    char* buffer = text.GetBuffer(2000);
    EXPECT_STREQ(buffer, "ab");
    memset(buffer, 'x', 2000);
    text.ReleaseBuffer();
    EXPECT_EQ(text, std::string(2000, 'x'));
    text.GetBuffer(-1)[3] = '\0';
    text.ReleaseBuffer(-1);
    EXPECT_EQ(text, "xxx");
    memcpy(text.GetBufferSetLength(5), "12345", 5);
    EXPECT_EQ(text, "12345");
    text.ReleaseBuffer(2);
    EXPECT_EQ(text, "12");
    text.GetBufferSetLength(-1);
    EXPECT_TRUE(text.empty());

    const unsigned char bytes[] = {0xe4, 'b', 0};
    EXPECT_EQ(CString(bytes), "\xe4\x62");
    EXPECT_EQ(CString(static_cast<const unsigned char*>(nullptr)), "");
    EXPECT_EQ(CString("abc", 2), "ab");
    EXPECT_EQ(CString(static_cast<const char*>(nullptr), 3), "");
    text = std::string_view("abc").substr(1);
    EXPECT_EQ(text += std::string_view("d"), "bcd");
    text = "0123456789";
    text.ConcatCopy(3, text.c_str() + 7, 4, text.c_str());
    EXPECT_EQ(text, "7890123");
    text.ConcatCopy(3, "a\0b", 0, nullptr);
    EXPECT_EQ(text, std::string("a\0b", 3));
    text = "aBc\xe4";
    text.MakeUpper();
    text.MakeReverse();
    EXPECT_EQ(text, "\xe4\x43\x42\x41");
    text.MakeLower();
    EXPECT_EQ(text, "\xe4\x63\x62\x61");
}

constexpr LONG kLeast = -0x7FFFFFFF - 1;

TEST(Numbers, BecomeTextByTheRulesOfEachFunction) {
    char buffer[34];
    for (const auto& [value, decimal, hex, hex64] :
         {std::tuple{0LL, "0", "0", "0"},
          {255, "255", "ff", "ff"},
          {-1, "-1", "ffffffff", "ffffffffffffffff"},
          {INT_MIN, "-2147483648", "80000000", "ffffffff80000000"}}) {
        EXPECT_STREQ(itoa(static_cast<int>(value), buffer, 10), decimal);
        EXPECT_STREQ(itoa(static_cast<int>(value), buffer, 16), hex);
        EXPECT_STREQ(i64toa(value, buffer, 16), hex64);
        EXPECT_STREQ(i64toa(value, buffer, 10), decimal);
    }
    EXPECT_EQ(i64toa(LLONG_MIN, buffer, 10), buffer);
    for (const int radix : {2, 0, -10, 8, 36})
        EXPECT_TRUE(!itoa(5, buffer, radix) && !i64toa(5, buffer, radix));
    EXPECT_STREQ(buffer, "-9223372036854775808") << "a radix that is none writes nothing";
    for (const auto& [value, radix, text] : {std::tuple{LONG{-5}, 2, "101"},
                                             {-5, 10, "-5"},
                                             {-5, 16, "fffffffb"},
                                             {-5, 8, "37777777773"},
                                             {0, 10, ""},
                                             {0, 2, ""},
                                             {0, 16, "0"},
                                             {0, 8, "0"},
                                             {35, 36, "z"},
                                             {-36, 36, "10"},
                                             {kLeast, 10, "-2147483648"},
                                             {kLeast, 2, "10000000000000000000000000000000"},
                                             {kLeast, 36, "zik0zk"},
                                             {kLeast, 16, "80000000"},
                                             {7, 1, ""},
                                             {7, 37, ""},
                                             {7, 0, ""},
                                             {7, -16, ""}}) {
        strcpy(buffer, "unwritten");
        EXPECT_STREQ(_ltoa(value, buffer, radix), text) << value << " in radix " << radix;
        EXPECT_STREQ(fallback_ltoa(value, buffer, radix), text);
    }
    char text[] = "aZ[\x80\xc4\xff@9";
    EXPECT_STREQ(_strupr(text), "AZ[\x80\xc4\xff@9");
    EXPECT_STREQ(_strlwr(text), "az[\x80\xc4\xff@9");
}

TEST(Random, EveryThreadDrawsFromASequenceOfItsOwnThatItsIdStarts) {
    const auto drawAsPromised = [] {
        auto seed = static_cast<unsigned int>(pthread_self());
        for (const int bound : {0x3fff'ffff, 10, 1, -10}) EXPECT_EQ(KzRandom(bound), rand_r(&seed) % bound);
    };
    const std::jthread first(drawAsPromised), second(drawAsPromised);
}

}  // namespace
