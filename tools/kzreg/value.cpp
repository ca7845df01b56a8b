#include "value.h"

#include <strings.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "failure.h"

namespace kzreg {
namespace {

struct TypeRow {
    DWORD type;
    const char* word;
};
constexpr std::array kTypes = {
    TypeRow{REG_SZ, "REG_SZ"},
    TypeRow{REG_DWORD, "REG_DWORD"},
    TypeRow{REG_MULTI_SZ, "REG_MULTI_SZ"},
};

constexpr std::string_view kTypedSeparator = "\\0";

std::vector<std::string> split(std::string_view text, std::string_view separator) {
    std::vector<std::string> parts;
    for (;;) {
        const size_t end = text.find(separator);
        parts.emplace_back(text.substr(0, end));
        if (end == text.npos) return parts;
        text.remove_prefix(end + separator.size());
    }
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
    std::string text;
    for (size_t i = 0; i < parts.size(); ++i) text.append(i > 0 ? separator : "").append(parts[i]);
    return text;
}

/// The file ends the data at the first semicolon and begins them after white space.
void requireLasting(const std::string& name, const std::string& text) {
    const char* trouble = nullptr;
    if (text.find(';') != text.npos) trouble = "data cannot contain a semicolon";
    if (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())) != 0)
        trouble = "data cannot begin with white space";
    if (trouble == nullptr) return;
    throw Failure(
        kFailed, shownName(name) + " is not set: the registry file would change it; " + std::string(trouble));
}

std::string numberTyped(const std::optional<std::string>& data) {
    if (!data) throw Failure(kUnusable, "REG_DWORD needs a number: say it with -d");
    const bool hexadecimal = strncasecmp(data->c_str(), "0x", 2) == 0;
    const auto number = numberIn(*data, hexadecimal ? 16 : 10);
    if (!number)
        throw Failure(kUnusable,
                      "\"" + *data + "\" is no 32-bit number: write 0 to 4294967295, or 0x0 to 0xffffffff");
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%#lx", static_cast<unsigned long>(*number));
    return text.data();
}

std::string textsTyped(const std::string& name, const std::string& data) {
    std::vector<std::string> parts = split(data, kTypedSeparator);
    while (!parts.empty() && parts.back().empty()) parts.pop_back();
    for (const std::string& part : parts) {
        requireLasting(name, part);
        if (part.empty()) throw Failure(kFailed, shownName(name) + " is not set: one of its texts is empty");
        if (part.find(' ') != part.npos)
            throw Failure(kFailed,
                          shownName(name) + " is not set: the text \"" + part +
                              "\" has a blank in it, and the registry file separates texts by blanks");
    }
    return parts.empty() ? "" : join(parts, " ") + " ";
}

}  // namespace

DWORD Value::number() const {
    return static_cast<DWORD>(std::strtoul(text.c_str(), nullptr, /*base=*/0));
}

std::vector<std::string> Value::texts() const {
    std::vector<std::string> parts = split(text, " ");
    if (parts.back().empty()) parts.pop_back();  // behind the blank that ends the last one
    return parts;
}

const char* typeWord(DWORD type) {
    for (const TypeRow& row : kTypes)
        if (row.type == type) return row.word;
    return "REG_NONE";
}

std::optional<DWORD> typeNamed(const std::string& word) {
    for (const TypeRow& row : kTypes)
        if (strcasecmp(row.word, word.c_str()) == 0) return row.type;
    return std::nullopt;
}

std::optional<DWORD> numberIn(const std::string& text, int base) {
    if (text.empty() || std::isxdigit(static_cast<unsigned char>(text.front())) == 0) return std::nullopt;
    char* end = nullptr;
    errno = 0;
    const unsigned long long number = std::strtoull(text.c_str(), &end, base);
    if (*end != '\0' || errno != 0 || number > 0xFFFFFFFF) return std::nullopt;
    return static_cast<DWORD>(number);
}

std::string shownName(const std::string& name) {
    return name.empty() ? "(Default)" : name;
}

std::string shown(const Value& value) {
    const std::string data = value.type == REG_MULTI_SZ ? join(value.texts(), kTypedSeparator) : value.text;
    return shownName(value.name) + "    " + typeWord(value.type) + "    " + data;
}

Value valueTyped(const std::string& name, const std::optional<std::string>& type,
                 const std::optional<std::string>& data) {
    const auto number = typeNamed(type.value_or("REG_SZ"));
    if (!number)
        throw Failure(kUnusable,
                      "there is no type " + *type + ": write REG_SZ, REG_DWORD or REG_MULTI_SZ behind -t");
    if (*number == REG_DWORD) return {name, *number, numberTyped(data)};
    if (*number == REG_MULTI_SZ) return {name, *number, textsTyped(name, data.value_or(""))};
    requireLasting(name, data.value_or(""));
    return {name, *number, data.value_or("")};
}

}  // namespace kzreg
