// The six built-in row records: typed views on BaseRow for the tables the agents use.
//
// A record is a BaseRow whose data is always of the record's own type: building one from a row of
// another type takes the fields by name (missing ones read as zero, false or empty). Getters read,
// `...Is` setters write (copy on write). operator< orders by the primary key.
// Generated field tables (kBuiltinTypes) are what the host registers, so the two cannot drift.
#pragma once

#include <Velta/BaseRow.h>

#include <cstdint>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

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
    {"oid", FieldKind::u32},
    {"typeName", FieldKind::string},
    {"type_signature", FieldKind::string},
    {"queryText", FieldKind::string},
    {"outputPath", FieldKind::string},
    {"system_description", FieldKind::u32},
    {"flags", FieldKind::u16},
    {"desiredFlags", FieldKind::u16},
    {"standing", FieldKind::boolean},
    {"features", FieldKind::u32},
    {"paramName", FieldKind::strings},
    {"paramValue", FieldKind::strings},
    {"ptime", FieldKind::u64},
};
inline constexpr const char* kExternalSubscriptionKey[] = {"system_description", "outputPath"};
inline constexpr BuiltinField kExternalPublicationFields[] = {
    {"subscription_id", FieldKind::u32},
    {"publication_id", FieldKind::u32},
    {"connection_id", FieldKind::u32},
    {"tableId", FieldKind::u32},
    {"typeId", FieldKind::u32},
    {"view_id", FieldKind::u32},
    {"status", FieldKind::boolean},
    {"error", FieldKind::string},
    {"ptime", FieldKind::u64},
};
inline constexpr const char* kExternalPublicationKey[] = {"subscription_id"};
inline constexpr BuiltinField kCtrlSubscriptionFields[] = {
    {"oid", FieldKind::u32},
    {"connection_id", FieldKind::u32},
    {"system_description", FieldKind::u32},
    {"typeName", FieldKind::string},
    {"type_signature", FieldKind::string},
    {"tableId", FieldKind::u32},
    {"features", FieldKind::u32},
    {"writer", FieldKind::boolean},
    {"ptime", FieldKind::u64},
};
inline constexpr const char* kCtrlSubscriptionKey[] = {"system_description", "connection_id", "tableId"};
inline constexpr BuiltinField kCtrlPublicationFields[] = {
    {"subscription_id", FieldKind::u32},
    {"connection_id", FieldKind::u32},
    {"system_id", FieldKind::u32},
    {"tableId", FieldKind::u32},
    {"typeId", FieldKind::u32},
    {"view_id", FieldKind::u32},
    {"status", FieldKind::boolean},
    {"error", FieldKind::string},
    {"ptime", FieldKind::u64},
};
inline constexpr const char* kCtrlPublicationKey[] = {"subscription_id"};
inline constexpr BuiltinField kVeTableFields[] = {
    {"oid", FieldKind::u32},
    {"tablePath", FieldKind::string},
    {"typeName", FieldKind::string},
    {"owner", FieldKind::string},
};
inline constexpr const char* kVeTableKey[] = {"tablePath"};
inline constexpr BuiltinField kSystemDescriptionFields[] = {
    {"oid", FieldKind::u32},
    {"sysName", FieldKind::string},
    {"agentName", FieldKind::string},
    {"properties", FieldKind::u32},
};
inline constexpr const char* kSystemDescriptionKey[] = {"oid"};
inline constexpr BuiltinField kVeClassFields[] = {
    {"name", FieldKind::string},
    {"typeId", FieldKind::u32},
    {"fields", FieldKind::strings},
};
inline constexpr const char* kVeClassKey[] = {"name"};

inline constexpr BuiltinType kBuiltinTypes[] = {
    {BuiltinRow::externalSubscription, "External::Subscription", "velta/External/Subscription", kExternalSubscriptionFields, std::size(kExternalSubscriptionFields), kExternalSubscriptionKey, std::size(kExternalSubscriptionKey)},
    {BuiltinRow::externalPublication, "External::Publication", "velta/External/Publication", kExternalPublicationFields, std::size(kExternalPublicationFields), kExternalPublicationKey, std::size(kExternalPublicationKey)},
    {BuiltinRow::ctrlSubscription, "veCtrl::subscription", "velta/veCtrl/subscription", kCtrlSubscriptionFields, std::size(kCtrlSubscriptionFields), kCtrlSubscriptionKey, std::size(kCtrlSubscriptionKey)},
    {BuiltinRow::ctrlPublication, "veCtrl::publication", "velta/veCtrl/publication", kCtrlPublicationFields, std::size(kCtrlPublicationFields), kCtrlPublicationKey, std::size(kCtrlPublicationKey)},
    {BuiltinRow::veTable, "veMetadata::veTable", "velta/metadata/veTable", kVeTableFields, std::size(kVeTableFields), kVeTableKey, std::size(kVeTableKey)},
    {BuiltinRow::systemDescription, "veMetadata::SystemDescription", "velta/metadata/SystemDescription", kSystemDescriptionFields, std::size(kSystemDescriptionFields), kSystemDescriptionKey, std::size(kSystemDescriptionKey)},
    {BuiltinRow::veClass, "veMetadata::veClass", nullptr, kVeClassFields, std::size(kVeClassFields), kVeClassKey, std::size(kVeClassKey)},
};
}  // namespace detail

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
    std::uint64_t& numberSlot(std::size_t field) { return mutableData(type()).numbers[type().fields()[field].slot]; }
    std::string& stringSlot(std::size_t field) { return mutableData(type()).strings[type().fields()[field].slot]; }
    std::vector<std::string>& listSlot(std::size_t field) { return mutableData(type()).lists[type().fields()[field].slot]; }
};

namespace External {

// "velta/External/Subscription". Primary key: system_description, outputPath.
class Subscription : public Record<BuiltinRow::externalSubscription> {
public:
    using Record::Record;
    Subscription() noexcept = default;
    std::uint32_t oid() const noexcept { return static_cast<std::uint32_t>(number(0)); }
    void oidIs(const std::uint32_t& value) { numberSlot(0) = static_cast<std::uint64_t>(value); }
    std::string typeName() const { return string(1); }
    void typeNameIs(const std::string& value) { stringSlot(1) = value; }
    std::string type_signature() const { return string(2); }
    void type_signatureIs(const std::string& value) { stringSlot(2) = value; }
    std::string queryText() const { return string(3); }
    void queryTextIs(const std::string& value) { stringSlot(3) = value; }
    std::string outputPath() const { return string(4); }
    void outputPathIs(const std::string& value) { stringSlot(4) = value; }
    std::uint32_t system_description() const noexcept { return static_cast<std::uint32_t>(number(5)); }
    void system_descriptionIs(const std::uint32_t& value) { numberSlot(5) = static_cast<std::uint64_t>(value); }
    std::uint16_t flags() const noexcept { return static_cast<std::uint16_t>(number(6)); }
    void flagsIs(const std::uint16_t& value) { numberSlot(6) = static_cast<std::uint64_t>(value); }
    std::uint16_t desiredFlags() const noexcept { return static_cast<std::uint16_t>(number(7)); }
    void desiredFlagsIs(const std::uint16_t& value) { numberSlot(7) = static_cast<std::uint64_t>(value); }
    bool standing() const noexcept { return static_cast<bool>(number(8)); }
    void standingIs(const bool& value) { numberSlot(8) = static_cast<std::uint64_t>(value); }
    std::uint32_t features() const noexcept { return static_cast<std::uint32_t>(number(9)); }
    void featuresIs(const std::uint32_t& value) { numberSlot(9) = static_cast<std::uint64_t>(value); }
    std::vector<std::string> paramName() const { return strings(10); }
    void paramNameIs(const std::vector<std::string>& value) { listSlot(10) = value; }
    std::vector<std::string> paramValue() const { return strings(11); }
    void paramValueIs(const std::vector<std::string>& value) { listSlot(11) = value; }
    std::uint64_t ptime() const noexcept { return static_cast<std::uint64_t>(number(12)); }
    void ptimeIs(const std::uint64_t& value) { numberSlot(12) = static_cast<std::uint64_t>(value); }
};

// Primary-key order; a record without data reads as its zero, false or empty key.
bool operator<(const Subscription& a, const Subscription& b) noexcept;
std::ostream& operator<<(std::ostream& os, const Subscription& row);

}  // namespace External

namespace External {

// "velta/External/Publication". Primary key: subscription_id.
class Publication : public Record<BuiltinRow::externalPublication> {
public:
    using Record::Record;
    Publication() noexcept = default;
    std::uint32_t subscription_id() const noexcept { return static_cast<std::uint32_t>(number(0)); }
    void subscription_idIs(const std::uint32_t& value) { numberSlot(0) = static_cast<std::uint64_t>(value); }
    std::uint32_t publication_id() const noexcept { return static_cast<std::uint32_t>(number(1)); }
    void publication_idIs(const std::uint32_t& value) { numberSlot(1) = static_cast<std::uint64_t>(value); }
    std::uint32_t connection_id() const noexcept { return static_cast<std::uint32_t>(number(2)); }
    void connection_idIs(const std::uint32_t& value) { numberSlot(2) = static_cast<std::uint64_t>(value); }
    std::uint32_t tableId() const noexcept { return static_cast<std::uint32_t>(number(3)); }
    void tableIdIs(const std::uint32_t& value) { numberSlot(3) = static_cast<std::uint64_t>(value); }
    std::uint32_t typeId() const noexcept { return static_cast<std::uint32_t>(number(4)); }
    void typeIdIs(const std::uint32_t& value) { numberSlot(4) = static_cast<std::uint64_t>(value); }
    std::uint32_t view_id() const noexcept { return static_cast<std::uint32_t>(number(5)); }
    void view_idIs(const std::uint32_t& value) { numberSlot(5) = static_cast<std::uint64_t>(value); }
    bool status() const noexcept { return static_cast<bool>(number(6)); }
    void statusIs(const bool& value) { numberSlot(6) = static_cast<std::uint64_t>(value); }
    std::string error() const { return string(7); }
    void errorIs(const std::string& value) { stringSlot(7) = value; }
    void errorIs(const char* value) { stringSlot(7) = value; }
    std::uint64_t ptime() const noexcept { return static_cast<std::uint64_t>(number(8)); }
    void ptimeIs(const std::uint64_t& value) { numberSlot(8) = static_cast<std::uint64_t>(value); }
};

// Primary-key order; a record without data reads as its zero, false or empty key.
bool operator<(const Publication& a, const Publication& b) noexcept;
std::ostream& operator<<(std::ostream& os, const Publication& row);

}  // namespace External

namespace veCtrl {

// "velta/veCtrl/subscription". Primary key: system_description, connection_id, tableId.
class subscription : public Record<BuiltinRow::ctrlSubscription> {
public:
    using Record::Record;
    subscription() noexcept = default;
    std::uint32_t oid() const noexcept { return static_cast<std::uint32_t>(number(0)); }
    void oidIs(const std::uint32_t& value) { numberSlot(0) = static_cast<std::uint64_t>(value); }
    std::uint32_t connection_id() const noexcept { return static_cast<std::uint32_t>(number(1)); }
    void connection_idIs(const std::uint32_t& value) { numberSlot(1) = static_cast<std::uint64_t>(value); }
    std::uint32_t system_description() const noexcept { return static_cast<std::uint32_t>(number(2)); }
    void system_descriptionIs(const std::uint32_t& value) { numberSlot(2) = static_cast<std::uint64_t>(value); }
    std::string typeName() const { return string(3); }
    void typeNameIs(const std::string& value) { stringSlot(3) = value; }
    std::string type_signature() const { return string(4); }
    void type_signatureIs(const std::string& value) { stringSlot(4) = value; }
    std::uint32_t tableId() const noexcept { return static_cast<std::uint32_t>(number(5)); }
    void tableIdIs(const std::uint32_t& value) { numberSlot(5) = static_cast<std::uint64_t>(value); }
    std::uint32_t features() const noexcept { return static_cast<std::uint32_t>(number(6)); }
    void featuresIs(const std::uint32_t& value) { numberSlot(6) = static_cast<std::uint64_t>(value); }
    bool writer() const noexcept { return static_cast<bool>(number(7)); }
    void writerIs(const bool& value) { numberSlot(7) = static_cast<std::uint64_t>(value); }
    std::uint64_t ptime() const noexcept { return static_cast<std::uint64_t>(number(8)); }
    void ptimeIs(const std::uint64_t& value) { numberSlot(8) = static_cast<std::uint64_t>(value); }
};

// Primary-key order; a record without data reads as its zero, false or empty key.
bool operator<(const subscription& a, const subscription& b) noexcept;
std::ostream& operator<<(std::ostream& os, const subscription& row);

}  // namespace veCtrl

namespace veCtrl {

// "velta/veCtrl/publication". Primary key: subscription_id.
class publication : public Record<BuiltinRow::ctrlPublication> {
public:
    using Record::Record;
    publication() noexcept = default;
    std::uint32_t subscription_id() const noexcept { return static_cast<std::uint32_t>(number(0)); }
    void subscription_idIs(const std::uint32_t& value) { numberSlot(0) = static_cast<std::uint64_t>(value); }
    std::uint32_t connection_id() const noexcept { return static_cast<std::uint32_t>(number(1)); }
    void connection_idIs(const std::uint32_t& value) { numberSlot(1) = static_cast<std::uint64_t>(value); }
    std::uint32_t system_id() const noexcept { return static_cast<std::uint32_t>(number(2)); }
    void system_idIs(const std::uint32_t& value) { numberSlot(2) = static_cast<std::uint64_t>(value); }
    std::uint32_t tableId() const noexcept { return static_cast<std::uint32_t>(number(3)); }
    void tableIdIs(const std::uint32_t& value) { numberSlot(3) = static_cast<std::uint64_t>(value); }
    std::uint32_t typeId() const noexcept { return static_cast<std::uint32_t>(number(4)); }
    void typeIdIs(const std::uint32_t& value) { numberSlot(4) = static_cast<std::uint64_t>(value); }
    std::uint32_t view_id() const noexcept { return static_cast<std::uint32_t>(number(5)); }
    void view_idIs(const std::uint32_t& value) { numberSlot(5) = static_cast<std::uint64_t>(value); }
    bool status() const noexcept { return static_cast<bool>(number(6)); }
    void statusIs(const bool& value) { numberSlot(6) = static_cast<std::uint64_t>(value); }
    std::string error() const { return string(7); }
    void errorIs(const std::string& value) { stringSlot(7) = value; }
    void errorIs(const char* value) { stringSlot(7) = value; }
    std::uint64_t ptime() const noexcept { return static_cast<std::uint64_t>(number(8)); }
    void ptimeIs(const std::uint64_t& value) { numberSlot(8) = static_cast<std::uint64_t>(value); }
    // A copy with row data of its own.
    publication clone() const {
        publication copy(*this);
        if (!copy.empty()) copy.mutableData(type());
        return copy;
    }
};

// Primary-key order; a record without data reads as its zero, false or empty key.
bool operator<(const publication& a, const publication& b) noexcept;
std::ostream& operator<<(std::ostream& os, const publication& row);

}  // namespace veCtrl

namespace veMetadata {

// "velta/metadata/veTable". Primary key: tablePath.
class veTable : public Record<BuiltinRow::veTable> {
public:
    using Record::Record;
    veTable() noexcept = default;
    std::uint32_t oid() const noexcept { return static_cast<std::uint32_t>(number(0)); }
    void oidIs(const std::uint32_t& value) { numberSlot(0) = static_cast<std::uint64_t>(value); }
    std::string tablePath() const { return string(1); }
    void tablePathIs(const std::string& value) { stringSlot(1) = value; }
    std::string typeName() const { return string(2); }
    void typeNameIs(const std::string& value) { stringSlot(2) = value; }
    std::string owner() const { return string(3); }
    void ownerIs(const std::string& value) { stringSlot(3) = value; }
};

// Primary-key order; a record without data reads as its zero, false or empty key.
bool operator<(const veTable& a, const veTable& b) noexcept;
std::ostream& operator<<(std::ostream& os, const veTable& row);

}  // namespace veMetadata

namespace veMetadata {

// "velta/metadata/SystemDescription". Primary key: oid.
class SystemDescription : public Record<BuiltinRow::systemDescription> {
public:
    using Record::Record;
    SystemDescription() noexcept = default;
    std::uint32_t oid() const noexcept { return static_cast<std::uint32_t>(number(0)); }
    void oidIs(const std::uint32_t& value) { numberSlot(0) = static_cast<std::uint64_t>(value); }
    std::string sysName() const { return string(1); }
    void sysNameIs(const std::string& value) { stringSlot(1) = value; }
    std::string agentName() const { return string(2); }
    void agentNameIs(const std::string& value) { stringSlot(2) = value; }
    std::uint32_t properties() const noexcept { return static_cast<std::uint32_t>(number(3)); }
    void propertiesIs(const std::uint32_t& value) { numberSlot(3) = static_cast<std::uint64_t>(value); }
};

// Primary-key order; a record without data reads as its zero, false or empty key.
bool operator<(const SystemDescription& a, const SystemDescription& b) noexcept;
std::ostream& operator<<(std::ostream& os, const SystemDescription& row);

}  // namespace veMetadata

namespace veMetadata {
// The host's description of a row class; see VeltaDB::veClass.
class veClass : public Record<BuiltinRow::veClass> {
public:
    using Record::Record;
    veClass() noexcept = default;
    std::string name() const { return string(0); }
    void nameIs(const std::string& value) { stringSlot(0) = value; }
    std::uint32_t typeId() const noexcept { return static_cast<std::uint32_t>(number(1)); }
    void typeIdIs(const std::uint32_t& value) { numberSlot(1) = value; }
    std::vector<std::string> fields() const { return strings(2); }
    void fieldsIs(const std::vector<std::string>& value) { listSlot(2) = value; }
};
}  // namespace veMetadata

// Primary-key comparison of two rows of the same type; a row without data reads as the other's
// type with every field zero, false or empty.
bool keyLess(const BaseRow& a, const BaseRow& b) noexcept;

}  // namespace Velta
