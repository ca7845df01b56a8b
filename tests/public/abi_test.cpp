// What an application that was compiled once relies on, whatever is changed inside the library.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <string.h>
#include <traiklofox/traiklofox.h>

#include <map>

#include "public/layout.h"

namespace traiklofox::test {

namespace {

constexpr bool k32Bit = sizeof(void*) == 4;

/// The place of a virtual function in its class's table: the C++ ABI stores it, plus one, in a pointer to the
/// member.
template <class Member>
size_t slotOf(Member member) {
    static_assert(sizeof member == 2 * sizeof(size_t));
    size_t parts[2];
    memcpy(parts, &member, sizeof parts);
    return (parts[0] - 1) / sizeof(void*);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const LayoutEntry& entry) {
    return out << entry.name << " " << entry.bytes;
}

TEST(Abi, LargeFileMacrosOfTheApplicationChangeNoLayout) {
    EXPECT_EQ(plainLayout(), layoutWithLargeFiles());
    EXPECT_EQ(plainLayout(), layoutWithLargeFileSource());
}

TEST(Abi, RecordsHaveTheLayoutThatCallersKnow) {
    struct Known {
        const char* name;
        size_t on32Bit;
        size_t on64Bit;
    };
    constexpr Known kKnown[] = {
        {"Handle", 12, 24},
        {"Event", 176, 224},
        {"MultiEvent", 208, 272},
        {"Thread", 56, 96},
        {"RWLock", 180, 216},
        {"Semaphore", 72, 112},
        {"Mutex", 88, 144},
        {"Timer", 76, 128},
        {"ThreadPool", 208, 288},
        {"CKZString", 24, 32},
        {"ThreadContext", 16, 32},
        {"_FILETIME", 8, 8},
        {"_FILETIME::dwHighDateTime", 4, 4},
        {"_SYSTEMTIME", 16, 16},
        {"_SYSTEMTIME::wMilliseconds", 14, 14},
        {"_SECURITY_ATTRIBUTES", 12, 24},
        {"_SECURITY_ATTRIBUTES::bInheritHandle", 8, 16},
        {"_critsection", 32, 56},
        {"_critsection::mutex", 8, 16},
        {"_TIME_ZONE_INFORMATION", 300, 300},
        {"_STARTUPINFO", 20, 32},
        {"_STARTUPINFO::hStdError", 16, 24},
        {"_PROCESS_INFORMATION", 16, 24},
        {"_PROCESS_INFORMATION::dwProcessId", 8, 16},
        {"_ULARGE_INTEGER", 8, 8},
        {"_ULARGE_INTEGER::HighPart", 4, 4},
        {"_OVERLAPPED", 20, 32},
        {"_OVERLAPPED::hEvent", 16, 24},
        {"WatchDirsCallbacks", 16, 32},
        {"RegValueList", 52, 72},
        {"tagDATEINFO", 1304, 1304},
        {"tagDATEINFO::shortDatePicture", 648, 648},
        {"tagUDS", 18, 18},
        {"tagVARIANT", 16, 16},
        {"tagVARIANT::date", 8, 8},
        {"CDateTime", 12, 16},
        {"CTime", 4, 8},
    };
    std::map<std::string, size_t> here;
    for (const LayoutEntry& entry : plainLayout()) here[entry.name] = entry.bytes;
    for (const Known& known : kKnown) {
        EXPECT_EQ(here.at(known.name), k32Bit ? known.on32Bit : known.on64Bit) << known.name;
    }
}

TEST(Abi, VirtualOperationsOfHandleKeepTheirPlaces) {
    // The destructor's two forms come first.
    EXPECT_EQ(slotOf(&Handle::What), 2U);
    EXPECT_EQ(slotOf(&Handle::WaitForHandle), 3U);
    EXPECT_EQ(slotOf(&Handle::WaitForMultipleHandles), 4U);
    EXPECT_EQ(slotOf(&Handle::Set), 5U);
    EXPECT_EQ(slotOf(&Handle::Reset), 6U);
    EXPECT_EQ(slotOf(&Handle::Pulse), 7U);
    EXPECT_EQ(slotOf(&Handle::GetSynch), 8U);
    EXPECT_EQ(slotOf(&Handle::FreeSynch), 9U);
    EXPECT_EQ(slotOf(&Handle::Signal), 10U);
}

TEST(Abi, FunctionsOfWin32AreFoundByTheirPlainNames) {
    constexpr const char* kNames[] = {
#include "c_names.inc"
    };
    EXPECT_GT(std::size(kNames), 50U);
    for (const char* name : kNames) EXPECT_NE(::dlsym(RTLD_DEFAULT, name), nullptr) << name;
}

TEST(Abi, HandleClassOfTheApplicationWaitsLikeOurs) {
    struct AlwaysTimedOut : Handle {
        AlwaysTimedOut() : Handle(1) {}
        DWORD WaitForHandle(DWORD, BOOL) override { return WAIT_TIMEOUT; }
        BOOL Set() override { return 77; }
    };
    Handle* own = new AlwaysTimedOut;
    EXPECT_EQ(WaitForSingleObject(own, INFINITE), WAIT_TIMEOUT);
    EXPECT_EQ(SetEvent(own), 77);
    EXPECT_EQ(CloseHandle(own), TRUE);
}

}  // namespace traiklofox::test
