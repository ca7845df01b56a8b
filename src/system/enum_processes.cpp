// enum_processes.cpp: the processes that /proc lists, in the two ways to tell them from threads.

#include <traiklofox/process_list.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <map>
#include <new>

#include "foundation/sys.h"
#include "system/proc_files.h"
#include "system/process_walk.h"

namespace sys = traiklofox::sys;

namespace traiklofox::system {

namespace {

constexpr size_t kLongestStat = 512;

/// What an entry of /proc was found to be.
struct EnumProcState {
    pid_t parent;  // 0 of a thread
    CKZString name;
    bool isParentUnknown;  // it came before its parent
};

enum class Next { GoOn, Stop };

/// Calls `visit(directory, name)` for every entry whose name begins with a digit.
template <class Visit>
ProcessWalk walk(size_t capacity, Visit visit) {
    ProcessWalk result;
    const sys::UniqueDirectory directory(sys::opendir("/proc"));
    if (!directory) return result;
    for (size_t read = 0;; ++read) {
        if (read == capacity) {
            result.wasCutShort = true;
            break;
        }
        errno = 0;  // which tells the end from an error
        const dirent* const entry = sys::readdir(directory.get());
        if (entry == nullptr) {
            if (errno != 0) return result;
            break;
        }
        const bool isNumber = entry->d_name[0] >= '0' && entry->d_name[0] <= '9';
        if (isNumber && visit(::dirfd(directory.get()), entry->d_name) == Next::Stop) break;
    }
    result.succeeded = true;
    return result;
}

pid_t idOf(std::string_view name) {
    pid_t id = 0;
    (void)std::from_chars(name.data(), name.data() + name.size(), id);  // it begins with a digit
    return id;
}

std::optional<std::string_view> readStat(int proc, const char* name, std::span<char> buffer) {
    return readStart(proc, ProcPath(std::string_view(name), "stat").get(), buffer);
}

using States = std::map<pid_t, EnumProcState>;

void record(States& states, pid_t id, const StatNames& line) {
    const auto parent = states.find(line.parent);
    const bool isKnown = parent != states.end();
    const bool isThread = isKnown && parent->second.name == CKZString(line.name);
    states.try_emplace(id, EnumProcState{isThread ? 0 : line.parent, CKZString(line.name), !isKnown});
}

bool isProcess(const States& states, const EnumProcState& state) {
    if (state.isParentUnknown) {
        const auto parent = states.find(state.parent);
        if (parent != states.end() && parent->second.name == state.name) return false;
    }
    return state.parent != 0;
}

ProcessWalk walkDumbly(std::span<DWORD> ids) {
    States states;
    char buffer[kLongestStat];
    ProcessWalk result = walk(ids.size(), [&](int proc, const char* name) {
        const auto text = readStat(proc, name, buffer);
        const auto line = text ? namesOf(*text) : std::nullopt;
        if (line) record(states, idOf(name), *line);
        return Next::GoOn;
    });
    if (!result.succeeded) return result;
    for (const auto& [id, state] : states)
        if (isProcess(states, state)) ids[result.count++] = static_cast<DWORD>(id);
    return result;
}

template <class Walk>
BOOL enumerate(Walk walkThem, DWORD* ids, DWORD size, DWORD* returned) {
    const size_t capacity = size / sizeof(DWORD);
    if (returned == nullptr || (ids == nullptr && capacity > 0)) {
        errno = EINVAL;
        return FALSE;
    }
    const int before = errno;
    try {
        const ProcessWalk result = walkThem(std::span(ids, capacity));
        if (!result.succeeded) return FALSE;
        *returned = static_cast<DWORD>(result.count * sizeof(DWORD));
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return FALSE;
    }
    errno = before;
    return TRUE;
}

}  // namespace

ProcessWalk walkProcesses(std::span<DWORD> ids) {
    size_t count = 0;
    char buffer[kLongestStat];
    ProcessWalk result = walk(ids.size(), [&](int proc, const char* name) {
        if (bDumbProcfs.load(std::memory_order_relaxed)) return Next::Stop;
        const auto line = readStat(proc, name, buffer);
        if (!line) return Next::GoOn;
        const auto exitSignal = exitSignalOf(*line);
        if (!exitSignal) {
            bDumbProcfs.store(true, std::memory_order_relaxed);
            return Next::Stop;
        }
        if (*exitSignal == kChildExitSignal) ids[count++] = static_cast<DWORD>(idOf(name));
        return Next::GoOn;
    });
    if (!result.succeeded) return result;
    if (bDumbProcfs.load(std::memory_order_relaxed)) return walkDumbly(ids);
    result.count = count;
    return result;
}

}  // namespace traiklofox::system

BOOL EnumProcesses(DWORD* ids, DWORD size, DWORD* returned) {
    return traiklofox::system::enumerate(traiklofox::system::walkProcesses, ids, size, returned);
}

BOOL DumbEnumProcesses(DWORD* ids, DWORD size, DWORD* returned) {
    return traiklofox::system::enumerate(traiklofox::system::walkDumbly, ids, size, returned);
}
