// Aggregator storms: seeded random histories checked against a reference model of the merge.
//
// A history is a list of steps: input tables created and dropped (some of the wrong row type or
// of a path the pattern refuses), rows written, replaced and deleted (some of a foreign row type,
// which the host converts by field name), rows written straight into the output by a client, the
// aggregator built, destroyed and rebuilt with either deleteWithoutReplacement, enabled late,
// re-enabled (a resync) or told to suppress its resync. After every settle the output table, the
// owner of every output row and the list of admitted inputs must be exactly what the model says.
//
// The model is written from the documented behaviour of the host and of the aggregator, not from
// the aggregator's source. It keeps its own queue of host callbacks, because the outcome of a
// batch of client writes depends on the state of the tables when each callback is delivered (a
// replacement reads the inputs as they are then, not as they were when the row went away):
//   - the host queues a ready callback when an interface is bound (an observer: once it is also
//     client-ready); after that, an observer gets a row callback per insert or replace and a
//     delete callback per removal, with the row as it was written; destroying an interface drops
//     what was queued for it; dropping a table removes its rows without delete callbacks and
//     deletes its metadata row; binding a path with no table creates the table;
//   - the aggregator admits a table when its metadata row arrives (or in the first full pass over
//     the metadata) if its path is prefix + one component + suffix and its type is the output's;
//     the row delivered last wins a key; when the winning row goes, the first admitted input in
//     path order that holds the key supplies it, else the key is deleted (with
//     deleteWithoutReplacement: always deleted); a dropped input's keys are settled the same way;
//     a ready pass deletes output rows whose key no input holds (unless suppressed) and starts
//     every input, which walks all its rows into the output.
//
// A divergence prints the seed, the step and both tables, then a shrunk history (steps dropped
// while it still fails). VELTA_STORM_SEED=S replays one history; VELTA_STORM_HISTORIES=N sets
// the number of histories (default 10,000) and VELTA_STORM_SHUFFLES=N the number of shuffled
// histories.
#include "TestSupport.h"

#include <Velta/Agent/Aggregator.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Velta::BaseRow;
using Velta::FieldKind;
using Velta::RowType;
namespace Host = Velta::Host;
using Velta::Agent::Aggregator;

constexpr const char* kPrefix = "velta/storm/";
constexpr const char* kSuffix = "/rows";
constexpr const char* kOutput = "velta/merged/rows";
constexpr const char* kRowTypeName = "Storm::Row";
constexpr const char* kForeignTypeName = "Storm::Note";

// Table slots. The first four fit the pattern; the others are refused for their path.
constexpr std::array<const char*, 8> kPaths = {
    "velta/storm/a/rows",   "velta/storm/b/rows", "velta/storm/c/rows", "velta/storm/d/rows",
    "velta/storm/x/y/rows",  // agent name containing '/'
    "velta/storm//rows",     // no agent name at all
    "velta/stormy/a/rows",   // prefix differs
    "velta/storm/e/rowsy",   // suffix differs
};
constexpr int kGoodSlots = 4;
constexpr int kKeys = 4;

const RowType& rowType() {
    static const RowType& t = Host::defineRowType(
        kRowTypeName, {{"key", FieldKind::string}, {"src", FieldKind::string}, {"ver", FieldKind::u32}},
        {"key"});
    return t;
}
// A second type with the same key field: written into an input it reads as a row with only its key.
const RowType& foreignType() {
    static const RowType& t = Host::defineRowType(
        kForeignTypeName, {{"key", FieldKind::string}, {"note", FieldKind::string}}, {"key"});
    return t;
}

std::string keyName(int key) { return "k" + std::to_string(key); }

// ---------------------------------------------------------------------------------------------
// Histories

enum class Op : std::uint8_t {
    create,        // create table `slot`, of the output's type (flag) or the foreign type
    drop,          // drop table `slot`
    write,         // write key/ver into table `slot`
    writeForeign,  // write a foreign-type row with `key` into table `slot`
    erase,         // delete `key` from table `slot`
    writeOutput,   // a client writes key/ver straight into the output table
    eraseOutput,   // a client deletes `key` from the output table
    build,         // construct the aggregator: deleteWithoutReplacement = flag, enabled = flag2
    destroy,       // destroy it
    enable,        // enableIs(flag)
    suppress,      // suppressResyncIs(flag)
    settle,        // deliver every queued callback, then compare with the model
};

struct Step {
    Op op = Op::settle;
    std::uint8_t slot = 0;
    std::uint8_t key = 0;
    bool flag = false;
    bool flag2 = false;
    std::uint32_t ver = 0;
};

std::string describe(const Step& s) {
    std::ostringstream os;
    const std::string path = kPaths[s.slot];
    switch (s.op) {
        case Op::create:
            os << "create " << path << (s.flag ? " as Storm::Row" : " as Storm::Note");
            break;
        case Op::drop:
            os << "drop " << path;
            break;
        case Op::write:
            os << "write " << path << " " << keyName(s.key) << " ver=" << s.ver;
            break;
        case Op::writeForeign:
            os << "write Storm::Note " << path << " " << keyName(s.key);
            break;
        case Op::erase:
            os << "delete " << path << " " << keyName(s.key);
            break;
        case Op::writeOutput:
            os << "client writes output " << keyName(s.key) << " ver=" << s.ver;
            break;
        case Op::eraseOutput:
            os << "client deletes output " << keyName(s.key);
            break;
        case Op::build:
            os << "build aggregator deleteWithoutReplacement=" << s.flag << " enabled=" << s.flag2;
            break;
        case Op::destroy:
            os << "destroy aggregator";
            break;
        case Op::enable:
            os << "enableIs(" << s.flag << ")";
            break;
        case Op::suppress:
            os << "suppressResyncIs(" << s.flag << ")";
            break;
        case Op::settle:
            os << "settle";
            break;
    }
    return os.str();
}

// ---------------------------------------------------------------------------------------------
// The reference model

struct Val {
    std::string src;
    std::uint32_t ver = 0;
    bool operator==(const Val&) const = default;
};

class MergeModel {
public:
    struct Table {
        bool ofRowType = true;  // false: the foreign type
        std::map<std::string, Val> rows;
    };
    struct Input {
        unsigned id = 0;
        bool readyQueued = false;
    };
    struct Agg {
        unsigned gen = 0;
        bool dwr = false;
        bool enabled = false;
        bool suppress = false;
        bool scanned = false;
        bool outputReady = false;                // outputModifier.ready()
        bool metaReadyQueued = false;            // the metadata observer's ready callback was queued
        std::map<std::string, Input> inputs;     // admitted, by path
        std::map<std::string, unsigned> owners;  // key -> input id
    };
    struct Event {
        enum Kind { outputReady, metaReady, metaRow, metaDelete, inputReady, inputRow, inputDelete } kind;
        unsigned gen = 0;
        unsigned input = 0;
        std::string path;
        bool ofRowType = true;
        std::string key;
        Val val;
    };

    std::map<std::string, Table> tables;  // storm tables and the output
    std::optional<Agg> agg;
    std::deque<Event> queue;
    std::size_t deliveries = 0;

    bool exists(const std::string& path) const { return tables.count(path) != 0; }
    const Table* table(const std::string& path) const {
        auto it = tables.find(path);
        return it == tables.end() ? nullptr : &it->second;
    }

    // Client operations, as they take effect at once.
    void createTable(const std::string& path, bool ofRowType) {
        if (exists(path)) return;
        tables[path] = Table{ofRowType, {}};
        if (agg && agg->metaReadyQueued)
            queue.push_back({Event::metaRow, agg->gen, 0, path, ofRowType, {}, {}});
    }
    void dropTable(const std::string& path) {
        if (tables.erase(path) == 0) return;
        if (agg && agg->metaReadyQueued)
            queue.push_back({Event::metaDelete, agg->gen, 0, path, true, {}, {}});
    }
    void write(const std::string& path, const std::string& key, const Val& val) {
        auto it = tables.find(path);
        if (it == tables.end()) return;
        it->second.rows[key] = val;
        if (const Input* in = observer(path))
            queue.push_back({Event::inputRow, agg->gen, in->id, path, true, key, val});
    }
    void erase(const std::string& path, const std::string& key) {
        auto it = tables.find(path);
        if (it == tables.end() || it->second.rows.erase(key) == 0) return;
        if (const Input* in = observer(path))
            queue.push_back({Event::inputDelete, agg->gen, in->id, path, true, key, {}});
    }
    void build(bool dwr, bool enabled) {
        agg = Agg{};
        agg->gen = ++generation_;
        agg->dwr = dwr;
        agg->enabled = enabled;
        // The output modifier is bound first (creating the output table), then the metadata
        // observer, which is client-ready at once only when enabled.
        bindCreates(kOutput);
        queue.push_back({Event::outputReady, agg->gen, 0, kOutput, true, {}, {}});
        if (enabled) declareMetaReady();
    }
    void destroy() {
        if (!agg) return;
        const unsigned gen = agg->gen;
        agg.reset();
        std::erase_if(queue, [gen](const Event& e) { return e.gen == gen; });
    }
    void enableIs(bool value) {
        if (!agg) return;
        agg->enabled = value;
        if (value) onReady();
    }
    void suppressResyncIs(bool value) {
        if (agg) agg->suppress = value;
    }

    void runUntilIdle() {
        while (!queue.empty()) {
            Event e = queue.front();
            queue.pop_front();
            ++deliveries;
            deliver(e);
        }
    }

    // Path of the input that owns `key`, or "".
    std::string ownerPath(const std::string& key) const {
        if (!agg) return "";
        auto it = agg->owners.find(key);
        if (it == agg->owners.end()) return "";
        for (const auto& [path, in] : agg->inputs)
            if (in.id == it->second) return path;
        return "?";  // an owner that is no longer admitted: the model itself is broken
    }
    std::vector<std::string> inputPaths() const {
        std::vector<std::string> paths;
        if (agg)
            for (const auto& [path, in] : agg->inputs) paths.push_back(path);
        return paths;
    }

    static bool shapeAccepted(const std::string& path, std::string* agentName) {
        const std::string prefix = kPrefix, suffix = kSuffix;
        if (path.size() <= prefix.size() + suffix.size()) return false;
        if (path.compare(0, prefix.size(), prefix) != 0) return false;
        if (path.compare(path.size() - suffix.size(), suffix.size(), suffix) != 0) return false;
        *agentName = path.substr(prefix.size(), path.size() - prefix.size() - suffix.size());
        return true;
    }
    // Whether the aggregator would admit the table at `path` as it is now.
    bool admissible(const std::string& path) const {
        std::string agentName;
        const Table* t = table(path);
        return t && t->ofRowType && shapeAccepted(path, &agentName) &&
               agentName.find('/') == std::string::npos;
    }

private:
    unsigned generation_ = 0;
    unsigned nextInput_ = 0;

    // The admitted input observing `path` whose ready callback was queued, if any.
    const Input* observer(const std::string& path) const {
        if (!agg) return nullptr;
        auto it = agg->inputs.find(path);
        return it != agg->inputs.end() && it->second.readyQueued ? &it->second : nullptr;
    }
    // Binding a path with no table creates it with the interface's type (and its metadata row).
    void bindCreates(const std::string& path) {
        if (exists(path)) return;
        tables[path] = Table{true, {}};
        if (agg && agg->metaReadyQueued) queue.push_back({Event::metaRow, agg->gen, 0, path, true, {}, {}});
    }
    void declareMetaReady() {
        if (agg->metaReadyQueued) return;
        agg->metaReadyQueued = true;
        queue.push_back({Event::metaReady, agg->gen, 0, "velta/metadata/veTable", true, {}, {}});
    }
    bool running() const { return agg->scanned && agg->outputReady; }

    void startInput(Input& in, const std::string& path) {
        if (in.readyQueued) return;
        in.readyQueued = true;
        queue.push_back({Event::inputReady, agg->gen, in.id, path, true, {}, {}});
    }

    void onReady() {
        if (!agg->enabled) return;
        if (!agg->scanned) {
            declareMetaReady();
            return;
        }
        if (!agg->outputReady) return;
        if (!agg->suppress) {
            std::vector<std::string> gone;
            for (const auto& [key, val] : tables[kOutput].rows)
                if (!heldByAnyInput(key)) gone.push_back(key);
            for (const std::string& key : gone) tables[kOutput].rows.erase(key);
        }
        for (auto& [path, in] : agg->inputs) startInput(in, path);
    }

    bool heldByAnyInput(const std::string& key) const {
        for (const auto& [path, in] : agg->inputs) {
            const Table* t = table(path);
            if (t && t->rows.count(key)) return true;
        }
        return false;
    }

    void admit(const std::string& path, bool ofRowType) {
        std::string agentName;
        if (!shapeAccepted(path, &agentName)) return;
        if (agentName.find('/') != std::string::npos) return;
        if (agg->inputs.count(path)) return;
        if (!ofRowType) return;  // refused, and not remembered
        Input& in = agg->inputs[path];
        in.id = ++nextInput_;
        bindCreates(path);
        if (running()) startInput(in, path);
    }

    void outputRow(const std::string& key, const Val& val, unsigned owner) {
        tables[kOutput].rows[key] = val;
        agg->owners[key] = owner;
    }

    void settleKey(const std::string& key) {
        if (!agg->dwr && !agg->inputs.empty()) {
            for (const auto& [path, in] : agg->inputs) {
                const Table* t = table(path);
                if (!t) continue;
                auto row = t->rows.find(key);
                if (row == t->rows.end()) continue;
                outputRow(key, row->second, in.id);
                return;
            }
        }
        tables[kOutput].rows.erase(key);
        agg->owners.erase(key);
    }

    void deliver(const Event& e) {
        switch (e.kind) {
            case Event::outputReady:
                agg->outputReady = true;
                onReady();
                break;
            case Event::metaReady: {
                std::vector<std::pair<std::string, bool>> rows;
                for (const auto& [path, t] : tables) rows.emplace_back(path, t.ofRowType);
                for (const auto& [path, ofRowType] : rows) admit(path, ofRowType);
                agg->scanned = true;
                onReady();
                break;
            }
            case Event::metaRow:
                admit(e.path, e.ofRowType);
                break;
            case Event::metaDelete: {
                auto it = agg->inputs.find(e.path);
                if (it == agg->inputs.end()) break;
                const unsigned id = it->second.id;
                agg->inputs.erase(it);
                std::vector<std::string> owned;
                for (const auto& [key, owner] : agg->owners)
                    if (owner == id) owned.push_back(key);
                for (const std::string& key : owned) settleKey(key);
                std::erase_if(queue, [id](const Event& q) { return q.input == id; });
                break;
            }
            case Event::inputReady: {
                const Table* t = table(e.path);
                if (!t) break;
                const std::map<std::string, Val> rows = t->rows;
                for (const auto& [key, val] : rows) outputRow(key, val, e.input);
                break;
            }
            case Event::inputRow:
                outputRow(e.key, e.val, e.input);
                break;
            case Event::inputDelete: {
                auto it = agg->owners.find(e.key);
                if (it != agg->owners.end() && it->second == e.input) settleKey(e.key);
                break;
            }
        }
    }
};

// ---------------------------------------------------------------------------------------------
// Running a history on the host and the model side by side

struct Stats {
    std::size_t histories = 0;
    std::size_t steps = 0;
    std::size_t settles = 0;
    std::size_t deliveries = 0;
    std::size_t outputRows = 0;  // output rows compared, summed over settles
};

class StormRun {
public:
    // `shuffleSeed` 0: FIFO delivery. Otherwise the host delivers in a seeded order and the run
    // only accepts batches whose outcome cannot depend on that order (see orderFree()).
    explicit StormRun(std::uint64_t shuffleSeed) : shuffled_(shuffleSeed != 0) {
        Host::Database::Options options;
        options.shuffleSeed = shuffleSeed;
        db_ = Host::Database::create(options);
        Host::AgentOptions agent;
        agent.agentName = "merger";
        agent.systemName = "storm";
        handle_ = db_->connect(agent);
    }
    ~StormRun() { aggregator_.reset(); }

    const MergeModel& model() const { return model_; }
    // With shuffled delivery: the batch holds a structural step, so only a settle may follow.
    bool batchClosed() const { return batchClosed_; }

    // Applies one step to both sides; returns a description of the first divergence, if any.
    std::optional<std::string> apply(const Step& s, Stats* stats) {
        if (!accepted(s)) return std::nullopt;
        if (stats) ++stats->steps;
        const std::string path = kPaths[s.slot];
        const std::string key = keyName(s.key);
        switch (s.op) {
            case Op::create:
                db_->createTable(path, s.flag ? kRowTypeName : kForeignTypeName);
                model_.createTable(path, s.flag);
                created_.insert(path);
                break;
            case Op::drop:
                droppedType_.emplace(path, model_.table(path)->ofRowType);
                db_->dropTable(path);
                model_.dropTable(path);
                break;
            case Op::write: {
                const std::string src = path.substr(0, path.size() - 5);
                db_->write(path,
                           Velta::Test::makeRow(rowType(), {{"key", key}, {"src", src}, {"ver", s.ver}}));
                if (model_.table(path)->ofRowType)
                    model_.write(path, key, Val{src, s.ver});
                else
                    model_.write(path, key, Val{});
                touch(key, path);
                break;
            }
            case Op::writeForeign:
                db_->write(path, Velta::Test::makeRow(foreignType(), {{"key", key}, {"note", "foreign"}}));
                // Converted by field name: only the key survives in a Storm::Row table.
                model_.write(path, key, model_.table(path)->ofRowType ? Val{} : Val{"foreign", 0});
                touch(key, path);
                break;
            case Op::erase:
                db_->erase(path, Velta::Test::makeRow(rowType(), {{"key", key}}));
                model_.erase(path, key);
                touch(key, path);
                break;
            case Op::writeOutput:
                db_->write(kOutput, Velta::Test::makeRow(rowType(),
                                                         {{"key", key}, {"src", "client"}, {"ver", s.ver}}));
                model_.write(kOutput, key, Val{"client", s.ver});
                break;
            case Op::eraseOutput:
                db_->erase(kOutput, Velta::Test::makeRow(rowType(), {{"key", key}}));
                model_.erase(kOutput, key);
                break;
            case Op::build:
                aggregator_ = std::make_unique<Aggregator>(handle_, kPrefix, kSuffix, kOutput, kRowTypeName,
                                                           s.flag, s.flag2, false);
                model_.build(s.flag, s.flag2);
                break;
            case Op::destroy:
                aggregator_.reset();
                model_.destroy();
                break;
            case Op::enable:
                aggregator_->enableIs(s.flag);
                model_.enableIs(s.flag);
                break;
            case Op::suppress:
                aggregator_->suppressResyncIs(s.flag);
                model_.suppressResyncIs(s.flag);
                break;
            case Op::settle:
                return settle(stats);
        }
        batchHasOps_ = true;
        if (s.op != Op::write && s.op != Op::writeForeign && s.op != Op::erase && s.op != Op::writeOutput &&
            s.op != Op::eraseOutput)
            batchClosed_ = shuffled_;  // a structural step stands alone in a shuffled batch
        return std::nullopt;
    }

    // Whether the step can be applied in the current state (a shrunk history may hold steps
    // that no longer make sense; they are skipped on both sides alike).
    bool accepted(const Step& s) const {
        const std::string path = kPaths[s.slot];
        const MergeModel::Table* t = model_.table(path);
        switch (s.op) {
            case Op::create: {
                if (t || created_.count(path)) return false;
                // A path dropped in this batch comes back only with its old type: a metadata
                // callback still queued for the old table must not meet a table of another type.
                auto d = droppedType_.find(path);
                if (d != droppedType_.end() && d->second != s.flag) return false;
                return orderFree(s);
            }
            case Op::drop:
            case Op::write:
            case Op::writeForeign:
            case Op::erase:
                return t != nullptr && orderFree(s);
            case Op::writeOutput:
            case Op::eraseOutput:
                return model_.exists(kOutput) && orderFree(s);
            case Op::build:
                return !aggregator_ && orderFree(s);
            case Op::destroy:
            case Op::enable:
            case Op::suppress:
                return aggregator_ != nullptr && orderFree(s);
            case Op::settle:
                return true;
        }
        return false;
    }

private:
    // With shuffled delivery, only batches whose outcome is the same in every delivery order
    // (that keeps each interface's own order) are run: either one structural step alone, or row
    // steps in which every key is touched through one input only. Steps that start a walk of
    // several inputs at once (building, enabling) need inputs that share no key, since the
    // walks may then run in any order and the last one wins.
    bool orderFree(const Step& s) const {
        if (!shuffled_) return true;
        if (batchClosed_) return false;
        const bool rowStep = s.op == Op::write || s.op == Op::writeForeign || s.op == Op::erase ||
                             s.op == Op::writeOutput || s.op == Op::eraseOutput;
        if (!rowStep) {
            if (batchHasOps_) return false;
            if (s.op == Op::build || s.op == Op::enable) return inputsDisjoint();
            return true;
        }
        if (s.op == Op::writeOutput || s.op == Op::eraseOutput) return true;
        auto it = touched_.find(keyName(s.key));
        return it == touched_.end() || it->second == kPaths[s.slot];
    }
    bool inputsDisjoint() const {
        std::set<std::string> seen;
        for (const auto& [path, t] : model_.tables) {
            if (path == kOutput || !model_.admissible(path)) continue;
            for (const auto& [key, val] : t.rows)
                if (!seen.insert(key).second) return false;
        }
        return true;
    }
    void touch(const std::string& key, const std::string& path) {
        if (shuffled_) touched_.emplace(key, path);
    }

    std::optional<std::string> settle(Stats* stats) {
        const std::size_t delivered = db_->runUntilIdle();
        model_.runUntilIdle();
        created_.clear();
        droppedType_.clear();
        touched_.clear();
        batchHasOps_ = false;
        batchClosed_ = false;
        if (stats) {
            ++stats->settles;
            stats->deliveries += delivered;
        }
        if (!db_->settled()) return "the host did not settle";

        std::vector<std::string> expected, found;
        if (const MergeModel::Table* out = model_.table(kOutput))
            for (const auto& [key, val] : out->rows)
                expected.push_back(key + " src=" + val.src + " ver=" + std::to_string(val.ver));
        const RowType& type = rowType();
        const auto keyField = static_cast<std::size_t>(type.fieldIndex("key"));
        const auto srcField = static_cast<std::size_t>(type.fieldIndex("src"));
        const auto verField = static_cast<std::size_t>(type.fieldIndex("ver"));
        for (const BaseRow& row : db_->rows(kOutput)) {
            const BaseRow r = row.as(type);
            found.push_back(r.string(keyField) + " src=" + r.string(srcField) +
                            " ver=" + std::to_string(r.number(verField)));
        }
        if (stats) stats->outputRows += found.size();
        if (expected != found) return "output table differs:\n" + diff(expected, found);

        if (!aggregator_) return std::nullopt;
        if (aggregator_->inputPaths() != model_.inputPaths())
            return "admitted inputs differ:\n" + diff(model_.inputPaths(), aggregator_->inputPaths());
        std::vector<std::string> expectedOwners, foundOwners;
        for (int k = 0; k < kKeys; ++k) {
            const std::string key = keyName(k);
            expectedOwners.push_back(key + " <- " + model_.ownerPath(key));
            foundOwners.push_back(key + " <- " +
                                  aggregator_->outputRowSource(Velta::Test::makeRow(type, {{"key", key}})));
        }
        if (expectedOwners != foundOwners)
            return "output row owners differ:\n" + diff(expectedOwners, foundOwners);
        return std::nullopt;
    }

    static std::string diff(const std::vector<std::string>& expected, const std::vector<std::string>& found) {
        std::ostringstream os;
        os << "  expected (model):\n";
        for (const auto& l : expected) os << "    " << l << "\n";
        if (expected.empty()) os << "    (none)\n";
        os << "  found (host):\n";
        for (const auto& l : found) os << "    " << l << "\n";
        if (found.empty()) os << "    (none)\n";
        return os.str();
    }

    bool shuffled_;
    std::shared_ptr<Host::Database> db_;
    Velta::VeltaDB::p_t handle_;
    std::unique_ptr<Aggregator> aggregator_;
    MergeModel model_;
    // Per batch (since the last settle).
    std::set<std::string> created_;
    std::map<std::string, bool> droppedType_;
    std::map<std::string, std::string> touched_;  // key -> the one input path it was touched through
    bool batchHasOps_ = false;
    bool batchClosed_ = false;
};

// A failure: the history as run, the step index that diverged and what was seen.
struct Failure {
    std::size_t step = 0;
    std::string what;
};

std::optional<Failure> replay(const std::vector<Step>& steps, std::uint64_t shuffleSeed,
                              Stats* stats = nullptr) {
    StormRun run(shuffleSeed);
    for (std::size_t i = 0; i < steps.size(); ++i)
        if (auto bad = run.apply(steps[i], stats)) return Failure{i, *bad};
    return std::nullopt;
}

// Draws the next step from the model's current state, so most steps make sense.
Step drawStep(std::mt19937_64& rng, const MergeModel& model, std::uint32_t* ver, bool aggregatorBuilt) {
    auto pick = [&rng](int n) { return static_cast<int>(rng() % static_cast<std::uint64_t>(n)); };
    Step s;
    // Mostly the four good slots; now and then a refused path.
    s.slot =
        static_cast<std::uint8_t>(pick(10) < 8 ? pick(kGoodSlots) : pick(static_cast<int>(kPaths.size())));
    s.key = static_cast<std::uint8_t>(pick(kKeys));
    s.ver = ++*ver;
    const int roll = pick(100);
    const bool exists = model.exists(kPaths[s.slot]);
    if (roll < 12) {
        s.op = Op::settle;
    } else if (roll < 57) {
        s.op = exists ? Op::write : Op::create;
        s.flag = pick(8) != 0;
    } else if (roll < 69) {
        s.op = exists ? Op::erase : Op::create;
        s.flag = pick(8) != 0;
        // Mostly a key the table holds.
        if (exists && pick(4) != 0) {
            const auto& rows = model.table(kPaths[s.slot])->rows;
            if (!rows.empty()) {
                auto it = rows.begin();
                std::advance(it, pick(static_cast<int>(rows.size())));
                s.key = static_cast<std::uint8_t>(std::stoi(it->first.substr(1)));
            }
        }
    } else if (roll < 73) {
        s.op = Op::writeForeign;
    } else if (roll < 78) {
        s.op = Op::create;
        s.flag = pick(6) != 0;
    } else if (roll < 82) {
        s.op = Op::drop;
    } else if (roll < 85) {
        s.op = Op::writeOutput;
    } else if (roll < 87) {
        s.op = Op::eraseOutput;
    } else if (roll < 90) {
        s.op = aggregatorBuilt ? Op::destroy : Op::build;
        s.flag = pick(2) != 0;
        s.flag2 = pick(4) != 0;
    } else if (roll < 97) {
        s.op = Op::enable;
        s.flag = pick(3) != 0;
    } else {
        s.op = Op::suppress;
        s.flag = pick(2) != 0;
    }
    return s;
}

// Generates and runs one history of about `length` steps; returns it with its failure, if any.
std::pair<std::vector<Step>, std::optional<Failure>> stormHistory(std::uint64_t seed,
                                                                  std::uint64_t shuffleSeed,
                                                                  std::size_t length, Stats* stats) {
    // A crash cannot be reported by the test itself: VELTA_STORM_VERBOSE=1 names each history first.
    static const bool verbose = std::getenv("VELTA_STORM_VERBOSE") != nullptr;
    if (verbose) std::cout << "history seed " << seed << " shuffle seed " << shuffleSeed << std::endl;
    std::mt19937_64 rng(seed);
    std::vector<Step> steps;
    std::uint32_t ver = 0;
    StormRun run(shuffleSeed);
    bool built = false;
    // The aggregator is built early in most histories, sometimes only after inputs exist.
    const std::size_t buildAt = rng() % 4 == 0 ? length / 3 : 0;
    for (std::size_t i = 0; i < length; ++i) {
        Step s;
        if ((i == buildAt || (!steps.empty() && steps.back().op == Op::destroy && rng() % 4 != 0)) &&
            !built) {
            // Built at the start or a third in, and mostly rebuilt right after being destroyed.
            s.op = Op::build;
            s.flag = rng() % 2 != 0;
            s.flag2 = rng() % 5 != 0;
        } else if (i + 1 == length || run.batchClosed()) {
            s.op = Op::settle;
        } else {
            s = drawStep(rng, run.model(), &ver, built);
        }
        if (!run.accepted(s)) continue;
        if (s.op == Op::build) built = true;
        if (s.op == Op::destroy) built = false;
        steps.push_back(s);
        if (auto bad = run.apply(s, stats)) return {steps, Failure{steps.size() - 1, *bad}};
    }
    return {steps, std::nullopt};
}

// Drops steps while the history still fails (chunks first, then single steps).
std::vector<Step> shrink(std::vector<Step> steps, std::uint64_t shuffleSeed) {
    return Velta::Test::shrinkHistory(std::move(steps), [&](const std::vector<Step>& candidate) {
        return replay(candidate, shuffleSeed).has_value();
    });
}

std::string report(std::uint64_t seed, std::uint64_t shuffleSeed, const std::vector<Step>& steps,
                   const Failure& failure) {
    std::ostringstream os;
    os << "history seed " << seed;
    if (shuffleSeed) os << " (shuffled delivery, shuffle seed " << shuffleSeed << ")";
    os << " diverged at step " << failure.step + 1 << " (" << describe(steps[failure.step])
       << "): " << failure.what;
    const std::vector<Step> small = shrink(steps, shuffleSeed);
    const std::optional<Failure> again = replay(small, shuffleSeed);
    os << "shrunk history (" << small.size() << " of " << steps.size() << " steps) that still fails:\n";
    for (std::size_t i = 0; i < small.size(); ++i) os << "  " << i + 1 << ". " << describe(small[i]) << "\n";
    if (again) os << "which fails at step " << again->step + 1 << ": " << again->what;
    os << "replay with VELTA_STORM_SEED=" << seed << "\n";
    return os.str();
}

std::size_t envCount(const char* name, std::size_t fallback) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') return fallback;
    return static_cast<std::size_t>(std::strtoull(text, nullptr, 10));
}
std::optional<std::uint64_t> envSeed() {
    const char* text = std::getenv("VELTA_STORM_SEED");
    if (text == nullptr || *text == '\0') return std::nullopt;
    return std::strtoull(text, nullptr, 10);
}

constexpr std::size_t kHistoryLength = 60;

// ---------------------------------------------------------------------------------------------

// The model must be able to tell right from wrong: a hand-made history with a known outcome.
TEST(AggregatorStormModel, PredictsReplacementByPathOrderAndResync) {
    MergeModel m;
    m.createTable(kPaths[0], true);
    m.createTable(kPaths[1], true);
    m.createTable(kPaths[2], true);
    m.write(kPaths[0], "k1", {"a", 1});
    m.write(kPaths[2], "k1", {"c", 2});
    m.write(kOutput, "k9", {"client", 3});  // no output table yet: ignored
    m.build(false, true);
    m.runUntilIdle();
    // Walks run in path order: c's row is delivered last and wins.
    EXPECT_EQ(m.ownerPath("k1"), kPaths[2]);
    m.write(kPaths[1], "k1", {"b", 4});
    m.erase(kPaths[1], "k1");  // b's row goes: a, first in path order, supplies the key
    m.runUntilIdle();
    EXPECT_EQ(m.ownerPath("k1"), kPaths[0]);
    EXPECT_EQ(m.table(kOutput)->rows.at("k1"), (Val{"a", 1}));
    m.write(kOutput, "k9", {"client", 5});
    m.enableIs(true);  // a resync: nobody holds k9
    EXPECT_EQ(m.table(kOutput)->rows.count("k9"), 0u);
    m.dropTable(kPaths[0]);
    m.runUntilIdle();
    EXPECT_EQ(m.ownerPath("k1"), kPaths[2]);
    EXPECT_EQ(m.table(kOutput)->rows.at("k1"), (Val{"c", 2}));
}

TEST(AggregatorStorm, RandomHistoriesMatchTheModel) {
    rowType();
    foreignType();
    Stats stats;
    std::vector<std::uint64_t> seeds;
    if (auto one = envSeed()) {
        seeds.push_back(*one);
    } else {
        const std::size_t count = envCount("VELTA_STORM_HISTORIES", 10000);
        for (std::size_t i = 0; i < count; ++i) seeds.push_back(1000003ULL * (i + 1));
    }
    std::size_t failures = 0;
    for (std::uint64_t seed : seeds) {
        auto [steps, failure] = stormHistory(seed, 0, kHistoryLength, &stats);
        ++stats.histories;
        if (failure) {
            ADD_FAILURE() << report(seed, 0, steps, *failure);
            if (++failures == 3) break;  // shrinking takes time; three reports are plenty
        }
    }
    std::cout << "aggregator storm: " << stats.histories << " histories, " << stats.steps << " steps, "
              << stats.settles << " settles, " << stats.deliveries << " callbacks delivered, "
              << stats.outputRows << " output rows compared\n";
    EXPECT_GE(stats.settles, stats.histories);
}

// The interleaving test below is only worth something if a shuffled host really delivers in
// another order: two inputs writing one key in the same batch must be seen to race.
TEST(AggregatorStorm, ShuffledDeliveryReallyReorders) {
    rowType();  // the tables below are created by name: the type must exist when run alone
    std::set<std::string> winners;
    for (std::uint64_t shuffleSeed = 0; shuffleSeed < 40; ++shuffleSeed) {
        Host::Database::Options options;
        options.shuffleSeed = shuffleSeed;
        auto db = Host::Database::create(options);
        Host::AgentOptions agent;
        agent.agentName = "merger";
        auto aggregator = std::make_unique<Aggregator>(db->connect(agent), kPrefix, kSuffix, kOutput,
                                                       kRowTypeName, false, true, false);
        db->createTable(kPaths[0], kRowTypeName);
        db->createTable(kPaths[1], kRowTypeName);
        db->runUntilIdle();
        db->write(kPaths[1], Velta::Test::makeRow(rowType(), {{"key", "k0"}, {"src", "b"}, {"ver", 1}}));
        db->write(kPaths[0], Velta::Test::makeRow(rowType(), {{"key", "k0"}, {"src", "a"}, {"ver", 2}}));
        db->runUntilIdle();
        winners.insert(aggregator->outputRowSource(Velta::Test::makeRow(rowType(), {{"key", "k0"}})));
    }
    EXPECT_EQ(winners, (std::set<std::string>{kPaths[0], kPaths[1]}));
}

TEST(AggregatorStorm, ShuffledDeliveryGivesTheSameOutcome) {
    rowType();
    foreignType();
    Stats stats;
    const std::size_t count = envSeed() ? 1 : envCount("VELTA_STORM_SHUFFLES", 500);
    std::size_t failures = 0;
    // Each history runs under three delivery orders; the model (one fixed order) must match all.
    for (std::size_t i = 0; i < count && failures < 3; ++i) {
        const std::uint64_t seed = envSeed().value_or(7000003ULL * (i + 1));
        for (std::uint64_t shuffle = 1; shuffle <= 3; ++shuffle) {
            const std::uint64_t shuffleSeed = seed * 31 + shuffle;
            auto [steps, failure] = stormHistory(seed, shuffleSeed, kHistoryLength, &stats);
            ++stats.histories;
            if (failure) {
                ADD_FAILURE() << report(seed, shuffleSeed, steps, *failure);
                ++failures;
                break;
            }
        }
    }
    std::cout << "aggregator interleavings: " << stats.histories << " shuffled runs, " << stats.steps
              << " steps, " << stats.settles << " settles, " << stats.deliveries << " callbacks delivered\n";
    EXPECT_GE(stats.settles, stats.histories);
}

}  // namespace
