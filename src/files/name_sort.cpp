// name_sort.cpp: sorting names that begin alike, as a directory's mostly do. Eight bytes of each are compared as one
// number; where they are equal, the next eight decide.

#include "files/name_sort.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace traiklofox::files {

namespace {

constexpr size_t kWord = sizeof(std::uint64_t);
constexpr size_t kBlockWords = 8192;

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

/// Their first `offset` bytes are the same.
void sortFrom(std::span<NamedEntry> entries, size_t offset) {
    for (NamedEntry& entry : entries) entry.key = wordOf(entry.name, offset);
    if (!std::ranges::is_sorted(entries, byKey)) std::ranges::sort(entries, byKey);
    while (!entries.empty()) {
        const auto other = std::ranges::find_if(
            entries, [first = entries.front().key](const NamedEntry& entry) { return entry.key != first; });
        const auto alike = static_cast<size_t>(other - entries.begin());
        if (alike > 1 && goesOn(entries.front().key)) sortFrom(entries.first(alike), offset + kWord);
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
    sortFrom(entries, 0);
}

}  // namespace traiklofox::files
