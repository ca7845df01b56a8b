#pragma once

#include <cstdint>
#include <memory>
#include <utility>

namespace traiklofox::registry {

/// A hash table of pointers in one block: the caller brings the hash and says which item he means. At most three
/// quarters full, so that a search, also for what is not there, looks at few slots.
template <class Item>
class FlatIndex {
  public:
    constexpr FlatIndex() = default;
    std::uint32_t size() const { return size_; }

    template <class Matches>
    Item* find(std::uint32_t hash, Matches matches) const {
        if (capacity_ == 0) return nullptr;
        for (std::uint32_t at = hash & (capacity_ - 1); slots_[at].item != nullptr; at = next(at))
            if (slots_[at].hash == hash && matches(*slots_[at].item)) return slots_[at].item;
        return nullptr;
    }

    void prefetch() const { __builtin_prefetch(slots_.get()); }

    /// The item must not be in the table.
    void insert(std::uint32_t hash, Item* item) {
        if ((size_ + 1) * 4 > capacity_ * 3) grow();
        place({hash, item});
        ++size_;
    }

    /// Takes an item of the table out.
    void erase(std::uint32_t hash, const Item* item) {
        std::uint32_t hole = hash & (capacity_ - 1);
        while (slots_[hole].item != item) hole = next(hole);
        --size_;
        // What was pushed past the hole moves back, so that no search ends too early.
        for (std::uint32_t at = next(hole); slots_[at].item != nullptr; at = next(at)) {
            const std::uint32_t home = slots_[at].hash & (capacity_ - 1);
            if (((at - home) & (capacity_ - 1)) < ((at - hole) & (capacity_ - 1))) continue;
            slots_[hole] = slots_[at];
            hole = at;
        }
        slots_[hole] = {};
    }

  private:
    struct Slot {
        std::uint32_t hash = 0;
        Item* item = nullptr;
    };
    static constexpr std::uint32_t kFirstCapacity = 4;  // a power of two, as all are

    std::uint32_t next(std::uint32_t at) const { return (at + 1) & (capacity_ - 1); }

    void place(Slot slot) {
        std::uint32_t at = slot.hash & (capacity_ - 1);
        while (slots_[at].item != nullptr) at = next(at);
        slots_[at] = slot;
    }

    void grow() {
        const std::uint32_t before = capacity_;
        const std::unique_ptr<Slot[]> old =
            std::exchange(slots_, std::make_unique<Slot[]>(before == 0 ? kFirstCapacity : before * 2));
        capacity_ = before == 0 ? kFirstCapacity : before * 2;
        for (std::uint32_t i = 0; i < before; ++i)
            if (old[i].item != nullptr) place(old[i]);
    }

    std::unique_ptr<Slot[]> slots_;
    std::uint32_t capacity_ = 0;
    std::uint32_t size_ = 0;
};

}  // namespace traiklofox::registry
