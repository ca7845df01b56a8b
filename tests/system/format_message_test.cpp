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
#include <vector>

#include "support/temp_dir.h"

namespace traiklofox::test {
namespace {

using namespace std::string_literals;

/// The message and errno; "(none)" when nothing was stored.
struct Got {
    std::string text;
    int error = 0;
    bool operator==(const Got&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Got& got) {
    return out << '"' << got.text << "\" errno " << got.error;
}

constexpr DWORD kString = FORMAT_MESSAGE_FROM_STRING;
constexpr DWORD kArray = FORMAT_MESSAGE_ARGUMENT_ARRAY;

Got formatted(DWORD flags, const void* source, DWORD id, va_list* arguments, DWORD size = 70'000) {
    std::vector<char> buffer(size + 1, '\x7f');
    errno = 0;
    const DWORD length = FormatMessage(flags, source, id, 0, buffer.data(), size, arguments);
    const int error = errno;
    EXPECT_EQ(buffer[size], '\x7f') << "behind the buffer";
    if (buffer[0] == '\x7f') return {"(none)", error};
    EXPECT_EQ(length, std::strlen(buffer.data()));
    return {buffer.data(), error};
}

Got withList(DWORD flags, const char* text, ...) {
    va_list arguments;
    va_start(arguments, text);
    const Got got = formatted(flags | kString, text, 0, &arguments);
    va_end(arguments);
    return got;
}

DWORD_PTR address(const void* text) {
    return reinterpret_cast<DWORD_PTR>(text);
}
template <class... Arguments>
Got withArray(DWORD flags, const char* text, Arguments... arguments) {
    std::array<DWORD_PTR, sizeof...(arguments) + 1> array{static_cast<DWORD_PTR>(arguments)...};
    return formatted(flags | kString | kArray, text, 0, reinterpret_cast<va_list*>(array.data()));
}

TEST(FormatMessage, SequencesStandForTheirCharacters) {
    const struct {
        const char* text;
        Got expected;
    } kCases[] = {
        {"plain", {"plain"}},
        {"", {""}},
        {"a%nb%rc%td", {"a\nb\rc\td"}},
        {"100%% sure%!%. % .%b%", {"(none)", EINVAL}},
        {"100%% sure%!%. % .%b", {"100% sure!.  .b"}},
        {"cut%0 here", {"cut"}},
        {"%0", {""}},
        {"dos\r\nunix\n\r", {"dos\nunix\n\r"}},
        {"%1", {"(none)", EINVAL}},
        {"%1!n!", {"(none)", EINVAL}},
    };
    for (const auto& row : kCases)
        EXPECT_EQ(formatted(kString, row.text, 0, nullptr), row.expected) << row.text;
}

TEST(FormatMessage, InsertsTakeTheArgumentsOfTheirNumbersInAnyOrder) {
    EXPECT_EQ(withList(0, "%2 and %1, %2", "one", "two"), (Got{"two and one, two"}));
    EXPECT_EQ(withList(0, "%2!d! %1!s!", "one", -2), (Got{"-2 one"}));
    EXPECT_EQ(withList(0, "%3 %1!I64x! %2!lld!", 0x123456789ABCDEFULL, -5LL, "end"),
              (Got{"end 123456789abcdef -5"}));
    EXPECT_EQ(withArray(0, "%1!*.*s! %4 %5!*s!", 4, 2, address("Bill"), address("Bob"), 6, address("Bill")),
              (Got{"  Bi Bob   Bill"}));
    EXPECT_EQ(withArray(0, "%10%1", address("a"), 0, 0, 0, 0, 0, 0, 0, 0, address("j")), (Got{"ja"}));
    EXPECT_EQ(withArray(0, "%1 %2!s!", 0, 0), (Got{"(null) (null)"}));
    if constexpr (sizeof(void*) == 4) {
        EXPECT_EQ(withArray(0, "%1!I64d! %2", 1, 2, address("x")), (Got{"8589934593 x"}));
    }
    std::array<DWORD_PTR, 101> many{};
    many[98] = 7;
    many[99] = 8;
    many[100] = address("last");
    EXPECT_EQ(formatted(kString | kArray, "%99!*.*s!", 0, reinterpret_cast<va_list*>(many.data())),
              (Got{"   last"}));
}

TEST(FormatMessage, FormatsPrintAsPrintfDoes) {
    const struct {
        const char* format;
        long value;
        const char* expected;
    } kNumbers[] = {
        {"d", -1, "-1"},       {"i", 5, "5"},
        {"5d", 42, "   42"},   {"-5d", 42, "42   "},
        {"05d", -42, "-0042"}, {"+d", 1, "+1"},
        {" d", 1, " 1"},       {"u", -1, "4294967295"},
        {"#x", 255, "0xff"},   {"08X", 0xBEEF, "0000BEEF"},
        {"#o", 8, "010"},      {"hu", 65537, "1"},
        {"hhd", 255, "-1"},    {"I32u", -1, "4294967295"},
        {".3d", 7, "007"},     {"6.3d", 7, "   007"},
        {"c", 'x', "x"},       {"3c", 'x', "  x"},
        {"-3c", 'x', "x  "},   {"lc", 'x', "x"},
        {"C", 'y', "y"},       {"hC", 'z', "z"},
        {"p", 0x10, "0x10"},   {"zu", 3, "3"},
        {"lu", 4, "4"},        {"-+ #00d", 9, "+9"},
    };
    for (const auto& row : kNumbers)
        EXPECT_EQ(withArray(0, ("<%1!"s + row.format + "!>").c_str(), row.value),
                  (Got{"<"s + row.expected + ">"}))
            << row.format;
    const struct {
        const char* format;
        const void* text;
        const char* expected;
    } kTexts[] = {
        {"s", "abc", "abc"},     {"5s", "abc", "  abc"}, {"-5s", "abc", "abc  "},
        {".2s", "abc", "ab"},    {"hs", "abc", "abc"},   {"ls", L"wide", "wide"},
        {"ws", L"wide", "wide"}, {"S", L"wide", "wide"}, {"-6.2S", L"wide", "wi    "},
        {"hS", "abc", "abc"},    {".0s", "abc", ""},
    };
    for (const auto& row : kTexts)
        EXPECT_EQ(withArray(0, ("<%1!"s + row.format + "!>").c_str(), address(row.text)),
                  (Got{"<"s + row.expected + ">"}))
            << row.format;
    for (const char* format :
         {"", "n", "f", "e", "g", "a", "5", "ds", "%d", "l", "65536d", ".99999999999s", "1$d", "q", "Ld"})
        EXPECT_EQ(withArray(0, ("%1!"s + format + "!").c_str(), 1), (Got{"(none)", EINVAL})) << format;
    EXPECT_EQ(withArray(0, "%1!d", 1), (Got{"(none)", EINVAL}));
    EXPECT_EQ(withArray(0, "<%1!*d!>", -4, 5), (Got{"<5   >"}));
    EXPECT_EQ(withArray(0, "<%1!*s!>", -4, address("a")), (Got{"<a   >"}));
    EXPECT_EQ(withArray(0, "<%1!.*s!>", -1, address("abc")), (Got{"<abc>"}));
    EXPECT_EQ(withArray(0, "%1!*d!", 70'000, 5), (Got{"(none)", ERANGE}));
    EXPECT_EQ(withArray(0, "%1!*d!", INT_MIN, 5), (Got{"(none)", ERANGE}));
    const char cut[] = {'a', 'b'};  // no NUL behind it
    EXPECT_EQ(withArray(0, "%1!.2s!", address(cut)), (Got{"ab"}));
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(withArray(0, "%1!ls!", address(L"\u20ac")), (Got{"(none)", EILSEQ}));
}

TEST(FormatMessage, IgnoredInsertsStayAsTheyAre) {
    EXPECT_EQ(formatted(kString | FORMAT_MESSAGE_IGNORE_INSERTS, "%1 is %2!5d!%n%%", 0, nullptr),
              (Got{"%1 is %2!5d!\n%"}));
    EXPECT_EQ(formatted(kString | FORMAT_MESSAGE_IGNORE_INSERTS, "%1!n!", 0, nullptr),
              (Got{"(none)", EINVAL}));
}

TEST(FormatMessage, WidthBreaksLinesAtBlanks) {
    const struct {
        DWORD width;
        const char* text;
        const char* expected;
    } kCases[] = {
        {255, "one\ntwo\r\nthree%nfour", "one two three\nfour"},
        {0, "one two", "one two"},
        {7, "one two three", "one two\nthree"},
        {6, "one two three", "one\ntwo\nthree"},
        {6, "one  two   three", "one\ntwo\nthree"},
        {4, "longer than four", "longer\nthan\nfour"},
        {9, "one\ntwo\nthree%nfour five six", "one two\nthree\nfour five\nsix"},
        {5, "a %1 d", "a b c\nd"},
        {3, "   x", "   x"},
        {1, "a b", "a\nb"},
    };
    for (const auto& row : kCases)
        EXPECT_EQ(withArray(row.width, row.text, address("b c")), (Got{row.expected}))
            << row.text << row.width;
}

TEST(FormatMessage, MessageFitsOrNothingIsStored) {
    EXPECT_EQ(formatted(kString, "four", 0, nullptr, 5), (Got{"four"}));
    EXPECT_EQ(formatted(kString, "four", 0, nullptr, 4), (Got{"(none)", ERANGE}));
    EXPECT_EQ(formatted(kString, "", 0, nullptr, 0), (Got{"(none)", ERANGE}));
    const std::string longest(65'535, 'x');
    EXPECT_EQ(formatted(kString, longest.c_str(), 0, nullptr), (Got{longest}));
    EXPECT_EQ(withArray(0, "%1", address(longest.c_str())), (Got{longest}));
    EXPECT_EQ(formatted(kString, (longest + "x").c_str(), 0, nullptr), (Got{"(none)", ERANGE}));
    EXPECT_EQ(withArray(0, "x%1", address(longest.c_str())), (Got{"(none)", ERANGE}));
    EXPECT_EQ(withArray(0, "x%1!65535d!", 1), (Got{"(none)", ERANGE}));
    EXPECT_EQ(withArray(0, "%1!65535d!%1!65535d!", 1), (Got{"(none)", ERANGE}));
}

TEST(FormatMessage, AllocatedMemoryIsTheCallersToFree) {
    char* message = nullptr;
    const DWORD flags = kString | FORMAT_MESSAGE_ALLOCATE_BUFFER;
    EXPECT_EQ(FormatMessage(flags, "text", 0, 0, reinterpret_cast<char*>(&message), 100, nullptr), 4U);
    EXPECT_STREQ(message, "text");
    std::memset(message, 'x', 100);
    EXPECT_EQ(LocalFree(message), nullptr);
    char* const untouched = message = nullptr;
    EXPECT_EQ(FormatMessage(flags, "%", 0, 0, reinterpret_cast<char*>(&message), 0, nullptr), 0U);
    EXPECT_EQ(message, untouched);
    EXPECT_EQ(LocalFree(nullptr), nullptr);
    auto* zeros = static_cast<char*>(LocalAlloc(LPTR, 10));
    EXPECT_EQ(std::string(zeros, 10), std::string(10, '\0'));
    LocalFree(zeros);
    LocalFree(LocalAlloc(LMEM_FIXED, 0));
    EXPECT_EQ(LocalAlloc(2, 10), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST(FormatMessage, SystemTellsErrors) {
    EXPECT_EQ(formatted(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, ENOENT, nullptr), (Got{std::strerror(ENOENT)}));
    EXPECT_EQ(formatted(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, ERROR_MORE_DATA, nullptr),
              (Got{"More data is available"}));
    for (const DWORD unknown : {99'999U, 0x80000000U})
        EXPECT_EQ(formatted(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, unknown, nullptr), (Got{"(none)", ENOENT}));
    for (const DWORD flags : {DWORD{0}, kString | FORMAT_MESSAGE_FROM_SYSTEM})
        EXPECT_EQ(formatted(flags, "text", ENOENT, nullptr), (Got{"(none)", EINVAL}));
    EXPECT_EQ(formatted(kString, nullptr, 0, nullptr), (Got{"(none)", EINVAL}));
    EXPECT_EQ(FormatMessage(kString, "text", 0, 0, nullptr, 10, nullptr), 0U);
}

/// A catalogue as `gencat` writes it, by hand: none is needed where the tests run.
std::string catalogueText(const std::vector<std::pair<std::array<unsigned, 2>, std::string>>& messages) {
    const auto word = [](unsigned number) {
        return std::string{static_cast<char>(number), static_cast<char>(number >> 8),
                           static_cast<char>(number >> 16), static_cast<char>(number >> 24)};
    };
    // A table of (set, message, place), in which a hash of the two finds its row; a second one of the other byte order.
    constexpr unsigned kRows = 101;
    std::vector<std::array<unsigned, 3>> rows(kRows);
    std::string texts;
    for (const auto& [id, text] : messages) {
        rows.at(id[0] * id[1] % kRows) = {id[0], id[1], static_cast<unsigned>(texts.size())};
        texts += text + '\0';
    }
    std::string little;
    std::string big;
    for (const auto& row : rows)
        for (const unsigned number : row) {
            little += word(number);
            big += word(__builtin_bswap32(number));
        }
    return word(0x960408de) + word(kRows) + word(1) + little + big + texts;
}

TEST(FormatMessage, CatalogueAndThenTheSystemTell) {
    const TempDir directory;
    const std::string path = directory / "server.cat";
    writeText(path, catalogueText({{{2, 7}, "listening on %1!d!"}, {{NL_SETD + 1, 1}, "plain"}}));
    const nl_catd catalogue = ::catopen(path.c_str(), 0);
    ASSERT_NE(catalogue, reinterpret_cast<nl_catd>(-1));
    DWORD_PTR port = 80;
    auto* arguments = reinterpret_cast<va_list*>(&port);
    constexpr DWORD kModule = FORMAT_MESSAGE_FROM_HMODULE;
    const DWORD both = kModule | FORMAT_MESSAGE_FROM_SYSTEM;
    const DWORD first = DWORD{1} << 16 | 7;
    EXPECT_EQ(formatted(kModule | kArray, catalogue, first, arguments), (Got{"listening on 80"}));
    EXPECT_EQ(formatted(kModule | kArray, catalogue, first | 0xC0000000, arguments),
              (Got{"listening on 80"}));
    EXPECT_EQ(formatted(kModule, catalogue, EACCES, nullptr), (Got{"(none)", ENOENT}));
    EXPECT_EQ(formatted(both, catalogue, EACCES, nullptr), (Got{std::strerror(EACCES)}));
    EXPECT_EQ(formatted(both, nullptr, EACCES, nullptr), (Got{std::strerror(EACCES)}));
    EXPECT_EQ(formatted(kModule, reinterpret_cast<void*>(-1), EACCES, nullptr), (Got{"(none)", ENOENT}));
    EXPECT_EQ(::catclose(catalogue), 0);
}

}  // namespace
}  // namespace traiklofox::test
