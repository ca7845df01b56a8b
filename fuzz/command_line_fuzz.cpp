// A command line, split into the words that a program is executed with.
//
// The input is a command line, and from its first line feed on words, a line each, from which one is made.

#include <algorithm>
#include <cerrno>
#include <optional>
#include <vector>

#include "kernel/command_line.h"
#include "require.h"

namespace {

using namespace traiklofox::fuzz;
using traiklofox::kernel::CommandLine;
using Rules = CommandLine::Rules;
using Words = std::vector<std::string>;

/// Nothing when the library refuses the line.
std::optional<Words> split(const std::string& line, Rules rules) {
    errno = 0;
    const auto command = CommandLine::split(line.c_str(), rules);
    if (!command) {
        require(errno == (line.find_first_not_of(" \t") == line.npos ? EINVAL : E2BIG) ||
                    (rules == Rules::BlanksOnly && errno == E2BIG),
                "refused for a reason", line);
        return std::nullopt;
    }
    Words words;
    for (char* const* word = command->words(); *word != nullptr; ++word) words.emplace_back(*word);
    require(!words.empty() && words.size() <= CommandLine::kMostWords, "as many words as there may be", line);
    size_t length = 0;
    for (const std::string& word : words) length += word.size();
    require(length <= line.size(), "nothing is added", line);
    return words;
}

/// The stretches without a separator.
Words stretches(std::string_view line, const char* separators) {
    Words words;
    for (size_t at = 0; (at = line.find_first_not_of(separators, at)) != line.npos;) {
        const size_t end = std::min(line.find_first_of(separators, at), line.size());
        words.emplace_back(line.substr(at, end - at));
        at = end;
    }
    return words;
}

/// A line that means these words, each in quotes of the other kind than the one before it.
std::string lineOf(const Words& words) {
    std::string line;
    for (const std::string& word : words) {
        const char quote = line.size() % 2 == 0 ? '"' : '\'';
        const size_t bare = word.find_last_not_of('\\') + 1;  // behind it, a backslash would hide the quote
        line += quote;
        for (const char character : word.substr(0, bare)) {
            if (character == '"' || character == '\'') line += '\\';
            line += character;
        }
        line += quote + word.substr(bare) + (line.size() % 3 == 0 ? "\t " : " ");
    }
    return line;
}

void checkMade(const Words& words) {
    const std::string line = lineOf(words);
    const auto again = split(line, Rules::Quotes);
    require(again.has_value() == (!words.empty() && words.size() <= CommandLine::kMostWords),
            "refused for their number alone", line);
    require(!again || *again == words, "words in quotes come back", line);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, size_t size) {
    std::string_view rest = textOf(bytes, size);
    rest = rest.substr(0, rest.find('\0'));  // callers hand over C texts
    const std::string line(takeLine(rest));
    const Words plain = stretches(line, " ");
    const bool fits = !plain.empty() && plain.size() <= CommandLine::kMostWords;
    const auto byBlanks = split(line, Rules::BlanksOnly);
    require(byBlanks.has_value() == fits && (!fits || *byBlanks == plain), "blanks alone part words", line);

    const auto words = split(line, Rules::Quotes);
    if (line.find_first_of("\"'") == line.npos) {
        const Words expected = stretches(line, " \t");
        require(words ? *words == expected : expected.empty() || expected.size() > CommandLine::kMostWords,
                "without quotes blanks and tabs part words", line);
    }
    if (words) checkMade(*words);
    Words listed;
    while (!rest.empty()) listed.emplace_back(takeLine(rest));
    checkMade(listed);
    return 0;
}
