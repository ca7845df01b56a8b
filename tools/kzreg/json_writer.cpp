#include "json_writer.h"

#include <array>
#include <cstdio>
#include <string_view>

namespace kzreg {
namespace {

constexpr size_t kIndent = 2;

bool isContinuation(char byte) {
    return (byte & 0xC0) == 0x80;
}

/// The length of the UTF-8 character that `text` begins with; 0 when there is none. Overlong forms,
/// surrogates and what lies beyond U+10FFFF are none.
size_t characterLength(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) return 1;
    const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) return 0;
    for (size_t i = 1; i < length; ++i)
        if (!isContinuation(text[i])) return 0;
    const auto second = static_cast<unsigned char>(text[1]);
    const bool wrong = (first == 0xE0 && second < 0xA0) || (first == 0xED && second >= 0xA0) ||
                       (first == 0xF0 && second < 0x90) || (first == 0xF4 && second >= 0x90);
    return wrong ? 0 : length;
}

std::string escape(unsigned char byte) {
    std::array<char, 8> code{};
    std::snprintf(code.data(), code.size(), "\\u%04x", static_cast<unsigned>(byte));
    return code.data();
}

std::string quoted(std::string_view text) {
    std::string result = "\"";
    while (!text.empty()) {
        const size_t length = characterLength(text);
        const auto first = static_cast<unsigned char>(text[0]);
        if (first == '"' || first == '\\')
            result.append(1, '\\').append(1, text[0]);
        else if (first < 0x20 || first == 0x7F || length == 0)
            result += escape(first);
        else
            result.append(text.substr(0, length));
        text.remove_prefix(length > 0 ? length : 1);
    }
    return result + '"';
}

void print(const std::string& text) {
    std::fputs(text.c_str(), stdout);
}

}  // namespace

void JsonWriter::name(const std::string& text) {
    startItem();
    print(quoted(text) + ": ");
    named_ = true;
}

void JsonWriter::text(const std::string& text) {
    startItem();
    print(quoted(text));
}

void JsonWriter::number(unsigned long long number) {
    startItem();
    print(std::to_string(number));
}

void JsonWriter::null() {
    startItem();
    print("null");
}

void JsonWriter::begin(char bracket) {
    startItem();
    print({bracket});
    items_.push_back(0);
}

void JsonWriter::end(char bracket) {
    const bool empty = items_.back() == 0;
    items_.pop_back();
    if (!empty) newLine();
    print({bracket});
    if (items_.empty()) print("\n");
}

void JsonWriter::startItem() {
    if (named_ || items_.empty()) {
        named_ = false;
        return;
    }
    if (items_.back()++ > 0) print(",");
    newLine();
}

void JsonWriter::newLine() {
    print("\n" + std::string(kIndent * items_.size(), ' '));
}

}  // namespace kzreg
