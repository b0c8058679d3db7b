// Row types, shared row data and the generic row value.
//
// A RowData is one allocation: the header, then the 64-bit numbers, then the strings, then the
// string lists, each array aligned for its element type. Copy on write happens in mutableData().
#include <Velta/BaseRow.h>

#include <Kesto/DebugSupport.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <ostream>

namespace Velta {

namespace Host::internal {
// Off only in the conformance kit's proof (Database::copyOnWriteIs).
std::atomic<bool> copyOnWrite{true};
}  // namespace Host::internal

namespace {

constexpr std::size_t alignUp(std::size_t n, std::size_t a) noexcept { return (n + a - 1) / a * a; }

struct Layout {
    std::size_t numbers;
    std::size_t strings;
    std::size_t lists;
    std::size_t total;
};

Layout layoutOf(const RowType& type) noexcept {
    Layout l{};
    l.numbers = alignUp(sizeof(RowData), alignof(std::uint64_t));
    l.strings = alignUp(l.numbers + type.numberCount() * sizeof(std::uint64_t), alignof(std::string));
    l.lists =
        alignUp(l.strings + type.stringCount() * sizeof(std::string), alignof(std::vector<std::string>));
    l.total = l.lists + type.listCount() * sizeof(std::vector<std::string>);
    return l;
}

// Allocates the block and wires the header; the slot arrays are left unconstructed.
RowData* allocate(const RowType& type) {
    const Layout l = layoutOf(type);
    auto* base = static_cast<unsigned char*>(::operator new(l.total));
    auto* d = new (base) RowData{1, &type, nullptr, nullptr, nullptr};
    d->numbers = reinterpret_cast<std::uint64_t*>(base + l.numbers);
    d->strings = reinterpret_cast<std::string*>(base + l.strings);
    d->lists = reinterpret_cast<std::vector<std::string>*>(base + l.lists);
    return d;
}

std::uint64_t truncateTo(FieldKind kind, std::uint64_t v) noexcept {
    switch (kind) {
        case FieldKind::u16:
            return v & 0xffffu;
        case FieldKind::u32:
            return v & 0xffffffffu;
        case FieldKind::boolean:
            return v != 0 ? 1 : 0;
        default:
            return v;
    }
}

void appendQuoted(std::string& out, const std::string& s) {
    out += '"';
    for (const char c : s) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                out += c;
        }
    }
    out += '"';
}

const std::string kEmptyString;
const std::vector<std::string> kEmptyList;

// True when `data` holds a field `field` of a kind `isKind` accepts: the generic readers and setters
// reach a field only through the array of its own kind.
template <class IsKind>
bool holds(const RowData* data, std::size_t field, IsKind isKind) noexcept {
    return data != nullptr && field < data->type->fields().size() && isKind(data->type->fields()[field].kind);
}
bool isString(FieldKind kind) noexcept { return kind == FieldKind::string; }
bool isList(FieldKind kind) noexcept { return kind == FieldKind::strings; }

}  // namespace

const char* fieldKindName(FieldKind kind) noexcept {
    switch (kind) {
        case FieldKind::u16:
            return "u16";
        case FieldKind::u32:
            return "u32";
        case FieldKind::u64:
            return "u64";
        case FieldKind::boolean:
            return "bool";
        case FieldKind::string:
            return "string";
        case FieldKind::strings:
            return "strings";
    }
    return "?";
}

RowType::RowType(std::string name, unsigned id, std::vector<Field> fields,
                 std::vector<std::uint16_t> keyFields)
    : name_(std::move(name)), id_(id), fields_(std::move(fields)), keyFields_(std::move(keyFields)) {
    for (std::size_t i = 0; i < fields_.size(); ++i) {
        Field& f = fields_[i];
        if (isNumberKind(f.kind)) {
            f.slot = static_cast<std::uint16_t>(numberCount_++);
            if (f.name == "oid") oidField_ = static_cast<int>(i);
        } else if (f.kind == FieldKind::string) {
            f.slot = static_cast<std::uint16_t>(stringCount_++);
        } else {
            f.slot = static_cast<std::uint16_t>(listCount_++);
        }
    }
}

int RowType::fieldIndex(std::string_view name) const noexcept {
    for (std::size_t i = 0; i < fields_.size(); ++i) {
        if (fields_[i].name == name) return static_cast<int>(i);
    }
    return -1;
}

RowData* RowData::create(const RowType& type) {
    RowData* d = allocate(type);
    std::fill_n(d->numbers, type.numberCount(), std::uint64_t{0});
    std::uninitialized_value_construct_n(d->strings, type.stringCount());
    std::uninitialized_value_construct_n(d->lists, type.listCount());
    return d;
}

RowData* RowData::copy(const RowData& other) {
    const RowType& type = *other.type;
    RowData* d = allocate(type);
    if (type.numberCount() != 0)
        std::memcpy(d->numbers, other.numbers, type.numberCount() * sizeof(std::uint64_t));
    // A string that cannot be copied leaves nothing behind: the block and the strings copied so far
    // go with it.
    std::size_t strings = 0;
    try {
        std::uninitialized_copy_n(other.strings, type.stringCount(), d->strings);
        strings = type.stringCount();
        std::uninitialized_copy_n(other.lists, type.listCount(), d->lists);
    } catch (...) {
        std::destroy_n(d->strings, strings);
        d->~RowData();
        ::operator delete(static_cast<void*>(d));
        throw;
    }
    return d;
}

void RowData::destroy(RowData* data) noexcept {
    if (data == nullptr) return;
    std::destroy_n(data->strings, data->type->stringCount());
    std::destroy_n(data->lists, data->type->listCount());
    data->~RowData();
    ::operator delete(static_cast<void*>(data));
}

std::string BaseRow::toString() const {
    if (data_ == nullptr) return "{}";
    const RowType& type = *data_->type;
    std::string out = type.name();
    out += '{';
    const auto& fields = type.fields();
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const RowType::Field& f = fields[i];
        if (i != 0) out += ' ';
        out += f.name;
        out += '=';
        if (isNumberKind(f.kind)) {
            char buf[24];
            const auto res = std::to_chars(buf, buf + sizeof buf, data_->numbers[f.slot]);
            out.append(buf, res.ptr);
        } else if (f.kind == FieldKind::string) {
            appendQuoted(out, data_->strings[f.slot]);
        } else {
            out += '[';
            const auto& list = data_->lists[f.slot];
            for (std::size_t j = 0; j < list.size(); ++j) {
                if (j != 0) out += ',';
                appendQuoted(out, list[j]);
            }
            out += ']';
        }
    }
    out += '}';
    return out;
}

BaseRow BaseRow::as(const RowType& type) const {
    if (data_ == nullptr || data_->type == &type) return *this;
    const RowType& from = *data_->type;
    BaseRow out(type);
    RowData& d = *out.data_;
    const auto& fields = type.fields();
    for (const RowType::Field& f : fields) {
        const int src = from.fieldIndex(f.name);
        if (src < 0) continue;
        const RowType::Field& s = from.fields()[static_cast<std::size_t>(src)];
        if (isNumberKind(f.kind) && isNumberKind(s.kind)) {
            d.numbers[f.slot] = truncateTo(f.kind, data_->numbers[s.slot]);
        } else if (f.kind == FieldKind::string && s.kind == FieldKind::string) {
            d.strings[f.slot] = data_->strings[s.slot];
        } else if (f.kind == FieldKind::strings && s.kind == FieldKind::strings) {
            d.lists[f.slot] = data_->lists[s.slot];
        }
        // Fields of another kind are treated as missing: they stay zero or empty.
    }
    return out;
}

bool BaseRow::equals(const BaseRow& other) const noexcept {
    if (data_ == other.data_) return true;
    if (data_ == nullptr || other.data_ == nullptr) return false;
    if (data_->type != other.data_->type) return false;
    const RowType& t = *data_->type;
    if (t.numberCount() != 0 &&
        std::memcmp(data_->numbers, other.data_->numbers, t.numberCount() * sizeof(std::uint64_t)) != 0)
        return false;
    for (std::size_t i = 0; i < t.stringCount(); ++i) {
        if (data_->strings[i] != other.data_->strings[i]) return false;
    }
    for (std::size_t i = 0; i < t.listCount(); ++i) {
        if (data_->lists[i] != other.data_->lists[i]) return false;
    }
    return true;
}

const std::string& BaseRow::string(std::size_t field) const noexcept {
    return holds(data_, field, isString) ? data_->string(field) : kEmptyString;
}

const std::vector<std::string>& BaseRow::strings(std::size_t field) const noexcept {
    return holds(data_, field, isList) ? data_->list(field) : kEmptyList;
}

void BaseRow::numberIs(std::size_t field, std::uint64_t value) {
    KESTO_ASSERT(holds(data_, field, isNumberKind), __FILE__, __LINE__, __PRETTY_FUNCTION__);
    RowData& d = mutableData(*data_->type);
    const RowType::Field& f = d.type->fields()[field];
    d.numbers[f.slot] = truncateTo(f.kind, value);  // as stored, so every reader sees one value
}

void BaseRow::stringIs(std::size_t field, std::string value) {
    KESTO_ASSERT(holds(data_, field, isString), __FILE__, __LINE__, __PRETTY_FUNCTION__);
    RowData& d = mutableData(*data_->type);
    d.strings[d.type->fields()[field].slot] = std::move(value);
}

void BaseRow::stringsIs(std::size_t field, std::vector<std::string> value) {
    KESTO_ASSERT(holds(data_, field, isList), __FILE__, __LINE__, __PRETTY_FUNCTION__);
    RowData& d = mutableData(*data_->type);
    d.lists[d.type->fields()[field].slot] = std::move(value);
}

RowData& BaseRow::makeMutable(const RowType& type) {
    if (data_ == nullptr) {
        data_ = RowData::create(type);
        return *data_;
    }
    if (data_->type != &type) {
        BaseRow converted = as(type);
        swap(converted);
    }
    if (data_->refs > 1 && Host::internal::copyOnWrite.load(std::memory_order_relaxed)) {
        RowData* own = RowData::copy(*data_);
        --data_->refs;
        data_ = own;
    }
    return *data_;
}

std::ostream& operator<<(std::ostream& os, const BaseRow& row) { return os << row.toString(); }

}  // namespace Velta
