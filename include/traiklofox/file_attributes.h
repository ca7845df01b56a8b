#pragma once

/// The attributes of a file, numbered in the alphabetical order of their names and not as on Win32.

#include <sys/types.h>
#include <traiklofox/strings.h>
#include <traiklofox/types.h>

/// Attributes of files, in the library's own numbers.
constexpr DWORD FILE_ATTRIBUTE_ARCHIVE = 0x001;
constexpr DWORD FILE_ATTRIBUTE_COMPRESSED = 0x002;
constexpr DWORD FILE_ATTRIBUTE_HIDDEN = 0x004;
constexpr DWORD FILE_ATTRIBUTE_OFFLINE = 0x008;
constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x010;
constexpr DWORD FILE_ATTRIBUTE_SYSTEM = 0x020;  ///< of what a path names: someone may execute it
constexpr DWORD FILE_ATTRIBUTE_TEMPORARY = 0x040;
constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x080;
constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x100;

constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFF;  ///< there is no such file

/// Returns the attributes of what `path` (null: EINVAL) names, following symbolic links: `FILE_ATTRIBUTE_DIRECTORY`,
/// `FILE_ATTRIBUTE_NORMAL` for a regular file, and `FILE_ATTRIBUTE_SYSTEM` where anyone may execute or search it;
/// `INVALID_FILE_ATTRIBUTES` with `errno` on failure. Any thread may call.
///
/// Unlike Win32: no other attribute is ever told, `FILE_ATTRIBUTE_READONLY` and `FILE_ATTRIBUTE_HIDDEN` neither, and
/// `FILE_ATTRIBUTE_NORMAL` may stand beside others.
TRAIKLOFOX_C_API DWORD GetFileAttributes(const char* path);

/// Changes who may write and execute what `path` names, following symbolic links, for owner, group and all others
/// alike: writing unless `attributes` has `FILE_ATTRIBUTE_READONLY`, executing exactly when it has
/// `FILE_ATTRIBUTE_SYSTEM`. The other attributes are ignored. Returns TRUE, or FALSE with `errno`. Any thread may call.
///
/// Unlike Win32: a file becomes writable for everyone, and a directory without `FILE_ATTRIBUTE_SYSTEM` can no longer
/// be searched.
TRAIKLOFOX_C_API BOOL SetFileAttributes(const char* path, DWORD attributes);

/// The name of what a POSIX file mode (`st_mode`, not attributes) is of: "Directory" for a directory, "Normal" for
/// anything else. May throw `std::bad_alloc`.
TRAIKLOFOX_API CKZString FileAttribs2String(mode_t mode);
