#pragma once

/// What a server asks about the machine, the user and its environment.
///
/// In a container the processors and the memory that its control group grants count, not the machine's. Any thread may
/// call any function. Those that store a text in a buffer take or return its size in bytes; what does not fit is not
/// stored at all.

#include <traiklofox/types.h>

/// What the library was built for: 32-bit x86, x86-64.
constexpr WORD PROCESSOR_ARCHITECTURE_INTEL = 0;
constexpr WORD PROCESSOR_ARCHITECTURE_AMD64 = 9;

/// Types of processors, likewise.
constexpr DWORD PROCESSOR_INTEL_PENTIUM = 586;
constexpr DWORD PROCESSOR_AMD_X8664 = 8664;

/// The processors, and the memory's granularity.
struct _SYSTEM_INFO {
    union {
        DWORD dwOemId;  ///< obsolete
        struct {
            WORD wProcessorArchitecture;  ///< what this library was built for
            WORD wReserved;               ///< 0
        };
    };
    DWORD dwPageSize;                    ///< in bytes
    LPVOID lpMinimumApplicationAddress;  ///< lowest address that memory may have
    LPVOID lpMaximumApplicationAddress;  ///< highest address that memory may have
    DWORD_PTR
    dwActiveProcessorMask;       ///< a bit for each of the processors counted below, as far as there are bits
    DWORD dwNumberOfProcessors;  ///< see `GetSystemInfo`
    DWORD dwProcessorType;       ///< PROCESSOR_INTEL_PENTIUM or PROCESSOR_AMD_X8664
    DWORD dwAllocationGranularity;  ///< the page size: nothing is coarser here
    WORD wProcessorLevel;           ///< the processor's family; 0 where it is not told
    WORD wProcessorRevision;        ///< model in the high byte, stepping in the low one
};
typedef _SYSTEM_INFO SYSTEM_INFO;
typedef SYSTEM_INFO* LPSYSTEM_INFO;

/// Fills in `*info`. The processors are those that the process may run on, and no more than its control group's
/// share of time amounts to, rounded up; at least 1. A null pointer is ignored.
TRAIKLOFOX_C_API void GetSystemInfo(LPSYSTEM_INFO info);

/// The memory, in bytes unless it says otherwise.
struct _MEMORYSTATUS {
    DWORD dwLength;          ///< set by the call
    DWORD dwMemoryLoad;      ///< how much of the memory is in use, in percent
    SIZE_T dwTotalPhys;      ///< bytes of memory
    SIZE_T dwAvailPhys;      ///< of it, what can be had without swapping
    SIZE_T dwTotalPageFile;  ///< memory and swap space
    SIZE_T dwAvailPageFile;  ///< of both, what is free
    SIZE_T dwTotalVirtual;   ///< the process's address space
    SIZE_T dwAvailVirtual;   ///< of it, what is free
};
typedef _MEMORYSTATUS MEMORYSTATUS;
typedef MEMORYSTATUS* LPMEMORYSTATUS;

/// The same in 64 bits.
struct _MEMORYSTATUSEX {
    DWORD dwLength;                     ///< sizeof(MEMORYSTATUSEX), set by the caller
    DWORD dwMemoryLoad;                 ///< how much of the memory is in use, in percent
    DWORDLONG ullTotalPhys;             ///< bytes of memory
    DWORDLONG ullAvailPhys;             ///< of it, what can be had without swapping
    DWORDLONG ullTotalPageFile;         ///< memory and swap space
    DWORDLONG ullAvailPageFile;         ///< of both, what is free
    DWORDLONG ullTotalVirtual;          ///< the process's address space
    DWORDLONG ullAvailVirtual;          ///< of it, what is free
    DWORDLONG ullAvailExtendedVirtual;  ///< 0
};
typedef _MEMORYSTATUSEX MEMORYSTATUSEX;
typedef MEMORYSTATUSEX* LPMEMORYSTATUSEX;

/// Fills in `*status`. What does not fit into a field is the largest number that does. A null pointer is ignored.
TRAIKLOFOX_C_API void GlobalMemoryStatus(LPMEMORYSTATUS status);

/// Fills in `*status`: the smaller of what the machine and what the control group has, its file cache counted as
/// available. Returns TRUE; FALSE with `errno` when `dwLength` is wrong or the pointer null (EINVAL), or the machine
/// does not tell (/proc is missing).
TRAIKLOFOX_C_API BOOL GlobalMemoryStatusEx(LPMEMORYSTATUSEX status);

/// The platform and the product that `GetVersionEx` tells, always.
constexpr DWORD VER_PLATFORM_WIN32_NT = 2;
constexpr BYTE VER_NT_SERVER = 3;

/// The operating system.
struct _OSVERSIONINFO {
    DWORD dwOSVersionInfoSize;  ///< sizeof(OSVERSIONINFO) or sizeof(OSVERSIONINFOEX)
    DWORD dwMajorVersion;       ///< the kernel's, 6 of "6.1.12-amd64"
    DWORD dwMinorVersion;       ///< 1
    DWORD dwBuildNumber;        ///< 12
    DWORD dwPlatformId;         ///< VER_PLATFORM_WIN32_NT, whose interfaces these are
    CHAR szCSDVersion[128];     ///< the kernel's name and whole release, "Linux 6.1.12-amd64"
};
typedef _OSVERSIONINFO OSVERSIONINFO;
typedef OSVERSIONINFO* LPOSVERSIONINFO;

/// The same and more.
struct _OSVERSIONINFOEX {
    DWORD dwOSVersionInfoSize;  ///< sizeof(OSVERSIONINFOEX)
    DWORD dwMajorVersion;       ///< this and the next four as in `_OSVERSIONINFO`
    DWORD dwMinorVersion;       ///< likewise
    DWORD dwBuildNumber;        ///< likewise
    DWORD dwPlatformId;         ///< likewise
    CHAR szCSDVersion[128];     ///< likewise
    WORD wServicePackMajor;     ///< 0
    WORD wServicePackMinor;     ///< 0
    WORD wSuiteMask;            ///< 0
    BYTE wProductType;          ///< VER_NT_SERVER
    BYTE wReserved;             ///< 0
};
typedef _OSVERSIONINFOEX OSVERSIONINFOEX;
typedef OSVERSIONINFOEX* LPOSVERSIONINFOEX;

/// Fills in an OSVERSIONINFO or an OSVERSIONINFOEX, whichever the size in it says. Returns TRUE; FALSE with EINVAL for
/// another size or null.
TRAIKLOFOX_C_API BOOL GetVersionEx(LPOSVERSIONINFO version);

/// Longest name of a computer, without its NUL.
constexpr DWORD MAX_COMPUTERNAME_LENGTH = 64;
/// Longest name of a user, without its NUL.
constexpr DWORD UNLEN = 256;

/// Stores the host's name up to its first period. `*size` is the buffer's size, and becomes the length without the
/// NUL. Returns TRUE, or FALSE: ERANGE with the size needed, NUL included, in `*size`; EINVAL for a null pointer.
TRAIKLOFOX_C_API BOOL GetComputerName(LPSTR buffer, LPDWORD size);

/// Stores the name of the effective user, or the user's number where it has no name. `*size` is the buffer's size, and
/// becomes the length *with* the NUL. Results as of `GetComputerName`.
TRAIKLOFOX_C_API BOOL GetUserName(LPSTR buffer, LPDWORD size);

/// Store the path of the installation directory (TWHOME), and of "bin" below it, without a slash at the end. Return the
/// length without the NUL, or, when that does not fit or `buffer` is null, the size needed with it.
TRAIKLOFOX_C_API UINT GetWindowsDirectory(LPSTR buffer, UINT size);
TRAIKLOFOX_C_API UINT GetSystemDirectory(LPSTR buffer, UINT size);

/// Stores the value of an environment variable. Returns its length without the NUL; when it does not fit (or `buffer`
/// is null), the size needed with it; 0 for an empty value (`errno` is then 0), a variable that is not there (ENOENT),
/// or a null name (EINVAL). Unlike Win32, the case of letters counts.
TRAIKLOFOX_C_API DWORD GetEnvironmentVariable(LPCSTR name, LPSTR buffer, DWORD size);

/// Sets an environment variable of the process, or, with a null value, removes it, if it is there. Returns TRUE, or
/// FALSE with EINVAL (a null or empty name, or one with a "=" in it) or ENOMEM. These three functions exclude each
/// other; `getenv` on another thread meanwhile is not safe.
TRAIKLOFOX_C_API BOOL SetEnvironmentVariable(LPCSTR name, LPCSTR value);

/// Stores `source` with the value of the variable for each "%name%"; what names no variable stays as it is. Returns the
/// size of the result, the NUL included; when that is more than `size` (or `buffer` is null) nothing is stored. 0 with
/// EINVAL for a null `source`, or ENOMEM.
TRAIKLOFOX_C_API DWORD ExpandEnvironmentStrings(LPCSTR source, LPSTR buffer, DWORD size);

/// The words that the process was started with, in one text, which `CreateProcess` takes apart into the same: those
/// with blanks, tabs or quotes in them, and empty ones, in quotes; a quote inside behind a backslash. The text is the
/// library's, lasts as long as the process, and is not to be changed. Empty where /proc is missing.
TRAIKLOFOX_C_API LPSTR GetCommandLine();
