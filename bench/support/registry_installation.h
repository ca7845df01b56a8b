#pragma once

// A registry for benchmarks, on a machine of its own where that can be had. A process starts the registry once, so
// every benchmark of a program shares the one installation and asks it to hold what it needs.

#include <traiklofox/registry.h>

#include <string>

#include "support/temp_dir.h"

namespace traiklofox::bench {

/// Keys below "software\\bench\\<keys>", a hundred to a group, each with the same number of values.
struct RegistryShape {
    int keys = 0;
    int valuesPerKey = 5;

    std::string topKey() const { return "software\\bench\\" + std::to_string(keys); }
    /// The path of a key below the top.
    static std::string keyName(int key) {
        return "group" + std::to_string(key / 100) + "\\key" + std::to_string(key % 100);
    }
    /// The lines that the library would write, but for the order of the names.
    std::string text() const;
};

class RegistryInstallation {
  public:
    static RegistryInstallation& get();

    /// Puts a file of this text in place, and reads it.
    void hold(const std::string& text);
    /// A path in the directory of the registry file.
    std::string path(const char* name) const { return home_ / (std::string("registry/") + name); }

  private:
    RegistryInstallation();

    test::TempDir home_;
};

/// Opens a key for reading and writing; ends the program when it is not there.
HKEY openOrAbort(const std::string& key);

}  // namespace traiklofox::bench
