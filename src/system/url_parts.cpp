#include "system/url_parts.h"

#include <algorithm>
#include <charconv>
#include <vector>

namespace traiklofox::system {

namespace {

constexpr KnownScheme kSchemes[] = {
    // name, number, port, needs a host, opaque, service
    {"ftp", INTERNET_SCHEME_FTP, INTERNET_DEFAULT_FTP_PORT, true, false, AFX_INET_SERVICE_FTP},
    {"gopher", INTERNET_SCHEME_GOPHER, INTERNET_DEFAULT_GOPHER_PORT, true, false, AFX_INET_SERVICE_GOPHER},
    {"http", INTERNET_SCHEME_HTTP, INTERNET_DEFAULT_HTTP_PORT, true, false, AFX_INET_SERVICE_HTTP},
    {"https", INTERNET_SCHEME_HTTPS, INTERNET_DEFAULT_HTTPS_PORT, true, false, AFX_INET_SERVICE_HTTPS},
    {"file", INTERNET_SCHEME_FILE, 0, false, false, AFX_INET_SERVICE_FILE},
    {"news", INTERNET_SCHEME_NEWS, 0, false, true, AFX_INET_SERVICE_NEWS},
    {"mailto", INTERNET_SCHEME_MAILTO, 0, false, true, AFX_INET_SERVICE_MAILTO},
    {"socks", INTERNET_SCHEME_SOCKS, INTERNET_DEFAULT_SOCKS_PORT, true, false, AFX_INET_SERVICE_UNK},
    {"javascript", INTERNET_SCHEME_JAVASCRIPT, 0, false, true, AFX_INET_SERVICE_UNK},
    {"vbscript", INTERNET_SCHEME_VBSCRIPT, 0, false, true, AFX_INET_SERVICE_UNK},
    {"res", INTERNET_SCHEME_RES, 0, false, false, AFX_INET_SERVICE_UNK},
    {"mid", INTERNET_SCHEME_UNKNOWN, 0, false, true, AFX_INET_SERVICE_MID},
    {"cid", INTERNET_SCHEME_UNKNOWN, 0, false, true, AFX_INET_SERVICE_CID},
    {"nntp", INTERNET_SCHEME_UNKNOWN, 119, true, false, AFX_INET_SERVICE_NNTP},
    {"prospero", INTERNET_SCHEME_UNKNOWN, 1525, true, false, AFX_INET_SERVICE_PROSPERO},
    {"telnet", INTERNET_SCHEME_UNKNOWN, 23, true, false, AFX_INET_SERVICE_TELNET},
    {"wais", INTERNET_SCHEME_UNKNOWN, 210, true, false, AFX_INET_SERVICE_WAIS},
    {"afs", INTERNET_SCHEME_UNKNOWN, 0, true, false, AFX_INET_SERVICE_AFS},
};

constexpr size_t kShortestScheme = 2;
constexpr INTERNET_PORT kHighestPort = 65535;

char lower(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character + ('a' - 'A')) : character;
}

bool isLetter(char character) {
    return lower(character) >= 'a' && lower(character) <= 'z';
}

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

bool isSlash(char character) {
    return character == '/' || character == '\\';
}

int digitOf(char character) {
    if (isDigit(character)) return character - '0';
    return lower(character) >= 'a' && lower(character) <= 'f' ? lower(character) - 'a' + 10 : -1;
}

/// The scheme that the URL begins with; empty when it begins with none.
std::string_view schemeOf(std::string_view url) {
    const std::string_view scheme = url.substr(0, std::min(url.find(':'), url.size()));
    const bool isScheme = scheme.size() < url.size() && scheme.size() >= kShortestScheme &&
                          isLetter(scheme.front()) && std::ranges::all_of(scheme, [](char character) {
                              return isLetter(character) || isDigit(character) || character == '+' ||
                                     character == '-' || character == '.';
                          });
    return isScheme ? scheme : scheme.substr(0, 0);
}

bool isAddress(std::string_view host) {
    return !host.empty() && std::ranges::all_of(host, [](char character) {
        return isUnreserved(character) || character == ':' || character == '%';
    });
}

bool isPort(std::string_view port) {
    unsigned int number = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
    return port.empty() ||
           (error == std::errc() && end == port.data() + port.size() && number <= kHighestPort);
}

/// Takes what stands between "//" and the path apart.
bool splitAuthority(std::string_view authority, UrlParts& parts) {
    if (const size_t at = authority.rfind('@'); at != authority.npos) {
        const std::string_view user = authority.substr(0, at);
        const size_t colon = user.find(':');
        parts.user = user.substr(0, colon);
        if (colon != user.npos) parts.password = user.substr(colon + 1);
        authority.remove_prefix(at + 1);
    }
    std::string_view behind;
    parts.isBracketed = authority.starts_with('[');
    if (parts.isBracketed) {
        const size_t close = authority.find(']');
        if (close == authority.npos) return false;
        parts.host = authority.substr(1, close - 1);
        behind = authority.substr(close + 1);
        if (!isAddress(parts.host)) return false;
    } else {
        parts.host = authority.substr(0, authority.find(':'));
        behind = authority.substr(parts.host.size());
        if (!isHost(parts.host)) return false;
    }
    if (behind.empty()) return true;
    parts.port = behind.substr(1);
    return behind.front() == ':' && isPort(parts.port);
}

}  // namespace

const KnownScheme* knownScheme(std::string_view name) {
    const std::string lowered = lowerCase(name);
    const auto* found = std::ranges::find(kSchemes, std::string_view(lowered), &KnownScheme::name);
    return found != std::end(kSchemes) ? found : nullptr;
}

const KnownScheme* knownScheme(INTERNET_SCHEME number) {
    if (number < INTERNET_SCHEME_FIRST) return nullptr;
    const auto* found = std::ranges::find(kSchemes, number, &KnownScheme::number);
    return found != std::end(kSchemes) ? found : nullptr;
}

INTERNET_PORT UrlParts::portNumber() const {
    INTERNET_PORT number = known != nullptr ? known->port : INTERNET_INVALID_PORT_NUMBER;
    std::from_chars(port.data(), port.data() + port.size(),
                    number);  // leaves it alone where there are no digits
    return number;
}

std::optional<UrlParts> splitUrl(std::string_view url) {
    UrlParts parts;
    parts.scheme = schemeOf(url);
    if (!parts.scheme.empty()) {
        parts.known = knownScheme(parts.scheme);
        url.remove_prefix(parts.scheme.size() + 1);
    }
    if (parts.isOpaque()) {
        parts.path = url;
        parts.extra = url.substr(url.size());
        return parts;
    }
    if (url.size() >= 2 && isSlash(url[0]) && isSlash(url[1])) {
        url.remove_prefix(2);
        parts.hasAuthority = true;
        const std::string_view authority = url.substr(0, url.find_first_of("/\\?#"));
        if (!splitAuthority(authority, parts)) return std::nullopt;
        url.remove_prefix(authority.size());
    }
    parts.path = url.substr(0, url.find_first_of("?#"));
    parts.extra = url.substr(parts.path.size());
    return parts;
}

std::optional<UrlParts> splitWholeUrl(std::string_view url) {
    auto parts = splitUrl(url);
    if (!parts || parts->scheme.empty()) return std::nullopt;
    if (parts->known != nullptr && parts->known->needsHost && parts->host.empty()) return std::nullopt;
    return parts;
}

std::string joinUrl(const UrlParts& parts) {
    std::string url;
    if (!parts.scheme.empty()) url.append(parts.scheme).append(":");
    if (parts.hasAuthority) {
        url += "//";
        if (parts.user) {
            url += *parts.user;
            if (parts.password) url.append(":").append(*parts.password);
            url += '@';
        }
        url.append(parts.isBracketed ? "[" : "").append(parts.host).append(parts.isBracketed ? "]" : "");
        if (!parts.port.empty()) url.append(":").append(parts.port);
    } else if (parts.path.starts_with("//") && !parts.isOpaque()) {
        url += "/.";  // or it would read as a host
    }
    return url.append(parts.path).append(parts.extra);
}

bool isHost(std::string_view host) {
    return std::ranges::none_of(host, [](char character) {
        return (isUnsafe(character) && static_cast<signed char>(character) >= 0) ||
               std::string_view("/?#@:[]").find(character) != std::string_view::npos;
    });
}

std::string lowerCase(std::string_view text) {
    std::string lowered(text);
    std::ranges::transform(lowered, lowered.begin(), lower);
    return lowered;
}

std::string withoutEscapes(std::string_view text) {
    std::string plain;
    plain.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const bool isLong = text[i] == '%' && i + 2 < text.size();
        const int high = isLong ? digitOf(text[i + 1]) : -1;
        const int low = isLong ? digitOf(text[i + 2]) : -1;
        if (high < 0 || low < 0 || (high | low) == 0) {
            plain += text[i];
            continue;
        }
        plain += static_cast<char>(high << 4 | low);
        i += 2;
    }
    return plain;
}

bool isUnsafe(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte <= ' ' || byte >= 0x7F ||
           std::string_view("\"<>\\^`{|}").find(character) != std::string_view::npos;
}

bool isUnreserved(char character) {
    return isLetter(character) || isDigit(character) || character == '-' || character == '.' ||
           character == '_' || character == '~';
}

std::string withoutDots(std::string_view path) {
    std::vector<std::string_view> kept;  // each with the "/" before it
    if (!path.starts_with('/')) {
        while (path.starts_with("./") || path.starts_with("../")) path.remove_prefix(path.find('/') + 1);
        if (path == "." || path == "..") return {};
        kept.push_back(path.substr(0, path.find('/')));
        path.remove_prefix(kept.back().size());
    }
    bool endsInDirectory = false;
    while (!path.empty()) {
        const std::string_view segment = path.substr(0, path.find('/', 1));
        endsInDirectory = segment == "/." || segment == "/..";
        if (segment == "/.." && !kept.empty()) kept.pop_back();
        if (!endsInDirectory) kept.push_back(segment);
        path.remove_prefix(segment.size());
    }
    std::string resolved;
    for (const std::string_view segment : kept) resolved += segment;
    if (endsInDirectory) resolved += '/';
    return resolved;
}

}  // namespace traiklofox::system
