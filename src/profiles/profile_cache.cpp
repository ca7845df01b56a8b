#include "profiles/profile_cache.h"

#include <traiklofox/file_lock.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <unordered_map>

#include "files/renewed_in_child.h"
#include "foundation/sys.h"

namespace traiklofox::profiles {

namespace {

using foundation::LockGuard;
using foundation::LockRank;

constexpr size_t kMostProfiles = 64;  // kept, unless changes wait in them
constexpr size_t kMostUnwritten = 1000;

struct PathHash {
    using is_transparent = void;
    size_t operator()(std::string_view path) const { return std::hash<std::string_view>{}(path); }
};
using ProfileMap = std::unordered_map<std::string, std::shared_ptr<Profile>, PathHash, std::equal_to<>>;

/// A forked child begins with another: the changes that wait here are the parent's to write, and who holds a lock of
/// this one is not in the child.
struct Cache {
    foundation::SmallMutex<LockRank::ProfileMap> mapLock;
    ProfileMap profiles TRAIKLOFOX_GUARDED_BY(mapLock);
    /// Held from the reading of what is changed to its replacement: the file's lock belongs to the whole process, and
    /// two names may be one file's.
    foundation::Mutex<LockRank::ProfileWrites> writing;
};
using CacheOfProcess = files::RenewedInChild<Cache>;

/// Of the child, too; changed under `writing`.
constinit std::atomic<bool> isCaching{false};
constinit std::atomic<bool> flushesAtExit{false};

/// Lets go of what nobody uses.
void makeRoomLocked(Cache& cache) TRAIKLOFOX_REQUIRES(cache.mapLock) {
    // Only under this lock does anybody begin to use one.
    std::erase_if(cache.profiles, [](auto& entry) {
        return entry.second.use_count() == 1 && entry.second->unwritten() == 0;
    });
}

/// Makes these changes in what the file holds, under its lock. Holds the lock for changes: the caller, here and below.
bool writeLocked(Profile& profile, const ProfileEdits& edits) {
    const std::string target = targetOf(profile.path());
    FileLock lock;
    if (lock.OpenAndLockFile((target + ".lock").c_str(), FileLock::in, /*already=*/nullptr, /*count=*/0) ==
        FALSE)
        return false;
    auto file = readFile(target.c_str());
    if (!file) return false;
    auto text = std::make_unique<ProfileText>(std::move(file->text));
    if (std::string changed = edited(*text, edits); changed != text->text()) {
        text = std::make_unique<ProfileText>(std::move(changed));
        if (!replaceFile(target, text->text())) return false;
        const auto written = stateOf(target.c_str());
        file->state = written.value_or(FileState{});
        file->isSettled = false;  // others may write in the same tick
    }
    profile.setWritten(std::move(text), *file);
    return true;
}

bool writeUnwrittenLocked(Profile& profile) {
    const auto edits = profile.unwrittenEdits();
    return edits.empty() || writeLocked(profile, edits);
}

std::vector<std::shared_ptr<Profile>> allProfiles(Cache& cache) {
    const LockGuard guard(cache.mapLock);
    std::vector<std::shared_ptr<Profile>> all;
    for (const auto& [path, profile] : cache.profiles) all.push_back(profile);
    return all;
}

bool flushAllLocked(Cache& cache) TRAIKLOFOX_REQUIRES(cache.writing) {
    int error = 0;
    for (const auto& profile : allProfiles(cache)) {
        if (!writeUnwrittenLocked(*profile)) error = errno;
        profile->distrust();
    }
    if (error != 0) errno = error;
    return error == 0;
}

void flushAtExit() {
    try {
        (void)flushAllProfiles();  // nobody is left to hear of it
    } catch (const std::bad_alloc&) {
        return;
    }
}

}  // namespace

void Profile::bringUpToDateLocked() {
    const timespec tick = sys::monotonicTick();
    if (text_ && tick.tv_nsec == lookedAt_.tv_nsec && tick.tv_sec == lookedAt_.tv_sec) return;
    if (!text_ || !isSettled_ || error_ != 0 || stateOf(path_.c_str()) != state_) loadLocked();
    lookedAt_ = tick;
}

void Profile::loadLocked() {
    auto file = readFile(path_.c_str());
    error_ = file ? 0 : errno;
    if (!file)
        file.emplace();
    else if (!file->state.exists)
        error_ = ENOENT;
    state_ = file->state;
    isSettled_ = file->isSettled;
    setTextLocked(std::make_unique<ProfileText>(std::move(file->text)), /*changes=*/0);
    isSectionChanged_ = !unwritten_.empty();  // what is in the text is not known
    if (!unwritten_.empty() && error_ == ENOENT) error_ = 0;
}

void Profile::setTextLocked(std::unique_ptr<ProfileText> text, size_t changes) {
    text_ = std::move(text);
    rendered_ = changes;
    changed_.clear();
    isSectionChanged_ = false;
}

void Profile::renderLocked() {
    if (rendered_ < unwritten_.size())
        setTextLocked(std::make_unique<ProfileText>(edited(*text_, unwritten_, rendered_)),
                      unwritten_.size());
}

std::optional<std::string_view> Profile::valueLocked(const FullName& name) {
    if (isSectionChanged_) renderLocked();
    const auto found = changed_.find(name);
    if (found == changed_.end()) return text_->value(name.section, name.key);
    if (found->second->kind == ProfileEdit::Kind::DeleteKey) return std::nullopt;
    return found->second->value;
}

bool Profile::keep(ProfileEdit edit) {
    const LockGuard guard(lock_);
    bringUpToDateLocked();
    if (error_ != 0 && error_ != ENOENT) {
        errno = error_;
        return false;
    }
    using enum ProfileEdit::Kind;
    unwritten_.push_back(std::move(edit));
    const ProfileEdit& kept = unwritten_.back();
    if (kept.kind != SetKey && kept.kind != DeleteKey) isSectionChanged_ = true;
    try {
        if (!isSectionChanged_) changed_.insert_or_assign({kept.section, kept.key}, &kept);
    } catch (...) {
        unwritten_.pop_back();
        throw;
    }
    error_ = 0;
    return true;
}

size_t Profile::unwritten() {
    const LockGuard guard(lock_);
    return unwritten_.size();
}

ProfileEdits Profile::unwrittenEdits() {
    const LockGuard guard(lock_);
    return unwritten_;
}

void Profile::setWritten(std::unique_ptr<ProfileText> text, const FileContent& file) {
    const LockGuard guard(lock_);
    setTextLocked(std::move(text), /*changes=*/0);
    state_ = file.state;
    isSettled_ = file.isSettled;
    error_ = file.state.exists ? 0 : ENOENT;
    lookedAt_ = sys::monotonicTick();
    unwritten_.clear();
}

void Profile::distrust() {
    const LockGuard guard(lock_);
    lookedAt_ = {};
    isSettled_ = false;
}

std::shared_ptr<Profile> profileOf(std::string_view path) {
    Cache& cache = CacheOfProcess::get();
    const LockGuard guard(cache.mapLock);
    const auto found = cache.profiles.find(path);
    if (found != cache.profiles.end()) return found->second;
    if (cache.profiles.size() >= kMostProfiles) makeRoomLocked(cache);
    return cache.profiles.emplace(path, std::make_shared<Profile>(path)).first->second;
}

bool changeProfile(std::string_view path, ProfileEdit edit) {
    const LockGuard guard(CacheOfProcess::get().writing);
    const auto profile = profileOf(path);
    if (isCaching) {
        if (!profile->keep(std::move(edit))) return false;
        return profile->unwritten() < kMostUnwritten || writeUnwrittenLocked(*profile);
    }
    auto edits = profile->unwrittenEdits();
    edits.push_back(std::move(edit));
    return writeLocked(*profile, edits);
}

bool flushProfile(std::string_view path) {
    const LockGuard guard(CacheOfProcess::get().writing);
    const auto profile = profileOf(path);
    const bool isWritten = writeUnwrittenLocked(*profile);
    profile->distrust();
    return isWritten;
}

bool flushAllProfiles() {
    Cache& cache = CacheOfProcess::get();
    const LockGuard guard(cache.writing);
    return flushAllLocked(cache);
}

bool setWriteCaching(bool enabled) {
    Cache& cache = CacheOfProcess::get();
    const LockGuard guard(cache.writing);
    if (enabled && !flushesAtExit) {
        if (std::atexit(flushAtExit) != 0) {
            errno = ENOMEM;
            return false;
        }
        flushesAtExit = true;
    }
    isCaching = enabled;
    return enabled || flushAllLocked(cache);
}

}  // namespace traiklofox::profiles
