// Change records, written into buffers of any size at any place.
//
// The input's first two bytes are the size of the buffer (0 to 4095) and its place (0 to 15); each line of the rest is
// a record: a digit for its action, then its name.

#include <array>
#include <cstring>
#include <vector>

#include "files/notify_records.h"
#include "require.h"

namespace {

using namespace traiklofox::fuzz;
using traiklofox::files::sizeOfRecords;
using traiklofox::files::takeRecords;

constexpr size_t kPlaces = 16;
constexpr auto kUntouched = std::byte{0xA5};

size_t roundedUp(size_t size) {
    return (size + 3) / 4 * 4;
}

NotifyRecords recordsOf(std::string_view text) {
    NotifyRecords records;
    while (!text.empty()) {
        const std::string_view line = takeLine(text);
        const auto number = static_cast<DWORD>(records.size());
        records.push_back({.action = line.empty() ? 0 : static_cast<DWORD>(line.front() - '0'),
                           .name = std::string(line.substr(line.empty() ? 0 : 1)),
                           .time = {number, ~number},
                           .attributes = 0x80,
                           .size = number * 3});
    }
    return records;
}

/// One record at `at`; returns the offset of the next.
size_t check(const std::byte* at, const _NOTIFY_INFO& record, bool isLast) {
    _FILE_NOTIFY_INFORMATION fields{};
    std::memcpy(&fields, at, offsetof(_FILE_NOTIFY_INFORMATION, FileName));
    const size_t length = record.name.size();
    const size_t size = roundedUp(length + 48);
    require(fields.Action == record.action && fields.FileNameLength == length &&
                fields.FileSize == record.size && fields.FileAttributes == record.attributes &&
                fields.LastWriteTime.dwLowDateTime == record.time.dwLowDateTime &&
                fields.LastWriteTime.dwHighDateTime == record.time.dwHighDateTime,
            "the fields are the record's", record.name);
    require(fields.NextEntryOffset == (isLast ? 0 : size), "the last is followed by none", record.name);
    require(std::memcmp(at + 44, record.name.data(), length) == 0, "the name is the record's", record.name);
    for (size_t i = 28; i < 44; ++i) require(at[i] == std::byte{0}, "what is kept free is 0");
    for (size_t i = 44 + length; i < size; ++i) require(at[i] == std::byte{0}, "zeroes follow the name");
    return size;
}

/// Takes what fits into the buffer; returns how many records that were.
size_t takeSome(NotifyRecords& records, size_t size, size_t place) {
    const NotifyRecords before = records;
    std::vector<std::byte> memory(kPlaces + size + kPlaces, kUntouched);
    std::byte* const buffer = memory.data() + place;
    const size_t used = takeRecords(records, {buffer, size});
    const size_t taken = before.size() - records.size();
    require(records.size() <= before.size() && used <= size, "no more than fits");
    for (size_t i = 0; i < memory.size(); ++i)
        require(memory[i] == kUntouched || (i >= place && i < place + used), "nothing beside it is touched");
    size_t offset = 0;
    for (size_t i = 0; i < taken; ++i) offset += check(buffer + offset, before[i], i + 1 == taken);
    require(offset == used, "the records take what they are said to take");
    require(records.empty() || roundedUp(records.front().name.size() + 48) > size - used,
            "the first that is left does not fit");
    for (size_t i = 0; i < records.size(); ++i)
        require(records[i].name == before[taken + i].name, "those that are left are as they were");
    return taken;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, size_t length) {
    if (length < 2) return 0;
    const size_t size = bytes[0] * 16U + bytes[1] / 16U;
    const size_t place = bytes[1] % kPlaces;
    NotifyRecords records = recordsOf(textOf(bytes + 2, length - 2));
    while (takeSome(records, size, place) > 0) {
    }
    const size_t needed = sizeOfRecords(records);
    require(needed == 0 || needed > size, "they would have fitted");
    (void)takeSome(records, needed, place);
    require(records.empty(), "a buffer of the size that they need takes all");
    return 0;
}
