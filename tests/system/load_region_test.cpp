#include <gtest/gtest.h>
#include <sys/stat.h>
#include <traiklofox/file_mapping.h>
#include <traiklofox/load_region.h>
#include <unistd.h>

#include <string>

#include "support/fault_injection.h"
#include "support/private_machine.h"
#include "support/role.h"
#include "support/temp_dir.h"

namespace traiklofox::test {
namespace {

const char* kSuffix = "-test";

class LoadRegion : public testing::Test {
  protected:
    void SetUp() override {
        if (const auto& machine = PrivateMachine::enter(); !machine.entered())
            GTEST_SKIP() << machine.whyNot();
    }
};

TEST_F(LoadRegion, BeginsAnewAtEveryCallAndTakesLoadsUpToAHundred) {
    Handle* mapping = nullptr;
    DWORD* region = nullptr;
    ASSERT_EQ(InitLoadBalancingRegion(&mapping, &region, &kSuffix), 1);
    ASSERT_NE(mapping, nullptr);
    EXPECT_EQ(CloseHandle(mapping), TRUE) << "the view stays";
    EXPECT_EQ(readText("/tmp/.KZLoadValue-test").size(), 140u);
    EXPECT_EQ(KzGetServerLoad(region), LOAD_NO_SERVER);
    region[1] = region[31] = region[32] = region[33] = 7;
    for (const auto& [load, result, now] : {std::tuple<DWORD, BOOL, DWORD>{100, 1, 100},
                                            {101, 0, 100},
                                            {0xFFFFFFFF, 0, 100},
                                            {0, 1, 0},
                                            {50, 1, 50}}) {
        EXPECT_EQ(KzSetServerLoad(load, region), result) << load;
        EXPECT_EQ(KzGetServerLoad(region), now) << load;
    }
    EXPECT_EQ(KzSetServerLoad(50, nullptr), 0);
    EXPECT_EQ(KzGetServerLoad(nullptr), LOAD_NO_SERVER);

    DWORD* again = nullptr;
    ASSERT_EQ(InitLoadBalancingRegion(nullptr, &again, &kSuffix), 1);
    EXPECT_NE(again, region);
    EXPECT_EQ(KzGetServerLoad(region), LOAD_NO_SERVER);
    EXPECT_EQ(region[1], 7u);
    EXPECT_EQ(region[31], 0u);
    EXPECT_EQ(region[32], 0xFFFFFFFFu);
    EXPECT_EQ(region[33], 0u);
    ASSERT_EQ(KzSetServerLoad(9, region), 1);
    EXPECT_EQ(DetachLoadBalancingRegion(region), 1);
    EXPECT_EQ(KzGetServerLoad(again), LOAD_NO_SERVER);
    EXPECT_EQ(DetachLoadBalancingRegion(again), 1);
    EXPECT_EQ(DetachLoadBalancingRegion(nullptr), 1);
    EXPECT_EQ(KzSetServerRestricted() + KzSetServerUnrestricted(), 2);
}

TEST_F(LoadRegion, SaysThatItCannotBeMadeOrMapped) {
    Handle* mapping = INVALID_HANDLE_VALUE;
    auto* region = reinterpret_cast<DWORD*>(0x10);
    const char* slash = "/x";
    EXPECT_EQ(InitLoadBalancingRegion(&mapping, &region, &slash), 0);
    {
        const FailCall noMemory{faults::Call::Mmap, ENOMEM, {.path = "KZLoadValue"}};
        const CountCalls closed{faults::Call::Close, {.path = "KZLoadValue"}};
        EXPECT_EQ(InitLoadBalancingRegion(&mapping, &region, nullptr), 0);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(noMemory.fired(), 1);
        EXPECT_EQ(closed.calls(), 1);
    }
    EXPECT_EQ(mapping, INVALID_HANDLE_VALUE);
    EXPECT_EQ(region, reinterpret_cast<DWORD*>(0x10));
    const char* none = nullptr;
    EXPECT_EQ(InitLoadBalancingRegion(nullptr, nullptr, &none), 1);
    EXPECT_EQ(::access("/tmp/.KZLoadValue", R_OK | W_OK), 0);
}

TEST_ROLE(publishesItsLoad) {
    DWORD* region = nullptr;
    if (InitLoadBalancingRegion(nullptr, &region, &kSuffix) == 0) return 1;
    for (auto line = hearTest(); line; line = hearTest()) {
        if (*line == "detach")
            DetachLoadBalancingRegion(region);
        else
            KzSetServerLoad(static_cast<DWORD>(std::stoul(*line)), region);
        tellTest("done");
    }
    return 0;
}

TEST_F(LoadRegion, AnotherProcessReadsWhatTheServerPublishes) {
    RoleProcess server{"publishesItsLoad"};
    ASSERT_TRUE(server.writeLine("42"));
    ASSERT_EQ(server.readLine(), "done");
    Handle* const mapping =
        CreateFileMapping(INVALID_HANDLE_VALUE, nullptr, PAGE_READONLY, 0, 136, "KZLoadValue-test");
    ASSERT_NE(mapping, nullptr);
    const auto* region = static_cast<const DWORD*>(MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0));
    EXPECT_EQ(KzGetServerLoad(region), 42u);
    ASSERT_TRUE(server.writeLine("7"));
    ASSERT_EQ(server.readLine(), "done");
    EXPECT_EQ(KzGetServerLoad(region), 7u);
    ASSERT_TRUE(server.writeLine("detach"));
    ASSERT_EQ(server.readLine(), "done");
    EXPECT_EQ(KzGetServerLoad(region), LOAD_NO_SERVER);
    EXPECT_EQ(UnmapViewOfFile(region), TRUE);
    EXPECT_EQ(CloseHandle(mapping), TRUE);
}

}  // namespace
}  // namespace traiklofox::test
