// export.cpp: writes keys to a file in the registry's own format.

#include <sys/stat.h>
#include <traiklofox/file_lock.h>
#include <traiklofox/temp_name.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "commands.h"
#include "failure.h"
#include "key.h"
#include "use_registry.h"

namespace kzreg {
namespace {

namespace fs = std::filesystem;

constexpr size_t kColumn = 22;  // to which a name and data are padded, with the sign that ends them
constexpr size_t kLongestLine = 4095;
constexpr size_t kPiece = 1 << 20;

/// Keeps other processes from writing, so that what is exported is the registry of one moment.
class RegistryLock {
  public:
    RegistryLock() { RegLockCache(REG_LOCK_EXCLUSIVE); }
    ~RegistryLock() { RegUnlockCache(REG_LOCK_EXCLUSIVE); }
    RegistryLock(const RegistryLock&) = delete;
    RegistryLock& operator=(const RegistryLock&) = delete;
};

void appendColumn(std::string& text, const std::string& field, char end) {
    text.append(field).push_back(end);
    if (field.size() + 1 < kColumn) text.append(kColumn - field.size() - 1, ' ');
    text.push_back('\t');
}

/// A line that a hand wrote without columns may be too long with them; then it is written without, too.
std::string valueLine(const Value& value) {
    std::string line;
    appendColumn(line, value.name, ':');
    appendColumn(line, value.text, ';');
    line += typeWord(value.type);
    return line.size() <= kLongestLine ? line : value.name + ':' + value.text + ';' + typeWord(value.type);
}

std::string keyLine(const Key& key) {
    const std::string line = key.path() + ':' + std::to_string(key.handle());
    return line.size() <= kLongestLine ? line : key.path() + ':';
}

/// Appends the key's own lines, and returns the names of its subkeys.
std::vector<std::string> appendLines(std::string& text, const Key& key) {
    if (!key.isStep()) text.append(keyLine(key)).push_back('\n');
    for (const Value& value : key.values()) text.append(valueLine(value)).push_back('\n');
    return key.subkeys();
}

/// One key is open at a time: of those that share a number, a second one would be given another.
void appendFrom(std::string& text, const std::string& belowRoot) {
    std::vector<std::string> subkeys;
    if (const auto key = Key::find(belowRoot)) subkeys = appendLines(text, *key);
    const std::string prefix = belowRoot.empty() ? "" : belowRoot + '\\';
    for (const std::string& name : subkeys) appendFrom(text, prefix + name);
}

std::string textOf(const KeyPath& path) {
    const RegistryLock lock;
    (void)Key::open(path);  // to say what is missing
    std::string text;
    appendFrom(text, path.belowRoot());
    return text;
}

[[noreturn]] void failToWriteFile(const std::string& path, int error) {
    throw Failure(kFailed, "cannot write " + path + ": " + std::strerror(error) + "; it is as it was before");
}

bool writeWhole(FileLock& file, const std::string& text) {
    for (size_t at = 0; at < text.size(); at += kPiece) {
        const auto size = static_cast<int>(std::min(kPiece, text.size() - at));
        if (file.WriteBlk(text.data() + at, size) != size) return false;
    }
    return true;
}

/// Not more open than the registry, which may hold passwords.
mode_t modeForExport() {
    const mode_t mask = umask(0);
    umask(mask);
    return KzFileMode & ~mask;
}

/// Removes a file at the end of the scope unless it has been put in place.
struct Temporary {
    std::string path;
    bool inPlace = false;
    ~Temporary() {
        if (!inPlace) (void)unlink(path.c_str());  // there is nothing to be done about a failure
    }
};

void replaceFile(const std::string& path, const std::string& text) {
    // Behind a symbolic link, so that the link stays.
    std::error_code error;
    const fs::path target = fs::exists(path, error) ? fs::canonical(path, error) : fs::path(path);
    if (error) failToWriteFile(path, error.value());
    Temporary temporary{KZTempNam(target.parent_path().string())};
    FileLock file;
    const int mode = FileLock::out | FileLock::trunc | FileLock::noreplace;
    if (!file.OpenFileUnLocked(temporary.path.c_str(), mode)) {
        temporary.inPlace = true;  // it was never made
        failToWriteFile(path, errno);
    }
    if (fchmod(file.GetFileDescriptor(), modeForExport()) != 0 || !writeWhole(file, text) || !file.Sync() ||
        rename(temporary.path.c_str(), target.c_str()) != 0)
        failToWriteFile(path, errno);
    temporary.inPlace = true;
}

/// A terminal, a pipe and the like cannot be replaced.
void writeThrough(const std::string& path, const std::string& text) {
    FileLock file;
    if (!file.OpenFileUnLocked(path.c_str(), FileLock::out | FileLock::nocreate) || !writeWhole(file, text) ||
        !file.Flush())
        throw Failure(kFailed, "cannot write to " + path + ": " + std::strerror(errno));
}

bool sameFile(const struct stat& left, const struct stat& right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

void write(const std::string& path, const std::string& text) {
    struct stat target {};
    struct stat output {};
    const bool present = stat(path.c_str(), &target) == 0;
    if (present && S_ISDIR(target.st_mode))
        throw Failure(kUnusable, path + " is a directory: name a file in it");
    if (present && fstat(STDOUT_FILENO, &output) == 0 && sameFile(target, output))
        std::fwrite(text.data(), 1, text.size(), stdout);  // "/dev/stdout"; main looks after errors
    else if (present && !S_ISREG(target.st_mode))
        writeThrough(path, text);
    else
        replaceFile(path, text);
}

void requireOtherThanRegistry(const std::string& path) {
    std::error_code error;
    if (fs::equivalent(path, places().registry, error))
        throw Failure(kUnusable, path + " is the registry itself: choose another file");
}

}  // namespace

int exportKeys(const CommandLine& line) {
    const std::string& path = line.operands.front();
    const KeyPath key = KeyPath::typed(line.operands.size() > 1 ? line.operands[1] : "\\");
    useRegistry();
    requireOtherThanRegistry(path);
    write(path, textOf(key));
    return kDone;
}

}  // namespace kzreg
