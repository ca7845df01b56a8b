#include "support/temp_dir.h"

#include <errno.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace traiklofox::test {

namespace {

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

}  // namespace

TempDir::TempDir() {
    const char* parent = std::getenv("TMPDIR");
    // By its own name, for tests that ask the system where they are.
    path_ = std::filesystem::canonical(parent != nullptr ? parent : "/tmp") / "traiklofox-test-XXXXXX";
    if (::mkdtemp(path_.data()) == nullptr) fail(path_);
}

TempDir::~TempDir() {
    std::error_code ignored;  // what a test made unremovable goes with its machine
    std::filesystem::remove_all(path_, ignored);
}

std::string readText(const std::string& path) {
    std::ifstream file{path, std::ios::binary};
    if (!file) fail(path);
    return {std::istreambuf_iterator<char>{file}, {}};
}

void writeText(const std::string& path, std::string_view text) {
    const auto parent = std::filesystem::path{path}.parent_path();
    if (!parent.empty()) std::filesystem::create_directories(parent);
    std::ofstream file{path, std::ios::binary | std::ios::trunc};
    file.write(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.flush()) fail(path);
}

}  // namespace traiklofox::test
