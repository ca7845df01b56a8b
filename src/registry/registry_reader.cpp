// registry_reader.cpp: reads the registry file into the tree. Callers of the private functions hold the cache
// lock exclusively; the keys' own locks are taken line by line.

#include "registry/registry_reader.h"

#include <traiklofox/diagnostics.h>
#include <traiklofox/file_lock.h>
#include <traiklofox/registry.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>

#include "files/file_status.h"
#include "foundation/sys.h"
#include "registry/cache_lock.h"
#include "registry/find_key.h"
#include "registry/locations.h"
#include "registry/purge.h"
#include "registry/registry_call.h"
#include "registry/registry_line.h"
#include "registry/shared_state.h"

namespace traiklofox::registry {

namespace {

constexpr int kReadMode = FileLock::in | FileLock::nocreate;

/// Puts the lines of one file into the tree.
class TreeReader {
  public:
    void take(std::string_view line) {
        const RegistryLine parsed = parseLine(line);
        if (parsed.kind == RegistryLine::Kind::Key)
            takeKey(parsed.keyName, parsed.number);
        else if (parsed.kind == RegistryLine::Kind::Value && key_)
            takeValue(parsed.value);
    }

  private:
    void takeKey(std::string_view name, LONG number) {
        KeyRef found = findFromLast(name, number);
        key_ = found ? std::move(found) : FindKey(RegKey::root(), name, Walk::FromFile, number).key;
        name_.assign(name);
    }

    /// Most keys are near the one before them in the file: the walk goes up to where their paths part, and down from
    /// there. Null when that leads nowhere.
    KeyRef findFromLast(std::string_view name, LONG number) {
        if (!key_) return KeyRef();
        const auto parting = std::mismatch(name_.begin(), name_.end(), name.begin(), name.end()).second;
        const size_t slash = name.substr(0, static_cast<size_t>(parting - name.begin())).rfind('\\');
        if (slash == name.npos) return KeyRef();
        RegKey* start = key_.get();
        for (size_t up = depthOf(std::string_view(name_).substr(slash)); up > 0; --up)
            start = start->parent();
        return FindKeyBehind(*start, name, slash, Walk::FromFile, number).key;
    }

    void takeValue(const ValueText& value) {
        const foundation::LockGuard guard(key_->lock);
        bool changed = false;
        key_->SetValue(value, changed, /*fromFile=*/true);
        if (changed) key_->changeCount.fetch_add(1, std::memory_order_acq_rel);
    }

    KeyRef key_;  // that of the last key line; null before the first, and below one that was deleted here
    std::string name_;  // its path
};

/// What tells one content of the registry file from another.
struct FileVersion {
    files::FileId id{};
    std::uint64_t size = 0;
    std::int64_t seconds = 0;  // of its last modification
    std::uint32_t nanoseconds = 0;
    bool operator==(const FileVersion&) const = default;
};

FileVersion versionOf(const struct statx& status) {
    return {files::idOf(status), status.stx_size, status.stx_mtime.tv_sec, status.stx_mtime.tv_nsec};
}

constinit std::optional<FileVersion> knownFile;  // under the exclusive cache lock

/// Says that the file cannot be read beyond `line`; `error` is 0 when the line is too long. A file that stays
/// unreadable is tried at every look-up, and reported once.
void reportUnreadable(const CKZString& path, size_t line, int error) {
    static auto& lastReport = *new CKZString;  // under the exclusive cache lock
    CKZString report;
    report.Format(
        "ReadRegistry: %s: line %lu: %s; its keys are kept as they were, and nothing is written until it is "
        "mended\n",
        path.c_str(), static_cast<unsigned long>(line),
        error != 0 ? std::strerror(error) : "longer than 4095 characters");
    if (report == lastReport) return;
    lastReport = report;
    std::fputs(report.c_str(), stderr);
}

}  // namespace

void rememberFile(int fd) {
    struct statx status;
    knownFile = sys::fstat(fd, &status) == 0 ? std::optional(versionOf(status)) : std::nullopt;
}

bool fileIsKnown(const CKZString& path) {
    struct statx status;
    if (sys::stat(path.c_str(), &status) != 0) return errno == ENOENT;
    return knownFile == versionOf(status);
}

int readTree(Purging purging) {
    const CacheLockGuard guard;
    const CKZString path = registryPath();
    FileLock file(nullptr, 0);
    if (!file.OpenFileUnLocked(path.c_str(), kReadMode)) {
        noteTreeOutOfDate();
        return 0;
    }
    rememberFile(
        file.GetFileDescriptor());  // before its lines: a change while they are read makes it another
    RegKey::Generation.fetch_add(1, std::memory_order_relaxed);

    TreeReader reader;
    size_t lineNumber = 0;
    std::string_view line;
    while (file.ReadLineView(line, kLongestLine)) {
        ++lineNumber;
        reader.take(line);
    }
    if (!file.IsEndOfFile()) {
        reportUnreadable(path, lineNumber + 1, file.IsBad() ? errno : 0);
        noteTreeOutOfDate();
        return 1;
    }
    if (purging == Purging::Yes) purgeTree();
    noteTreeRead();
    MyVersionStamp.store(ShmStruct()->stamp.load(std::memory_order_seq_cst), std::memory_order_release);
    return 1;
}

}  // namespace traiklofox::registry

int ReadRegistry(int purge) {
    using namespace traiklofox::registry;
    const LONG result = registryCall(
        [&]() -> LONG { return readTree(purge != 0 ? Purging::Yes : Purging::No); }, /*failure=*/0);
    return static_cast<int>(result);
}
