// What the storm's model does not see of the Aggregator: traces, the order of the output's changes and
// flow control, each test as one journal of the output's changes and the traces, in order.
#include "TestSupport.h"

#include <Velta/Agent/Aggregator.h>

namespace Velta::Test {
namespace {

using Agent::Aggregator;
using Lines = std::vector<std::string>;

const std::string kOut = "velta/output/routes";
const std::string kA = "velta/input/a/routes";
const std::string kB = "velta/input/b/routes";
const std::string kC = "velta/input/c/routes";
const std::string kMetadata = "velta/metadata/veTable";
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
    db_->write(kMetadata, makeRecord<veMetadata::veTable>({{"tablePath", kA}, {"typeName", "Demo::Other"}}));
    db_->createTable(kB, kRoute);
    db_->write(kB, route("k1", "b"));
    run();
    EXPECT_EQ(agg_->inputPaths(), (Lines{kA, kB}));

    // A type named like the output's but unknown to the host is refused each time it is offered.
    Aggregator ghosts(connect("ghosts"), "velta/ghost/", "/rows", "velta/ghosts", "Demo::Ghost", false, true,
                      false);
    run();
    for (const char* owner : {"one", "two"}) {
        db_->write(kMetadata,
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
    EXPECT_TRUE(db_->erase(kMetadata, makeRecord<veMetadata::veTable>({{"tablePath", kB}})));
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

}  // namespace
}  // namespace Velta::Test
