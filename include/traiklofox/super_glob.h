#pragma once

/// File name patterns, and the entries of a directory that match them.

#include <traiklofox/file_status.h>
#include <traiklofox/strings.h>
#include <traiklofox/types.h>

#include <cstddef>
#include <memory>

namespace traiklofox::files {
class GlobState;
}

/// An entry that was found: of what a symbolic link leads to, or of the link itself where that is nothing. Of an
/// entry whose status could not be read (a directory that may be listed and not searched) only the name and the
/// type in `mode` are known, the rest is 0.
struct KZGlobResult : KZFileStatus {
    const char* name;  ///< within the directory; lives as long as the `KZSuperGlob`
};

/// Collects the entries of directories whose names match any of its patterns, sorted by name, each once.
///
/// In a pattern
///
///     *            matches any bytes, also none
///     ?            matches one byte
///     [abc] [a-z]  matches one byte of those; a "]" in the first place is a member
///     [!a-z]       matches one byte that is none of those
///     {a,b{c,d}}   matches whatever one of the alternatives does, which are patterns themselves; one may be
///                  empty
///
/// and every other byte matches itself, a backslash too: "[*]" matches a star. What would open a class or
/// braces and is never closed is ordinary, as is "{}". Bytes are compared, whatever the locale; case counts.
/// A comparison takes at most the pattern's length times the name's, whatever the pattern.
///
///     KZSuperGlob found;
///     found.AddPattern("*.{jsp,html}", KZSuperGlob::ExplicitPeriod);
///     if (found.GlobMore("/srv/deploy"))
///         for (const KZGlobResult& entry : found) deploy(entry.name, entry.size);
///
/// One thread at a time may use an object, several may read its results. May throw `std::bad_alloc`, which
/// changes nothing.
class TRAIKLOFOX_API KZSuperGlob {
  public:
    /// Of a pattern.
    enum Flags : DWORD {
        /// A name's leading period must stand in the pattern; no wildcard matches it. Without this, "*"
        /// matches every entry, "." and ".." included.
        ExplicitPeriod = 0x8000,
    };

    /// Results cannot be changed.
    typedef const KZGlobResult* iterator;
    typedef const KZGlobResult* const_iterator;  ///< the same

    KZSuperGlob();
    KZSuperGlob(const KZSuperGlob&) = delete;
    KZSuperGlob& operator=(const KZSuperGlob&) = delete;
    ~KZSuperGlob();

    /// Adds a pattern for the next `GlobMore`; flags other than those above are ignored. Returns TRUE, or
    /// FALSE with ENAMETOOLONG for a pattern of MAX_PATH bytes or more, which is not added.
    BOOL AddPattern(const CKZString& pattern, DWORD flags = 0);
    /// Forgets the patterns. The results stay.
    void ClearPatterns();
    /// Adds the entries of `directory` that match to the results, which ends the validity of every iterator.
    /// An entry that vanishes meanwhile is left out.
    ///
    /// Returns TRUE, also when nothing matches, with errno as it was; or FALSE, with the results as they
    /// were, and errno as opening or reading the directory left it.
    BOOL GlobMore(const CKZString& directory);

    /// The results, in the order of their names' bytes; equal names, of several directories, in the order of
    /// the calls.
    iterator begin() const;
    iterator end() const;
    /// How many there are.
    size_t count() const { return static_cast<size_t>(end() - begin()); }
    /// Whether an entry of this name is among them.
    bool contains(const CKZString& name) const;

  private:
    const std::unique_ptr<traiklofox::files::GlobState> state;
};
