#pragma once

// profile_cache.h: the profiles that this process has read, and the changes that it has not written.
//
// Changing takes the lock for changes, then, where it waits for other processes, the file's lock; a profile's own
// lock is held only while its text is looked at or exchanged, so that a reader never waits for a writer's disk.

#include <time.h>
#include <traiklofox/thread_safety.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "foundation/mutex.h"
#include "foundation/small_mutex.h"
#include "profiles/profile_edit.h"
#include "profiles/profile_file.h"
#include "profiles/profile_text.h"

namespace traiklofox::profiles {

class Profile {
  public:
    explicit Profile(std::string_view path) : path_(path) {}

    const std::string& path() const { return path_; }

    /// Calls `look(text, error)` with the profile as it is now, with the changes not written yet. `error` is why
    /// there is nothing in it: ENOENT without a file, or why it could not be read; else 0.
    template <class Look>
    auto read(Look look) {
        const foundation::LockGuard guard(lock_);
        bringUpToDateLocked();
        renderLocked();
        return look(*text_, error_);
    }
    /// Calls `look(value, error)` with a key's value, with its quotes, or nothing.
    template <class Look>
    auto readValue(const FullName& name, Look look) {
        const foundation::LockGuard guard(lock_);
        bringUpToDateLocked();
        return look(valueLocked(name), error_);
    }

    /// Makes the change in memory, and keeps it to be written. False, with errno, when the file cannot be read. The
    /// text is made when somebody needs it, so that a change costs the same in a text of any size.
    bool keep(ProfileEdit edit);
    /// How many changes are not written.
    size_t unwritten();
    /// Those changes.
    ProfileEdits unwrittenEdits();
    /// The file holds this now, all changes in it.
    void setWritten(std::unique_ptr<ProfileText> text, const FileContent& file);
    /// Lets the next read look at the file.
    void distrust();

  private:
    void bringUpToDateLocked() TRAIKLOFOX_REQUIRES(lock_);
    void loadLocked() TRAIKLOFOX_REQUIRES(lock_);
    /// Makes the text of all changes.
    void renderLocked() TRAIKLOFOX_REQUIRES(lock_);
    void setTextLocked(std::unique_ptr<ProfileText> text, size_t changes) TRAIKLOFOX_REQUIRES(lock_);
    std::optional<std::string_view> valueLocked(const FullName& name) TRAIKLOFOX_REQUIRES(lock_);

    const std::string path_;
    foundation::SmallMutex<foundation::LockRank::Profile> lock_;
    std::unique_ptr<ProfileText> text_ TRAIKLOFOX_GUARDED_BY(lock_);
    FileState state_ TRAIKLOFOX_GUARDED_BY(lock_);
    bool isSettled_ TRAIKLOFOX_GUARDED_BY(lock_) = false;
    int error_ TRAIKLOFOX_GUARDED_BY(lock_) = 0;
    timespec lookedAt_ TRAIKLOFOX_GUARDED_BY(lock_) = {};
    ProfileEdits unwritten_ TRAIKLOFOX_GUARDED_BY(lock_);
    size_t rendered_ TRAIKLOFOX_GUARDED_BY(lock_) = 0;  // how many of these are in the text
    // The last change of each key by those that are not, unless one of them is of a whole section. Refers to them.
    std::unordered_map<FullName, const ProfileEdit*, FullNameHash, FullNameEqual> changed_
        TRAIKLOFOX_GUARDED_BY(lock_);
    bool isSectionChanged_ TRAIKLOFOX_GUARDED_BY(lock_) = false;
};

/// The profile of that path; the same one for every caller.
std::shared_ptr<Profile> profileOf(std::string_view path);

/// Makes the change, in the file or, with write caching, in memory. False with errno.
bool changeProfile(std::string_view path, ProfileEdit edit);

/// Writes the changes that are kept for this profile, and lets the next read look at the file. False with errno.
bool flushProfile(std::string_view path);
/// The same for all profiles; goes on after one that fails.
bool flushAllProfiles();

bool setWriteCaching(bool enabled);

}  // namespace traiklofox::profiles
