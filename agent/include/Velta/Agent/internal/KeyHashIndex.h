// Not API: machinery of the agent library (the aggregator's owner map, RowKeyMap.h). It is
// written here rather than taken from a container library because a plug-in brings no third-party
// library into its host's process.
//
// A hash index beside an ordered container: from the hash of a row key to the container position
// holding that key, so that exact-key lookups cost one probe instead of one walk down the tree.
//
// The ordered container stays the authority on order and on the rows; the index only answers
// "where is this key". Its owner keeps the two in step: every key in the container has exactly one
// entry here, whose position is that key's current position.
//
// Invariants:
// - Open addressing with linear probing; an empty slot ends every probe run (erasure shifts later
//   entries back instead of leaving markers), and at most kMaxLoadPercent of the slots are used.
// - ctrl_[i] is kEmpty exactly when slot i is free; otherwise it is tag(entries_[i].hash). A free
//   slot holds a default Entry, so a position that owns something (a shared pointer) is released
//   as soon as its entry leaves.
// - Growing rehashes from the stored hashes alone: rows are never read for it.
// - Equal keys have equal hashes. When the owner declares its hashes exact (a bijection of the
//   key), equal hashes are equal keys and lookups never need to compare rows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Velta::Agent::internal {

// Fetches the cache line at `p` into the cache; `p` may be null or stale (a prefetch never faults).
// An instruction the compiler must keep: GCC 12 deletes a __builtin_prefetch whose address comes
// from a loop it finds free of side effects, such as a probe.
inline void prefetchLine(const void* p) noexcept {
#if defined(__x86_64__) || defined(__i386__)
    asm volatile("prefetcht0 (%0)" : : "r"(p));
#else
    __builtin_prefetch(p);
#endif
}

template <class Pos>
class KeyHashIndex {
public:
    struct Entry {
        std::uint64_t hash;
        Pos pos;
    };

    std::size_t size() const noexcept { return count_; }

    // The entry with `hash` whose position `same(pos)` accepts, or null. `same` is not called
    // when `exact` is true: the hash alone then decides. What `same` throws passes through.
    template <class Same>
    Entry* find(std::uint64_t hash, bool exact, Same&& same) {
        if (count_ == 0) return nullptr;
        const std::uint8_t t = tag(hash);
        for (std::size_t i = hash & mask_;; i = (i + 1) & mask_) {
            const std::uint8_t c = ctrl_[i];
            if (c == kEmpty) return nullptr;
            if (c != t) continue;
            Entry& e = entries_[i];
            if (e.hash == hash && (exact || same(e.pos))) return &e;
        }
    }
    template <class Same>
    const Entry* find(std::uint64_t hash, bool exact, Same&& same) const {
        return const_cast<KeyHashIndex*>(this)->find(hash, exact, same);
    }

    // Fetches into the cache the control byte and entry where a probe for `hash` starts.
    void prefetch(std::uint64_t hash) const noexcept {
        const std::size_t i = hash & mask_;  // an empty index prefetches null
        prefetchLine(ctrl_.data() + i);
        prefetchLine(entries_.data() + i);
    }

    // Calls `visit(pos)` for every entry's position, in slot order (no order of keys).
    template <class Visit>
    void forEach(Visit&& visit) const {
        for (std::size_t i = 0; i < ctrl_.size(); ++i)
            if (ctrl_[i] != kEmpty) visit(entries_[i].pos);
    }

    // Adds a key that has no entry yet.
    void insert(std::uint64_t hash, Pos pos) {
        if ((count_ + 1) * 100 > ctrl_.size() * kMaxLoadPercent) grow();
        place(hash, std::move(pos));
        ++count_;
    }

    // Removes an entry returned by find.
    void erase(const Entry* entry) noexcept {
        std::size_t hole = static_cast<std::size_t>(entry - entries_.data());
        for (std::size_t j = (hole + 1) & mask_;; j = (j + 1) & mask_) {
            if (ctrl_[j] == kEmpty) break;
            const std::size_t home = entries_[j].hash & mask_;
            // The entry may fill the hole when its home is not cyclically within (hole, j].
            const bool stays = hole <= j ? (home > hole && home <= j) : (home > hole || home <= j);
            if (stays) continue;
            ctrl_[hole] = ctrl_[j];
            entries_[hole] = std::move(entries_[j]);
            hole = j;
        }
        ctrl_[hole] = kEmpty;
        entries_[hole] = Entry{};
        --count_;
    }

private:
    static constexpr std::size_t kMaxLoadPercent = 80;
    static constexpr std::uint8_t kEmpty = 0;

    // A slot's control byte: seven bits of the hash (not those that pick the slot) with the top bit
    // set, so most probes that cross other keys never read their entries.
    static std::uint8_t tag(std::uint64_t hash) noexcept {
        return static_cast<std::uint8_t>(0x80 | (hash >> 57));
    }

    void place(std::uint64_t hash, Pos&& pos) noexcept {
        std::size_t i = hash & mask_;
        while (ctrl_[i] != kEmpty) i = (i + 1) & mask_;
        ctrl_[i] = tag(hash);
        entries_[i] = Entry{hash, std::move(pos)};
    }

    void grow() {
        const std::size_t slots = ctrl_.empty() ? 16 : ctrl_.size() * 2;
        std::vector<std::uint8_t> oldCtrl(slots, kEmpty);
        std::vector<Entry> oldEntries(slots);
        oldCtrl.swap(ctrl_);
        oldEntries.swap(entries_);
        mask_ = slots - 1;
        for (std::size_t i = 0; i < oldCtrl.size(); ++i) {
            if (oldCtrl[i] != kEmpty) place(oldEntries[i].hash, std::move(oldEntries[i].pos));
        }
    }

    // Parallel arrays: the dense control bytes (kEmpty or a tag) and the entries they describe.
    std::vector<std::uint8_t> ctrl_;
    std::vector<Entry> entries_;
    std::size_t mask_ = 0;
    std::size_t count_ = 0;
};

}  // namespace Velta::Agent::internal
