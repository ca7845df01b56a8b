#pragma once

// What the tests of files share.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/bounded_wait.h"
#include "support/captured_output.h"
#include "support/fault_injection.h"
#include "support/owned_handle.h"
#include "support/role.h"
#include "support/temp_dir.h"

namespace traiklofox::test {

namespace fs = std::filesystem;
using faults::Call;

/// What a call that may fail leaves in errno; 0 when it succeeded.
inline int errorOf(bool hasSucceeded) {
    return hasSucceeded ? 0 : errno;
}

/// A file's place in a directory of the test's own.
class FileTest : public testing::Test {
  protected:
    const TempDir directory_;
    const std::string path_ = directory_ / "file";
};

}  // namespace traiklofox::test
