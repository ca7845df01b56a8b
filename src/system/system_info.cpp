// system_info.cpp: the processors, the memory and the version of the machine.

#include <traiklofox/system_info.h>

#include <cxxabi.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>

#include "foundation/bounded_copy.h"
#include "system/control_group.h"

using namespace traiklofox::system;

namespace {

constexpr bool k32Bit = sizeof(void*) == 4;
constexpr ULONG_PTR kLowestAddress = 0x10000;

/// Of a 32-bit process: all but two pages on a 64-bit kernel, which puts the stack at the end; else three quarters.
ULONG_PTR highestAddress() {
    constexpr ULONG_PTR kThreeQuarters = 0xBFFFFFFF;
    if (!k32Bit) return static_cast<ULONG_PTR>(0x7FFFFFFFFFFF);
    const char onStack = 0;
    return reinterpret_cast<ULONG_PTR>(&onStack) > kThreeQuarters ? 0xFFFFDFFF : kThreeQuarters;
}

ControlGroups groups() {
    return ControlGroups(textOfFile("/proc/self/cgroup"));
}

DWORD allowedProcessors() {
    constexpr int kMost = 8192;  // a kernel refuses a set that has no room for all of its own
    cpu_set_t* set = CPU_ALLOC(kMost);
    if (set == nullptr) return 1;
    const size_t size = CPU_ALLOC_SIZE(kMost);
    const int count = ::sched_getaffinity(0, size, set) == 0 ? CPU_COUNT_S(size, set) : 0;
    CPU_FREE(set);
    return static_cast<DWORD>(std::max(count, 1));
}

DWORD countProcessors() {
    const DWORD allowed = allowedProcessors();
    const auto share = groups().processors();
    if (!share || *share >= static_cast<double>(allowed)) return allowed;
    return std::max(static_cast<DWORD>(std::ceil(*share)), DWORD{1});
}

struct Memory {
    std::uint64_t total, available, swapTotal, swapAvailable, virtualTotal, virtualAvailable;
};

/// The number behind `label`, which is in KiB, in bytes.
std::uint64_t bytesBehind(std::string_view text, std::string_view label) {
    return numberBehind(text, label).value_or(0) * 1024;
}

void applyGroup(Memory& memory) {
    const ControlGroups group = groups();
    if (const auto limits = group.memory()) {
        memory.total = std::min(memory.total, limits->limit);
        memory.available = std::min(memory.available, limits->limit - std::min(limits->limit, limits->used));
    }
    if (const auto swap = group.swap()) {
        memory.swapTotal = std::min(memory.swapTotal, swap->limit);
        memory.swapAvailable =
            std::min(memory.swapAvailable, swap->limit - std::min(swap->limit, swap->used));
    }
}

/// False, with errno, when the machine does not tell.
bool readMemory(Memory& memory) {
    const std::string machine = textOfFile("/proc/meminfo");
    memory.total = bytesBehind(machine, "MemTotal:");
    if (memory.total == 0) {
        errno = ENOSYS;
        return false;
    }
    memory.available = bytesBehind(machine, "MemAvailable:");
    memory.swapTotal = bytesBehind(machine, "SwapTotal:");
    memory.swapAvailable = bytesBehind(machine, "SwapFree:");
    applyGroup(memory);
    struct rlimit limit {};
    memory.virtualTotal = highestAddress() - kLowestAddress + 1;
    if (::getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY)
        memory.virtualTotal = std::min<std::uint64_t>(memory.virtualTotal, limit.rlim_cur);
    const std::uint64_t used = bytesBehind(textOfFile("/proc/self/status"), "VmSize:");
    memory.virtualAvailable = memory.virtualTotal - std::min(memory.virtualTotal, used);
    return true;
}

DWORD loadOf(const Memory& memory) {
    const std::uint64_t used = memory.total - std::min(memory.total, memory.available);
    return static_cast<DWORD>(used / (memory.total / 100 + 1));
}

SIZE_T clamped(DWORDLONG bytes) {
    return static_cast<SIZE_T>(std::min<DWORDLONG>(bytes, std::numeric_limits<SIZE_T>::max()));
}

WORD low(std::string_view text, std::string_view label) {
    // "label<tab>: number"
    const std::uint64_t number = numberBehind(text, std::string(label) + "\t: ").value_or(0);
    return static_cast<WORD>(number);
}

/// Lets no exception out; a text that cannot be had is a failure.
template <class Body>
BOOL systemCall(Body body) {
    try {
        return body();
    } catch (const abi::__forced_unwind&) {
        throw;  // pthread_cancel: swallowing it aborts the process
    } catch (...) {
        errno = ENOMEM;
        return FALSE;
    }
}

void setProcessors(_SYSTEM_INFO& info) {
    info.dwNumberOfProcessors = countProcessors();
    constexpr DWORD kBits = sizeof(DWORD_PTR) * 8;
    info.dwActiveProcessorMask =
        info.dwNumberOfProcessors >= kBits ? ~DWORD_PTR{0} : (DWORD_PTR{1} << info.dwNumberOfProcessors) - 1;
    const std::string processor = textOfFile("/proc/cpuinfo");
    info.wProcessorLevel = low(processor, "cpu family");
    info.wProcessorRevision =
        static_cast<WORD>((low(processor, "model\t") << 8) | (low(processor, "stepping") & 0xFF));
}

}  // namespace

void GetSystemInfo(LPSYSTEM_INFO info) {
    if (info == nullptr) return;
    *info = {};
    info->wProcessorArchitecture = k32Bit ? PROCESSOR_ARCHITECTURE_INTEL : PROCESSOR_ARCHITECTURE_AMD64;
    info->dwProcessorType = k32Bit ? PROCESSOR_INTEL_PENTIUM : PROCESSOR_AMD_X8664;
    info->dwPageSize = static_cast<DWORD>(::sysconf(_SC_PAGESIZE));
    info->dwAllocationGranularity = info->dwPageSize;
    info->lpMinimumApplicationAddress = reinterpret_cast<LPVOID>(kLowestAddress);
    info->lpMaximumApplicationAddress = reinterpret_cast<LPVOID>(highestAddress());
    info->dwNumberOfProcessors = 1;
    info->dwActiveProcessorMask = 1;
    (void)systemCall([&] {  // what cannot be told stays as it is
        setProcessors(*info);
        return TRUE;
    });
}

BOOL GlobalMemoryStatusEx(LPMEMORYSTATUSEX status) {
    if (status == nullptr || status->dwLength != sizeof *status) {
        errno = EINVAL;
        return FALSE;
    }
    return systemCall([&] {
        Memory memory{};
        if (!readMemory(memory)) return FALSE;
        status->dwMemoryLoad = loadOf(memory);
        status->ullTotalPhys = memory.total;
        status->ullAvailPhys = memory.available;
        status->ullTotalPageFile = memory.total + memory.swapTotal;
        status->ullAvailPageFile = memory.available + memory.swapAvailable;
        status->ullTotalVirtual = memory.virtualTotal;
        status->ullAvailVirtual = memory.virtualAvailable;
        status->ullAvailExtendedVirtual = 0;
        return TRUE;
    });
}

void GlobalMemoryStatus(LPMEMORYSTATUS status) {
    if (status == nullptr) return;
    _MEMORYSTATUSEX wide{};
    wide.dwLength = sizeof wide;
    (void)GlobalMemoryStatusEx(&wide);  // zeroes, where the machine does not tell
    *status = {.dwLength = sizeof *status,
               .dwMemoryLoad = wide.dwMemoryLoad,
               .dwTotalPhys = clamped(wide.ullTotalPhys),
               .dwAvailPhys = clamped(wide.ullAvailPhys),
               .dwTotalPageFile = clamped(wide.ullTotalPageFile),
               .dwAvailPageFile = clamped(wide.ullAvailPageFile),
               .dwTotalVirtual = clamped(wide.ullTotalVirtual),
               .dwAvailVirtual = clamped(wide.ullAvailVirtual)};
}

BOOL GetVersionEx(LPOSVERSIONINFO version) {
    const DWORD size = version != nullptr ? version->dwOSVersionInfoSize : 0;
    if (size != sizeof(_OSVERSIONINFO) && size != sizeof(_OSVERSIONINFOEX)) {
        errno = EINVAL;
        return FALSE;
    }
    struct utsname name {};
    if (::uname(&name) != 0) return FALSE;
    std::memset(version, 0, size);
    DWORD numbers[3] = {};
    const char* rest = name.release;
    for (DWORD& number : numbers) {  // as many as there are
        const auto [end, error] = std::from_chars(rest, std::end(name.release), number);
        if (error != std::errc() || *end != '.') break;
        rest = end + 1;
    }
    version->dwOSVersionInfoSize = size;
    version->dwMajorVersion = numbers[0];
    version->dwMinorVersion = numbers[1];
    version->dwBuildNumber = numbers[2];
    version->dwPlatformId = VER_PLATFORM_WIN32_NT;
    char release[sizeof name.sysname + sizeof name.release];
    std::snprintf(release, sizeof release, "%s %s", name.sysname, name.release);
    traiklofox::foundation::copyBounded(version->szCSDVersion, release);
    if (size == sizeof(_OSVERSIONINFOEX))
        reinterpret_cast<LPOSVERSIONINFOEX>(version)->wProductType = VER_NT_SERVER;
    return TRUE;
}
