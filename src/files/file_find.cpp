// file_find.cpp: directory search in the MFC manner.

#include <traiklofox/file_find.h>

#include <limits.h>

#include <array>
#include <cerrno>
#include <string>
#include <string_view>

#include "files/file_attributes.h"
#include "files/file_time.h"
#include "files/search_path.h"
#include "foundation/sys.h"

namespace sys = traiklofox::sys;
using traiklofox::files::fileTimeOf;
using traiklofox::files::kEverything;

namespace {

constexpr std::string_view kEverythingOnWin32 = "*.*";

bool isDots(std::string_view name) {
    return name == "." || name == "..";
}

DWORD attributesOf(const KZGlobResult& entry) {
    DWORD attributes = traiklofox::files::typeAttributeOf(entry.mode);
    if ((entry.mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0) attributes |= FILE_ATTRIBUTE_READONLY;
    if (entry.name[0] == '.') attributes |= FILE_ATTRIBUTE_HIDDEN;
    return attributes;
}

/// The pattern that only this name matches.
std::string quoted(std::string_view name) {
    std::string pattern;
    for (const char byte : name) {
        if (byte == '[' || byte == '{')
            pattern.append({'[', byte, ']'});
        else
            pattern += byte;
    }
    return pattern;
}

bool exists(const char* path) {
    struct statx status;
    return sys::lstat(path, &status) == 0;
}

/// The directory's path from the root on, as far as it can be known.
std::string rootOf(std::string_view directory) {
    while (directory.starts_with("./")) {
        directory.remove_prefix(1);
        directory.remove_prefix(std::min(directory.find_first_not_of('/'), directory.size()));
    }
    if (directory == ".") directory = {};
    std::string root;
    if (!directory.starts_with('/')) {
        std::array<char, PATH_MAX> current{};
        if (::getcwd(current.data(), current.size()) != nullptr) root = current.data();
        if (!root.ends_with('/') && !directory.empty() && !root.empty()) root += '/';
    }
    root += directory;
    while (root.size() > 1 && root.ends_with('/')) root.pop_back();
    return root;
}

BOOL storeTime(const KZGlobResult* entry, LONGLONG KZGlobResult::*seconds, _FILETIME* time) {
    if (entry == nullptr || time == nullptr) return FALSE;
    *time = fileTimeOf(entry->*seconds);
    return TRUE;
}

}  // namespace

CFileFind::CFileFind() = default;
CFileFind::~CFileFind() = default;

BOOL CFileFind::FindFile(const char* name, DWORD) {
    Close();
    const std::string path = name != nullptr ? name : std::string(kEverything);
    const size_t nameStart = path.rfind('/') + 1;  // 0 without a "/"
    const std::string directory = nameStart == 0 ? "." : path.substr(0, nameStart);
    std::string pattern = path.substr(nameStart);
    DWORD flags = KZSuperGlob::ExplicitPeriod;
    if (pattern == kEverything || pattern == kEverythingOnWin32) {
        pattern = kEverything;
        flags = 0;
    } else if (pattern.find_first_of("*?") == pattern.npos && exists(path.c_str())) {
        pattern = quoted(pattern);
    }

    auto search = std::make_unique<KZSuperGlob>();
    if (!search->AddPattern(pattern, flags) || !search->GlobMore(directory)) return FALSE;
    if (search->count() == 0) {
        errno = ENOENT;
        return FALSE;
    }
    root = rootOf(directory);
    next = search->begin();
    found = std::move(search);
    return TRUE;
}

BOOL CFileFind::FindNextFile() {
    if (!found) {
        errno = EINVAL;
        return FALSE;
    }
    if (next != found->end()) current = next++;
    if (next != found->end()) return TRUE;
    errno = ENOENT;
    return FALSE;
}

void CFileFind::Close() {
    current = nullptr;
    next = nullptr;
    found.reset();
    root.clear();
}

CString CFileFind::GetFileName() const {
    return current != nullptr ? CString(current->name) : CString();
}

CString CFileFind::GetFilePath() const {
    if (current == nullptr) return CString();
    std::string path = root;
    if (!path.empty() && !path.ends_with('/')) path += '/';
    return path + current->name;
}

CString CFileFind::GetFileTitle() const {
    const std::string_view name = current != nullptr ? current->name : "";
    const size_t period = name.rfind('.');
    const bool hasExtension = period != name.npos && period > 0 && !isDots(name);
    return std::string(hasExtension ? name.substr(0, period) : name);
}

CString CFileFind::GetRoot() const {
    return root;
}

ULONGLONG CFileFind::GetLength() const {
    return current != nullptr ? current->size : 0;
}

BOOL CFileFind::IsDots() const {
    return current != nullptr && isDots(current->name);
}

BOOL CFileFind::MatchesMask(DWORD mask) const {
    return current != nullptr && (attributesOf(*current) & mask) != 0;
}

BOOL CFileFind::GetCreationTime(_FILETIME* time) const {
    return GetLastWriteTime(time);
}

BOOL CFileFind::GetLastAccessTime(_FILETIME* time) const {
    return storeTime(current, &KZGlobResult::accessTime, time);
}

BOOL CFileFind::GetLastWriteTime(_FILETIME* time) const {
    return storeTime(current, &KZGlobResult::modificationTime, time);
}
