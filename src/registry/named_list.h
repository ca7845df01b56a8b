#pragma once

#include <iterator>
#include <list>
#include <map>
#include <string_view>
#include <utility>

#include "registry/key_name.h"

namespace traiklofox::registry {

/// Items in the order of their creation, found by name with letter case ignored. Items stay where they are
/// until they are erased. `NameOf` gives an item's name, which only `replace` changes.
///
/// A walk by index that goes one step at a time costs one step each time: the place of the last request is
/// kept.
template <class Item, class NameOf>
class NamedList {
  public:
    using Position = typename std::list<Item>::iterator;
    using ByName = std::map<CKZStringPc, Position>;

    size_t size() const { return items_.size(); }
    bool empty() const { return items_.empty(); }

    Item* find(std::string_view name) {
        const auto found = byName_.find(name);
        return found != byName_.end() ? &*found->second : nullptr;
    }

    /// Appends an item whose name is not in the list. A name after all others, as when a sorted file is read,
    /// costs no search.
    Item& append(Item item) {
        items_.push_back(std::move(item));
        const Position added = std::prev(items_.end());
        byName_.emplace_hint(byName_.end(), NameOf{}(*added), added);
        return *added;
    }

    /// Puts `replacement`, whose name is the item's but for its letter case, in the item's place.
    void replace(Item& item, Item replacement) {
        auto node = byName_.extract(NameOf{}(item));
        item = std::move(replacement);
        node.key() = CKZStringPc(NameOf{}(item));  // the old key referred to the old text
        byName_.insert(std::move(node));
    }

    /// Takes an item out; its place is forgotten by the walk by index.
    Item take(std::string_view name) {
        const auto found = byName_.find(name);
        Item taken = std::move(*found->second);
        const Position position = found->second;
        byName_.erase(found);
        items_.erase(position);
        nextIndex_ = kNone;
        return taken;
    }

    template <class Predicate>
    size_t eraseIf(Predicate predicate) {
        size_t erased = 0;
        for (auto entry = byName_.begin(); entry != byName_.end();) {
            if (!predicate(*entry->second)) {
                ++entry;
                continue;
            }
            const Position position = entry->second;
            entry = byName_.erase(entry);
            items_.erase(position);
            ++erased;
        }
        if (erased > 0) nextIndex_ = kNone;
        return erased;
    }

    /// The `index`-th item in the order of creation; null past the end.
    Item* at(size_t index) {
        if (index >= items_.size()) return nullptr;
        const Position position =
            index == nextIndex_ ? next_ : std::next(items_.begin(), static_cast<int>(index));
        // A step past the end is not kept: an item appended later would be missed.
        next_ = std::next(position);
        nextIndex_ = next_ != items_.end() ? index + 1 : kNone;
        return &*position;
    }

    std::list<Item>& inOrderOfCreation() { return items_; }
    const ByName& byName() const { return byName_; }

  private:
    static constexpr size_t kNone = static_cast<size_t>(-1);

    std::list<Item> items_;
    ByName byName_;
    size_t nextIndex_ = kNone;
    Position next_{};
};

}  // namespace traiklofox::registry
