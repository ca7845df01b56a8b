#pragma once

// A shell's file name pattern, made ready to be compared with many names: "*", "?", classes in brackets with "!" and
// ranges, alternatives in braces, nested. Bytes are compared, case counts, and a backslash is a character like any
// other.
//
// The pattern becomes a small program. Braces branch in it and are never multiplied out, and no branch is tried twice
// at one place of a name, so that a comparison takes at most the pattern's length times the name's.

#include <bitset>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace traiklofox::files {

/// Whether a name's leading period must stand in the pattern itself, where no wildcard matches it.
enum class LeadingPeriod { Ordinary, Explicit };

class GlobPattern {
  public:
    GlobPattern(std::string_view text, LeadingPeriod period);

    /// May be called by several threads. Throws `std::bad_alloc` only for patterns with many branches.
    bool matches(std::string_view name) const;

    enum class Op : std::uint8_t {
        Text,  // these bytes
        Any,   // one byte
        Set,   // one byte of a class
        Star,  // any bytes
        Fork,  // goes on here, or else at another step
        Join,  // where branches meet
        Jump,
        End,
    };
    struct Step {
        Op op;
        std::uint32_t operand =
            0;  // Text: its first byte; Set: which; Star: 1 + bytes to the end; Fork, Jump: where to
        std::uint32_t length = 0;    // Text
        std::uint32_t decision = 0;  // Star, Fork, Join: their number
    };
    /// All that a pattern becomes.
    struct Program {
        std::vector<Step> steps;
        std::string text;
        std::vector<std::bitset<256>> sets;
        std::uint32_t decisions = 0;
        bool hasBranches = false;
    };

  private:
    template <class Choices>
    bool run(std::string_view name, Choices& choices) const;

    Program program_;
    bool matchesEverything_;
    LeadingPeriod period_;
};

/// What `text` means. What would open a class or braces and is never closed stands for itself, and so does "{}".
GlobPattern::Program compileGlob(std::string_view text);

}  // namespace traiklofox::files
