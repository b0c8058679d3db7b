// The Aggregator: what the storm's model does not see (traces, the order of the output's changes, flow
// control), each test one journal of the output's changes and the traces, in order; then the storms.
#include "TestSupport.h"

#include <Velta/Agent/Aggregator.h>

#include <array>
#include <deque>
#include <random>

namespace Velta::Test {
namespace {

using Agent::Aggregator;
using Lines = std::vector<std::string>;

const std::string kOut = "velta/output/routes";
const std::string kA = "velta/input/a/routes";
const std::string kB = "velta/input/b/routes";
const std::string kC = "velta/input/c/routes";
const std::string kRoute = "Demo::Route";

const RowType& routeType() {
    // The host gives each row an oid: an input's oid order need not be its key order.
    static const RowType& type = Host::defineRowType(
        kRoute, {{"prefix", FieldKind::string}, {"nexthop", FieldKind::string}, {"oid", FieldKind::u32}},
        {"prefix"});
    return type;
}

BaseRow route(const std::string& prefix, const std::string& nexthop) {
    return makeRow(routeType(), {{"prefix", prefix}, {"nexthop", nexthop}});
}
std::string hopOf(const BaseRow& row) { return row.string(1); }

// "Aggregator[<level>] <file>:<line> <function>: " of a trace, for the expected journals.
std::string at(unsigned level, unsigned line, const std::string& function) {
    return "Aggregator[" + std::to_string(level) + "] Aggregator:" + std::to_string(line) + " " + function +
           ": ";
}
const std::string kAdding = at(6, 234, "onVeTableRow") + "Adding aggregated input table ";
const std::string kInputGone = at(9, 34, "~AggregatorInputTable") +
                               "Velta::Agent::Aggregator::AggregatorInputTable::~AggregatorInputTable() ";

class AggregatorTest : public HostTest {
protected:
    AggregatorTest() {
        routeType();
        Host::defineRowType("Demo::Other", {{"name", FieldKind::string}}, {"name"});
        db_->listenerIs(&log_);
    }
    ~AggregatorTest() override {
        agg_.reset();
        db_->listenerIs(nullptr);
    }

    // Builds the aggregator on `vdb` and delivers everything queued: its first pass is done.
    void start(VeltaDB::p_t vdb) {
        agg_ = std::make_unique<Aggregator>(std::move(vdb), "velta/input/", "/routes", kOut, kRoute, false,
                                            true, false);
        run();
    }

    // The journal since the last call: "+k1=a" and "-k1=a" for the output's changes, and each
    // trace of the Aggregator channel as Host::toString prints it.
    Lines journal() {
        drain();
        return std::exchange(journal_, {});
    }

    std::unique_ptr<Aggregator> agg_;

private:
    void drain() {
        for (; seen_ < capture_.records().size(); ++seen_)
            if (capture_.records()[seen_].channel == "Aggregator")
                journal_.push_back(Host::toString(capture_.records()[seen_]));
    }

    Host::TraceCapture capture_;
    std::size_t seen_ = 0;
    Lines journal_;
    Host::EventLog log_{[this](const Host::EventLog::Entry& e) {
        using Kind = Host::EventLog::Entry::Kind;
        drain();
        if ((e.kind == Kind::write || e.kind == Kind::erase) && e.path == kOut)
            journal_.push_back((e.kind == Kind::write ? "+" : "-") + e.row.string(0) + "=" + hopOf(e.row));
    }};
};

TEST_F(AggregatorTest, AdmissionTracesEachDecisionAndRemembersOnlyAdmittedPaths) {
    ScopedDebugMask mask("Aggregator", (1u << 1) | (1u << 6));
    // Created out of path order: the first pass reads the metadata in path order.
    db_->createTable(kB, "Demo::Other");
    for (const char* path : {"velta/input/a/routes", "velta/input/a/b/routes", "velta/input//routes"})
        db_->createTable(path, kRoute);
    start(connect("agg"));
    // The refused type is not remembered: the path is examined afresh with the output's type. An
    // admitted path's metadata is not examined again, whatever it says.
    EXPECT_TRUE(db_->dropTable(kB));
    db_->write(kVeTable, makeRecord<veMetadata::veTable>({{"tablePath", kA}, {"typeName", "Demo::Other"}}));
    db_->createTable(kB, kRoute);
    db_->write(kB, route("k1", "b"));
    run();
    EXPECT_EQ(agg_->inputPaths(), (Lines{kA, kB}));

    // A type named like the output's but unknown to the host is refused each time it is offered.
    Aggregator ghosts(connect("ghosts"), "velta/ghost/", "/rows", "velta/ghosts", "Demo::Ghost", false, true,
                      false);
    run();
    for (const char* owner : {"one", "two"}) {
        db_->write(kVeTable,
                   makeRecord<veMetadata::veTable>(
                       {{"tablePath", "velta/ghost/g/rows"}, {"typeName", "Demo::Ghost"}, {"owner", owner}}));
        run();
    }
    EXPECT_TRUE(ghosts.inputPaths().empty());
    const std::string refused = at(1, 251, "onVeTableRow") + "Row type Demo::";
    const std::string ghost = kAdding + "velta/ghost/g/rows to velta/ghosts";
    EXPECT_EQ(journal(),
              (Lines{at(1, 256, "onVeTableRow") + "Aggregated input table velta/input/a/b/routes "
                                                  "has agent name a/b containing '/' ",
                     kAdding + kA + " to " + kOut, kAdding + kB + " to " + kOut,
                     refused + "Other is not valid, input table not added.", kAdding + kB + " to " + kOut,
                     "+k1=b", ghost, refused + "Ghost is not valid, input table not added.", ghost,
                     refused + "Ghost is not valid, input table not added."}));
}

TEST_F(AggregatorTest, ALeavingInputsRowsAreSettledInKeyOrderBeforeItGoes) {
    ScopedDebugMask quiet("Aggregator", 0);
    for (const std::string& path : {kA, kB, kC}) db_->createTable(path, kRoute);
    for (const auto& [path, key] : {std::pair{kA, "k1"}, {kA, "k5"}, {kC, "k4"}, {kC, "k5"}})
        db_->write(path, route(key, path == kA ? "a" : "c"));
    start(connect("agg"));
    for (const char* key : {"k1", "k2", "k4", "k5"}) db_->write(kB, route(key, "b"));
    run();
    // Walks in path order; nothing is traced while the level is off.
    EXPECT_EQ(journal(), (Lines{"+k1=a", "+k5=a", "+k4=c", "+k5=c", "+k1=b", "+k2=b", "+k4=b", "+k5=b"}));
    // Rows A alone supplies: with the host's key hashing, B's and C's few rows are then found
    // without reading every owner, and must still be settled in key order.
    for (int i = 0; i < 32; ++i) db_->write(kA, route("m" + std::to_string(i), "a"));
    run();
    journal();

    ScopedDebugMask mask("Aggregator", 1u << 9);
    // B leaves the metadata while its table lives on: a row queued for it afterwards never arrives.
    EXPECT_TRUE(db_->erase(kVeTable, makeRecord<veMetadata::veTable>({{"tablePath", kB}})));
    db_->write(kB, route("k6", "b"));
    run();
    // Dropping C's table removes its rows without deletions.
    EXPECT_TRUE(db_->dropTable(kC));
    run();
    const std::string row = db_->write(kA, route("k6", "a")).toString();  // with the oid it was given
    EXPECT_TRUE(db_->erase(kA, route("k6", "")));
    run();
    agg_.reset();  // writes and deletes nothing
    const auto fromA = [&](unsigned line, const std::string& function) {
        return at(9, line, function) + "void Velta::Agent::Aggregator::AggregatorInputTable::" + function +
               "(const Velta::BaseRow&) velta/input/a/routes=>velta/output/routes, " + row;
    };
    EXPECT_EQ(journal(),
              (Lines{"+k1=a", "-k2=b", "+k4=c", "+k5=a", kInputGone + kB + "=>" + kOut, "-k4=c",
                     kInputGone + kC + "=>" + kOut, fromA(89, "onRow"), "+k6=a", fromA(95, "onDelete"),
                     "-k6=a", at(9, 137, "~Aggregator") + "Velta::Agent::Aggregator::~Aggregator() " + kOut,
                     kInputGone + kA + "=>" + kOut}));
}

// A walk stops early only when the host fails in it: FlakyHost, its own row ops, throws comparing a row
// whose next hop is `failOn`, and leaves the path `unbound` unbound (attachment zero).
class FlakyHost : public Host::ForwardingVeltaDB,
                  public RowOps,
                  public std::enable_shared_from_this<FlakyHost> {
public:
    using ForwardingVeltaDB::ForwardingVeltaDB;
    void bindInterface(VeTableInterface& iface, const std::string& path, bool flag) override {
        if (path != unbound) ForwardingVeltaDB::bindInterface(iface, path, flag);
    }
    std::shared_ptr<const RowOps> getRowOps(const std::string& typeName, unsigned char index) const override {
        real_ = ForwardingVeltaDB::getRowOps(typeName, index);
        return {shared_from_this(), this};
    }
    bool keyLess(const BaseRow& a, const BaseRow& b) const override {
        if (!failOn.empty() && (hopOf(a) == failOn || hopOf(b) == failOn))
            throw std::runtime_error("host failure");
        return real_->keyLess(a, b);
    }
    std::string unbound, failOn;

private:
    mutable std::shared_ptr<const RowOps> real_;
};

TEST_F(AggregatorTest, OutputBlockedDeactivatesAndAPendingWalkResumesFromItsBookmark) {
    const std::string kZ = "velta/input/z/routes";
    db_->createTable(kA, kRoute);
    db_->createTable(kZ, kRoute);
    for (const char* key : {"k2", "k1", "k3"}) db_->write(kA, route(key, "a"));  // oid order is not key order
    auto host = std::make_shared<FlakyHost>(connect("agg"));
    host->unbound = kZ;
    start(host);
    db_->write(kA, route("k2", "x"));  // the owner map keeps k2's first row, which compares safely
    run();
    EXPECT_EQ(journal(), (Lines{"+k1=a", "+k2=a", "+k3=a", "+k2=x"}));
    Aggregator::AggregatorInputTable& a = *agg_->inputTable(kA);
    Aggregator::AggregatorInputTable& z = *agg_->inputTable(kZ);
    VeTableInterface& observer = a.observer();
    // Each step, then whether A's observer is active and the journal it left.
    std::vector<std::string> seen;
    const auto step = [&](const std::string& what, const std::function<void()>& act) {
        act();
        std::string line = what + (observer.activated() ? ": active" : ": inactive");
        for (const std::string& entry : journal()) line += " " + entry;
        seen.push_back(line);
    };
    const auto failing = [&](const char* hop) {
        return [&, hop] {
            host->failOn = hop;
            EXPECT_THROW(a.onObserverReady(), std::runtime_error);
            host->failOn.clear();
        };
    };
    step("blocked, idle", [&] { a.outputBlocked(true); });
    step("blocked, active", [&] {
        observer.activate(true);
        a.outputBlocked(true);
    });
    step("unblocked, active", [&] {
        observer.activate(true);
        a.outputBlocked(false);
    });
    step("walk fails at k2", failing("x"));
    step("blocked", [&] { a.outputBlocked(true); });
    step("unblocked", [&] {
        observer.activate(true);
        a.outputBlocked(false);
    });
    step("unblocked again", [&] { a.outputBlocked(false); });
    step("walk fails at k2", failing("x"));
    step("k2 deleted", [&] { EXPECT_TRUE(db_->erase(kA, route("k2", ""))); });
    step("unblocked", [&] { a.outputBlocked(false); });
    step("deletion delivered", [&] { run(); });
    step("walk fails at k1", failing("a"));
    step("ready again", [&] { a.onObserverReady(); });
    EXPECT_EQ(seen,
              (Lines{"blocked, idle: inactive", "blocked, active: inactive", "unblocked, active: inactive",
                     "walk fails at k2: active +k1=a", "blocked: inactive", "unblocked: active +k2=x +k3=a",
                     "unblocked again: inactive", "walk fails at k2: active +k1=a", "k2 deleted: active",
                     "unblocked: active +k3=a", "deletion delivered: active -k2=x",
                     "walk fails at k1: active", "ready again: inactive +k1=a +k3=a"}));
    // Unbound: unblocking does nothing at all, blocking still deactivates.
    ASSERT_EQ(z.observer().attachment(), 0u);
    z.observer().activate(true);
    z.outputBlocked(false);
    EXPECT_TRUE(z.observer().activated());
    z.outputBlocked(true);
    EXPECT_FALSE(z.observer().activated());
}

// Aggregator storms: seeded random histories of input tables (some of a foreign row type, which the
// host converts by field name, some on paths the pattern refuses), their rows and the output's, and
// the aggregator built, destroyed, enabled late, re-enabled (a resync) and its resync suppressed. After
// every settle the output, the admitted inputs and each output row's owner must be what a model of
// the merge says; it queues host callbacks as the host does, because a replacement reads the inputs
// as they are when its callback runs. A divergence is reported with a shrunk history that still
// fails. VELTA_STORM_SEED=S replays one history; VELTA_STORM_HISTORIES sets how many run (10,000).
constexpr const char* kPrefix = "velta/storm/";
constexpr const char* kSuffix = "/rows";
constexpr const char* kOutput = "velta/merged/rows";
constexpr const char* kRowTypeName = "Storm::Row";
constexpr const char* kForeignTypeName = "Storm::Note";

// Table slots: the first four fit the pattern; the others have an agent name with '/', none at
// all, another prefix and another suffix.
constexpr std::array<const char*, 8> kPaths = {
    "velta/storm/a/rows",   "velta/storm/b/rows", "velta/storm/c/rows",  "velta/storm/d/rows",
    "velta/storm/x/y/rows", "velta/storm//rows",  "velta/stormy/a/rows", "velta/storm/e/rowsy"};
constexpr int kGoodSlots = 4;
constexpr int kKeys = 4;

// The host gives each row an oid, so every table also has an oid order, which is not the key order
// the aggregator walks and merges in.
const RowType& rowType() {
    static const RowType& t = Host::defineRowType(kRowTypeName,
                                                  {{"key", FieldKind::string},
                                                   {"src", FieldKind::string},
                                                   {"ver", FieldKind::u32},
                                                   {"oid", FieldKind::u32}},
                                                  {"key"});
    return t;
}
// The same key field: written into an input, it reads as a row with only its key.
const RowType& foreignType() {
    static const RowType& t = Host::defineRowType(
        kForeignTypeName, {{"key", FieldKind::string}, {"note", FieldKind::string}}, {"key"});
    return t;
}

std::string keyName(int key) { return "k" + std::to_string(key); }

// A step on table `slot` (create: of the output's type if `flag`), on the output (a client's), on
// the aggregator (build: deleteWithoutReplacement `flag`, enabled `flag2`; enableIs and
// suppressResyncIs take `flag`), or a settle: everything queued is delivered, then compared.
// clang-format off
enum class Op : std::uint8_t {
    create, drop, write, writeForeign, erase, writeOutput, eraseOutput, build, destroy, enable, suppress, settle
};
constexpr std::array<const char*, 12> kOpNames = {"create", "drop", "write", "writeForeign", "erase",
    "writeOutput", "eraseOutput", "build", "destroy", "enable", "suppress", "settle"};
// clang-format on

struct Step {
    Op op = Op::settle;
    std::uint8_t slot = 0, key = 0;
    bool flag = false, flag2 = false;
    std::uint32_t ver = 0;
};

std::string describe(const Step& s) {
    return std::string(kOpNames[static_cast<std::size_t>(s.op)]) + " " + kPaths[s.slot] + " " +
           keyName(s.key) + " ver=" + std::to_string(s.ver) + " flag=" + std::to_string(s.flag) +
           " flag2=" + std::to_string(s.flag2);
}

// A row's other fields, as the model keeps them and a settle compares them.
std::string fields(const std::string& src, std::uint64_t ver) {
    return "src=" + src + " ver=" + std::to_string(ver);
}

class MergeModel {
public:
    struct Table {
        bool ofRowType = true;  // false: the foreign type
        std::map<std::string, std::string> rows;
    };
    struct Agg {
        bool dwr = false, enabled = false, suppress = false, scanned = false;
        bool outputReady = false;                   // outputModifier.ready()
        bool metaReadyQueued = false;               // the metadata observer's ready callback was queued
        std::map<std::string, bool> inputs;         // admitted, by path: whether its ready was queued
        std::map<std::string, std::string> owners;  // key -> path of its input
    };

    std::map<std::string, Table> tables;  // storm tables and the output
    std::optional<Agg> agg;

    bool exists(const std::string& path) const { return tables.count(path) != 0; }

    // Client operations take effect at once; binding a path with no table creates it.
    void createTable(const std::string& path, bool ofRowType) {
        if (tables.emplace(path, Table{ofRowType, {}}).second)
            toMetadata([=, this] { admit(path, ofRowType); });
    }
    void dropTable(const std::string& path) {
        if (tables.erase(path)) toMetadata([=, this] { removeInput(path); });
    }
    void write(const std::string& path, const std::string& key, const std::string& val) {
        if (!exists(path)) return;
        tables[path].rows[key] = val;
        toInput(path, [=, this] { outputRow(key, val, path); });
    }
    void erase(const std::string& path, const std::string& key) {
        if (!exists(path) || tables[path].rows.erase(key) == 0) return;
        toInput(path, [=, this] {
            if (agg->owners.count(key) && agg->owners[key] == path) settleKey(key);
        });
    }
    // The output modifier is bound first (creating the output), then the metadata observer, which
    // is client-ready at once only when enabled.
    void build(bool dwr, bool enabled) {
        agg = Agg{};
        agg->dwr = dwr;
        agg->enabled = enabled;
        createTable(kOutput, true);
        queue_.push_back({"", [this] { agg->outputReady = true, onReady(); }});
        if (enabled) declareMetaReady();
    }
    void destroy() {
        agg.reset();
        queue_.clear();
    }
    void enableIs(bool value) {
        agg->enabled = value;
        if (value) onReady();
    }
    void runUntilIdle() {
        while (!queue_.empty()) {
            const auto callback = std::move(queue_.front().second);
            queue_.pop_front();
            callback();
        }
    }

    // What a settle must find: the output, then (with an aggregator) the inputs and each key's owner.
    Lines expected() const {
        Lines lines;
        if (exists(kOutput))
            for (const auto& [key, val] : tables.at(kOutput).rows) lines.push_back(key + " " + val);
        if (!agg) return lines;
        for (const auto& [path, readyQueued] : agg->inputs) lines.push_back("input " + path);
        for (int k = 0; k < kKeys; ++k)
            lines.push_back(keyName(k) + " <- " +
                            (agg->owners.count(keyName(k)) ? agg->owners.at(keyName(k)) : ""));
        return lines;
    }

private:
    // The host's queued callbacks (all for the one aggregator there is), each with the path of the
    // input whose observer receives it ("": another interface).
    std::deque<std::pair<std::string, std::function<void()>>> queue_;

    static bool shapeAccepted(const std::string& path) {
        return std::find(kPaths.begin(), kPaths.begin() + kGoodSlots, path) != kPaths.begin() + kGoodSlots;
    }
    // A metadata row or delete callback, once the metadata observer is ready.
    void toMetadata(std::function<void()> callback) {
        if (agg && agg->metaReadyQueued) queue_.push_back({"", std::move(callback)});
    }
    // A row or delete callback of the input observing `path`, once its ready callback was queued.
    void toInput(const std::string& path, std::function<void()> callback) {
        if (agg && agg->inputs.count(path) && agg->inputs.at(path))
            queue_.push_back({path, std::move(callback)});
    }
    void declareMetaReady() {
        if (!agg->metaReadyQueued)
            queue_.push_back({"", [this] {
                                  for (const auto& [path, table] : tables) admit(path, table.ofRowType);
                                  agg->scanned = true;
                                  onReady();
                              }});
        agg->metaReadyQueued = true;
    }
    void startInput(const std::string& path) {
        if (!agg->inputs.at(path))
            queue_.push_back({path, [this, path] {
                                  if (!exists(path)) return;
                                  for (const auto& [key, val] : std::map(tables[path].rows))
                                      outputRow(key, val, path);
                              }});
        agg->inputs.at(path) = true;
    }
    void onReady() {
        if (!agg->enabled) return;
        if (!agg->scanned) return declareMetaReady();
        if (!agg->outputReady) return;
        if (!agg->suppress)
            std::erase_if(tables[kOutput].rows, [&](const auto& row) { return holder(row.first).empty(); });
        for (const auto& [path, readyQueued] : agg->inputs) startInput(path);
    }
    // The first admitted input, in path order, whose table holds `key`, or "".
    std::string holder(const std::string& key) const {
        for (const auto& [path, readyQueued] : agg->inputs)
            if (exists(path) && tables.at(path).rows.count(key)) return path;
        return "";
    }
    void admit(const std::string& path, bool ofRowType) {
        // Refusals are not remembered.
        if (!shapeAccepted(path) || agg->inputs.count(path) || !ofRowType) return;
        agg->inputs[path] = false;
        createTable(path, true);
        if (agg->scanned && agg->outputReady) startInput(path);
    }
    void removeInput(const std::string& path) {
        if (agg->inputs.erase(path) == 0) return;
        Lines owned;
        for (const auto& [key, owner] : agg->owners)
            if (owner == path) owned.push_back(key);
        for (const std::string& key : owned) settleKey(key);
        std::erase_if(queue_, [&](const auto& callback) { return callback.first == path; });
    }
    void outputRow(const std::string& key, const std::string& val, const std::string& owner) {
        tables[kOutput].rows[key] = val;
        agg->owners[key] = owner;
    }
    void settleKey(const std::string& key) {
        const std::string path = agg->dwr ? "" : holder(key);
        if (!path.empty()) return outputRow(key, tables.at(path).rows.at(key), path);
        tables[kOutput].rows.erase(key);
        agg->owners.erase(key);
    }
};

class StormRun {
public:
    StormRun() : db_(Host::Database::create()), handle_(db_->connect({"merger", "storm"})) {}

    const MergeModel& model() const { return model_; }

    // Applies one step to both sides; returns the first divergence, if any.
    std::optional<std::string> apply(const Step& s) {
        if (!accepted(s)) return std::nullopt;
        const std::string path = kPaths[s.slot], key = keyName(s.key), src = path.substr(0, path.size() - 5);
        const bool ofRowType = model_.exists(path) && model_.tables.at(path).ofRowType;
        switch (s.op) {
            case Op::create:
                db_->createTable(path, s.flag ? kRowTypeName : kForeignTypeName);
                model_.createTable(path, s.flag);
                created_.insert(path);
                break;
            case Op::drop:
                droppedType_.emplace(path, ofRowType);
                db_->dropTable(path);
                model_.dropTable(path);
                break;
            case Op::write:
            case Op::writeOutput: {
                const std::string& to = s.op == Op::write ? path : kOutput;
                const std::string from = s.op == Op::write ? src : "client";
                db_->write(to, makeRow(rowType(), {{"key", key}, {"src", from}, {"ver", s.ver}}));
                model_.write(to, key,
                             s.op == Op::writeOutput || ofRowType ? fields(from, s.ver) : fields("", 0));
                break;
            }
            case Op::writeForeign:
                db_->write(path, makeRow(foreignType(), {{"key", key}, {"note", "foreign"}}));
                // Converted by field name: only the key survives in a Storm::Row table.
                model_.write(path, key, ofRowType ? fields("", 0) : fields("foreign", 0));
                break;
            case Op::erase:
            case Op::eraseOutput:
                db_->erase(s.op == Op::erase ? path : kOutput, makeRow(rowType(), {{"key", key}}));
                model_.erase(s.op == Op::erase ? path : kOutput, key);
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
                model_.agg->suppress = s.flag;
                break;
            case Op::settle:
                return settle();
        }
        return std::nullopt;
    }

    // Whether the step can be applied in the current state (a shrunk history may hold steps that
    // no longer make sense; both sides skip them alike).
    bool accepted(const Step& s) const {
        const std::string path = kPaths[s.slot];
        if (s.op == Op::settle) return true;
        // A path dropped in this batch comes back only with its old type: a metadata callback still
        // queued for the old table must not meet a table of another type.
        const auto dropped = droppedType_.find(path);
        return s.op == Op::create ? !model_.exists(path) && !created_.count(path) &&
                                        (dropped == droppedType_.end() || dropped->second == s.flag)
               : s.op == Op::build ? !aggregator_
               : s.op > Op::build
                   ? aggregator_ != nullptr
                   : model_.exists(s.op == Op::writeOutput || s.op == Op::eraseOutput ? kOutput : path);
    }

private:
    std::optional<std::string> settle() {
        db_->runUntilIdle();
        model_.runUntilIdle();
        created_.clear();
        droppedType_.clear();
        if (!db_->settled()) return "the host did not settle";
        const Lines expected = model_.expected();
        Lines found;
        for (const BaseRow& row : db_->rows(kOutput)) {
            const BaseRow r = row.as(rowType());
            found.push_back(r.string(0) + " " + fields(r.string(1), r.number(2)));
        }
        if (aggregator_) {
            for (const std::string& path : aggregator_->inputPaths()) found.push_back("input " + path);
            for (int k = 0; k < kKeys; ++k)
                found.push_back(keyName(k) + " <- " +
                                aggregator_->outputRowSource(makeRow(rowType(), {{"key", keyName(k)}})));
        }
        if (expected == found) return std::nullopt;
        return "model and host differ:\n  model " + ::testing::PrintToString(expected) + "\n  host  " +
               ::testing::PrintToString(found) + "\n";
    }

    std::shared_ptr<Host::Database> db_;
    VeltaDB::p_t handle_;
    std::unique_ptr<Aggregator> aggregator_;
    MergeModel model_;
    // Per batch (since the last settle).
    std::set<std::string> created_;
    std::map<std::string, bool> droppedType_;
};

// Runs `steps` afresh; the first divergence, if any, as "step N: what".
std::optional<std::string> replay(const std::vector<Step>& steps) {
    StormRun run;
    for (std::size_t i = 0; i < steps.size(); ++i)
        if (auto bad = run.apply(steps[i])) return "step " + std::to_string(i + 1) + ": " + *bad;
    return std::nullopt;
}

// Draws the next step from the model's current state, so most steps make sense: an operation by
// its share of 100, then its flags (each true unless a draw below its odds gives 0).
Step drawStep(std::mt19937_64& rng, const MergeModel& model, std::uint32_t* ver) {
    struct Choice {
        int below;
        Op op;
        int flagOdds, flag2Odds;
    };
    static constexpr Choice kChoices[] = {
        {12, Op::settle, 0, 0},       {57, Op::write, 8, 0},       {69, Op::erase, 8, 0},
        {73, Op::writeForeign, 0, 0}, {78, Op::create, 6, 0},      {82, Op::drop, 0, 0},
        {85, Op::writeOutput, 0, 0},  {87, Op::eraseOutput, 0, 0}, {90, Op::build, 2, 4},
        {97, Op::enable, 3, 0},       {100, Op::suppress, 2, 0}};
    auto pick = [&rng](int n) { return static_cast<int>(rng() % static_cast<std::uint64_t>(n)); };
    Step s;
    // Mostly the four good slots; now and then a refused path.
    s.slot =
        static_cast<std::uint8_t>(pick(10) < 8 ? pick(kGoodSlots) : pick(static_cast<int>(kPaths.size())));
    s.key = static_cast<std::uint8_t>(pick(kKeys));
    s.ver = ++*ver;
    const int roll = pick(100);
    const Choice& c = *std::find_if(std::begin(kChoices), std::end(kChoices),
                                    [&](const Choice& c) { return roll < c.below; });
    const bool exists = model.exists(kPaths[s.slot]);
    s.op = (c.op == Op::write || c.op == Op::erase) && !exists ? Op::create
           : c.op == Op::build && model.agg                    ? Op::destroy
                                                               : c.op;
    s.flag = c.flagOdds != 0 && pick(c.flagOdds) != 0;
    s.flag2 = c.flag2Odds != 0 && pick(c.flag2Odds) != 0;
    // Mostly a key the table holds.
    if (c.op == Op::erase && exists && pick(4) != 0) {
        const auto& rows = model.tables.at(kPaths[s.slot]).rows;
        if (!rows.empty())
            s.key = static_cast<std::uint8_t>(
                std::stoi(std::next(rows.begin(), pick(static_cast<int>(rows.size())))->first.substr(1)));
    }
    return s;
}

// Runs one history of 60 steps; on a divergence, returns the steps up to it.
std::optional<FailedHistory<Step>> stormHistory(std::uint64_t seed) {
    constexpr std::size_t length = 60;
    std::mt19937_64 rng(seed);
    std::vector<Step> steps;
    std::uint32_t ver = 0;
    StormRun run;
    // Built at the start or a third in, and mostly rebuilt right after being destroyed.
    const std::size_t buildAt = rng() % 4 == 0 ? length / 3 : 0;
    for (std::size_t i = 0; i < length; ++i) {
        Step s;
        if ((i == buildAt || (!steps.empty() && steps.back().op == Op::destroy && rng() % 4 != 0)) &&
            !run.model().agg) {
            s.op = Op::build;
            s.flag = rng() % 2 != 0;
            s.flag2 = rng() % 5 != 0;
        } else if (i + 1 == length) {
            s.op = Op::settle;
        } else {
            s = drawStep(rng, run.model(), &ver);
        }
        if (!run.accepted(s)) continue;
        steps.push_back(s);
        if (const std::optional<std::string> bad = run.apply(s))
            return FailedHistory<Step>{steps, "history seed " + std::to_string(seed) + " diverged at step " +
                                                  std::to_string(steps.size()) + " (" + describe(s) +
                                                  "): " + *bad};
    }
    return std::nullopt;
}

TEST(AggregatorStorm, RandomHistoriesMatchTheModel) {
    rowType(), foreignType();  // defined before a table of either type is created
    runSeededHistories<Step>(
        "VELTA_STORM_SEED", "VELTA_STORM_HISTORIES", 10000, 3,
        [](std::size_t i) { return 1000003ULL * (i + 1); }, stormHistory, replay, describe);
}

}  // namespace
}  // namespace Velta::Test
