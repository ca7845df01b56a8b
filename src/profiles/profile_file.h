#pragma once

// profile_file.h: reads a profile's file whole, and replaces it. Takes no lock.

#include <cstdint>
#include <optional>
#include <string>

namespace traiklofox::profiles {

/// What tells one state of a file from another.
struct FileState {
    bool exists = false;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint64_t size = 0;
    std::int64_t seconds = 0;
    std::uint32_t nanoseconds = 0;

    bool operator==(const FileState&) const = default;
};

struct FileContent {
    std::string text;  // empty without a file
    FileState state;
    /// False while another write, in the same tick of the file system's clock, could leave the same state behind.
    bool isSettled = true;
};

/// Nothing, with errno, when it cannot be told. That there is no file is a state.
std::optional<FileState> stateOf(const char* path);

/// Nothing, with errno, when there is something that cannot be read.
std::optional<FileContent> readFile(const char* path);

/// The file itself, behind symbolic links; the path as it is where there is none.
std::string targetOf(const std::string& path);

/// Replaces the file, which gets its old owner and mode. False with errno: the old one is then whole, or the new one is
/// in its place and the directory could not be synced. Holds the file's lock: the caller.
bool replaceFile(const std::string& path, const std::string& text);

}  // namespace traiklofox::profiles
