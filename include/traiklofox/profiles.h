#pragma once

/// Profile files: settings in a text file of sections, "[name]", and keys in them, "name=value".
///
/// A file name without a "/" is that of a file in the installation directory (the environment variable TWHOME); null
/// is "win.ini" there, which the functions without "Private" use. A relative path goes from the current directory at
/// the call. Symbolic links are followed.
///
/// What a file may hold. Names are compared without regard to the case of ASCII letters. Blanks around a name and
/// around a value do not count. A line that begins with ";" is a comment, anything else without a "=" is kept as it
/// is. Of several sections of one name, and of several keys of one name in a section, the first is meant. A line ends
/// with LF or CR LF, and counts up to the first NUL in it; a byte order mark of UTF-8 at the beginning does not count.
/// Files of more than 256 MiB are refused (EFBIG).
///
/// What a change leaves alone: comments, blank lines, the order, the blanks around "=", line ends, and the file's owner
/// and mode, as far as the process may give them. The file is replaced by a rename once the new one is on the disk, so
/// that readers and a crash find the old one or the new one. Changes by several threads and processes lose nothing of
/// each other: each takes the lock of a file beside the profile, its name with ".lock" behind it, and changes what the
/// file holds then. That file is made by the first change, and stays. A process that is killed while it writes leaves a
/// file beside them whose name begins with ".kztmp.".
///
/// Each process keeps the text of the profiles that it has read, and looks whether a file has been changed (by its
/// device, inode, size and time of change) when the system's clock has ticked since it last looked. So another
/// process's change is seen after 10 ms at most, and at once after a call of `WritePrivateProfileString` with three
/// null names.
///
/// Any thread may call any function, and so may a child after a `fork`; what write caching keeps stays with the parent.
/// None throws. Lack of memory counts as a failed read or write, with ENOMEM.

#include <traiklofox/types.h>

/// Stores the value of `key` in `buffer` of `size` bytes, with a NUL, without the quotes ('...' or "...") that enclose
/// it, if they do.
///
/// section       null: the names of all sections are stored, as a list
/// key           null: the names of the section's keys are stored, as a list
/// defaultValue  what is stored when there is no such file, section or key; null is "". Blanks at its end are left out.
/// Returns the length of what is stored, without the NUL. What does not fit is cut to `size` - 1 characters, which
/// is the result then, and `errno` is ERANGE. Where the default was used or the list is empty for want of the file,
/// section or key, `errno` says why: ENOENT, or why the file cannot be read. Otherwise `errno` is left alone. Without
/// a buffer the result is 0 (EINVAL).
///
/// A list is texts, each ended by a NUL, and one more NUL; its length is without that one. One that does not fit is
/// cut, ends with two NULs, and `size` - 2 is the result (with ERANGE; 0 for a size of 1).
TRAIKLOFOX_C_API DWORD GetPrivateProfileString(LPCSTR section, LPCSTR key, LPCSTR defaultValue, LPSTR buffer,
                                               DWORD size, LPCSTR fileName);

/// The number that the value of `key` begins with: decimal, with a sign, or hexadecimal behind "0x"; 0 where it begins
/// with none. A negative one is given modulo 2^32, as is one that is too large. Returns `defaultValue` when there
/// is no such key, with `errno` as `GetPrivateProfileString` has it, or its value is empty.
TRAIKLOFOX_C_API UINT GetPrivateProfileInt(LPCSTR section, LPCSTR key, INT defaultValue, LPCSTR fileName);

/// Stores a section's lines, "name=value" without blanks around the two, in `buffer` as a list (see
/// `GetPrivateProfileString`, also for the result), in their order; lines without a "=" as they are; no comments and no
/// blank lines. Quotes stay. `section` may not be null (EINVAL).
TRAIKLOFOX_C_API DWORD GetPrivateProfileSection(LPCSTR section, LPSTR buffer, DWORD size, LPCSTR fileName);

/// Stores the names of all sections in `buffer` as a list; see `GetPrivateProfileString`.
TRAIKLOFOX_C_API DWORD GetPrivateProfileSectionNames(LPSTR buffer, DWORD size, LPCSTR fileName);

/// Stores the `size` bytes that `WritePrivateProfileStruct` wrote. Returns TRUE; FALSE, with nothing stored, when there
/// is no such key (ENOENT), it holds another number of bytes, no bytes or a wrong checksum (EBADMSG), the file cannot
/// be read, or a pointer is null (EINVAL).
TRAIKLOFOX_C_API BOOL GetPrivateProfileStruct(LPCSTR section, LPCSTR key, LPVOID data, UINT size,
                                              LPCSTR fileName);

/// Sets a key's value. A file, section or key that is not there is made: a section at the end of the file, a key
/// behind the section's last.
///
/// key    null: the whole section is deleted, its comments too
/// value  null: the key is deleted
/// Deleting deletes everything of that name, and succeeds when there is nothing.
///
/// Returns TRUE when the change is in the file and on the disk, or, with write caching, is kept to be written. FALSE
/// with `errno`, and the file is as it was: why it could not be read, locked or written (EACCES also for one that the
/// process may not write, though it might replace it), or EINVAL for
///   - a null section with a key or a value;
///   - a section's name with a "]" or a line end in it;
///   - a key's name that is blank, begins with "[" or ";", or has a "=" or a line end in it;
///   - a value with a line end in it.
/// Only where the directory cannot be synced after the rename, FALSE leaves the change in the file.
/// A value is written without blanks around it: enclose in quotes what begins or ends with blanks or quotes.
///
/// With section, key and value all null: flushes. Changes to that file that are kept by write caching are written (to
/// all files, if `fileName` is null), and the next read looks at the file. Returns FALSE then, as Win32 does, with an
/// `errno` of 0 if all is written.
///
/// Unlike Win32: what would not be read back as it was written is refused.
TRAIKLOFOX_C_API BOOL WritePrivateProfileString(LPCSTR section, LPCSTR key, LPCSTR value, LPCSTR fileName);

/// Replaces all keys of a section by `lines`, a list of texts "name=value", each ended by a NUL, and one more NUL.
/// The section's comments and blank lines stay; a comment among `lines` that is there already is not added. Null
/// deletes the section. Results as of `WritePrivateProfileString`; EINVAL also for a blank line, a line with a line end
/// in it and one that begins with "[".
TRAIKLOFOX_C_API BOOL WritePrivateProfileSection(LPCSTR section, LPCSTR lines, LPCSTR fileName);

/// Sets a key's value to `size` bytes in hexadecimal, with a checksum. Null `data` deletes the key. Results as of
/// `WritePrivateProfileString`.
TRAIKLOFOX_C_API BOOL WritePrivateProfileStruct(LPCSTR section, LPCSTR key, LPVOID data, UINT size,
                                                LPCSTR fileName);

/// The same on "win.ini".
TRAIKLOFOX_C_API DWORD GetProfileString(LPCSTR section, LPCSTR key, LPCSTR defaultValue, LPSTR buffer,
                                        DWORD size);
TRAIKLOFOX_C_API UINT GetProfileInt(LPCSTR section, LPCSTR key, INT defaultValue);
TRAIKLOFOX_C_API DWORD GetProfileSection(LPCSTR section, LPSTR buffer, DWORD size);
TRAIKLOFOX_C_API BOOL WriteProfileString(LPCSTR section, LPCSTR key, LPCSTR value);
TRAIKLOFOX_C_API BOOL WriteProfileSection(LPCSTR section, LPCSTR lines);

/// Turns write caching on or off (as it is at first) for the whole process. While it is on, changes are kept in memory,
/// where this process's reads find them, and are made in the file all at once: when a flush is asked for
/// (`WritePrivateProfileString`), when a file has 1000 of them, when caching is turned off, and at the process's normal
/// end (`exit`). They are then made in what the file holds at that moment. A process that is killed loses them.
///
/// Returns TRUE. Turned off, FALSE with `errno` when a file could not be written: its changes are kept, and go with the
/// next one to that file.
TRAIKLOFOX_API BOOL SetProfileWriteCaching(BOOL enabled);
