#include "support/private_machine.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace traiklofox::test {

namespace {

constexpr const char* kInsideVariable = "TRAIKLOFOX_TEST_PRIVATE_MACHINE";
constexpr const char* kLockFolder = "/usr/lib/tarnwell";
// Holds what overlays write. Every Linux has it, and a private one is wanted anyway.
constexpr const char* kMemoryFolder = "/dev/shm";

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void writeAtOnce(const char* path, const std::string& text) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) fail(path);
    const ssize_t written = ::write(fd, text.data(), text.size());
    const int error = errno;
    ::close(fd);
    errno = error;
    if (written != static_cast<ssize_t>(text.size())) fail(path);
}

void leaveTheMachine() {
    const uid_t user = ::geteuid();
    const gid_t group = ::getegid();
    const bool privileged = user == 0;
    const int namespaces = CLONE_NEWIPC | CLONE_NEWNS;
    if (::unshare(privileged ? namespaces : namespaces | CLONE_NEWUSER) != 0) {
        if (!privileged && errno == EINVAL) {
            throw std::runtime_error(
                "only root can leave the machine when it runs several threads, as under a "
                "sanitizer: start the run with `unshare --map-root-user`");
        }
        fail("unshare");
    }
    if (!privileged) {
        writeAtOnce("/proc/self/setgroups", "deny");
        writeAtOnce("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
        writeAtOnce("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) fail("mount --make-rprivate /");
}

void mountMemory(const std::string& folder, const char* options) {
    if (::mount("tmpfs", folder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options) != 0) {
        fail("mount a tmpfs on " + folder);
    }
}

/// What is in `folder` stays readable; what is written there goes to memory.
void overlay(const std::string& folder, const std::string& name) {
    const std::string upper = std::string{kMemoryFolder} + "/." + name + "/upper";
    const std::string work = std::string{kMemoryFolder} + "/." + name + "/work";
    std::filesystem::create_directories(upper);
    std::filesystem::create_directories(work);
    struct stat original {};
    if (::stat(folder.c_str(), &original) != 0) fail("stat " + folder);
    if (::chmod(upper.c_str(), original.st_mode & 07777) != 0) fail("chmod " + upper);
    const std::string options = "lowerdir=" + folder + ",upperdir=" + upper + ",workdir=" + work;
    if (::mount("overlay", folder.c_str(), "overlay", 0, options.c_str()) != 0)
        fail("mount an overlay on " + folder);
}

void arrange() {
    leaveTheMachine();
    // A working directory under a folder that is about to be covered would go on seeing the old one.
    const std::string workingDirectory = std::filesystem::current_path();
    mountMemory(kMemoryFolder, "mode=1777");
    overlay("/tmp", "tmp");
    if (!std::filesystem::exists(kLockFolder)) {
        overlay("/usr/lib", "lib");
        std::filesystem::create_directory(kLockFolder);
    }
    mountMemory(kLockFolder, "mode=0755");
    std::filesystem::current_path(workingDirectory);
}

}  // namespace

PrivateMachine::PrivateMachine() {
    if (std::getenv(kInsideVariable) != nullptr) return;
    try {
        arrange();
        ::setenv(kInsideVariable, "1", /*overwrite=*/1);
    } catch (const std::exception& failure) {
        whyNot_ = std::string{"no private machine: "} + failure.what();
    }
}

const PrivateMachine& PrivateMachine::enter() {
    static const auto* machine = new PrivateMachine;
    return *machine;
}

SmallDisk::SmallDisk(const std::string& directory, size_t bytes) : directory_(directory) {
    if (!PrivateMachine::enter().entered()) throw std::logic_error("SmallDisk needs a private machine");
    std::filesystem::create_directories(directory);
    mountMemory(directory, ("mode=0755,size=" + std::to_string(bytes)).c_str());
}

SmallDisk::~SmallDisk() {
    // Lazily, because the tested code may still hold a descriptor there.
    (void)::umount2(directory_.c_str(), MNT_DETACH);
}

void SmallDisk::leaveFree(size_t bytes) {
    const std::string filler = directory_ + "/.filler";
    const int fd = ::open(filler.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) fail(filler);
    struct statfs disk {};
    int error = ::fstatfs(fd, &disk) == 0 ? 0 : errno;
    if (error == 0) {
        const auto blockSize = static_cast<unsigned long long>(disk.f_bsize);
        const auto kept = (bytes + blockSize - 1) / blockSize;
        const auto filled = disk.f_bfree > kept ? (disk.f_bfree - kept) * blockSize : 0;
        if (filled > 0) error = ::posix_fallocate(fd, 0, static_cast<off_t>(filled));
    }
    ::close(fd);
    if (error != 0) throw std::system_error(error, std::generic_category(), filler);
}

}  // namespace traiklofox::test
