#pragma once

// url_parts.h: a URL taken apart and put together, and the characters of its parts. Pure functions on texts.

#include <traiklofox/internet.h>

#include <optional>
#include <string>
#include <string_view>

namespace traiklofox::system {

struct KnownScheme {
    std::string_view name;
    INTERNET_SCHEME number;
    INTERNET_PORT port;
    bool needsHost;
    bool isOpaque;  // one path behind the colon
    DWORD service;  // of AfxParseURL
};

/// Null for an unknown one.
const KnownScheme* knownScheme(std::string_view name);
const KnownScheme* knownScheme(INTERNET_SCHEME number);

/// Views of the text it was made from.
struct UrlParts {
    std::string_view scheme;  // empty in a relative one
    const KnownScheme* known = nullptr;
    bool hasAuthority = false;
    std::optional<std::string_view> user;
    std::optional<std::string_view> password;
    std::string_view host;  // without brackets
    bool isBracketed = false;
    std::string_view port;  // digits
    std::string_view path;
    std::string_view extra;  // from "?" or "#" on

    bool isOpaque() const { return known != nullptr && known->isOpaque; }
    /// The scheme's, where there is none.
    INTERNET_PORT portNumber() const;
    std::string_view query() const { return extra.substr(0, extra.find('#')); }
    std::string_view fragment() const { return extra.substr(query().size()); }
};

/// Nothing for what is no URL.
std::optional<UrlParts> splitUrl(std::string_view url);
/// Nothing for what is no URL that stands alone.
std::optional<UrlParts> splitWholeUrl(std::string_view url);
std::string joinUrl(const UrlParts& parts);

bool isHost(std::string_view host);

/// The text in lower case, ASCII letters only.
std::string lowerCase(std::string_view text);

/// Without escapes, but for "%00", and for what only looks like one.
std::string withoutEscapes(std::string_view text);

/// What no part of a URL may hold.
bool isUnsafe(char character);
/// Letters, digits and "-._~", which mean nothing but themselves anywhere.
bool isUnreserved(char character);

/// With escapes for the characters that `isEscaped` says.
template <class IsEscaped>
std::string withEscapes(std::string_view text, IsEscaped isEscaped) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string escaped;
    escaped.reserve(text.size());
    for (const char character : text) {
        if (isEscaped(character)) {
            const auto byte = static_cast<unsigned char>(character);
            escaped += '%';
            escaped += kDigits[byte >> 4];
            escaped += kDigits[byte & 15];
        } else {
            escaped += character;
        }
    }
    return escaped;
}

/// A path with its "." and ".." resolved, as RFC 3986 has it in 5.2.4.
std::string withoutDots(std::string_view path);

}  // namespace traiklofox::system
