// installation.cpp: makes the directory and reads registry files as text.

#include "installation.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace appserver {
namespace {

constexpr char kRootWord[] = "hkey_local_machine";

bool isKeyLine(const std::string& line) {
    return line.find(kRootWord) != std::string::npos;
}

}  // namespace

std::string textOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream) throw std::runtime_error("cannot read " + file.string());
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

std::vector<std::string> linesOf(const std::filesystem::path& file) {
    std::istringstream text(textOf(file));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> registryLines(const std::filesystem::path& file) {
    std::vector<std::string> lines = linesOf(file);
    std::erase_if(lines, [](const std::string& line) { return line.empty() || line.front() == '#'; });
    return lines;
}

std::size_t countKeyLines(const std::vector<std::string>& lines) {
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), isKeyLine));
}

std::vector<std::string> valueLinesOf(const std::vector<std::string>& lines, std::string place) {
    std::replace(place.begin(), place.end(), '/', '\\');
    const std::string end = "\\" + place + ":";
    const auto key = std::find_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return isKeyLine(line) && line.find(end) != std::string::npos;
    });
    if (key == lines.end()) return {};
    return {key + 1, std::find_if(key + 1, lines.end(), isKeyLine)};
}

std::string assignmentOf(const std::string& valueLine) {
    const std::size_t colon = valueLine.find(':');
    const std::size_t data = valueLine.find('\t') + 1;
    return valueLine.substr(0, colon) + " = " + valueLine.substr(data, valueLine.find(';', data) - data);
}

Installation::Installation(std::filesystem::path home, const std::filesystem::path& source)
    : home_(std::move(home)) {
    std::filesystem::create_directories(home_ / "registry");
    std::filesystem::copy_file(source, templateFile());
}

std::vector<std::string> Installation::fileNames() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(home_ / "registry")) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace appserver
