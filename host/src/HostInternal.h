// Internals of the in-memory host shared by its source files: the row-type registry, table state
// with its indexes, attachments of interfaces, the event queue and the database core.
//
// Invariants:
// - Every row stored in a table has the table's row type.
// - A table's rows live in its hash index (rows_), one entry per key holding the key's hash and
//   the row, so reads, replaces and deletions by key find the row in one probe and never read a
//   tree. The ordered indexes hold keys, not rows: index 0 one OrderKey per row (ordered by
//   primary key), index 1 one OidKey per row (ordered by oid, then primary key). Their entries
//   change only when a key comes or goes, or (index 1) when a replace changes the oid; ordered
//   walks find each entry's current row through the hash index.
// - An OrderKey of a key that is not one number field holds one reference to the first row
//   stored under the key, its key object; the OidKey of the same row borrows it.
// - A table's change count changes on every write, deletion and clear. An iterator whose saved
//   count is the table's stands on a valid ordered-index position, shows the table's row and holds
//   the table's rows in its read-ahead (plain pointers: the table holds them); otherwise it re-seeks
//   by its row's key and drops its read-ahead unread.
// - A row replaced in a table is released by the table's RetiredRows at most sixteen
//   replacements later; nothing but the moment its data is freed depends on that.
// - A write that tells its writer nothing (a type without an oid field) may wait in its table's
//   pending writes, its events already queued and its listener told; every TableState accessor
//   stores the pending writes first, so no reader, position or change count sees the table
//   without them.
// - A lookahead hook is called only for an event in the queue, never from inside a delivery or a
//   host call, and only prefetches (Velta/HostCapability/Lookahead.h).
// - A queued event names a live attachment: detaching removes the attachment's events first.
// - One Database is used from one thread at a time; the type registry and the debug channels are
//   process-wide and locked.
#pragma once

#include "RowKeys.h"

#include <absl/container/btree_set.h>
#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <absl/container/node_hash_map.h>

#include <Velta/BaseRow.h>
#include <Velta/Host/Database.h>
#include <Velta/HostCapability/Lookahead.h>
#include <Velta/Records.h>
#include <Velta/VeTableInterface.h>
#include <Velta/VeltaDB.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Velta::Host::internal {

// Whether a setter on a row whose data is shared copies it first (Database::copyOnWriteIs).
extern std::atomic<bool> copyOnWrite;

// Fetches the cache line at `p` into the cache; `p` may be null or stale (a prefetch never faults).
// An instruction the compiler must keep: GCC 12 deletes a __builtin_prefetch whose address comes
// from a loop it finds free of side effects, such as a probe.
inline void prefetchLine(const void* p) noexcept {
#if defined(__x86_64__) || defined(__i386__)
    asm volatile("prefetcht0 (%0)" : : "r"(p));
#else
    __builtin_prefetch(p);
#endif
}

// Appends `text` with its line breaks written as \\n and \\r: a client's text in a line of output
// (a trace, a host call) must not break it.
void appendOneLine(std::string& out, std::string_view text);

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

// Host-side construction of row values from row data.
class RowRef : public BaseRow {
public:
    // A row sharing `data` (one more reference); empty for null.
    static BaseRow share(const RowData* data) noexcept {
        RowRef r;
        r.data_ = const_cast<RowData*>(data);
        if (data != nullptr) ++r.data_->refs;
        return BaseRow(std::move(r));
    }
    // A row taking over one reference to `data` that the caller holds; empty for null.
    static BaseRow adopt(RowData* data) noexcept {
        RowRef r;
        r.data_ = data;
        return BaseRow(std::move(r));
    }
};

// One more reference to `data` (not null), and dropping one.
inline RowData* retainRow(const RowData* data) noexcept {
    auto* d = const_cast<RowData*>(data);
    ++d->refs;
    return d;
}
inline void releaseRow(RowData* data) noexcept {
    if (--data->refs == 0) RowData::destroy(data);
}

// An index-0 entry: what orders one key. It stays as it is while the key is in the table, however
// often the row is replaced, so a replace never touches the ordered indexes.
struct OrderKey {
    std::uint64_t prefix;  // the key's prefix (KeyLayout::prefix; for a key of one number field, the
                           // key itself)
    const RowData* key;    // null for a key of one number field; otherwise the first row stored
                           // under the key (a reference the table holds), read for its key only
};

// An index-1 entry: the row's oid and its key's index-0 entry.
struct OidKey {
    std::uint64_t oid;
    OrderKey key;
};

// What a lookup in the ordered indexes compares: row data of the table's type with the inline
// parts of its keys.
struct KeyProbe {
    const RowData* data;
    std::uint64_t prefix;
    std::uint64_t oid;
};

// Looks up index 1 by oid alone.
struct OidProbe {
    std::uint64_t oid;
};

struct PrimaryLess {
    using is_transparent = void;
    const Host::internal::KeyLayout* layout;
    bool prefixIsKey;  // the key is one number field: equal prefixes are equal keys
    bool less(std::uint64_t pa, const RowData* a, std::uint64_t pb, const RowData* b) const noexcept {
        if (pa != pb) return pa < pb;
        return !prefixIsKey && layout->compare(*a, *b) < 0;
    }
    bool operator()(const OrderKey& a, const OrderKey& b) const noexcept {
        return less(a.prefix, a.key, b.prefix, b.key);
    }
    bool operator()(const OrderKey& a, const KeyProbe& b) const noexcept {
        return less(a.prefix, a.key, b.prefix, b.data);
    }
    bool operator()(const KeyProbe& a, const OrderKey& b) const noexcept {
        return less(a.prefix, a.data, b.prefix, b.key);
    }
};

struct OidLess {
    using is_transparent = void;
    PrimaryLess primary;
    bool less(std::uint64_t oa, std::uint64_t pa, const RowData* a, std::uint64_t ob, std::uint64_t pb,
              const RowData* b) const noexcept {
        if (oa != ob) return oa < ob;
        return primary.less(pa, a, pb, b);
    }
    bool operator()(const OidKey& a, const OidKey& b) const noexcept {
        return less(a.oid, a.key.prefix, a.key.key, b.oid, b.key.prefix, b.key.key);
    }
    bool operator()(const OidKey& a, const KeyProbe& b) const noexcept {
        return less(a.oid, a.key.prefix, a.key.key, b.oid, b.prefix, b.data);
    }
    bool operator()(const KeyProbe& a, const OidKey& b) const noexcept {
        return less(a.oid, a.prefix, a.data, b.oid, b.key.prefix, b.key.key);
    }
    bool operator()(const OidKey& a, OidProbe b) const noexcept { return a.oid < b.oid; }
    bool operator()(OidProbe a, const OidKey& b) const noexcept { return a.oid < b.oid; }
};

using PrimaryIndex = absl::btree_set<OrderKey, PrimaryLess>;
using OidIndex = absl::btree_set<OidKey, OidLess>;

// A row in the hash index: its key's hash and the row itself, so that finding, replacing or
// removing a row by key reads one entry and no tree.
struct RowSlot {
    std::uint64_t hash;    // hashKey of the row's key; for a key of one number field a bijection of it
    mutable RowData* row;  // one reference held by the table; replaced in place
};

// What a lookup in the hash index compares: the key's hash and row data of the table's type
// holding the key (read only when hashes are not exact).
struct SlotProbe {
    std::uint64_t hash;
    const RowData* key;
};

struct SlotHash {
    using is_transparent = void;
    std::size_t operator()(const RowSlot& s) const noexcept { return s.hash; }
    std::size_t operator()(const SlotProbe& p) const noexcept { return p.hash; }
};

struct SlotEq {
    using is_transparent = void;
    const Host::internal::KeyLayout* layout;
    bool exact;  // equal hashes are equal keys
    bool same(std::uint64_t ha, const RowData* a, std::uint64_t hb, const RowData* b) const noexcept {
        return ha == hb && (exact || layout->equal(*a, *b));
    }
    bool operator()(const RowSlot& a, const RowSlot& b) const noexcept {
        return same(a.hash, a.row, b.hash, b.row);
    }
    bool operator()(const RowSlot& a, const SlotProbe& b) const noexcept {
        return same(a.hash, a.row, b.hash, b.key);
    }
    bool operator()(const SlotProbe& a, const RowSlot& b) const noexcept {
        return same(a.hash, a.key, b.hash, b.row);
    }
};

using RowIndex = absl::flat_hash_set<RowSlot, SlotHash, SlotEq>;

// A position in an ordered index, kept in the iterator's opaque buffer.
static_assert(sizeof(PrimaryIndex::const_iterator) <= 2 * sizeof(void*) &&
                  std::is_trivially_copyable_v<PrimaryIndex::const_iterator>,
              "an index position must fit the iterator's position buffer");
static_assert(sizeof(OidIndex::const_iterator) <= 2 * sizeof(void*) &&
                  std::is_trivially_copyable_v<OidIndex::const_iterator>,
              "an index position must fit the iterator's position buffer");

// Rows replaced in tables, released a few replacements later. A replaced row lies anywhere in
// memory and releasing it writes its reference count: retiring fetches that line into the cache,
// and by the time the row is released the write finds it there instead of waiting for memory.
class RetiredRows {
public:
    RetiredRows() = default;
    RetiredRows(const RetiredRows&) = delete;
    RetiredRows& operator=(const RetiredRows&) = delete;
    ~RetiredRows() {
        for (RowData* row : rows_) {
            if (row != nullptr) Velta::detail::releaseRow(row);
        }
    }
    // Takes over one reference to `row` (not null) and releases the one retired kDelay retirements
    // ago.
    void retire(RowData* row) noexcept {
        Host::internal::prefetchLine(row);
        RowData*& slot = rows_[next_++ % kDelay];
        if (slot != nullptr) Velta::detail::releaseRow(slot);
        slot = row;
    }

private:
    static constexpr std::size_t kDelay = 16;
    RowData* rows_[kDelay] = {};
    std::size_t next_ = 0;
};

// One table: its rows in the hash index and their keys in the ordered indexes. Shared with
// iterators, which may outlive the table (a dropped table is emptied and stays empty). A type
// without an oid field has index 1 in the order of index 0, so such a table keeps no second tree
// and index 1 requests use index 0.
class TableState {
public:
    TableState(const RowType& type, std::string path);
    ~TableState();
    TableState(const TableState&) = delete;
    TableState& operator=(const TableState&) = delete;

    const RowType& type() const noexcept { return *type_; }
    const std::string& path() const noexcept { return path_; }
    std::size_t size() const {
        settle();
        return rows_.size();
    }
    // Changes on every write, deletion and clear (starts at 1).
    std::uint64_t changes() const {
        settle();
        return changes_;
    }
    // The index that serves requests for `index`.
    unsigned char effectiveIndex(unsigned char index) const noexcept { return index != 0 && hasOid_ ? 1 : 0; }
    // The probe of row data of the table's type.
    KeyProbe probe(const RowData& data) const noexcept;
    // The oid of row data of the table's type (0 for a type without one).
    std::uint64_t oidOf(const RowData& data) const noexcept { return hasOid_ ? data.numbers[oidSlot_] : 0; }

    // True when the oid field is part of the primary key.
    bool oidInKey() const noexcept { return oidInKey_; }

    // The row stored under `key`'s primary key (data of the table's type), or null. Valid until
    // the table next changes.
    const RowData* find(const RowData& key) const;
    // The first row whose key in `index` equals `key`'s (index 1: the first with its oid), or null.
    const RowData* findIn(const RowData& key, unsigned char index) const {
        return effectiveIndex(index) == 0 ? find(key) : findByOid(key);
    }
    // The first row with `key`'s oid (tables with an oid only), or null.
    const RowData* findByOid(const RowData& key) const;
    // findIn() for a key row of any type (not empty), read by field name when its type is another.
    const RowData* lookup(const BaseRow& key, unsigned char index) const {
        if (key.rowType() == type_) return findIn(*key.data(), index);
        const BaseRow converted = key.as(*type_);
        return findIn(*converted.data(), index);
    }
    // The row of an ordered-index entry (every entry has its row in the hash index).
    const RowData* rowAt(const OrderKey& key) const {
        settle();
        const std::uint64_t hash = hashOf(key);
        return rows_.find(SlotProbe{hash, key.key}, hash)->row;
    }
    // Fetches into the cache what rowAt(key) reads in the hash index.
    void prefetchEntry(const OrderKey& key) const;
    // Fetches into the cache what find(key) reads in the hash index.
    void prefetchKey(const RowData& key) const { rows_.prefetch(SlotProbe{hashOf(key), &key}); }
    // True when the key is one number field: ordered entries are the keys, hashes are exact.
    bool exactKeys() const noexcept { return prefixIsKey_; }
    // Index 1's first entry with `key`'s oid, or its end (tables with an oid only).
    OidIndex::const_iterator findOid(const RowData& key) const;
    // True when a row of the table has `oid`.
    bool hasOid(std::uint64_t oid) const;

    // Where `key` (data of the table's type) is or would go in the hash index. Valid until the
    // table next changes.
    struct Spot {
        RowIndex::iterator slot;  // rows_.end() when the key is new
        std::uint64_t hash;       // of the key
        const RowData* stored;    // the row stored under the key, or null
    };
    Spot locate(const RowData& key);
    // Stores `row` (of the table's type, final oid) at a located spot: in place when the key
    // exists (the replaced row is retired), inserted otherwise. Touches index 1 only when the row
    // is new or its oid changed.
    void put(const Spot& spot, const BaseRow& row) noexcept { store(spot, retainRow(row.data())); }
    // Removes the row with `key`'s primary key and returns it with the table's reference, or null.
    RowData* remove(const RowData& key) noexcept;
    // Removes everything (the table is being dropped).
    void clear();

    const PrimaryIndex& primary() const {
        settle();
        return primary_;
    }
    const OidIndex& byOid() const {
        settle();
        return byOid_;
    }

    // True when a write may wait: the type has no oid field, so storing a row tells the writer
    // nothing.
    bool defersWrites() const noexcept { return !hasOid_; }
    // Takes `row` (of the table's type) to be stored when anything next reads or changes the
    // table, or when kPending writes wait, and fetches its hash-index entry meanwhile: a producer's
    // writes then wait for memory together instead of one after another.
    void defer(const RowData& row) noexcept;

private:
    // hashKey of a key, inline for a key of one number field (the prefix is that number).
    std::uint64_t hashOf(const RowData& key) const noexcept {
        return prefixIsKey_ ? HostCapability::mixKey(key.numbers[prefixSlot_]) : layout_.hash(key);
    }
    std::uint64_t hashOf(const OrderKey& key) const noexcept {
        return prefixIsKey_ ? HostCapability::mixKey(key.prefix) : layout_.hash(*key.key);
    }

    // Index 1's first entry with `oid`, or its end; the waiting writes must have been stored.
    OidIndex::const_iterator oidEntry(std::uint64_t oid) const {
        const auto it = byOid_.lower_bound(OidProbe{oid});
        return it == byOid_.end() || it->oid != oid ? byOid_.end() : it;
    }

    // Stores the waiting writes, oldest first; every accessor calls it before it reads.
    // (Tables are never const objects: the const accessors may store them.)
    void settle() const noexcept {
        if (pendingCount_ != 0) const_cast<TableState*>(this)->storePending();
    }
    void storePending() noexcept;
    void storeOldest() noexcept;
    // locate() for a key whose hash is known, without storing the pending writes.
    Spot spotOf(std::uint64_t hash, const RowData& key);
    // put() for a row whose reference passes to the table. Its hash entry and its index entries go
    // in together or the process ends: a table whose indexes disagree is never left to be read.
    void store(const Spot& spot, RowData* row) noexcept;

    static constexpr unsigned kPending = 8;
    struct PendingWrite {
        std::uint64_t hash;
        RowData* row;  // one reference, passed to the table when stored
    };

    const RowType* type_;
    std::string path_;
    Host::internal::KeyLayout layout_;
    bool prefixIsKey_;
    RowIndex rows_;
    PrimaryIndex primary_;
    OidIndex byOid_;
    std::uint64_t changes_ = 1;
    bool oidInKey_ = false;
    bool hasOid_ = false;
    std::uint16_t prefixSlot_ = 0;  // of the key's one number field, when prefixIsKey_
    std::uint16_t oidSlot_ = 0;
    PendingWrite pending_[kPending];
    unsigned pendingFirst_ = 0;
    unsigned pendingCount_ = 0;
    RetiredRows retired_;  // rows this table replaced
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
    std::size_t queued = 0;  // events waiting in the queue for this attachment
    bool readyQueued = false;
    bool observing = false;
    std::string agentName;                                // owner of a table this interface creates
    HostCapability::Lookahead::Hook lookahead = nullptr;  // called for queued row events ahead
    void* lookaheadContext = nullptr;
};

// A table path: the table (when it exists) and the interfaces bound to the path.
struct Slot {
    std::string path;
    std::shared_ptr<TableState> table;
    std::vector<Attachment*> attachments;
    std::vector<Attachment*> observers;  // observing attachments whose ready was queued
    bool controlSubscriptions = false;   // "velta/veCtrl/subscription" (control publications)
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
    static void readyIs(VeTableInterface& i) { i.ready_ = true; }
    static const VeTableInterface::ReadyCallback& onReady(const VeTableInterface& i) { return i.onReady_; }
    static const VeTableInterface::RowCallback& onRow(const VeTableInterface& i) { return i.onRow_; }
    static const VeTableInterface::RowCallback& onDelete(const VeTableInterface& i) { return i.onDelete_; }

    // Iterator construction at a position of one index (the end when `pos` is the index's end).
    static VeRowIterator primaryAt(const std::shared_ptr<TableState>& table,
                                   PrimaryIndex::const_iterator pos);
    static VeRowIterator oidAt(const std::shared_ptr<TableState>& table, OidIndex::const_iterator pos);
    // An index-0 iterator on `row` whose position is not known yet: found again by its key when
    // it is first moved.
    static VeRowIterator primaryOn(const std::shared_ptr<TableState>& table, const RowData* row);
    static const std::shared_ptr<TableState>& table(const VeRowIterator& it) { return it.table_; }
    // Moving forward in an ordered index (Table.cpp).
    template <class Index>
    static void step(VeRowIterator& it, const TableState& t, const Index& index);
    template <class Index>
    static void readAhead(VeRowIterator& it, const TableState& t, const Index& index,
                          typename Index::const_iterator pos);
};

}  // namespace Velta::detail

namespace Velta::Host {

// A unit of host work on the queue (a registration arriving, a query completing, ...).
struct HostTask {
    const char* kind;     // "registerTable", "query", ...
    std::string subject;  // what it is about (a path, a query text, an oid)
    std::function<void()> run;
    // "<kind> <subject>", built only for a listener.
    std::string what() const { return std::string(kind) + " " + subject; }
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
    QueuedEvent& at(std::size_t i) noexcept { return buf_[(head_ + i) & mask_]; }
    // Removes and returns the oldest entry; the queue must not be empty.
    QueuedEvent takeFront() noexcept {
        QueuedEvent e = std::move(at(0));
        head_ = (head_ + 1) & mask_;
        --size_;
        return e;
    }
    // Removes every entry for which `pred` is true, keeping the order of the rest.
    template <class Pred>
    void removeIf(Pred pred);
    void clear();

private:
    // The new last entry, empty (every entry past the live ones is empty).
    QueuedEvent& append() {
        if (size_ == buf_.size()) grow();
        return buf_[(head_ + size_++) & mask_];
    }
    void grow();

    std::vector<QueuedEvent> buf_;
    std::size_t mask_ = 0;  // buf_.size() - 1 (a power of two) once it has grown
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

// The queue under a delivery seed, where each delivery takes the oldest event of the receiver of an
// event drawn at random (a receiver is an attachment; host tasks are one receiver, null). Events sit
// in slots in the order they were queued; one taken leaves a hole there until the slots are
// compacted (when they run out with half of them holes, or when events are removed). A count tree
// over the slots finds the n-th waiting event, and each receiver's events are chained from its
// oldest, so a delivery costs O(log n) however long the queue.
//
// Invariants: size_ is the number of live slots and tree_ counts exactly those; chains_ holds a
// chain for exactly the receivers with live slots, linking them in queue order; a hole is on no
// chain and holds an empty event; entries_ never holds more than capacity_ slots (its storage is
// reserved), so queueing allocates only when the slots grow or a receiver's chain starts.
class SeededEventQueue {
public:
    bool empty() const noexcept { return size_ == 0; }
    std::size_t size() const noexcept { return size_; }
    void push(QueuedEvent&& e) { append(e.att).event = std::move(e); }
    // Appends a row delivery in place (no temporary event to move).
    void pushRow(Velta::detail::Attachment* att, QueuedEvent::Kind kind, const BaseRow& row) {
        QueuedEvent& e = append(att).event;
        e.att = att;
        e.kind = kind;
        e.row = row;
    }
    // Removes and returns the oldest event of the receiver of the pick-th event (0 = oldest);
    // pick must be below size().
    QueuedEvent takeOldestOfReceiverAt(std::size_t pick);
    // Removes every event for which `pred` is true, keeping the order of the rest.
    template <class Pred>
    void removeIf(Pred pred);
    void clear();

private:
    static constexpr std::size_t kEnd = ~std::size_t{0};  // a chain's end
    static constexpr std::size_t kHole = kEnd - 1;        // the link of a hole
    struct Entry {
        QueuedEvent event;
        std::size_t next = kEnd;  // the receiver's next live slot, or kEnd, or kHole
    };
    // A receiver's live slots: its oldest and its newest.
    struct Chain {
        std::size_t first = kEnd;
        std::size_t last = kEnd;
    };

    // Appends `slot` (after every slot already on it) to a receiver's chain.
    void link(Chain& chain, std::size_t slot) noexcept;
    // Adds `delta` (+1 or -1) to the count tree for `slot`.
    void count(std::size_t slot, int delta) noexcept;
    // A new live slot at the end for `att`, chained and counted, with an empty event.
    Entry& append(Velta::detail::Attachment* att);
    // Keeps the live slots for whose event `drop` is false, moved to the front in order, and chains
    // and counts them again.
    template <class Pred>
    void compact(Pred drop);
    // Chains and counts every slot from scratch, once there are no holes.
    void relink();
    // The count tree from the live slots, in time linear in capacity_.
    void recount();
    // The slot of the pick-th live event (0 = oldest).
    std::size_t slotOf(std::size_t pick) const noexcept;

    std::vector<Entry> entries_;
    std::vector<std::size_t> tree_;  // Fenwick tree, 1-based: tree_[i] counts (i - lowbit(i), i]
    absl::flat_hash_map<const Velta::detail::Attachment*, Chain> chains_;
    std::size_t capacity_ = 0;  // a power of two once slots exist
    std::size_t size_ = 0;
};

template <class Pred>
void SeededEventQueue::removeIf(Pred pred) {
    compact(pred);
}

template <class Pred>
void SeededEventQueue::compact(Pred drop) {
    std::size_t out = 0;
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        Entry& e = entries_[i];
        if (e.next == kHole || drop(e.event)) continue;
        if (out != i) entries_[out].event = std::move(e.event);
        entries_[out++].next = kEnd;
    }
    entries_.resize(out);
    size_ = out;
    relink();
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
    Velta::detail::Slot* findSlot(std::string_view path) noexcept;
    const Velta::detail::Slot* findSlot(std::string_view path) const noexcept;
    // Creates the table and its metadata row; returns false when it exists already.
    bool createTable(Velta::detail::Slot& slot, const RowType& type, const std::string& owner, unsigned oid);
    // Writes the metadata row of an existing table again when a client removed it (or the whole
    // metadata table), so a server agent's registration always leaves the row visible.
    void restoreMetadataRow(Velta::detail::Slot& slot, const std::string& owner);
    bool dropTable(const std::string& path);
    void eraseSlotIfUnused(Velta::detail::Slot& slot);
    // Inserts or replaces `row` (oid written back into it) in the slot's table; returns the
    // stored row data (valid until the table next changes), null for an empty row. The table must
    // exist.
    const RowData* writeRow(Velta::detail::Slot& slot, BaseRow& row);
    // Stores `target` (of t's type: `row` itself or its conversion) at once, giving it an oid where
    // its type has one and it has none, and telling `row` that oid. Returns the oid of the row it
    // replaced, or nothing when the key was new.
    std::optional<std::uint64_t> storeNow(Velta::detail::TableState& t, BaseRow& row, BaseRow& target);
    // Gives `target`, a new row for `t`, the counter's next oid that is not 0 and that no row of `t`
    // has (a writer may have given a number the counter had not reached yet) in its field `oidField`.
    void newOidIs(const Velta::detail::TableState& t, BaseRow& target, std::size_t oidField);
    // Deletes by primary key; false when there was no such row (or no table).
    bool eraseRow(Velta::detail::Slot& slot, const BaseRow& key);

    // --- interfaces
    void bind(VeTableInterface& iface, const std::string& path, bool flag, const std::string& agentName);
    void detach(Velta::detail::Attachment& att);
    void considerReady(Velta::detail::Attachment& att);

    // --- queue
    void queueTask(const char* kind, std::string subject, std::function<void()> run);
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
    void queriesClear();
    veMetadata::veTable tableInfo(const std::string& path) const;
    veMetadata::veTable tableInfo(unsigned oid) const;
    // The row with `key`'s key in `index` of the table at `path`, or an empty row.
    BaseRow lookup(std::string_view path, const BaseRow& key, unsigned char index) const;
    // The same in a slot found already (null when there is none).
    static BaseRow lookupIn(const Velta::detail::Slot* slot, const BaseRow& key, unsigned char index);

    std::uint64_t newHandleId() noexcept { return ++handleIds_; }

    // findRowType, remembered per database: a type once found stays the type of its name (types
    // are never removed or redefined), so only answers found are kept, and the process-wide
    // registry is locked once per name instead of on every call.
    const RowType* rowTypeNamed(const std::string& name);

    // State shared with the Database facade. Slots stay where they are while they exist
    // (attachments point to them).
    absl::node_hash_map<std::string, Velta::detail::Slot> slots;
    // Events waiting for delivery: in `queue` without a delivery seed, in `seededQueue` with one;
    // the other stays empty.
    EventQueue queue;
    SeededEventQueue seededQueue;
    std::vector<HostCall> calls;
    std::vector<QueryInfo> queries;
    EventListener* listener = nullptr;
    // Tells the listener, if any, what `hook` reports. The host is in the middle of its own
    // bookkeeping then, so a hook that throws ends the process here instead of leaving it half done,
    // and one that changes the database ends it at the change (see `hookNotRunning`).
    template <class Hook>
    void tell(const Hook& hook) const noexcept {
        if (listener == nullptr) return;
        hookRunning_ = true;
        hook(*listener);
        hookRunning_ = false;
    }
    // Every change to the database starts here: a change made from a hook would land between two
    // halves of a write (a control row without its publication, a host call log that moves under the
    // entry being reported), so it ends the process instead.
    void hookNotRunning(const char* function) const noexcept {
        if (hookRunning_) [[unlikely]]
            changedFromAHook(function);
    }
    [[noreturn, gnu::cold]] static void changedFromAHook(const char* function) noexcept;
    std::uint64_t clock = 0;
    bool settled = true;
    bool delivering = false;  // a callback is running: running the loop from it does nothing

private:
    void notify(Velta::detail::Slot& slot, QueuedEvent::Kind kind, const BaseRow& row);
    // Before the oldest event is delivered: fetches the row data of an event kRowAhead places on
    // and calls the lookahead hook for the row event kHookAhead places on, whose data was fetched
    // kRowAhead - kHookAhead deliveries ago.
    void lookAhead() noexcept;
    // The next event to deliver without a seed: the oldest, after the look ahead.
    QueuedEvent takeNext();
    // The next event to deliver under the seed, drawn by the seeded generator.
    QueuedEvent takeSeeded();
    void push(QueuedEvent&& e);
    void deliver(QueuedEvent& e);
    void controlSubscriptionAdded(const BaseRow& row);
    void controlSubscriptionRemoved(std::uint64_t oid);
    // Records the outcome of query `index` and calls its completion unless its handle is gone.
    void finishQuery(std::size_t index, bool ok, const std::string& error);

    struct PendingCompletion {
        std::uint64_t handle;
        VeltaDB::QueryCompletion done;
    };

    absl::flat_hash_map<std::string, const RowType*> typesByName_;
    mutable veMetadata::veTable tableKey_;  // the key row of tableInfo(path)
    // The slot of the tables' metadata table, found once for tableInfo and forgotten when it is
    // erased; an agent asks for a table's metadata row on every subscription.
    const Velta::detail::Slot* veTableSlot() const noexcept;
    mutable const Velta::detail::Slot* veTableSlot_ = nullptr;
    std::uint64_t nextOid_ = 0;
    std::uint64_t attachIds_ = 0;
    std::uint64_t handleIds_ = 0;
    unsigned queryIds_ = 0;
    std::set<std::string, std::less<>> inFlight_;           // registrations on their way
    std::map<std::size_t, PendingCompletion> completions_;  // by query number
    // The number of the first query in `queries`: the ones before it were forgotten, none pending.
    std::size_t queryBase_ = 0;
    QueryInfo& query(std::size_t number) { return queries[number - queryBase_]; }
    // Under manual queries, the queries of each text not yet handed to completeQuery, oldest first
    // (those whose definer has gone are dropped when met).
    absl::flat_hash_map<std::string, std::deque<std::size_t>> awaitingByText_;
    std::mt19937_64 shuffle_;
    mutable bool hookRunning_ = false;  // a listener's hook is running (see `tell`)
};

// One agent's handle on a database.
class AgentHandle final : public VeltaDB, public HostCapability::Lookahead {
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
    void defineQuery(const std::string& text, unsigned typeId, const QueryParams& params,
                     QueryCompletion done, bool standing, const std::string& name) override;
    void removeQuery(const std::string& name) override;
    veMetadata::veTable tableInfo(const std::string& path) const override;
    veMetadata::veTable tableInfo(unsigned oid) const override;
    unsigned tableTypeId(const std::string& typeName, bool flag) const override;
    std::shared_ptr<const RowOps> getRowOps(const std::string& typeName, unsigned char index) const override;
    void lookaheadIs(VeTableInterface& observer, Hook hook, void* context) override;

    const AgentOptions& options() const noexcept { return options_; }
    std::uint64_t id() const noexcept { return id_; }

private:
    std::shared_ptr<Database> db_;
    Database::Impl* impl_;
    AgentOptions options_;
    std::uint64_t id_;
};

}  // namespace Velta::Host
