// The host's key machinery over row data: the orders of index 0 and index 1, and the key hash of
// its hash indexes and of its row operations' key-hash capability.
//
// Invariants:
// - Every function here takes row data of `type` (the caller checks); they never allocate.
// - Rows whose keys compare equal hash equal. A key of one number field hashes to mixKey of that
//   number, a bijection (keyHashExact), as the capability header promises its users.
// - A KeyLayout orders, compares and hashes exactly as compareKey and hashKey do for its type; it
//   only saves looking the key fields up on every call.
// - A key ordered before another never has the greater prefix (KeyLayout::prefix).
#pragma once

#include <Velta/BaseRow.h>
#include <Velta/HostCapability/KeyHash.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Velta::Host::internal {

// Primary-key order: <0, 0, >0.
int compareKey(const RowType& type, const RowData& a, const RowData& b) noexcept;
// Index 1 order: oid, then primary key.
int compareOidKey(const RowType& type, const RowData& a, const RowData& b) noexcept;
// True when `row`'s key in `index` is the one a row without data reads as: every key field (and
// for index 1 the oid) zero, false or empty, the least key of the type.
bool keyIsZero(const RowType& type, const RowData& row, unsigned char index) noexcept;
// Hash of the primary key.
std::uint64_t hashKey(const RowType& type, const RowData& row) noexcept;
// True when hashKey is a bijection of the key, so that equal hashes mean equal keys.
inline bool keyHashExact(const RowType& type) noexcept {
    return type.keyFields().size() == 1 && isNumberKind(type.fields()[type.keyFields().front()].kind);
}

// Combines the hash of one more key part into a running hash (order-sensitive).
constexpr std::uint64_t mixInto(std::uint64_t seed, std::uint64_t part) noexcept {
    return HostCapability::mixKey(seed ^ (part + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2)));
}

// One key field as the functions below read it: anything with the field's `kind` and `slot`.
template <class Part>
int compareKeyPart(const Part& f, const RowData& a, const RowData& b) noexcept {
    if (isNumberKind(f.kind)) {
        const std::uint64_t x = a.numbers[f.slot];
        const std::uint64_t y = b.numbers[f.slot];
        return x == y ? 0 : (x < y ? -1 : 1);
    }
    if (f.kind == FieldKind::string) {
        const int c = a.strings[f.slot].compare(b.strings[f.slot]);
        return c == 0 ? 0 : (c < 0 ? -1 : 1);
    }
    const std::vector<std::string>& x = a.lists[f.slot];
    const std::vector<std::string>& y = b.lists[f.slot];
    const std::size_t n = std::min(x.size(), y.size());
    for (std::size_t i = 0; i < n; ++i) {
        if (const int c = x[i].compare(y[i]); c != 0) return c < 0 ? -1 : 1;
    }
    return x.size() == y.size() ? 0 : (x.size() < y.size() ? -1 : 1);
}

template <class Part>
std::uint64_t hashKeyPart(std::uint64_t h, const Part& f, const RowData& row) noexcept {
    if (isNumberKind(f.kind)) return mixInto(h, row.numbers[f.slot]);
    if (f.kind == FieldKind::string) return mixInto(h, std::hash<std::string_view>{}(row.strings[f.slot]));
    const std::vector<std::string>& list = row.lists[f.slot];
    h = mixInto(h, list.size());
    for (const std::string& s : list) h = mixInto(h, std::hash<std::string_view>{}(s));
    return h;
}

// A type's primary key as a table reads it, worked out once: the kind and slot of each key field,
// and the recipe of the key's prefix, a 64-bit projection of its leading fields that the ordered
// indexes compare before reading any row data.
//
// The prefix packs the leading number fields at their widths (bool 1 bit, u16 16, u32 32, u64 64)
// while they fit, then the high bits of the next number or the first bytes of a string field
// (big-endian, zero-padded), and ends there; it is left-aligned. A number beyond its width (only
// the generic numberIs stores one) packs as the width's greatest value followed by ones, so the
// prefix still never orders against the keys, and rows holding such numbers compare by their data.
class KeyLayout {
public:
    explicit KeyLayout(const RowType& type);

    // True when the key is one number field: the prefix is that number, the hash a bijection.
    bool exact() const noexcept { return exact_; }
    std::uint64_t prefix(const RowData& row) const noexcept;
    // compareKey.
    int compare(const RowData& a, const RowData& b) const noexcept {
        for (const Part& p : parts_) {
            if (const int c = compareKeyPart(p, a, b); c != 0) return c;
        }
        return 0;
    }
    // compareKey(...) == 0, the number fields first.
    bool equal(const RowData& a, const RowData& b) const noexcept {
        for (const std::uint16_t slot : numberSlots_) {
            if (a.numbers[slot] != b.numbers[slot]) return false;
        }
        for (const Part& p : otherParts_) {
            if (compareKeyPart(p, a, b) != 0) return false;
        }
        return true;
    }
    // hashKey.
    std::uint64_t hash(const RowData& row) const noexcept {
        if (exact_) return HostCapability::mixKey(row.numbers[parts_.front().slot]);
        std::uint64_t h = 0;
        for (const Part& p : parts_) h = hashKeyPart(h, p, row);
        return h;
    }

private:
    struct Part {
        FieldKind kind;
        std::uint16_t slot;
    };
    // One field's share of the prefix: `bits` bits of a number of `width` bits (its high bits
    // when fewer), or `bits` / 8 leading bytes of a string.
    struct PrefixStep {
        FieldKind kind;
        std::uint16_t slot;
        unsigned char bits;
        unsigned char width;
    };

    bool exact_ = false;
    std::vector<Part> parts_;  // in key order
    std::vector<std::uint16_t> numberSlots_;
    std::vector<Part> otherParts_;  // strings and lists, in key order
    std::vector<PrefixStep> prefix_;
};

}  // namespace Velta::Host::internal
