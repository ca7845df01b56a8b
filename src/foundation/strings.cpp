// The members of CKZString and CString that are not inline.

#include <traiklofox/strings.h>

#include <errno.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "foundation/on_exit.h"

namespace {

// The <cctype> functions are defined for the values of unsigned characters only.
bool isBlank(char character) {
    return std::isspace(static_cast<unsigned char>(character)) != 0;
}
char toLower(char character) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
}
char toUpper(char character) {
    return static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
}

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
    size_t match = from.empty() ? std::string::npos : text.find(from);
    if (match == std::string::npos) return;
    std::string result;  // built beside the text, of which `from` or `to` may be a part
    size_t copied = 0;
    for (; match != std::string::npos; match = text.find(from, copied)) {
        result.append(text, copied, match - copied).append(to);
        copied = match + from.size();
    }
    result.append(text, copied);
    text = std::move(result);
}

/// A position or count of a caller's, brought between 0 and `limit`.
size_t clamped(int value, size_t limit) {
    return value < 0 ? 0 : std::min(static_cast<size_t>(value), limit);
}

std::string_view pieceOf(const char* text, unsigned int length) {
    return text != nullptr ? std::string_view(text, length) : std::string_view();
}

}  // namespace

namespace traiklofox {

void StringBase::Format(const char* format, ...) {
    if (format == nullptr) return clear();
    va_list arguments;
    va_start(arguments, format);
    const auto endArguments = foundation::onExit([&] { va_end(arguments); });
    va_list firstTry;
    va_copy(firstTry, arguments);
    char shortText[512];
    const int length = std::vsnprintf(shortText, sizeof shortText, format, firstTry);
    va_end(firstTry);

    if (length < 0 && errno == EOVERFLOW) throw std::length_error("Format: the text is longer than INT_MAX");
    if (length < 0) return;
    const auto size = static_cast<size_t>(length);
    if (size < sizeof shortText) {
        assign(shortText, size);
        return;
    }
    std::string longText(size, '\0');  // not in place: an argument may be this string's own text
    if (std::vsnprintf(longText.data(), size + 1, format, arguments) < 0) return;
    std::string::operator=(std::move(longText));
}

void StringBase::TrimLeft() {
    erase(begin(), std::find_if_not(begin(), end(), isBlank));
}

void StringBase::TrimRight() {
    erase(std::find_if_not(rbegin(), rend(), isBlank).base(), end());
}

void StringBase::MakeLower() {
    std::transform(begin(), end(), begin(), toLower);
}

}  // namespace traiklofox

CKZString& CKZString::replace(char from, char to) {
    std::replace(begin(), end(), from, to);
    return *this;
}

CKZString& CKZString::replace(const CKZString& from, const CKZString& to) {
    replaceAll(*this, from, to);
    return *this;
}

CKZString& CKZString::replace(char from, const CKZString& to) {
    replaceAll(*this, {&from, 1}, to);
    return *this;
}

CKZString& CKZString::replace(const CKZString& from, char to) {
    replaceAll(*this, from, {&to, 1});
    return *this;
}

CKZString CKZString::MakeForwardSlash() {
    return replace('\\', '/');
}

CString CString::Mid(int first) const {
    return substr(clamped(first, size()));
}

CString CString::Mid(int first, int count) const {
    return substr(clamped(first, size()), clamped(count, size()));
}

CString CString::Left(int count) const {
    return substr(0, clamped(count, size()));
}

CString CString::Right(int count) const {
    return substr(size() - clamped(count, size()));
}

void CString::MakeUpper() {
    std::transform(begin(), end(), begin(), toUpper);
}

void CString::MakeReverse() {
    std::reverse(begin(), end());
}

int CString::Delete(int index, int count) {
    erase(clamped(index, size()), clamped(count, size()));
    return static_cast<int>(size());
}

char* CString::GetBuffer(int minLength) {
    if (minLength > 0 && static_cast<size_t>(minLength) > size()) resize(static_cast<size_t>(minLength));
    return data();
}

char* CString::GetBufferSetLength(int length) {
    resize(length < 0 ? 0 : static_cast<size_t>(length));
    return data();
}

void CString::ReleaseBuffer(int newLength) {
    resize(newLength < 0 ? ::strnlen(data(), size()) : static_cast<size_t>(newLength));
}

void CString::ConcatCopy(unsigned int length1, const char* text1, unsigned int length2, const char* text2) {
    const std::string_view first = pieceOf(text1, length1);
    const std::string_view second = pieceOf(text2, length2);
    CString joined;  // not in place: either piece may be a part of this string
    joined.reserve(first.size() + second.size());
    joined.append(first).append(second);
    *this = std::move(joined);
}
