#include "use_registry.h"

#include <pwd.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <traiklofox/registry.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "failure.h"

namespace kzreg {
namespace {

namespace fs = std::filesystem;

constexpr int kProjectId = 1;         // of the semaphore's key
constexpr int kSemaphoreMode = 0660;  // what the library asks for

[[noreturn]] void refuse(const std::string& message) {
    throw Failure(kUnusable, message);
}

std::string userName(uid_t user) {
    const passwd* entry = getpwuid(user);
    return entry != nullptr ? entry->pw_name : "number " + std::to_string(user);
}

std::string runAsOwner(uid_t owner) {
    return "run kzreg as root or as user " + userName(owner) + ", whose registry this is";
}

uid_t ownerOf(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_uid : 0;
}

void checkDirectory(const Places& place) {
    std::error_code error;
    if (fs::is_directory(place.directory, error)) {
        if (access(place.directory.c_str(), W_OK | X_OK) == 0) return;
        refuse("directory " + place.directory +
               " may not be written: " + runAsOwner(ownerOf(place.directory)));
    }
    const bool hidden = error.value() == EACCES;
    const std::string found = hidden ? " cannot be looked into" : " is no directory";
    const std::string where = std::getenv("TWHOME") != nullptr
                                  ? "TWHOME is \"" + std::string(std::getenv("TWHOME")) + "\""
                                  : "TWHOME is not set, so " + place.home + " was looked in";
    refuse(place.directory + found + "; " + where + ": set it to the installation directory");
}

void checkTemplate(const Places& place) {
    const std::string& path = place.registryTemplate;
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        refuse("the template " + path + ": " + std::strerror(errno) +
               "; install it again, because the registry takes its owner and mode from it");
    if (status.st_size == 0 && access(place.registry.c_str(), F_OK) != 0)
        refuse("the template " + path + " is empty, and " + place.registry + " is missing: install it again");
}

void checkFile(const std::string& path, const std::string& remedy) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) refuse(path + ": " + std::strerror(errno));
    if (!S_ISREG(status.st_mode)) refuse(path + " is no regular file: " + remedy);
    if (access(path.c_str(), R_OK | W_OK) != 0)
        refuse(path + " may not be read and written: " + runAsOwner(status.st_uid));
    if (status.st_size == 0) refuse(path + " is empty: " + remedy);
}

void checkSemaphore(const Places& place) {
    const key_t key = ftok(place.lockFile.c_str(), kProjectId);
    if (key == -1 || semget(key, 1, kSemaphoreMode) != -1 || errno != EACCES) return;
    refuse("the registry's semaphore belongs to somebody else: " +
           runAsOwner(ownerOf(place.registryTemplate)));
}

/// Keeps what is wrong with the last line read.
class LastDefect : public RegFileVisitor {
  public:
    void onKey(DWORD, const CKZString&, LONG) override {}
    void onValue(DWORD, const RegValueList&) override {}
    void onDefect(DWORD line, const char* what) override {
        line_ = line;
        what_ = what;
    }
    std::string text() const { return std::to_string(line_) + ": " + what_; }

  private:
    DWORD line_ = 0;
    std::string what_;
};

}  // namespace

Places places() {
    const char* home = std::getenv("TWHOME");
    Places place;
    place.home = home != nullptr ? home : TRAIKLOFOX_DEFAULT_HOME;
    if (!place.home.ends_with('/')) place.home += '/';
    place.directory = place.home + "registry/";
    place.registry = place.directory + "tw.registry";
    place.registryTemplate = place.registry + ".template";
    place.backup = place.registry + ".bak";
    place.lockFile = TRAIKLOFOX_LOCK_FILE;
    return place;
}

void checkAccess() {
    const Places place = places();
    checkDirectory(place);
    checkTemplate(place);
    if (access(place.registry.c_str(), F_OK) == 0)
        checkFile(place.registry, "restore it from " + place.backup);
    checkSemaphore(place);
}

void useRegistry() {
    checkAccess();
    const Places place = places();
    const bool present = access(place.registry.c_str(), F_OK) == 0;
    const std::string& path = present ? place.registry : place.registryTemplate;
    LastDefect last;
    const int read = RegVisitFile(path.c_str(), last);
    if (read == 0) refuse(path + ": " + std::strerror(errno));
    if (read < 0) refuse(path + ":" + last.text() + "; mend that line first");
}

bool sharedStateExists() {
    const key_t key = ftok(places().lockFile.c_str(), kProjectId);
    return key != -1 && semget(key, 1, /*semflg=*/0) != -1;
}

}  // namespace kzreg
