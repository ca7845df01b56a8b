#pragma once

#include <algorithm>
#include <iterator>
#include <list>
#include <string_view>
#include <utility>
#include <vector>

#include "registry/flat_index.h"
#include "registry/key_name.h"

namespace traiklofox::registry {

/// Items in the order of their creation, found by name with letter case ignored. Items stay where they are until
/// they are erased. `NameOf` gives an item's name.
///
/// A walk by index that goes one step at a time costs one step each time: the place of the last request is kept.
template <class Item, class NameOf>
class NamedList {
    struct Node {
        Item item;
        typename std::list<Node>::iterator self;
    };

  public:
    size_t size() const { return nodes_.size(); }
    bool empty() const { return nodes_.empty(); }

    Item* find(std::string_view name) const {
        Node* found = nodeOf(name);
        return found != nullptr ? &found->item : nullptr;
    }

    /// Appends an item whose name is not in the list.
    Item& append(Item item) {
        if (nodes_.empty()) sorted_ = true;
        const std::string_view last = nodes_.empty() ? std::string_view() : nameOf(nodes_.back());
        nodes_.push_back({std::move(item), {}});
        Node& node = nodes_.back();
        node.self = std::prev(nodes_.end());
        index_.insert(CKZStringPc(nameOf(node)).hash(), &node);
        if (CKZStringPc(nameOf(node)) < CKZStringPc(last)) sorted_ = false;
        order_.clear();
        return node.item;
    }

    /// Takes an item out, which must be there.
    Item take(std::string_view name) {
        Node& node = *nodeOf(name);
        index_.erase(CKZStringPc(name).hash(), [&](const Node& other) { return &other == &node; });
        Item taken = std::move(node.item);
        forgetPlaces();
        nodes_.erase(node.self);
        return taken;
    }

    template <class Predicate>
    size_t eraseIf(Predicate predicate) {
        size_t erased = 0;
        for (auto node = nodes_.begin(); node != nodes_.end();) {
            if (!predicate(node->item)) {
                ++node;
                continue;
            }
            index_.erase(CKZStringPc(nameOf(*node)).hash(),
                         [&](const Node& other) { return &other == &*node; });
            node = nodes_.erase(node);
            ++erased;
        }
        if (erased > 0) forgetPlaces();
        return erased;
    }

    /// The `index`-th item in the order of creation; null past the end.
    Item* at(size_t index) {
        if (index >= nodes_.size()) return nullptr;
        const auto node = index == nextIndex_ ? next_ : std::next(nodes_.begin(), static_cast<int>(index));
        // A step past the end is not kept: an item appended later would be missed.
        next_ = std::next(node);
        nextIndex_ = next_ != nodes_.end() ? index + 1 : kNone;
        return &node->item;
    }

    template <class Visit>
    void inOrderOfCreation(Visit visit) {
        for (Node& node : nodes_) visit(node.item);
    }
    template <class Visit>
    void inOrderOfCreation(Visit visit) const {
        for (const Node& node : nodes_) visit(node.item);
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
            order_.reserve(nodes_.size());
            for (Node& node : nodes_) order_.push_back(&node);
            std::sort(order_.begin(), order_.end(), [](const Node* left, const Node* right) {
                return CKZStringPc(nameOf(*left)) < CKZStringPc(nameOf(*right));
            });
        }
        for (Node* node : order_) visit(node->item);
    }

  private:
    static constexpr size_t kNone = static_cast<size_t>(-1);

    static std::string_view nameOf(const Node& node) { return NameOf{}(node.item); }

    Node* nodeOf(std::string_view name) const {
        return index_.find(CKZStringPc(name).hash(),
                           [&](const Node& node) { return CKZStringPc(nameOf(node)) == CKZStringPc(name); });
    }

    void forgetPlaces() {
        nextIndex_ = kNone;
        order_.clear();
    }

    std::list<Node> nodes_;
    FlatIndex<Node> index_;
    std::vector<Node*> order_;  // by name; empty: to be found
    bool sorted_ = true;        // the order of creation is that of the names
    size_t nextIndex_ = kNone;
    typename std::list<Node>::iterator next_{};
};

}  // namespace traiklofox::registry
