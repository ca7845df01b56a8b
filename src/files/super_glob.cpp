// super_glob.cpp: collects the entries of a directory that match patterns. All names are read and sorted first, so that
// the records, which are larger, are made in their places.

#include <traiklofox/super_glob.h>

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "files/file_status.h"
#include "files/glob_pattern.h"
#include "files/name_sort.h"
#include "foundation/on_exit.h"
#include "foundation/sys.h"

namespace sys = traiklofox::sys;

namespace traiklofox::files {

namespace {

constexpr size_t kNamesAhead = 8;  // so long before its use a name is fetched from memory
constexpr size_t kPageSize = 4096;
constexpr size_t kLargePageSize = size_t{2} << 20;

/// Asks the system for large pages under records that are about to be made: where the heap returned its memory to the
/// system, as it does with more than 512 KiB on 32 bits, ordinary ones would take a fault for every 40 records.
void preferLargePages(const KZGlobResult* begin, const KZGlobResult* end) {
    const auto start = (reinterpret_cast<std::uintptr_t>(begin) + kPageSize - 1) & ~(kPageSize - 1);
    const auto limit = reinterpret_cast<std::uintptr_t>(end) & ~(kPageSize - 1);
    if (limit < start + kLargePageSize) return;
    const int error = errno;
    (void)::madvise(reinterpret_cast<void*>(start), limit - start, MADV_HUGEPAGE);  // a hint
    errno = error;
}

/// False when the entry has vanished. Fills `result`, which is zeroed.
bool lookAt(int directory, const NamedEntry& entry, KZGlobResult& result) {
    struct statx status;
    result.name = entry.name;
    if (sys::statx(directory, entry.name, AT_NO_AUTOMOUNT, &status) == 0 ||
        sys::statx(directory, entry.name, AT_NO_AUTOMOUNT | AT_SYMLINK_NOFOLLOW, &status) == 0) {
        take(status, result);
        return true;
    }
    result.mode = DTTOIF(static_cast<DWORD>(entry.type));
    return errno != ENOENT;
}

bool byName(const KZGlobResult& left, const KZGlobResult& right) {
    return std::strcmp(left.name, right.name) < 0;
}

}  // namespace

class GlobState {
  public:
    void addPattern(std::string_view pattern, LeadingPeriod period) {
        patterns_.emplace_back(pattern, period);
    }
    void clearPatterns() { patterns_.clear(); }

    bool collect(const char* path) {
        const sys::UniqueDirectory directory(sys::opendir(path));
        if (!directory) return false;
        NameStore unsorted;
        std::vector<NamedEntry> entries;
        if (!readNames(directory.get(), unsorted, entries)) return false;
        sortByName(entries);

        const size_t before = results_.size();
        auto dropNew = foundation::onExit([&] { results_.resize(before); });
        results_.reserve(before + entries.size());
        preferLargePages(results_.data() + before, results_.data() + results_.capacity());
        NameStore names;
        for (size_t i = 0; i < entries.size(); ++i) {
            // The names lie about in the order of reading. The copies lie in the order of their use, by the system
            // below and by callers later.
            __builtin_prefetch(entries[std::min(i + kNamesAhead, entries.size() - 1)].name);
            entries[i].name = names.add(entries[i].name);
            if (!lookAt(::dirfd(directory.get()), entries[i], results_.emplace_back())) results_.pop_back();
        }
        names_.push_back(std::move(names));
        dropNew.dismiss();
        if (before > 0)
            std::inplace_merge(results_.begin(), results_.begin() + static_cast<std::ptrdiff_t>(before),
                               results_.end(), byName);
        return true;
    }

    const std::vector<KZGlobResult>& results() const { return results_; }

  private:
    bool readNames(DIR* directory, NameStore& names, std::vector<NamedEntry>& entries) const {
        for (;;) {
            errno = 0;  // which tells the end from an error
            const dirent* const entry = sys::readdir(directory);
            if (entry == nullptr) return errno == 0;
            const std::string_view name(entry->d_name);
            const bool matches = std::ranges::any_of(
                patterns_, [name](const GlobPattern& pattern) { return pattern.matches(name); });
            if (matches) entries.push_back({/*key=*/0, names.add(name), entry->d_type});
        }
    }

    std::vector<GlobPattern> patterns_;
    std::vector<NameStore> names_;  // of the results
    std::vector<KZGlobResult> results_;
};

}  // namespace traiklofox::files

using traiklofox::files::LeadingPeriod;

KZSuperGlob::KZSuperGlob() : state(std::make_unique<traiklofox::files::GlobState>()) {}
KZSuperGlob::~KZSuperGlob() = default;

BOOL KZSuperGlob::AddPattern(const CKZString& pattern, DWORD flags) {
    if (pattern.size() >= MAX_PATH) {
        errno = ENAMETOOLONG;
        return FALSE;
    }
    const bool isExplicit = (flags & ExplicitPeriod) != 0;
    state->addPattern(pattern, isExplicit ? LeadingPeriod::Explicit : LeadingPeriod::Ordinary);
    return TRUE;
}

void KZSuperGlob::ClearPatterns() {
    state->clearPatterns();
}

BOOL KZSuperGlob::GlobMore(const CKZString& directory) {
    const int error = errno;
    if (!state->collect(directory.c_str())) return FALSE;
    errno = error;
    return TRUE;
}

KZSuperGlob::iterator KZSuperGlob::begin() const {
    return state->results().data();
}

KZSuperGlob::iterator KZSuperGlob::end() const {
    return begin() + state->results().size();
}

bool KZSuperGlob::contains(const CKZString& name) const {
    const auto found = std::lower_bound(
        begin(), end(), name,
        [](const KZGlobResult& entry, const CKZString& wanted) { return entry.name < wanted; });
    return found != end() && name == found->name;
}
