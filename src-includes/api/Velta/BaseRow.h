// Row types and row values.
//
// Invariants:
// - A RowType is registered once per process and never destroyed or changed afterwards, so rows,
//   tables and agents hold plain pointers to it.
// - Row data is immutable while shared: every setter first makes the data unique to its BaseRow
//   (copy on write), so writing to a copy never changes another row or a stored table row.
// - Numbers (u16, u32, u64, bool) are kept as 64-bit values, strings and string lists in their own
//   slots; field i of a type lives in slot fields()[i].slot of the array for its kind.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace Velta {

enum class FieldKind : std::uint8_t { u16, u32, u64, boolean, string, strings };

// "u16", "u32", "u64", "bool", "string", "strings".
const char* fieldKindName(FieldKind kind) noexcept;

inline bool isNumberKind(FieldKind kind) noexcept { return kind < FieldKind::string; }

struct RowData;

// A row type: name, ordered fields and primary-key fields. Created only through the host's
// row-type registry (user types and the built-in records alike).
class RowType {
public:
    struct Field {
        std::string name;
        FieldKind kind;
        std::uint16_t slot;  // index within the array for its kind
    };

    RowType(std::string name, unsigned id, std::vector<Field> fields, std::vector<std::uint16_t> keyFields);
    RowType(const RowType&) = delete;
    RowType& operator=(const RowType&) = delete;

    const std::string& name() const noexcept { return name_; }
    unsigned id() const noexcept { return id_; }
    const std::vector<Field>& fields() const noexcept { return fields_; }
    const std::vector<std::uint16_t>& keyFields() const noexcept { return keyFields_; }
    // Index of the named field, or -1.
    int fieldIndex(std::string_view name) const noexcept;
    // Index of the `oid` field (which gives rows index 1), or -1; an `oid` field that is not a number
    // does not count.
    int oidField() const noexcept { return oidField_; }
    bool hasField(std::string_view name) const noexcept { return fieldIndex(name) >= 0; }

    std::size_t numberCount() const noexcept { return numberCount_; }
    std::size_t stringCount() const noexcept { return stringCount_; }
    std::size_t listCount() const noexcept { return listCount_; }

private:
    std::string name_;
    unsigned id_;
    std::vector<Field> fields_;
    std::vector<std::uint16_t> keyFields_;
    int oidField_ = -1;
    std::size_t numberCount_ = 0;
    std::size_t stringCount_ = 0;
    std::size_t listCount_ = 0;
};

// Shared, reference-counted storage of one row. One allocation holds the header and all slots.
struct RowData {
    std::uint32_t refs;
    const RowType* type;
    std::uint64_t* numbers;
    std::string* strings;
    std::vector<std::string>* lists;

    // A fresh row of `type` with every field zero, false or empty; refs is 1.
    static RowData* create(const RowType& type);
    // A copy of `other` with refs 1.
    static RowData* copy(const RowData& other);
    static void destroy(RowData* data) noexcept;

    // Unchecked reads for the host and the records: `field` is one of the type's fields, of the
    // accessor's kind (BaseRow's readers check).
    std::uint64_t number(std::size_t field) const noexcept { return numbers[type->fields()[field].slot]; }
    const std::string& string(std::size_t field) const noexcept {
        return strings[type->fields()[field].slot];
    }
    const std::vector<std::string>& list(std::size_t field) const noexcept {
        return lists[type->fields()[field].slot];
    }
};

// A row value: empty (no data) or a shared reference to row data of some type.
class BaseRow {
public:
    BaseRow() noexcept = default;
    // A fresh row of `type` with every field zero, false or empty.
    explicit BaseRow(const RowType& type) : data_(RowData::create(type)) {}
    BaseRow(const BaseRow& other) noexcept : data_(other.data_) { retain(); }
    BaseRow(BaseRow&& other) noexcept : data_(other.data_) { other.data_ = nullptr; }
    BaseRow& operator=(const BaseRow& other) noexcept {
        if (data_ != other.data_) {
            BaseRow tmp(other);
            swap(tmp);
        }
        return *this;
    }
    BaseRow& operator=(BaseRow&& other) noexcept {
        if (this != &other) {
            release();
            data_ = other.data_;
            other.data_ = nullptr;
        }
        return *this;
    }
    virtual ~BaseRow() { release(); }

    // True when the row holds no data (what lookups return for a missing key).
    bool empty() const noexcept { return data_ == nullptr; }
    // The row's type, or nullptr for an empty row.
    const RowType* rowType() const noexcept { return data_ ? data_->type : nullptr; }
    // One line: the type and every field, e.g. `T{a=1 b="x" c=["p","q"]}`; `{}` when empty.
    virtual std::string toString() const;
    // Drops the row data, making the row empty.
    void clear() noexcept { release(); }
    void swap(BaseRow& other) noexcept { std::swap(data_, other.data_); }
    // The same row seen as `type`: shared when it already is of that type (or empty), otherwise a
    // new row whose fields are taken by name; fields the row lacks are zero, false or empty.
    BaseRow as(const RowType& type) const;
    // True when both share the same data (not a value comparison).
    bool sameData(const BaseRow& other) const noexcept { return data_ == other.data_; }
    // Field-by-field equality of type and values (empty equals empty).
    bool equals(const BaseRow& other) const noexcept;

    // Generic access by field index of rowType(). An empty row, an index past the type's fields
    // and a field of another kind read zero, false or empty.
    std::uint64_t number(std::size_t field) const noexcept {
        if (data_ == nullptr || field >= data_->type->fields().size()) return 0;
        const RowType::Field& f = data_->type->fields()[field];
        return isNumberKind(f.kind) ? data_->numbers[f.slot] : 0;
    }
    const std::string& string(std::size_t field) const noexcept;
    const std::vector<std::string>& strings(std::size_t field) const noexcept;
    // Setters copy shared data first. The row must not be empty, and the field must be one of its
    // type's fields of the setter's kind (asserted: another kind lives in another array).
    void numberIs(std::size_t field, std::uint64_t value);
    void stringIs(std::size_t field, std::string value);
    void stringsIs(std::size_t field, std::vector<std::string> value);

    // Internal access for the host: the shared data (may be null).
    const RowData* data() const noexcept { return data_; }

protected:
    // Makes the data unique to this row, creating it as `type` when the row is empty. Inline when
    // it already is (a record being filled in).
    RowData& mutableData(const RowType& type) {
        if (data_ != nullptr && data_->type == &type && data_->refs == 1) return *data_;
        return makeMutable(type);
    }
    RowData* data_ = nullptr;

private:
    RowData& makeMutable(const RowType& type);
    void retain() noexcept {
        if (data_) ++data_->refs;
    }
    void release() noexcept {
        if (data_ && --data_->refs == 0) RowData::destroy(data_);
        data_ = nullptr;
    }
};

std::ostream& operator<<(std::ostream& os, const BaseRow& row);

}  // namespace Velta
