#include "kernel/command_line.h"

#include <cerrno>
#include <cstring>

namespace traiklofox::kernel {

namespace {

using Rules = CommandLine::Rules;

bool isSeparator(char character, Rules rules) {
    return character == ' ' || (character == '\t' && rules == Rules::Quotes);
}

bool isQuote(char character) {
    return character == '"' || character == '\'';
}

/// Copies the word at `from` to `to`, and moves both behind it. A stretch whose closing quote is missing reaches
/// to the end.
void takeQuotedWord(const char*& from, char*& to) {
    char openQuote = '\0';
    for (; *from != '\0'; ++from) {
        if (*from == '\\' && isQuote(from[1])) {
            *to++ = *++from;
        } else if (openQuote == '\0' && isQuote(*from)) {
            openQuote = *from;
        } else if (openQuote != '\0' && *from == openQuote) {
            openQuote = '\0';
        } else if (openQuote == '\0' && isSeparator(*from, Rules::Quotes)) {
            return;
        } else {
            *to++ = *from;
        }
    }
}

void takePlainWord(const char*& from, char*& to) {
    while (*from != '\0' && !isSeparator(*from, Rules::BlanksOnly)) *to++ = *from++;
}

}  // namespace

std::optional<CommandLine> CommandLine::split(const char* text, Rules rules) {
    CommandLine line;
    // Each word is followed by a separator or the end, where its own end finds room.
    line.text_ = std::make_unique<char[]>(std::strlen(text) + 1);
    char* to = line.text_.get();
    std::size_t count = 0;
    for (const char* from = text;;) {
        while (isSeparator(*from, rules)) ++from;
        if (*from == '\0') break;
        if (count == kMostWords) {
            errno = E2BIG;
            return std::nullopt;
        }
        line.words_[count++] = to;
        rules == Rules::Quotes ? takeQuotedWord(from, to) : takePlainWord(from, to);
        *to++ = '\0';
    }
    if (count == 0) {
        errno = EINVAL;
        return std::nullopt;
    }
    return line;
}

}  // namespace traiklofox::kernel
