// Key order and key hash of rows; see RowKeys.h.
#include "RowKeys.h"

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Velta::Host::internal {

namespace {

int compareLists(const std::vector<std::string>& a, const std::vector<std::string>& b) noexcept {
    const std::size_t n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
        if (const int c = a[i].compare(b[i]); c != 0) return c < 0 ? -1 : 1;
    }
    return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

}  // namespace

int compareKey(const RowType& type, const RowData& a, const RowData& b) noexcept {
    for (const std::uint16_t k : type.keyFields()) {
        const RowType::Field& f = type.fields()[k];
        if (isNumberKind(f.kind)) {
            const std::uint64_t x = a.numbers[f.slot];
            const std::uint64_t y = b.numbers[f.slot];
            if (x != y) return x < y ? -1 : 1;
        } else if (f.kind == FieldKind::string) {
            if (const int c = a.strings[f.slot].compare(b.strings[f.slot]); c != 0) return c < 0 ? -1 : 1;
        } else {
            if (const int c = compareLists(a.lists[f.slot], b.lists[f.slot]); c != 0) return c;
        }
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
    for (const std::uint16_t k : type.keyFields()) {
        const RowType::Field& f = type.fields()[k];
        if (isNumberKind(f.kind)) {
            h = mixInto(h, row.numbers[f.slot]);
        } else if (f.kind == FieldKind::string) {
            h = mixInto(h, std::hash<std::string_view>{}(row.strings[f.slot]));
        } else {
            const std::vector<std::string>& list = row.lists[f.slot];
            h = mixInto(h, list.size());
            for (const std::string& s : list) h = mixInto(h, std::hash<std::string_view>{}(s));
        }
    }
    return h;
}

}  // namespace Velta::Host::internal
