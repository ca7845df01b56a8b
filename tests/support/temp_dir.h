#pragma once

// A directory for one test's files, and whole-file reading and writing.

#include <string>
#include <string_view>

namespace traiklofox::test {

/// A fresh empty directory under $TMPDIR or /tmp, removed with all that is in it at the end. Its name has
/// neither blanks nor characters that mean something to a glob.
class TempDir {
  public:
    TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir();

    const std::string& path() const { return path_; }
    /// The path of `name` in the directory; nothing is made.
    std::string operator/(std::string_view name) const { return path_ + "/" + std::string{name}; }

  private:
    std::string path_;
};

/// The whole content of the file. Throws std::system_error when it cannot be read.
std::string readText(const std::string& path);
/// Makes the file hold exactly `text`, and its directories where they are missing. Throws std::system_error.
void writeText(const std::string& path, std::string_view text);

}  // namespace traiklofox::test
