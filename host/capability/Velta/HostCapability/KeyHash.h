// Key hashing: an optional capability of the in-memory host, offered beside the host interface.
//
// The interface orders rows only through RowOps::keyLess. This host's row operations can also hash
// a row's key, and for a key of one number field they can compare and hash it inline, without a
// virtual call. A plug-in that finds this header at compile time may use them to look keys up by
// hash; one built without it keeps to ordered maps and loses nothing but speed. The header is not
// part of the interface: another host need not provide it.
//
// Invariants:
// - keyHash is consistent with keyLess: rows whose keys are equal (neither ordered before the
//   other) hash equal.
// - A row whose data is of numberKeyType() hashes to mixKey of its number in numberKeySlot(), and
//   keyLess orders two such rows by that number alone. mixKey is a bijection, so among rows of that
//   type equal hashes are equal keys.
#pragma once

#include <Velta/BaseRow.h>
#include <Velta/VeltaDB.h>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace Velta::HostCapability {

// A bijective 64-bit mix (the finalizer of MurmurHash3): spreads keys that differ in any bit over
// the low bits a hash table uses to pick a slot, and keeps distinct keys distinct.
constexpr std::uint64_t mixKey(std::uint64_t k) noexcept {
    k ^= k >> 33;
    k *= 0xff51afd7ed558ccdULL;
    k ^= k >> 33;
    k *= 0xc4ceb9fe1a85ec53ULL;
    k ^= k >> 33;
    return k;
}

// Implemented, beside RowOps, by the row operations of a host that hashes keys.
class KeyHashing {
public:
    virtual ~KeyHashing() = default;
    // A hash of `row`'s key in the index the operations were made for (see the invariants).
    virtual std::uint64_t keyHash(const BaseRow& row) const = 0;

    // The type whose rows compare and hash by one number (in slot numberKeySlot() of the row
    // data), or null when the operations declare no such shortcut.
    const RowType* numberKeyType() const noexcept { return numberKeyType_; }
    std::size_t numberKeySlot() const noexcept { return numberKeySlot_; }

protected:
    // Declares the shortcut; only for operations that order and hash rows of `type` that way.
    void numberKeyIs(const RowType* type, std::size_t slot) noexcept {
        numberKeyType_ = type;
        numberKeySlot_ = slot;
    }

private:
    const RowType* numberKeyType_ = nullptr;
    std::size_t numberKeySlot_ = 0;
};

// What a plug-in uses: the key hashing of one RowOps, when its host provides it. Cheap to copy;
// keeps no reference on the operations, which must outlive it.
class RowKeyHash {
public:
    explicit RowKeyHash(const RowOps* ops) noexcept
        : hashing_(dynamic_cast<const KeyHashing*>(ops)),
          numberKeyType_(hashing_ != nullptr ? hashing_->numberKeyType() : nullptr),
          numberKeySlot_(hashing_ != nullptr ? hashing_->numberKeySlot() : 0) {}

    // False when the operations do not hash: hash() must not be called then.
    bool available() const noexcept { return hashing_ != nullptr; }
    // The key hash of `row` (KeyHashing::keyHash), inline for a number key.
    std::uint64_t hash(const BaseRow& row) const {
        return exact(row) ? mixKey(row.data()->numbers[numberKeySlot_]) : hashing_->keyHash(row);
    }
    // True when hash(row) is a bijection of the key among rows of `row`'s type, so that two such
    // rows with equal hashes have equal keys.
    bool exact(const BaseRow& row) const noexcept {
        const RowData* x = row.data();
        return numberKeyType_ != nullptr && x != nullptr && x->type == numberKeyType_;
    }
    // keyLess(a, b) decided inline when both rows have a number key; nothing otherwise.
    std::optional<bool> numberKeyLess(const BaseRow& a, const BaseRow& b) const noexcept {
        const RowData* x = a.data();
        const RowData* y = b.data();
        if (numberKeyType_ == nullptr || x == nullptr || y == nullptr || x->type != numberKeyType_ ||
            y->type != numberKeyType_)
            return std::nullopt;
        return x->numbers[numberKeySlot_] < y->numbers[numberKeySlot_];
    }

private:
    const KeyHashing* hashing_;
    const RowType* numberKeyType_;
    std::size_t numberKeySlot_;
};

}  // namespace Velta::HostCapability
