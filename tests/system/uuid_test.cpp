#include <traiklofox/uuid.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/fault_injection.h"

namespace traiklofox::test {
namespace {

std::string textOf(const _GUID& uuid) {
    unsigned char* text = nullptr;
    EXPECT_EQ(UuidToString(&uuid, &text), 0);
    const std::string copy(reinterpret_cast<const char*>(text));
    EXPECT_EQ(RpcStringFree(&text), 0);
    return copy;
}

TEST(Uuid, IsMadeOfTheTimeAndTheHostAndWaitsASecondForAnotherMicrosecond) {
    _GUID first{}, second{};
    {
        const FailCall none{faults::Call::Gethostid, ENOENT, {.andAllLater = true}};
        EXPECT_EQ(UuidCreate(&first) + CoCreateGuid(&first), 2);
    }
    const auto host = static_cast<std::uint32_t>(::gethostid());
    if (host == 0) GTEST_SKIP() << "this machine has no host identifier";
    FakeTime time;
    time.stopAt(0x6543EBCD, 123'456'000);
    ASSERT_EQ(UuidCreate(&first), 0);
    time.stopAt(0x16543FFFF, 999'999'000);
    ASSERT_EQ(CoCreateGuid(&second), 0);
    _GUID expected{123456, 0xEBCD, 0x1543, {0x80 | (0xEB & 0x3F), 0xCD}};
    std::memcpy(&expected.Data4[2], &host, sizeof host);
    EXPECT_EQ(textOf(first), textOf(expected));
    expected.Data1 = 999999;
    expected.Data2 = 0xFFFF;
    EXPECT_EQ(textOf(second), textOf(expected)) << "the sequence never changes";
    EXPECT_EQ(UuidCreate(nullptr), 1);

    const FailCall sleeps{faults::Call::Nanosleep, EINTR, {.andAllLater = true}};
    EXPECT_EQ(UuidCreate(&second), 1) << "the same microsecond";
    EXPECT_EQ(sleeps.fired(), 1);
    EXPECT_EQ(textOf(second), textOf(expected));
    time.advance(-5);
    EXPECT_EQ(UuidCreate(&second), 0) << "another time is a new one, also an earlier one";
}

TEST(Uuid, TextsHaveEveryFieldInItsPlaceAndAreFreedOnce) {
    const _GUID uuid{0x89AB, 0xCD, 0xFFFF, {0, 1, 2, 0xA, 0xB, 0xC, 0xEF, 0xFF}};
    EXPECT_EQ(textOf(uuid), "000089ab-00cd-ffff-0001-020a0b0cefff");
    EXPECT_EQ(UuidToString(&uuid, nullptr), 1);
    unsigned char empty[] = "";
    unsigned char* text = empty;
    EXPECT_EQ(RpcStringFree(&text) + RpcStringFree(nullptr), 2);
    {
        const FailCall noMemory{faults::Call::Malloc, ENOMEM};
        EXPECT_EQ(UuidToString(&uuid, &text), 2);
    }
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(RpcStringFree(&text), 1);
    ASSERT_EQ(UuidToString(nullptr, &text), 0);
    EXPECT_STREQ(reinterpret_cast<const char*>(text), "00000000-0000-0000-0000-000000000000");
    EXPECT_EQ(RpcStringFree(&text), 0);
}

TEST(Uuid, TextsAreReadAsLaxlyAsTheyAlwaysWere) {
    // clang-format off
    constexpr const char* kNil = "00000000-0000-0000-0000-000000000000";
    const struct { const char* text; LONG result; const char* uuid; } kCases[] = {
        {"01234567-89ab-cdef-FEDC-BA9876543210", 0, "01234567-89ab-cdef-fedc-ba9876543210"},
        {"01234567-89ab-cdef-fedc-ba9876543210 and more", 0, "01234567-89ab-cdef-fedc-ba9876543210"},
        {"      -1- +2-0x3- 4 5- 6 7 8 9 a b", 0, "ffffffff-0002-0003-0405-060708090a0b"},
        {"0x000001-1-2-3 4-5 6 7 8 9 a", 0, "00000001-0001-0002-0304-05060708090a"},
        {"", 1, kNil}, {"0123456789", 0, kNil}, {"0123", 0, kNil}, {"01234567-", 1, kNil}, {"        -", 1, kNil},
        {"0123456789ab-cdef-fedc-ba9876543210aa", 0, kNil}, {"01234567-89ab-cdef-fedc-ba98765432", 1, kNil},
        {"0123456 -89ab-cdef-fedc-ba9876543210", 1, kNil}, {"{1234567-89ab-cdef-fedc-ba9876543210", 1, kNil},
        {"01234567-89abc-def-fedc-ba9876543210", 1, kNil}, {"01234567-89ab-cdef-fedcba9876543210", 1, kNil},
        {"01234567-89ab-cdeg-fedc-ba9876543210", 1, kNil}, {nullptr, 1, kNil}};
    // clang-format on
    for (const auto& row : kCases) {
        _GUID uuid;
        std::memset(&uuid, 0xEE, sizeof uuid);
        EXPECT_EQ(UuidFromString(reinterpret_cast<const unsigned char*>(row.text), &uuid), row.result);
        EXPECT_EQ(textOf(uuid), row.uuid) << (row.text ? row.text : "null");
    }
    EXPECT_EQ(UuidFromString(reinterpret_cast<const unsigned char*>(kNil), nullptr), 1);
}

TEST(Uuid, OrderGoesFieldByFieldWithoutSigns) {
    // clang-format off
    const std::vector<_GUID> ascending{
        {}, {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 1}}, {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0xFF}}, {0, 0, 0, {0x7F}},
        {0, 0, 0, {0x80}}, {0, 0, 1, {}}, {0, 0, 0x8000, {}}, {0, 1, 0, {}}, {0, 0xFFFF, 0xFFFF, {0xFF}},
        {1, 0, 0, {}}, {0x80000000, 0, 0, {}}};
    // clang-format on
    for (size_t i = 0; i < ascending.size(); ++i)
        for (size_t j = 0; j < ascending.size(); ++j) {
            LONG status = 7;
            EXPECT_EQ(UuidCompare(&ascending[i], &ascending[j], &status), i < j ? -1 : i > j)
                << i << " " << j;
            EXPECT_EQ(status, 0);
        }
    EXPECT_EQ(UuidCompare(nullptr, &ascending[1], nullptr), -1);
}

}  // namespace
}  // namespace traiklofox::test
