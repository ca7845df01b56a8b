#pragma once

/// Directory search in the MFC manner.

#include <traiklofox/file_attributes.h>
#include <traiklofox/super_glob.h>

/// Finds the entries of one directory, sorted by name.
///
///     CFileFind finder;
///     BOOL more = finder.FindFile("/srv/deploy/*.jsp");
///     while (more) {
///         more = finder.FindNextFile();
///         if (!finder.IsDirectory()) deploy(finder.GetFilePath());
///     }
///
/// `FindNextFile` comes before the first look at an entry. Until then, and when there is no search, the members
/// that tell of an entry give an empty text, 0 or FALSE. Of a symbolic link they tell what it leads to, or of the
/// link itself where that is nothing. The directory is read by `FindFile`; what is made or removed later makes no
/// difference. One thread at a time may use an object. May throw `std::bad_alloc`.
class TRAIKLOFOX_API CFileFind {
  public:
    CFileFind();
    CFileFind(const CFileFind&) = delete;
    CFileFind& operator=(const CFileFind&) = delete;
    virtual ~CFileFind();

    /// Ends the previous search and begins one. What stands behind the last "/" of `name` is looked for in the
    /// directory before it, or in the current one:
    /// - an existing entry's name without "*" and "?" finds that entry alone, a directory too, whatever else is
    ///   in the name;
    /// - "*", "*.*" and a null `name` find every entry, "." and ".." included;
    /// - else it is a pattern (see super_glob.h), which finds a name with a leading period only if that stands
    ///   in it.
    ///
    /// Returns TRUE, or FALSE with errno when nothing was found (ENOENT), the directory cannot be read (as the
    /// system says) or the pattern is too long (ENAMETOOLONG); there is no search then.
    BOOL FindFile(const char* name = nullptr, DWORD unused = 0);

    /// Goes on to the next entry, the first one after `FindFile`. Returns TRUE when more entries follow that one.
    /// FALSE says that it is the last (errno ENOENT), which a further call does not leave any more, or that there
    /// is no search (EINVAL).
    BOOL FindNextFile();

    /// Ends the search.
    void Close();

    /// The name within the directory, the path, and the name without what follows its last period. A name's
    /// leading period begins no extension.
    CString GetFileName() const;
    CString GetFilePath() const;
    CString GetFileTitle() const;
    /// The path of the directory that is searched, without a "/" at its end unless it is "/". A relative one is
    /// completed with the directory that was current when the search began.
    CString GetRoot() const;
    /// In bytes.
    ULONGLONG GetLength() const;

    /// A directory, or a symbolic link to one.
    BOOL IsDirectory() const { return MatchesMask(FILE_ATTRIBUTE_DIRECTORY); }
    /// "." or "..".
    BOOL IsDots() const;
    /// No one may write, as `SetFileAttributes` leaves it with FILE_ATTRIBUTE_READONLY.
    BOOL IsReadOnly() const { return MatchesMask(FILE_ATTRIBUTE_READONLY); }
    /// The name has a leading period.
    BOOL IsHidden() const { return MatchesMask(FILE_ATTRIBUTE_HIDDEN); }
    /// Whether the entry has any of these attributes. It can have those that the members above ask for, and
    /// FILE_ATTRIBUTE_NORMAL when it is no directory.
    BOOL MatchesMask(DWORD mask) const;

    /// Store the time, in whole seconds, in `*time`; a file's creation is its last change, as Unix keeps no time
    /// of creation. FALSE, with `*time` as it was, when there is no entry or `time` is null.
    BOOL GetCreationTime(_FILETIME* time) const;
    BOOL GetLastAccessTime(_FILETIME* time) const;
    BOOL GetLastWriteTime(_FILETIME* time) const;

  private:
    std::unique_ptr<KZSuperGlob> found;     // null without a search
    KZSuperGlob::iterator next = nullptr;   // what `FindNextFile` goes on to
    const KZGlobResult* current = nullptr;  // null before that
    CString root;
};
