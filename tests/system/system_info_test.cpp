#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <traiklofox/system_info.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kernel/command_line.h"
#include "support/role.h"
#include "support/temp_dir.h"
#include "system/control_group.h"

namespace traiklofox::test {
namespace {

using system::ControlGroups;

static_assert(sizeof(SYSTEM_INFO) == (sizeof(void*) == 4 ? 36 : 48));
static_assert(sizeof(MEMORYSTATUS) == (sizeof(void*) == 4 ? 32 : 56) && sizeof(MEMORYSTATUSEX) == 64);
static_assert(sizeof(OSVERSIONINFO) == 148 && sizeof(OSVERSIONINFOEX) == 156);

TEST(SystemInfo, TellsTheProcessorsThatTheProcessMayUse) {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    EXPECT_EQ(info.dwPageSize, static_cast<DWORD>(::sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(info.wProcessorArchitecture,
              sizeof(void*) == 4 ? PROCESSOR_ARCHITECTURE_INTEL : PROCESSOR_ARCHITECTURE_AMD64);
    EXPECT_LE(info.dwNumberOfProcessors, static_cast<DWORD>(::sysconf(_SC_NPROCESSORS_ONLN)));
    EXPECT_LT(info.lpMinimumApplicationAddress, static_cast<void*>(&info));
    EXPECT_GT(info.lpMaximumApplicationAddress, reinterpret_cast<void*>(&GetSystemInfo));
    cpu_set_t all;
    ASSERT_EQ(::sched_getaffinity(0, sizeof all, &all), 0);
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int i = 0; i < CPU_SETSIZE && CPU_COUNT(&one) == 0; ++i)
        if (CPU_ISSET(i, &all)) CPU_SET(i, &one);
    ASSERT_EQ(::sched_setaffinity(0, sizeof one, &one), 0);
    GetSystemInfo(&info);
    EXPECT_EQ(info.dwNumberOfProcessors, 1U);
    EXPECT_EQ(info.dwActiveProcessorMask, 1U);
    GetSystemInfo(nullptr);
}

TEST(SystemInfo, ControlGroupsLimitsAreFoundOnTheWayUp) {
    const TempDir root;
    constexpr unsigned long long kMiB = 1 << 20;
    writeText(root / "cpu.max", "max 100000\n");
    writeText(root / "a/cpu.max", "150000 100000\n");
    writeText(root / "a/b/cpu.max", "400000 100000\n");
    writeText(root / "a/memory.max", std::to_string(100 * kMiB));
    writeText(root / "a/memory.current", std::to_string(95 * kMiB));
    writeText(root / "a/memory.stat", "anon 1\ninactive_file " + std::to_string(15 * kMiB) + "\n");
    writeText(root / "a/b/memory.max", std::to_string(50 * kMiB));
    writeText(root / "a/b/memory.current", std::to_string(10 * kMiB));
    writeText(root / "a/memory.swap.max", "4096\n");
    writeText(root / "memory/memory.limit_in_bytes", "9223372036854771712\n");
    writeText(root / "memory/d/memory.limit_in_bytes", "1000\n");
    writeText(root / "memory/d/memory.usage_in_bytes", "900\n");
    writeText(root / "memory/d/memory.stat", "inactive_file 1\ntotal_inactive_file 300\n");
    writeText(root / "cpu/cpu.cfs_quota_us", "-1\n");
    writeText(root / "cpu/cpu.cfs_period_us", "100000\n");
    writeText(root / "cpu/d/cpu.cfs_quota_us", "50000\n");
    writeText(root / "cpu/d/cpu.cfs_period_us", "100000\n");
    const struct {
        const char* membership;
        double processors;  // 0: no limit
        unsigned long long limit, used, swap;
    } kCases[] = {
        {"0::/a/b\n", 1.5, 50 * kMiB, 30 * kMiB, 4096},  // above, there are 20 MiB left
        {"0::/a\n", 1.5, 100 * kMiB, 80 * kMiB, 4096},
        {"0::/a/unknown/here\n", 1.5, 100 * kMiB, 80 * kMiB, 4096},
        {"0::/\n", 0, 0, 0, 0},
        {"7:memory:/d\n3:cpu,cpuacct:/d\n", 0.5, 1000, 600, 0},
        {"7:memory:/\n3:cpuacct,cpu:/\n0::/\n", 0, 0, 0, 0},
        {"nonsense\n\n1:\n2:memory\n0::relative\n", 0, 0, 0, 0},
        {"", 0, 0, 0, 0},
    };
    for (const auto& row : kCases) {
        SCOPED_TRACE(row.membership);
        const ControlGroups groups(row.membership, root.path());
        EXPECT_EQ(groups.processors().value_or(0), row.processors);
        const auto memory = groups.memory();
        EXPECT_EQ(memory ? memory->limit : 0, row.limit);
        EXPECT_EQ(memory ? memory->used : 0, row.used);
        EXPECT_EQ(groups.swap().value_or(0), row.swap);
    }
}

TEST(SystemInfo, MemoryIsToldInItsBounds) {
    MEMORYSTATUSEX wide{};
    wide.dwLength = 8;
    EXPECT_FALSE(GlobalMemoryStatusEx(&wide));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(GlobalMemoryStatusEx(nullptr));
    wide.dwLength = sizeof wide;
    ASSERT_TRUE(GlobalMemoryStatusEx(&wide));
    const auto machine = static_cast<unsigned long long>(::sysconf(_SC_PHYS_PAGES)) *
                         static_cast<unsigned long long>(::sysconf(_SC_PAGESIZE));
    EXPECT_LE(wide.ullTotalPhys, machine);
    EXPECT_GT(wide.ullTotalPhys, 1ULL << 20);
    EXPECT_LE(wide.ullAvailPhys, wide.ullTotalPhys);
    EXPECT_GE(wide.ullTotalPageFile, wide.ullTotalPhys);
    EXPECT_LE(wide.dwMemoryLoad, 100U);
    EXPECT_LT(wide.ullAvailVirtual, wide.ullTotalVirtual);
    MEMORYSTATUS narrow{};
    GlobalMemoryStatus(&narrow);
    EXPECT_EQ(narrow.dwLength, sizeof narrow);
    EXPECT_EQ(narrow.dwTotalPhys, std::min<unsigned long long>(wide.ullTotalPhys, ~SIZE_T{0}));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    const struct rlimit limit { 1U << 30, RLIM_INFINITY };
    ASSERT_EQ(::setrlimit(RLIMIT_AS, &limit), 0);
    ASSERT_TRUE(GlobalMemoryStatusEx(&wide));
    EXPECT_EQ(wide.ullTotalVirtual, 1U << 30);
#endif
    GlobalMemoryStatus(nullptr);
}

TEST(SystemInfo, VersionIsTheKernels) {
    struct utsname name {};
    ASSERT_EQ(::uname(&name), 0);
    OSVERSIONINFOEX version{};
    version.dwOSVersionInfoSize = sizeof version;
    ASSERT_TRUE(GetVersionEx(reinterpret_cast<LPOSVERSIONINFO>(&version)));
    const std::string numbers =
        std::to_string(version.dwMajorVersion) + "." + std::to_string(version.dwMinorVersion);
    EXPECT_EQ(std::string(name.release).substr(0, numbers.size()), numbers);
    EXPECT_EQ(version.dwPlatformId, VER_PLATFORM_WIN32_NT);
    EXPECT_EQ(version.wProductType, VER_NT_SERVER);
    EXPECT_EQ(version.szCSDVersion, std::string(name.sysname) + " " + name.release);
    struct {
        OSVERSIONINFO version;
        BYTE behind[8];
    } plain;
    std::memset(&plain, 0x55, sizeof plain);
    plain.version.dwOSVersionInfoSize = sizeof plain.version;
    EXPECT_TRUE(GetVersionEx(&plain.version));
    for (const BYTE byte : plain.behind) EXPECT_EQ(byte, 0x55);
    plain.version.dwOSVersionInfoSize = 4;
    EXPECT_FALSE(GetVersionEx(&plain.version));
    EXPECT_FALSE(GetVersionEx(nullptr));
}

TEST(SystemInfo, NamesFitOrTellWhatTheyNeed) {
    char host[HOST_NAME_MAX + 1];
    ASSERT_EQ(::gethostname(host, sizeof host), 0);
    const std::string computer = std::string(host).substr(0, std::string(host).find('.'));
    const struct {
        BOOL (*call)(LPSTR, LPDWORD);
        DWORD counted;  // of the NUL
    } kCases[] = {{GetComputerName, 0}, {GetUserName, 1}};
    for (const auto& row : kCases) {
        DWORD needed = 0;
        EXPECT_FALSE(row.call(nullptr, &needed));
        EXPECT_EQ(errno, ERANGE);
        std::vector<char> buffer(needed + 1, '\x7f');
        DWORD size = needed - 1;
        EXPECT_FALSE(row.call(buffer.data(), &size));
        EXPECT_EQ(size, needed);
        EXPECT_EQ(buffer[0], '\x7f');
        EXPECT_TRUE(row.call(buffer.data(), &size));
        EXPECT_EQ(size, needed - 1 + row.counted);
        EXPECT_EQ(std::strlen(buffer.data()), needed - 1);
        EXPECT_EQ(buffer[needed], '\x7f');
        if (row.call == GetComputerName) {
            EXPECT_EQ(buffer.data(), computer);
        }
        EXPECT_FALSE(row.call(buffer.data(), nullptr));
    }
    ::setenv("TWHOME", "/opt/own//", /*overwrite=*/1);
    char path[MAX_PATH] = "untouched";
    EXPECT_EQ(GetWindowsDirectory(path, 8), 9U);
    EXPECT_EQ(GetSystemDirectory(nullptr, 0), 13U);
    EXPECT_STREQ(path, "untouched");
    EXPECT_EQ(GetWindowsDirectory(path, sizeof path), 8U);
    EXPECT_STREQ(path, "/opt/own");
    EXPECT_EQ(GetSystemDirectory(path, sizeof path), 12U);
    EXPECT_STREQ(path, "/opt/own/bin");
}

TEST(Environment, VariablesAreReadSetAndExpanded) {
    char buffer[16] = "untouched";
    EXPECT_TRUE(SetEnvironmentVariable("OWN", "value"));
    EXPECT_STREQ(std::getenv("OWN"), "value");
    EXPECT_EQ(GetEnvironmentVariable("OWN", buffer, 5), 6U);
    EXPECT_STREQ(buffer, "untouched");
    EXPECT_EQ(GetEnvironmentVariable("OWN", buffer, 6), 5U);
    EXPECT_STREQ(buffer, "value");
    EXPECT_EQ(GetEnvironmentVariable("own", buffer, sizeof buffer), 0U);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(SetEnvironmentVariable("EMPTY", ""));
    EXPECT_EQ(GetEnvironmentVariable("EMPTY", buffer, sizeof buffer), 0U);
    EXPECT_EQ(errno, 0);
    EXPECT_STREQ(buffer, "");
    for (const char* name : {"", "A=B"}) EXPECT_FALSE(SetEnvironmentVariable(name, "x"));
    EXPECT_FALSE(SetEnvironmentVariable(nullptr, "x"));
    EXPECT_EQ(GetEnvironmentVariable(nullptr, buffer, sizeof buffer), 0U);

    SetEnvironmentVariable("A", "%B%");
    SetEnvironmentVariable("GONE", "x");
    EXPECT_TRUE(SetEnvironmentVariable("GONE", nullptr));
    EXPECT_TRUE(SetEnvironmentVariable("GONE", nullptr));
    const struct {
        const char *source, *expanded;
    } kCases[] = {
        {"", ""},          {"plain", "plain"}, {"%OWN%", "value"},           {"<%OWN%%OWN%>", "<valuevalue>"},
        {"%A%", "%B%"},    {"100%", "100%"},   {"%GONE%OWN%", "%GONEvalue"}, {"%%OWN%", "%value"},
        {"%EMPTY%x", "x"}, {"%own%", "%own%"}, {"%A=B%", "%A=B%"},           {"%%", "%%"},
    };
    for (const auto& row : kCases) {
        const DWORD needed = ExpandEnvironmentStrings(row.source, nullptr, 0);
        EXPECT_EQ(needed, std::strlen(row.expanded) + 1) << row.source;
        std::vector<char> stored(needed + 1, '\x7f');
        EXPECT_EQ(ExpandEnvironmentStrings(row.source, stored.data(), needed - 1), needed);
        EXPECT_EQ(stored[0], '\x7f');
        EXPECT_EQ(ExpandEnvironmentStrings(row.source, stored.data(), needed), needed);
        EXPECT_STREQ(stored.data(), row.expanded);
        EXPECT_EQ(stored[needed], '\x7f');
    }
    EXPECT_EQ(ExpandEnvironmentStrings(nullptr, buffer, sizeof buffer), 0U);
}

TEST_ROLE(takesItsCommandLineApart) {
    const auto line = kernel::CommandLine::split(GetCommandLine(), kernel::CommandLine::Rules::Quotes);
    if (!line) return 1;
    char* const* words = line->words();
    while (*words != nullptr && !std::string_view(*words).starts_with("--role=")) ++words;
    for (const std::string& argument : args)
        if (*words == nullptr || *++words == nullptr || argument != *words) return 2;
    return GetCommandLine() == GetCommandLine() ? 0 : 3;
}

TEST(CommandLine, IsTakenApartIntoTheWordsThatTheProcessWasStartedWith) {
    RoleProcess process{"takesItsCommandLineApart",
                        {"plain", "", "with blank", "tab\t", "back\\slash", "ends\\", "blank ends \\\\", "\"",
                         "it's", "a\\\"b c\\"}};
    EXPECT_EQ(process.wait(), ExitStatus::exited(0));
}

}  // namespace
}  // namespace traiklofox::test
