// isolation.cpp: `unshare`, with a user namespace where the user is not root, and private mounts.

#include "isolation.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <system_error>

namespace appserver {
namespace {

namespace fs = std::filesystem;

constexpr char kLibraries[] = "/usr/lib";
constexpr char kLockFolder[] = "/usr/lib/tarnwell";

void check(int result, const char* what) {
    if (result != 0) throw std::system_error(errno, std::generic_category(), what);
}

void mapOnlyMyself(uid_t user, gid_t group) {
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << user << ' ' << user << " 1";
    std::ofstream("/proc/self/gid_map") << group << ' ' << group << " 1";
}

void enterNamespaces() {
    if (unshare(CLONE_NEWIPC | CLONE_NEWNS) == 0) return;
    const uid_t user = geteuid();
    const gid_t group = getegid();
    check(unshare(CLONE_NEWUSER | CLONE_NEWIPC | CLONE_NEWNS), "unshare");
    mapOnlyMyself(user, group);
}

void mountMemory(const char* target) {
    check(mount("tmpfs", target, "tmpfs", MS_NOSUID, "mode=755"), target);
}

void bindMount(const fs::path& from, const fs::path& to) {
    check(mount(from.c_str(), to.c_str(), /*filesystemtype=*/nullptr, MS_BIND | MS_REC, /*data=*/nullptr),
          to.c_str());
}

/// Makes `to`, on a memory file system, show what `from` is.
void show(const fs::directory_entry& from, const fs::path& to) {
    if (from.is_symlink()) {
        fs::copy_symlink(from, to);
        return;
    }
    if (from.is_directory()) {
        fs::create_directory(to);
    } else {
        std::ofstream file(to);
    }
    bindMount(from, to);
}

// The folder cannot be made in the real /usr/lib without a trace. So /usr/lib becomes a memory file system in
// which each entry of the real one stands in its old place, and the folder beside them. (An overlay would be
// shorter, but cannot be stacked where the root is an overlay of an overlay already.)
void addLockFolder(const fs::path& scratch) {
    bindMount(kLibraries, scratch);
    mountMemory(kLibraries);
    try {
        for (const auto& entry : fs::directory_iterator(scratch))
            show(entry, kLibraries / entry.path().filename());
        fs::create_directory(kLockFolder);
        check(umount2(scratch.c_str(), MNT_DETACH), "umount2");
    } catch (...) {
        umount2(kLibraries, MNT_DETACH);
        umount2(scratch.c_str(), MNT_DETACH);
        throw;
    }
}

}  // namespace

std::string isolateFromMachine(const fs::path& scratch) {
    try {
        enterNamespaces();
        check(mount("none", "/", /*filesystemtype=*/nullptr, MS_REC | MS_PRIVATE, /*data=*/nullptr), "/");
        if (fs::is_directory(kLockFolder)) {
            mountMemory(kLockFolder);
        } else {
            addLockFolder(scratch);
        }
        return {};
    } catch (const std::system_error& error) {
        return error.what();
    }
}

}  // namespace appserver
