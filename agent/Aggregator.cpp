// Aggregator and its input tables: admission of inputs from the table metadata, walking and
// forwarding their rows, and merging them into the output table.
//
// Invariants (besides those of the header):
// - A replacement or removal changes the output table before outputRowOwners_, so a failing host
//   call leaves the map describing rows that really are in the output. (A new or changed row sets
//   its owner first and then writes, in that order by design.)
// - An entry's key object is a copy of the first row inserted under that key; only its key
//   fields are used.
// - Trace text is built only when its level is on (KESTO_TRACE tests the level first).
// - With the host's key hashing, outputRowOwners_'s nodes live in a NodePool shared by the map's
//   allocator copies, so the pool outlives every node whatever the order of destruction, and an
//   owner is read through ownerOf (its index entry holds it, see internal/RowKeyMap.h).
#include <Velta/Agent/Aggregator.h>
#include <Velta/Agent/internal/HostKeyHash.h>
#include <Velta/Agent/internal/HostLookahead.h>
#include <Velta/Records.h>
#include <Velta/VeRT.h>

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

namespace Velta::Agent {

namespace {
constexpr const char* kTraceFile = "Aggregator";
constexpr const char* kMetadataPath = "velta/metadata/veTable";
// Steps a resync lets an input walk take toward the next output row before it seeks instead.
constexpr unsigned kResyncStepsBeforeSeek = 2;

// The fixed source lines the traces report.
namespace Line {
constexpr unsigned inputDestroyed = 34;
constexpr unsigned inputRow = 89;
constexpr unsigned inputDelete = 95;
constexpr unsigned destroyed = 137;
constexpr unsigned adding = 234;
constexpr unsigned invalidRowType = 251;
constexpr unsigned agentNameWithSlash = 256;
}  // namespace Line
}  // namespace

static_assert(internal::kHostKeyHashDetected == (VELTA_AGENT_HOST_KEY_HASH != 0),
              "Velta/Agent/Config.h records another choice of the host's key-hash capability than this "
              "compilation detects: configure the build again");
static_assert(internal::kHostLookaheadDetected == (VELTA_AGENT_HOST_LOOKAHEAD != 0),
              "Velta/Agent/Config.h records another choice of the host's lookahead capability than this "
              "compilation detects: configure the build again");
#if VELTA_AGENT_HOST_KEY_HASH
static_assert(sizeof(Aggregator::OutputRowOwners::value_type) + 4 * sizeof(void*) <=
                  internal::NodePool::kSlot,
              "an owner entry's tree node must fit a pool slot");
#endif

// ---------------------------------------------------------------------------------------------
// Debug channels

Aggregator::__kestoDebug::~__kestoDebug() = default;

Kesto::Platform::DebugHandler* Aggregator::__kestoDebug::getHandler() {
    static Kesto::Platform::DebugHandler* const handler = Kesto::Platform::getDebugHandler("Aggregator");
    return handler;
}

Aggregator::AggregatorInputTable::__kestoDebug::~__kestoDebug() = default;

Kesto::Platform::DebugHandler* Aggregator::AggregatorInputTable::__kestoDebug::getHandler() {
    static Kesto::Platform::DebugHandler* const handler = Kesto::Platform::getDebugHandler("Aggregator");
    return handler;
}

// ---------------------------------------------------------------------------------------------
// AggregatorInputTable

Aggregator::AggregatorInputTable::AggregatorInputTable(VeltaDB::p_t vdb, Aggregator* aggregator,
                                                       const std::string& tablePath,
                                                       const std::string& rowTypeName,
                                                       const std::string& agentName, bool scheduled,
                                                       bool bindFlag)
    : vdb_(std::move(vdb)),
      aggregator_(aggregator),
      agentName_(agentName),
      outputReady_(false),
      inputObserver("inputObserver", rowTypeName, kObserverMode, this, &AggregatorInputTable::onObserverReady,
                    &AggregatorInputTable::onRow, &AggregatorInputTable::onDelete, nullptr),
      walkPosition_(),
      debugChannel_(__kestoDebug::getHandler(), false) {
    inputObserver.scheduledIs(scheduled);
    // Not client-ready yet: nothing is delivered before the output can take rows.
    vdb_->bindInterface(inputObserver, tablePath, bindFlag);
#if VELTA_AGENT_HOST_LOOKAHEAD
    if (auto* lookahead = HostCapability::Lookahead::of(*vdb_))
        lookahead->lookaheadIs(inputObserver, &Aggregator::lookAhead, aggregator_);
#endif
}

Aggregator::AggregatorInputTable::~AggregatorInputTable() {
    KESTO_TRACE(debugChannel_, 9, kTraceFile, Line::inputDestroyed, "~AggregatorInputTable",
                "Velta::Agent::Aggregator::AggregatorInputTable::~AggregatorInputTable()"
                    << " " << inputObserver.tablePath() << "=>" << aggregator_->outputModifier.tablePath());
}

void Aggregator::AggregatorInputTable::outputReady() {
    outputReady_ = true;
    inputObserver.clientReadyIs(true);
}

void Aggregator::AggregatorInputTable::walkInputTable() {
    // Resume at the bookmarked row if it still exists, otherwise at its successor.
    VeRowIterator position = walkPosition_.empty() ? first() : lowerBound(walkPosition_);
    const VeRowIterator end = inputObserver.end(0);
    while (position != end) {
        walkPosition_ = *position;
        // Stop before the row: the bookmark names a row that has not been forwarded yet.
        if (aggregator_->blocked()) return;
        aggregator_->onInputRow(inputObserver.tablePath(), walkPosition_);
        ++position;
    }
    walkPosition_.clear();
}

void Aggregator::AggregatorInputTable::outputBlocked(bool blocked) {
    if (blocked) {
        if (inputObserver.activated()) inputObserver.deactivate(true);
        return;
    }
    if (inputObserver.attachment() == 0) return;  // not attached to its table yet
    if (!walkPosition_.empty()) {
        // A resumed walk leaves the observer as it is, even when it reaches the end.
        walkInputTable();
        return;
    }
    inputObserver.activate(false);
}

void Aggregator::AggregatorInputTable::onObserverReady() {
    inputObserver.activate(true);
    walkInputTable();
    if (!walkPosition_.empty()) return;  // walk pending: stay activated until it resumes
    inputObserver.activate(false);
}

void Aggregator::AggregatorInputTable::onRow(const BaseRow& row) {
    BaseRow copy(row);  // shares the row data; the aggregator needs a modifiable row
    KESTO_TRACE(debugChannel_, 9, kTraceFile, Line::inputRow, "onRow",
                "void Velta::Agent::Aggregator::AggregatorInputTable::onRow(const Velta::BaseRow&)"
                    << " " << inputObserver.tablePath() << "=>" << aggregator_->outputModifier.tablePath()
                    << ", " << copy.toString());
    aggregator_->onInputRow(inputObserver.tablePath(), copy);
}

void Aggregator::AggregatorInputTable::onDelete(const BaseRow& row) {
    KESTO_TRACE(debugChannel_, 9, kTraceFile, Line::inputDelete, "onDelete",
                "void Velta::Agent::Aggregator::AggregatorInputTable::onDelete(const Velta::BaseRow&)"
                    << " " << inputObserver.tablePath() << "=>" << aggregator_->outputModifier.tablePath()
                    << ", " << row.toString());
    aggregator_->onInputRowDelete(inputObserver.tablePath(), row);
}

// ---------------------------------------------------------------------------------------------
// Aggregator: construction, switches, teardown

Aggregator::Aggregator(VeltaDB::p_t vdb, const std::string& inputPathPrefix,
                       const std::string& inputPathSuffix, const std::string& outputPath,
                       const std::string& rowTypeName, bool deleteWithoutReplacement, bool enabled,
                       bool bindFlag)
    : vdb_(std::move(vdb)),
      outputModifier("outputModifier", rowTypeName, kModifierMode, this, &Aggregator::onReady, nullptr,
                     nullptr, nullptr),
      veTableObserver_("veTableObserver_", veMetadata::veTable::rowTypeName(), kObserverMode, this,
                       &Aggregator::onVeTableReady, &Aggregator::onVeTableRow, &Aggregator::onVeTableDelete,
                       nullptr),
      rowOps_(vdb_->getRowOps(rowTypeName, 0)),
      keyLess_(rowOps_),
      inputTables_(),
      outputRowOwners_(keyLess_),
      inputPathPrefix_(inputPathPrefix),
      inputPathSuffix_(inputPathSuffix),
      outputPath_(outputPath),
      deleteWithoutReplacement_(deleteWithoutReplacement),
      bindFlag_(bindFlag),
      enabled_(enabled),
      scheduled_(true),
      suppressResync_(false),
      affixLength_(inputPathPrefix.size() + inputPathSuffix.size()),
      inputsScanned_(false),
      debugChannel_(__kestoDebug::getHandler(), false) {
    veTableObserver_.scheduledIs(false);
    vdb_->bindInterface(outputModifier, outputPath_, bindFlag_);
    vdb_->bindInterface(veTableObserver_, kMetadataPath, bindFlag_);
    // The output modifier only writes; the host reports it ready without being asked.
    if (enabled_) veTableObserver_.clientReadyIs(true);
}

Aggregator::~Aggregator() {
    KESTO_TRACE(debugChannel_, 9, kTraceFile, Line::destroyed, "~Aggregator",
                "Velta::Agent::Aggregator::~Aggregator()"
                    << " " << outputModifier.tablePath());
}

bool Aggregator::ready() const { return inputsScanned_ && outputModifier.ready(); }

void Aggregator::enableIs(bool value) {
    enabled_ = value;
    if (value) onReady();
}

// ---------------------------------------------------------------------------------------------
// Aggregator: discovery of inputs

void Aggregator::onVeTableReady() {
    veTableObserver_.activate(true);
    const VeRowIterator end = veTableObserver_.end(0);
    for (VeRowIterator position = veTableObserver_.begin(0); position != end; ++position) {
        onVeTableRow(*position);
    }
    veTableObserver_.activate(false);
    inputsScanned_ = true;
    // Starts every input admitted by the pass at once.
    onReady();
}

void Aggregator::onVeTableRow(const BaseRow& row) {
    const veMetadata::veTable table(row);
    // Read where the row holds it (the getter copies): most tables are not inputs.
    static const auto kTablePath =
        static_cast<std::size_t>(veMetadata::veTable::type().fieldIndex("tablePath"));
    const std::string& path = table.string(kTablePath);

    // Prefix, at least one character, suffix; the length test keeps prefix and suffix apart.
    if (affixLength_ >= path.size()) return;
    if (path.compare(0, inputPathPrefix_.size(), inputPathPrefix_) != 0) return;
    if (path.compare(path.size() - inputPathSuffix_.size(), inputPathSuffix_.size(), inputPathSuffix_) != 0)
        return;

    const std::string agentName = path.substr(inputPathPrefix_.size(), path.size() - affixLength_);
    if (agentName.find('/') != std::string::npos) {
        KESTO_TRACE(
            debugChannel_, 1, kTraceFile, Line::agentNameWithSlash, "onVeTableRow",
            "Aggregated input table " << path << " has agent name " << agentName << " containing '/' ");
        return;
    }
    // An admitted table is not examined again, even when its metadata changes.
    if (inputTables_.find(path) != inputTables_.end()) return;

    KESTO_TRACE(debugChannel_, 6, kTraceFile, Line::adding, "onVeTableRow",
                "Adding aggregated input table " << path << " to " << outputModifier.tablePath());

    const std::string typeName = table.typeName();
    if (typeName == outputModifier.rowTypeName() && !VeltaDB::veClass(typeName).empty()) {
        auto input = std::make_shared<AggregatorInputTable>(vdb_, this, path, outputModifier.rowTypeName(),
                                                            agentName, scheduled_, bindFlag_);
        const auto entry = inputTables_.emplace(path, std::move(input)).first;
        // An input appearing while the aggregator runs starts at once.
        if (ready()) entry->second->outputReady();
        return;
    }
    // Not remembered: a later metadata row for this path is examined afresh.
    KESTO_TRACE(debugChannel_, 1, kTraceFile, Line::invalidRowType, "onVeTableRow",
                "Row type " << typeName << " is not valid, input table not added.");
}

void Aggregator::onVeTableDelete(const BaseRow& row) {
    const veMetadata::veTable table(row);
    const auto found = inputTables_.find(table.tablePath());
    if (found == inputTables_.end()) return;

    // Out of inputTables_ first, so the leaving input cannot be chosen to replace its own rows.
    std::shared_ptr<AggregatorInputTable> input = found->second;
    inputTables_.erase(found);

#if VELTA_AGENT_HOST_KEY_HASH
    // An input that supplied few of the output rows is settled without reading every owner: the
    // same rows, in the same key order, as the walk below.
    std::vector<OutputRowOwners::iterator> owned;
    if (outputRowOwners_.collectFew(input, owned)) {
        for (const auto entry : owned) updateOutputOnDelete(entry);
        return;  // the input table goes with `input`, after its rows are settled
    }
#endif
    for (auto entry = outputRowOwners_.begin(); entry != outputRowOwners_.end();) {
        if (ownerOf(entry) == input) {
            entry = updateOutputOnDelete(entry);
        } else {
            ++entry;
        }
    }
    // Normally the last reference: the input table is destroyed here, after its rows are settled.
    input.reset();
}

// ---------------------------------------------------------------------------------------------
// Aggregator: merging

#if VELTA_AGENT_HOST_LOOKAHEAD
void Aggregator::lookAhead(void* aggregator, const BaseRow& row) {
    auto& self = *static_cast<Aggregator*>(aggregator);
#if VELTA_AGENT_HOST_KEY_HASH
    self.outputRowOwners_.prefetch(row);
#endif
    HostCapability::Lookahead::prefetchKey(self.outputModifier, row);
}
#endif

void Aggregator::onInputRow(const std::string& path, BaseRow& row) {
    const std::shared_ptr<AggregatorInputTable>& owner = inputTables_.findOrInsert(path);
    // No precedence between inputs: the latest delivery wins and takes the key over.
#if VELTA_AGENT_HOST_KEY_HASH
    const auto entry = outputRowOwners_.locate(row);
    if (!entry) {
        outputRowOwners_.emplace(row, owner);
    } else if (entry.value() != owner) {
        outputRowOwners_.assign(entry, owner);
    }
#else
    const auto entry = outputRowOwners_.lower_bound(row);
    if (entry == outputRowOwners_.end() || keyLess_(row, entry->first)) {
        outputRowOwners_.emplace_hint(entry, row, owner);
    } else if (entry->second != owner) {
        entry->second = owner;
    }
#endif
    outputModifier.rowIs(row);
}

void Aggregator::onInputRowDelete(const std::string& path, const BaseRow& row) {
    // inputTables_ does not change below, so the reference stays valid.
    const std::shared_ptr<AggregatorInputTable>& owner = inputTables_.findOrInsert(path);
#if VELTA_AGENT_HOST_KEY_HASH
    const auto entry = outputRowOwners_.locate(row);
    if (!entry) return;
    // Another input supplied the output row: it stays.
    if (entry.value() != owner) return;
    settleOutputRow(entry.pos(), row);
#else
    const auto entry = outputRowOwners_.find(row);
    if (entry == outputRowOwners_.end()) return;
    // Another input supplied the output row: it stays.
    if (entry->second != owner) return;
    updateOutputOnDelete(entry);
#endif
}

const std::shared_ptr<Aggregator::AggregatorInputTable>& Aggregator::ownerOf(
    OutputRowOwners::const_iterator entry) const {
#if VELTA_AGENT_HOST_KEY_HASH
    return outputRowOwners_.value(entry);
#else
    return entry->second;
#endif
}

Aggregator::OutputRowOwners::iterator Aggregator::updateOutputOnDelete(OutputRowOwners::iterator entry) {
    const auto next = std::next(entry);
    settleOutputRow(entry, entry->first);
    return next;
}

void Aggregator::settleOutputRow(OutputRowOwners::iterator entry, const BaseRow& key) {
    if (!deleteWithoutReplacement_ && !inputTables_.empty()) {
        // Replacement by path order, not by recency. The deleting input is asked too: the host
        // no longer shows a row once it has reported its deletion.
        for (const auto& [path, input] : inputTables_) {
            if (!input) continue;
            BaseRow replacement = input->row(key);
            if (replacement.empty()) continue;
            outputModifier.rowIs(replacement);
#if VELTA_AGENT_HOST_KEY_HASH
            const auto& less = outputRowOwners_.key_comp();
            if (!less(replacement, key) && !less(key, replacement)) {
                // Only the key fields of an entry's key object are used: the entry changes hands
                // where it is, instead of leaving the tree and entering it again at the same place.
                outputRowOwners_.assign(entry, replacement, input);
                return;
            }
            // A row of another type is another key of the map, even with the same key fields: the
            // entry leaves and the replacement enters under its own key.
            outputRowOwners_.erase(entry, key);
            outputRowOwners_.emplace(std::move(replacement), input);
#else
            const auto next = std::next(entry);
            outputRowOwners_.erase(entry);
            outputRowOwners_.emplace_hint(next, std::move(replacement), input);
#endif
            return;
        }
    }
    outputModifier.rowDel(key);
#if VELTA_AGENT_HOST_KEY_HASH
    outputRowOwners_.erase(entry, key);
#else
    outputRowOwners_.erase(entry);
#endif
}

void Aggregator::onReady() {
    if (!enabled_) return;
    if (!inputsScanned_) {
        // Nothing can start before the first metadata pass has ended.
        veTableObserver_.clientReadyIs(true);
        return;
    }
    if (!outputModifier.ready()) return;

    if (!suppressResync_) {
        // One merge of ordered walks: the output and every input advance together in key order, so
        // each table is read front to back once and an input without rows costs nothing per output
        // row. An input that lags far behind the output (many rows the output lacks) seeks instead
        // of stepping, so a resync never costs more than a lookup per input and output row.
        // Collect first, delete afterwards: the output is never changed while it is iterated.
        struct InputWalk {
            const AggregatorInputTable* input;
            VeRowIterator position;
        };
        std::vector<InputWalk> walks;  // in path order: the first holder decides, as on a deletion
        walks.reserve(inputTables_.size());
        for (const auto& [path, input] : inputTables_) {
            if (input) walks.push_back({input.get(), input->first()});
        }
        const auto& less = outputRowOwners_.key_comp();
        std::vector<BaseRow> unheld;
        const VeRowIterator end = outputModifier.end(0);
        for (VeRowIterator position = outputModifier.begin(0); position != end; ++position) {
            const BaseRow& outputRow = *position;
            bool held = false;
            for (InputWalk& walk : walks) {
                VeRowIterator& at = walk.position;
                bool sought = false;
                for (unsigned steps = 0; !at.atEnd() && less(*at, outputRow); ++steps) {
                    if (steps == kResyncStepsBeforeSeek) {
                        at = walk.input->lowerBound(outputRow);
                        sought = true;
                        break;
                    }
                    ++at;
                }
                // A step stops at a row not ordered before the output row; a seek goes by the input
                // table's own order, where a row of another type can sit anywhere in this one.
                if (!at.atEnd() && !less(outputRow, *at) && (!sought || !less(*at, outputRow))) {
                    held = true;
                    break;
                }
            }
            if (!held) unheld.push_back(outputRow);
        }
        // The walks compare rows in the output's key order, where rows of another type never
        // match. An input whose table has another type still holds the row when a lookup by the
        // row's key fields finds it there, so a row is deleted only when no input's lookup does.
        for (const BaseRow& outputRow : unheld) {
            const bool held = std::any_of(walks.begin(), walks.end(), [&](const InputWalk& walk) {
                return !walk.input->row(outputRow).empty();
            });
            if (!held) outputModifier.rowDel(outputRow);
        }
    }

    for (const auto& [path, input] : inputTables_) {
        if (input) input->outputReady();
    }
}

// ---------------------------------------------------------------------------------------------
// Aggregator: introspection

std::string Aggregator::outputRowSource(const BaseRow& outputKey) const {
    if (outputKey.empty()) return std::string();
    const auto entry = outputRowOwners_.find(outputKey);
    if (entry == outputRowOwners_.end() || ownerOf(entry) == nullptr) return std::string();
    return ownerOf(entry)->tablePath();
}

std::vector<std::string> Aggregator::inputPaths() const {
    std::vector<std::string> paths;
    paths.reserve(inputTables_.size());
    for (const auto& [path, input] : inputTables_) {
        if (input) paths.push_back(path);
    }
    return paths;
}

std::shared_ptr<Aggregator::AggregatorInputTable> Aggregator::inputTable(const std::string& path) const {
    const auto found = inputTables_.find(path);
    return found == inputTables_.end() ? nullptr : found->second;
}

}  // namespace Velta::Agent
