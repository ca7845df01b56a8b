// url_combine.cpp: bringing URLs into one form, and resolving one against another.

#include <traiklofox/internet.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

#include "system/url_call.h"
#include "system/url_parts.h"

using namespace traiklofox::system;

namespace {

std::string_view withoutEnds(std::string_view url) {
    const auto isEnd = [](char character) { return static_cast<unsigned char>(character) <= ' '; };
    while (!url.empty() && isEnd(url.front())) url.remove_prefix(1);
    while (!url.empty() && isEnd(url.back())) url.remove_suffix(1);
    return url;
}

/// A part with the escapes that the flags ask for.
std::string escaped(std::string_view part, DWORD flags, bool isExtra = false) {
    if ((flags & ICU_NO_ENCODE) != 0 || (isExtra && (flags & ICU_BROWSER_MODE) != 0))
        return std::string(part);
    return withEscapes(part, [&](char character) {
        if (character == '%') return (flags & ICU_ENCODE_PERCENT) != 0;
        return (flags & ICU_ENCODE_SPACES_ONLY) != 0 ? character == ' ' : isUnsafe(character);
    });
}

std::string canonicalPath(const UrlParts& parts, DWORD flags) {
    std::string path(parts.path);
    if (parts.isOpaque()) return escaped(path, flags);
    std::ranges::replace(path, '\\', '/');
    if (parts.hasAuthority && path.empty()) path = "/";
    const bool isWhole = path.starts_with('/') || !parts.scheme.empty();
    if (isWhole && (flags & ICU_NO_META) == 0) path = withoutDots(path);
    return escaped(path, flags);
}

/// Nothing for what is no URL.
std::optional<std::string> canonical(std::string_view given, DWORD flags) {
    std::string url(withoutEnds(given));
    if ((flags & ICU_DECODE) != 0) url = withoutEscapes(url);
    auto parts = splitUrl(url);
    if (!parts) return std::nullopt;
    const std::string scheme = lowerCase(parts->scheme);
    const std::string host = lowerCase(parts->host);
    const std::string path = canonicalPath(*parts, flags);
    const std::string extra = escaped(parts->extra, flags, /*isExtra=*/true);
    std::string user;
    std::string password;
    if (parts->user) parts->user = user = escaped(*parts->user, flags);
    if (parts->password) parts->password = password = escaped(*parts->password, flags);
    parts->scheme = scheme;
    parts->host = host;
    parts->path = path;
    parts->extra = extra;
    return joinUrl(*parts);
}

/// The relative path in the place of the base's last segment.
std::string mergedPath(const UrlParts& base, std::string_view relative) {
    if (base.hasAuthority && base.path.empty()) return std::string("/").append(relative);
    const size_t slash = base.path.find_last_of("/\\");
    const size_t end = slash == base.path.npos ? 0 : slash + 1;
    return std::string(base.path.substr(0, end)).append(relative);
}

/// Nothing for what is no URL.
std::optional<std::string> combined(std::string_view baseUrl, std::string_view relativeUrl) {
    const auto base = splitWholeUrl(withoutEnds(baseUrl));
    const auto relative = splitUrl(withoutEnds(relativeUrl));
    if (!base || !relative) return std::nullopt;
    if (!relative->scheme.empty()) return joinUrl(*relative);
    UrlParts made = *base;
    std::string path;
    std::string extra;
    if (relative->hasAuthority) {
        made = *relative;
        made.scheme = base->scheme;
        made.known = base->known;
        return base->isOpaque() ? std::nullopt : std::optional(joinUrl(made));
    }
    if (base->isOpaque()) return std::nullopt;
    if (relative->path.empty()) {
        path = base->path;
        const std::string_view query = relative->query().empty() ? base->query() : relative->query();
        extra.append(query).append(relative->fragment());
    } else {
        const bool isRooted = relative->path.front() == '/' || relative->path.front() == '\\';
        path = isRooted ? std::string(relative->path) : mergedPath(*base, relative->path);
        extra = relative->extra;
    }
    made.path = path;
    made.extra = extra;
    return joinUrl(made);
}

}  // namespace

BOOL InternetCanonicalizeUrl(LPCSTR url, LPSTR buffer, LPDWORD length, DWORD flags) {
    return urlCall([&] {
        if (url == nullptr || length == nullptr) return refuse();
        const auto made = canonical(url, flags);
        return made ? giveUrl(*made, buffer, length) : refuse();
    });
}

BOOL InternetCombineUrl(LPCSTR base, LPCSTR relative, LPSTR buffer, LPDWORD length, DWORD flags) {
    return urlCall([&] {
        if (base == nullptr || relative == nullptr || length == nullptr) return refuse();
        const auto whole = combined(base, relative);
        const auto made = whole ? canonical(*whole, flags) : std::nullopt;
        return made ? giveUrl(*made, buffer, length) : refuse();
    });
}
