// process_name.cpp: the names of processes.

#include <traiklofox/process.h>
#include <traiklofox/process_list.h>

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <new>
#include <optional>
#include <vector>

#include "foundation/sys.h"
#include "kernel/handle_arguments.h"
#include "system/proc_files.h"
#include "system/process_walk.h"

namespace sys = traiklofox::sys;
using traiklofox::system::bDumbProcfs;
using traiklofox::system::commandIn;
using traiklofox::system::ProcPath;
using traiklofox::system::readStart;

namespace {

constexpr size_t kLongestRead = 256;
constexpr size_t kFirstCapacity = 200;
constexpr INT kShortName = 0;
constexpr INT kFullPath = 1;

/// The program's path; nothing when it is not to be had.
std::optional<CKZString> pathOf(pid_t process) {
    if (bDumbProcfs.load(std::memory_order_relaxed)) return std::nullopt;
    char target[kLongestRead];
    const ssize_t length = sys::readlink(ProcPath(process, "exe").get(), target, sizeof target);
    if (length < 0) return std::nullopt;
    const std::string_view path(target, static_cast<size_t>(length));
    if (path.find(':') == path.npos) return CKZString(path);
    bDumbProcfs.store(true, std::memory_order_relaxed);
    return std::nullopt;
}

CKZString commandOf(pid_t process) {
    char buffer[kLongestRead];
    const auto line = readStart(AT_FDCWD, ProcPath(process, "stat").get(), buffer);
    return line ? CKZString(commandIn(*line)) : CKZString();
}

/// A handle's process; the calling one without a handle; nothing when the handle is no process's.
std::optional<DWORD> idOf(Handle* handle) {
    if (traiklofox::kernel::isNone(handle)) return static_cast<DWORD>(::getpid());
    const auto* process = traiklofox::kernel::handleAs<Process>(handle, HANDLE_KIND_PROCESS);
    return process != nullptr ? std::optional(static_cast<DWORD>(process->GetPid())) : std::nullopt;
}

CKZString nameOf(Handle* handle, INT fullPath) {
    const auto id = idOf(handle);
    return id ? GetProcessName(*id, fullPath) : CKZString();
}

/// Copies the name and its NUL, and returns its length.
DWORD copyName(std::string_view name, char* buffer) {
    std::memcpy(buffer, name.data(), name.size());
    buffer[name.size()] = '\0';
    return static_cast<DWORD>(name.size());
}

/// Of an empty name.
DWORD storeNothing(char* buffer, DWORD size) {
    if (size > 0) *buffer = '\0';
    return 0;
}

bool someProcessIsCalled(const CKZString& name) {
    std::vector<DWORD> ids(kFirstCapacity);
    auto walk = traiklofox::system::walkProcesses(ids);
    while (walk.succeeded && walk.wasCutShort) {
        ids.resize(ids.size() * 2);
        walk = traiklofox::system::walkProcesses(ids);
    }
    if (!walk.succeeded) return false;
    for (const DWORD id : std::span(ids).first(walk.count))
        if (GetProcessName(id, kShortName) == name) return true;
    return false;
}

}  // namespace

CKZString GetProcessName(DWORD processId, INT fullPath) {
    const auto process = static_cast<pid_t>(processId);
    if (fullPath != kShortName)
        if (auto path = pathOf(process)) return *path;
    return commandOf(process);
}

DWORD GetModuleBaseName(Handle* process, void*, char* buffer, DWORD size) {
    if (buffer == nullptr) return 0;
    try {
        const CKZString name = nameOf(process, kShortName);
        // A name of just this length is copied, too, although its NUL is then one too many.
        if (name.empty()) return storeNothing(buffer, size);
        return name.size() > size ? 0 : copyName(name, buffer);
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

DWORD GetModuleFileNameEx(Handle* process, void*, char* buffer, DWORD size) {
    if (buffer == nullptr) return 0;
    try {
        const CKZString path = nameOf(process, kFullPath);
        if (path.empty()) return storeNothing(buffer, size);
        if (path.size() > size) return 0;
        const size_t slash = path.rfind('/');
        std::string_view name = path;
        if (slash != path.npos && slash != 0) name.remove_prefix(slash + 1);
        return name.empty() || name.size() + 1 > size ? 0 : copyName(name, buffer);
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

DWORD GetModuleFileName(void* module, char* buffer, DWORD size) {
    return GetModuleFileNameEx(/*process=*/nullptr, module, buffer, size);
}

BOOL DoesProcessExist(const char* name) {
    if (name == nullptr || *name == '\0') return FALSE;
    try {
        return someProcessIsCalled(name);
    } catch (const std::bad_alloc&) {
        return FALSE;
    }
}
