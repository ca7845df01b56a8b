#pragma once

/// The attributes of a file, numbered in the alphabetical order of their names and not as on Win32.

#include <traiklofox/types.h>

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
