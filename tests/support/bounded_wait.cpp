#include "support/bounded_wait.h"

#include <filesystem>

namespace traiklofox::test {

namespace {

int entriesOf(const char* directory) {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator{directory}) ++count;
    return count;
}

}  // namespace

int openDescriptors() {
    return entriesOf("/proc/self/fd") - 1;  // without the one that lists them
}

int threadCount() {
    return entriesOf("/proc/self/task");
}

}  // namespace traiklofox::test
