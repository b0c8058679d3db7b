// The database as one agent sees it, and the host's row operations.
#pragma once

#include <Velta/BaseRow.h>
#include <Velta/KeyHashIndex.h>
#include <Velta/Records.h>
#include <Velta/VeTableInterface.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

namespace Velta {

// Identity of a row (`oid`) or of a subscription on the host side.
using oid_t = std::uint32_t;

// The kind of a registered table. The translator passes 0 for a standing subscription's output
// and 1 for a one-shot one.
enum class TableType : unsigned char { standing = 0, oneShot = 1 };

// Operations on rows of one type for one index.
class RowOps {
public:
    virtual ~RowOps() = default;
    // True when `a`'s key in this index is ordered before `b`'s.
    virtual bool keyLess(const BaseRow& a, const BaseRow& b) const = 0;
    // A hash of `row`'s key in this index: rows with equal keys (neither ordered before the
    // other) hash equal. A row of numberKeyType() hashes to mixKey of its key number.
    virtual std::uint64_t keyHash(const BaseRow& row) const = 0;

    // Inline shortcut of keyLess for a key of one number field: when not null, two rows whose data
    // are both of this type are ordered by their number in slot numberKeySlot() alone, exactly as
    // keyLess orders them. Null when the operations declare no such shortcut.
    const RowType* numberKeyType() const noexcept { return numberKeyType_; }
    std::size_t numberKeySlot() const noexcept { return numberKeySlot_; }

protected:
    // Declares the shortcut; only for operations whose keyLess orders rows of `type` that way.
    void numberKeyIs(const RowType* type, std::size_t slot) noexcept {
        numberKeyType_ = type;
        numberKeySlot_ = slot;
    }

private:
    const RowType* numberKeyType_ = nullptr;
    std::size_t numberKeySlot_ = 0;
};

// Orders rows by the key of the index its RowOps were made for.
class RowOpsKeyLess {
public:
    explicit RowOpsKeyLess(std::shared_ptr<const RowOps> ops) noexcept
        : ops_(std::move(ops)),
          numberKeyType_(ops_ ? ops_->numberKeyType() : nullptr),
          numberKeySlot_(ops_ ? ops_->numberKeySlot() : 0) {}
    bool operator()(const BaseRow& a, const BaseRow& b) const {
        // Ordered maps compare on every tree level: skip the virtual call where the operations
        // allow it.
        const RowData* x = a.data();
        const RowData* y = b.data();
        if (numberKeyType_ != nullptr && x != nullptr && y != nullptr && x->type == numberKeyType_ &&
            y->type == numberKeyType_)
            return x->numbers[numberKeySlot_] < y->numbers[numberKeySlot_];
        return ops_->keyLess(a, b);
    }
    // The key hash of `row` (RowOps::keyHash), inline for a number key.
    std::uint64_t hash(const BaseRow& row) const {
        return hashExact(row) ? mixKey(row.data()->numbers[numberKeySlot_]) : ops_->keyHash(row);
    }
    // True when hash(row) is a bijection of the key among rows of `row`'s type, so that two such
    // rows with equal hashes have equal keys.
    bool hashExact(const BaseRow& row) const noexcept {
        const RowData* x = row.data();
        return numberKeyType_ != nullptr && x != nullptr && x->type == numberKeyType_;
    }
    const std::shared_ptr<const RowOps>& ops() const noexcept { return ops_; }

private:
    std::shared_ptr<const RowOps> ops_;
    const RowType* numberKeyType_;
    std::size_t numberKeySlot_;
};

class VeltaDB {
public:
    using p_t = std::shared_ptr<VeltaDB>;
    // Completion of a defined query: ok, the host's query id, error text.
    using QueryCompletion = std::function<void(bool, unsigned, const std::string&)>;
    using QueryParams = std::unordered_map<std::string, std::string>;

    virtual ~VeltaDB() = default;

    virtual std::string agentName() const = 0;
    virtual std::string systemName() const = 0;
    virtual bool isServerAgent() const = 0;
    virtual bool external() const = 0;
    virtual bool standalone() const = 0;
    // True in the server process.
    static bool server();

    // Attaches `iface` to the table at `path`, creating the table (of the interface's row type)
    // when there is none. The interface becomes ready later; an observer only once it is also
    // client-ready.
    virtual void bindInterface(VeTableInterface& iface, const std::string& path, bool flag) = 0;
    // Asks for a table at `path`. Visible at once in the server agent, one loop turn later
    // elsewhere. A path that exists or is on its way is left as it is.
    virtual void registerTable(const std::string& path, const std::string& typeName, TableType type,
                               unsigned short desiredFlags, unsigned short flags,
                               const std::string& owner) = 0;
    // Defines a query; `done` is called later from the host's loop with the outcome.
    virtual void defineQuery(const std::string& text, unsigned typeId, const QueryParams& params,
                             QueryCompletion done, bool standing, const std::string& name) = 0;
    virtual void removeQuery(const std::string& name) = 0;
    // The table's metadata row; an empty row for an unknown table.
    virtual veMetadata::veTable tableInfo(const std::string& path) const = 0;
    virtual veMetadata::veTable tableInfo(unsigned oid) const = 0;
    // The id of a row type; 65535 for an unknown name.
    virtual unsigned tableTypeId(const std::string& typeName, bool flag) const = 0;
    // Row operations for an index of a type. Never null: rows of an unknown type, or of two
    // different types, are ordered by type id and then by their own primary keys.
    virtual std::shared_ptr<const RowOps> getRowOps(const std::string& typeName, unsigned char index) const = 0;
    // The host's description of a row class; an empty row for an unknown class.
    static BaseRow veClass(const std::string& name);
};

}  // namespace Velta
