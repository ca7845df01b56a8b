#include "registry/reg_value.h"

#include <algorithm>
#include <array>
#include <utility>

namespace traiklofox::registry {

namespace {

struct TypeWord {
    DWORD type;
    std::string_view word;
};

constexpr std::array kTypeWords = {
    TypeWord{REG_SZ, "REG_SZ"},
    TypeWord{REG_DWORD, "REG_DWORD"},
    TypeWord{REG_MULTI_SZ, "REG_MULTI_SZ"},
};

constexpr size_t kColumn = 22;  // name and data are padded to it

/// `isspace` of the "C" locale, for a file means the same in every locale. Columns are mostly blanks: no call for each.
bool isBlank(char character) {
    return character == ' ' || (character >= '\t' && character <= '\r');
}

size_t skipBlanks(std::string_view text, size_t from) {
    while (from < text.size() && isBlank(text[from])) ++from;
    return from;
}

/// The type whose word `text` is, or REG_NONE.
DWORD typeOf(std::string_view text) {
    for (const TypeWord& row : kTypeWords)
        if (row.word == text) return row.type;
    return REG_NONE;
}

void appendColumn(std::string& text, std::string_view field, char end) {
    text.append(field).push_back(end);
    if (field.size() + 1 < kColumn) text.append(kColumn - field.size() - 1, ' ');
    text.push_back('\t');
}

size_t columnLength(std::string_view field) {
    return std::max(field.size() + 1, kColumn) + 1;
}

}  // namespace

std::string_view typeWord(DWORD type) {
    for (const TypeWord& row : kTypeWords)
        if (row.type == type) return row.word;
    return {};
}

std::optional<ValueText> parseValueLine(std::string_view line) {
    const size_t colon = line.find(':');
    if (colon == line.npos) return std::nullopt;
    const size_t semicolon = line.find(';', colon);
    if (semicolon == line.npos) return std::nullopt;

    size_t word = skipBlanks(line, semicolon + 1);
    // Data written with a ";" in them are cut there; what follows still ends in a tab and the type word.
    if (line.find(';', word) != line.npos) {
        const size_t tab = line.rfind('\t');
        if (tab != line.npos && tab > semicolon) word = tab + 1;
    }
    const DWORD type = typeOf(line.substr(word));
    if (type == REG_NONE) return std::nullopt;

    const size_t start = std::min(skipBlanks(line, colon + 1), semicolon);
    return ValueText{type, line.substr(0, colon), line.substr(start, semicolon - start)};
}

}  // namespace traiklofox::registry

using traiklofox::viewOf;
using namespace traiklofox::registry;

RegValue::RegValue(DWORD newType, CKZString newName, CKZString newData)
    : type(newType), name(std::move(newName)), data(std::move(newData)) {}

void RegValue::SetValues(DWORD newType, CKZString newName, CKZString newData) {
    type = newType;
    name = std::move(newName);
    data = std::move(newData);
}

int RegValue::FormatValue(const char* line) {
    const auto parsed = parseValueLine(viewOf(line));
    if (!parsed) return 0;
    SetValues(parsed->type, std::string(parsed->name), std::string(parsed->data));
    return 1;
}

void RegValue::appendLine(std::string& text) const {
    if (lineLength() > kLongestLine) {
        // A hand wrote it without columns, and with them no reader would take it any more.
        text.append(name).append(1, ':').append(data).append(1, ';').append(typeWord(type)).push_back('\n');
        return;
    }
    appendColumn(text, name, ':');
    appendColumn(text, data, ';');
    text.append(typeWord(type)).push_back('\n');
}

size_t RegValue::lineLength() const {
    return columnLength(name) + columnLength(data) + typeWord(type).size();
}
