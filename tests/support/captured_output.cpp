#include "support/captured_output.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <system_error>

namespace traiklofox::test {

namespace {

void flushStreams() {
    std::cout.flush();
    std::cerr.flush();
    (void)std::fflush(nullptr);
}

}  // namespace

CapturedDescriptor::CapturedDescriptor(int fd) : fd_(fd) {
    flushStreams();
    original_ = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
    file_ = ::memfd_create("captured", MFD_CLOEXEC);
    // Append, so that several descriptors of it, in children too, never overwrite one another.
    if (original_ < 0 || file_ < 0 || ::fcntl(file_, F_SETFL, O_APPEND) != 0 || ::dup2(file_, fd) < 0) {
        throw std::system_error(errno, std::generic_category(), "CapturedDescriptor");
    }
}

CapturedDescriptor::~CapturedDescriptor() {
    flushStreams();
    ::dup2(original_, fd_);
    ::close(original_);
    ::close(file_);
}

std::string CapturedDescriptor::text() const {
    flushStreams();
    std::string result;
    char buffer[4096];
    ssize_t got;
    while ((got = ::pread(file_, buffer, sizeof buffer, static_cast<off_t>(result.size()))) > 0) {
        result.append(buffer, static_cast<size_t>(got));
    }
    return result;
}

}  // namespace traiklofox::test
