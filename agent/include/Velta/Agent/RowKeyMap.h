// An ordered map keyed by rows, with a hash index of its keys beside the tree.
//
// Order, iteration, lower_bound and positional insertion are those of the underlying std::map
// ordered by a RowOpsKeyLess; find, which a row event needs, probes the hash index instead of
// walking the tree, so its cost does not grow with the number of keys.
//
// Invariants:
// - index_ has exactly one entry per element of map_, keyed by keyLess.hash of the element's key
//   and holding the element's iterator (std::map iterators stay valid until their element is
//   erased, so only insertion and erasure touch the index).
// - allExact_ is true while every key inserted since the map was empty is of a type whose hash is
//   exact (RowOpsKeyLess::hashExact); only then may a probe trust equal hashes without comparing.
#pragma once

#include <Velta/BaseRow.h>
#include <Velta/KeyHashIndex.h>
#include <Velta/NodePool.h>
#include <Velta/VeltaDB.h>

#include <cstddef>
#include <map>
#include <utility>

namespace Velta::Agent {

template <class V>
class RowKeyMap {
public:
    using value_type = std::pair<const BaseRow, V>;
    using allocator_type = NodeAllocator<value_type>;
    using Map = std::map<BaseRow, V, RowOpsKeyLess, allocator_type>;
    using iterator = typename Map::iterator;
    using const_iterator = typename Map::const_iterator;

    RowKeyMap(const RowOpsKeyLess& less, const allocator_type& alloc) : map_(less, alloc) {}

    iterator begin() noexcept { return map_.begin(); }
    iterator end() noexcept { return map_.end(); }
    const_iterator begin() const noexcept { return map_.begin(); }
    const_iterator end() const noexcept { return map_.end(); }
    std::size_t size() const noexcept { return map_.size(); }
    bool empty() const noexcept { return map_.empty(); }
    const RowOpsKeyLess& key_comp() const noexcept { return map_.key_comp(); }

    // The element whose key equals `key`'s (neither ordered before the other), or end().
    iterator find(const BaseRow& key) {
        auto* e = probe(key);
        return e == nullptr ? map_.end() : e->pos;
    }
    const_iterator find(const BaseRow& key) const { return const_cast<RowKeyMap*>(this)->find(key); }

    // The first element not ordered before `key` (a walk down the tree).
    iterator lower_bound(const BaseRow& key) { return map_.lower_bound(key); }

    // Inserts `key` (not yet present) with `value` at the place `hint` suggests.
    iterator emplace_hint(const_iterator hint, BaseRow key, V value) {
        const std::size_t before = map_.size();
        const iterator it = map_.emplace_hint(hint, std::move(key), std::move(value));
        if (map_.size() != before) {
            const RowOpsKeyLess& less = map_.key_comp();
            if (!less.hashExact(it->first)) allExact_ = false;
            index_.insert(less.hash(it->first), it);
        }
        return it;
    }
    // Inserts `key` (not yet present) with `value` where it belongs.
    iterator emplace(BaseRow key, V value) {
        const const_iterator hint = map_.lower_bound(key);
        return emplace_hint(hint, std::move(key), std::move(value));
    }

    // Removes the element at `pos`; returns the element after it.
    iterator erase(iterator pos) {
        auto* e = index_.find(map_.key_comp().hash(pos->first), false,
                              [&](iterator candidate) { return candidate == pos; });
        if (e != nullptr) index_.erase(e);
        const iterator next = map_.erase(pos);
        if (map_.empty()) allExact_ = true;
        return next;
    }

private:
    using Index = KeyHashIndex<iterator>;

    typename Index::Entry* probe(const BaseRow& key) {
        const RowOpsKeyLess& less = map_.key_comp();
        const bool exact = allExact_ && less.hashExact(key);
        return index_.find(less.hash(key), exact,
                           [&](iterator pos) { return !less(key, pos->first) && !less(pos->first, key); });
    }

    Map map_;
    Index index_;
    bool allExact_ = true;
};

}  // namespace Velta::Agent
