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
//   key (by address; null for rows merged under a path no admitted input has); an input leaves
//   inputTables_ before its entries are settled, so it is never chosen to replace its own rows,
//   and no entry names it once it has left.
// - An input table is admitted (admitted_) exactly while inputTables_ holds it; input tables never
//   outlive the aggregator: inputTables_ is destroyed before the interfaces the input tables'
//   destructors read.
// - All work runs inside host callbacks, constructors and destructors, one at a time; no locks.
#pragma once

#include <Kesto/DebugSupport.h>
#include <Velta/Agent/Config.h>
#include <Velta/BaseRow.h>
#include <Velta/VeTableInterface.h>
#include <Velta/VeltaDB.h>

// The owner map's layout is the one the library was built with (Config.h), never what this
// compilation happens to find.
#if VELTA_AGENT_HOST_KEY_HASH
#if !__has_include(<Velta/HostCapability/KeyHash.h>)
#error "libSubscriptionHandling was built with the host's key-hash capability: put <Velta/HostCapability/KeyHash.h> on the include path (CMake: link SubscriptionHandling::SubscriptionHandling, which brings SubscriptionHandling::VeltaHostCapability)"
#endif
#include <Velta/Agent/internal/RowKeyMap.h>
#endif
#if VELTA_AGENT_HOST_LOOKAHEAD
#if !__has_include(<Velta/HostCapability/Lookahead.h>)
#error "libSubscriptionHandling was built with the host's lookahead capability: put <Velta/HostCapability/Lookahead.h> on the include path (CMake: link SubscriptionHandling::SubscriptionHandling, which brings SubscriptionHandling::VeltaHostCapability)"
#endif
#include <Velta/HostCapability/Lookahead.h>
#endif

#include <array>
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
        // This input's row with `key`'s primary key, or an empty row. (Inline: a resync asks every
        // input for every output row.)
        BaseRow row(const BaseRow& key) const { return inputObserver.row(key, 0); }
        // Forwards rows to the aggregator from the bookmark (or the first row) to the end, stopping
        // before a row while the aggregator reports itself blocked.
        void walkInputTable();
        // Flow control from the hosting process: true deactivates an active observer; false
        // resumes a pending walk (or ends the active state) once the observer is attached.
        void outputBlocked(bool blocked);

        // Host callbacks of inputObserver.
        void onObserverReady();
        void onRow(const BaseRow& row);
        void onDelete(const BaseRow& row);

        // The input table's path (as bound).
        const std::string& tablePath() const noexcept { return inputObserver.tablePath(); }

    private:
        friend class Aggregator;
        VeltaDB::p_t vdb_;
        Aggregator* aggregator_;  // owner; not owned
        std::string agentName_;
        bool outputReady_;
        bool admitted_ = false;  // held by the aggregator's inputTables_

    public:
        // The observer of the input table (host-visible interface; read its state, do not rebind).
        VeTableInterface inputObserver;

    private:
        BaseRow walkPosition_;  // next row of a pending walk; empty when none is pending
        __kestoDebug debugChannel_;
    };

    using InputTables = std::map<std::string, std::shared_ptr<AggregatorInputTable>>;
    // Ordered by keyLess_; each key's owner among inputTables_. Every row event looks its key up:
    // when the host hashes keys, the map keeps a hash index of its keys beside the tree, and its
    // nodes come from a pool of their own, one cache line each.
#if VELTA_AGENT_HOST_KEY_HASH
    using OutputRowOwners = internal::RowKeyMap<AggregatorInputTable>;
#else
    using OutputRowOwners = std::map<BaseRow, AggregatorInputTable*, RowOpsKeyLess>;
#endif

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

    // Host callbacks of veTableObserver_: admission and removal of inputs.
    void onVeTableReady();
    void onVeTableRow(const BaseRow& row);
    void onVeTableDelete(const BaseRow& row);

    // Merging. The input at `path` delivered `row`: the output takes it and the input becomes
    // the key's owner.
    void onInputRow(const std::string& path, BaseRow& row);
    // The input at `path` lost `row`: settles the output row if that input supplied it.
    void onInputRowDelete(const std::string& path, const BaseRow& row);
    // The same for `input`'s own rows: an admitted input is the owner without a search by path.
    void rowFrom(AggregatorInputTable& input, BaseRow& row);
    void deleteFrom(AggregatorInputTable& input, const BaseRow& row);
    // Replaces the output row of `entry` from the first input in path order that holds its key
    // (unless deleteWithoutReplacement), or deletes it; returns the entry that followed.
    OutputRowOwners::iterator updateOutputOnDelete(OutputRowOwners::iterator entry);
    // Ready callback of outputModifier (also run by enableIs(true) and after the metadata pass):
    // removes output rows no input holds (unless suppressed) and starts every input.
    void onReady();

    // Introspection for hosting processes and tools.
    // Path of the input that supplies the output row with `outputKey`'s key; "" when none.
    std::string outputRowSource(const BaseRow& outputKey) const;
    // Paths of the admitted inputs, in path order.
    std::vector<std::string> inputPaths() const;
    // The admitted input at `path`, or null. Do not keep it beyond the aggregator's life.
    std::shared_ptr<AggregatorInputTable> inputTable(const std::string& path) const;
    const std::string& outputPath() const noexcept { return outputPath_; }

private:
    VeltaDB::p_t vdb_;

public:
    // Writer of the output table (host-visible interface; read its state, do not rebind).
    VeTableInterface outputModifier;

private:
    VeTableInterface veTableObserver_;
    std::shared_ptr<const RowOps> rowOps_;
    RowOpsKeyLess keyLess_;
    InputTables inputTables_;
    OutputRowOwners outputRowOwners_;
    // The merge of a row or a deletion from `owner` (null: a path no admitted input has).
    void merge(AggregatorInputTable* owner, BaseRow& row);
    void mergeDelete(AggregatorInputTable* owner, const BaseRow& row);
    // The owner of an entry of outputRowOwners_.
    AggregatorInputTable* ownerOf(OutputRowOwners::const_iterator entry) const;
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
#if VELTA_AGENT_HOST_LOOKAHEAD
    // The host's delivery lookahead (null when the handle does not offer it). Every input
    // observer's hook is lookAhead, which fetches what merging the row will read: the row's owner
    // entry and its output table entry.
    HostCapability::Lookahead* lookahead_;
    static void lookAhead(void* aggregator, const BaseRow& row);
#endif
    __kestoDebug debugChannel_;
};

}  // namespace Velta::Agent
