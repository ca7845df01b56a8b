#pragma once

/// Directory search by handles: `FindFirstFile`, `FindNextFile`, `FindClose`.
///
/// A search reads its directory when it begins, and later calls only walk what it found: entries made or removed
/// meanwhile make no difference. Several threads may search at once; one thread at a time may use a search.

#include <traiklofox/file_attributes.h>
#include <traiklofox/handle.h>
#include <traiklofox/super_glob.h>

/// What a search tells of an entry: of what a symbolic link leads to, or of the link where that is nothing.
struct _WIN32_FIND_DATA {
    DWORD dwFileAttributes;       ///< FILE_ATTRIBUTE_DIRECTORY, or else FILE_ATTRIBUTE_NORMAL
    FILETIME ftCreationTime;      ///< that of the last change, as Unix keeps no time of creation
    FILETIME ftLastAccessTime;    ///< in whole seconds, as all three are
    FILETIME ftLastWriteTime;     ///< of the content
    DWORD nFileSizeHigh;          ///< always 0
    DWORD nFileSizeLow;           ///< the low 32 bits of the size in bytes
    DWORD dwReserved0;            ///< always 0
    DWORD dwReserved1;            ///< always 0
    char cFileName[MAX_PATH];     ///< the name within its directory
    char cAlternateFileName[14];  ///< always empty
};
typedef _WIN32_FIND_DATA WIN32_FIND_DATA;
typedef WIN32_FIND_DATA* PWIN32_FIND_DATA;
typedef WIN32_FIND_DATA* LPWIN32_FIND_DATA;

static_assert(sizeof(_WIN32_FIND_DATA) == 4156);
static_assert(offsetof(_WIN32_FIND_DATA, cFileName) == 44);
static_assert(offsetof(_WIN32_FIND_DATA, cAlternateFileName) == 4140);

/// A search: the entries of one directory that match a pattern (see super_glob.h), sorted by name. The pattern
/// "*" finds every entry, "." and ".." included; no other finds a name with a leading period that does not
/// stand in it.
class TRAIKLOFOX_API FindFileHandle : public Handle {
  public:
    /// Collects the entries. A directory that cannot be read gives none, with errno saying why. May throw
    /// `std::bad_alloc`.
    FindFileHandle(const CKZString& directory, const CKZString& pattern);
    ~FindFileHandle() override;
    DWORD What() const override;

    /// Describes the current entry in `*data`, all of which is cleared first, and goes on to the next one.
    /// Returns this handle, or INVALID_HANDLE_VALUE with `*data` as it was when there is none left.
    Handle* CopyOutFile(_WIN32_FIND_DATA* data);

  private:
    KZSuperGlob glob;
    KZSuperGlob::iterator position;
};

/// Begins a search and describes its first entry in `*data`. `path` is a directory, all of whose entries are
/// found, or a directory, "/", and a pattern:
///
///     dir, /dir/sub, dir/     the entries of that directory
///     dir/sub/*.txt, /x*      those of the directory before the last "/" that match
///     name, *.txt, d/x, ./x   always a directory: without a "/", or with the last one in the second place, the
///                             path is never taken apart
///
/// A path with neither "*" nor "?" that names a directory is that directory, however it could be taken apart.
///
/// data  may be null: then the result is not checked, and the first `FindNextFile` gives the first entry.
/// Returns a handle, for the caller to end with `FindClose`. INVALID_HANDLE_VALUE with errno when nothing
/// matches (ENOENT), the directory cannot be read (as the system says), the path is null (EINVAL) or its
/// pattern is too long (ENAMETOOLONG), or memory is short (ENOMEM); the last also for a null `data`.
///
/// Unlike Win32: a directory's path lists what is in it, not the directory itself; the path is taken apart as
/// above; a pattern is a shell's, so that "*.*" finds only names with a period.
TRAIKLOFOX_C_API Handle* FindFirstFile(const char* path, _WIN32_FIND_DATA* data);

/// Describes the next entry in `*data`. Returns TRUE, or FALSE with errno and `*data` as it was: the search is
/// exhausted (ENOENT), or `search` is no search or `data` is null (EINVAL).
TRAIKLOFOX_C_API BOOL FindNextFile(Handle* search, _WIN32_FIND_DATA* data);

/// Ends the search. Returns 2 in every case, deliberately: also for a null handle and INVALID_HANDLE_VALUE, which
/// it leaves alone.
///
/// Unlike `CloseHandle`, it destroys the object whatever references to it there are: no duplicate of the handle
/// may be used any more.
TRAIKLOFOX_C_API BOOL FindClose(Handle* search);
