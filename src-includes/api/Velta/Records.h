// The six built-in row records: typed views on BaseRow for the tables the agents use.
//
// A record is a BaseRow whose data is always of the record's own type: building one from a row of
// another type takes the fields by name (missing ones read as zero, false or empty). Getters read,
// `...Is` setters write (copy on write). operator< orders by the primary key.
//
// Each record's fields are listed once, above its class, as X(field, kind) entries in field order,
// and its primary key as X(field) entries in key order. From those lists come both the field and
// key tables the host registers (detail::kBuiltinTypes) and the record's accessors and operator<,
// so they cannot drift: per field `T field() const` and `void fieldIs(const T&)`,
// where T is std::uint16_t, std::uint32_t, unsigned long long, bool, std::string or
// std::vector<std::string> for the kinds u16, u32, u64, boolean, string and strings. Number and
// bool getters are noexcept; string and list getters return a copy.
#pragma once

#include <Velta/BaseRow.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

// What one X(field, kind) entry becomes: a row of the field table, the field's index, its accessors.
#define VELTA_RECORD_FIELD_TABLE_ROW(field, kind) {#field, FieldKind::kind},
#define VELTA_RECORD_FIELD_INDEX(field, kind) field,
#define VELTA_RECORD_ACCESSORS(field, kind) VELTA_RECORD_ACCESSORS_##kind(field)
#define VELTA_RECORD_NUMBER_ACCESSORS(field, T)                                  \
    T field() const noexcept { return static_cast<T>(ownNumber(Field::field)); } \
    void field##Is(const T& value) { numberSlot(Field::field) = static_cast<std::uint64_t>(value); }
#define VELTA_RECORD_ACCESSORS_u16(field) VELTA_RECORD_NUMBER_ACCESSORS(field, std::uint16_t)
#define VELTA_RECORD_ACCESSORS_u32(field) VELTA_RECORD_NUMBER_ACCESSORS(field, std::uint32_t)
#define VELTA_RECORD_ACCESSORS_u64(field) VELTA_RECORD_NUMBER_ACCESSORS(field, unsigned long long)
#define VELTA_RECORD_ACCESSORS_boolean(field) VELTA_RECORD_NUMBER_ACCESSORS(field, bool)
#define VELTA_RECORD_ACCESSORS_string(field)                                                  \
    std::string field() const { return data_ ? data_->string(Field::field) : std::string(); } \
    void field##Is(const std::string& value) { stringSlot(Field::field) = value; }
#define VELTA_RECORD_ACCESSORS_strings(field)                                  \
    std::vector<std::string> field() const {                                   \
        return data_ ? data_->list(Field::field) : std::vector<std::string>(); \
    }                                                                          \
    void field##Is(const std::vector<std::string>& value) { listSlot(Field::field) = value; }
// What one X(field) key entry becomes: a row of the key table, one step of operator<.
#define VELTA_RECORD_KEY_TABLE_ROW(field) #field,
#define VELTA_RECORD_KEY_STEP(field) \
    if (const int c = detail::compareKeyField<decltype(a.field())>(a, b, Field::field); c != 0) return c < 0;
// The body a record class starts with: its field indexes, constructors, accessors and key order.
#define VELTA_RECORD_BODY(Class, FIELDS, KEY)                                             \
private:                                                                                  \
    struct Field {                                                                        \
        enum : std::size_t { FIELDS(VELTA_RECORD_FIELD_INDEX) };                          \
    };                                                                                    \
                                                                                          \
public:                                                                                   \
    using Record::Record;                                                                 \
    Class() noexcept = default;                                                           \
    FIELDS(VELTA_RECORD_ACCESSORS)                                                        \
    /* Primary-key order; a record without data reads as its zero, false or empty key. */ \
    friend bool operator<(const Class& a, const Class& b) noexcept {                      \
        KEY(VELTA_RECORD_KEY_STEP)                                                        \
        return false;                                                                     \
    }

namespace Velta {

enum class BuiltinRow : std::uint8_t {
    externalSubscription,
    externalPublication,
    ctrlSubscription,
    ctrlPublication,
    veTable,
    systemDescription,
    veClass,  // the host's description of a row class (VeltaDB::veClass)
};

// The registered type of a built-in record (defined by the host).
const RowType& builtinRowType(BuiltinRow which);

// Common base of the records: keeps the data of type `Which`.
template <BuiltinRow Which>
class Record : public BaseRow {
public:
    Record() noexcept = default;
    Record(const BaseRow& row) : BaseRow(row.as(type())) {}  // NOLINT: rows convert implicitly
    static const RowType& type() {
        static const RowType& t = builtinRowType(Which);
        return t;
    }
    static std::string rowTypeName() { return type().name(); }

protected:
    // A number field of the record's own type, read without BaseRow's check of kind and range: the
    // data is always of that type.
    std::uint64_t ownNumber(std::size_t field) const noexcept { return data_ ? data_->number(field) : 0; }
    std::uint64_t& numberSlot(std::size_t field) {
        return mutableData(type()).numbers[type().fields()[field].slot];
    }
    std::string& stringSlot(std::size_t field) {
        return mutableData(type()).strings[type().fields()[field].slot];
    }
    std::vector<std::string>& listSlot(std::size_t field) {
        return mutableData(type()).lists[type().fields()[field].slot];
    }
};

namespace detail {
// Order of one key field (of accessor type T) of two rows of one type: <0, 0, >0. The field is read
// in place; a row without data reads zero or empty.
template <class T>
int compareKeyField(const BaseRow& a, const BaseRow& b, std::size_t field) noexcept {
    if constexpr (std::is_same_v<T, std::string>) {
        const RowData* x = a.data();
        const RowData* y = b.data();
        if (x == nullptr || y == nullptr) {
            const bool xEmpty = x == nullptr || x->string(field).empty();
            const bool yEmpty = y == nullptr || y->string(field).empty();
            return xEmpty == yEmpty ? 0 : (xEmpty ? -1 : 1);
        }
        const int c = x->string(field).compare(y->string(field));
        return c == 0 ? 0 : (c < 0 ? -1 : 1);
    } else {
        static_assert(std::is_arithmetic_v<T>, "key fields are numbers or strings");
        // Both rows are of the record's type (or empty), so the field is read without a check.
        const std::uint64_t x = a.data() != nullptr ? a.data()->number(field) : 0;
        const std::uint64_t y = b.data() != nullptr ? b.data()->number(field) : 0;
        return x == y ? 0 : (x < y ? -1 : 1);
    }
}
}  // namespace detail

namespace External {

// "velta/External/Subscription". Primary key: system_description, outputPath.
#define VELTA_EXTERNAL_SUBSCRIPTION_FIELDS(X) \
    X(oid, u32)                               \
    X(typeName, string)                       \
    X(type_signature, string)                 \
    X(queryText, string)                      \
    X(outputPath, string)                     \
    X(system_description, u32)                \
    X(flags, u16)                             \
    X(desiredFlags, u16)                      \
    X(standing, boolean)                      \
    X(features, u32)                          \
    X(paramName, strings)                     \
    X(paramValue, strings)                    \
    X(ptime, u64)
#define VELTA_EXTERNAL_SUBSCRIPTION_KEY(X) \
    X(system_description)                  \
    X(outputPath)
class Subscription : public Record<BuiltinRow::externalSubscription> {
    VELTA_RECORD_BODY(Subscription, VELTA_EXTERNAL_SUBSCRIPTION_FIELDS, VELTA_EXTERNAL_SUBSCRIPTION_KEY)
};

std::ostream& operator<<(std::ostream& os, const Subscription& row);

// "velta/External/Publication". Primary key: subscription_id.
#define VELTA_EXTERNAL_PUBLICATION_FIELDS(X) \
    X(subscription_id, u32)                  \
    X(publication_id, u32)                   \
    X(connection_id, u32)                    \
    X(tableId, u32)                          \
    X(typeId, u32)                           \
    X(view_id, u32)                          \
    X(status, boolean)                       \
    X(error, string)                         \
    X(ptime, u64)
#define VELTA_EXTERNAL_PUBLICATION_KEY(X) X(subscription_id)
class Publication : public Record<BuiltinRow::externalPublication> {
    VELTA_RECORD_BODY(Publication, VELTA_EXTERNAL_PUBLICATION_FIELDS, VELTA_EXTERNAL_PUBLICATION_KEY)
    void errorIs(const char* value) { stringSlot(Field::error) = value; }
};

std::ostream& operator<<(std::ostream& os, const Publication& row);

}  // namespace External

namespace veCtrl {

// "velta/veCtrl/subscription". Primary key: system_description, connection_id, tableId.
#define VELTA_CTRL_SUBSCRIPTION_FIELDS(X) \
    X(oid, u32)                           \
    X(connection_id, u32)                 \
    X(system_description, u32)            \
    X(typeName, string)                   \
    X(type_signature, string)             \
    X(tableId, u32)                       \
    X(features, u32)                      \
    X(writer, boolean)                    \
    X(ptime, u64)
#define VELTA_CTRL_SUBSCRIPTION_KEY(X) \
    X(system_description)              \
    X(connection_id)                   \
    X(tableId)
class subscription : public Record<BuiltinRow::ctrlSubscription> {
    VELTA_RECORD_BODY(subscription, VELTA_CTRL_SUBSCRIPTION_FIELDS, VELTA_CTRL_SUBSCRIPTION_KEY)
};

std::ostream& operator<<(std::ostream& os, const subscription& row);

// "velta/veCtrl/publication". Primary key: subscription_id.
#define VELTA_CTRL_PUBLICATION_FIELDS(X) \
    X(subscription_id, u32)              \
    X(connection_id, u32)                \
    X(system_id, u32)                    \
    X(tableId, u32)                      \
    X(typeId, u32)                       \
    X(view_id, u32)                      \
    X(status, boolean)                   \
    X(error, string)                     \
    X(ptime, u64)
#define VELTA_CTRL_PUBLICATION_KEY(X) X(subscription_id)
class publication : public Record<BuiltinRow::ctrlPublication> {
    VELTA_RECORD_BODY(publication, VELTA_CTRL_PUBLICATION_FIELDS, VELTA_CTRL_PUBLICATION_KEY)
    void errorIs(const char* value) { stringSlot(Field::error) = value; }
    // A copy with row data of its own.
    publication clone() const {
        publication copy(*this);
        if (!copy.empty()) copy.mutableData(type());
        return copy;
    }
};

std::ostream& operator<<(std::ostream& os, const publication& row);

}  // namespace veCtrl

namespace veMetadata {

// "velta/metadata/veTable". Primary key: tablePath.
#define VELTA_VE_TABLE_FIELDS(X) \
    X(oid, u32)                  \
    X(tablePath, string)         \
    X(typeName, string)          \
    X(owner, string)
#define VELTA_VE_TABLE_KEY(X) X(tablePath)
class veTable : public Record<BuiltinRow::veTable> {
    VELTA_RECORD_BODY(veTable, VELTA_VE_TABLE_FIELDS, VELTA_VE_TABLE_KEY)
};

std::ostream& operator<<(std::ostream& os, const veTable& row);

// "velta/metadata/SystemDescription". Primary key: oid.
#define VELTA_SYSTEM_DESCRIPTION_FIELDS(X) \
    X(oid, u32)                            \
    X(sysName, string)                     \
    X(agentName, string)                   \
    X(properties, u32)
#define VELTA_SYSTEM_DESCRIPTION_KEY(X) X(oid)
class SystemDescription : public Record<BuiltinRow::systemDescription> {
    VELTA_RECORD_BODY(SystemDescription, VELTA_SYSTEM_DESCRIPTION_FIELDS, VELTA_SYSTEM_DESCRIPTION_KEY)
};

std::ostream& operator<<(std::ostream& os, const SystemDescription& row);

// The host's description of a row class; see VeltaDB::veClass.
#define VELTA_VE_CLASS_FIELDS(X) \
    X(name, string)              \
    X(typeId, u32)               \
    X(fields, strings)
#define VELTA_VE_CLASS_KEY(X) X(name)
class veClass : public Record<BuiltinRow::veClass> {
    VELTA_RECORD_BODY(veClass, VELTA_VE_CLASS_FIELDS, VELTA_VE_CLASS_KEY)
};

}  // namespace veMetadata

// The field tables the host registers the built-in types from.
namespace detail {
struct BuiltinField {
    const char* name;
    FieldKind kind;
};
struct BuiltinType {
    BuiltinRow which;
    const char* name;
    const char* tablePath;  // the table created at database start (nullptr: none)
    const BuiltinField* fields;
    std::size_t fieldCount;
    const char* const* key;
    std::size_t keyCount;
};

inline constexpr BuiltinField kExternalSubscriptionFields[] = {
    VELTA_EXTERNAL_SUBSCRIPTION_FIELDS(VELTA_RECORD_FIELD_TABLE_ROW)};
inline constexpr const char* kExternalSubscriptionKey[] = {
    VELTA_EXTERNAL_SUBSCRIPTION_KEY(VELTA_RECORD_KEY_TABLE_ROW)};
inline constexpr BuiltinField kExternalPublicationFields[] = {
    VELTA_EXTERNAL_PUBLICATION_FIELDS(VELTA_RECORD_FIELD_TABLE_ROW)};
inline constexpr const char* kExternalPublicationKey[] = {
    VELTA_EXTERNAL_PUBLICATION_KEY(VELTA_RECORD_KEY_TABLE_ROW)};
inline constexpr BuiltinField kCtrlSubscriptionFields[] = {
    VELTA_CTRL_SUBSCRIPTION_FIELDS(VELTA_RECORD_FIELD_TABLE_ROW)};
inline constexpr const char* kCtrlSubscriptionKey[] = {
    VELTA_CTRL_SUBSCRIPTION_KEY(VELTA_RECORD_KEY_TABLE_ROW)};
inline constexpr BuiltinField kCtrlPublicationFields[] = {
    VELTA_CTRL_PUBLICATION_FIELDS(VELTA_RECORD_FIELD_TABLE_ROW)};
inline constexpr const char* kCtrlPublicationKey[] = {VELTA_CTRL_PUBLICATION_KEY(VELTA_RECORD_KEY_TABLE_ROW)};
inline constexpr BuiltinField kVeTableFields[] = {VELTA_VE_TABLE_FIELDS(VELTA_RECORD_FIELD_TABLE_ROW)};
inline constexpr const char* kVeTableKey[] = {VELTA_VE_TABLE_KEY(VELTA_RECORD_KEY_TABLE_ROW)};
inline constexpr BuiltinField kSystemDescriptionFields[] = {
    VELTA_SYSTEM_DESCRIPTION_FIELDS(VELTA_RECORD_FIELD_TABLE_ROW)};
inline constexpr const char* kSystemDescriptionKey[] = {
    VELTA_SYSTEM_DESCRIPTION_KEY(VELTA_RECORD_KEY_TABLE_ROW)};
inline constexpr BuiltinField kVeClassFields[] = {VELTA_VE_CLASS_FIELDS(VELTA_RECORD_FIELD_TABLE_ROW)};
inline constexpr const char* kVeClassKey[] = {VELTA_VE_CLASS_KEY(VELTA_RECORD_KEY_TABLE_ROW)};

inline constexpr BuiltinType kBuiltinTypes[] = {
    {BuiltinRow::externalSubscription, "External::Subscription", "velta/External/Subscription",
     kExternalSubscriptionFields, std::size(kExternalSubscriptionFields), kExternalSubscriptionKey,
     std::size(kExternalSubscriptionKey)},
    {BuiltinRow::externalPublication, "External::Publication", "velta/External/Publication",
     kExternalPublicationFields, std::size(kExternalPublicationFields), kExternalPublicationKey,
     std::size(kExternalPublicationKey)},
    {BuiltinRow::ctrlSubscription, "veCtrl::subscription", "velta/veCtrl/subscription",
     kCtrlSubscriptionFields, std::size(kCtrlSubscriptionFields), kCtrlSubscriptionKey,
     std::size(kCtrlSubscriptionKey)},
    {BuiltinRow::ctrlPublication, "veCtrl::publication", "velta/veCtrl/publication", kCtrlPublicationFields,
     std::size(kCtrlPublicationFields), kCtrlPublicationKey, std::size(kCtrlPublicationKey)},
    {BuiltinRow::veTable, "veMetadata::veTable", "velta/metadata/veTable", kVeTableFields,
     std::size(kVeTableFields), kVeTableKey, std::size(kVeTableKey)},
    {BuiltinRow::systemDescription, "veMetadata::SystemDescription", "velta/metadata/SystemDescription",
     kSystemDescriptionFields, std::size(kSystemDescriptionFields), kSystemDescriptionKey,
     std::size(kSystemDescriptionKey)},
    {BuiltinRow::veClass, "veMetadata::veClass", nullptr, kVeClassFields, std::size(kVeClassFields),
     kVeClassKey, std::size(kVeClassKey)},
};
}  // namespace detail

// Primary-key comparison of two rows of the same type; a row without data reads as the other's
// type with every field zero, false or empty.
bool keyLess(const BaseRow& a, const BaseRow& b) noexcept;

}  // namespace Velta

#undef VELTA_RECORD_BODY
#undef VELTA_RECORD_KEY_STEP
#undef VELTA_RECORD_KEY_TABLE_ROW
#undef VELTA_RECORD_ACCESSORS_strings
#undef VELTA_RECORD_ACCESSORS_string
#undef VELTA_RECORD_ACCESSORS_boolean
#undef VELTA_RECORD_ACCESSORS_u64
#undef VELTA_RECORD_ACCESSORS_u32
#undef VELTA_RECORD_ACCESSORS_u16
#undef VELTA_RECORD_NUMBER_ACCESSORS
#undef VELTA_RECORD_ACCESSORS
#undef VELTA_RECORD_FIELD_INDEX
#undef VELTA_RECORD_FIELD_TABLE_ROW
#undef VELTA_VE_CLASS_FIELDS
#undef VELTA_VE_CLASS_KEY
#undef VELTA_SYSTEM_DESCRIPTION_FIELDS
#undef VELTA_SYSTEM_DESCRIPTION_KEY
#undef VELTA_VE_TABLE_FIELDS
#undef VELTA_VE_TABLE_KEY
#undef VELTA_CTRL_PUBLICATION_FIELDS
#undef VELTA_CTRL_PUBLICATION_KEY
#undef VELTA_CTRL_SUBSCRIPTION_FIELDS
#undef VELTA_CTRL_SUBSCRIPTION_KEY
#undef VELTA_EXTERNAL_PUBLICATION_FIELDS
#undef VELTA_EXTERNAL_PUBLICATION_KEY
#undef VELTA_EXTERNAL_SUBSCRIPTION_FIELDS
#undef VELTA_EXTERNAL_SUBSCRIPTION_KEY
