// Not API: machinery of the agent library (the aggregator's owner map when the host offers key
// hashing). Written here rather than taken from a container library because a plug-in brings no
// third-party library into its host's process.
//
// An ordered map from row keys to shared pointers, and a hash index of its keys beside the tree.
//
// Order, iteration, lower_bound and positional insertion are those of the underlying std::map
// ordered by the host's RowOpsKeyLess (with the host's inline shortcut for a number key); find and
// locate, which a row event needs, probe the hash index instead of walking the tree, so their cost
// does not grow with the number of keys. The index entry of a key also holds its value, so that
// reading or changing the value of a located key never touches the element in the tree (which
// lies elsewhere in memory); the element's own value then stays empty. When the row operations turn
// out not to hash (a host that wraps them, say), the index stays empty, find and locate walk the
// tree and the elements hold the values.
//
// Invariants:
// - While hashing is available, index_ has exactly one entry per element of map_, keyed by the
//   hash of the element's key and holding the element's iterator (std::map iterators stay valid
//   until their element is erased, so only insertion and erasure move entries) and the key's
//   value, and every element's own value is empty. Otherwise index_ is empty and the elements
//   hold the values. value() answers either way; a value leaves with its key.
// - allExact_ is true while every key inserted since the map was empty is of a type whose hash is
//   exact (RowKeyHash::exact); only then may a probe trust equal hashes without comparing.
#pragma once

#include <Velta/Agent/internal/HostKeyHash.h>
#include <Velta/Agent/internal/KeyHashIndex.h>
#include <Velta/Agent/internal/NodePool.h>
#include <Velta/BaseRow.h>
#include <Velta/VeltaDB.h>

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <utility>
#include <vector>

static_assert(Velta::Agent::internal::kHostKeyHashDetected,
              "RowKeyMap needs the host's key-hash capability <Velta/HostCapability/KeyHash.h>");

namespace Velta::Agent::internal {

template <class T>
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

    using Value = std::shared_ptr<T>;
    using value_type = std::pair<const BaseRow, Value>;
    using allocator_type = NodeAllocator<value_type>;
    using Map = std::map<BaseRow, Value, KeyLess, allocator_type>;
    using iterator = typename Map::iterator;
    using const_iterator = typename Map::const_iterator;

private:
    struct Where {
        iterator it{};
        Value value;
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
        // The key's value (read from the index when there is one, not from the element).
        const Value& value() const noexcept { return *value_; }

    private:
        friend class RowKeyMap;
        Found() noexcept = default;
        Found(iterator it, const Value* value, typename Index::Entry* entry) noexcept
            : it_(it), value_(value), entry_(entry), found_(true) {}
        iterator it_{};
        const Value* value_ = nullptr;
        typename Index::Entry* entry_ = nullptr;
        bool found_ = false;
    };

    // The element whose key equals `key`'s (neither ordered before the other), if any.
    Found locate(const BaseRow& key) {
        if (!hash().available()) {
            const iterator it = map_.find(key);
            return it == map_.end() ? Found() : Found(it, &it->second, nullptr);
        }
        auto* e = probe(key);
        return e == nullptr ? Found() : Found(e->pos.it, &e->pos.value, e);
    }
    // The same as an iterator: the element or end().
    iterator find(const BaseRow& key) {
        if (!hash().available()) return map_.find(key);
        auto* e = probe(key);
        return e == nullptr ? map_.end() : e->pos.it;
    }
    const_iterator find(const BaseRow& key) const { return const_cast<RowKeyMap*>(this)->find(key); }
    // The value of the element at `pos` (an element of this map).
    const Value& value(const_iterator pos) const {
        if (!hash().available()) return pos->second;
        const auto* e = const_cast<RowKeyMap*>(this)->entryOf(pos, pos->first);
        return e != nullptr ? e->pos.value : pos->second;
    }

    // Fetches into the cache what locate(key) reads in the hash index.
    void prefetch(const BaseRow& key) const {
        if (hash().available()) index_.prefetch(hash().hash(key));
    }

    // The first element not ordered before `key` (a walk down the tree).
    iterator lower_bound(const BaseRow& key) { return map_.lower_bound(key); }

    // Inserts `key` (not yet present) with `value` at the place `hint` suggests.
    iterator emplace_hint(const_iterator hint, BaseRow key, Value value) {
        if (!hash().available()) return map_.emplace_hint(hint, std::move(key), std::move(value));
        const std::size_t before = map_.size();
        const iterator it = map_.emplace_hint(hint, std::move(key), Value());
        if (map_.size() != before) {
            if (!hash().exact(it->first)) allExact_ = false;
            index_.insert(hash().hash(it->first), Where{it, std::move(value)});
        }
        return it;
    }
    // Replaces the value of a located element.
    void assign(Found found, Value value) {
        if (found.entry_ != nullptr)
            found.entry_->pos.value = std::move(value);
        else
            found.it_->second = std::move(value);
    }
    // Replaces the value of the element at `pos`; `sameKey` has pos's key and is hashed in place of
    // the element's own key object, which then need not be read.
    void assign(iterator pos, const BaseRow& sameKey, Value value) {
        if (!hash().available()) {
            pos->second = std::move(value);
            return;
        }
        entryOf(pos, sameKey)->pos.value = std::move(value);
    }
    // Inserts `key` (not yet present) with `value` where it belongs.
    iterator emplace(BaseRow key, Value value) {
        const const_iterator hint = map_.lower_bound(key);
        return emplace_hint(hint, std::move(key), std::move(value));
    }

    // Removes the element at `pos`; returns the element after it.
    iterator erase(iterator pos) { return erase(pos, pos->first); }
    // The same, hashing `sameKey` (a row with pos's key) in place of the element's own key object.
    iterator erase(iterator pos, const BaseRow& sameKey) {
        if (hash().available()) {
            if (auto* e = entryOf(pos, sameKey)) index_.erase(e);
        }
        const iterator next = map_.erase(pos);
        if (map_.empty()) allExact_ = true;
        return next;
    }

    // Puts into `out` the elements whose value is `value`, in key order, and returns true, when that
    // costs less than walking the map and reading each element's value: they are found in one pass
    // over the index (which holds the values; no key is hashed or compared), then sorted by key, so
    // this pays off while they are few. Returns false, `out` empty, without hashing or when more
    // than one element in kFewDivisor has the value.
    static constexpr std::size_t kFewDivisor = 8;
    bool collectFew(const Value& value, std::vector<iterator>& out) {
        out.clear();
        if (!hash().available()) return false;
        const std::size_t limit = map_.size() / kFewDivisor;
        bool few = true;
        index_.forEach([&](const Where& where) {
            if (few && where.value == value) {
                if (out.size() == limit)
                    few = false;
                else
                    out.push_back(where.it);
            }
        });
        if (!few) {
            out.clear();
            return false;
        }
        std::sort(out.begin(), out.end(),
                  [this](iterator a, iterator b) { return less_(a->first, b->first); });
        return true;
    }

    // The map's key order (the inline shortcut included).
    const KeyLess& key_comp() const noexcept { return less_; }

private:
    // (std::map::key_comp returns a copy: the map's own order is kept here as well.)
    const KeyHash& hash() const noexcept { return less_.hash(); }

    typename Index::Entry* entryOf(const_iterator pos, const BaseRow& sameKey) {
        return index_.find(hash().hash(sameKey), false,
                           [&](const Where& candidate) { return candidate.it == pos; });
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
