// A text as a UUID, beside what sscanf makes of it.

#include <traiklofox/uuid.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "require.h"

namespace {

using namespace traiklofox::fuzz;

/// The documented meaning, word for word.
LONG scan(const char* text, _GUID& uuid) {
    uuid = {};
    if (*text == '\0') return 1;
    if (std::strlen(text) < 9 || text[8] != '-') return 0;
    unsigned long first = 0;
    unsigned int fields[10] = {};
    const int converted = std::sscanf(text, "%8lx-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x", &first, &fields[0],
                                      &fields[1], &fields[2], &fields[3], &fields[4], &fields[5], &fields[6],
                                      &fields[7], &fields[8], &fields[9]);
    if (converted < 11) return 1;
    uuid.Data1 = static_cast<DWORD>(first & 0xFFFFFFFF);
    uuid.Data2 = static_cast<WORD>(fields[0] & 0xFFFF);
    uuid.Data3 = static_cast<WORD>(fields[1] & 0xFFFF);
    for (int i = 0; i < 8; ++i) uuid.Data4[i] = static_cast<BYTE>(fields[2 + i] & 0xFF);
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, size_t size) {
    // Of its own length, so that reading on is noticed.
    const auto text = std::make_unique<unsigned char[]>(size + 1);
    std::copy_n(bytes, size, text.get());
    const char* const shown = reinterpret_cast<const char*>(text.get());

    _GUID expected;
    _GUID uuid;
    const LONG expectedResult = scan(shown, expected);
    require(UuidFromString(text.get(), &uuid) == expectedResult, "the documented result", shown);
    require(std::memcmp(&uuid, &expected, sizeof uuid) == 0, "the documented fields", shown);

    unsigned char* printed = nullptr;
    require(UuidToString(&uuid, &printed) == 0, "printed", shown);
    require(UuidFromString(printed, &expected) == 0 && UuidCompare(&uuid, &expected, nullptr) == 0,
            "read back, it is the same", shown);
    require(RpcStringFree(&printed) == 0, "freed", shown);
    return 0;
}
