#include <gtest/gtest.h>
#include <traiklofox/file_mapping.h>
#include <traiklofox/load_region.h>
#include <unistd.h>

#include <string>

#include "support/fault_injection.h"
#include "support/owned_handle.h"
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
    EXPECT_EQ(CloseHandle(mapping), TRUE) << "the view stays";
    EXPECT_EQ(readText("/tmp/.KZLoadValue-test").size(), 140u);
    EXPECT_EQ(KzGetServerLoad(region), LOAD_NO_SERVER);
    region[1] = region[31] = region[32] = region[33] = 7;
    DWORD before = LOAD_NO_SERVER;
    for (const DWORD load : {100u, 101u, 0xFFFFFFFFu, 0u, 50u}) {
        EXPECT_EQ(KzSetServerLoad(load, region), load <= 100) << load;
        EXPECT_EQ(KzGetServerLoad(region), before = load <= 100 ? load : before) << load;
    }
    EXPECT_EQ(KzSetServerLoad(50, nullptr), 0);
    EXPECT_EQ(KzGetServerLoad(nullptr), LOAD_NO_SERVER);

    DWORD* again = nullptr;
    ASSERT_EQ(InitLoadBalancingRegion(nullptr, &again, &kSuffix), 1);
    EXPECT_NE(again, region);
    EXPECT_EQ(KzGetServerLoad(region), LOAD_NO_SERVER);
    EXPECT_TRUE(region[1] == 7 && region[31] == 0 && region[32] == 0xFFFFFFFF && region[33] == 0);
    ASSERT_EQ(KzSetServerLoad(9, region), 1);
    EXPECT_EQ(DetachLoadBalancingRegion(region), 1);
    EXPECT_EQ(KzGetServerLoad(again), LOAD_NO_SERVER);
    EXPECT_EQ(DetachLoadBalancingRegion(again) + DetachLoadBalancingRegion(nullptr), 2);
    EXPECT_EQ(KzSetServerRestricted() + KzSetServerUnrestricted(), 2);
}

TEST_F(LoadRegion, SaysThatItCannotBeMadeOrMapped) {
    Handle* mapping = INVALID_HANDLE_VALUE;
    auto* region = reinterpret_cast<DWORD*>(0x10);
    const char* slash = "/x";
    const char* none = nullptr;
    EXPECT_EQ(InitLoadBalancingRegion(&mapping, &region, &slash), 0);
    {
        const FailCall noMemory{faults::Call::Mmap, ENOMEM, {.path = "KZLoadValue"}};
        const CountCalls closed{faults::Call::Close, {.path = "KZLoadValue"}};
        EXPECT_EQ(InitLoadBalancingRegion(&mapping, &region, nullptr), 0);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(noMemory.fired() + closed.calls(), 2);
    }
    EXPECT_TRUE(mapping == INVALID_HANDLE_VALUE && region == reinterpret_cast<DWORD*>(0x10));
    EXPECT_EQ(InitLoadBalancingRegion(nullptr, nullptr, &none), 1);
    EXPECT_EQ(::access("/tmp/.KZLoadValue", R_OK | W_OK), 0);
}

TEST_ROLE(publishesItsLoad) {
    DWORD* region = nullptr;
    if (InitLoadBalancingRegion(nullptr, &region, &kSuffix) == 0) return 1;
    for (auto line = hearTest(); line; line = hearTest())
        tellTest(std::to_string(*line == "detach"
                                    ? DetachLoadBalancingRegion(region)
                                    : KzSetServerLoad(static_cast<DWORD>(std::stoul(*line)), region)));
    return 0;
}

TEST_F(LoadRegion, AnotherProcessReadsWhatTheServerPublishes) {
    RoleProcess server{"publishesItsLoad"};
    ASSERT_TRUE(server.writeLine("42"));
    ASSERT_EQ(server.readLine(), "1");
    const OwnedHandle mapping{
        CreateFileMapping(INVALID_HANDLE_VALUE, nullptr, PAGE_READONLY, 0, 136, "KZLoadValue-test")};
    const auto* region = static_cast<const DWORD*>(MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, 0));
    EXPECT_EQ(KzGetServerLoad(region), 42u);
    for (const auto& [order, load] : {std::pair<const char*, DWORD>{"7", 7}, {"detach", LOAD_NO_SERVER}}) {
        ASSERT_TRUE(server.writeLine(order));
        ASSERT_EQ(server.readLine(), "1");
        EXPECT_EQ(KzGetServerLoad(region), load);
    }
    EXPECT_EQ(UnmapViewOfFile(region), TRUE);
}

}  // namespace
}  // namespace traiklofox::test
