#pragma once

// File attributes made from a POSIX mode (`st_mode`), and their names.

#include <sys/stat.h>
#include <traiklofox/file_attributes.h>
#include <traiklofox/strings.h>

namespace traiklofox::files {

/// What a search, a watched directory and a rendered mode tell of a file: a directory, or normal.
constexpr DWORD typeAttributeOf(mode_t mode) {
    return S_ISDIR(mode) ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
}

/// What a path's attributes tell: what is neither a directory nor a regular file has none of those two, and
/// whatever anyone may execute (or search) counts as belonging to the system.
constexpr DWORD attributesOf(mode_t mode) {
    const DWORD type = S_ISDIR(mode) || S_ISREG(mode) ? typeAttributeOf(mode) : 0;
    return (mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0 ? type | FILE_ATTRIBUTE_SYSTEM : type;
}

static_assert(attributesOf(S_IFREG | 0755) == 0xA0 && attributesOf(S_IFDIR | 0755) == 0x120);
static_assert(attributesOf(S_IFIFO | 0644) == 0 && typeAttributeOf(S_IFIFO | 0755) == 0x80);

/// The names, in the order of the numbers, with commas between them, and the number of what has no name.
CKZString attributeNames(DWORD attributes);

}  // namespace traiklofox::files
