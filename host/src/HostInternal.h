// Internals of the in-memory host shared by its source files: the row-type registry, table state
// with its two indexes, attachments of interfaces, the event queue and the database core.
//
// Invariants:
// - Every row stored in a table has the table's row type.
// - Index 0 holds the nodes (ordered by primary key); index 1 holds pointers to the same nodes
//   (ordered by oid, read from the node's row, then primary key). A replace that keeps the oid
//   assigns the node's row in place and leaves index 1 alone.
// - byKey_ holds one entry per index-0 node, keyed by the hash of its primary key, so exact-key
//   lookups (reads, replaces, deletions) probe it instead of walking the tree; only an insertion
//   or an ordered walk uses the tree.
// - Index nodes live in the table's NodePool: one cache line per node, so a lookup touches one
//   line per tree level (nodes carry only the row and its key prefix for that reason).
// - A table's version counter of an index changes on every structural change of that index
//   (insert, erase, clear); an iterator whose saved version differs re-seeks by its row's key.
// - A queued event names a live attachment: detaching removes the attachment's events first.
// - One Database is used from one thread at a time; the type registry and the debug channels are
//   process-wide and locked.
#pragma once

#include "KeyHashIndex.h"
#include "NodePool.h"
#include "RowKeys.h"

#include <Velta/BaseRow.h>
#include <Velta/Host/Database.h>
#include <Velta/Records.h>
#include <Velta/VeTableInterface.h>
#include <Velta/VeltaDB.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Velta::Host::internal {

// Unknown type name answer of tableTypeId.
inline constexpr unsigned kUnknownTypeId = 65535;

// The registry's view for the rest of the host. Lookups lock; the returned types live forever.
const RowType* typeById(unsigned id);
// Cached row operations for (type, index); `type` may be null (rows ordered by type id, then key).
std::shared_ptr<const RowOps> rowOpsFor(const RowType* type, unsigned char index);

// Order of two rows in `index`: rows of one type by their keys, rows of different types by type
// id. A row without data reads as a row of `emptyAs` whose every field is zero, false or empty; with
// `emptyAs` null it comes before every row with data.
int compareRows(const BaseRow& a, const BaseRow& b, unsigned char index, const RowType* emptyAs) noexcept;

}  // namespace Velta::Host::internal

namespace Velta::detail {

// One row in a table: the index-0 node holding the row, the inline parts of its keys (so that
// most comparisons stay inside the tree node) and its index-1 position.
struct TableNode;

// What a lookup compares: row data of the table's type with the inline parts of its keys.
struct KeyProbe {
    const RowData* data;
    std::uint64_t prefix;  // order-preserving projection of the first key field
    std::uint64_t oid;
};

// Looks up index 1 by oid alone.
struct OidProbe {
    std::uint64_t oid;
};

struct PrimaryLess {
    using is_transparent = void;
    const RowType* type;
    bool prefixIsKey;  // the key is one number field: equal prefixes are equal keys
    bool less(std::uint64_t pa, const RowData& a, std::uint64_t pb, const RowData& b) const noexcept {
        if (pa != pb) return pa < pb;
        return !prefixIsKey && Host::internal::compareKey(*type, a, b) < 0;
    }
    inline bool operator()(const TableNode& a, const TableNode& b) const noexcept;
    inline bool operator()(const TableNode& a, const KeyProbe& b) const noexcept;
    inline bool operator()(const KeyProbe& a, const TableNode& b) const noexcept;
};

struct OidLess {
    using is_transparent = void;
    const RowType* type;
    bool prefixIsKey;
    std::uint16_t oidSlot;  // of the type's oid field (unused for types without one)
    std::uint64_t oidOf(const TableNode* n) const noexcept;
    bool less(std::uint64_t oa, std::uint64_t pa, const RowData& a, std::uint64_t ob, std::uint64_t pb,
              const RowData& b) const noexcept {
        if (oa != ob) return oa < ob;
        if (pa != pb) return pa < pb;
        return !prefixIsKey && Host::internal::compareKey(*type, a, b) < 0;
    }
    inline bool operator()(const TableNode* a, const TableNode* b) const noexcept;
    inline bool operator()(const TableNode* a, const KeyProbe& b) const noexcept;
    inline bool operator()(const KeyProbe& a, const TableNode* b) const noexcept;
    inline bool operator()(const TableNode* a, OidProbe b) const noexcept;
    inline bool operator()(OidProbe a, const TableNode* b) const noexcept;
};

using OidIndex = std::set<const TableNode*, OidLess, Host::internal::NodeAllocator<const TableNode*>>;

struct TableNode {
    TableNode(BaseRow r, std::uint64_t keyPrefix) : row(std::move(r)), prefix(keyPrefix) {}
    mutable BaseRow row;
    std::uint64_t prefix;  // the key never changes while the node lives
};

using PrimaryIndex = std::set<TableNode, PrimaryLess, Host::internal::NodeAllocator<TableNode>>;

inline bool PrimaryLess::operator()(const TableNode& a, const TableNode& b) const noexcept {
    return less(a.prefix, *a.row.data(), b.prefix, *b.row.data());
}
inline bool PrimaryLess::operator()(const TableNode& a, const KeyProbe& b) const noexcept {
    return less(a.prefix, *a.row.data(), b.prefix, *b.data);
}
inline bool PrimaryLess::operator()(const KeyProbe& a, const TableNode& b) const noexcept {
    return less(a.prefix, *a.data, b.prefix, *b.row.data());
}
inline std::uint64_t OidLess::oidOf(const TableNode* n) const noexcept { return n->row.data()->numbers[oidSlot]; }
inline bool OidLess::operator()(const TableNode* a, const TableNode* b) const noexcept {
    return less(oidOf(a), a->prefix, *a->row.data(), oidOf(b), b->prefix, *b->row.data());
}
inline bool OidLess::operator()(const TableNode* a, const KeyProbe& b) const noexcept {
    return less(oidOf(a), a->prefix, *a->row.data(), b.oid, b.prefix, *b.data);
}
inline bool OidLess::operator()(const KeyProbe& a, const TableNode* b) const noexcept {
    return less(a.oid, a.prefix, *a.data, oidOf(b), b->prefix, *b->row.data());
}
inline bool OidLess::operator()(const TableNode* a, OidProbe b) const noexcept { return oidOf(a) < b.oid; }
inline bool OidLess::operator()(OidProbe a, const TableNode* b) const noexcept { return a.oid < oidOf(b); }

static_assert(sizeof(TableNode) + 4 * sizeof(void*) <= Host::internal::NodePool::kSlot, "an index-0 node must fit a pool slot");

static_assert(sizeof(PrimaryIndex::const_iterator) <= sizeof(void*) &&
                  std::is_trivially_copyable_v<PrimaryIndex::const_iterator>,
              "an index position must fit the iterator's node buffer");
static_assert(sizeof(OidIndex::const_iterator) <= sizeof(void*) &&
                  std::is_trivially_copyable_v<OidIndex::const_iterator>,
              "an index position must fit the iterator's node buffer");

// One table: its rows in both indexes. Shared with iterators, which may outlive the table (a
// dropped table is emptied and stays empty). A type without an oid field has index 1 in the
// order of index 0, so such a table keeps no second tree and index 1 requests use index 0.
class TableState {
public:
    TableState(const RowType& type, std::string path);

    const RowType& type() const noexcept { return *type_; }
    const std::string& path() const noexcept { return path_; }
    std::size_t size() const noexcept { return primary_.size(); }
    std::uint64_t version(unsigned char index) const noexcept { return version_[index == 0 ? 0 : 1]; }
    // The index that serves requests for `index`.
    unsigned char effectiveIndex(unsigned char index) const noexcept { return index != 0 && hasOid_ ? 1 : 0; }
    // The probe of a row of the table's type.
    KeyProbe probe(const BaseRow& row) const noexcept { return probe(*row.data()); }
    KeyProbe probe(const RowData& data) const noexcept;

    // True when the oid field is part of the primary key.
    bool oidInKey() const noexcept { return oidInKey_; }

    // The row with `key`'s primary key (key of the table's type), or nullptr.
    const TableNode* findPrimary(const BaseRow& key) const;
    // The index-0 position of `key`'s primary key (key of the table's type), or the end.
    PrimaryIndex::const_iterator findPos(const BaseRow& key) const;
    // The first row whose key in `index` equals `key`'s (index 1: the first with its oid).
    const TableNode* findIn(const BaseRow& key, unsigned char index) const;
    // Index 1's first entry with `key`'s oid, or its end (tables with an oid only).
    OidIndex::const_iterator findOid(const BaseRow& key) const;
    // Where `key` (of the table's type) is or would go in index 0.
    struct Spot {
        PrimaryIndex::const_iterator pos;
        bool exists;
        std::uint64_t hash;  // of the key
    };
    Spot locate(const BaseRow& key) const;
    // Stores `row` (of the table's type, final oid) at a located spot: assigns in place when the
    // key exists, inserts otherwise. Touches index 1 only when the row is new or its oid changed.
    const TableNode& put(Spot spot, BaseRow row);
    // Removes the row with `key`'s primary key and returns it (empty when absent).
    BaseRow remove(const BaseRow& key);
    // Removes everything (the table is being dropped).
    void clear();

    PrimaryIndex& primary() noexcept { return primary_; }
    const PrimaryIndex& primary() const noexcept { return primary_; }
    const OidIndex& byOid() const noexcept { return byOid_; }

private:
    const RowType* type_;
    std::string path_;
    std::shared_ptr<Host::internal::NodePool> nodes_;  // declared before the indexes, which hold it too
    PrimaryIndex primary_;
    OidIndex byOid_;
    using KeyEntry = Host::internal::KeyHashIndex<PrimaryIndex::const_iterator>::Entry;
    // byKey_'s entry for `key` (of the table's type, hashing to `hash`), or null.
    const KeyEntry* entryFor(const RowData& key, std::uint64_t hash) const;

    Host::internal::KeyHashIndex<PrimaryIndex::const_iterator> byKey_;
    bool hashExact_;
    std::uint64_t version_[2] = {1, 1};
    bool oidInKey_ = false;
    bool hasOid_ = false;
    bool hasPrefix_ = false;
    FieldKind prefixKind_ = FieldKind::u64;
    std::uint16_t prefixSlot_ = 0;
    std::uint16_t oidSlot_ = 0;
};

struct Slot;

// One interface bound to one path. Owned by the interface; keeps its database alive.
class Attachment {
public:
    std::shared_ptr<Host::Database> database;  // lifetime only
    Host::Database::Impl* impl = nullptr;
    Slot* slot = nullptr;
    VeTableInterface* iface = nullptr;
    std::uint64_t id = 0;
    std::size_t queued = 0;   // events waiting in the queue for this attachment
    bool readyQueued = false;
    bool observing = false;
    std::string agentName;  // owner of a table this interface creates
};

// A table path: the table (when it exists) and the interfaces bound to the path.
struct Slot {
    std::string path;
    std::shared_ptr<TableState> table;
    std::vector<Attachment*> attachments;
    std::vector<Attachment*> observers;  // observing attachments whose ready was queued
    bool controlSubscriptions = false;    // "velta/veCtrl/subscription" (control publications)
};

// Private access to the interface and iterator members.
struct HostAccess {
    static std::shared_ptr<Attachment>& attachment(VeTableInterface& i) { return i.attachment_; }
    static const std::shared_ptr<Attachment>& attachment(const VeTableInterface& i) { return i.attachment_; }
    static void bound(VeTableInterface& i, const std::string& path, bool flag, std::uint64_t value) {
        i.tablePath_ = path;
        i.bindFlag_ = flag;
        i.attachmentValue_ = value;
        i.ready_ = false;
    }
    static void unbound(VeTableInterface& i) {
        i.attachmentValue_ = 0;
        i.ready_ = false;
    }
    static void readyIs(VeTableInterface& i) { i.ready_ = true; }
    static const VeTableInterface::ReadyCallback& onReady(const VeTableInterface& i) { return i.onReady_; }
    static const VeTableInterface::RowCallback& onRow(const VeTableInterface& i) { return i.onRow_; }
    static const VeTableInterface::RowCallback& onDelete(const VeTableInterface& i) { return i.onDelete_; }

    // Iterator construction at a node of one index (or at the end when `node` is null).
    static VeRowIterator primaryAt(const std::shared_ptr<TableState>& table, PrimaryIndex::const_iterator pos);
    static const std::shared_ptr<TableState>& table(const VeRowIterator& it) { return it.table_; }
    static VeRowIterator oidAt(const std::shared_ptr<TableState>& table, OidIndex::const_iterator pos);
};

}  // namespace Velta::detail

namespace Velta::Host {

// A unit of host work on the queue (a registration arriving, a query completing, ...).
struct HostTask {
    std::string what;  // for listeners
    std::function<void()> run;
};

// One queued delivery.
struct QueuedEvent {
    enum class Kind : std::uint8_t { ready, row, rowDelete, task };
    Velta::detail::Attachment* att = nullptr;  // null for a task
    Kind kind = Kind::task;
    BaseRow row;
    std::unique_ptr<HostTask> task;
};

// FIFO ring buffer of events; no allocation once it has grown to the working size. Entries outside
// the live range are empty (no row, no task), so appending only fills in fields.
class EventQueue {
public:
    bool empty() const noexcept { return size_ == 0; }
    std::size_t size() const noexcept { return size_; }
    void push(QueuedEvent&& e);
    // Appends a row delivery in place (no temporary event to move).
    void pushRow(Velta::detail::Attachment* att, QueuedEvent::Kind kind, const BaseRow& row) {
        QueuedEvent& e = append();
        e.att = att;
        e.kind = kind;
        e.row = row;
    }
    QueuedEvent& at(std::size_t i) noexcept { return buf_[(head_ + i) & (buf_.size() - 1)]; }
    // Removes and returns the entry at position i (0 = oldest), keeping the order of the rest.
    QueuedEvent take(std::size_t i);
    // Removes every entry for which `pred` is true, keeping the order of the rest.
    template <class Pred>
    void removeIf(Pred pred);
    void clear();

private:
    // The new last entry, empty (every entry past the live ones is empty).
    QueuedEvent& append() {
        if (size_ == buf_.size()) grow();
        return buf_[(head_ + size_++) & (buf_.size() - 1)];
    }
    void grow();

    std::vector<QueuedEvent> buf_;
    std::size_t head_ = 0;
    std::size_t size_ = 0;
};

template <class Pred>
void EventQueue::removeIf(Pred pred) {
    std::size_t out = 0;
    for (std::size_t i = 0; i < size_; ++i) {
        QueuedEvent& e = at(i);
        if (pred(e)) continue;
        if (out != i) at(out) = std::move(e);
        ++out;
    }
    for (std::size_t i = out; i < size_; ++i) at(i) = QueuedEvent{};
    size_ = out;
}

class AgentHandle;

class Database::Impl {
public:
    Impl(Database& owner, Options options);
    ~Impl();

    Database& owner;
    Options options;

    // --- tables
    Velta::detail::Slot& slotFor(const std::string& path);
    Velta::detail::Slot* findSlot(const std::string& path) noexcept;
    const Velta::detail::Slot* findSlot(const std::string& path) const noexcept;
    // Creates the table and its metadata row; returns false when it exists already.
    bool createTable(Velta::detail::Slot& slot, const RowType& type, const std::string& owner, unsigned oid);
    // Writes the metadata row of an existing table again when a client removed it (or the whole
    // metadata table), so a server agent's registration always leaves the row visible.
    void restoreMetadataRow(Velta::detail::Slot& slot, const std::string& owner);
    bool dropTable(const std::string& path);
    void eraseSlotIfUnused(Velta::detail::Slot& slot);
    // Inserts or replaces `row` (oid written back into it) in the slot's table; returns the
    // stored row. The table must exist.
    const BaseRow& writeRow(Velta::detail::Slot& slot, BaseRow& row);
    // Deletes by primary key; false when there was no such row (or no table).
    bool eraseRow(Velta::detail::Slot& slot, const BaseRow& key);

    // --- interfaces
    void bind(VeTableInterface& iface, const std::string& path, bool flag, const std::string& agentName);
    void detach(Velta::detail::Attachment& att);
    void considerReady(Velta::detail::Attachment& att);

    // --- queue
    void queueTask(std::string what, std::function<void()> run);
    bool runOne();
    void handleGone(std::uint64_t handle);

    // --- host calls
    void logCall(HostCall call);
    void registerTable(const AgentHandle& handle, const std::string& path, const std::string& typeName,
                       TableType type, unsigned short desiredFlags, unsigned short flags,
                       const std::string& ownerName);
    void defineQuery(const AgentHandle& handle, const std::string& text, unsigned typeId,
                     const VeltaDB::QueryParams& params, VeltaDB::QueryCompletion done, bool standing,
                     const std::string& name);
    void removeQuery(const AgentHandle& handle, const std::string& name);
    bool completeQuery(const std::string& text, bool ok, const std::string& error);
    veMetadata::veTable tableInfo(const std::string& path) const;
    veMetadata::veTable tableInfo(unsigned oid) const;
    // The row with `key`'s key in `index` of the table at `path`, or an empty row.
    BaseRow lookup(const std::string& path, const BaseRow& key, unsigned char index) const;

    std::uint64_t newHandleId() noexcept { return ++handleIds_; }

    // State shared with the Database facade.
    std::map<std::string, Velta::detail::Slot, std::less<>> slots;
    EventQueue queue;
    std::vector<HostCall> calls;
    std::vector<QueryInfo> queries;
    EventListener* listener = nullptr;
    std::uint64_t clock = 0;
    bool settled = true;
    bool delivering = false;  // a callback is running: running the loop from it does nothing

private:
    void notify(Velta::detail::Slot& slot, QueuedEvent::Kind kind, const BaseRow& row);
    void push(QueuedEvent&& e);
    void deliver(QueuedEvent& e);
    void controlSubscriptionAdded(const BaseRow& row);
    void controlSubscriptionRemoved(const BaseRow& row);
    // Records the outcome of query `index` and calls its completion unless its handle is gone.
    void finishQuery(std::size_t index, bool ok, const std::string& error);

    struct PendingCompletion {
        std::uint64_t handle;
        VeltaDB::QueryCompletion done;
    };

    std::uint64_t nextOid_ = 0;
    std::uint64_t attachIds_ = 0;
    std::uint64_t handleIds_ = 0;
    unsigned queryIds_ = 0;
    std::set<std::string, std::less<>> inFlight_;  // registrations on their way
    std::map<std::size_t, PendingCompletion> completions_;  // by index in queries
    std::vector<bool> completionQueued_;                     // by index in queries
    std::mt19937_64 shuffle_;
};

// One agent's handle on a database.
class AgentHandle final : public VeltaDB {
public:
    AgentHandle(std::shared_ptr<Database> db, AgentOptions options);
    ~AgentHandle() override;

    std::string agentName() const override { return options_.agentName; }
    std::string systemName() const override { return options_.systemName; }
    bool isServerAgent() const override { return options_.serverAgent; }
    bool external() const override { return options_.external; }
    bool standalone() const override { return options_.standalone; }
    void bindInterface(VeTableInterface& iface, const std::string& path, bool flag) override;
    void registerTable(const std::string& path, const std::string& typeName, TableType type,
                       unsigned short desiredFlags, unsigned short flags, const std::string& owner) override;
    void defineQuery(const std::string& text, unsigned typeId, const QueryParams& params, QueryCompletion done,
                     bool standing, const std::string& name) override;
    void removeQuery(const std::string& name) override;
    veMetadata::veTable tableInfo(const std::string& path) const override;
    veMetadata::veTable tableInfo(unsigned oid) const override;
    unsigned tableTypeId(const std::string& typeName, bool flag) const override;
    std::shared_ptr<const RowOps> getRowOps(const std::string& typeName, unsigned char index) const override;

    const AgentOptions& options() const noexcept { return options_; }
    std::uint64_t id() const noexcept { return id_; }

private:
    std::shared_ptr<Database> db_;
    Database::Impl* impl_;
    AgentOptions options_;
    std::uint64_t id_;
};

}  // namespace Velta::Host
