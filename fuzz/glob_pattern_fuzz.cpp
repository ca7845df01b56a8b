// A file name pattern beside two others that mean the same: the C library's fnmatch, over each text that the braces
// stand for, and the pattern with a star doubled or itself in braces.
//
// The input is a pattern and then names, a line each.

#include <fnmatch.h>

#include <algorithm>
#include <vector>

#include "files/glob_pattern.h"
#include "require.h"

namespace {

using namespace traiklofox::fuzz;
using traiklofox::files::GlobPattern;
using traiklofox::files::LeadingPeriod;

constexpr size_t kLongest = 64;            // of a pattern: fnmatch's time grows fast
constexpr size_t kMostAlternatives = 256;  // multiplied out

/// The end of a class that begins here, one behind its "]"; `start` when none closes it.
size_t endOfSet(std::string_view text, size_t start) {
    const size_t first = start + (text.substr(start + 1).starts_with('!') ? 2 : 1);
    const size_t end = text.find(']', first + 1);
    return end == text.npos ? start : end + 1;
}

/// Where the next thing in the pattern begins.
size_t after(std::string_view text, size_t at) {
    return text[at] == '[' && endOfSet(text, at) != at ? endOfSet(text, at) : at + 1;
}

/// The "}" for the "{" at `open`; npos when there is none.
size_t closeOf(std::string_view text, size_t open) {
    size_t depth = 0;
    for (size_t at = open; at < text.size(); at = after(text, at)) {
        if (text[at] == '{') ++depth;
        if (text[at] == '}' && --depth == 0) return at;
    }
    return text.npos;
}

/// Multiplies the first braces out, and then those that remain. False when that makes too many.
bool expand(const std::string& done, std::string_view text, std::vector<std::string>& patterns) {
    if (patterns.size() > kMostAlternatives) return false;
    size_t open = 0;
    while (open < text.size() &&
           (text[open] != '{' || closeOf(text, open) == text.npos || text[open + 1] == '}'))
        open = text[open] == '{' && text.substr(open + 1).starts_with('}') ? open + 2 : after(text, open);
    const std::string front = done + std::string(text.substr(0, open));
    if (open >= text.size()) {
        patterns.push_back(done + std::string(text));
        return true;
    }
    const size_t close = closeOf(text, open);
    const std::string rest(text.substr(close + 1));
    size_t start = open + 1;
    size_t depth = 0;
    for (size_t at = start; at <= close; at = after(text, at)) {
        if ((text[at] == ',' && depth == 0) || at == close) {
            // An alternative's braces are its own: what is left open or closed in it does not reach the rest.
            if (!expand(front, std::string(text.substr(start, at - start)) + rest, patterns)) return false;
            start = at + 1;
        } else if (text[at] == '{') {
            ++depth;
        } else if (text[at] == '}') {
            --depth;
        }
    }
    return true;
}

/// fnmatch gives a meaning to some texts in which there is none here.
bool meansTheSame(const std::string& pattern) {
    for (const char* other : {"[^", "[!^", "[:", "[.", "[=", "/"})
        if (pattern.find(other) != pattern.npos) return false;
    return true;
}

/// An open "[" is one in a name, but where a "-" ends the text fnmatch makes it match nothing.
bool endsInRange(const std::string& pattern) {
    return pattern.ends_with('-') && pattern.find('[') != pattern.npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, size_t size) {
    std::string_view rest = textOf(bytes, size);
    rest = rest.substr(0, rest.find('\0'));  // callers hand over C texts
    const std::string text(takeLine(rest));
    std::vector<std::string> alternatives;
    const bool hasReference = text.size() <= kLongest && meansTheSame(text) &&
                              expand("", text, alternatives) &&
                              std::ranges::none_of(alternatives, endsInRange);

    for (const auto period : {LeadingPeriod::Ordinary, LeadingPeriod::Explicit}) {
        const GlobPattern pattern(text, period);
        const GlobPattern inBraces("{" + text + ",}", period);
        const int flags = FNM_NOESCAPE | (period == LeadingPeriod::Explicit ? FNM_PERIOD : 0);
        std::string_view names = rest;
        do {
            const std::string name(takeLine(names).substr(0, 255));
            const bool matches = pattern.matches(name);
            if (!hasReference) continue;
            bool expected = false;
            for (const std::string& alternative : alternatives)
                expected |= ::fnmatch(alternative.c_str(), name.c_str(), flags) == 0;
            require(matches == expected, "matches what fnmatch does", text + "\n" + name);
            if (closeOf("{" + text + "}", 0) == text.size() + 1 && text.find(',') == text.npos)
                require(inBraces.matches(name) == (expected || name.empty()), "in braces, too",
                        text + "\n" + name);
        } while (!names.empty());
    }
    return 0;
}
