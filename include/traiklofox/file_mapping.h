#pragma once

/// Named file mappings: memory that processes share by a name.
///
/// The memory of a name is an ordinary file, "/tmp/." and the name, 4 bytes longer than the mapping. It outlives every
/// process, its content with it, until somebody deletes it. Every process of one machine that may open it shares it;
/// what it holds is as trustworthy as they are.
///
/// Any thread may call any function.

#include <fcntl.h>
#include <sys/mman.h>
#include <traiklofox/handle.h>
#include <traiklofox/types.h>

/// How a mapping is opened: the flags of `open`.
constexpr DWORD PAGE_READONLY = O_RDONLY;
constexpr DWORD PAGE_READWRITE = O_RDWR;

/// How a view is accessed: the protection bits of `mmap`.
constexpr DWORD FILE_MAP_READ = PROT_READ;
constexpr DWORD FILE_MAP_WRITE = PROT_WRITE;
constexpr DWORD FILE_MAP_ALL_ACCESS = PROT_READ | PROT_WRITE;

/// Opens the mapping `name`, or makes it, filled with zeros.
///
/// file        must be INVALID_HANDLE_VALUE: unlike Win32, no file of the caller's can be mapped
/// security    ignored
/// protection  `PAGE_READWRITE`, or `PAGE_READONLY` for a handle that allows for reading views alone
/// sizeHigh    ignored
/// sizeLow     the size in bytes of a mapping that is made now; an existing one keeps its size
/// name        must be given, not be empty, and have no "/" in it
/// Returns a handle, which the caller closes, views staying valid. `errno` is then 0 for a new mapping, and EEXIST for
/// one that existed.
/// Returns null with `errno` on failure: an argument that must not be (EINVAL); a symbolic link (ELOOP), a file with
/// several names or what is no regular file (EPERM) stands in the file's place; it cannot be opened or sized, in which
/// case nothing new is left behind; no memory (ENOMEM).
///
/// Where the registry template is installed, the file gets its owner, group and mode, as far as the process may give
/// them; else it has the mode 0664, less the umask. A call that finds a file without any size waits up to a second
/// for its maker to size it. If he has not by then, having died, the call sizes it in his place and counts as its
/// maker; with `PAGE_READONLY` it fails (EINVAL).
///
/// The file is sparse: on a full /tmp, touching a page of a view for the first time ends the process (SIGBUS).
TRAIKLOFOX_C_API Handle* CreateFileMapping(Handle* file, _SECURITY_ATTRIBUTES* security, DWORD protection,
                                           DWORD sizeHigh, DWORD sizeLow, const char* name);

/// Maps `bytes` bytes of a mapping, from `offsetLow` on, into the process's memory.
///
/// mapping     what `CreateFileMapping` returned
/// access      `FILE_MAP_READ`, `FILE_MAP_WRITE` or `FILE_MAP_ALL_ACCESS`, no more than the handle's protection allows
/// offsetHigh  ignored
/// offsetLow   must be a multiple of the page size; 0 almost always
/// bytes       how many, at most what the mapping has from there on; 0 is all of a mapping whose offset is 0
/// Returns the view, which is `UnmapViewOfFile`'s to end. Null with `errno`: `mapping` is no such handle (EINVAL), or
/// no memory to note the view (ENOMEM).
///
/// Deliberately, a failure of `mmap` is not detected: it returns a small number that is not null and is not a view,
/// with `errno` set. Setting `errno` to 0 before and looking at it after tells. It does not fail with arguments as
/// above, as long as there is address space. Of a view that is longer than the mapping, what lies beyond must not be
/// touched (SIGBUS).
///
/// The 4 bytes before the view belong to it; with exactly `FILE_MAP_WRITE` they get its length, theirs included.
TRAIKLOFOX_C_API void* MapViewOfFile(Handle* mapping, DWORD access, DWORD offsetHigh, DWORD offsetLow,
                                     SIZE_T bytes);

/// Ends a view of this process, of whatever access and length. Returns TRUE, or FALSE with `errno`: null, or no
/// address that `MapViewOfFile` returned and that is still mapped (EINVAL). What stands in the memory before the view
/// plays no part.
TRAIKLOFOX_C_API BOOL UnmapViewOfFile(const void* view);
