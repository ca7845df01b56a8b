// URLs taken apart, made again, brought into one form, and resolved against each other.
//
// The input is a base and a URL, a line each.

#include <traiklofox/internet.h>

#include <cerrno>
#include <string>
#include <vector>

#include "require.h"

namespace {

using namespace traiklofox::fuzz;

/// The URL's parts in buffers of their own.
struct Cracked {
    explicit Cracked(size_t size) {
        for (std::vector<char>* text : {&scheme, &host, &user, &password, &path, &extra})
            text->resize(size + 1);
        parts.dwStructSize = sizeof parts;
        refill(parts.lpszScheme, parts.dwSchemeLength, scheme);
        refill(parts.lpszHostName, parts.dwHostNameLength, host);
        refill(parts.lpszUserName, parts.dwUserNameLength, user);
        refill(parts.lpszPassword, parts.dwPasswordLength, password);
        refill(parts.lpszUrlPath, parts.dwUrlPathLength, path);
        refill(parts.lpszExtraInfo, parts.dwExtraInfoLength, extra);
    }
    static void refill(char*& pointer, DWORD& length, std::vector<char>& text) {
        pointer = text.data();
        length = static_cast<DWORD>(text.size());
    }
    bool operator==(const Cracked& other) const {
        const auto text = [](const Cracked& of) {
            return std::vector<std::string>{of.scheme.data(),
                                            of.host.data(),
                                            of.user.data(),
                                            of.password.data(),
                                            of.path.data(),
                                            of.extra.data(),
                                            std::to_string(of.parts.nPort)};
        };
        return text(*this) == text(other);
    }

    std::vector<char> scheme, host, user, password, path, extra;
    URL_COMPONENTS parts{};
};

/// Calls with no buffer, then with one of the size asked for. Nothing where the call fails.
template <class Make>
std::string made(const Make& make, const char* what) {
    DWORD length = 0;
    if (make(nullptr, &length)) require(false, "no buffer is too small", what);
    if (errno != ERANGE) return {};
    std::string buffer(length, '\0');
    const DWORD size = length;
    require(make(buffer.data(), &length) && length == size - 1, "a buffer of the size asked for does", what);
    buffer.pop_back();
    require(buffer.find('\0') == buffer.npos, "its NUL is at its end", what);
    return buffer;
}

std::string canonical(const std::string& url, DWORD flags) {
    return made([&](char* buffer,
                    DWORD* length) { return InternetCanonicalizeUrl(url.c_str(), buffer, length, flags); },
                url.c_str());
}

void checkCracked(const std::string& url) {
    Cracked whole(url.size());
    if (!InternetCrackUrl(url.c_str(), 0, 0, &whole.parts)) return;
    for (const char character : std::string(whole.host.data()))
        require(static_cast<unsigned char>(character) > ' ' && character != '/' && character != '@',
                "a host is one", url);
    // Its pieces, with their characters for escapes, make a URL of the same pieces.
    Cracked plain(url.size());
    require(InternetCrackUrl(url.c_str(), 0, ICU_DECODE, &plain.parts),
            "what can be read can be read plainly", url);
    const auto again =
        made([&](char* buffer,
                 DWORD* length) { return InternetCreateUrl(&plain.parts, ICU_ESCAPE, buffer, length); },
             url.c_str());
    if (again.empty()) return;
    Cracked same(again.size());
    require(InternetCrackUrl(again.c_str(), 0, ICU_DECODE, &same.parts), "what is made can be read",
            url + "\n" + again);
    require(std::string(same.host.data()) == plain.host.data() &&
                std::string(same.user.data()) == plain.user.data() &&
                (same.parts.nPort == plain.parts.nPort || plain.parts.nPort == 0),
            "and has the same host, user and port", url + "\n" + again);
    if (plain.host[0] != '\0')
        require(std::string(same.extra.data()) == plain.extra.data() || plain.extra[0] == '\0',
                "and the same extra information", url + "\n" + again);
}

void checkCanonical(const std::string& url) {
    const std::string once = canonical(url, 0);
    require(canonical(once, 0) == once, "one form stays as it is", url + "\n" + once);
    for (const char character : once)
        require(static_cast<unsigned char>(character) > ' ' || character == '\0', "blanks are escaped", url);
    for (const DWORD flags : {ICU_DECODE, ICU_BROWSER_MODE, ICU_NO_ENCODE | ICU_NO_META, ICU_ENCODE_PERCENT})
        (void)canonical(url, flags);  // that it ends, within its bounds
    Cracked before(3 * url.size() + 4);
    Cracked after(3 * url.size() + 4);
    if (!InternetCrackUrl(url.c_str(), 0, 0, &before.parts)) return;
    if (url.front() <= ' ' && url.front() >= 0) return;
    require(InternetCrackUrl(once.c_str(), 0, 0, &after.parts), "one form can be read", url + "\n" + once);
    require(std::string(before.host.data()).size() == std::string(after.host.data()).size() &&
                before.parts.nPort == after.parts.nPort && before.parts.nScheme == after.parts.nScheme,
            "and names the same server", url + "\n" + once);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, size_t size) {
    std::string_view rest = textOf(bytes, size);
    rest = rest.substr(0, rest.find('\0'));  // callers hand over C texts
    const std::string base(takeLine(rest));
    const std::string url(rest);
    for (const std::string& text : {base, url}) {
        checkCracked(text);
        checkCanonical(text);
        DWORD service = 0;
        INTERNET_PORT port = 0;
        CString server;
        CString object;
        (void)AfxParseURL(text.c_str(), service, server, object, port);
    }
    const std::string combined =
        made([&](char* buffer,
                 DWORD* length) { return InternetCombineUrl(base.c_str(), url.c_str(), buffer, length, 0); },
             base.c_str());
    require(canonical(combined, 0) == combined, "what is resolved is in its one form",
            base + "\n" + combined);
    return 0;
}
