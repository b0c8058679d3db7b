// Not API: machinery of the agent library (the aggregator's owner map when the host offers key
// hashing). Written here rather than taken from a container library because a plug-in brings no
// third-party library into its host's process.
//
// An ordered map keyed by rows, with pointer-like values (raw or smart pointers), and a hash index
// of its keys beside the tree.
//
// Order, iteration, lower_bound and positional insertion are those of the underlying std::map
// ordered by the host's RowOpsKeyLess (with the host's inline shortcut for a number key); find and
// locate, which a row event needs, probe the hash index instead of walking the tree, so their cost
// does not grow with the number of keys. The index also keeps the address each value points to, so
// that "is this key's value still x" is answered without reading the element itself. When the row
// operations turn out not to hash (a host that wraps them, say), the index stays empty and find and
// locate walk the tree.
//
// Invariants:
// - While hashing is available, index_ has exactly one entry per element of map_, keyed by the
//   hash of the element's key and holding the element's iterator and the address its value points
//   to (std::map iterators stay valid until their element is erased, so only insertion and erasure
//   move entries). Otherwise index_ is empty.
// - Values change only through emplace, emplace_hint and assign (never through an iterator), so
//   the addresses in the index are those of the values.
// - allExact_ is true while every key inserted since the map was empty is of a type whose hash is
//   exact (RowKeyHash::exact); only then may a probe trust equal hashes without comparing.
#pragma once

#include <Velta/Agent/internal/HostKeyHash.h>
#include <Velta/Agent/internal/KeyHashIndex.h>
#include <Velta/Agent/internal/NodePool.h>
#include <Velta/BaseRow.h>
#include <Velta/VeltaDB.h>

#include <cstddef>
#include <map>
#include <memory>
#include <utility>

static_assert(Velta::Agent::internal::kHostKeyHashDetected,
              "RowKeyMap needs the host's key-hash capability <Velta/HostCapability/KeyHash.h>");

namespace Velta::Agent::internal {

template <class V>
class RowKeyMap {
    using KeyHash = HostCapability::RowKeyHash;

public:
    // The host's key order, decided inline where the host's key-hash helper allows.
    class KeyLess {
    public:
        explicit KeyLess(const RowOpsKeyLess& less) : less_(less), hash_(less.ops().get()) {}
        bool operator()(const BaseRow& a, const BaseRow& b) const {
            // Ordered maps compare on every tree level: skip the virtual call where possible.
            if (const std::optional<bool> less = hash_.numberKeyLess(a, b)) return *less;
            return less_(a, b);
        }
        const KeyHash& hash() const noexcept { return hash_; }

    private:
        RowOpsKeyLess less_;
        KeyHash hash_;
    };

    using value_type = std::pair<const BaseRow, V>;
    using allocator_type = NodeAllocator<value_type>;
    using Map = std::map<BaseRow, V, KeyLess, allocator_type>;
    using iterator = typename Map::iterator;
    using const_iterator = typename Map::const_iterator;

private:
    struct Where {
        iterator it;
        const void* target;
    };
    using Index = KeyHashIndex<Where>;

public:
    // Ordered by `less`; the nodes come from a pool of the map's own, one cache line each.
    explicit RowKeyMap(const RowOpsKeyLess& less)
        : less_(less), map_(less_, allocator_type(std::make_shared<NodePool>())) {}

    iterator begin() noexcept { return map_.begin(); }
    iterator end() noexcept { return map_.end(); }
    const_iterator begin() const noexcept { return map_.begin(); }
    const_iterator end() const noexcept { return map_.end(); }
    std::size_t size() const noexcept { return map_.size(); }
    bool empty() const noexcept { return map_.empty(); }

    // An element found by locate: false when there is none. Valid until the map next gains or
    // loses an element (the index may move its entries then).
    class Found {
    public:
        explicit operator bool() const noexcept { return found_; }
        iterator pos() const noexcept { return it_; }
        // The address the element's value points to (read from the index when there is one, not
        // from the element).
        const void* target() const noexcept { return target_; }

    private:
        friend class RowKeyMap;
        Found() noexcept = default;
        Found(iterator it, const void* target, typename Index::Entry* entry) noexcept
            : it_(it), target_(target), entry_(entry), found_(true) {}
        iterator it_{};
        const void* target_ = nullptr;
        typename Index::Entry* entry_ = nullptr;
        bool found_ = false;
    };

    // The element whose key equals `key`'s (neither ordered before the other), if any.
    Found locate(const BaseRow& key) {
        if (!hash().available()) {
            const iterator it = map_.find(key);
            return it == map_.end() ? Found() : Found(it, targetOf(it->second), nullptr);
        }
        auto* e = probe(key);
        return e == nullptr ? Found() : Found(e->pos.it, e->pos.target, e);
    }
    // The same as an iterator: the element or end().
    iterator find(const BaseRow& key) {
        if (!hash().available()) return map_.find(key);
        auto* e = probe(key);
        return e == nullptr ? map_.end() : e->pos.it;
    }
    const_iterator find(const BaseRow& key) const { return const_cast<RowKeyMap*>(this)->find(key); }

    // Fetches into the cache what locate(key) reads in the hash index, and answers the key's hash
    // for prefetchElement (0 when the map does not hash).
    std::uint64_t prefetch(const BaseRow& key) const {
        if (!hash().available()) return 0;
        const std::uint64_t h = hash().hash(key);
        index_.prefetch(h);
        return h;
    }
    // Once what prefetch fetched has arrived: fetches the element of the key whose hash prefetch
    // answered, which assign writes. Only where hashes are exact (a probe then reads no element);
    // nothing otherwise, or when there is no such element.
    void prefetchElement(std::uint64_t keyHash) const {
        if (!hash().available() || !allExact_) return;
        const auto* e = index_.find(keyHash, true, [](const Where&) { return true; });
        if (e != nullptr) prefetchLine(&*e->pos.it);
    }

    // The first element not ordered before `key` (a walk down the tree).
    iterator lower_bound(const BaseRow& key) { return map_.lower_bound(key); }

    // Inserts `key` (not yet present) with `value` at the place `hint` suggests.
    iterator emplace_hint(const_iterator hint, BaseRow key, V value) {
        const std::size_t before = map_.size();
        const iterator it = map_.emplace_hint(hint, std::move(key), std::move(value));
        if (map_.size() != before && hash().available()) {
            if (!hash().exact(it->first)) allExact_ = false;
            index_.insert(hash().hash(it->first), Where{it, targetOf(it->second)});
        }
        return it;
    }
    // Replaces the value of a located element.
    void assign(Found found, V value) {
        if (found.entry_ != nullptr) found.entry_->pos.target = targetOf(value);
        found.it_->second = std::move(value);
    }
    // Inserts `key` (not yet present) with `value` where it belongs.
    iterator emplace(BaseRow key, V value) {
        const const_iterator hint = map_.lower_bound(key);
        return emplace_hint(hint, std::move(key), std::move(value));
    }

    // Removes the element at `pos`; returns the element after it.
    iterator erase(iterator pos) {
        if (hash().available()) {
            auto* e = index_.find(hash().hash(pos->first), false,
                                  [&](const Where& candidate) { return candidate.it == pos; });
            if (e != nullptr) index_.erase(e);
        }
        const iterator next = map_.erase(pos);
        if (map_.empty()) allExact_ = true;
        return next;
    }

private:
    // (std::map::key_comp returns a copy: the map's own order is kept here as well.)
    const KeyHash& hash() const noexcept { return less_.hash(); }

    static const void* targetOf(const V& value) noexcept {
        if (!value) return nullptr;
        return static_cast<const void*>(std::to_address(value));
    }

    typename Index::Entry* probe(const BaseRow& key) {
        const KeyLess& less = less_;
        const bool exact = allExact_ && hash().exact(key);
        return index_.find(hash().hash(key), exact, [&](const Where& where) {
            return !less(key, where.it->first) && !less(where.it->first, key);
        });
    }

    KeyLess less_;
    Map map_;
    Index index_;
    bool allExact_ = true;
};

}  // namespace Velta::Agent::internal
