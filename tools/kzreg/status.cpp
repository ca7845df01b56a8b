// status.cpp: where the registry is, who uses it and what its file holds; and its backup.

#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <functional>

#include "commands.h"
#include "failure.h"
#include "file_check.h"
#include "json_writer.h"
#include "use_registry.h"

namespace kzreg {
namespace {

/// Takes no lock, so that it can tell who holds it.
struct Status {
    Places place;
    std::string registryPath;
    bool registryPresent = false;
    bool backupPresent = false;
    bool lockFilePresent = false;
    DWORD lockOwner = 0;
    DWORD stamp = 0;
    DWORD lastWriter = 0;
    unsigned long long bytes = 0;
    unsigned long long keys = 0;
    unsigned long long values = 0;
    unsigned long long defects = 0;
};

bool exists(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0;
}

unsigned long long sizeOf(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? static_cast<unsigned long long>(status.st_size) : 0;
}

Status gather() {
    checkAccess();
    // The first start makes what is shared. Later ones need not wait for whoever holds the lock.
    InitRegistry(/*flags=*/0, /*create=*/!sharedStateExists());
    Status status;
    status.place = places();
    status.registryPath = GetRegistryPath();
    status.registryPresent = exists(status.registryPath);
    status.backupPresent = exists(status.place.backup);
    status.lockFilePresent = exists(status.place.lockFile);
    RegGetVersion(&status.lockOwner, &status.stamp, &status.lastWriter);
    if (!status.registryPresent) return status;
    status.bytes = sizeOf(status.registryPath);
    FileChecker checker([](DWORD, const std::string&) {});
    (void)checker.read(status.registryPath);  // what keeps it from the end counts as a defect
    status.keys = checker.keys();
    status.values = checker.values();
    status.defects = checker.defects();
    return status;
}

bool isAlive(DWORD process) {
    return kill(static_cast<pid_t>(process), 0) == 0 || errno != ESRCH;
}

void printPath(const char* what, const std::string& path, bool present) {
    std::printf("%-15s%s%s\n", what, path.c_str(), present ? "" : " (missing)");
}

void printProcess(const char* what, DWORD process) {
    if (process == 0)
        std::printf("%-15snone\n", what);
    else
        std::printf("%-15sprocess %lu%s\n", what, static_cast<unsigned long>(process),
                    isAlive(process) ? "" : " (has ended)");
}

void print(const Status& status) {
    printPath("registry:", status.registryPath, status.registryPresent);
    printPath("template:", status.place.registryTemplate, /*present=*/true);
    printPath("backup:", status.place.backup, status.backupPresent);
    printPath("lock file:", status.place.lockFile, status.lockFilePresent);
    std::printf("%-15s%lu\n", "version stamp:", static_cast<unsigned long>(status.stamp));
    printProcess("last writer:", status.lastWriter);
    printProcess("lock owner:", status.lockOwner);
    std::printf("%-15s%llu bytes, %llu keys, %llu values\n", "file:", status.bytes, status.keys,
                status.values);
    if (status.defects > 0)
        std::printf("%-15s%llu; kzreg check '%s' lists them\n", "defects:", status.defects,
                    status.registryPath.c_str());
}

void writePath(JsonWriter& json, const char* name, const std::string& path, bool present) {
    json.name(name);
    if (present)
        json.text(path);
    else
        json.null();
}

void writeNumber(JsonWriter& json, const char* name, unsigned long long number) {
    json.name(name);
    json.number(number);
}

void writeProcess(JsonWriter& json, const char* name, DWORD process) {
    json.name(name);
    if (process != 0)
        json.number(process);
    else
        json.null();
}

void writeJson(const Status& status) {
    JsonWriter json;
    json.beginObject();
    writePath(json, "registry", status.registryPath, status.registryPresent);
    writePath(json, "template", status.place.registryTemplate, /*present=*/true);
    writePath(json, "backup", status.place.backup, status.backupPresent);
    writePath(json, "lockFile", status.place.lockFile, status.lockFilePresent);
    writeNumber(json, "versionStamp", status.stamp);
    writeProcess(json, "lastWriter", status.lastWriter);
    writeProcess(json, "lockOwner", status.lockOwner);
    writeNumber(json, "bytes", status.bytes);
    writeNumber(json, "keys", status.keys);
    writeNumber(json, "values", status.values);
    writeNumber(json, "defects", status.defects);
    json.endObject();
}

}  // namespace

int showStatus(const CommandLine& line) {
    const Status status = gather();
    if (line.json)
        writeJson(status);
    else
        print(status);
    return kDone;
}

int backup(const CommandLine&) {
    useRegistry();
    if (RegBackupRegistry() == 0)
        throw Failure(kFailed, "there is no new backup: mend what the message above says, and try again");
    std::printf("backed up to %s\n", places().backup.c_str());
    return kDone;
}

}  // namespace kzreg
