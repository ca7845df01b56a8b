#include <traiklofox/diagnostics.h>

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "support/captured_output.h"

using traiklofox::test::CapturedStderr;

namespace {

TEST(UnixErr, ReadsTheFormattedTextAgain) {
    struct Case {
        const char *argument, *written;
    };
    for (const auto& [argument, written] :
         {Case{"plain", "<plain>"}, Case{"/tmp/%n%s%d", "</tmp/%n%s%d>"}, Case{"100%%", "<100%>"},
          Case{"%%%%n", "<%%n>"}, Case{"%%%", "<%%>"}, Case{"%", "<%>"}, Case{"", "<>"}}) {
        const CapturedStderr captured;
        unix_err("<%s>", argument);
        EXPECT_EQ(captured.text(), written) << argument;
    }
}

TEST(UnixErr, FormatsEveryArgument) {
    const CapturedStderr captured;
    unix_err("%s: %#x, %d of 100%%%%, %s\n", "Open", 255u, -3, "no");
    EXPECT_EQ(captured.text(), "Open: 0xff, -3 of 100%, no\n");
}

/// What the first `write` to standard error carries while `body` runs.
template <class Body>
std::string firstWrite(Body body) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);  // a message for each write
    const int standardError = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    body();
    dup2(standardError, STDERR_FILENO);
    std::string message(100'000, '\0');
    const ssize_t size = recv(ends[0], message.data(), message.size(), MSG_DONTWAIT);
    for (const int fd : {ends[0], ends[1], standardError}) close(fd);
    return message.substr(0, size > 0 ? static_cast<size_t>(size) : 0);
}

TEST(UnixErr, WritesATextOfAnyLengthAtOnce) {
    for (const size_t length : {1u, 4094u, 4095u, 4096u, 60'000u}) {
        const std::string path(length, 'p');
        EXPECT_EQ(firstWrite([&] { unix_err("%s\n", path.c_str()); }), path + "\n") << length;
    }
}

TEST(UnixErr, ShowsTheFormatAndKeepsErrnoWhenTheTextCannotBeMade) {
    const CapturedStderr captured;
    errno = ENOENT;
    unix_err("Open: %ls\n", L"\x263a");  // no such character in the "C" locale
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(captured.text(), "Open: %ls\n");
}

TEST(LastError, IsErrno) {
    SetLastError(ENOSPC);
    EXPECT_EQ(errno, ENOSPC);
    errno = EACCES;
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(EACCES));
}

}  // namespace
