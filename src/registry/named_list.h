#pragma once

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "registry/flat_index.h"
#include "registry/key_name.h"

namespace traiklofox::registry {

/// An item's place among those of its list.
template <class Item>
struct Listed {
    Item* previous = nullptr;
    Item* next = nullptr;
};

/// Items in the order of their creation, found by name with letter case ignored. The list owns its items, which stay
/// where they are until they are taken out. `Traits` says of an item:
///
///     using Owner            what owns one outside of the list, with `get` and `release`
///     Owner adopt(Item*)     the counterpart of `release`
///     string_view name(const Item&)
///     Listed<Item>& listed(Item&)
///
/// A walk by index that goes one step at a time costs one step each time: the place of the last request is kept.
template <class Item, class Traits>
class NamedList {
  public:
    using Owner = typename Traits::Owner;

    NamedList() = default;
    NamedList(const NamedList&) = delete;
    NamedList& operator=(const NamedList&) = delete;
    ~NamedList() {
        takeAll([](Owner) {});
    }

    size_t size() const { return index_.size(); }
    bool empty() const { return first_ == nullptr; }

    Item* find(std::string_view name) const { return find(HashedName(name)); }
    Item* find(HashedName wanted) const {
        return index_.find(wanted.hash, [&](const Item& item) { return nameOf(item) == wanted.name; });
    }

    /// Has the processor fetch what the next `find` will look at first.
    void prefetch() const { index_.prefetch(); }

    /// Appends an item whose name, of this hash, is not in the list.
    Item& append(Owner owner, std::uint32_t hash) {
        Item& item = *owner.get();
        const CKZStringPc name = nameOf(item);
        index_.insert(hash, &item);
        if (empty())
            sorted_ = true;
        else if (name < nameOf(*last_))
            sorted_ = false;
        order_.clear();
        Traits::listed(item) = {.previous = last_, .next = nullptr};
        (empty() ? first_ : Traits::listed(*last_).next) = &item;
        last_ = owner.release();
        return item;
    }

    /// Takes an item of the list out.
    Owner take(Item& item) {
        index_.erase(nameOf(item).hash(), &item);
        return unlink(item);
    }

    template <class Predicate>
    size_t eraseIf(Predicate predicate) {
        size_t erased = 0;
        for (Item* item = first_; item != nullptr;) {
            Item* const next = Traits::listed(*item).next;
            if (predicate(*item)) {
                (void)take(*item);
                ++erased;
            }
            item = next;
        }
        return erased;
    }

    /// Empties the list, handing on each item.
    template <class Visit>
    void takeAll(Visit visit) {
        index_ = {};
        while (!empty()) visit(unlink(*first_));
    }

    /// The `index`-th item in the order of creation; null past the end.
    Item* at(size_t index) {
        if (index >= size()) return nullptr;
        Item* item = nextRequest_;
        if (index != nextIndex_ || item == nullptr) {
            item = first_;
            for (size_t step = 0; step < index; ++step) item = Traits::listed(*item).next;
        }
        // A step past the end is not kept: an item appended later would be missed.
        nextRequest_ = Traits::listed(*item).next;
        nextIndex_ = index + 1;
        return item;
    }

    template <class Visit>
    void inOrderOfCreation(Visit visit) const {
        for (Item* item = first_; item != nullptr; item = Traits::listed(*item).next) visit(*item);
    }

    /// The items by name. That of a file that was read is the order of creation too; otherwise it is found once, and
    /// kept until an item comes or goes.
    template <class Visit>
    void inOrderOfNames(Visit visit) {
        if (sorted_) {
            inOrderOfCreation(visit);
            return;
        }
        if (order_.empty()) {
            order_.reserve(size());
            inOrderOfCreation([&](Item& item) { order_.push_back(&item); });
            std::sort(order_.begin(), order_.end(),
                      [](const Item* left, const Item* right) { return nameOf(*left) < nameOf(*right); });
        }
        for (Item* item : order_) visit(*item);
    }

  private:
    static CKZStringPc nameOf(const Item& item) { return CKZStringPc(Traits::name(item)); }

    Owner unlink(Item& item) {
        const auto [previous, next] = Traits::listed(item);
        (previous != nullptr ? Traits::listed(*previous).next : first_) = next;
        (next != nullptr ? Traits::listed(*next).previous : last_) = previous;
        nextRequest_ = nullptr;
        order_.clear();
        return Traits::adopt(&item);
    }

    FlatIndex<Item> index_;
    Item* first_ = nullptr;
    Item* last_ = nullptr;
    Item* nextRequest_ = nullptr;  // the item of nextIndex_; null: to be found
    size_t nextIndex_ = 0;
    std::vector<Item*> order_;  // by name; empty: to be found
    bool sorted_ = true;        // the order of creation is that of the names
};

}  // namespace traiklofox::registry
