// Not API: machinery of the agent library (the aggregator's inputs by table path).
//
// An ordered map from table path to value (a std::map in ordinary lexicographic order) that also
// remembers where the entries of the path strings its callers pass again and again are. A row event
// names its input by the path string that input's observer holds, the same string object every
// time, so findOrInsert finds the entry by that string's address, confirmed by its content, instead
// of comparing paths down the tree.
//
// Invariants:
// - A remembered entry is an entry of map_: erase forgets every remembered entry, and insertion
//   moves none (std::map iterators stay valid until their element is erased).
// - The map itself, its order and its contents are exactly what the same calls on a std::map give.
#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <string>
#include <utility>

namespace Velta::Agent::internal {

template <class V>
class PathMap {
public:
    using Map = std::map<std::string, V>;
    using iterator = typename Map::iterator;
    using const_iterator = typename Map::const_iterator;

    iterator begin() noexcept { return map_.begin(); }
    iterator end() noexcept { return map_.end(); }
    const_iterator begin() const noexcept { return map_.begin(); }
    const_iterator end() const noexcept { return map_.end(); }
    std::size_t size() const noexcept { return map_.size(); }
    bool empty() const noexcept { return map_.empty(); }

    iterator find(const std::string& path) { return map_.find(path); }
    const_iterator find(const std::string& path) const { return map_.find(path); }
    std::pair<iterator, bool> emplace(const std::string& path, V value) {
        return map_.emplace(path, std::move(value));
    }
    iterator erase(iterator entry) {
        hints_.fill(Hint{});
        return map_.erase(entry);
    }

    // map_[path]: the value of `path`'s entry, inserted empty when there is none.
    V& findOrInsert(const std::string& path) {
        for (const Hint& hint : hints_) {
            if (hint.path == &path && hint.entry->first == path) return hint.entry->second;
        }
        const iterator entry = map_.try_emplace(path).first;
        hints_[next_++ % hints_.size()] = Hint{&path, entry};
        return entry->second;
    }

private:
    struct Hint {
        const std::string* path = nullptr;
        iterator entry{};
    };

    Map map_;
    std::array<Hint, 16> hints_{};
    std::size_t next_ = 0;
};

}  // namespace Velta::Agent::internal
