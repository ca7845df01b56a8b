#pragma once

// A command line, taken apart into the words that a program is executed with.

#include <array>
#include <cstddef>
#include <memory>
#include <optional>

namespace traiklofox::kernel {

class CommandLine {
  public:
    static constexpr std::size_t kMostWords = 15;

    enum class Rules {
        Quotes,      // words stand between blanks and tabs; quotes keep a stretch whole, \" and \' are quotes
        BlanksOnly,  // words stand between blanks
    };

    /// Nothing, with errno, when there is no word (EINVAL) or more than kMostWords (E2BIG).
    static std::optional<CommandLine> split(const char* text, Rules rules);

    /// The words and a null pointer, as `execv` takes them. They belong to this object.
    char* const* words() const { return words_.data(); }

  private:
    CommandLine() = default;

    std::unique_ptr<char[]> text_;
    std::array<char*, kMostWords + 1> words_{};
};

}  // namespace traiklofox::kernel
