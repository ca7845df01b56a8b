// registry_writer.cpp: writes the tree to a temporary file and renames it over the registry file, so that a
// reader, a crash or a power cut finds the old file or the new one.

#include "registry/registry_writer.h"

#include <traiklofox/clocks.h>
#include <traiklofox/diagnostics.h>
#include <traiklofox/file_lock.h>
#include <traiklofox/registry.h>
#include <traiklofox/temp_name.h>

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "files/temp_name.h"
#include "foundation/on_exit.h"
#include "foundation/sys.h"
#include "registry/cache_lock.h"
#include "registry/file_owner.h"
#include "registry/locations.h"
#include "registry/reg_key.h"
#include "registry/registry_reader.h"
#include "registry/shared_state.h"

namespace traiklofox::registry {

namespace {

constexpr int kTemporaryMode = FileLock::out | FileLock::trunc | FileLock::noreplace;
constexpr int kLockBusy = 1;
constexpr int kOpenRetries = 11;
constexpr DWORD kOpenRetryMs = 50;
constexpr size_t kChunk =
    256 * 1024;  // text is handed on in pieces of this size, so that memory stays bounded

bool openTemporary(FileLock& file, const CKZString& name) {
    int status = 0;
    for (int retry = 0; !file.OpenAndLockFile(name.c_str(), kTemporaryMode, &status, 0); ++retry) {
        if (status != kLockBusy || retry == kOpenRetries) {
            unix_err("WriteRegistry: Failed to open and lock temp file: %i - %s", status, name.c_str());
            return false;
        }
        SleepEx(kOpenRetryMs, FALSE);
        status = 0;
    }
    return true;
}

bool writeText(FileLock& file, const std::string& text) {
    return text.empty() || file.WriteBlk(text.data(), static_cast<int>(text.size())) != 0;
}

/// Prints the tree, each key before those below it. One key is locked at a time, and none while the file is
/// written.
bool printTree(FileLock& file, WriteBatch& batch) {
    std::string text;
    std::vector<KeyRef> left;
    left.emplace_back(&RegKey::root());
    while (!left.empty()) {
        const KeyRef key = std::move(left.back());
        left.pop_back();
        {
            const foundation::LockGuard guard(key->lock);
            if (key->isDead()) continue;
            key->print(text, batch);
            const size_t before = left.size();
            key->subkeys.inOrderOfNames([&](RegKey& subkey) { left.emplace_back(&subkey); });
            std::reverse(left.begin() + static_cast<std::ptrdiff_t>(before),
                         left.end());  // the first is next
        }
        if (text.size() < kChunk) continue;
        if (!writeText(file, text)) return false;
        text.clear();
    }
    return writeText(file, text);
}

/// What is known of the temporary file once all text is in it; false after a message.
bool checkTemporary(FileLock& file, const CKZString& name) {
    KZFileStatus status;
    if (!file.FileStat(&status)) {
        unix_err("WriteRegistry: Unable to stat temp file - %s.  errno = %s\n", name.c_str(),
                 std::strerror(errno));
        return false;
    }
    if (status.size == 0) {
        unix_err("WriteRegistry: Temp file -  %s is zero length.\n", name.c_str());
        return false;
    }
    return true;
}

void countWrite() {
    SharedPage& shared = *ShmStruct();
    shared.lastWriter.store(static_cast<std::uint32_t>(getpid()), std::memory_order_relaxed);
    const std::uint32_t stamp = shared.stamp.fetch_add(1, std::memory_order_seq_cst) + 1;
    MyVersionStamp.store(stamp, std::memory_order_release);
}

/// Writes the whole text and puts it on the disk.
bool fillTemporary(FileLock& file, const CKZString& name, WriteBatch& batch) {
    // First, so that nobody reads what he may not.
    if (!giveToRegistryOwner(file.GetFileDescriptor())) {
        unix_err("WriteRegistry: Unable to set mode of temp file - %s.  errno = %s\n", name.c_str(),
                 std::strerror(errno));
        return false;
    }
    if (!printTree(file, batch) || !file.Flush()) {
        unix_err("WriteRegistry: Unable to write temp file - %s.  errno = %s\n", name.c_str(),
                 std::strerror(errno));
        return false;
    }
    if (!checkTemporary(file, name)) return false;
    if (!file.Sync()) {
        unix_err("WriteRegistry: Unable to sync temp file - %s.  errno = %s\n", name.c_str(),
                 std::strerror(errno));
        return false;
    }
    return true;
}

/// Brings the tree up to date; false when the file cannot be read whole, so that writing would lose what it
/// holds.
bool mergeFile(const CKZString& path) {
    if (treeIsRead() && ShmStruct()->stamp.load() == MyVersionStamp.load() && fileIsKnown(path)) return true;
    (void)readTree(Purging::Yes);
    if (treeIsRead()) return true;
    unix_err("WriteRegistry: %s cannot be read whole; nothing is written\n", path.c_str());
    return false;
}

int writeWholeTree() {
    const CancellationOff off;
    const CKZString path = registryPath();
    const CKZString directory = registryDirectory();
    const CKZString temporary = KZTempNam(directory);
    FileLock file(nullptr, 0);
    // Before the cache lock: a process that has no descriptor left waits for one here, and nobody for it.
    if (!openTemporary(file, temporary)) {
        (void)sys::unlink(temporary.c_str());
        return 0;
    }
    auto removeTemporary = foundation::onExit([&] { (void)sys::unlink(temporary.c_str()); });

    const CacheLockGuard guard;
    if (!mergeFile(path)) return 0;
    removeStaleTemporaryFiles();
    WriteBatch batch;
    auto abortBatch = foundation::onExit([&] { batch.abort(); });
    if (!fillTemporary(file, temporary, batch)) return 0;

    if (sys::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unix_err("WriteRegistry: Unable to rename file - %s to - %s  errno %i = %s", temporary.c_str(),
                 path.c_str(), error, std::strerror(error));
        return 0;
    }
    removeTemporary.dismiss();
    rememberFile(file.GetFileDescriptor());
    countWrite();
    if (!sys::syncDirectory(directory.c_str())) {
        // The new file is there for everybody, but a power cut may bring the old one back: not done yet.
        unix_err("WriteRegistry: Unable to sync directory - %s.  errno = %s\n", directory.c_str(),
                 std::strerror(errno));
        return 0;
    }
    abortBatch.dismiss();
    batch.commit();
    return 1;
}

}  // namespace

int writeTree() {
    try {
        return writeWholeTree();
    } catch (const std::bad_alloc&) {
        std::fputs("WriteRegistry: out of memory\n", stderr);
        return 0;
    }
}

namespace {

/// A process in another namespace of process ids seems to have ended; but who writes such a file has it locked. Without
/// leave to look, the id decides.
bool isLocked(const CKZString& name) {
    const sys::UniqueFd file(sys::open(name.c_str(), O_RDONLY | O_NONBLOCK));
    return file ? sys::lockf(file.get(), F_TEST, 0) != 0 : errno != EACCES;
}

}  // namespace

void removeStaleTemporaryFiles() {
    const CKZString directory = registryDirectory();
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(sys::opendir(directory.c_str()), sys::closedir);
    if (entries == nullptr) return;
    while (const dirent* entry = sys::readdir(entries.get())) {
        const auto maker = files::processOfTemporaryName(entry->d_name);
        if (!maker || *maker == getpid() || sys::kill(*maker, 0) == 0 || errno != ESRCH) continue;
        const CKZString name = directory + entry->d_name;
        if (!isLocked(name)) (void)sys::unlink(name.c_str());  // tried again by the next write
    }
}

}  // namespace traiklofox::registry

int WriteRegistry() {
    traiklofox::registry::ensureStarted();
    return traiklofox::registry::writeTree();
}
