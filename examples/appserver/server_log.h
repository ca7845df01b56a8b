#pragma once

// server_log.h: what the server has done, a dated line each.

#include <traiklofox/date_time.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace appserver {

/// Used by one thread.
class ServerLog {
  public:
    /// Appends to the file, making it if need be.
    explicit ServerLog(const std::filesystem::path& file);

    /// Adds a line that begins with date and time.
    void add(const std::string& text);
    /// The lines that this process has added since then.
    std::vector<std::string> since(const CDateTime& date) const;

  private:
    struct Entry {
        CDateTime date;
        std::string line;
    };
    std::ofstream file_;
    std::vector<Entry> entries_;
};

/// A date that somebody typed: "12/31/2024", or "31/12/2024" or "2024-12-31", which can mean nothing else. Of
/// "3/4/2024" the month stands first. Throws std::invalid_argument for any other text.
CDateTime typedDate(const std::string& text);

}  // namespace appserver
