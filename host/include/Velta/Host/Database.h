// The in-memory host: one deterministic database that several agents share, driven by a user, a
// test or the scenario runner.
//
// Invariants:
// - Nothing is called back from inside a host call. Writes change the tables at once; callbacks
//   are queued and delivered only by runUntilIdle()/runOne(), one at a time, in FIFO order (or, with
//   Options::shuffleSeed, in a seeded order that keeps each interface's own callbacks in order).
// - Every table the host creates or registers gets its row in "velta/metadata/veTable", and dropping
//   a table deletes that row. A user may still write, erase or drop the metadata table itself.
// - Row types are process-wide; tables and rows belong to one Database.
#pragma once

#include <Velta/BaseRow.h>
#include <Velta/Records.h>
#include <Velta/VeltaDB.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Velta::Host {

struct AgentOptions {
    std::string agentName;
    std::string systemName;
    bool serverAgent = false;  // VeltaDB::isServerAgent()
    bool external = false;     // VeltaDB::external()
    bool standalone = true;    // VeltaDB::standalone()
};

struct FieldSpec {
    std::string name;
    FieldKind kind;
};

// The most fields a row type holds: a field's place in its kind's array is 16 bits wide.
inline constexpr std::size_t kMaxRowTypeFields = 65535;

// Defines a user row type (process-wide). Defining the same name again with the same fields and
// key returns the existing type; a different definition, an empty or duplicate field name, a key
// naming no field or more than kMaxRowTypeFields fields throws std::invalid_argument.
const RowType& defineRowType(const std::string& name, const std::vector<FieldSpec>& fields,
                             const std::vector<std::string>& keyFields);
// The registered type of that name (built-in or user), or nullptr.
const RowType* findRowType(const std::string& name);
// Parses "u16", "u32", "u64", "bool", "string", "strings".
std::optional<FieldKind> parseFieldKind(const std::string& text);

// A host call with lasting effect, as an agent made it.
struct HostCall {
    enum class Kind { registerTable, defineQuery, removeQuery };
    Kind kind;
    std::string agent;  // agentName() of the handle that made the call
    // registerTable
    std::string path;
    std::string typeName;
    TableType tableType = TableType::standing;
    unsigned short desiredFlags = 0;
    unsigned short flags = 0;
    std::string owner;
    // defineQuery
    std::string text;
    unsigned typeId = 0;
    std::map<std::string, std::string> params;  // ordered for stable printing
    bool standing = false;
    // defineQuery and removeQuery
    std::string name;
};

// One line (line breaks in texts are written as \n and \r), e.g. `registerTable path=velta/out/q7
// typeName=T tableType=0 desiredFlags=0 ...`.
std::string toString(const HostCall& call);

// A query defined through defineQuery.
struct QueryInfo {
    unsigned id = 0;  // host query id given on completion (0 while pending)
    std::string agent;
    std::string text;
    unsigned typeId = 0;
    bool standing = false;
    std::string name;
    enum class State { pending, completed, failed } state = State::pending;
    std::string error;
    // The handle that defined it is gone: its completion reaches nobody and completeQuery skips it.
    bool definerGone = false;
};

// What the host did, for timelines: deliveries and the changes made while each ran. Every hook
// does nothing unless overridden, so a listener overrides only what it watches. Hooks report and
// may read: one that throws, or changes the database (writes, deletes, tables, host calls, the
// queue, the clock, the call log), ends the process, since the host calls them in the middle of its
// own bookkeeping. A delivery's end is reported even when its callback throws.
class EventListener {
public:
    virtual ~EventListener() = default;
    enum class Delivery { ready, row, rowDelete, hostTask };
    // A callback is about to be delivered to `iface` (nullptr for host work such as a query
    // completion or a table registration arriving).
    virtual void onDeliveryBegin(Delivery, const VeTableInterface* /*iface*/, const BaseRow& /*row*/,
                                 const std::string& /*what*/) {}
    virtual void onDeliveryEnd() {}
    // A row was written to or deleted from a table, by whoever.
    virtual void onWrite(const std::string& /*path*/, const BaseRow& /*row*/) {}
    virtual void onDelete(const std::string& /*path*/, const BaseRow& /*row*/) {}
    virtual void onHostCall(const HostCall& /*call*/) {}
    virtual void onTableCreated(const std::string& /*path*/) {}
    virtual void onTableDropped(const std::string& /*path*/) {}
};

// The listener that records: every hook becomes one entry, in the order the host reported it.
// It keeps the entries for reading back, or hands each to a sink as it happens.
class EventLog : public EventListener {
public:
    struct Entry {
        enum class Kind { deliveryBegin, deliveryEnd, write, erase, hostCall, tableCreated, tableDropped };
        Kind kind = Kind::deliveryBegin;
        // Deliveries under way around it (0 for what happened outside any callback); a delivery's
        // begin and end count the deliveries around it, not itself.
        std::size_t depth = 0;
        Delivery delivery = Delivery::ready;  // deliveryBegin
        // deliveryBegin: the interface delivered to, usable only while it lives (nullptr for host
        // work), and its name.
        const VeTableInterface* iface = nullptr;
        std::string ifName;
        std::string what;              // deliveryBegin of host work: what the work is
        std::string path;              // write, erase, tableCreated, tableDropped
        BaseRow row;                   // deliveryBegin of a row or a deletion, write, erase
        std::optional<HostCall> call;  // hostCall
    };
    using Sink = std::function<void(const Entry&)>;

    EventLog() = default;
    // Hands every entry to `sink` as it happens instead of keeping it.
    explicit EventLog(Sink sink) : sink_(std::move(sink)) {}

    // The entries kept so far, oldest first (none with a sink).
    const std::vector<Entry>& entries() const noexcept { return entries_; }
    void clear() noexcept { entries_.clear(); }

    void onDeliveryBegin(Delivery delivery, const VeTableInterface* iface, const BaseRow& row,
                         const std::string& what) override;
    void onDeliveryEnd() override;
    void onWrite(const std::string& path, const BaseRow& row) override;
    void onDelete(const std::string& path, const BaseRow& row) override;
    void onHostCall(const HostCall& call) override;
    void onTableCreated(const std::string& path) override;
    void onTableDropped(const std::string& path) override;

private:
    void add(Entry entry);
    void addChange(Entry::Kind kind, const std::string& path, const BaseRow& row);

    Sink sink_;
    std::vector<Entry> entries_;
    std::size_t depth_ = 0;
};

class Database : public std::enable_shared_from_this<Database> {
public:
    struct Options {
        // Answer control subscriptions: one loop turn after a new control row, a control publication
        // for its oid; it goes when that row goes (deleted, or its table dropped) or is rewritten
        // under another oid.
        bool autoPublish = false;
        // Complete queries only by completeQuery(). Otherwise a query completes one loop turn later,
        // failed with "No such table: <path>" when the path after its first word FROM (any case,
        // up to a blank, ';', ',' or ')') names no table.
        bool manualQueries = false;
        std::size_t deliveryBound = 1'000'000;  // runUntilIdle stops after this many deliveries
        std::uint64_t shuffleSeed = 0;          // non-zero: seeded delivery order (per-interface FIFO kept)
    };

    static std::shared_ptr<Database> create(Options options);
    static std::shared_ptr<Database> create() { return create(Options{}); }
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // What the static VeltaDB::server() answers (process-wide; default false).
    static void serverProcessIs(bool value);
    static bool serverProcess();
    // Test-only: whether a setter on a row whose data is shared copies it first (process-wide;
    // default true, as every host must). Off, a setter writes the shared data, so every holder of
    // the row (the table's stored row included) sees the change: the host the conformance kit's
    // copy-on-write check exists to catch.
    static void copyOnWriteIs(bool value);

    // A handle for one agent. The handle keeps the database alive.
    VeltaDB::p_t connect(const AgentOptions& options);

    // Delivers queued callbacks until none is left or the bound is reached; returns how many.
    // Called from inside a callback it delivers nothing (returns 0), as does runOne().
    std::size_t runUntilIdle();
    // False when the last runUntilIdle stopped at the bound with callbacks still queued.
    bool settled() const noexcept;
    // Delivers one queued callback; false when none was queued.
    bool runOne();
    // Number of queued callbacks and host tasks.
    std::size_t pending() const noexcept;

    // Client access, as an outside writer would.
    // Creates an empty table (no-op if it exists); `oid` 0 lets the host number its metadata row.
    // Throws std::invalid_argument for an unknown type.
    void createTable(const std::string& path, const std::string& typeName, const std::string& owner = "",
                     unsigned oid = 0);
    // Removes the table, its rows (without delete callbacks) and its metadata row; false if absent.
    bool dropTable(const std::string& path);
    bool hasTable(const std::string& path) const;
    // The table's row type, or nullptr.
    const RowType* tableType(const std::string& path) const;
    // Inserts or replaces; the row is converted to the table's type by field name. The table is
    // created when missing (with the row's type). Returns the stored row (oid assigned).
    BaseRow write(const std::string& path, const BaseRow& row);
    // Deletes the row with `key`'s primary key; false if there was none.
    bool erase(const std::string& path, const BaseRow& key);
    // The row with `key`'s key in `index`, or an empty row.
    BaseRow read(const std::string& path, const BaseRow& key, unsigned char index = 0) const;
    // Every row of the table in primary-key order.
    std::vector<BaseRow> rows(const std::string& path) const;
    std::size_t rowCount(const std::string& path) const;
    // Every table path, in order.
    std::vector<std::string> tablePaths() const;

    // The host clock for the ptime values the host writes; starts at 0.
    std::uint64_t clock() const noexcept;
    // Moves the clock on by `amount`; it stops at its greatest value rather than wrap to the past.
    void clockAdvance(std::uint64_t amount) noexcept;

    // Host calls with lasting effect, in order.
    const std::vector<HostCall>& calls() const noexcept;
    void callsClear();
    // The queries defined, oldest first, from the first one queriesClear() kept.
    const std::vector<QueryInfo>& queries() const noexcept;
    // Forgets the queries that completed or failed, up to the first still pending (which its
    // completion needs), so that a long run's history stays bounded.
    void queriesClear();
    // Completes the oldest pending query with `text` whose definer is still there; false if none.
    // The completion is queued behind what is already queued and runs when delivery reaches it.
    bool completeQuery(const std::string& text, bool ok, const std::string& error = "");

    // Receives every delivery and change (nullptr: none). Not owned.
    void listenerIs(EventListener* listener) noexcept;

    const Options& options() const noexcept;

    class Impl;  // the host's own; not API

private:
    friend class AgentHandle;  // an agent's handle works on the database's internals
    Impl& impl() noexcept { return *impl_; }
    explicit Database(Options options);
    std::unique_ptr<Impl> impl_;
};

}  // namespace Velta::Host
