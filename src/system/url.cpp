// url.cpp: taking URLs apart and making them, for callers.

#include <traiklofox/internet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <string>

#include "system/url_call.h"
#include "system/url_parts.h"

using namespace traiklofox::system;

namespace {

constexpr DWORD kDecode = ICU_DECODE | ICU_ESCAPE;

/// Where URL_COMPONENTS has a part.
struct Field {
    LPSTR URL_COMPONENTS::*text;
    DWORD URL_COMPONENTS::*length;
};
constexpr Field kScheme{&URL_COMPONENTS::lpszScheme, &URL_COMPONENTS::dwSchemeLength};
constexpr Field kHost{&URL_COMPONENTS::lpszHostName, &URL_COMPONENTS::dwHostNameLength};
constexpr Field kUser{&URL_COMPONENTS::lpszUserName, &URL_COMPONENTS::dwUserNameLength};
constexpr Field kPassword{&URL_COMPONENTS::lpszPassword, &URL_COMPONENTS::dwPasswordLength};
constexpr Field kPath{&URL_COMPONENTS::lpszUrlPath, &URL_COMPONENTS::dwUrlPathLength};
constexpr Field kExtra{&URL_COMPONENTS::lpszExtraInfo, &URL_COMPONENTS::dwExtraInfoLength};

/// A part on its way to the caller. Its view has a null address where the URL has no such part.
struct Given {
    Field field;
    std::string_view view;
    std::string decoded = {};
};

bool isBuffer(const URL_COMPONENTS& components, const Field& field) {
    return components.*field.text != nullptr;
}
bool isPointerWanted(const URL_COMPONENTS& components, const Field& field) {
    return components.*field.text == nullptr && components.*field.length != 0;
}

/// False, with ERANGE and the sizes needed, when a buffer is too small.
bool doAllFit(URL_COMPONENTS& components, const Given* begin, const Given* end) {
    bool fit = true;
    for (const Given* given = begin; given != end; ++given) {
        const auto length = static_cast<DWORD>(given->view.size());
        if (!isBuffer(components, given->field) || components.*given->field.length > length) continue;
        components.*given->field.length = length + 1;
        fit = false;
    }
    if (!fit) errno = ERANGE;
    return fit;
}

void give(URL_COMPONENTS& components, const Given& given) {
    char*& text = components.*given.field.text;
    DWORD& length = components.*given.field.length;
    if (isBuffer(components, given.field)) {
        std::copy(given.view.begin(), given.view.end(), text);
        text[given.view.size()] = '\0';
    } else if (isPointerWanted(components, given.field)) {
        text = const_cast<char*>(given.view.data());  // the caller's own, as Win32 has it
    } else {
        return;
    }
    length = static_cast<DWORD>(given.view.size());
}

bool crack(std::string_view url, DWORD flags, URL_COMPONENTS& components) {
    const auto parts = splitWholeUrl(url);
    if (!parts) return refuse();
    const bool isExtraWanted = isBuffer(components, kExtra) || isPointerWanted(components, kExtra);
    const auto placeOfPath = static_cast<size_t>(parts->path.data() - url.data());
    Given all[] = {
        {kScheme, parts->scheme},
        {kHost, parts->host},
        {kUser, parts->user.value_or(std::string_view())},
        {kPassword, parts->password.value_or(std::string_view())},
        {kPath, isExtraWanted ? parts->path : url.substr(placeOfPath)},
        {kExtra, parts->extra},
    };
    if ((flags & kDecode) != 0) {
        for (Given& given : all) {
            if (isPointerWanted(components, given.field)) return refuse();
            given.decoded = withoutEscapes(given.view);
            given.view = given.decoded;
        }
    }
    if (!doAllFit(components, std::begin(all), std::end(all))) return false;
    for (const Given& given : all) give(components, given);
    components.nScheme = parts->known != nullptr ? parts->known->number : INTERNET_SCHEME_UNKNOWN;
    components.nPort = parts->portNumber();
    return true;
}

std::string_view textOf(const URL_COMPONENTS& components, const Field& field) {
    const char* text = components.*field.text;
    if (text == nullptr) return {};
    const DWORD length = components.*field.length;
    return {text, length != 0 ? ::strnlen(text, length) : std::strlen(text)};
}

/// The parts of a URL to be made, with their escapes.
struct MadeParts {
    std::string host, user, password, path, extra, port;
};

MadeParts escapedParts(const URL_COMPONENTS& components, DWORD flags) {
    MadeParts made{.host = std::string(textOf(components, kHost)),
                   .user = std::string(textOf(components, kUser)),
                   .password = std::string(textOf(components, kPassword)),
                   .path = std::string(textOf(components, kPath)),
                   .extra = std::string(textOf(components, kExtra)),
                   .port = std::to_string(components.nPort)};
    if ((flags & ICU_ESCAPE) == 0) return made;
    const bool hasExtra = components.lpszExtraInfo != nullptr;
    const auto endsUser = [](char character) { return !isUnreserved(character); };
    const auto endsPath = [&](char character) {
        return isUnsafe(character) || character == '%' ||
               (hasExtra && (character == '?' || character == '#'));
    };
    const auto endsExtra = [](char character) { return isUnsafe(character) || character == '%'; };
    // Of what a host may not hold, only this could be meant: it stands before an IPv6 address's zone.
    made.host = withEscapes(made.host, [](char character) { return character == '%'; });
    made.user = withEscapes(made.user, endsUser);
    made.password = withEscapes(made.password, endsUser);
    made.path = withEscapes(made.path, endsPath);
    made.extra = withEscapes(made.extra, endsExtra);
    return made;
}

/// Fills in the scheme; false when there is none.
bool setScheme(const URL_COMPONENTS& components, UrlParts& parts) {
    parts.scheme = textOf(components, kScheme);
    if (parts.scheme.empty()) {
        const INTERNET_SCHEME number =
            components.nScheme == INTERNET_SCHEME_DEFAULT ? INTERNET_SCHEME_HTTP : components.nScheme;
        const KnownScheme* scheme = knownScheme(number);
        if (scheme == nullptr) return false;
        parts.scheme = scheme->name;
    }
    parts.known = knownScheme(parts.scheme);
    return true;
}

bool isJoined(const UrlParts& parts) {
    if (parts.password && !parts.user) return false;
    return parts.isBracketed || isHost(parts.host);
}

bool create(const URL_COMPONENTS& components, DWORD flags, char* buffer, DWORD* length) {
    UrlParts parts;
    if (!setScheme(components, parts)) return refuse();
    MadeParts made = escapedParts(components, flags);
    parts.host = made.host;
    if (parts.host.starts_with('[') && parts.host.ends_with(']'))
        parts.host = parts.host.substr(1, parts.host.size() - 2);
    parts.isBracketed = parts.host.find(':') != parts.host.npos;
    if (components.lpszUserName != nullptr && !made.user.empty()) parts.user = made.user;
    if (components.lpszPassword != nullptr && !made.password.empty()) parts.password = made.password;
    const bool isUsualPort = parts.known != nullptr && parts.known->port == components.nPort;
    if (components.nPort != INTERNET_INVALID_PORT_NUMBER && !isUsualPort) parts.port = made.port;
    parts.hasAuthority = !parts.isOpaque() && (parts.known != nullptr || !parts.host.empty() ||
                                               !made.user.empty() || !parts.port.empty());
    if (parts.hasAuthority && !made.path.empty() && made.path.front() != '/') made.path.insert(0, 1, '/');
    parts.path = made.path;
    parts.extra = made.extra;
    if (!isJoined(parts)) return refuse();
    const std::string url = joinUrl(parts);
    // What would be read as another, or as none: parts that end where they should not.
    const auto read = splitWholeUrl(url);
    if (!read || read->host != parts.host || read->scheme != parts.scheme) return refuse();
    return giveUrl(url, buffer, length);
}

}  // namespace

BOOL InternetCrackUrl(LPCSTR url, DWORD length, DWORD flags, LPURL_COMPONENTS components) {
    return urlCall([&] {
        if (url == nullptr || components == nullptr || components->dwStructSize != sizeof(URL_COMPONENTS))
            return refuse();
        const size_t size = length != 0 ? ::strnlen(url, length) : std::strlen(url);
        return crack({url, size}, flags, *components);
    });
}

BOOL InternetCreateUrl(LPURL_COMPONENTS components, DWORD flags, LPSTR url, LPDWORD length) {
    return urlCall([&] {
        if (components == nullptr || length == nullptr || components->dwStructSize != sizeof(URL_COMPONENTS))
            return refuse();
        return create(*components, flags, url, length);
    });
}

BOOL AfxParseURL(LPCTSTR url, DWORD& serviceType, CString& server, CString& object, INTERNET_PORT& port) {
    CString userName;
    CString password;
    return AfxParseURLEx(url, serviceType, server, object, port, userName, password);
}

BOOL AfxParseURLEx(LPCTSTR url, DWORD& serviceType, CString& server, CString& object, INTERNET_PORT& port,
                   CString& userName, CString& password, DWORD flags) {
    const auto parts = splitWholeUrl(traiklofox::viewOf(url));
    if (!parts) return refuse();
    const auto part = [&](std::string_view view) {
        return CString((flags & kDecode) != 0 ? withoutEscapes(view) : std::string(view));
    };
    const char* front = parts->hasAuthority && !parts->path.starts_with('/') ? "/" : "";
    CString newObject = front + part(std::string(parts->path).append(parts->extra));
    CString newServer = part(parts->host);
    CString newUserName = part(parts->user.value_or(""));
    password = part(parts->password.value_or(""));
    userName = std::move(newUserName);
    server = std::move(newServer);
    object = std::move(newObject);
    port = parts->portNumber();
    serviceType = parts->known != nullptr ? parts->known->service : AFX_INET_SERVICE_UNK;
    return TRUE;
}
