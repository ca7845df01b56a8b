#include <gtest/gtest.h>
#include <nl_types.h>
#include <traiklofox/diagnostics.h>
#include <traiklofox/messages.h>

#include <array>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "support/temp_dir.h"

namespace traiklofox::test {
namespace {

using namespace std::string_literals;

constexpr DWORD kString = FORMAT_MESSAGE_FROM_STRING;
constexpr DWORD kArray = FORMAT_MESSAGE_ARGUMENT_ARRAY;
constexpr DWORD kSystem = FORMAT_MESSAGE_FROM_SYSTEM;
constexpr DWORD kModule = FORMAT_MESSAGE_FROM_HMODULE;
const std::string kInvalid = "error " + std::to_string(EINVAL);
const std::string kTooLong = "error " + std::to_string(ERANGE);
const std::string kNoMessage = "error " + std::to_string(ENOENT);

/// The message, or the error when nothing was stored.
std::string formatted(DWORD flags, const void* source, DWORD id, va_list* arguments, DWORD size = 70'000) {
    std::string buffer(size + 1, '\x7f');
    errno = 0;
    const DWORD length = FormatMessage(flags, source, id, 0, buffer.data(), size, arguments);
    const int error = errno;
    EXPECT_EQ(buffer[size], '\x7f') << "behind the buffer";
    if (buffer[0] == '\x7f') return "error " + std::to_string(error);
    EXPECT_EQ(length, std::strlen(buffer.c_str()));
    EXPECT_EQ(error, 0);
    return buffer.c_str();
}

std::string withList(const char* text, ...) {
    va_list arguments;
    va_start(arguments, text);
    const std::string got = formatted(kString, text, 0, &arguments);
    va_end(arguments);
    return got;
}

using Arguments = std::vector<DWORD_PTR>;
DWORD_PTR at(const void* text) {
    return reinterpret_cast<DWORD_PTR>(text);
}
std::string withArray(const std::string& text, Arguments arguments, DWORD flags = 0) {
    arguments.resize(102);
    return formatted(flags | kString | kArray, text.c_str(), 0, reinterpret_cast<va_list*>(arguments.data()));
}

TEST(FormatMessage, SequencesAndInsertsStandForWhatTheySay) {
    // clang-format off
    const struct { const char* text; std::string expected; } kPlain[] = {
        {"", ""}, {"a%nb%rc%td", "a\nb\rc\td"}, {"100%% sure%!%. % .%b%", kInvalid},
        {"100%% sure%!%. % .%b", "100% sure!.  .b"}, {"cut%0 here", "cut"}, {"%1", kInvalid},
        {"dos\r\nunix\n\r", "dos\nunix\n\r"}};
    // clang-format on
    for (const auto& row : kPlain) EXPECT_EQ(formatted(kString, row.text, 0, nullptr), row.expected);
    EXPECT_EQ(withList("%2 and %1, %2", "one", "two"), "two and one, two");
    EXPECT_EQ(withList("%2!d! %1!s!", "one", -2), "-2 one");
    EXPECT_EQ(withList("%3 %1!I64x! %2!lld!", 0x123456789ABCDEFULL, -5LL, "end"), "end 123456789abcdef -5");
    EXPECT_EQ(withArray("%1!*.*s! %4 %5!*s!", {4, 2, at("Bill"), at("Bob"), 6, at("Bill")}),
              "  Bi Bob   Bill");
    EXPECT_EQ(withArray("%10%1", {at("a"), 0, 0, 0, 0, 0, 0, 0, 0, at("j")}), "ja");
    EXPECT_EQ(withArray("%1 %2!s!", {0, 0}), "(null) (null)");
    if (sizeof(void*) == 4) {
        EXPECT_EQ(withArray("%1!I64d! %2", {1, 2, at("x")}), "8589934593 x");
    }
    Arguments many(98);
    many.insert(many.end(), {7, 8, at("last")});
    EXPECT_EQ(withArray("%99!*.*s!", many), "   last");
    EXPECT_EQ(withArray("%1 is %2!5d!%n%%", {}, FORMAT_MESSAGE_IGNORE_INSERTS), "%1 is %2!5d!\n%");
    EXPECT_EQ(withArray("%1!n!", {}, FORMAT_MESSAGE_IGNORE_INSERTS), kInvalid);
}

TEST(FormatMessage, FormatsPrintAsPrintfDoes) {
    const char cut[] = {'a', 'b'};  // no NUL behind it
    std::setlocale(LC_ALL, "C");
    const DWORD_PTR minus = static_cast<DWORD_PTR>(-1);
    const DWORD_PTR abc = at("abc");
    const DWORD_PTR wide = at(L"wide");
    // clang-format off
    const struct { const char* format; Arguments arguments; std::string expected; } kCases[] = {
        {"d", {minus}, "<-1>"}, {"5d", {42}, "<   42>"}, {"-5d", {42}, "<42   >"}, {"05d", {minus}, "<-0001>"},
        {"+i", {1}, "<+1>"}, {" d", {1}, "< 1>"}, {"u", {0xFFFFFFFF}, "<4294967295>"}, {"#x", {255}, "<0xff>"},
        {"08X", {0xBEEF}, "<0000BEEF>"}, {"#o", {8}, "<010>"}, {"hu", {65537}, "<1>"}, {"hhd", {255}, "<-1>"},
        {"I32u", {0xFFFFFFFF}, "<4294967295>"}, {"6.3d", {7}, "<   007>"}, {"3c", {'x'}, "<  x>"},
        {"lc", {'x'}, "<x>"}, {"C", {'y'}, "<y>"}, {"hC", {'z'}, "<z>"}, {"p", {16}, "<0x10>"}, {"zu", {3}, "<3>"},
        {"-+ #00d", {9}, "<+9>"}, {"s", {abc}, "<abc>"}, {"5s", {abc}, "<  abc>"},
        {".2s", {abc}, "<ab>"}, {"hs", {abc}, "<abc>"}, {"ls", {wide}, "<wide>"}, {"S", {wide}, "<wide>"},
        {"-6.2S", {wide}, "<wi    >"}, {"hS", {abc}, "<abc>"}, {".0s", {abc}, "<>"}, {".2s", {at(cut)}, "<ab>"},
        {"*d", {minus - 3, 5}, "<5   >"}, {"*s", {minus - 3, abc}, "<abc >"}, {".*s", {minus, abc}, "<abc>"},
        {"*d", {70'000, 5}, kTooLong}, {"*d", {static_cast<DWORD_PTR>(INT_MIN), 5}, kTooLong},
        {"ls", {at(L"\u20ac")}, "error " + std::to_string(EILSEQ)}};
    // clang-format on
    for (const auto& row : kCases)
        EXPECT_EQ(withArray("<%1!"s + row.format + "!>", row.arguments), row.expected) << row.format;
    for (const char* format :
         {"", "n", "f", "e", "g", "a", "5", "ds", "%d", "l", "65536d", ".99999999999s", "1$d", "q", "Ld"})
        EXPECT_EQ(withArray("%1!"s + format + "!", {1}), kInvalid) << format;
    EXPECT_EQ(withArray("%1!d", {1}), kInvalid);
}

TEST(FormatMessage, WidthBreaksLinesAtBlanks) {
    // clang-format off
    for (const auto& [width, text, expected] : {
         std::tuple{255u, "one\ntwo\r\nthree%nfour", "one two three\nfour"}, {0, "one two", "one two"},
         {1, "a b", "a\nb"}, {7, "one two three", "one two\nthree"}, {6, "one  two   three", "one\ntwo\nthree"},
         {3, "   x", "   x"}, {4, "longer than four", "longer\nthan\nfour"}, {5, "a %1 d", "a b c\nd"},
         {9, "one\ntwo\nthree%nfour five six", "one two\nthree\nfour five\nsix"}})
        EXPECT_EQ(withArray(text, {at("b c")}, width), expected) << width;
    // clang-format on
}

TEST(FormatMessage, MessageFitsOrNothingIsStored) {
    EXPECT_EQ(formatted(kString, "four", 0, nullptr, 5), "four");
    EXPECT_EQ(formatted(kString, "four", 0, nullptr, 4), kTooLong);
    EXPECT_EQ(formatted(kString, "", 0, nullptr, 0), kTooLong);
    const std::string longest(65'535, 'x');
    EXPECT_EQ(withArray(longest, {}), longest);
    EXPECT_EQ(withArray("%1", {at(longest.c_str())}), longest);
    for (const std::string& text : {longest + "x", "x%1"s, "x%2!65535d!"s, "%2!65535d!%2!65535d!"s})
        EXPECT_EQ(withArray(text, {at(longest.c_str()), 1}), kTooLong) << text.size();
    std::string words(10'000'000, ' ');  // to be found too long before its millions of lines are broken
    for (size_t i = 0; i < words.size(); i += 3) words[i] = 'a';
    EXPECT_EQ(withArray(words, {}, /*width=*/1), kTooLong);

    char* message = nullptr;
    const DWORD flags = kString | FORMAT_MESSAGE_ALLOCATE_BUFFER;
    EXPECT_EQ(FormatMessage(flags, "text", 0, 0, reinterpret_cast<char*>(&message), 100, nullptr), 4U);
    EXPECT_STREQ(message, "text");
    std::memset(message, 'x', 100);
    EXPECT_EQ(LocalFree(message), nullptr);
    char* const untouched = message = nullptr;
    EXPECT_EQ(FormatMessage(flags, "%", 0, 0, reinterpret_cast<char*>(&message), 0, nullptr), 0U);
    EXPECT_EQ(message, untouched);
    auto* zeros = static_cast<char*>(LocalAlloc(LPTR, 10));
    EXPECT_EQ(std::string(zeros, 10), std::string(10, '\0'));
    EXPECT_EQ(LocalFree(zeros), LocalFree(LocalAlloc(LMEM_FIXED, 0)));
    EXPECT_EQ(LocalAlloc(2, 10), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

/// A catalogue as `gencat` writes it, by hand: none is needed where the tests run.
std::string catalogueText(const std::vector<std::pair<std::array<unsigned, 2>, std::string>>& messages) {
    // A table of (set, message, place), in which a hash of the two finds its row; a second one of the other byte order.
    constexpr unsigned kRows = 101;
    std::vector<unsigned> words{0x960408de, kRows, 1};
    words.resize(3 + 2 * 3 * kRows);
    std::string texts;
    for (const auto& [id, text] : messages) {
        const unsigned row[] = {id[0], id[1], static_cast<unsigned>(texts.size())};
        for (unsigned i = 0; i < 3; ++i) {
            const unsigned place = 3 + id[0] * id[1] % kRows * 3 + i;
            words.at(place) = row[i];
            words.at(place + 3 * kRows) = __builtin_bswap32(row[i]);
        }
        texts += text + '\0';
    }
    return std::string(reinterpret_cast<const char*>(words.data()), words.size() * sizeof words[0]) + texts;
}

TEST(FormatMessage, CatalogueAndTheSystemTell) {
    const TempDir directory;
    const std::string path = directory / "server.cat";
    writeText(path, catalogueText({{{3, 7}, "listening on %1!d!"}, {{NL_SETD + 1, 1}, "plain"}}));
    const nl_catd catalogue = ::catopen(path.c_str(), 0);
    ASSERT_NE(catalogue, reinterpret_cast<nl_catd>(-1));
    DWORD_PTR port = 80;
    const DWORD first = DWORD{2} << 16 | 7;
    const std::string denied = std::strerror(EACCES);
    // clang-format off
    const struct { DWORD flags; const void* source; DWORD id; std::string expected; } kCases[] = {
        {kModule, catalogue, first, "listening on 80"}, {kModule, catalogue, first | 0xC0000000, "listening on 80"},
        {kModule, catalogue, EACCES, kNoMessage}, {kModule | kSystem, catalogue, EACCES, denied},
        {kModule | kSystem, nullptr, EACCES, denied}, {kModule, reinterpret_cast<void*>(-1), EACCES, kNoMessage},
        {kSystem, nullptr, EACCES, denied}, {kSystem, nullptr, ERROR_MORE_DATA, "More data is available"},
        {kSystem, nullptr, 99'999, kNoMessage}, {kSystem, nullptr, 0x80000000, kNoMessage},
        {0, "text", ENOENT, kInvalid}, {kString | kSystem, "text", ENOENT, kInvalid},
        {kString, nullptr, 0, kInvalid}, {kModule, catalogue, 1, "plain"}};
    // clang-format on
    for (const auto& row : kCases)
        EXPECT_EQ(formatted(row.flags | kArray, row.source, row.id, reinterpret_cast<va_list*>(&port)),
                  row.expected);
    EXPECT_EQ(FormatMessage(kString, "text", 0, 0, nullptr, 10, nullptr), 0U);
    EXPECT_EQ(::catclose(catalogue), 0);
}

}  // namespace
}  // namespace traiklofox::test
