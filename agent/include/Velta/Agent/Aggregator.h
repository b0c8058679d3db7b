// Aggregator: merges many input tables of one row type into a single output table.
//
// Inputs are discovered in "velta/metadata/veTable": every table whose path is the configured
// prefix, one path component (the agent name) and the configured suffix, and whose row type is the
// output's, is admitted and observed by an AggregatorInputTable. For each key the output holds the
// row an input delivered last; when that row goes away it is replaced from the first input in path
// order that still holds the key (unless deleteWithoutReplacement), or deleted.
//
// Invariants:
// - inputTables_ holds exactly the admitted inputs, keyed by table path; its (lexicographic) order
//   is the order in which inputs are consulted everywhere.
// - Every entry of outputRowOwners_ names the input whose row the output currently holds for that
//   key (empty for rows merged under a path no admitted input has); an input leaves inputTables_
//   before its entries are settled, so it is never chosen to replace its own rows.
// - Input tables are shared between inputTables_ and outputRowOwners_ and never outlive the
//   aggregator: both maps are destroyed before the interfaces the input tables' destructors read.
// - The members are those of the aggregator's design, in its order; what our own containers need
//   beyond it lives inside their types (internal/).
// - All work runs inside host callbacks, constructors and destructors, one at a time; no locks.
#pragma once

#include <Kesto/DebugSupport.h>
#include <Velta/Agent/Config.h>
#include <Velta/Agent/internal/PathMap.h>
#include <Velta/BaseRow.h>
#include <Velta/VeTableInterface.h>
#include <Velta/VeltaDB.h>

// The owner map's layout is the one the library was built with (Config.h), never what this
// compilation happens to find.
#if VELTA_AGENT_HOST_KEY_HASH
#if !__has_include(<Velta/HostCapability/KeyHash.h>)
#error \
    "libSubscriptionHandling was built with the host's key-hash capability: put <Velta/HostCapability/KeyHash.h> on the include path (CMake: link SubscriptionHandling::SubscriptionHandling, which brings SubscriptionHandling::VeltaHostCapability)"
#endif
#include <Velta/Agent/internal/RowKeyMap.h>
#endif
#if VELTA_AGENT_HOST_LOOKAHEAD
#if !__has_include(<Velta/HostCapability/Lookahead.h>)
#error \
    "libSubscriptionHandling was built with the host's lookahead capability: put <Velta/HostCapability/Lookahead.h> on the include path (CMake: link SubscriptionHandling::SubscriptionHandling, which brings SubscriptionHandling::VeltaHostCapability)"
#endif
#include <Velta/HostCapability/Lookahead.h>
#endif

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Velta::Agent {

class Aggregator {
public:
    // The aggregator's debug channel ("Aggregator"); objects never own the shared handler.
    class __kestoDebug : public Kesto::DebugSupport {
    public:
        using Kesto::DebugSupport::DebugSupport;
        ~__kestoDebug() override;
        // The channel's handler, looked up once per process.
        static Kesto::Platform::DebugHandler* getHandler();
    };

    // One admitted input table: walks its rows into the aggregator once the output is ready, then
    // forwards every row change and deletion the host reports. Created and owned by the aggregator
    // only; must not outlive it.
    class AggregatorInputTable {
    public:
        // Same channel as the outer class, with a handler static of its own.
        class __kestoDebug : public Kesto::DebugSupport {
        public:
            using Kesto::DebugSupport::DebugSupport;
            ~__kestoDebug() override;
            static Kesto::Platform::DebugHandler* getHandler();
        };

        // Binds an observer of `rowTypeName` to `tablePath` with `bindFlag`; its scheduled flag is
        // `scheduled`. It is not declared client-ready, so the host delivers nothing until
        // outputReady().
        AggregatorInputTable(VeltaDB::p_t vdb, Aggregator* aggregator, const std::string& tablePath,
                             const std::string& rowTypeName, const std::string& agentName, bool scheduled,
                             bool bindFlag);
        // Traces at level 9 and detaches the observer. Deletes no output row.
        ~AggregatorInputTable();
        AggregatorInputTable(const AggregatorInputTable&) = delete;
        AggregatorInputTable& operator=(const AggregatorInputTable&) = delete;

        // The output can take rows: declares the observer client-ready (repeats change nothing).
        void outputReady();
        // This input's row with `key`'s primary key, or an empty row. (Inline: a deletion asks the
        // inputs in turn for a replacement.)
        BaseRow row(const BaseRow& key) const { return inputObserver.row(key, 0); }
        // Positions along the key index: the first row, and the first row not ordered before `key`.
        VeRowIterator first() const { return inputObserver.begin(0); }
        VeRowIterator lowerBound(const BaseRow& key) const { return inputObserver.lower_bound(key, 0); }
        // Forwards rows to the aggregator from the bookmark (or the first row) to the end, stopping
        // before a row while the aggregator reports itself blocked.
        void walkInputTable();
        // Flow control from the hosting process: true deactivates an active observer; false
        // resumes a pending walk (or ends the active state) once the observer is attached.
        void outputBlocked(bool blocked);

        // Host callbacks of inputObserver (the host calls them; a hosting process should not).
        void onObserverReady();
        void onRow(const BaseRow& row);
        void onDelete(const BaseRow& row);

        // For tests and tools; not part of the aggregator's design.
        // The input table's path (as bound) and its observer (read its state; do not rebind it).
        const std::string& tablePath() const noexcept { return inputObserver.tablePath(); }
        VeTableInterface& observer() noexcept { return inputObserver; }
        const VeTableInterface& observer() const noexcept { return inputObserver; }

    private:
        VeltaDB::p_t vdb_;
        Aggregator* aggregator_;  // owner; not owned
        std::string agentName_;
        bool outputReady_;
        VeTableInterface inputObserver;
        BaseRow walkPosition_;  // next row of a pending walk; empty when none is pending
        __kestoDebug debugChannel_;
    };

    // By table path, in path order. (A row event names its input by the path string its observer
    // holds: the map finds that string's entry without comparing paths, see internal/PathMap.h.)
    using InputTables = internal::PathMap<std::shared_ptr<AggregatorInputTable>>;
    // Ordered by keyLess_; each key's owner among inputTables_. Every row event looks its key up:
    // when the host hashes keys, the map keeps a hash index of its keys (holding their owners)
    // beside the tree, and its nodes come from a pool of their own, one cache line each.
#if VELTA_AGENT_HOST_KEY_HASH
    using OutputRowOwners = internal::RowKeyMap<AggregatorInputTable>;
#else
    using OutputRowOwners = std::map<BaseRow, std::shared_ptr<AggregatorInputTable>, RowOpsKeyLess>;
#endif

    // ---- What a hosting process calls.

    // Binds the output modifier to `outputPath` and the metadata observer, both with `bindFlag`,
    // and, when `enabled`, asks the host for the metadata callbacks.
    Aggregator(VeltaDB::p_t vdb, const std::string& inputPathPrefix, const std::string& inputPathSuffix,
               const std::string& outputPath, const std::string& rowTypeName, bool deleteWithoutReplacement,
               bool enabled, bool bindFlag);
    // Traces at level 9 and releases the inputs. Deletes and writes nothing.
    ~Aggregator();
    Aggregator(const Aggregator&) = delete;
    Aggregator& operator=(const Aggregator&) = delete;

    // True once the first metadata pass has ended and the output modifier is ready.
    bool ready() const;
    // Whether the output refuses rows: never. Input walks ask before every row.
    bool blocked() const { return false; }
    // The scheduled flag handed to inputs admitted from now on.
    bool scheduled() const { return scheduled_; }
    void scheduledIs(bool value) { scheduled_ = value; }
    // When true, the next ready pass keeps output rows that no input holds.
    void suppressResyncIs(bool value) { suppressResync_ = value; }
    // Enables or disables later ready passes; true runs one at once. Disabling stops nothing
    // that already runs.
    void enableIs(bool value);

    // ---- Handlers: the host calls them through the interfaces (and the input tables call the
    // merging ones); a hosting process should not.

    // Callbacks of veTableObserver_: admission and removal of inputs.
    void onVeTableReady();
    void onVeTableRow(const BaseRow& row);
    void onVeTableDelete(const BaseRow& row);

    // Merging. The input at `path` delivered `row`: the output takes it and the input becomes
    // the key's owner.
    void onInputRow(const std::string& path, BaseRow& row);
    // The input at `path` lost `row`: settles the output row if that input supplied it.
    void onInputRowDelete(const std::string& path, const BaseRow& row);
    // Replaces the output row of `entry` from the first input in path order that holds its key
    // (unless deleteWithoutReplacement), or deletes it; returns the entry that followed.
    OutputRowOwners::iterator updateOutputOnDelete(OutputRowOwners::iterator entry);
    // Ready callback of outputModifier (also run by enableIs(true) and after the metadata pass):
    // removes output rows no input holds (unless suppressed) and starts every input.
    void onReady();

    // ---- For tests and tools; not part of the aggregator's design.

    // Path of the input that supplies the output row with `outputKey`'s key; "" when none.
    std::string outputRowSource(const BaseRow& outputKey) const;
    // Paths of the admitted inputs, in path order.
    std::vector<std::string> inputPaths() const;
    // The admitted input at `path`, or null. Do not keep it beyond its removal: a removed input still
    // held goes on delivering its rows, and the aggregator takes their path for an admitted input
    // again, never to admit the table anew.
    std::shared_ptr<AggregatorInputTable> inputTable(const std::string& path) const;
    const std::string& outputPath() const noexcept { return outputPath_; }
    // The output modifier, to read its state.
    const VeTableInterface& output() const noexcept { return outputModifier; }

private:
    // The owner of an entry of outputRowOwners_.
    const std::shared_ptr<AggregatorInputTable>& ownerOf(OutputRowOwners::const_iterator entry) const;
    // updateOutputOnDelete without finding the entry that follows, for a caller holding a row with
    // the entry's key (`key`; not read once the entry is gone): the inputs are asked with it, so
    // the entry's key object, elsewhere in memory, is not read.
    void settleOutputRow(OutputRowOwners::iterator entry, const BaseRow& key);
#if VELTA_AGENT_HOST_LOOKAHEAD
    // The host's lookahead hook of every input observer: fetches what merging `row` will read,
    // its owner entry and its output table entry.
    static void lookAhead(void* aggregator, const BaseRow& row);
#endif

    VeltaDB::p_t vdb_;
    VeTableInterface outputModifier;
    VeTableInterface veTableObserver_;
    std::shared_ptr<const RowOps> rowOps_;
    RowOpsKeyLess keyLess_;
    InputTables inputTables_;
    OutputRowOwners outputRowOwners_;
    std::string inputPathPrefix_;
    std::string inputPathSuffix_;
    std::string outputPath_;
    bool deleteWithoutReplacement_;
    bool bindFlag_;
    bool enabled_;
    bool scheduled_;
    bool suppressResync_;
    std::size_t affixLength_;
    bool inputsScanned_;
    __kestoDebug debugChannel_;
};

}  // namespace Velta::Agent
