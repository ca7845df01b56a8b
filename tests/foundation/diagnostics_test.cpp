#include <traiklofox/diagnostics.h>

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "support/captured_output.h"

namespace traiklofox::test {
namespace {

TEST(UnixErr, FormatsAndReadsTheFormattedTextAgain) {
    for (const auto& [argument, written] : {std::pair{"plain", "<plain>"},
                                            {"/tmp/%n%s%d", "</tmp/%n%s%d>"},
                                            {"100%%", "<100%>"},
                                            {"%%%%n", "<%%n>"},
                                            {"%%%", "<%%>"},
                                            {"%", "<%>"},
                                            {"", "<>"}}) {
        const CapturedStderr captured;
        unix_err("<%s>", argument);
        EXPECT_EQ(captured.text(), written) << argument;
    }
    const CapturedStderr captured;
    unix_err("%s: %#x, %d of 100%%%%, %s\n", "Open", 255u, -3, "no");
    errno = ENOENT;
    unix_err("Open: %ls\n", L"\x263a");  // no such character in the "C" locale: the format is shown
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(captured.text(), "Open: 0xff, -3 of 100%, no\nOpen: %ls\n");
}

TEST(UnixErr, WritesATextOfAnyLengthAtOnce) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);  // a message for each write
    const int standardError = dup(STDERR_FILENO);
    for (const size_t length : {1u, 4094u, 4095u, 4096u, 60'000u}) {
        const std::string path(length, 'p');
        dup2(ends[1], STDERR_FILENO);
        unix_err("%s\n", path.c_str());
        dup2(standardError, STDERR_FILENO);
        std::string message(100'000, '\0');
        const ssize_t size = recv(ends[0], message.data(), message.size(), MSG_DONTWAIT);
        EXPECT_EQ(message.substr(0, static_cast<size_t>(size)), path + "\n") << length;
    }
    for (const int fd : {ends[0], ends[1], standardError}) close(fd);
}

TEST(LastError, IsErrno) {
    SetLastError(ENOSPC);
    EXPECT_EQ(errno, ENOSPC);
    errno = EACCES;
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(EACCES));
}

}  // namespace
}  // namespace traiklofox::test
