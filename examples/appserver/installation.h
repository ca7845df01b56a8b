#pragma once

// installation.h: an installation directory with a registry, seen as the plain files that it consists of.
// Nothing here uses the library, so that what it finds can be held against what the processes say.

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace appserver {

/// The lines of a registry file, without the comments and the empty lines, which its reader ignores.
std::vector<std::string> registryLines(const std::filesystem::path& file);
std::size_t countKeyLines(const std::vector<std::string>& lines);
/// The value lines of the key whose path ends in `place`, its steps separated by "/".
std::vector<std::string> valueLinesOf(const std::vector<std::string>& lines, std::string place);
/// A value line in its parts, as in "Port = 0x1f4".
std::string assignmentOf(const std::string& valueLine);
/// The lines of any file.
std::vector<std::string> linesOf(const std::filesystem::path& file);
/// The whole of a file.
std::string textOf(const std::filesystem::path& file);

class Installation {
  public:
    /// Makes `home`/registry with a copy of the template in it.
    Installation(std::filesystem::path home, const std::filesystem::path& templateFile);

    const std::filesystem::path& home() const { return home_; }
    std::filesystem::path registryFile() const { return home_ / "registry" / "tw.registry"; }
    std::filesystem::path backupFile() const { return home_ / "registry" / "tw.registry.bak"; }
    std::filesystem::path templateFile() const { return home_ / "registry" / "tw.registry.template"; }
    std::filesystem::path logFile() const { return home_ / "server.log"; }
    /// The settings of an older edition.
    std::filesystem::path legacyFile() const { return home_ / "legacy.ini"; }
    /// The names of the files in the registry's directory, sorted.
    std::vector<std::string> fileNames() const;

  private:
    std::filesystem::path home_;
};

}  // namespace appserver
