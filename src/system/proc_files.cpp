// proc_files.cpp: reads the files of /proc that tell of a process, and takes the line of its status apart.

#include "system/proc_files.h"

#include <charconv>
#include <cstdio>

#include "foundation/sys.h"

namespace traiklofox::system {

namespace {

template <class Number>
std::optional<Number> numberAt(std::string_view text) {
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() ? std::optional(number) : std::nullopt;
}

/// What follows so many blanks; nothing when there are fewer, or nothing follows.
std::optional<std::string_view> afterBlanks(std::string_view text, int count) {
    for (; count > 0; --count) {
        const size_t blank = text.find(' ');
        if (blank == text.npos) return std::nullopt;
        text.remove_prefix(blank + 1);
    }
    return text.empty() ? std::nullopt : std::optional(text);
}

/// The line from the last ")" on: a command's name may hold blanks and parentheses.
std::optional<std::string_view> behindName(std::string_view statLine) {
    const size_t end = statLine.rfind(')');
    return end == statLine.npos ? std::nullopt : std::optional(statLine.substr(end + 1));
}

}  // namespace

std::optional<std::string_view> readStart(int at, const char* path, std::span<char> buffer) {
    const sys::UniqueFd file(sys::openForReadingAt(at, path));
    if (!file) return std::nullopt;
    const ssize_t got = sys::read(file.get(), buffer.data(), buffer.size());
    if (got <= 0) return std::nullopt;
    return std::string_view(buffer.data(), static_cast<size_t>(got));
}

std::optional<StatNames> namesOf(std::string_view statLine) {
    constexpr int kToParent = 2;
    const auto rest = behindName(statLine);
    if (!rest) return std::nullopt;
    const size_t end = statLine.size() - rest->size();
    const size_t start = statLine.find('(');
    if (start >= end) return std::nullopt;
    const auto field = afterBlanks(*rest, kToParent);
    const auto parent = field ? numberAt<pid_t>(*field) : std::nullopt;
    if (!parent) return std::nullopt;
    return StatNames{statLine.substr(start, end - start), *parent};
}

std::string_view commandIn(std::string_view statLine) {
    const size_t start = statLine.find(' ');
    if (start == statLine.npos) return {};
    const std::string_view word =
        statLine.substr(start + 1, statLine.find_first_of(" \t\n\v\f\r", start + 1) - start - 1);
    const size_t open = word.find('(');
    const size_t close = word.find(')', open + 1);
    if (open == word.npos || close == word.npos) return {};
    return word.substr(open + 1, close - open - 1);
}

std::optional<int> exitSignalOf(std::string_view statLine) {
    constexpr int kToExitSignal = 36;  // behind the first two fields
    const auto rest = behindName(statLine);
    const auto field = rest ? afterBlanks(*rest, kToExitSignal) : std::nullopt;
    return field ? numberAt<int>(*field) : std::nullopt;
}

ProcPath::ProcPath(std::string_view id, const char* file) {
    std::snprintf(text_, sizeof text_, "%.*s/%s", static_cast<int>(id.size()), id.data(), file);
}

ProcPath::ProcPath(pid_t id, const char* file) {
    std::snprintf(text_, sizeof text_, "/proc/%d/%s", id, file);
}

}  // namespace traiklofox::system
