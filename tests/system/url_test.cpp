#include <gtest/gtest.h>
#include <traiklofox/internet.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace traiklofox::test {
namespace {

static_assert(sizeof(URL_COMPONENTS) == (sizeof(void*) == 4 ? 60 : 104));

constexpr const char* kInvalid = "error 22";

URL_COMPONENTS components() {
    URL_COMPONENTS made{};
    made.dwStructSize = sizeof made;
    return made;
}

char* text(const char* constant) {
    return const_cast<char*>(constant);
}

/// Scheme, host, port, user, password, path and extra of a URL, by pointers into it; "-" for a null pointer.
std::string cracked(const char* url, DWORD length = 0) {
    URL_COMPONENTS c = components();
    c.dwSchemeLength = c.dwHostNameLength = c.dwUserNameLength = c.dwPasswordLength = c.dwUrlPathLength = 1;
    c.dwExtraInfoLength = 1;
    errno = 0;
    if (!InternetCrackUrl(url, length, 0, &c)) return "error " + std::to_string(errno);
    const auto part = [](const char* text, DWORD size) { return text ? std::string(text, size) : "-"; };
    return part(c.lpszScheme, c.dwSchemeLength) + "|" + part(c.lpszHostName, c.dwHostNameLength) + "|" +
           std::to_string(c.nPort) + "|" + part(c.lpszUserName, c.dwUserNameLength) + "|" +
           part(c.lpszPassword, c.dwPasswordLength) + "|" + part(c.lpszUrlPath, c.dwUrlPathLength) + "|" +
           part(c.lpszExtraInfo, c.dwExtraInfoLength);
}

TEST(CrackUrl, PartsAreFoundWhereTheyStand) {
    // clang-format off
    const struct { const char *url, *parts; } kCases[] = {
        {"HTTPS://Host/a/b?q=1#f", "HTTPS|Host|443|-|-|/a/b|?q=1#f"}, {"http://host:/x", "http|host|80|-|-|/x|"},
        {"ftp://user:p@ss:word@host:2121/x", "ftp|host|2121|user|p@ss:word|/x|"}, {"ftp://:@host", "ftp|host|21||||"},
        {"ftp://user@host", "ftp|host|21|user|-||"}, {"http://[::1]:8080/x", "http|::1|8080|-|-|/x|"},
        {"http://[fe80::1%25eth0]", "http|fe80::1%25eth0|80|-|-||"}, {"http://host#f", "http|host|80|-|-||#f"},
        {"http://host?q/a@b", "http|host|80|-|-||?q/a@b"}, {"http://good\\@evil/", "http|good|80|-|-|\\@evil/|"},
        {"file:///etc/hosts", "file||0|-|-|/etc/hosts|"}, {"mailto:a@b?subject=c", "mailto|-|0|-|-|a@b?subject=c|"},
        {"javascript:a?b//c", "javascript|-|0|-|-|a?b//c|"}, {"own+x.1-y://h:65535/p", "own+x.1-y|h|65535|-|-|/p|"}};
    // clang-format on
    for (const auto& row : kCases) EXPECT_EQ(cracked(row.url), row.parts) << row.url;
    for (const char* none :
         {"http://h:65536", "http://h:8x", "http://h:-1", "http://[::1", "http://[::1]x", "", "c:/a",
          "http://[]", "http://a b/", "http://a\r\nb/", "http://a[b/", "http:///path", "http:path", "://host",
          "http://", "host/path", "1http://host", static_cast<const char*>(nullptr)})
        EXPECT_EQ(cracked(none), kInvalid) << (none ? none : "null");
    EXPECT_EQ(cracked("http://host/pathology", 16), "http|host|80|-|-|/path|");
    EXPECT_EQ(cracked("http://host", 1000), "http|host|80|-|-||");
}

TEST(CrackUrl, BuffersAreFilledAndEscapesTurnedIntoCharacters) {
    char host[5], path[12], user[8];
    URL_COMPONENTS made = components();
    const auto crack = [&](const char* url, DWORD flags) {
        for (char* buffer : {host, path, user}) std::strcpy(buffer, "old");
        made.lpszHostName = host, made.lpszUrlPath = path, made.lpszUserName = user;
        made.dwHostNameLength = sizeof host, made.dwUrlPathLength = sizeof path;
        made.dwUserNameLength = sizeof user;
        if (!InternetCrackUrl(url, 0, flags, &made)) return "error " + std::to_string(errno);
        return std::string(user) + " " + host + " " + path + " " + std::to_string(made.dwUrlPathLength);
    };
    EXPECT_EQ(crack("http://a%40b@host/p%2f%zz%0?q", ICU_DECODE), "a@b host /p/%zz%0?q 10")
        << "with the extra information, which was not asked for";
    EXPECT_EQ(made.nScheme, INTERNET_SCHEME_HTTP);
    EXPECT_EQ(crack("http://a%40b@host/%00%7", 0), "a%40b host /%00%7 6");
    EXPECT_EQ(crack("http://host/%00%7", ICU_ESCAPE), " host /%00%7 6");
    EXPECT_EQ(crack("gopher://hosts/a-longer-path", 0), "error 34");
    EXPECT_TRUE(made.dwHostNameLength == 6 && made.dwUrlPathLength == 15 &&
                made.dwUserNameLength == sizeof user);
    EXPECT_EQ(host + std::string(path), "oldold") << "as it was";
    made = components();
    made.dwHostNameLength = 1;
    EXPECT_FALSE(InternetCrackUrl("http://host", 0, ICU_DECODE, &made)) << "no buffer to decode into";
    made = components();
    EXPECT_TRUE(InternetCrackUrl("own://host", 0, 0, &made)) << "nothing but the numbers is wanted";
    EXPECT_EQ(made.nScheme, INTERNET_SCHEME_UNKNOWN);
    made.dwStructSize = 4;
    for (URL_COMPONENTS* wrong : {&made, static_cast<URL_COMPONENTS*>(nullptr)})
        EXPECT_FALSE(InternetCrackUrl("http://host", 0, 0, wrong));
}

/// What `make(buffer, &length)` makes: with no buffer it tells the size, with one byte less it stores nothing.
template <class Make>
std::string made(Make make) {
    DWORD length = 0;
    errno = 0;
    if (make(nullptr, &length) || errno != ERANGE) return "error " + std::to_string(errno);
    std::vector<char> buffer(length + 1, '\x7f');
    DWORD stored = length - 1;
    EXPECT_FALSE(make(buffer.data(), &stored));
    EXPECT_EQ(buffer[0], '\x7f');
    EXPECT_TRUE(make(buffer.data(), &length));
    EXPECT_EQ(length, std::strlen(buffer.data()));
    EXPECT_EQ(buffer[length + 1], '\x7f');
    return buffer.data();
}

TEST(CreateUrl, PartsAreJoinedAndEscaped) {
    constexpr const char* kNone = nullptr;
    // clang-format off
    const struct {
        const char *scheme, *host;
        INTERNET_PORT port;
        const char *user, *password, *path, *extra, *expected;
        DWORD flags = 0;
        INTERNET_SCHEME number = INTERNET_SCHEME_DEFAULT;
    } kCases[] = {
        {kNone, "host", 80, kNone, kNone, "a", "?q", "http://host/a?q"},
        {kNone, "host", 80, kNone, kNone, "/a", kNone, "https://host:80/a", 0, INTERNET_SCHEME_HTTPS},
        {"ftp", "::1", 21, "u", "p", kNone, kNone, "ftp://u:p@[::1]"},
        {"ftp", "[::1]", 22, "u", kNone, kNone, kNone, "ftp://u@[::1]:22"},
        {"mailto", kNone, 0, kNone, kNone, "a@b", kNone, "mailto:a@b"},
        {"file", kNone, 0, kNone, kNone, "/etc", kNone, "file:///etc"},
        {"own", kNone, 0, kNone, kNone, "x y", kNone, "own:x y"},
        {"http", "h", 0, "a@b:c/", "%", "/x y?\xC3\xA4%", "?a b#%",
         "http://a%40b%3Ac%2F:%25@h/x%20y%3F%C3%A4%25?a%20b#%25", ICU_ESCAPE},
        {"http", "h", 0, kNone, kNone, "/x?y z", kNone, "http://h/x?y%20z", ICU_ESCAPE},
        {kNone, "h", 0, kNone, kNone, kNone, kNone, kInvalid, 0, INTERNET_SCHEME_UNKNOWN},
        {"http", "h", 0, kNone, "p", kNone, kNone, kInvalid}, {"http", kNone, 0, kNone, kNone, "/p", kNone, kInvalid},
        {"http", "h", 0, "evil/", kNone, "/p", kNone, kInvalid},
        {"ht tp", "h", 0, kNone, kNone, "/p", kNone, kInvalid}};
    URL_COMPONENTS parts;
    const auto create = [&](DWORD flags) {
        return made([&](char* url, DWORD* length) { return InternetCreateUrl(&parts, flags, url, length); });
    };
    for (const auto& row : kCases) {
        parts = {sizeof parts, text(row.scheme), 0, row.number, text(row.host), 0, row.port, text(row.user), 0,
                 text(row.password), 0, text(row.path), 0, text(row.extra), 0};
        EXPECT_EQ(create(row.flags), row.expected);
    }
    // clang-format on
    parts = components();
    for (const char* host : {"a/b", "a?b", "a#b", "a@b", "a b", "a\nb", "a\\b", "[a", "a:b/c"}) {
        parts.lpszHostName = text(host);
        EXPECT_EQ(create(0), kInvalid) << host;
    }
    parts.lpszHostName = text("hosting");
    parts.dwHostNameLength = 4;
    EXPECT_EQ(create(0), "http://host");
    DWORD length = 99;
    EXPECT_FALSE(InternetCreateUrl(&parts, 0, parts.lpszHostName, nullptr) ||
                 InternetCreateUrl(nullptr, 0, nullptr, &length));
}

TEST(CanonicalizeUrl, OneFormIsMadeOfMany) {
    // clang-format off
    const struct { const char* url; DWORD flags; const char* expected; } kCases[] = {
        {"  HTTP://User@HOST \r\n", 0, "http://User@host/"}, {"http://h/a/./b/../c", 0, "http://h/a/c"},
        {"http://h/../../a/..", 0, "http://h/"}, {"http://h/a//../b/.", 0, "http://h/a/b/"},
        {"http://h/a/../b", ICU_NO_META, "http://h/a/../b"}, {"http:\\\\h\\a b\\..\\c", 0, "http://h/c"},
        {"http://h/a b?c d#e f", 0, "http://h/a%20b?c%20d#e%20f"}, {"http://[::AB]:1", 0, "http://[::ab]:1/"},
        {"http://h/a b?c d#e f", ICU_BROWSER_MODE, "http://h/a%20b?c d#e f"}, {"", 0, ""},
        {"http://h/a b?c d", ICU_NO_ENCODE, "http://h/a b?c d"}, {"http://h:x/", 0, kInvalid},
        {"http://h/a <b>", ICU_ENCODE_SPACES_ONLY, "http://h/a%20<b>"},
        {"http://h/%41%20%zz", 0, "http://h/%41%20%zz"},
        {"http://h/%41%20", ICU_DECODE, "http://h/A%20"}, {"http://h/%41", ICU_ENCODE_PERCENT, "http://h/%2541"},
        {"http://h/%41%20%00", ICU_DECODE | ICU_NO_ENCODE, "http://h/A %00"}, {"http://h:?q", 0, "http://h/?q"},
        {"http://h/\xC3\xA4\"\x7f", 0, "http://h/%C3%A4%22%7F"}, {"mailto:A b@C/../d", 0, "mailto:A%20b@C/../d"},
        {"a/../b c", 0, "a/../b%20c"}, {"/a/../b", 0, "/b"}, {"file:/.//x", 0, "file:/.//x"},
        {"//HOST/..", 0, "//host/"}};
    // clang-format on
    for (const auto& row : kCases)
        EXPECT_EQ(made([&](char* buffer, DWORD* length) {
                      return InternetCanonicalizeUrl(row.url, buffer, length, row.flags);
                  }),
                  row.expected)
            << row.url;
}

TEST(CombineUrl, RelativeUrlsAreResolvedAsTheStandardHasIt) {
    // clang-format off
    struct Row { const char *relative, *expected, *base = "http://a/b/c/d;p?q#f"; };
    const Row kCases[] = {
        {"g:h", "http://a/b/c/g:h"}, {"g", "http://a/b/c/g"}, {"./g", "http://a/b/c/g"}, {"g/", "http://a/b/c/g/"},
        {"/g", "http://a/g"}, {"?y", "http://a/b/c/d;p?y"}, {"g?y", "http://a/b/c/g?y"},
        {"#s", "http://a/b/c/d;p?q#s"}, {"g#s", "http://a/b/c/g#s"}, {"g?y#s", "http://a/b/c/g?y#s"},
        {";x", "http://a/b/c/;x"}, {"", "http://a/b/c/d;p?q"}, {".", "http://a/b/c/"}, {"..", "http://a/b/"},
        {"../g", "http://a/b/g"}, {"../..", "http://a/"}, {"../../../g", "http://a/g"}, {"/./g", "http://a/g"},
        {"g.", "http://a/b/c/g."}, {"..g", "http://a/b/c/..g"}, {"./g/.", "http://a/b/c/g/"},
        {"g;x=1/../y", "http://a/b/c/y"}, {"g?y/../x", "http://a/b/c/g?y/../x"}, {"\\g", "http://a/g"},
        {"g", "http://a/g", "http://a"}, {"gg:h", "gg:h", "http://a/b"}, {"//g", "http://g/", "http://a/b"},
        {"//h:x", kInvalid, "http://a/b"}, {"g", kInvalid, "mailto:a@b"}, {"g", kInvalid, "b/c"},
        {"../d", "foo:a/d", "foo:a/b/c"}, {"./../../d", "foo:/d", "foo:a/b/c"}, {"./d/..", "foo:/", "foo:a"},
        {"../d/.", "foo:d/", "foo:a"}, {"..", "foo:", "foo:a"}, {nullptr, kInvalid, "http://a"}};
    // clang-format on
    for (const auto& row : kCases)
        EXPECT_EQ(made([&](char* buffer, DWORD* length) {
                      return InternetCombineUrl(row.base, row.relative, buffer, length, 0);
                  }),
                  row.expected)
            << row.base;
}

TEST(AfxParseUrl, ServerAndObjectAreToldApart) {
    DWORD service = 0;
    CString server, object, user, password;
    INTERNET_PORT port = 0;
    const auto parse = [&](const char* url) -> std::string {
        if (!AfxParseURLEx(url, service, server, object, port, user, password, ICU_DECODE)) return "none";
        return server + "|" + object + "|" + user + "|" + password + "|" + std::to_string(port).c_str();
    };
    EXPECT_EQ(parse("https://[::1]:1/a%20b?q#f"), "::1|/a b?q#f|||1");
    EXPECT_EQ(service, AFX_INET_SERVICE_HTTPS);
    EXPECT_EQ(parse("gopher://h?q"), "h|/?q|||70");
    EXPECT_EQ(service, AFX_INET_SERVICE_GOPHER);
    EXPECT_EQ(parse("ftp://a%40:b%3A@h/%41"), "h|/A|a@|b:|21");
    for (const char* none : {"host/path", "http://", ""}) EXPECT_EQ(parse(none), "none");
    EXPECT_EQ(object, "/A") << "as it was";
    EXPECT_TRUE(AfxParseURL("own://h/%41", service, server, object, port));
    EXPECT_TRUE(service == AFX_INET_SERVICE_UNK && object == "/%41");
}

}  // namespace
}  // namespace traiklofox::test
