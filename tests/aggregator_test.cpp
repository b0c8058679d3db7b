// The Aggregator on the in-memory host: admission of inputs, merging, input removal, readiness,
// flow control, provenance and traces. Output changes are recorded in order as one timeline.
#include "TestSupport.h"

#include <Velta/Agent/Aggregator.h>

#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace Velta::Test {
namespace {

using Agent::Aggregator;

const std::string kPrefix = "velta/input/";
const std::string kSuffix = "/routes";
const std::string kOut = "velta/output/routes";
const std::string kA = "velta/input/a/routes";
const std::string kB = "velta/input/b/routes";
const std::string kC = "velta/input/c/routes";
const std::string kMetadata = "velta/metadata/veTable";
const std::string kRoute = "Demo::Route";

const RowType& routeType() {
    static const RowType& type = Host::defineRowType(
        kRoute, {{"prefix", FieldKind::string}, {"nexthop", FieldKind::string}, {"metric", FieldKind::u32}},
        {"prefix"});
    return type;
}

const RowType& otherType() {
    static const RowType& type = Host::defineRowType("Demo::Other", {{"name", FieldKind::string}}, {"name"});
    return type;
}

BaseRow route(const std::string& prefix, const std::string& nexthop, unsigned metric = 1) {
    return makeRow(routeType(), {{"prefix", prefix}, {"nexthop", nexthop}, {"metric", metric}});
}

BaseRow routeKey(const std::string& prefix) { return makeRow(routeType(), {{"prefix", prefix}}); }

std::string field(const BaseRow& row, const char* name) {
    const int index = row.rowType()->fieldIndex(name);
    return index < 0 ? std::string() : row.string(static_cast<std::size_t>(index));
}

// "k1=a": a route by its key and next hop.
std::string show(const BaseRow& row) { return field(row, "prefix") + "=" + field(row, "nexthop"); }

BaseRow metadataKey(const std::string& path) {
    return makeRecord<veMetadata::veTable>({{"tablePath", path}});
}

// "level line function: message" of the Aggregator channel's captured traces; the file must be
// "Aggregator".
std::vector<std::string> aggregatorTraces(const Host::TraceCapture& capture) {
    std::vector<std::string> lines;
    for (const Host::TraceRecord& r : capture.records()) {
        if (r.channel != "Aggregator") continue;
        EXPECT_EQ(r.file, "Aggregator") << r.message;
        lines.push_back(std::to_string(r.level) + " " + std::to_string(r.line) + " " + r.function + ": " +
                        r.message);
    }
    return lines;
}

// Records, in order, every write ("+k=hop") and deletion ("-k=hop") on one table and, when given a
// capture, the input-table destruction traces emitted in between.
class Timeline : public Host::EventListener {
public:
    explicit Timeline(std::string path) : path_(std::move(path)) {}

    void captureIs(const Host::TraceCapture* capture) {
        capture_ = capture;
        seen_ = capture ? capture->records().size() : 0;
    }

    void onWrite(const std::string& path, const BaseRow& row) override {
        drain();
        if (path == path_) events_.push_back("+" + show(row));
    }
    void onDelete(const std::string& path, const BaseRow& row) override {
        drain();
        if (path == path_) events_.push_back("-" + show(row));
    }

    // The events so far; the timeline starts empty again.
    std::vector<std::string> take() {
        drain();
        std::vector<std::string> events;
        events.swap(events_);
        return events;
    }

private:
    void drain() {
        if (capture_ == nullptr) return;
        const auto& records = capture_->records();
        for (; seen_ < records.size(); ++seen_) {
            const std::string& message = records[seen_].message;
            if (message.rfind("Velta::Agent::Aggregator::AggregatorInputTable::~", 0) == 0)
                events_.push_back(message);
        }
    }

    std::string path_;
    const Host::TraceCapture* capture_ = nullptr;
    std::size_t seen_ = 0;
    std::vector<std::string> events_;
};

class AggregatorTest : public HostTest {
protected:
    AggregatorTest() {
        routeType();
        otherType();
        db_->listenerIs(&timeline_);
    }
    ~AggregatorTest() override {
        agg_.reset();
        db_->listenerIs(nullptr);
    }

    // Replaces the database (and drops the aggregator, which belongs to the old one).
    void resetWith(const Host::Database::Options& options) {
        agg_.reset();
        db_->listenerIs(nullptr);
        reset(options);
        db_->listenerIs(&timeline_);
    }

    std::unique_ptr<Aggregator> makeAggregator(VeltaDB::p_t vdb, bool deleteWithoutReplacement = false,
                                               bool enabled = true, const std::string& prefix = kPrefix,
                                               const std::string& suffix = kSuffix,
                                               const std::string& output = kOut) {
        return std::make_unique<Aggregator>(std::move(vdb), prefix, suffix, output, kRoute,
                                            deleteWithoutReplacement, enabled, false);
    }
    void start(bool deleteWithoutReplacement = false, bool enabled = true) {
        agg_ = makeAggregator(connect("agg"), deleteWithoutReplacement, enabled);
    }

    void createInputs(const std::vector<std::string>& paths) {
        for (const std::string& path : paths) db_->createTable(path, kRoute);
    }
    void put(const std::string& path, const std::string& prefix, const std::string& nexthop,
             unsigned metric = 1) {
        db_->write(path, route(prefix, nexthop, metric));
    }
    void del(const std::string& path, const std::string& prefix) {
        EXPECT_TRUE(db_->erase(path, routeKey(prefix)));
    }

    // The output table as "k=hop" lines in key order.
    std::vector<std::string> output() const {
        std::vector<std::string> lines;
        for (const BaseRow& row : db_->rows(kOut)) lines.push_back(show(row));
        return lines;
    }
    std::string source(const std::string& prefix) const { return agg_->outputRowSource(routeKey(prefix)); }

    Timeline timeline_{kOut};
    std::unique_ptr<Aggregator> agg_;
};

// ---------------------------------------------------------------------------------------------
// Admission

TEST_F(AggregatorTest, AdmitsExactlyOnePathComponentBetweenPrefixAndSuffix) {
    Host::TraceCapture capture;
    ScopedDebugMask mask("Aggregator", (1u << 1) | (1u << 6));
    createInputs({kA, "velta/input//routes", "velta/input/a/b/routes", "velta/other/a/routes",
                  "velta/input/x/routesX"});
    start();
    run();
    EXPECT_EQ(agg_->inputPaths(), std::vector<std::string>{kA});
    // Metadata rows are seen in path order: "velta/input//routes" (too short, silent) first.
    EXPECT_EQ(aggregatorTraces(capture),
              (std::vector<std::string>{
                  "1 256 onVeTableRow: Aggregated input table velta/input/a/b/routes has agent name a/b "
                  "containing '/' ",
                  "6 234 onVeTableRow: Adding aggregated input table velta/input/a/routes to "
                  "velta/output/routes"}));

    // A table appearing while the aggregator runs is admitted and started at once.
    capture.clear();
    db_->createTable(kB, kRoute);
    put(kB, "k1", "b");
    run();
    EXPECT_EQ(agg_->inputPaths(), (std::vector<std::string>{kA, kB}));
    EXPECT_EQ(output(), std::vector<std::string>{"k1=b"});
    EXPECT_EQ(
        aggregatorTraces(capture),
        std::vector<std::string>{
            "6 234 onVeTableRow: Adding aggregated input table velta/input/b/routes to velta/output/routes"});

    // Prefix "ab" and suffix "ba" may not share the middle "a" of "aba".
    db_->createTable("aba", kRoute);
    db_->createTable("abxba", kRoute);
    auto overlapping = makeAggregator(connect("agg2"), false, true, "ab", "ba", "overlap/out");
    run();
    EXPECT_EQ(overlapping->inputPaths(), std::vector<std::string>{"abxba"});

    // Empty affixes: every path is shape-tested positive; those with a '/' are refused with a trace.
    capture.clear();
    auto everything = makeAggregator(connect("agg3"), false, true, "", "", "flat/out");
    run();
    EXPECT_EQ(everything->inputPaths(), (std::vector<std::string>{"aba", "abxba"}));
    std::vector<std::string> expected;
    for (const std::string& path : db_->tablePaths()) {
        if (path.find('/') == std::string::npos) continue;
        expected.push_back("1 256 onVeTableRow: Aggregated input table " + path + " has agent name " + path +
                           " containing '/' ");
    }
    std::vector<std::string> expectedAdds = {
        "6 234 onVeTableRow: Adding aggregated input table aba to flat/out",
        "6 234 onVeTableRow: Adding aggregated input table abxba to flat/out"};
    expected.insert(expected.begin(), expectedAdds.begin(), expectedAdds.end());  // "ab..." sort first
    EXPECT_EQ(aggregatorTraces(capture), expected);
}

TEST_F(AggregatorTest, RefusesOtherRowTypesWithoutRememberingTheRefusal) {
    Host::TraceCapture capture;
    ScopedDebugMask mask("Aggregator", (1u << 1) | (1u << 6));
    db_->createTable(kB, "Demo::Other");
    start();
    run();
    EXPECT_TRUE(agg_->inputPaths().empty());
    EXPECT_EQ(agg_->inputTable(kB), nullptr);
    // The "Adding" notice comes first, then the refusal.
    EXPECT_EQ(
        aggregatorTraces(capture),
        (std::vector<std::string>{
            "6 234 onVeTableRow: Adding aggregated input table velta/input/b/routes to velta/output/routes",
            "1 251 onVeTableRow: Row type Demo::Other is not valid, input table not added."}));

    // Dropping the refused table is no event for the aggregator; the same path with the right type
    // is examined afresh and admitted.
    capture.clear();
    EXPECT_TRUE(db_->dropTable(kB));
    run();
    EXPECT_TRUE(aggregatorTraces(capture).empty());
    db_->createTable(kB, kRoute);
    put(kB, "k1", "b");
    run();
    EXPECT_EQ(agg_->inputPaths(), std::vector<std::string>{kB});
    EXPECT_EQ(output(), std::vector<std::string>{"k1=b"});

    // A type name that matches the output's but names no class the host knows is refused too.
    capture.clear();
    Aggregator ghosts(connect("ghosts"), "velta/ghost/", "/rows", "velta/ghosts", "Demo::Ghost", false, true,
                      false);
    run();
    const auto ghostRow = [](const std::string& owner) {
        return makeRecord<veMetadata::veTable>(
            {{"tablePath", "velta/ghost/g/rows"}, {"typeName", "Demo::Ghost"}, {"owner", owner}});
    };
    db_->write(kMetadata, ghostRow("one"));
    run();
    db_->write(kMetadata, ghostRow("two"));  // examined again: refusals are not remembered
    run();
    EXPECT_TRUE(ghosts.inputPaths().empty());
    const std::string adding =
        "6 234 onVeTableRow: Adding aggregated input table velta/ghost/g/rows to velta/ghosts";
    const std::string refused =
        "1 251 onVeTableRow: Row type Demo::Ghost is not valid, input table not added.";
    EXPECT_EQ(aggregatorTraces(capture), (std::vector<std::string>{adding, refused, adding, refused}));
}

TEST_F(AggregatorTest, ASecondMetadataRowForAnAdmittedPathChangesNothing) {
    createInputs({kA});
    start();
    run();
    put(kA, "k1", "a");
    run();
    const auto input = agg_->inputTable(kA);
    ASSERT_NE(input, nullptr);
    EXPECT_EQ(input->tablePath(), kA);

    Host::TraceCapture capture;
    ScopedDebugMask mask("Aggregator", 0xffffffffu);
    // A client rewrites the metadata row with another type: not examined again.
    db_->write(kMetadata, makeRecord<veMetadata::veTable>(
                              {{"tablePath", kA}, {"typeName", "Demo::Other"}, {"owner", "someone"}}));
    run();
    EXPECT_TRUE(aggregatorTraces(capture).empty());
    EXPECT_EQ(agg_->inputPaths(), std::vector<std::string>{kA});
    EXPECT_EQ(agg_->inputTable(kA), input);
    put(kA, "k2", "a");
    run();
    EXPECT_EQ(output(), (std::vector<std::string>{"k1=a", "k2=a"}));
}

TEST_F(AggregatorTest, OutputTableMatchingItsOwnPatternFeedsItselfAndNeverSettles) {
    Host::Database::Options options;
    options.deliveryBound = 200;
    resetWith(options);
    createInputs({kA});
    const std::string loopOut = "velta/input/all/routes";
    agg_ = makeAggregator(connect("agg"), false, true, kPrefix, kSuffix, loopOut);
    run();
    EXPECT_EQ(agg_->inputPaths(), (std::vector<std::string>{kA, loopOut}));

    put(kA, "k1", "a");
    EXPECT_EQ(db_->runUntilIdle(), 200u);
    EXPECT_FALSE(db_->settled());
    EXPECT_GT(db_->pending(), 0u);
    // The row the aggregator rewrites endlessly is now supplied by the output itself.
    EXPECT_EQ(agg_->outputRowSource(routeKey("k1")), loopOut);
}

// ---------------------------------------------------------------------------------------------
// Merging and provenance

TEST_F(AggregatorTest, LastDeliveredRowWinsAndADeletionByANonOwnerChangesNothing) {
    createInputs({kA, kB});
    start();
    run();

    put(kA, "k1", "a");
    run();
    put(kB, "k1", "b");
    put(kA, "k2", "a");
    put(kB, "k2", "b");
    run();
    EXPECT_EQ(source("k1"), kB);
    EXPECT_EQ(source("k2"), kB);

    // A no longer has k1, but the output row came from B: nothing happens.
    del(kA, "k1");
    run();
    EXPECT_EQ(source("k1"), kB);

    // B loses k2: A's row replaces it and A becomes the owner.
    del(kB, "k2");
    run();
    EXPECT_EQ(source("k2"), kA);

    // The same input delivering again rewrites the row and stays the owner.
    put(kA, "k2", "a", 7);
    run();
    EXPECT_EQ(source("k2"), kA);
    EXPECT_EQ(timeline_.take(),
              (std::vector<std::string>{"+k1=a", "+k1=b", "+k2=a", "+k2=b", "+k2=a", "+k2=a"}));
    EXPECT_EQ(db_->read(kOut, routeKey("k2")).number(2), 7u);
    EXPECT_EQ(output(), (std::vector<std::string>{"k1=b", "k2=a"}));
    EXPECT_EQ(source("k9"), "");
}

TEST_F(AggregatorTest, ReplacementFollowsPathOrderNotRecency) {
    createInputs({kA, kB, kC});
    start();
    run();
    put(kA, "k1", "a");
    run();
    put(kB, "k1", "b");  // b wrote later than a
    run();
    put(kC, "k1", "c");
    run();
    EXPECT_EQ(source("k1"), kC);
    timeline_.take();

    del(kC, "k1");
    run();
    EXPECT_EQ(timeline_.take(), std::vector<std::string>{"+k1=a"});
    EXPECT_EQ(source("k1"), kA);

    // The deleting input is asked too, and must no longer show its row.
    del(kA, "k1");
    run();
    EXPECT_EQ(timeline_.take(), std::vector<std::string>{"+k1=b"});
    EXPECT_EQ(source("k1"), kB);

    // The only holder deletes: the output row and the entry go.
    del(kB, "k1");
    run();
    EXPECT_EQ(timeline_.take(), std::vector<std::string>{"-k1=b"});
    EXPECT_EQ(source("k1"), "");
    EXPECT_TRUE(output().empty());
}

TEST_F(AggregatorTest, DeleteWithoutReplacementDropsTheRowUntilAnotherInputDeliversIt) {
    createInputs({kA, kB});
    start(/*deleteWithoutReplacement=*/true);
    run();
    put(kA, "k1", "a");
    run();
    put(kB, "k1", "b");
    run();
    del(kB, "k1");
    run();
    EXPECT_TRUE(output().empty());
    EXPECT_EQ(source("k1"), "");

    put(kB, "k2", "b");
    run();
    put(kA, "k1", "a", 2);  // A delivers again: its row returns
    run();
    EXPECT_EQ(source("k1"), kA);
    EXPECT_EQ(timeline_.take(), (std::vector<std::string>{"+k1=a", "+k1=b", "-k1=b", "+k2=b", "+k1=a"}));
}

// ---------------------------------------------------------------------------------------------
// Input removal

TEST_F(AggregatorTest, RemovingAnInputSettlesItsRowsInKeyOrderBeforeItIsDestroyed) {
    createInputs({kA, kB, kC});
    start();
    run();
    put(kA, "k1", "a");
    put(kA, "k3", "a");
    put(kA, "k5", "a");
    put(kC, "k4", "c");
    put(kC, "k5", "c");
    run();
    put(kB, "k1", "b");
    put(kB, "k2", "b");
    put(kB, "k4", "b");
    put(kB, "k5", "b");
    run();
    put(kB, "k3", "b");  // then A takes k3 back
    run();
    put(kA, "k3", "a");
    run();
    EXPECT_EQ(output(), (std::vector<std::string>{"k1=b", "k2=b", "k3=a", "k4=b", "k5=b"}));
    timeline_.take();

    Host::TraceCapture capture;
    ScopedDebugMask mask("Aggregator", 1u << 9);
    timeline_.captureIs(&capture);
    // B leaves the metadata while it still exists; a row it gets afterwards is queued for its
    // observer but must never arrive.
    EXPECT_TRUE(db_->erase(kMetadata, metadataKey(kB)));
    put(kB, "k6", "b");
    run();
    EXPECT_EQ(timeline_.take(), (std::vector<std::string>{
                                    "+k1=a", "-k2=b", "+k4=c", "+k5=a",
                                    "Velta::Agent::Aggregator::AggregatorInputTable::~AggregatorInputTable() "
                                    "velta/input/b/routes=>velta/output/routes"}));
    EXPECT_EQ(agg_->inputPaths(), (std::vector<std::string>{kA, kC}));
    EXPECT_EQ(agg_->inputTable(kB), nullptr);
    EXPECT_FALSE(hasTrace(capture, "Aggregator", 9, "onRow(const Velta::BaseRow&) velta/input/b/routes"));
    EXPECT_EQ(source("k1"), kA);
    EXPECT_EQ(source("k2"), "");
    EXPECT_EQ(source("k3"), kA);
    EXPECT_EQ(source("k4"), kC);
    EXPECT_EQ(source("k5"), kA);

    // Dropping C's table (rows go without delete callbacks) settles what C supplied.
    EXPECT_TRUE(db_->dropTable(kC));
    run();
    EXPECT_EQ(timeline_.take(), (std::vector<std::string>{
                                    "-k4=c",
                                    "Velta::Agent::Aggregator::AggregatorInputTable::~AggregatorInputTable() "
                                    "velta/input/c/routes=>velta/output/routes"}));
    EXPECT_EQ(output(), (std::vector<std::string>{"k1=a", "k3=a", "k5=a"}));

    // Removing an unknown table does nothing.
    db_->createTable("velta/elsewhere", kRoute);
    run();
    EXPECT_TRUE(db_->dropTable("velta/elsewhere"));
    run();
    EXPECT_TRUE(timeline_.take().empty());
    timeline_.captureIs(nullptr);
}

// ---------------------------------------------------------------------------------------------
// Readiness

TEST_F(AggregatorTest, MovesFromDisabledThroughDiscoveryToRunningAndStartsInputsOnce) {
    createInputs({kA, kB});
    put(kA, "k1", "a");
    put(kB, "k2", "b");
    db_->write(kOut, route("k0", "old"));
    start(false, /*enabled=*/false);
    timeline_.take();

    Host::TraceCapture capture;
    ScopedDebugMask mask("Schedulable", 1u << 8);
    // Disabled: both interfaces bound, no metadata requested.
    run();
    EXPECT_FALSE(agg_->ready());
    EXPECT_TRUE(agg_->inputPaths().empty());
    EXPECT_TRUE(timeline_.take().empty());

    // Discovering until the host reports the metadata ready; then Running.
    agg_->enableIs(true);
    EXPECT_TRUE(agg_->inputPaths().empty());
    run();
    EXPECT_TRUE(agg_->ready());
    // Resync first (k0 is held by no input), then each input walks its rows in.
    EXPECT_EQ(timeline_.take(), (std::vector<std::string>{"-k0=old", "+k1=a", "+k2=b"}));
    EXPECT_EQ(findTraces(capture, "Schedulable", 8, " inputObserver ready: 1").size(), 2u);

    // A second ready report from an input's host walks it again.
    put(kA, "k3", "a");
    run();
    timeline_.take();
    ASSERT_NE(agg_->inputTable(kA), nullptr);
    agg_->inputTable(kA)->onObserverReady();
    EXPECT_EQ(timeline_.take(), (std::vector<std::string>{"+k1=a", "+k3=a"}));

    // Disabled again: inputs keep forwarding, but ready passes return at once.
    agg_->enableIs(false);
    db_->write(kOut, route("k9", "stray"));
    put(kB, "k4", "b");
    run();
    agg_->onReady();
    EXPECT_EQ(timeline_.take(), (std::vector<std::string>{"+k9=stray", "+k4=b"}));
    // Enabling runs a ready pass at once: the stray row goes.
    agg_->enableIs(true);
    EXPECT_EQ(timeline_.take(), std::vector<std::string>{"-k9=stray"});
    EXPECT_EQ(output(), (std::vector<std::string>{"k1=a", "k2=b", "k3=a", "k4=b"}));
}

TEST_F(AggregatorTest, ScannedInputsWaitForTheOutputAndResyncCanBeSuppressed) {
    createInputs({kA, kB});
    put(kA, "k1", "a");
    db_->write(kOut, route("k0", "old"));
    start(false, /*enabled=*/false);
    agg_->suppressResyncIs(true);
    agg_->enableIs(true);
    timeline_.take();

    // The metadata pass runs before the host has reported the output ready: Scanned.
    agg_->onVeTableReady();
    EXPECT_FALSE(agg_->ready());
    ASSERT_EQ(agg_->inputPaths(), (std::vector<std::string>{kA, kB}));
    EXPECT_FALSE(agg_->inputTable(kA)->observer().clientReady());
    EXPECT_FALSE(agg_->inputTable(kB)->observer().clientReady());

    // The output's ready report starts every input.
    while (!agg_->output().ready()) ASSERT_TRUE(db_->runOne());
    EXPECT_TRUE(agg_->ready());
    EXPECT_TRUE(agg_->inputTable(kA)->observer().clientReady());
    EXPECT_TRUE(agg_->inputTable(kB)->observer().clientReady());
    run();
    // The row no input holds stays: the resync was suppressed.
    EXPECT_EQ(timeline_.take(), std::vector<std::string>{"+k1=a"});
    EXPECT_EQ(output(), (std::vector<std::string>{"k0=old", "k1=a"}));

    agg_->suppressResyncIs(false);
    agg_->onReady();
    EXPECT_EQ(timeline_.take(), std::vector<std::string>{"-k0=old"});
}

// ---------------------------------------------------------------------------------------------
// Flow control
//
// The aggregator never reports itself blocked, so a walk stops early only when the host fails in
// the middle of it. FlakyHost stands in for such a host: it forwards everything to the in-memory
// host, except that its key comparison can be made to fail for rows with a given next hop, and
// that it can leave chosen paths unbound (attachment value zero).

class FlakyRowOps : public RowOps {
public:
    explicit FlakyRowOps(std::shared_ptr<const RowOps> real) : real_(std::move(real)) {}
    bool keyLess(const BaseRow& a, const BaseRow& b) const override {
        if (!failOn.empty() && (hop(a) == failOn || hop(b) == failOn))
            throw std::runtime_error("host failure");
        return real_->keyLess(a, b);
    }
    std::string failOn;  // next hop whose rows make the comparison fail; empty: never

private:
    static std::string hop(const BaseRow& row) {
        return row.rowType() != nullptr && row.rowType()->hasField("nexthop") ? field(row, "nexthop") : "";
    }
    std::shared_ptr<const RowOps> real_;
};

class FlakyHost : public ForwardingHost {
public:
    using ForwardingHost::ForwardingHost;
    void bindInterface(VeTableInterface& iface, const std::string& path, bool flag) override {
        if (unbound.count(path) == 0) ForwardingHost::bindInterface(iface, path, flag);
    }
    std::shared_ptr<const RowOps> getRowOps(const std::string& typeName, unsigned char index) const override {
        auto ops = std::make_shared<FlakyRowOps>(ForwardingHost::getRowOps(typeName, index));
        lastOps = ops;
        return ops;
    }

    std::set<std::string> unbound;
    mutable std::shared_ptr<FlakyRowOps> lastOps;
};

TEST_F(AggregatorTest, OutputBlockedDeactivatesAndResumesAPendingWalkFromItsBookmark) {
    const std::string kZ = "velta/input/z/routes";
    createInputs({kA, kZ});
    put(kA, "k1", "a");
    put(kA, "k2", "a");
    put(kA, "k3", "a");
    auto host = std::make_shared<FlakyHost>(connect("agg"));
    host->unbound.insert(kZ);
    agg_ = makeAggregator(host);
    run();
    EXPECT_EQ(timeline_.take(), (std::vector<std::string>{"+k1=a", "+k2=a", "+k3=a"}));
    const auto a = agg_->inputTable(kA);
    const auto z = agg_->inputTable(kZ);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(z, nullptr);
    VeTableInterface& aObserver = a->observer();
    VeTableInterface& zObserver = z->observer();

    // No walk pending.
    EXPECT_FALSE(aObserver.activated());
    a->outputBlocked(true);  // not active: nothing to do
    EXPECT_FALSE(aObserver.activated());
    aObserver.activate(true);
    a->outputBlocked(true);
    EXPECT_FALSE(aObserver.activated());
    aObserver.activate(true);
    a->outputBlocked(false);  // attached, nothing pending: ends the active state
    EXPECT_FALSE(aObserver.activated());

    // Attachment value zero: outputBlocked(false) does nothing at all; true still deactivates.
    EXPECT_EQ(zObserver.attachment(), 0u);
    zObserver.activate(true);
    z->outputBlocked(false);
    EXPECT_TRUE(zObserver.activated());
    z->outputBlocked(true);
    EXPECT_FALSE(zObserver.activated());
    EXPECT_TRUE(timeline_.take().empty());

    // Make k2 fail: A's k2 now has next hop "x", while the aggregator's entry keeps its first row.
    put(kA, "k2", "x");
    run();
    timeline_.take();
    ASSERT_NE(host->lastOps, nullptr);
    host->lastOps->failOn = "x";

    // A ready report whose walk fails at k2: k1 went out, k2 is bookmarked, the observer stays
    // active.
    EXPECT_THROW(a->onObserverReady(), std::runtime_error);
    EXPECT_EQ(timeline_.take(), std::vector<std::string>{"+k1=a"});
    EXPECT_TRUE(aObserver.activated());
    a->outputBlocked(true);
    EXPECT_FALSE(aObserver.activated());
    aObserver.activate(true);

    // Resumed from the bookmark (not from k1), and the observer is left active afterwards.
    host->lastOps->failOn.clear();
    a->outputBlocked(false);
    EXPECT_EQ(timeline_.take(), (std::vector<std::string>{"+k2=x", "+k3=a"}));
    EXPECT_TRUE(aObserver.activated());
    a->outputBlocked(false);  // nothing pending any more
    EXPECT_FALSE(aObserver.activated());

    // The bookmarked row is deleted before the walk resumes: it continues with the next key.
    host->lastOps->failOn = "x";
    EXPECT_THROW(a->onObserverReady(), std::runtime_error);
    EXPECT_EQ(timeline_.take(), std::vector<std::string>{"+k1=a"});
    host->lastOps->failOn.clear();
    del(kA, "k2");
    a->outputBlocked(false);
    EXPECT_EQ(timeline_.take(), std::vector<std::string>{"+k3=a"});
    run();  // the deletion arrives: no input holds k2 any more
    EXPECT_EQ(timeline_.take(), std::vector<std::string>{"-k2=x"});

    // A ready report with a walk pending resumes it as well, then ends the active state.
    put(kA, "k3", "y");
    run();
    EXPECT_EQ(timeline_.take(), std::vector<std::string>{"+k3=y"});
    host->lastOps->failOn = "y";
    EXPECT_THROW(a->onObserverReady(), std::runtime_error);
    EXPECT_EQ(timeline_.take(), std::vector<std::string>{"+k1=a"});
    EXPECT_TRUE(aObserver.activated());
    host->lastOps->failOn.clear();
    a->onObserverReady();
    EXPECT_EQ(timeline_.take(), std::vector<std::string>{"+k3=y"});
    EXPECT_FALSE(aObserver.activated());
    EXPECT_EQ(output(), (std::vector<std::string>{"k1=a", "k3=y"}));
}

// ---------------------------------------------------------------------------------------------
// Traces and teardown

TEST_F(AggregatorTest, TracesOnlyEnabledLevelsAndTeardownKeepsTheOutput) {
    createInputs({kA});
    db_->createTable(kB, "Demo::Other");
    Host::TraceCapture capture;
    {
        ScopedDebugMask mask("Aggregator", 0);
        start();
        run();
        put(kA, "k1", "a");
        run();
    }
    EXPECT_TRUE(capture.records().empty());

    ScopedDebugMask mask("Aggregator", 1u << 9);
    put(kA, "k2", "a", 2);
    run();
    del(kA, "k2");
    run();
    const std::string row = route("k2", "a", 2).toString();
    agg_.reset();
    EXPECT_EQ(
        aggregatorTraces(capture),
        (std::vector<std::string>{
            "9 89 onRow: void Velta::Agent::Aggregator::AggregatorInputTable::onRow(const Velta::BaseRow&) "
            "velta/input/a/routes=>velta/output/routes, " +
                row,
            "9 95 onDelete: void Velta::Agent::Aggregator::AggregatorInputTable::onDelete(const "
            "Velta::BaseRow&) velta/input/a/routes=>velta/output/routes, " +
                row,
            "9 137 ~Aggregator: Velta::Agent::Aggregator::~Aggregator() velta/output/routes",
            "9 34 ~AggregatorInputTable: "
            "Velta::Agent::Aggregator::AggregatorInputTable::~AggregatorInputTable() "
            "velta/input/a/routes=>velta/output/routes"}));
    // Destruction writes and deletes nothing.
    EXPECT_EQ(output(), std::vector<std::string>{"k1=a"});
    // The shared handler survives the aggregator.
    EXPECT_EQ(Aggregator::__kestoDebug::getHandler(), Kesto::Platform::getDebugHandler("Aggregator"));
    EXPECT_EQ(Aggregator::AggregatorInputTable::__kestoDebug::getHandler()->mask(), 1u << 9);
}

}  // namespace
}  // namespace Velta::Test
