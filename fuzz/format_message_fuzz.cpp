// A message with inserts and line breaks.
//
// The input is a width, as a character's number, then a message. Its inserts get arguments of the kinds that they ask
// for: texts, or numbers made of the message's own bytes.

#include <traiklofox/messages.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "require.h"
#include "system/message_insert.h"

namespace {

using namespace traiklofox::fuzz;
using namespace traiklofox::system;

constexpr DWORD kFlags = FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_ARGUMENT_ARRAY;
constexpr size_t kArguments = 2 * (kMostInserts + 2);

/// What the inserts take, by number; nothing when two ask for different kinds, which callers must not let happen.
bool argumentsFor(std::string_view text, std::vector<DWORD_PTR>& arguments) {
    constexpr wchar_t kWide[] = L"wide text";
    std::vector<int> kinds(kMostInserts + 3, -1);
    const auto is = [&](int number, int kind) {
        int& known = kinds[static_cast<size_t>(number)];
        if (known >= 0 && known != kind) return false;
        known = kind;
        return true;
    };
    for (size_t at = 0; (at = text.find('%', at)) != text.npos;) {
        std::string_view rest = text.substr(at + 1);
        at += 2;
        if (rest.empty() || rest.front() < '1' || rest.front() > '9') continue;
        MessageInsert insert;
        const size_t before = rest.size();
        if (!takeInsert(rest, insert)) return true;  // refused: no argument is looked at
        at += before - rest.size() - 1;
        const int value = insert.number + insert.argumentCount() - 1;
        if (sizeof(DWORD_PTR) == 4 && insert.isLong()) return false;  // moves the others
        for (int star = insert.number; star < value; ++star)
            if (!is(star, 100)) return false;
        const bool isText = insert.kind == MessageInsert::Kind::Text;
        const bool isWide = insert.kind == MessageInsert::Kind::WideText;
        if (!is(value, isText ? 1 : isWide ? 2 : 100)) return false;
        auto& argument = arguments[static_cast<size_t>(value - 1)];
        if (isText) argument = reinterpret_cast<DWORD_PTR>("a text with blanks");
        if (isWide) argument = reinterpret_cast<DWORD_PTR>(kWide);
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, size_t size) {
    const std::string_view input = textOf(bytes, size);
    if (input.empty()) return 0;
    const DWORD width = static_cast<unsigned char>(input.front());
    const std::string text(input.substr(1, input.find('\0', 1) - 1));  // callers hand over C texts
    std::vector<DWORD_PTR> arguments(kArguments);
    for (size_t i = 0; i < arguments.size() && !text.empty(); ++i)
        arguments[i] = static_cast<unsigned char>(text[i % text.size()]);
    std::vector<DWORD_PTR> given = arguments;
    if (!argumentsFor(text, given)) return 0;

    auto* list = reinterpret_cast<va_list*>(given.data());
    char* message = nullptr;
    const DWORD length = FormatMessage(kFlags | FORMAT_MESSAGE_ALLOCATE_BUFFER | width, text.c_str(), 0, 0,
                                       reinterpret_cast<char*>(&message), 0, list);
    require(length <= kLongestMessage, "no message is too long", text);
    require(message != nullptr || length == 0, "a message has its memory", text);
    if (message == nullptr) return 0;
    require(std::strlen(message) <= length, "the NUL is behind it", text);
    // In a buffer that just holds it, and in one that does not.
    std::vector<char> buffer(length + 1);
    require(FormatMessage(kFlags | width, text.c_str(), 0, 0, buffer.data(), length + 1, list) == length &&
                std::memcmp(buffer.data(), message, length + 1) == 0,
            "a buffer of its size holds it", text);
    require(FormatMessage(kFlags | width, text.c_str(), 0, 0, buffer.data(), length, list) == 0,
            "a smaller one does not", text);
    if (width > 0 && width < FORMAT_MESSAGE_MAX_WIDTH_MASK) {
        std::string_view rest(message, length);
        while (!rest.empty()) {
            std::string_view line = takeLine(rest);
            while (line.ends_with(' ')) line.remove_suffix(1);
            line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
            require(line.size() <= width || line.find(' ') == line.npos,
                    "a line is no longer, but for a word", text + "\n" + message);
        }
    }
    LocalFree(message);
    return 0;
}
