// Key order and key hash of rows; see RowKeys.h.
#include "RowKeys.h"

namespace Velta::Host::internal {

namespace {

unsigned widthOf(FieldKind kind) noexcept {
    switch (kind) {
        case FieldKind::boolean:
            return 1;
        case FieldKind::u16:
            return 16;
        case FieldKind::u32:
            return 32;
        default:
            return 64;
    }
}

}  // namespace

int compareKey(const RowType& type, const RowData& a, const RowData& b) noexcept {
    for (const std::uint16_t k : type.keyFields()) {
        if (const int c = compareKeyPart(type.fields()[k], a, b); c != 0) return c;
    }
    return 0;
}

int compareOidKey(const RowType& type, const RowData& a, const RowData& b) noexcept {
    if (type.oidField() >= 0) {
        const std::size_t slot = type.fields()[static_cast<std::size_t>(type.oidField())].slot;
        const std::uint64_t x = a.numbers[slot];
        const std::uint64_t y = b.numbers[slot];
        if (x != y) return x < y ? -1 : 1;
    }
    return compareKey(type, a, b);
}

bool keyIsZero(const RowType& type, const RowData& row, unsigned char index) noexcept {
    if (index != 0 && type.oidField() >= 0 && row.number(static_cast<std::size_t>(type.oidField())) != 0)
        return false;
    for (const std::uint16_t k : type.keyFields()) {
        const RowType::Field& f = type.fields()[k];
        if (isNumberKind(f.kind)) {
            if (row.numbers[f.slot] != 0) return false;
        } else if (f.kind == FieldKind::string) {
            if (!row.strings[f.slot].empty()) return false;
        } else if (!row.lists[f.slot].empty()) {
            return false;
        }
    }
    return true;
}

std::uint64_t hashKey(const RowType& type, const RowData& row) noexcept {
    if (keyHashExact(type))
        return HostCapability::mixKey(row.numbers[type.fields()[type.keyFields().front()].slot]);
    std::uint64_t h = 0;
    for (const std::uint16_t k : type.keyFields()) h = hashKeyPart(h, type.fields()[k], row);
    return h;
}

KeyLayout::KeyLayout(const RowType& type) : exact_(keyHashExact(type)) {
    unsigned left = 64;
    bool prefixOpen = true;
    for (const std::uint16_t k : type.keyFields()) {
        const RowType::Field& f = type.fields()[k];
        parts_.push_back({f.kind, f.slot});
        if (isNumberKind(f.kind))
            numberSlots_.push_back(f.slot);
        else
            otherParts_.push_back({f.kind, f.slot});
        if (!prefixOpen || left == 0) continue;
        if (isNumberKind(f.kind)) {
            const unsigned width = widthOf(f.kind);
            const unsigned bits = std::min(width, left);
            prefix_.push_back(
                {f.kind, f.slot, static_cast<unsigned char>(bits), static_cast<unsigned char>(width)});
            left -= bits;
            prefixOpen = bits == width;
        } else if (f.kind == FieldKind::string && left >= 8) {
            const unsigned bits = left / 8 * 8;
            prefix_.push_back({f.kind, f.slot, static_cast<unsigned char>(bits), 0});
            left -= bits;
            prefixOpen = false;
        } else {
            prefixOpen = false;
        }
    }
}

std::uint64_t KeyLayout::prefix(const RowData& row) const noexcept {
    if (exact_) return row.numbers[parts_.front().slot];
    std::uint64_t p = 0;
    unsigned used = 0;
    for (const PrefixStep& s : prefix_) {
        if (s.kind == FieldKind::string) {
            const std::string& str = row.strings[s.slot];
            const std::size_t bytes = s.bits / 8;
            const std::size_t n = std::min(str.size(), bytes);
            std::uint64_t part = 0;
            for (std::size_t i = 0; i < n; ++i) part = part << 8 | static_cast<unsigned char>(str[i]);
            if (n != 0) part <<= 8 * (bytes - n);  // an empty string reads as zero: no 64-bit shift
            p = s.bits == 64 ? part : p << s.bits | part;
            used += s.bits;
            break;
        }
        const std::uint64_t v = row.numbers[s.slot];
        const std::uint64_t widthMax = s.width == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << s.width) - 1;
        const std::uint64_t bitsMax = s.bits == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << s.bits) - 1;
        if (v > widthMax) {
            // Beyond its width: the greatest value and ones after it, the greatest prefix this
            // field's value and the fields after it could give.
            const unsigned rest = 64 - used;
            return rest == 64 ? ~std::uint64_t{0} : (p << rest) | ((std::uint64_t{1} << rest) - 1);
        }
        const std::uint64_t part = (v >> (s.width - s.bits)) & bitsMax;
        p = s.bits == 64 ? part : p << s.bits | part;
        used += s.bits;
    }
    return used == 0 ? 0 : (used == 64 ? p : p << (64 - used));
}

}  // namespace Velta::Host::internal
