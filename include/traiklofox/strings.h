#pragma once

/// The two string classes: `CKZString`, which carries every path, key and name through the library, and the
/// MFC-style `CString`.
///
/// Each *is* a `std::string` (same storage, same growth, same `npos`; copies are deep) with members and
/// operators of its own, and the two convert to each other and from `std::string` freely. Text is bytes
/// without an encoding; case and blanks follow the C library's character classes in the process's current
/// locale. A null `const char*` is the empty string in constructors, assignments and operators, and in members
/// that `std::string` has not. One thread at a time may use a string.
///
/// Errors are those of `std::string`: `std::out_of_range`, `std::length_error`, `std::bad_alloc`.

#include <traiklofox/types.h>

#include <compare>
#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace traiklofox {

/// The text, or the empty one for a null pointer.
inline std::string_view viewOf(const char* text) {
    return text != nullptr ? std::string_view(text) : std::string_view();
}

/// The members that both classes have. Use it through `CKZString` and `CString`.
class TRAIKLOFOX_API StringBase : public std::string {
  public:
    using std::string::string;
    /// The empty string, and copies of a text (null: the empty one) or of a string.
    StringBase() = default;
    StringBase(const char* text) : std::string(viewOf(text)) {}
    StringBase(const std::string& text) : std::string(text) {}
    StringBase(std::string&& text) noexcept : std::string(std::move(text)) {}
    StringBase(const char* text, size_type length)
        : std::string(text != nullptr ? std::string_view(text, length) : std::string_view()) {}
#if __cplusplus > 202002L  // whose standard string refuses it
    StringBase(std::nullptr_t) {}
#endif

    /// Replaces the contents with exactly what `vsprintf` makes of the arguments, however long; a null
    /// `format` gives the empty string. An argument may be this string's own text. When the C library cannot
    /// convert an argument (a wide character outside the locale), the string stays as it was and `errno` says
    /// why. Throws `std::length_error` when the text would be longer than INT_MAX.
    void Format(const char* format, ...) __attribute__((format(printf, 2, 3)));

    /// Removes the leading characters for which `isspace` is true.
    void TrimLeft();
    /// Removes the trailing characters for which `isspace` is true.
    void TrimRight();
    /// Passes every character through `tolower`.
    void MakeLower();
};

/// A string (or reference to one) that is neither `Self` nor derived from it.
template <class T, class Self>
concept OtherString = std::derived_from<std::remove_cvref_t<T>, std::string> &&
    !std::derived_from<std::remove_cvref_t<T>, Self>;

/// A `std::string` (or reference to one), or a class of the application's that is derived from it.
template <class T>
concept ForeignString = OtherString<T, StringBase>;

/// The operators that both classes have. They match their operands exactly, so that neither the standard
/// string's templates nor each other's are ever as good. A sum has the class of its left operand, or of the
/// right one when the left is no class of ours. Comparison is byte by byte as unsigned characters over the
/// common length, then the shorter string is smaller; it is case-sensitive. `!=`, `<`, `>`, `<=`, `>=` and a
/// `const char*` on the left come from `==` and `<=>`.
template <class Self>
class StringOperators : public StringBase {
  public:
    using StringBase::StringBase;

    Self& operator=(const std::string& text) { return set(text); }
    Self& operator=(std::string&& text) noexcept {
        std::string::operator=(std::move(text));
        return static_cast<Self&>(*this);
    }
    Self& operator=(const char* text) { return set(viewOf(text)); }
    template <std::same_as<std::string_view> View>
    Self& operator=(View text) {
        return set(text);
    }
    Self& operator=(char character) { return set({&character, 1}); }
    Self& operator=(std::initializer_list<char> characters) {
        return set({characters.begin(), characters.size()});
    }

    Self& operator+=(const std::string& text) { return add(text); }
    Self& operator+=(const char* text) { return add(viewOf(text)); }
    template <std::same_as<std::string_view> View>
    Self& operator+=(View text) {
        return add(text);
    }
    Self& operator+=(char character) { return add({&character, 1}); }

    friend Self operator+(const Self& left, const Self& right) { return joined(left, right); }
    friend Self operator+(const Self& left, const char* right) { return joined(left, viewOf(right)); }
    friend Self operator+(const char* left, const Self& right) { return joined(viewOf(left), right); }
    friend Self operator+(const Self& left, char right) { return joined(left, {&right, 1}); }
    friend Self operator+(char left, const Self& right) { return joined({&left, 1}, right); }
    template <OtherString<Self> Other>
    friend Self operator+(const Self& left, Other&& right) {
        return joined(left, right);
    }
    template <ForeignString Other>
    friend Self operator+(Other&& left, const Self& right) {
        return joined(left, right);
    }

    /// The same for a left operand that is about to go: a chain of sums grows one buffer.
    friend Self operator+(Self&& left, const Self& right) { return std::move(left += right); }
    friend Self operator+(Self&& left, const char* right) { return std::move(left += right); }
    friend Self operator+(Self&& left, char right) { return std::move(left += right); }
    template <OtherString<Self> Other>
    friend Self operator+(Self&& left, Other&& right) {
        return std::move(left += right);
    }

    friend bool operator==(const Self& left, const Self& right) {
        return viewOfBase(left) == viewOfBase(right);
    }
    friend bool operator==(const Self& left, const char* right) { return viewOfBase(left) == viewOf(right); }
    template <OtherString<Self> Other>
    friend bool operator==(const Self& left, const Other& right) {
        return viewOfBase(left) == viewOfBase(right);
    }
    friend std::strong_ordering operator<=>(const Self& left, const Self& right) {
        return viewOfBase(left) <=> viewOfBase(right);
    }
    friend std::strong_ordering operator<=>(const Self& left, const char* right) {
        return viewOfBase(left) <=> viewOf(right);
    }
    template <OtherString<Self> Other>
    friend std::strong_ordering operator<=>(const Self& left, const Other& right) {
        return viewOfBase(left) <=> viewOfBase(right);
    }

  private:
    static std::string_view viewOfBase(const std::string& text) { return text; }
    static Self joined(std::string_view left, std::string_view right) {
        Self sum;
        sum.reserve(left.size() + right.size());
        sum.append(left).append(right);
        return sum;
    }
    Self& set(std::string_view text) {
        assign(text.data(), text.size());  // by address, as `assign` knows to take a part of this very string
        return static_cast<Self&>(*this);
    }
    Self& add(std::string_view text) {
        append(text.data(), text.size());
        return static_cast<Self&>(*this);
    }
};

}  // namespace traiklofox

/// The library's own string class.
class TRAIKLOFOX_API CKZString : public traiklofox::StringOperators<CKZString> {
  public:
    using StringOperators::StringOperators;
    using StringOperators::operator=;
    CKZString() = default;

    using std::string::replace;
    /// Replaces every occurrence of `from` by `to`.
    CKZString& replace(char from, char to);
    /// Replaces every occurrence of `from` by `to`, from left to right: matches never overlap, and text that
    /// came from `to` is not searched again. An empty `from` occurs nowhere, so it changes nothing. Either
    /// argument may be this string itself.
    CKZString& replace(const CKZString& from, const CKZString& to);
    CKZString& replace(char from, const CKZString& to);
    CKZString& replace(const CKZString& from, char to);

    /// Turns every backslash into a slash, here, and returns a copy of the result.
    CKZString MakeForwardSlash();
};

/// A string class with the members of MFC's. Positions and counts are `int`s, as there; a negative one counts
/// as 0, and one past the end as the end, so that none of these members throws `std::out_of_range`.
class TRAIKLOFOX_API CString : public traiklofox::StringOperators<CString> {
  public:
    using StringOperators::StringOperators;
    using StringOperators::operator=;
    CString() = default;
    /// From a NUL-terminated text of unsigned bytes; null gives the empty string. (A template, so that `NULL`
    /// is a `const char*`.)
    template <std::same_as<unsigned char> Byte>
    CString(const Byte* text) : CString(reinterpret_cast<const char*>(text)) {}

    /// The text from `first` to the end.
    CString Mid(int first) const;
    /// At most `count` characters from `first`.
    CString Mid(int first, int count) const;
    /// The first `count` characters.
    CString Left(int count) const;
    /// The last `count` characters.
    CString Right(int count) const;

    /// Passes every character through `toupper`.
    void MakeUpper();
    /// Reverses the order of the characters.
    void MakeReverse();
    /// Removes at most `count` characters from `index` on. Returns the new length.
    int Delete(int index, int count = 1);

    /// The character array, writable for `minLength` characters and the present text, whichever is longer.
    /// Call `ReleaseBuffer` after writing and before any other member: until then the string's length is that
    /// of the array, new places holding NULs. The pointer is valid until the string is changed or destroyed.
    char* GetBuffer(int minLength);
    /// Sets the length, new places holding NULs, and returns the character array, writable for `length`
    /// characters.
    char* GetBufferSetLength(int length);
    /// Ends the use of the array: the string's length becomes `newLength`, or, for a negative one, the place
    /// of the first NUL.
    void ReleaseBuffer(int newLength = -1);

    /// Sets the string to the first `length1` bytes of `text1` followed by the first `length2` bytes of
    /// `text2`. Either may be a part of this string; a null text counts as empty.
    void ConcatCopy(unsigned int length1, const char* text1, unsigned int length2, const char* text2);
};

static_assert(sizeof(CKZString) == sizeof(std::string) && sizeof(CString) == sizeof(std::string));
