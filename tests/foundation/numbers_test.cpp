#include <traiklofox/numbers.h>

#include <gtest/gtest.h>
#include <pthread.h>

#include <climits>
#include <cstdlib>
#include <limits>
#include <thread>
#include <tuple>

namespace {

constexpr LONG kLeast = std::numeric_limits<LONG>::min();

TEST(Numbers, ConvertToDecimalAndHexadecimalAlone) {
    for (const auto& [value, decimal, hex, hex64] :
         {std::tuple{0LL, "0", "0", "0"},
          {255, "255", "ff", "ff"},
          {-1, "-1", "ffffffff", "ffffffffffffffff"},
          {INT_MIN, "-2147483648", "80000000", "ffffffff80000000"}}) {
        char buffer[34];
        EXPECT_EQ(itoa(static_cast<int>(value), buffer, 10), buffer);
        EXPECT_STREQ(buffer, decimal);
        EXPECT_STREQ(itoa(static_cast<int>(value), buffer, 16), hex);
        EXPECT_STREQ(i64toa(value, buffer, 10), decimal);
        EXPECT_STREQ(i64toa(value, buffer, 16), hex64);
    }
    char buffer[34];
    EXPECT_STREQ(i64toa(LLONG_MIN, buffer, 10), "-9223372036854775808");
    for (const int radix : {2, 0, -10, 8, 36}) {
        EXPECT_EQ(itoa(5, buffer, radix), nullptr) << radix;
        EXPECT_EQ(i64toa(5, buffer, radix), nullptr) << radix;
        EXPECT_STREQ(buffer, "-9223372036854775808") << "written to";
    }
}

TEST(Numbers, LongsKeepTheirSignInRadixTenOnly) {
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
                                             {kLeast, 2, "10000000000000000000000000000000"},
                                             {kLeast, 10, "-2147483648"},
                                             {kLeast, 36, "zik0zk"},
                                             {kLeast, 16, "80000000"},
                                             {7, 1, ""},
                                             {7, 37, ""},
                                             {7, 0, ""},
                                             {7, -16, ""}}) {
        char buffer[34] = "unwritten";
        EXPECT_EQ(_ltoa(value, buffer, radix), buffer);
        EXPECT_STREQ(buffer, text) << value << " in radix " << radix;
        EXPECT_STREQ(fallback_ltoa(value, buffer, radix), text);
    }
}

TEST(LetterCase, ChangesAsciiInPlaceAndLeavesOtherBytes) {
    char text[] = "aZ[\x80\xc4\xff@9";
    EXPECT_EQ(_strupr(text), text);
    EXPECT_STREQ(text, "AZ[\x80\xc4\xff@9");
    EXPECT_EQ(_strlwr(text), text);
    EXPECT_STREQ(text, "az[\x80\xc4\xff@9");
}

TEST(Random, EveryThreadDrawsFromASequenceOfItsOwnThatItsIdStarts) {
    const auto drawAsPromised = [] {
        auto seed = static_cast<unsigned int>(pthread_self());
        for (const int bound : {0x3fff'ffff, 10, 1, -10}) EXPECT_EQ(KzRandom(bound), rand_r(&seed) % bound);
    };
    const std::jthread first(drawAsPromised), second(drawAsPromised);
}

}  // namespace
