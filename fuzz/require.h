#pragma once

// What a fuzz target says of its input.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <type_traits>

namespace traiklofox::fuzz {

/// Ends the program, with the reason on standard error, unless `held`. `details` is a text, or makes one.
template <class Details = const char*>
void require(bool held, const char* what, const Details& details = "", int line = __builtin_LINE()) {
    if (held) return;
    std::string text;
    if constexpr (std::is_invocable_v<Details>)
        text = details();
    else
        text = details;
    std::fprintf(stderr, "line %d: not so: %s\n%s\n", line, what, text.c_str());
    std::abort();
}

/// The input of LLVMFuzzerTestOneInput.
inline std::string_view textOf(const std::uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// Takes the first line off `text`, without its line feed.
inline std::string_view takeLine(std::string_view& text) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text = end == text.npos ? std::string_view() : text.substr(end + 1);
    return line;
}

}  // namespace traiklofox::fuzz
