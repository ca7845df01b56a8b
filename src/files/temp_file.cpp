// temp_file.cpp: where temporary files go, and the numbered ones there.

#include <traiklofox/clocks.h>
#include <traiklofox/temp_name.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "files/arguments.h"
#include "foundation/sys.h"

namespace sys = traiklofox::sys;

namespace {

constexpr const char* kVariables[] = {"TMP", "TEMP", "TMPDIR"};
constexpr const char* kDefaultDirectory = "/tmp";

constexpr size_t kPrefixLength = 3;
constexpr UINT kNumbers = 0x10000;
constexpr size_t kLongestDirectory = MAX_PATH - 14;  // "/", prefix, 4 digits, ".TMP" and a NUL are 13
constexpr mode_t kOwnerOnly = 0600;

const char* temporaryDirectory() {
    for (const char* variable : kVariables) {
        const char* value = std::getenv(variable);
        if (value != nullptr && *value != '\0') return value;
    }
    return kDefaultDirectory;
}

/// A name but for its number.
struct Pattern {
    std::string_view directory;
    std::string_view prefix;

    void fill(char (&name)[MAX_PATH], UINT number) const {
        const bool needsSlash = !directory.empty() && !directory.ends_with('/');
        std::snprintf(name, sizeof name, "%.*s%s%.*s%X.TMP", static_cast<int>(directory.size()),
                      directory.data(), needsSlash ? "/" : "", static_cast<int>(prefix.size()), prefix.data(),
                      number);
    }
};

/// The number of the file that it made; 0 with errno.
UINT makeFile(const Pattern& pattern, char (&name)[MAX_PATH]) {
    const UINT first = GetTickCount() % kNumbers;
    for (UINT tried = 0; tried < kNumbers; ++tried) {
        const UINT number = (first + tried) % kNumbers;
        if (number == 0) continue;  // would read as a failure
        pattern.fill(name, number);
        const sys::UniqueFd file(sys::open(name, O_RDWR | O_CREAT | O_EXCL, kOwnerOnly));
        if (file) return number;
        if (errno != EEXIST) return 0;
    }
    errno = EEXIST;
    return 0;
}

}  // namespace

DWORD GetTempPath(DWORD size, char* buffer) {
    const std::string_view directory = temporaryDirectory();
    const bool needsSlash = !directory.ends_with('/');
    const auto length = static_cast<DWORD>(directory.size() + (needsSlash ? 1 : 0));
    if (buffer == nullptr || size <= length) return length + 1;
    std::memcpy(buffer, directory.data(), directory.size());
    buffer[length - 1] = '/';
    buffer[length] = '\0';
    return length;
}

UINT GetTempFileName(const char* directory, const char* prefix, UINT unique, char* name) {
    if (!traiklofox::files::isGiven(directory) || !traiklofox::files::isGiven(name)) return 0;
    const Pattern pattern{directory,
                          std::string_view(prefix != nullptr ? prefix : "").substr(0, kPrefixLength)};
    if (pattern.prefix.find('/') != std::string_view::npos) {
        errno = EINVAL;
        return 0;
    }
    if (pattern.directory.size() > kLongestDirectory) {
        errno = ENAMETOOLONG;
        return 0;
    }
    char made[MAX_PATH];
    UINT number = unique;
    if (unique != 0)
        pattern.fill(made, unique % kNumbers);
    else
        number = makeFile(pattern, made);
    if (number != 0) std::memcpy(name, made, std::strlen(made) + 1);
    return number;
}
