// The host's key machinery over row data: the orders of index 0 and index 1, and the key hash of
// its hash indexes and of its row operations' key-hash capability.
//
// Invariants:
// - Every function here takes row data of `type` (the caller checks); they never allocate.
// - Rows whose keys compare equal hash equal. A key of one number field hashes to mixKey of that
//   number, a bijection (keyHashExact), as the capability header promises its users.
#pragma once

#include <Velta/BaseRow.h>
#include <Velta/HostCapability/KeyHash.h>

#include <cstdint>

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

}  // namespace Velta::Host::internal
