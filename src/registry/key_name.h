#pragma once

#include <array>
#include <cstdint>
#include <string_view>

/// A name as the registry finds and orders it: byte by byte, the case of ASCII's letters ignored: alike in every
/// locale, since processes of different ones share the file. Refers to the text, which must stay where it is.
class CKZStringPc {
  public:
    explicit CKZStringPc(std::string_view text) : text_(text) {}

    std::string_view text() const { return text_; }

    std::uint32_t hash() const {
        std::uint32_t hash = 2166136261U;  // FNV-1a
        for (const char character : text_) hash = (hash ^ fold(character)) * 16777619U;
        return hash ^ (hash >> 15);  // the low bits choose a table's slot
    }

    friend bool operator==(CKZStringPc left, CKZStringPc right) {
        if (left.text_.size() != right.text_.size()) return false;
        for (size_t i = 0; i < left.text_.size(); ++i)
            if (left.text_[i] != right.text_[i] && fold(left.text_[i]) != fold(right.text_[i])) return false;
        return true;
    }

    friend bool operator<(CKZStringPc left, CKZStringPc right) {
        const size_t common = left.text_.size() < right.text_.size() ? left.text_.size() : right.text_.size();
        for (size_t i = 0; i < common; ++i) {
            const unsigned char a = fold(left.text_[i]);
            const unsigned char b = fold(right.text_[i]);
            if (a != b) return a < b;
        }
        return left.text_.size() < right.text_.size();
    }

    /// The byte in lower case.
    static unsigned char fold(char character) { return lower_[static_cast<unsigned char>(character)]; }

  private:
    static const std::array<unsigned char, 256> lower_;

    std::string_view text_;
};

namespace traiklofox::registry {

/// A name with its hash, for those who look it up and then, perhaps, add it.
struct HashedName {
    explicit HashedName(std::string_view text) : name(text), hash(name.hash()) {}

    CKZStringPc name;
    std::uint32_t hash;
};

}  // namespace traiklofox::registry
