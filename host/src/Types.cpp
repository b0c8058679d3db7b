// The process-wide row-type registry, the built-in records' operators and row operations.
//
// Built-in types are registered first, from detail::kBuiltinTypes, with ids 1 to 7 in that order;
// user types follow. Types are never removed, so plain pointers to them stay valid for the process.
#include "HostInternal.h"

#include <Velta/Host/Database.h>
#include <Velta/Records.h>
#include <Velta/VeltaDB.h>

#include <map>
#include <mutex>
#include <ostream>
#include <set>
#include <stdexcept>

namespace Velta::Host::internal {

namespace {

// Row operations of one type (or of none: rows ordered by type id, then key) for one index. They
// implement the key-hash capability beside the interface's key comparison.
class TypeRowOps final : public RowOps, public HostCapability::KeyHashing {
public:
    TypeRowOps(const RowType* type, unsigned char index)
        : type_(type), index_(index), zero_(type != nullptr ? BaseRow(*type) : BaseRow()) {
        // A primary key of one number field compares as two loads: the common case of the
        // aggregator's owner map, where this comparison runs on every row event.
        if (type_ != nullptr && index_ == 0 && type_->keyFields().size() == 1) {
            const RowType::Field& field = type_->fields()[type_->keyFields()[0]];
            if (isNumberKind(field.kind)) {
                numberKeySlot_ = field.slot;
                numberKeyIs(type_, field.slot);
            }
        }
    }
    bool keyLess(const BaseRow& a, const BaseRow& b) const override {
        const RowData* x = a.data();
        const RowData* y = b.data();
        if (type_ != nullptr && x != nullptr && y != nullptr && x->type == type_ && y->type == type_) {
            if (numberKeySlot_ >= 0) return x->numbers[numberKeySlot_] < y->numbers[numberKeySlot_];
            return (index_ == 0 ? compareKey(*type_, *x, *y) : compareOidKey(*type_, *x, *y)) < 0;
        }
        return compareRows(a, b, index_, type_) < 0;
    }
    std::uint64_t keyHash(const BaseRow& row) const override {
        // Rows of different types never have equal keys, so each is hashed by its own type. A row
        // without data has the zero key of the operations' type.
        const RowData* x = row.data() != nullptr ? row.data() : zero_.data();
        if (x == nullptr) return 0;
        const std::uint64_t key = hashKey(*x->type, *x);
        if (index_ == 0) return key;
        const int oid = x->type->oidField();
        return oid < 0 ? key
                       : mixInto(x->numbers[x->type->fields()[static_cast<std::size_t>(oid)].slot], key);
    }

private:
    const RowType* type_;
    unsigned char index_;
    BaseRow zero_;  // of type_, every field zero, false or empty (empty without a type)
    int numberKeySlot_ = -1;
};

struct TypeRegistry {
    std::mutex mutex;
    std::map<std::string, std::unique_ptr<RowType>, std::less<>> byName;
    std::vector<const RowType*> byId;  // id - 1
    std::map<std::pair<unsigned, unsigned char>, std::shared_ptr<const RowOps>> ops;

    const RowType& add(const std::string& name, const std::vector<FieldSpec>& fields,
                       const std::vector<std::string>& keyFields) {
        std::vector<RowType::Field> list;
        list.reserve(fields.size());
        for (const FieldSpec& f : fields) list.push_back({f.name, f.kind, 0});
        std::vector<std::uint16_t> key;
        for (const std::string& k : keyFields) {
            for (std::size_t i = 0; i < fields.size(); ++i) {
                if (fields[i].name == k) key.push_back(static_cast<std::uint16_t>(i));
            }
        }
        const unsigned id = static_cast<unsigned>(byId.size() + 1);
        auto type = std::make_unique<RowType>(name, id, std::move(list), std::move(key));
        const RowType* t = type.get();
        byName.emplace(name, std::move(type));
        byId.push_back(t);
        return *t;
    }
};

// Never destroyed: agents and rows may still use types while the process exits.
TypeRegistry& registry() {
    static TypeRegistry* const r = [] {
        auto* reg = new TypeRegistry;
        for (const Velta::detail::BuiltinType& b : Velta::detail::kBuiltinTypes) {
            std::vector<FieldSpec> fields;
            for (std::size_t i = 0; i < b.fieldCount; ++i)
                fields.push_back({b.fields[i].name, b.fields[i].kind});
            std::vector<std::string> key(b.key, b.key + b.keyCount);
            reg->add(b.name, fields, key);
        }
        return reg;
    }();
    return *r;
}

bool sameDefinition(const RowType& t, const std::vector<FieldSpec>& fields,
                    const std::vector<std::string>& key) {
    if (t.fields().size() != fields.size() || t.keyFields().size() != key.size()) return false;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (t.fields()[i].name != fields[i].name || t.fields()[i].kind != fields[i].kind) return false;
    }
    for (std::size_t i = 0; i < key.size(); ++i) {
        if (t.fields()[t.keyFields()[i]].name != key[i]) return false;
    }
    return true;
}

}  // namespace

const RowType* typeById(unsigned id) {
    TypeRegistry& r = registry();
    std::lock_guard lock(r.mutex);
    return id >= 1 && id <= r.byId.size() ? r.byId[id - 1] : nullptr;
}

std::shared_ptr<const RowOps> rowOpsFor(const RowType* type, unsigned char index) {
    TypeRegistry& r = registry();
    const unsigned char idx = index == 0 ? 0 : 1;
    std::lock_guard lock(r.mutex);
    auto& slot = r.ops[{type ? type->id() : 0u, idx}];
    if (!slot) slot = std::make_shared<TypeRowOps>(type, idx);
    return slot;
}

int compareRows(const BaseRow& a, const BaseRow& b, unsigned char index, const RowType* emptyAs) noexcept {
    const RowData* x = a.data();
    const RowData* y = b.data();
    if (x == nullptr || y == nullptr) {
        if (x == y) return 0;
        if (emptyAs == nullptr) return x != nullptr ? 1 : -1;
        // The row with data against the zero key of emptyAs, which is the least key of that type.
        const RowData* d = x != nullptr ? x : y;
        int c;
        if (d->type != emptyAs)
            c = d->type->id() < emptyAs->id() ? -1 : 1;
        else
            c = keyIsZero(*emptyAs, *d, index) ? 0 : 1;
        return x != nullptr ? c : -c;
    }
    if (x->type != y->type) return x->type->id() < y->type->id() ? -1 : 1;
    return index == 0 ? compareKey(*x->type, *x, *y) : compareOidKey(*x->type, *x, *y);
}

}  // namespace Velta::Host::internal

namespace Velta::Host {

const RowType& defineRowType(const std::string& name, const std::vector<FieldSpec>& fields,
                             const std::vector<std::string>& keyFields) {
    if (name.empty()) throw std::invalid_argument("row type name is empty");
    if (fields.size() > kMaxRowTypeFields)
        throw std::invalid_argument("row type " + name + ": more than " + std::to_string(kMaxRowTypeFields) +
                                    " fields");
    std::set<std::string, std::less<>> names;
    for (const FieldSpec& f : fields) {
        if (f.name.empty()) throw std::invalid_argument("row type " + name + ": empty field name");
        if (!names.insert(f.name).second)
            throw std::invalid_argument("row type " + name + ": duplicate field " + f.name);
    }
    std::set<std::string, std::less<>> keys;
    for (const std::string& k : keyFields) {
        if (names.count(k) == 0)
            throw std::invalid_argument("row type " + name + ": key field " + k + " is no field");
        if (!keys.insert(k).second)
            throw std::invalid_argument("row type " + name + ": key field " + k + " twice");
    }
    auto& r = internal::registry();
    std::lock_guard lock(r.mutex);
    if (auto it = r.byName.find(name); it != r.byName.end()) {
        if (!internal::sameDefinition(*it->second, fields, keyFields))
            throw std::invalid_argument("row type " + name + " is already defined differently");
        return *it->second;
    }
    if (r.byId.size() + 1 >= VeltaDB::kUnknownTypeId) throw std::invalid_argument("too many row types");
    return r.add(name, fields, keyFields);
}

const RowType* findRowType(const std::string& name) {
    auto& r = internal::registry();
    std::lock_guard lock(r.mutex);
    auto it = r.byName.find(name);
    return it == r.byName.end() ? nullptr : it->second.get();
}

std::optional<FieldKind> parseFieldKind(const std::string& text) {
    static const std::pair<const char*, FieldKind> kinds[] = {
        {"u16", FieldKind::u16},      {"u32", FieldKind::u32},       {"u64", FieldKind::u64},
        {"bool", FieldKind::boolean}, {"string", FieldKind::string}, {"strings", FieldKind::strings},
    };
    for (const auto& [n, k] : kinds) {
        if (text == n) return k;
    }
    return std::nullopt;
}

}  // namespace Velta::Host

namespace Velta {

const RowType& builtinRowType(BuiltinRow which) {
    const RowType* t = Host::internal::typeById(static_cast<unsigned>(which) + 1);
    KESTO_ASSERT(t != nullptr, __FILE__, __LINE__, __PRETTY_FUNCTION__);
    return *t;
}

bool keyLess(const BaseRow& a, const BaseRow& b) noexcept {
    return Host::internal::compareRows(a, b, 0, a.empty() ? b.rowType() : a.rowType()) < 0;
}

BaseRow VeltaDB::veClass(const std::string& name) {
    const RowType* t = Host::findRowType(name);
    if (t == nullptr) return BaseRow();
    veMetadata::veClass row;
    row.nameIs(t->name());
    row.typeIdIs(t->id());
    std::vector<std::string> fields;
    fields.reserve(t->fields().size());
    for (const RowType::Field& f : t->fields()) fields.push_back(f.name + ":" + fieldKindName(f.kind));
    row.fieldsIs(fields);
    return row;
}

namespace External {
std::ostream& operator<<(std::ostream& os, const Subscription& row) { return os << row.toString(); }
std::ostream& operator<<(std::ostream& os, const Publication& row) { return os << row.toString(); }
}  // namespace External

namespace veCtrl {
std::ostream& operator<<(std::ostream& os, const subscription& row) { return os << row.toString(); }
std::ostream& operator<<(std::ostream& os, const publication& row) { return os << row.toString(); }
}  // namespace veCtrl

namespace veMetadata {
std::ostream& operator<<(std::ostream& os, const veTable& row) { return os << row.toString(); }
std::ostream& operator<<(std::ostream& os, const SystemDescription& row) { return os << row.toString(); }
}  // namespace veMetadata

}  // namespace Velta
