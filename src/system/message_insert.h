#pragma once

// message_insert.h: the inserts of a message, their formats, and the arguments that they take. A format is read here
// in full and printed by `snprintf` one argument at a time, so that no text can make it take others than the inserts
// ask for.

#include <traiklofox/types.h>

#include <array>
#include <cstdarg>
#include <cstdint>
#include <string>
#include <string_view>

namespace traiklofox::system {

constexpr size_t kLongestMessage = 65535;
constexpr int kMostInserts = 99;

struct MessageInsert {
    enum class Kind : std::uint8_t { Text, WideText, Signed, Unsigned, Character, WideCharacter, Pointer };
    enum class Width : std::uint8_t { Byte, Short, Word, LongLong, PointerSized };

    int number = 0;  // of its first argument
    Kind kind = Kind::Text;
    Width width = Width::Word;
    char conversion = 's';
    char flags[6] = {};      // those of printf, each once
    bool starWidth = false;  // an argument is
    bool starPrecision = false;
    int minimum = 0;     // the width
    int precision = -1;  // none

    int argumentCount() const { return 1 + (starWidth ? 1 : 0) + (starPrecision ? 1 : 0); }
    /// True when the value is of 64 bits, which may take two places of 32.
    bool isLong() const { return width == Width::LongLong; }
};

/// Takes the insert that `text` begins with, its first digit (1 to 9) in front; false when what stands between "!"
/// is no format.
bool takeInsert(std::string_view& text, MessageInsert& insert);

/// The arguments of a message, fetched once, so that inserts may use them in any order.
class MessageArguments {
  public:
    /// Notes what an insert takes; all inserts before the first `fetch`.
    void expect(const MessageInsert& insert);
    bool areExpected() const { return last_ > 0; }
    void fetch(va_list* arguments);
    void fetch(const DWORD_PTR* arguments);

    std::uint64_t operator[](int number) const { return values_[static_cast<size_t>(number)]; }

  private:
    static constexpr size_t kMost = kMostInserts + 2;  // the last one's "*" take two more

    int last_ = 0;
    std::array<bool, kMost + 1> isLong_{};
    std::array<std::uint64_t, kMost + 1> values_{};
};

/// Appends the insert. False, with errno, when that would be longer than a message may be, or a wide text has no form.
bool appendInsert(std::string& message, const MessageInsert& insert, const MessageArguments& arguments);

}  // namespace traiklofox::system
