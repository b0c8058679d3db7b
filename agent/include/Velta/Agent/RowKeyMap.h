// An ordered map keyed by rows, with pointer-like values (raw or smart pointers), and a hash index
// of its keys beside the tree.
//
// Order, iteration, lower_bound and positional insertion are those of the underlying std::map
// ordered by a RowOpsKeyLess; find and locate, which a row event needs, probe the hash index
// instead of walking the tree, so their cost does not grow with the number of keys. The index also
// keeps the address each value points to, so that "is this key's value still x" is answered
// without reading the element itself.
//
// Invariants:
// - index_ has exactly one entry per element of map_, keyed by keyLess.hash of the element's key
//   and holding the element's iterator and the address its value points to (std::map iterators
//   stay valid until their element is erased, so only insertion and erasure move entries).
// - Values change only through emplace, emplace_hint and assign (never through an iterator), so
//   the addresses in the index are those of the values.
// - allExact_ is true while every key inserted since the map was empty is of a type whose hash is
//   exact (RowOpsKeyLess::hashExact); only then may a probe trust equal hashes without comparing.
#pragma once

#include <Velta/BaseRow.h>
#include <Velta/KeyHashIndex.h>
#include <Velta/NodePool.h>
#include <Velta/VeltaDB.h>

#include <cstddef>
#include <map>
#include <memory>
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

private:
    struct Where {
        iterator it;
        const void* target;
    };

public:
    RowKeyMap(const RowOpsKeyLess& less, const allocator_type& alloc) : map_(less, alloc) {}

    iterator begin() noexcept { return map_.begin(); }
    iterator end() noexcept { return map_.end(); }
    const_iterator begin() const noexcept { return map_.begin(); }
    const_iterator end() const noexcept { return map_.end(); }
    std::size_t size() const noexcept { return map_.size(); }
    bool empty() const noexcept { return map_.empty(); }
    const RowOpsKeyLess& key_comp() const noexcept { return map_.key_comp(); }

    // An element found by locate: false when there is none. Valid until the map next gains or
    // loses an element (the index may move its entries then).
    class Found {
    public:
        explicit operator bool() const noexcept { return entry_ != nullptr; }
        iterator pos() const noexcept { return entry_->pos.it; }
        // The address the element's value points to (read from the index, not the element).
        const void* target() const noexcept { return entry_->pos.target; }

    private:
        friend class RowKeyMap;
        explicit Found(typename KeyHashIndex<Where>::Entry* entry) noexcept : entry_(entry) {}
        typename KeyHashIndex<Where>::Entry* entry_;
    };

    // The element whose key equals `key`'s (neither ordered before the other), if any.
    Found locate(const BaseRow& key) { return Found(probe(key)); }
    // The same as an iterator: the element or end().
    iterator find(const BaseRow& key) {
        auto* e = probe(key);
        return e == nullptr ? map_.end() : e->pos.it;
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
            index_.insert(less.hash(it->first), Where{it, targetOf(it->second)});
        }
        return it;
    }
    // Replaces the value of a located element.
    void assign(Found found, V value) {
        found.entry_->pos.target = targetOf(value);
        found.entry_->pos.it->second = std::move(value);
    }
    // Inserts `key` (not yet present) with `value` where it belongs.
    iterator emplace(BaseRow key, V value) {
        const const_iterator hint = map_.lower_bound(key);
        return emplace_hint(hint, std::move(key), std::move(value));
    }

    // Removes the element at `pos`; returns the element after it.
    iterator erase(iterator pos) {
        auto* e = index_.find(map_.key_comp().hash(pos->first), false,
                              [&](const Where& candidate) { return candidate.it == pos; });
        if (e != nullptr) index_.erase(e);
        const iterator next = map_.erase(pos);
        if (map_.empty()) allExact_ = true;
        return next;
    }

private:
    using Index = KeyHashIndex<Where>;

    static const void* targetOf(const V& value) noexcept {
        if (!value) return nullptr;
        return static_cast<const void*>(std::to_address(value));
    }

    typename Index::Entry* probe(const BaseRow& key) {
        const RowOpsKeyLess& less = map_.key_comp();
        const bool exact = allExact_ && less.hashExact(key);
        return index_.find(less.hash(key), exact, [&](const Where& where) {
            return !less(key, where.it->first) && !less(where.it->first, key);
        });
    }

    Map map_;
    Index index_;
    bool allExact_ = true;
};

}  // namespace Velta::Agent
