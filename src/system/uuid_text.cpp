// uuid_text.cpp: UUIDs as texts, and their order.

#include <traiklofox/uuid.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>

namespace {

constexpr LONG kDone = 0;
constexpr LONG kRefused = 1;
constexpr LONG kNoMemory = 2;
constexpr size_t kTextSize = 128;  // what callers know to be there
constexpr size_t kFirstHyphen = 8;
constexpr _GUID kNil{};

constexpr std::array<char, 512> kHexOfByte = [] {
    std::array<char, 512> pairs{};
    for (size_t byte = 0; byte < 256; ++byte) {
        pairs[2 * byte] = "0123456789abcdef"[byte >> 4];
        pairs[2 * byte + 1] = "0123456789abcdef"[byte & 0xF];
    }
    return pairs;
}();

constexpr std::uint8_t kNoDigit = 0xFF;
constexpr std::array<std::uint8_t, 256> kDigits = [] {
    std::array<std::uint8_t, 256> values{};
    values.fill(kNoDigit);
    for (std::uint8_t digit = 0; digit < 16; ++digit) {
        values[static_cast<unsigned char>("0123456789abcdef"[digit])] = digit;
        values[static_cast<unsigned char>("0123456789ABCDEF"[digit])] = digit;
    }
    return values;
}();

/// Writes the low `Bytes` bytes of `value`, the highest first.
template <int Bytes>
char* printHex(char* to, std::uint32_t value) {
    for (int byte = Bytes - 1; byte >= 0; --byte, to += 2)
        std::memcpy(to, &kHexOfByte[2 * ((value >> (8 * byte)) & 0xFF)], 2);
    return to;
}

/// Reads fields as `sscanf` does. A NUL ends every one of its steps, so that nothing behind it is read.
class FieldReader {
  public:
    explicit FieldReader(const unsigned char* text) : next_(text) {}

    /// A "%x" of this width.
    bool takeHex(int width, std::uint32_t& value) {
        while (isBlank(*next_)) ++next_;
        const bool isNegative = *next_ == '-';
        if (isNegative || *next_ == '+') step(width);
        bool hasDigits = false;
        if (width > 0 && *next_ == '0') {
            hasDigits = true;
            step(width);
            if (width > 0 && (*next_ | 0x20) == 'x') step(width);
        }
        value = 0;
        for (; width > 0 && kDigits[*next_] != kNoDigit; hasDigits = true) {
            value = value << 4 | kDigits[*next_];
            step(width);
        }
        if (isNegative) value = 0 - value;
        return hasDigits;
    }
    bool takeHyphen() {
        if (*next_ != '-') return false;
        ++next_;
        return true;
    }

  private:
    static bool isBlank(unsigned char byte) { return byte == ' ' || (byte >= '\t' && byte <= '\r'); }
    void step(int& width) {
        ++next_;
        --width;
    }

    const unsigned char* next_;
};

std::optional<_GUID> parse(const unsigned char* text) {
    FieldReader reader(text);
    std::uint32_t first, second, third;
    if (!reader.takeHex(8, first) || !reader.takeHyphen() || !reader.takeHex(4, second) ||
        !reader.takeHyphen() || !reader.takeHex(4, third) || !reader.takeHyphen())
        return std::nullopt;
    _GUID uuid{first, static_cast<WORD>(second & 0xFFFF), static_cast<WORD>(third & 0xFFFF), {}};
    for (size_t i = 0; i < std::size(uuid.Data4); ++i) {
        std::uint32_t byte;
        if ((i == 2 && !reader.takeHyphen()) || !reader.takeHex(2, byte)) return std::nullopt;
        uuid.Data4[i] = static_cast<BYTE>(byte & 0xFF);
    }
    return uuid;
}

template <class Number>
int order(Number a, Number b) {
    return a < b ? -1 : static_cast<int>(a > b);
}

}  // namespace

LONG UuidToString(const _GUID* uuid, unsigned char** out) {
    if (out == nullptr) return kRefused;
    const _GUID& from = uuid != nullptr ? *uuid : kNil;
    char* next = static_cast<char*>(std::malloc(kTextSize));
    *out = reinterpret_cast<unsigned char*>(next);
    if (next == nullptr) return kNoMemory;
    next = printHex<4>(next, static_cast<std::uint32_t>(from.Data1));
    *next++ = '-';
    next = printHex<2>(next, from.Data2);
    *next++ = '-';
    next = printHex<2>(next, from.Data3);
    *next++ = '-';
    for (size_t i = 0; i < std::size(from.Data4); ++i) {
        if (i == 2) *next++ = '-';
        next = printHex<1>(next, from.Data4[i]);
    }
    *next = '\0';
    return kDone;
}

LONG UuidFromString(const unsigned char* text, _GUID* out) {
    if (out == nullptr) return kRefused;
    *out = kNil;
    if (text == nullptr || *text == '\0') return kRefused;
    const bool hasHyphen = strnlen(reinterpret_cast<const char*>(text), kFirstHyphen) == kFirstHyphen &&
                           text[kFirstHyphen] == '-';
    if (!hasHyphen) return kDone;
    const auto uuid = parse(text);
    if (!uuid) return kRefused;
    *out = *uuid;
    return kDone;
}

INT UuidCompare(const _GUID* a, const _GUID* b, LONG* status) {
    if (status != nullptr) *status = kDone;
    const _GUID& left = a != nullptr ? *a : kNil;
    const _GUID& right = b != nullptr ? *b : kNil;
    if (left.Data1 != right.Data1) return order(left.Data1, right.Data1);
    if (left.Data2 != right.Data2) return order(left.Data2, right.Data2);
    if (left.Data3 != right.Data3) return order(left.Data3, right.Data3);
    return order(std::memcmp(left.Data4, right.Data4, sizeof left.Data4), 0);
}

LONG RpcStringFree(unsigned char** text) {
    if (text == nullptr || *text == nullptr || **text == '\0') return kRefused;
    **text = '\0';
    std::free(*text);
    return kDone;
}
