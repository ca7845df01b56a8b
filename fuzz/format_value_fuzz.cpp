// A value's line of the registry file, both ways.
//
// The input is a line, and from its first line feed on a value: a type's word or number, a line feed, a name, a line
// feed, data.

#include <algorithm>
#include <cctype>
#include <optional>
#include <vector>

#include "registry/name_rules.h"
#include "registry/reg_value.h"
#include "registry/registry_line.h"
#include "registry/value_data.h"
#include "require.h"

namespace {

using namespace traiklofox::fuzz;
using namespace traiklofox::registry;

std::string lineOf(const RegValue& value) {
    std::string text;
    value.appendLine(text);
    require(text.find('\n') == text.size() - 1, "one line feed, at the end", text);
    text.pop_back();
    return text;
}

/// Reads the data into a buffer that just fits, and into one that does not, and makes the data of the bytes again.
void checkBytes(const RegValue& value) {
    const size_t need = value.type == REG_DWORD ? sizeof(DWORD) : value.data.size() + 1;
    std::vector<BYTE> bytes(need);
    for (const auto copyOut : {copyOutQueried, copyOutEnumerated}) {
        DWORD size = static_cast<DWORD>(need - 1);
        std::vector<BYTE> tooFew(need - 1);
        require(copyOut(value, tooFew.data(), &size) == ERROR_MORE_DATA || need == 1,
                "too few bytes are refused");
        size = static_cast<DWORD>(need);
        require(copyOut(value, bytes.data(), &size) == ERROR_SUCCESS, "enough bytes do");
        require(size == need, "as many bytes as there are");
    }
    RegValue again(value.type, value.name, "");
    require(formDataText(value.type, bytes.data(), static_cast<DWORD>(need), again.data),
            "bytes make a text");
    require(value.type == REG_DWORD || again == value, "texts read and set again are the same", again.data);
    DWORD size = static_cast<DWORD>(need);
    std::vector<BYTE> bytesAgain(need);
    require(copyOutQueried(again, bytesAgain.data(), &size) == ERROR_SUCCESS && bytesAgain == bytes,
            "and so are their bytes", again.data);
}

std::string_view withoutBlanksInFront(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())) != 0)
        text.remove_prefix(1);
    return text;
}

/// What a line says, by the marks in it; nothing where its data have a semicolon in them.
std::optional<RegValue> readByMarks(std::string_view line) {
    const size_t colon = line.find(':');
    const size_t semicolon = line.find(';', colon);
    if (colon == line.npos || semicolon == line.npos) return std::nullopt;
    const std::string_view type = withoutBlanksInFront(line.substr(semicolon + 1));
    for (const DWORD known : {REG_SZ, REG_DWORD, REG_MULTI_SZ})
        if (typeWord(known) == type)
            return RegValue(known, std::string(line.substr(0, colon)),
                            std::string(withoutBlanksInFront(line.substr(colon + 1, semicolon - colon - 1))));
    return std::nullopt;
}

void checkLine(const std::string& line) {
    const RegValue before(REG_SZ, "before", "as it was");
    RegValue value = before;
    if (value.FormatValue(line.c_str()) == 0) {
        require(value == before, "a line that is none changes nothing");
        require(!readByMarks(line), "a line with all its marks is a value's");
        return;
    }
    const auto expected = readByMarks(line);
    if (expected)
        require(value == *expected, "it is read by its marks");
    else
        require(line.find(';') != line.rfind(';') &&
                    line.ends_with(std::string("\t").append(typeWord(value.type))),
                "where a semicolon cuts the data, the type is behind the last tab");

    const std::string printed = lineOf(value);
    RegValue again;
    require(again.FormatValue(printed.c_str()) != 0 && again == value, "printed, it says the same", printed);
    require(lineOf(again) == printed, "and is printed the same");
    require(printed.size() <= std::max(line.size(), kLongestLine), "and does not grow too long to be read",
            printed);
    checkBytes(value);
}

void checkValue(const RegValue& value) {
    if (!value.writable() || !valueCanBeWritten("fuzz", value)) return;
    const std::string line = lineOf(value);
    require(line.size() <= kLongestLine && line.size() == value.lineLength(), "its length is as foretold",
            line);
    const RegistryLine read = parseLine(line);
    require(read.kind == RegistryLine::Kind::Value, "what may be written is read as a value", line);
    const std::string_view data = value.data;
    const std::string_view kept = withoutBlanksInFront(data.substr(0, data.find(';')));
    require(RegValue(value.type, value.name, std::string(kept)) == read.value,
            "what may be written comes back, but for a semicolon and blanks in front", line);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, size_t size) {
    std::string_view rest = textOf(bytes, size);
    const std::string_view line = takeLine(rest);
    checkLine(std::string(line.substr(0, line.find('\0'))));  // as the reader does
    const std::string type(takeLine(rest));
    const std::string name(takeLine(rest));
    for (const DWORD known : {REG_SZ, REG_DWORD, REG_MULTI_SZ})
        if (typeWord(known) == type) checkValue({known, name, std::string(rest)});
    return 0;
}
