// name_sort.cpp: sorting names that begin alike, as a directory's mostly do. Eight bytes of each are sorted as one
// number; where they are equal, the next eight decide.

#include "files/name_sort.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>
#include <span>
#include <utility>

namespace traiklofox::files {

namespace {

constexpr size_t kWord = sizeof(std::uint64_t);
constexpr size_t kBlockWords = 8192;
constexpr size_t kByteValues = 256;
constexpr size_t kFew = 1024;  // to compare these is faster than to count their bytes

std::uint64_t wordOf(const char* name, size_t offset) {
    std::uint64_t word;
    std::memcpy(&word, name + offset, kWord);
    return __builtin_bswap64(word);
}

bool byKey(const NamedEntry& left, const NamedEntry& right) {
    return left.key < right.key;
}

/// Whether the name goes on behind these eight bytes: else a NUL is the last of them.
bool goesOn(std::uint64_t word) {
    return (word & 0xFF) != 0;
}

/// By one byte of the keys after another, the least significant first. `spare` is as long as `entries`.
void distribute(std::span<NamedEntry> entries, std::span<NamedEntry> spare) {
    const auto byteOf = [](const NamedEntry& entry, size_t byte) {
        return static_cast<std::uint8_t>(entry.key >> (8 * byte));
    };
    std::array<std::array<std::uint32_t, kByteValues>, kWord> counts{};
    for (const NamedEntry& entry : entries)
        for (size_t byte = 0; byte < kWord; ++byte) ++counts[byte][byteOf(entry, byte)];

    std::span<NamedEntry> from = entries;
    std::span<NamedEntry> to = spare;
    for (size_t byte = 0; byte < kWord; ++byte) {
        auto& place = counts[byte];
        if (place[byteOf(from.front(), byte)] == entries.size()) continue;  // all have the same
        std::exclusive_scan(place.begin(), place.end(), place.begin(), std::uint32_t{0});
        for (const NamedEntry& entry : from) to[place[byteOf(entry, byte)]++] = entry;
        std::swap(from, to);
    }
    if (from.data() != entries.data()) std::ranges::copy(from, entries.begin());
}

void sortByKey(std::span<NamedEntry> entries, std::vector<NamedEntry>& spare) {
    if (std::ranges::is_sorted(entries, byKey)) return;
    if (entries.size() <= kFew) {
        std::ranges::sort(entries, byKey);
        return;
    }
    if (spare.size() < entries.size()) spare.resize(entries.size());
    distribute(entries, std::span(spare).first(entries.size()));
}

/// Their first `offset` bytes are the same.
void sortFrom(std::span<NamedEntry> entries, size_t offset, std::vector<NamedEntry>& spare) {
    for (NamedEntry& entry : entries) entry.key = wordOf(entry.name, offset);
    sortByKey(entries, spare);
    while (!entries.empty()) {
        const auto other = std::ranges::find_if(
            entries, [first = entries.front().key](const NamedEntry& entry) { return entry.key != first; });
        const auto alike = static_cast<size_t>(other - entries.begin());
        if (alike > 1 && goesOn(entries.front().key)) sortFrom(entries.first(alike), offset + kWord, spare);
        entries = entries.subspan(alike);
    }
}

}  // namespace

const char* NameStore::add(std::string_view name) {
    const size_t words = name.size() / kWord + 1;
    if (capacity_ - used_ < words) {
        const size_t room = std::max(words, kBlockWords);
        blocks_.push_back(std::make_unique_for_overwrite<std::uint64_t[]>(room));
        capacity_ = room;
        used_ = 0;
    }
    std::uint64_t* const place = blocks_.back().get() + used_;
    used_ += words;
    place[words - 1] = 0;
    std::memcpy(place, name.data(), name.size());
    return reinterpret_cast<const char*>(place);
}

void sortByName(std::vector<NamedEntry>& entries) {
    std::vector<NamedEntry> spare;
    sortFrom(entries, 0, spare);
}

}  // namespace traiklofox::files
