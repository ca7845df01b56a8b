// notify_records.cpp: changes as they are delivered: fixed fields, the name, at least four zeroes, and the next one
// at a multiple of four. Nothing is said of how the buffer is aligned, so that everything is copied.

#include "files/notify_records.h"

#include <algorithm>
#include <cstring>

namespace traiklofox::files {

namespace {

constexpr size_t kNameOffset = offsetof(_FILE_NOTIFY_INFORMATION, FileName);
constexpr size_t kBesideName = 48;
constexpr size_t kAlignment = 4;
static_assert(kBesideName - kNameOffset == 4);

size_t sizeOf(const _NOTIFY_INFO& record) {
    return (record.name.size() + kBesideName + kAlignment - 1) / kAlignment * kAlignment;
}

void write(const _NOTIFY_INFO& record, DWORD nextOffset, std::span<std::byte> place) {
    const _FILE_NOTIFY_INFORMATION fields{.NextEntryOffset = nextOffset,
                                          .Action = record.action,
                                          .FileNameLength = static_cast<DWORD>(record.name.size()),
                                          .LastWriteTime = record.time,
                                          .FileSize = record.size,
                                          .FileAttributes = record.attributes,
                                          .Reserved = {},
                                          .FileName = {}};
    std::memcpy(place.data(), &fields, kNameOffset);
    std::memcpy(place.data() + kNameOffset, record.name.data(), record.name.size());
    std::ranges::fill(place.subspan(kNameOffset + record.name.size()), std::byte{0});
}

}  // namespace

size_t sizeOfRecords(const NotifyRecords& records) {
    size_t size = 0;
    for (const _NOTIFY_INFO& record : records) size += sizeOf(record);
    return size;
}

size_t takeRecords(NotifyRecords& records, std::span<std::byte> buffer) {
    size_t used = 0;
    size_t count = 0;
    while (count < records.size() && sizeOf(records[count]) <= buffer.size() - used)
        used += sizeOf(records[count++]);

    size_t offset = 0;
    for (size_t i = 0; i < count; ++i) {
        const size_t size = sizeOf(records[i]);
        const bool isLast = i + 1 == count;
        write(records[i], isLast ? 0 : static_cast<DWORD>(size), buffer.subspan(offset, size));
        offset += size;
    }
    records.erase(records.begin(), records.begin() + static_cast<std::ptrdiff_t>(count));
    return used;
}

}  // namespace traiklofox::files
