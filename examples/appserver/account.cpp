// account.cpp: headings and lines on standard output.

#include "account.h"

#include <cstdarg>
#include <cstdio>

namespace appserver {
namespace {

int headings = 0;

}  // namespace

void heading(const char* title) {
    std::printf("\n%d. %s\n\n", ++headings, title);
    std::fflush(stdout);
}

void say(const char* format, ...) {
    std::fputs("   ", stdout);
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::putchar('\n');
    std::fflush(stdout);
}

void check(bool holds, const std::string& claim) {
    if (!holds) throw CheckFailed(claim);
}

}  // namespace appserver
