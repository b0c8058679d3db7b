// The database as one agent sees it, and the host's row operations.
#pragma once

#include <Velta/BaseRow.h>
#include <Velta/Records.h>
#include <Velta/VeTableInterface.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

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
};

// Orders rows by the key of the index its RowOps were made for.
class RowOpsKeyLess {
public:
    explicit RowOpsKeyLess(std::shared_ptr<const RowOps> ops) noexcept : ops_(std::move(ops)) {}
    bool operator()(const BaseRow& a, const BaseRow& b) const { return ops_->keyLess(a, b); }
    const std::shared_ptr<const RowOps>& ops() const noexcept { return ops_; }

private:
    std::shared_ptr<const RowOps> ops_;
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
    // when there is none. The host then reports the interface ready (an observer only once it is
    // also client-ready) and delivers an observer's changes.
    virtual void bindInterface(VeTableInterface& iface, const std::string& path, bool flag) = 0;
    // Asks for a table at `path`. In the server agent the table is visible at once; elsewhere it
    // becomes visible, its metadata row reaching the metadata table's observers, when the host
    // chooses. What the host does with a path that exists is its own choice.
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
    // What tableTypeId answers for a type name the host does not know.
    static constexpr unsigned kUnknownTypeId = 65535;
    // The id of a row type; kUnknownTypeId for an unknown name.
    virtual unsigned tableTypeId(const std::string& typeName, bool flag) const = 0;
    // Row operations for an index of a type the host knows; their key comparison orders rows of that
    // type so that equal primary keys, and only they, are equivalent. Any order beyond that, and
    // what it gives for a type it does not know, is the host's.
    virtual std::shared_ptr<const RowOps> getRowOps(const std::string& typeName,
                                                    unsigned char index) const = 0;
    // The host's description of a row class; an empty row for an unknown class.
    static BaseRow veClass(const std::string& name);
};

}  // namespace Velta
