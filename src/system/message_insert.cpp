#include "system/message_insert.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <cwchar>

namespace traiklofox::system {

namespace {

using Kind = MessageInsert::Kind;
using Width = MessageInsert::Width;

constexpr int kMostPlaces = 65535;  // of a width or a precision
constexpr std::string_view kFlags = "-+ #0";

struct Length {
    std::string_view name;
    Width width;
    bool isWide;  // what a text or a character is then
};

// Longer names first: the first that fits is taken.
constexpr Length kLengths[] = {
    {"I64", Width::LongLong, false},   {"I32", Width::Word, false},       {"hh", Width::Byte, false},
    {"ll", Width::LongLong, false},    {"h", Width::Short, false},        {"l", Width::PointerSized, true},
    {"w", Width::Word, true},          {"I", Width::PointerSized, false}, {"j", Width::LongLong, false},
    {"t", Width::PointerSized, false}, {"z", Width::PointerSized, false},
};

bool isDigit(std::string_view text) {
    return !text.empty() && text.front() >= '0' && text.front() <= '9';
}

bool take(std::string_view& text, std::string_view word) {
    if (!text.starts_with(word)) return false;
    text.remove_prefix(word.size());
    return true;
}

/// False when there are too many.
bool takePlaces(std::string_view& text, bool& isStar, int& places) {
    isStar = take(text, "*");
    if (isStar) return true;
    for (places = 0; isDigit(text); text.remove_prefix(1)) {
        places = places * 10 + (text.front() - '0');
        if (places > kMostPlaces) return false;
    }
    return true;
}

/// Fills in kind and width; false when there is no such conversion, or not with that length.
bool setConversion(MessageInsert& insert, char conversion, const Length* length) {
    const bool isWide = length != nullptr && length->isWide;
    insert.conversion = conversion;
    insert.width = length != nullptr ? length->width : Width::Word;
    switch (conversion) {
        case 'd':
        case 'i': insert.kind = Kind::Signed; break;
        case 'u':
        case 'o':
        case 'x':
        case 'X': insert.kind = Kind::Unsigned; break;
        case 's': insert.kind = isWide ? Kind::WideText : Kind::Text; break;
        case 'S': insert.kind = length == nullptr || isWide ? Kind::WideText : Kind::Text; break;
        case 'c': insert.kind = isWide ? Kind::WideCharacter : Kind::Character; break;
        case 'C': insert.kind = length == nullptr || isWide ? Kind::WideCharacter : Kind::Character; break;
        case 'p': insert.kind = Kind::Pointer; break;
        default: return false;
    }
    const bool isInteger = insert.kind == Kind::Signed || insert.kind == Kind::Unsigned;
    if (!isInteger) insert.width = Width::PointerSized;
    return true;
}

/// Takes what stands between the "!".
bool takeFormat(std::string_view text, MessageInsert& insert) {
    size_t count = 0;
    for (; !text.empty() && kFlags.find(text.front()) != kFlags.npos; text.remove_prefix(1))
        if (std::strchr(insert.flags, text.front()) == nullptr) insert.flags[count++] = text.front();
    if (!takePlaces(text, insert.starWidth, insert.minimum)) return false;
    if (take(text, ".") && !takePlaces(text, insert.starPrecision, insert.precision)) return false;
    const auto* length =
        std::ranges::find_if(kLengths, [&](const Length& row) { return take(text, row.name); });
    return text.size() == 1 &&
           setConversion(insert, text.front(), length != std::end(kLengths) ? length : nullptr);
}

std::int64_t signedValue(std::uint64_t value, Width width) {
    switch (width) {
        case Width::Byte: return static_cast<std::int8_t>(value);
        case Width::Short: return static_cast<std::int16_t>(value);
        case Width::Word: return static_cast<std::int32_t>(value);
        case Width::PointerSized: return static_cast<LONG_PTR>(value);
        case Width::LongLong: return static_cast<std::int64_t>(value);
    }
    return 0;
}

std::uint64_t unsignedValue(std::uint64_t value, Width width) {
    switch (width) {
        case Width::Byte: return static_cast<std::uint8_t>(value);
        case Width::Short: return static_cast<std::uint16_t>(value);
        case Width::Word: return static_cast<std::uint32_t>(value);
        case Width::PointerSized: return static_cast<ULONG_PTR>(value);
        case Width::LongLong: return value;
    }
    return 0;
}

const void* pointerOf(std::uint64_t value) {
    return reinterpret_cast<const void*>(static_cast<ULONG_PTR>(value));
}

/// Prints one value by a format that was made for its type here.
template <class Value>
bool appendPrinted(std::string& message, const char* format, int minimum, int precision, Value value) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int length = std::snprintf(nullptr, 0, format, minimum, precision, value);
    if (length < 0) return false;
    if (static_cast<size_t>(length) > kLongestMessage - message.size()) {
        errno = ERANGE;
        return false;
    }
    const size_t old = message.size();
    message.resize(old + static_cast<size_t>(length) + 1);
    std::snprintf(message.data() + old, static_cast<size_t>(length) + 1, format, minimum, precision, value);
#pragma GCC diagnostic pop
    message.pop_back();  // the NUL
    return true;
}

/// Without `printf`, which counts in `int`s and reads a text to its end.
bool appendText(std::string& message, const MessageInsert& insert, const char* text, int minimum,
                int precision) {
    if (text == nullptr) text = "(null)";
    const size_t room = kLongestMessage - message.size();
    const size_t most = precision < 0 ? room + 1 : static_cast<size_t>(precision);
    const std::string_view printed(text, ::strnlen(text, most));
    const size_t blanks =
        static_cast<size_t>(minimum) - std::min(printed.size(), static_cast<size_t>(minimum));
    if (printed.size() > room || blanks > room - printed.size()) {
        errno = ERANGE;
        return false;
    }
    const bool isLeft = std::strchr(insert.flags, '-') != nullptr;
    if (!isLeft) message.append(blanks, ' ');
    message.append(printed);
    if (isLeft) message.append(blanks, ' ');
    return true;
}

}  // namespace

bool takeInsert(std::string_view& text, MessageInsert& insert) {
    insert.number = text.front() - '0';
    text.remove_prefix(1);
    if (isDigit(text)) {
        insert.number = insert.number * 10 + (text.front() - '0');
        text.remove_prefix(1);
    }
    insert.width = Width::PointerSized;
    if (!text.starts_with('!')) return true;
    const size_t end = text.find('!', 1);
    if (end == text.npos || !takeFormat(text.substr(1, end - 1), insert)) return false;
    text.remove_prefix(end + 1);
    return true;
}

void MessageArguments::expect(const MessageInsert& insert) {
    const int value = insert.number + insert.argumentCount() - 1;
    last_ = std::max(last_, value);
    if (insert.isLong()) isLong_[static_cast<size_t>(value)] = true;
}

void MessageArguments::fetch(va_list* arguments) {
    for (int i = 1; i <= last_; ++i) {
        const auto place = static_cast<size_t>(i);
        // NOLINTNEXTLINE(bugprone-branch-clone): one type on x86-64, two on 32-bit x86
        values_[place] = isLong_[place] ? va_arg(*arguments, std::uint64_t) : va_arg(*arguments, ULONG_PTR);
    }
}

void MessageArguments::fetch(const DWORD_PTR* arguments) {
    for (int i = 1; i <= last_; ++i) {
        const auto place = static_cast<size_t>(i);
        values_[place] = *arguments++;
        if constexpr (sizeof(DWORD_PTR) == 4) {
            if (isLong_[place]) values_[place] |= std::uint64_t{*arguments++} << 32;
        }
    }
}

bool appendInsert(std::string& message, const MessageInsert& insert, const MessageArguments& arguments) {
    int next = insert.number;
    int minimum = insert.minimum;
    int precision = insert.precision;
    std::string flags = insert.flags;
    if (insert.starWidth) {
        minimum = static_cast<std::int32_t>(arguments[next++]);
        if (minimum < 0) flags += '-';  // as printf has it
        if (minimum != INT_MIN) minimum = std::abs(minimum);
    }
    if (insert.starPrecision) precision = std::max(static_cast<std::int32_t>(arguments[next++]), -1);
    if (minimum < 0 || minimum > kMostPlaces || precision > kMostPlaces) {
        errno = ERANGE;
        return false;
    }
    const std::uint64_t value = arguments[next];
    const auto print = [&](const char* length, auto printed) {
        const std::string format = "%" + flags + "*.*" + length + insert.conversion;
        return appendPrinted(message, format.c_str(), minimum, precision, printed);
    };
    MessageInsert aligned = insert;
    if (flags.ends_with('-')) std::strcpy(aligned.flags, "-");
    switch (insert.kind) {
        case Kind::Signed: return print("ll", static_cast<long long>(signedValue(value, insert.width)));
        case Kind::Unsigned:
            return print("ll", static_cast<unsigned long long>(unsignedValue(value, insert.width)));
        case Kind::Pointer: return print("", pointerOf(value));
        case Kind::Text:
            return appendText(message, aligned, static_cast<const char*>(pointerOf(value)), minimum,
                              precision);
        case Kind::Character: {
            const char text[] = {static_cast<char>(value), '\0'};
            return appendText(message, aligned, text, minimum, /*precision=*/1);
        }
        case Kind::WideText:
        case Kind::WideCharacter: break;
    }
    const wchar_t character[] = {static_cast<wchar_t>(value), L'\0'};
    const auto* wide =
        insert.kind == Kind::WideText ? static_cast<const wchar_t*>(pointerOf(value)) : character;
    if (wide == nullptr) return appendText(message, aligned, nullptr, minimum, precision);
    const std::string format =
        "%" + std::string(aligned.flags[0] == '-' || flags.find('-') != flags.npos ? "-" : "") + "*.*ls";
    return appendPrinted(message, format.c_str(), minimum, precision, wide);
}

}  // namespace traiklofox::system
