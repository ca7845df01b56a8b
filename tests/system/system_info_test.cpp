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
    EXPECT_GT(info.lpMaximumApplicationAddress, static_cast<void*>(&info));
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(::sched_getcpu()), &one);
    ASSERT_EQ(::sched_setaffinity(0, sizeof one, &one), 0);
    GetSystemInfo(&info);
    EXPECT_TRUE(info.dwNumberOfProcessors == 1 && info.dwActiveProcessorMask == 1);
    GetSystemInfo(nullptr);
}

TEST(SystemInfo, ControlGroupsLimitsAreFoundOnTheWayUp) {
    const TempDir root;
    constexpr unsigned long long kMiB = 1 << 20;
    // clang-format off
    for (const auto& [file, content] : {std::pair{"cpu.max", "max 100000\n"}, {"a/cpu.max", "150000 100000\n"},
         {"a/b/cpu.max", "400000 100000\n"}, {"a/memory.max", "104857600\n"}, {"a/memory.current", "99614720"},
         {"a/memory.swap.max", "4096\n"}, {"a/memory.swap.current", "1024\n"},
         {"a/memory.stat", "anon 1\ninactive_file 15728640\n"},
         {"a/b/memory.max", "52428800"}, {"a/b/memory.current", "10485760\n"}, {"cpu/cpu.cfs_quota_us", "-1\n"},
         {"memory/memory.limit_in_bytes", "9223372036854771712\n"}, {"cpu/cpu.cfs_period_us", "100000\n"},
         {"memory/d/memory.limit_in_bytes", "1000\n"}, {"memory/d/memory.usage_in_bytes", "900\n"},
         {"memory/d/memory.stat", "inactive_file 1\ntotal_inactive_file 300\n"},
         {"cpu/d/cpu.cfs_quota_us", "50000\n"}, {"cpu/d/cpu.cfs_period_us", "100000\n"}})
        writeText(root / file, content);
    const struct { const char* membership; double processors; unsigned long long limit, used, swap; } kCases[] = {
        {"0::/a/b\n", 1.5, 50 * kMiB, 30 * kMiB, 3072},  // above, there are 20 MiB left
        {"0::/a\n", 1.5, 100 * kMiB, 80 * kMiB, 3072}, {"0::/a/unknown/here\n", 1.5, 100 * kMiB, 80 * kMiB, 3072},
        {"0::/\n", 0, 0, 0, 0}, {"7:memory:/d\n3:cpu,cpuacct:/d\n", 0.5, 1000, 600, 0},
        {"7:memory:/\n3:cpuacct,cpu:/\n0::/\n", 0, 0, 0, 0}, {"nonsense\n\n1:\n2:memory\n0::relative\n", 0, 0, 0, 0}};
    // clang-format on
    for (const auto& row : kCases) {
        SCOPED_TRACE(row.membership);
        const system::ControlGroups groups(row.membership, root.path());
        const auto memory = groups.memory().value_or(system::GroupMemory{});
        EXPECT_EQ(groups.processors().value_or(0), row.processors);
        EXPECT_EQ(memory.limit, row.limit);
        EXPECT_EQ(memory.used, row.used);
        const auto swap = groups.swap().value_or(system::GroupMemory{});
        EXPECT_EQ(swap.limit - swap.used, row.swap);
    }
}

TEST(SystemInfo, MemoryIsToldInItsBounds) {
    MEMORYSTATUSEX wide{};
    wide.dwLength = 8;
    EXPECT_FALSE(GlobalMemoryStatusEx(&wide) || GlobalMemoryStatusEx(nullptr));
    EXPECT_EQ(errno, EINVAL);
    wide.dwLength = sizeof wide;
    ASSERT_TRUE(GlobalMemoryStatusEx(&wide));
    const auto machine = static_cast<unsigned long long>(::sysconf(_SC_PHYS_PAGES)) *
                         static_cast<unsigned long long>(::sysconf(_SC_PAGESIZE));
    EXPECT_TRUE(wide.ullTotalPhys <= machine && wide.ullTotalPhys > 1 << 20) << wide.ullTotalPhys;
    EXPECT_TRUE(wide.ullAvailPhys <= wide.ullTotalPhys && wide.ullTotalPageFile >= wide.ullTotalPhys);
    EXPECT_TRUE(wide.dwMemoryLoad <= 100 && wide.ullAvailVirtual < wide.ullTotalVirtual);
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
    auto* plain = reinterpret_cast<LPOSVERSIONINFO>(&version);
    version.dwOSVersionInfoSize = sizeof version;
    ASSERT_TRUE(GetVersionEx(plain));
    const std::string numbers =
        std::to_string(version.dwMajorVersion) + "." + std::to_string(version.dwMinorVersion);
    EXPECT_TRUE(std::string(name.release).starts_with(numbers)) << numbers;
    EXPECT_TRUE(version.dwPlatformId == VER_PLATFORM_WIN32_NT && version.wProductType == VER_NT_SERVER);
    EXPECT_EQ(version.szCSDVersion, std::string(name.sysname) + " " + name.release);
    std::memset(&version, 0x55, sizeof version);
    plain->dwOSVersionInfoSize = sizeof *plain;
    EXPECT_TRUE(GetVersionEx(plain));
    EXPECT_TRUE(version.wServicePackMajor == 0x5555 && version.wProductType == 0x55)
        << "stored behind the shorter";
    plain->dwOSVersionInfoSize = 4;
    EXPECT_FALSE(GetVersionEx(plain) || GetVersionEx(nullptr));
}

TEST(SystemInfo, NamesFitOrTellWhatTheyNeed) {
    char host[HOST_NAME_MAX + 1];
    ASSERT_EQ(::gethostname(host, sizeof host), 0);
    for (const auto& [call, countsNul] : {std::pair{&GetComputerName, 0u}, {&GetUserName, 1u}}) {
        DWORD needed = 0;
        EXPECT_FALSE(call(nullptr, &needed));
        EXPECT_EQ(errno, ERANGE);
        std::string buffer(needed + 1, '\x7f');
        DWORD size = needed - 1;
        EXPECT_FALSE(call(buffer.data(), &size) || call(buffer.data(), nullptr));
        EXPECT_TRUE(size == needed && buffer[0] == '\x7f');
        EXPECT_TRUE(call(buffer.data(), &size));
        EXPECT_EQ(size, needed - 1 + countsNul);
        EXPECT_TRUE(std::strlen(buffer.c_str()) == needed - 1 && buffer[needed] == '\x7f');
        if (countsNul == 0) {
            EXPECT_EQ(buffer.c_str(), std::string(host).substr(0, std::string(host).find('.')));
        }
    }
    ::setenv("TWHOME", "/opt/own//", /*overwrite=*/1);
    char path[MAX_PATH] = "untouched";
    EXPECT_TRUE(GetWindowsDirectory(path, 8) == 9 && GetSystemDirectory(nullptr, 0) == 13);
    EXPECT_STREQ(path, "untouched");
    EXPECT_TRUE(GetWindowsDirectory(path, sizeof path) == 8 && path == std::string("/opt/own"));
    EXPECT_TRUE(GetSystemDirectory(path, sizeof path) == 12 && path == std::string("/opt/own/bin"));
}

TEST(Environment, VariablesAreReadSetAndExpanded) {
    char buffer[16] = "untouched";
    EXPECT_TRUE(SetEnvironmentVariable("OWN", "value") && SetEnvironmentVariable("EMPTY", ""));
    EXPECT_EQ(GetEnvironmentVariable("OWN", buffer, 5), 6U);
    EXPECT_STREQ(buffer, "untouched");
    EXPECT_EQ(GetEnvironmentVariable("OWN", buffer, 6), 5U);
    EXPECT_STREQ(buffer, "value");
    EXPECT_TRUE(GetEnvironmentVariable("own", buffer, sizeof buffer) == 0 && errno == ENOENT);
    EXPECT_TRUE(GetEnvironmentVariable("EMPTY", buffer, sizeof buffer) == 0 && errno == 0 && *buffer == '\0');
    EXPECT_EQ(GetEnvironmentVariable(nullptr, buffer, sizeof buffer), 0U);
    for (const char* name : {"", "A=B", static_cast<const char*>(nullptr)})
        EXPECT_FALSE(SetEnvironmentVariable(name, "x"));
    EXPECT_TRUE(SetEnvironmentVariable("A", "%B%") && SetEnvironmentVariable("GONE", "x"));
    for (int again = 0; again < 2; ++again) EXPECT_TRUE(SetEnvironmentVariable("GONE", nullptr));
    // clang-format off
    for (const auto& [source, expanded] : {std::pair{"", ""}, {"plain", "plain"}, {"%OWN%", "value"},
         {"<%OWN%%OWN%>", "<valuevalue>"}, {"%A%", "%B%"}, {"100%", "100%"}, {"%GONE%OWN%", "%GONEvalue"},
         {"%%OWN%", "%value"}, {"%EMPTY%x", "x"}, {"%own%", "%own%"}, {"%A=B%", "%A=B%"}, {"%%", "%%"}}) {
        // clang-format on
        const auto needed = static_cast<DWORD>(std::strlen(expanded) + 1);
        std::string stored(needed + 1, '\x7f');
        EXPECT_EQ(ExpandEnvironmentStrings(source, nullptr, 0), needed) << source;
        EXPECT_EQ(ExpandEnvironmentStrings(source, stored.data(), needed - 1), needed);
        EXPECT_EQ(stored[0], '\x7f');
        EXPECT_EQ(ExpandEnvironmentStrings(source, stored.data(), needed), needed);
        EXPECT_EQ(stored, expanded + std::string("\0\x7f", 2));
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
