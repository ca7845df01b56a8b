#include <gtest/gtest.h>
#include <traiklofox/internet.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace traiklofox::test {
namespace {

static_assert(sizeof(URL_COMPONENTS) == (sizeof(void*) == 4 ? 60 : 104));

/// The parts of a URL: scheme, host, port, user, password, path, extra; "-" for a null pointer.
struct Parts {
    std::string scheme, host = "";
    int port = 0;
    std::string user = "-", password = "-", path = "", extra = "";
    bool operator==(const Parts&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Parts& parts) {
    return out << parts.scheme << " | " << parts.host << " | " << parts.port << " | " << parts.user << " | "
               << parts.password << " | " << parts.path << " | " << parts.extra;
}

URL_COMPONENTS components() {
    URL_COMPONENTS made{};
    made.dwStructSize = sizeof made;
    return made;
}

std::string textOf(const char* text, DWORD length) {
    return text == nullptr ? "-" : std::string(text, length);
}

/// By pointers into the URL.
Parts cracked(const char* url, DWORD length = 0) {
    URL_COMPONENTS made = components();
    made.dwSchemeLength = made.dwHostNameLength = made.dwUserNameLength = made.dwPasswordLength =
        made.dwUrlPathLength = made.dwExtraInfoLength = 1;
    errno = 0;
    if (!InternetCrackUrl(url, length, 0, &made)) return {.scheme = "error", .port = errno};
    return {.scheme = textOf(made.lpszScheme, made.dwSchemeLength),
            .host = textOf(made.lpszHostName, made.dwHostNameLength),
            .port = made.nPort,
            .user = textOf(made.lpszUserName, made.dwUserNameLength),
            .password = textOf(made.lpszPassword, made.dwPasswordLength),
            .path = textOf(made.lpszUrlPath, made.dwUrlPathLength),
            .extra = textOf(made.lpszExtraInfo, made.dwExtraInfoLength)};
}

const Parts kNone{.scheme = "error", .port = EINVAL};

TEST(CrackUrl, PartsAreFoundWhereTheyStand) {
    const struct {
        const char* url;
        Parts expected;
    } kCases[] = {
        {"http://host", {"http", "host", 80}},
        {"HTTPS://Host/a/b?q=1#f", {"HTTPS", "Host", 443, "-", "-", "/a/b", "?q=1#f"}},
        {"ftp://user:p@ss:word@host:2121/x", {"ftp", "host", 2121, "user", "p@ss:word", "/x"}},
        {"ftp://user@host", {"ftp", "host", 21, "user"}},
        {"ftp://:@host", {"ftp", "host", 21, "", ""}},
        {"http://[::1]:8080/x", {"http", "::1", 8080, "-", "-", "/x"}},
        {"http://[fe80::1%25eth0]", {"http", "fe80::1%25eth0", 80}},
        {"http://host:/x", {"http", "host", 80, "-", "-", "/x"}},
        {"http://host?q/a@b", {"http", "host", 80, "-", "-", "", "?q/a@b"}},
        {"http://host#f", {"http", "host", 80, "-", "-", "", "#f"}},
        {"http://good\\@evil/", {"http", "good", 80, "-", "-", "\\@evil/"}},
        {"file:///etc/hosts", {"file", "", 0, "-", "-", "/etc/hosts"}},
        {"mailto:a@b?subject=c", {"mailto", "-", 0, "-", "-", "a@b?subject=c"}},
        {"javascript:a?b//c", {"javascript", "-", 0, "-", "-", "a?b//c"}},
        {"own+x.1-y://h:1/p", {"own+x.1-y", "h", 1, "-", "-", "/p"}},
        {"http://h:65535", {"http", "h", 65535}},
        {"http://h:65536", kNone},
        {"http://h:8x", kNone},
        {"http://h:-1", kNone},
        {"http://[::1", kNone},
        {"http://[::1]x", kNone},
        {"http://[]", kNone},
        {"http://a b/", kNone},
        {"http://a\r\nb/", kNone},
        {"http://a[b/", kNone},
        {"http://", kNone},
        {"http:///path", kNone},
        {"http:path", kNone},
        {"://host", kNone},
        {"c:/windows", kNone},
        {"host/path", kNone},
        {"1http://host", kNone},
        {"", kNone},
        {nullptr, kNone},
    };
    for (const auto& row : kCases)
        EXPECT_EQ(cracked(row.url), row.expected) << (row.url != nullptr ? row.url : "null");
    EXPECT_EQ(cracked("http://host/pathology", 16), (Parts{"http", "host", 80, "-", "-", "/path"}));
    EXPECT_EQ(cracked("http://host", 1000), (Parts{"http", "host", 80}));
}

TEST(CrackUrl, BuffersAreFilledAndEscapesTurnedIntoCharacters) {
    char host[5] = "xxxx";
    char path[12] = "";
    char user[8] = "";
    URL_COMPONENTS made = components();
    const auto reset = [&] {
        made.lpszHostName = host;
        made.dwHostNameLength = sizeof host;
        made.lpszUrlPath = path;
        made.dwUrlPathLength = sizeof path;
        made.lpszUserName = user;
        made.dwUserNameLength = sizeof user;
    };
    reset();
    ASSERT_TRUE(InternetCrackUrl("http://a%40b@host/p%2f%zz%0?q", 0, ICU_DECODE, &made));
    EXPECT_STREQ(host, "host");
    EXPECT_STREQ(user, "a@b");
    EXPECT_STREQ(path, "/p/%zz%0?q") << "with the extra information, which was not asked for";
    EXPECT_EQ(made.dwUrlPathLength, 10U);
    EXPECT_EQ(made.nScheme, INTERNET_SCHEME_HTTP);
    reset();
    ASSERT_TRUE(InternetCrackUrl("http://a%40b@host/%00%7", 0, 0, &made));
    EXPECT_STREQ(user, "a%40b");
    reset();
    ASSERT_TRUE(InternetCrackUrl("http://host/%00%7", 0, ICU_ESCAPE, &made));
    EXPECT_STREQ(path, "/%00%7");
    EXPECT_STREQ(user, "");
    reset();
    errno = 0;
    std::strcpy(path, "as it was");
    EXPECT_FALSE(InternetCrackUrl("gopher://hosts/a-longer-path", 0, 0, &made));
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(made.dwHostNameLength, 6U);
    EXPECT_EQ(made.dwUrlPathLength, 15U);
    EXPECT_EQ(made.dwUserNameLength, sizeof user);
    EXPECT_STREQ(path, "as it was");
    EXPECT_STREQ(host, "host");
    made = components();
    made.dwHostNameLength = 1;
    EXPECT_FALSE(InternetCrackUrl("http://host", 0, ICU_DECODE, &made));
    made = components();
    EXPECT_TRUE(InternetCrackUrl("own://host", 0, 0, &made)) << "nothing but the numbers is wanted";
    EXPECT_EQ(made.nScheme, INTERNET_SCHEME_UNKNOWN);
    made.dwStructSize = 4;
    EXPECT_FALSE(InternetCrackUrl("http://host", 0, 0, &made));
    EXPECT_FALSE(InternetCrackUrl("http://host", 0, 0, nullptr));
}

std::string created(URL_COMPONENTS& parts, DWORD flags = 0) {
    char url[200];
    DWORD length = sizeof url;
    errno = 0;
    if (!InternetCreateUrl(&parts, flags, url, &length)) return "error " + std::to_string(errno);
    EXPECT_EQ(length, std::strlen(url));
    return url;
}

TEST(CreateUrl, PartsAreJoinedAndEscaped) {
    const auto with = [](const char* scheme, INTERNET_SCHEME number, const char* host, INTERNET_PORT port,
                         const char* user, const char* password, const char* path, const char* extra,
                         DWORD flags = 0) {
        URL_COMPONENTS made = components();
        made.lpszScheme = const_cast<char*>(scheme);
        made.nScheme = number;
        made.lpszHostName = const_cast<char*>(host);
        made.nPort = port;
        made.lpszUserName = const_cast<char*>(user);
        made.lpszPassword = const_cast<char*>(password);
        made.lpszUrlPath = const_cast<char*>(path);
        made.lpszExtraInfo = const_cast<char*>(extra);
        return created(made, flags);
    };
    const auto kDefault = INTERNET_SCHEME_DEFAULT;
    const std::string invalid = "error " + std::to_string(EINVAL);
    EXPECT_EQ(with(nullptr, kDefault, "host", 80, nullptr, nullptr, "a", "?q"), "http://host/a?q");
    EXPECT_EQ(with(nullptr, INTERNET_SCHEME_HTTPS, "host", 80, nullptr, nullptr, "/a", nullptr),
              "https://host:80/a");
    EXPECT_EQ(with("ftp", kDefault, "::1", 21, "u", "p", nullptr, nullptr), "ftp://u:p@[::1]");
    EXPECT_EQ(with("ftp", kDefault, "[::1]", 22, "u", nullptr, nullptr, nullptr), "ftp://u@[::1]:22");
    EXPECT_EQ(with("mailto", kDefault, nullptr, 0, nullptr, nullptr, "a@b", nullptr), "mailto:a@b");
    EXPECT_EQ(with("file", kDefault, nullptr, 0, nullptr, nullptr, "/etc", nullptr), "file:///etc");
    EXPECT_EQ(with("own", kDefault, nullptr, 0, nullptr, nullptr, "x y", nullptr), "own:x y");
    EXPECT_EQ(with("http", kDefault, "h", 0, "a@b:c/", "%", "/x y?\xC3\xA4%", "?a b#%", ICU_ESCAPE),
              "http://a%40b%3Ac%2F:%25@h/x%20y%3F%C3%A4%25?a%20b#%25");
    EXPECT_EQ(with("http", kDefault, "h", 0, nullptr, nullptr, "/x?y z", nullptr, ICU_ESCAPE),
              "http://h/x?y%20z");
    EXPECT_EQ(with(nullptr, INTERNET_SCHEME_UNKNOWN, "h", 0, nullptr, nullptr, nullptr, nullptr), invalid);
    EXPECT_EQ(with("http", kDefault, "h", 0, nullptr, "p", nullptr, nullptr), invalid);
    EXPECT_EQ(with("http", kDefault, nullptr, 0, nullptr, nullptr, "/p", nullptr), invalid);
    for (const char* host : {"a/b", "a?b", "a#b", "a@b", "a b", "a\nb", "a\\b", "[a", "a:b/c"})
        EXPECT_EQ(with("http", kDefault, host, 0, nullptr, nullptr, "/p", nullptr), invalid) << host;
    EXPECT_EQ(with("http", kDefault, "h", 0, "evil/", nullptr, "/p", nullptr), invalid);
    EXPECT_EQ(with("ht tp", kDefault, "h", 0, nullptr, nullptr, "/p", nullptr), invalid);

    URL_COMPONENTS parts = components();
    char text[] = "hosting";
    parts.lpszHostName = text;
    parts.dwHostNameLength = 4;
    char buffer[11] = "untouched";
    DWORD length = sizeof buffer;
    EXPECT_FALSE(InternetCreateUrl(&parts, 0, buffer, &length));
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(length, 12U);
    EXPECT_STREQ(buffer, "untouched");
    length = 0;
    EXPECT_FALSE(InternetCreateUrl(&parts, 0, nullptr, &length));
    EXPECT_EQ(length, 12U);
    EXPECT_FALSE(InternetCreateUrl(&parts, 0, buffer, nullptr));
    EXPECT_FALSE(InternetCreateUrl(nullptr, 0, buffer, &length));
}

template <class Make>
std::string made(Make make) {
    DWORD length = 0;
    errno = 0;
    if (make(nullptr, &length) || errno != ERANGE) return "error";
    std::vector<char> buffer(length + 1, '\x7f');
    DWORD stored = length - 1;
    EXPECT_FALSE(make(buffer.data(), &stored));
    EXPECT_EQ(buffer[0], '\x7f');
    EXPECT_TRUE(make(buffer.data(), &length));
    EXPECT_EQ(buffer[length + 1], '\x7f');
    return buffer.data();
}

TEST(CanonicalizeUrl, OneFormIsMadeOfMany) {
    const struct {
        const char* url;
        DWORD flags;
        const char* expected;
    } kCases[] = {
        {"  HTTP://User@HOST \r\n", 0, "http://User@host/"},
        {"http://h/a/./b/../c", 0, "http://h/a/c"},
        {"http://h/../../a/..", 0, "http://h/"},
        {"http://h/a//../b/.", 0, "http://h/a/b/"},
        {"http://h/a/../b", ICU_NO_META, "http://h/a/../b"},
        {"http:\\\\h\\a b\\..\\c", 0, "http://h/c"},
        {"http://h/a b?c d#e f", 0, "http://h/a%20b?c%20d#e%20f"},
        {"http://h/a b?c d#e f", ICU_BROWSER_MODE, "http://h/a%20b?c d#e f"},
        {"http://h/a b?c d", ICU_NO_ENCODE, "http://h/a b?c d"},
        {"http://h/a <b>", ICU_ENCODE_SPACES_ONLY, "http://h/a%20<b>"},
        {"http://h/%41%20%zz", 0, "http://h/%41%20%zz"},
        {"http://h/%41%20", ICU_DECODE, "http://h/A%20"},
        {"http://h/%41%20%00", ICU_DECODE | ICU_NO_ENCODE, "http://h/A %00"},
        {"http://h/%41", ICU_ENCODE_PERCENT, "http://h/%2541"},
        {"http://h/\xC3\xA4\"\x7f", 0, "http://h/%C3%A4%22%7F"},
        {"http://[::AB]:1", 0, "http://[::ab]:1/"},
        {"http://h:?q", 0, "http://h/?q"},
        {"mailto:A b@C/../d", 0, "mailto:A%20b@C/../d"},
        {"a/../b c", 0, "a/../b%20c"},
        {"/a/../b", 0, "/b"},
        {"file:/.//x", 0, "file:/.//x"},
        {"//HOST/..", 0, "//host/"},
        {"", 0, ""},
        {"http://h:x/", 0, "error"},
    };
    for (const auto& row : kCases)
        EXPECT_EQ(made([&](char* buffer, DWORD* length) {
                      return InternetCanonicalizeUrl(row.url, buffer, length, row.flags);
                  }),
                  row.expected)
            << row.url;
}

TEST(CombineUrl, RelativeUrlsAreResolvedAsTheStandardHasIt) {
    const struct {
        const char *relative, *expected;
    } kCases[] = {
        {"g:h", "http://a/b/c/g:h"},  // no scheme has one letter
        {"gg:h", "gg:h"},
        {"g", "http://a/b/c/g"},
        {"./g", "http://a/b/c/g"},
        {"g/", "http://a/b/c/g/"},
        {"/g", "http://a/g"},
        {"//g", "http://g/"},
        {"?y", "http://a/b/c/d;p?y"},
        {"g?y", "http://a/b/c/g?y"},
        {"#s", "http://a/b/c/d;p?q#s"},
        {"g#s", "http://a/b/c/g#s"},
        {"g?y#s", "http://a/b/c/g?y#s"},
        {";x", "http://a/b/c/;x"},
        {"", "http://a/b/c/d;p?q"},
        {".", "http://a/b/c/"},
        {"..", "http://a/b/"},
        {"../g", "http://a/b/g"},
        {"../..", "http://a/"},
        {"../../../g", "http://a/g"},
        {"/./g", "http://a/g"},
        {"g.", "http://a/b/c/g."},
        {"..g", "http://a/b/c/..g"},
        {"./g/.", "http://a/b/c/g/"},
        {"g;x=1/../y", "http://a/b/c/y"},
        {"g?y/../x", "http://a/b/c/g?y/../x"},
        {"\\g", "http://a/g"},
        {"//h:x", "error"},
    };
    const auto combined = [](const char* base, const char* relative) {
        return made([&](char* buffer, DWORD* length) {
            return InternetCombineUrl(base, relative, buffer, length, 0);
        });
    };
    for (const auto& row : kCases)
        EXPECT_EQ(combined("http://a/b/c/d;p?q#f", row.relative), row.expected) << row.relative;
    EXPECT_EQ(combined("http://a", "g"), "http://a/g");
    EXPECT_EQ(combined("mailto:a@b", "g"), "error");
    EXPECT_EQ(combined("b/c", "g"), "error");
    DWORD length = 0;
    EXPECT_FALSE(InternetCombineUrl("http://a", nullptr, nullptr, &length, 0));
    EXPECT_EQ(errno, EINVAL);
}

TEST(AfxParseUrl, ServerAndObjectAreToldApart) {
    const struct {
        const char* url;
        DWORD service;
        const char *server, *object;
        INTERNET_PORT port;
    } kCases[] = {
        {"http://host", AFX_INET_SERVICE_HTTP, "host", "/", 80},
        {"https://[::1]:1/a%20b?q#f", AFX_INET_SERVICE_HTTPS, "::1", "/a%20b?q#f", 1},
        {"ftp://u:p@host/x", AFX_INET_SERVICE_FTP, "host", "/x", 21},
        {"gopher://h?q", AFX_INET_SERVICE_GOPHER, "h", "/?q", 70},
        {"file:///etc", AFX_INET_SERVICE_FILE, "", "/etc", 0},
        {"mailto:a@b", AFX_INET_SERVICE_MAILTO, "", "a@b", 0},
        {"telnet://h", AFX_INET_SERVICE_TELNET, "h", "/", 23},
        {"own://h/x", AFX_INET_SERVICE_UNK, "h", "/x", 0},
    };
    DWORD service = 0;
    CString server;
    CString object;
    INTERNET_PORT port = 0;
    for (const auto& row : kCases) {
        SCOPED_TRACE(row.url);
        EXPECT_TRUE(AfxParseURL(row.url, service, server, object, port));
        EXPECT_EQ(service, row.service);
        EXPECT_EQ(server, row.server);
        EXPECT_EQ(object, row.object);
        EXPECT_EQ(port, row.port);
    }
    CString user;
    CString password;
    EXPECT_TRUE(
        AfxParseURLEx("ftp://a%40:b%3A@h/%41", service, server, object, port, user, password, ICU_DECODE));
    EXPECT_EQ(user + " " + password + " " + object, "a@ b: /A");
    for (const char* none : {"host/path", "http://", ""}) {
        EXPECT_FALSE(AfxParseURL(none, service, server, object, port));
        EXPECT_EQ(object, "/A") << "as it was";
    }
}

}  // namespace
}  // namespace traiklofox::test
