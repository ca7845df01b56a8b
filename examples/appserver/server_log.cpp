// server_log.cpp: the library renders the date of each line, and reads those that are typed.

#include "server_log.h"

#include <stdexcept>

namespace appserver {

ServerLog::ServerLog(const std::filesystem::path& file) : file_(file, std::ios::app) {
    if (!file_) throw std::runtime_error("cannot write " + file.string());
}

void ServerLog::add(const std::string& text) {
    const CDateTime now = CDateTime::GetCurrentTime();
    entries_.push_back({now, now.Format() + " " + text});
    file_ << entries_.back().line << std::endl;
}

std::vector<std::string> ServerLog::since(const CDateTime& date) const {
    std::vector<std::string> lines;
    for (const Entry& entry : entries_)
        if (entry.date >= date) lines.push_back(entry.line);
    return lines;
}

CDateTime typedDate(const std::string& text) {
    CDateTime date;
    if (!date.ParseDateTime(text.c_str())) throw std::invalid_argument("not a date: " + text);
    return date;
}

}  // namespace appserver
