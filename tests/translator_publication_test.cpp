// SubscriptionTranslator: publications in both directions and the ready passes' sweeps, on the
// in-memory host.
#include "TestSupport.h"

#include <Velta/Agent/SubscriptionTranslator.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace Velta::Test {
namespace {

class PublicationTest : public TranslatorTest {
protected:
    struct Established {
        External::Subscription sub;
        std::uint32_t sid = 0;
        veMetadata::veTable table;
    };

    // Writes a subscription, runs the loop and returns it with its control id and table.
    Established establish(FieldValues values) {
        Established e;
        e.sub = writeSubscription(std::move(values));
        run();
        e.sid = ctrlFor(e.sub.oid()).oid();
        e.table = tableRow(e.sub.outputPath());
        EXPECT_NE(e.sid, 0u) << e.sub;
        EXPECT_FALSE(e.table.empty()) << e.sub;
        return e;
    }
    veCtrl::publication internal(const Established& e, std::uint64_t ptime, bool status = true,
                                 const std::string& error = "") {
        return makeRecord<veCtrl::publication>({{"subscription_id", e.sid},
                                                {"tableId", e.table.oid()},
                                                {"typeId", itemTypeId()},
                                                {"system_id", 10},
                                                {"status", status},
                                                {"error", error},
                                                {"ptime", ptime}});
    }
    External::Publication mirrored(const Established& e, std::uint64_t ptime, bool status = true,
                                   const std::string& error = "") {
        return makeRecord<External::Publication>({{"subscription_id", e.sub.oid()},
                                                  {"publication_id", e.sid},
                                                  {"tableId", e.table.oid()},
                                                  {"typeId", itemTypeId()},
                                                  {"status", status},
                                                  {"error", error},
                                                  {"ptime", ptime}});
    }
    std::size_t defineQueries() const {
        return static_cast<std::size_t>(std::count_if(
            db_->calls().begin(), db_->calls().end(),
            [](const Host::HostCall& c) { return c.kind == Host::HostCall::Kind::defineQuery; }));
    }
    // The change log's lines for `path` from position `from` on.
    std::vector<std::string> changesSince(const std::string& path, std::size_t from) const {
        const std::vector<std::string> all = changeLines(log_, path);
        return {all.begin() + static_cast<std::ptrdiff_t>(std::min(from, all.size())), all.end()};
    }
    std::vector<std::string> allTables() const {
        std::vector<std::string> out;
        for (const std::string& path : {kExtSubs, kExtPub, kCtrlSubs, kCtrlPub}) {
            for (const std::string& l : lines(path)) out.push_back(path + " " + l);
        }
        return out;
    }
};

// ---------------------------------------------------------------------------------------------
// Internal to external (server agent)

// A current mirrored row is not written again (ptime slack 50, same status and error), but the
// query is defined again every time; a failed publication is mirrored without a query.
TEST_F(PublicationTest, UnchangedPublicationIsNotRewrittenButQueryIsDefinedAgain) {
    itemType();
    writeSystem(10, "clientSys", "client");
    db_->createTable("velta/in/items", "Test::Item");
    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    const Established e = establish({{"system_description", 10},
                                     {"outputPath", "velta/out/m"},
                                     {"queryText", "SELECT key FROM velta/in/items"},
                                     {"standing", true}});
    const std::size_t mark = changeLines(log_, kExtPub).size();

    struct Step {
        std::uint64_t ptime;
        bool status;
        std::string error;
        std::size_t queries;  // defineQuery calls so far
    };
    const std::vector<Step> steps = {
        {100, true, "", 1}, {100, true, "", 2},     {149, true, "", 3},
        {150, true, "", 4}, {150, true, "warn", 5}, {150, false, "broken", 5},
    };
    for (const Step& s : steps) {
        db_->write(kCtrlPub, internal(e, s.ptime, s.status, s.error));
        run();
        EXPECT_EQ(defineQueries(), s.queries) << "ptime " << s.ptime << " error " << s.error;
    }
    EXPECT_EQ(changesSince(kExtPub, mark), (std::vector<std::string>{
                                               "+" + mirrored(e, 100).toString(),
                                               "+" + mirrored(e, 150).toString(),
                                               "+" + mirrored(e, 150, true, "warn").toString(),
                                               "+" + mirrored(e, 150, false, "broken").toString(),
                                           }));
    EXPECT_EQ(t.publications().size(), 1u);
    // Every definition carried the client's text and the publication's type.
    for (const Host::HostCall& c : db_->calls()) {
        if (c.kind != Host::HostCall::Kind::defineQuery) continue;
        EXPECT_EQ(c.text, "SELECT key FROM velta/in/items");
        EXPECT_EQ(c.typeId, itemTypeId());
        EXPECT_TRUE(c.standing);
        EXPECT_EQ(c.name, "");
    }
}

// Publications that are not mirrored: an internal member's (traced), and those whose control row,
// table or external subscription is missing (silent). A direct access is mirrored without a query.
TEST_F(PublicationTest, PublicationsThatAreNotMirroredOrDefineNoQuery) {
    itemType();
    writeSystem(10, "clientSys", "client");
    writeSystem(11, "internalSys", "member", 0);
    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    const Established member = establish({{"system_description", 11},
                                          {"outputPath", "velta/out/member"},
                                          {"queryText", "SELECT 1"},
                                          {"standing", true}});
    const Established reader = establish({{"system_description", 10},
                                          {"outputPath", "velta/out/reader"},
                                          {"queryText", "SELECT * FROM velta/out/reader"},
                                          {"standing", true}});
    const std::vector<std::string> pubsBefore = lines(kExtPub);
    const std::size_t mark = changeLines(log_, kExtPub).size();

    ScopedDebugMask mask("SubscriptionTranslator", 0x3ffu & ~(1u << 8) & ~(1u << 9));
    Host::TraceCapture capture;
    db_->write(kCtrlPub, internal(member, 10));
    Established ghost = member;
    ghost.sid = 4000;  // no control row
    db_->write(kCtrlPub, internal(ghost, 10));
    Established noTable = reader;
    noTable.table.oidIs(4001);  // no such table
    noTable.sid = reader.sid;
    db_->write(kCtrlPub, internal(noTable, 10));
    run();
    EXPECT_EQ(traces(capture),
              std::vector<std::string>{
                  "L2 SubscriptionTranslator:775 pubOnRow |   PublicationTranslator Skipping internal "
                  "publication: " +
                  streamed(ctrlFor(member.sub.oid())) + " for internal member " +
                  streamed(makeRecord<veMetadata::SystemDescription>(
                      {{"oid", 11}, {"sysName", "internalSys"}, {"agentName", "member"}}))});
    EXPECT_EQ(lines(kExtPub), pubsBefore);
    EXPECT_TRUE(t.publications().empty());

    // The direct read's publication is mirrored, but no query is defined for it.
    const std::size_t queries = defineQueries();
    capture.clear();
    db_->write(kCtrlPub, internal(reader, 20));
    run();
    EXPECT_EQ(changesSince(kExtPub, mark), std::vector<std::string>{"+" + mirrored(reader, 20).toString()});
    EXPECT_EQ(defineQueries(), queries);
    EXPECT_FALSE(hasTrace(capture, "SubscriptionTranslator", 4, "defineQuery"));

    // An external subscription that is gone while its control row stays: nothing is mirrored.
    const Established gone = establish({{"system_description", 10},
                                        {"outputPath", "velta/out/gone"},
                                        {"queryText", "SELECT 1"},
                                        {"standing", true}});
    t.clean();  // forget the registry, so the deletion below leaves the control row
    ASSERT_TRUE(db_->erase(kExtSubs, gone.sub));
    run();
    ASSERT_FALSE(ctrlFor(gone.sub.oid()).empty());
    const std::vector<std::string> afterGone = lines(kExtPub);
    t.pubOnRow(internal(gone, 10));
    EXPECT_EQ(lines(kExtPub), afterGone);
}

// Losing the internal publication marks a good client row failed; a failed one only leaves the
// translator's set; one that was never mirrored changes nothing. Only a new publication makes the
// row good again.
TEST_F(PublicationTest, DeletedInternalPublicationFailsTheClientsRow) {
    itemType();
    writeSystem(10, "clientSys", "client");
    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    const Established e = establish({{"system_description", 10},
                                     {"outputPath", "velta/out/d"},
                                     {"queryText", "SELECT 1"},
                                     {"standing", true}});
    db_->write(kCtrlPub, internal(e, 10));
    run();
    ASSERT_EQ(t.publications().size(), 1u);

    ASSERT_TRUE(db_->erase(kCtrlPub, internal(e, 10)));
    run();
    EXPECT_EQ(lines(kExtPub), std::vector<std::string>{
                                  mirrored(e, 10, false, "no corresponding publication row").toString()});
    EXPECT_TRUE(t.publications().empty());

    db_->write(kCtrlPub, internal(e, 20));
    run();
    EXPECT_EQ(lines(kExtPub), std::vector<std::string>{mirrored(e, 20).toString()});

    // Already failed: the delete only drops it from the set.
    db_->write(kCtrlPub, internal(e, 30, false, "x"));
    run();
    ASSERT_EQ(t.publications().size(), 1u);
    ASSERT_TRUE(db_->erase(kCtrlPub, internal(e, 30)));
    run();
    EXPECT_EQ(lines(kExtPub), std::vector<std::string>{mirrored(e, 30, false, "x").toString()});
    EXPECT_TRUE(t.publications().empty());

    // Never mirrored: nothing happens.
    db_->write(kCtrlPub, internal(e, 40));
    run();
    const std::vector<std::string> good = lines(kExtPub);
    t.pubOnDelete(makeRecord<veCtrl::publication>({{"subscription_id", 9999}}));
    EXPECT_EQ(lines(kExtPub), good);
    EXPECT_EQ(t.publications().size(), 1u);
}

// At readiness the client rows are checked against the internal publications: one without its
// internal row is marked failed, one with publication_id 0 is left alone. The pass is repeatable.
TEST_F(PublicationTest, ReadyPassMarksOrphanedClientRowsAndIsRepeatable) {
    itemType();
    writeSystem(10, "clientSys", "client");
    start(Kind::server, "server", "serverSys");
    const Established good = establish({{"system_description", 10},
                                        {"outputPath", "velta/out/good"},
                                        {"queryText", "SELECT 1"},
                                        {"standing", true}});
    const Established placeholder = establish({{"system_description", 10},
                                               {"outputPath", "velta/out/ph"},
                                               {"queryText", "SELECT 2"},
                                               {"standing", true}});
    const Established orphan = establish({{"system_description", 10},
                                          {"outputPath", "velta/out/orphan"},
                                          {"queryText", "SELECT 3"},
                                          {"standing", true}});
    db_->write(kCtrlPub, internal(good, 10));
    run();
    External::Publication orphaned = mirrored(orphan, 10);
    orphaned.publication_idIs(777);
    db_->write(kExtPub, orphaned);
    const External::Publication placeholderRow = extPubFor(placeholder.sub.oid());
    ASSERT_EQ(placeholderRow.publication_id(), 0u);

    // A new translator takes over the same tables.
    translator_.reset();
    db_->callsClear();
    Agent::SubscriptionTranslator& t = start(Kind::server, "server2", "serverSys");
    orphaned.statusIs(false);
    orphaned.errorIs("no corresponding internal publication row");
    EXPECT_EQ(extPubFor(orphan.sub.oid()).toString(), orphaned.toString());
    EXPECT_EQ(extPubFor(placeholder.sub.oid()).toString(), placeholderRow.toString());
    EXPECT_EQ(extPubFor(good.sub.oid()).toString(), mirrored(good, 10).toString());
    EXPECT_EQ(t.publications().size(), 1u);
    EXPECT_EQ(defineQueries(), 1u);
    EXPECT_EQ(entryOf(t, good.sub).sid, good.sid);

    const std::vector<std::string> tables = allTables();
    log_.clear();
    t.onTableReady();
    t.onTableReady();
    run();
    EXPECT_EQ(allTables(), tables);
    EXPECT_EQ(t.publications().size(), 1u);
    EXPECT_EQ(t.subscriptionCount(), 3u);
    EXPECT_EQ(defineQueries(), 3u);  // the good publication's query, once per pass
    // Rewrites of unchanged rows are allowed; nothing was deleted.
    for (const std::string& line : changeLines(log_)) EXPECT_NE(line[0], '-') << line;
}

// The ready pass drops control rows with no system description, of an internal member, or without
// their external subscription, and (server) client publications without their subscription.
TEST_F(PublicationTest, ReadyPassSweepsStaleControlRowsAndPublications) {
    itemType();
    writeSystem(10, "clientSys", "client");
    writeSystem(11, "internalSys", "member", 0);
    const External::Subscription sub = writeSubscription({{"system_description", 10},
                                                          {"outputPath", "velta/out/s"},
                                                          {"queryText", "SELECT 1"},
                                                          {"standing", true}});
    auto ctrl = [](unsigned systemDescription, unsigned connection, unsigned tableId) {
        return makeRecord<veCtrl::subscription>(
            {{"system_description", systemDescription}, {"connection_id", connection}, {"tableId", tableId}});
    };
    db_->write(kCtrlSubs, ctrl(77, sub.oid(), 1));  // no system description
    db_->write(kCtrlSubs, ctrl(11, sub.oid(), 1));  // internal member
    db_->write(kCtrlSubs, ctrl(10, 5555, 1));       // no external subscription
    const BaseRow kept = db_->write(kCtrlSubs, ctrl(10, sub.oid(), 4242));
    db_->write(kExtPub, makeRecord<External::Publication>({{"subscription_id", 6666}, {"status", true}}));
    const BaseRow keptPub = db_->write(
        kExtPub, makeRecord<External::Publication>({{"subscription_id", sub.oid()}, {"status", true}}));

    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    const std::uint32_t sid = entryOf(t, sub).sid;
    ASSERT_NE(sid, 0u);
    const veCtrl::subscription intake(
        db_->read(kCtrlSubs, makeRecord<veCtrl::subscription>({{"oid", sid}}), 1));
    ASSERT_EQ(intake.tableId(), tableRow("velta/out/s").oid());
    std::vector<std::string> expected = {kept.toString(), intake.toString()};
    std::vector<std::string> actual = lines(kCtrlSubs);
    std::sort(expected.begin(), expected.end());
    std::sort(actual.begin(), actual.end());
    EXPECT_EQ(actual, expected);
    EXPECT_EQ(lines(kExtPub), std::vector<std::string>{keptPub.toString()});
}

// Unequal parameter lists break the query's contract and end the process with the assertion report.
TEST_F(PublicationTest, UnequalParameterListsEndTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    itemType();
    writeSystem(10, "clientSys", "client");
    start(Kind::server, "server", "serverSys");
    const Established e = establish({{"system_description", 10},
                                     {"outputPath", "velta/out/bad"},
                                     {"queryText", "SELECT 1"},
                                     {"standing", true},
                                     {"paramName", {"a", "b"}},
                                     {"paramValue", {"1"}}});
    db_->write(kCtrlPub, internal(e, 10));
    EXPECT_DEATH(db_->runUntilIdle(),
                 "SubscriptionTranslator:812: void Velta::Agent::SubscriptionTranslator::pubOnRow\\(const "
                 "Velta::BaseRow&\\): Assertion `pName.size\\(\\) == pValue.size\\(\\)' failed");
}

// ---------------------------------------------------------------------------------------------
// External to internal (other agents)

class ExternalPublicationTest : public PublicationTest {
protected:
    void SetUp() override {
        itemType();
        writeSystem(20, "sysA", "A");
        db_->createTable("velta/out/e", "Test::Item");
        start(Kind::standalone, "A", "sysA");
        e_ = establish({{"system_description", 20},
                        {"outputPath", "velta/out/e"},
                        {"queryText", "SELECT * FROM velta/out/e"},
                        {"standing", true}});
    }
    External::Publication clientRow(std::uint32_t subscriptionId, bool status = true,
                                    const std::string& error = "") {
        return makeRecord<External::Publication>({{"subscription_id", subscriptionId},
                                                  {"publication_id", 1},
                                                  {"view_id", 3},
                                                  {"connection_id", 4},
                                                  {"tableId", 5},
                                                  {"typeId", 6},
                                                  {"ptime", 7},
                                                  {"status", status},
                                                  {"error", error}});
    }
    veCtrl::publication carried(std::uint32_t sid, bool status = true, const std::string& error = "") {
        return makeRecord<veCtrl::publication>({{"subscription_id", sid},
                                                {"view_id", 3},
                                                {"connection_id", 4},
                                                {"tableId", 5},
                                                {"typeId", 6},
                                                {"ptime", 7},
                                                {"system_id", 20},
                                                {"status", status},
                                                {"error", error}});
    }
    Agent::SubscriptionTranslator& t() { return *translator_; }
    Established e_;
};

// A client's publication is carried into the control publication table under the control id;
// every delivery writes, also when nothing changed.
TEST_F(ExternalPublicationTest, ClientPublicationIsCarriedOverUnconditionally) {
    const std::size_t mark = changeLines(log_, kCtrlPub).size();
    db_->write(kExtPub, clientRow(e_.sub.oid(), false, "client says no"));
    run();
    db_->write(kExtPub, clientRow(e_.sub.oid(), false, "client says no"));
    run();
    const std::string row = carried(e_.sid, false, "client says no").toString();
    EXPECT_EQ(changesSince(kCtrlPub, mark), (std::vector<std::string>{"+" + row, "+" + row}));
    EXPECT_EQ(lines(kCtrlPub), std::vector<std::string>{row});
    // Nothing is written back to the client's row.
    EXPECT_EQ(extPubFor(e_.sub.oid()).toString(),
              clientRow(e_.sub.oid(), false, "client says no").toString());
}

// Each missing piece ends the carry-over with its own trace and no write.
TEST_F(ExternalPublicationTest, EachMissingPieceIsTracedAndNothingWritten) {
    writeSystem(21, "sysA", "B");
    writeSystem(22, "sysA", "A");
    itemType();
    db_->createTable("velta/out/owned", "Test::Item", "someone");
    // An unrelated subscription (no registry entry) and a refused one (entry with sid 0).
    const External::Subscription unrelated = writeSubscription(
        {{"system_description", 21}, {"outputPath", "velta/out/u"}, {"queryText", "SELECT 1"}});
    const External::Subscription refused = writeSubscription({{"system_description", 22},
                                                              {"outputPath", "velta/out/owned"},
                                                              {"queryText", "SELECT * INTO velta/out/owned"},
                                                              {"desiredFlags", 1}});
    run();
    ASSERT_FALSE(t().subscription(unrelated));
    ASSERT_EQ(entryOf(t(), refused).sid, 0u);
    const std::size_t mark = changeLines(log_, kCtrlPub).size();

    ScopedDebugMask mask("SubscriptionTranslator", (1u << 2) | (1u << 4));
    Host::TraceCapture capture;
    const External::Publication noSub = clientRow(9999);
    db_->write(kExtPub, noSub);
    run();
    const External::Publication noEntry = clientRow(unrelated.oid());
    db_->write(kExtPub, noEntry);
    run();
    const External::Publication noCtrl = clientRow(refused.oid());
    db_->write(kExtPub, noCtrl);
    run();
    // The system description goes away.
    ASSERT_TRUE(db_->erase("velta/metadata/SystemDescription",
                           makeRecord<veMetadata::SystemDescription>({{"oid", 20}})));
    db_->write(kExtPub, clientRow(e_.sub.oid()));
    run();
    // It comes back for another agent of the same system, then for another system.
    const std::string prefix =
        "L2 SubscriptionTranslator:923 extPubOnRow |   PublicationTranslator Skipping unrelated "
        "subscription: " +
        streamed(e_.sub) + " (for system: ";
    writeSystem(20, "sysA", "B");
    db_->write(kExtPub, clientRow(e_.sub.oid()));
    run();
    writeSystem(20, "other", "A");
    db_->write(kExtPub, clientRow(e_.sub.oid()));
    run();
    EXPECT_EQ(
        traces(capture),
        (std::vector<std::string>{
            "L4 SubscriptionTranslator:897 extPubOnRow | No corresponding external Subscription for " +
                streamed(noSub),
            "L4 SubscriptionTranslator:903 extPubOnRow | No internal entry for Subscription " +
                streamed(unrelated),
            "L4 SubscriptionTranslator:909 extPubOnRow | No corresponding ctrl subscription for " +
                streamed(noCtrl),
            "L2 SubscriptionTranslator:916 extPubOnRow | No matching system description for subscription: " +
                streamed(e_.sub),
            prefix +
                streamed(makeRecord<veMetadata::SystemDescription>(
                    {{"oid", 20}, {"sysName", "sysA"}, {"agentName", "B"}, {"properties", 1}})) +
                ")",
            prefix +
                streamed(makeRecord<veMetadata::SystemDescription>(
                    {{"oid", 20}, {"sysName", "other"}, {"agentName", "A"}, {"properties", 1}})) +
                ")",
        }));
    EXPECT_TRUE(changesSince(kCtrlPub, mark).empty());
}

// A deleted client publication is looked up in the registry through the subscription key fields
// of the publication row itself (which has none of them): only an entry under the empty key
// matches, and its sid, even 0, names the internal row deleted.
TEST_F(ExternalPublicationTest, DeletedClientPublicationIsLookedUpThroughItsOwnRow) {
    db_->write(kExtPub, clientRow(e_.sub.oid()));
    run();
    db_->write(kCtrlPub, makeRecord<veCtrl::publication>({{"subscription_id", 0}, {"status", true}}));
    const std::vector<std::string> before = lines(kCtrlPub);
    ASSERT_EQ(before.size(), 2u);

    ScopedDebugMask mask("SubscriptionTranslator", 0x3ff);
    Host::TraceCapture capture;
    ASSERT_TRUE(db_->erase(kExtPub, clientRow(e_.sub.oid())));
    run();
    EXPECT_EQ(lines(kCtrlPub), before);
    EXPECT_EQ(traces(capture),
              std::vector<std::string>{
                  "L8 SubscriptionTranslator:950 extPubOnDelete | void "
                  "Velta::Agent::SubscriptionTranslator::extPubOnDelete(const Velta::BaseRow&)"});

    // A subscription with no output path and system 0 is registered under the empty key.
    writeSubscription({{"system_description", 0}, {"outputPath", ""}});
    run();
    const auto entry = t().subscription(External::Subscription(clientRow(1)));
    ASSERT_TRUE(entry);
    db_->write(kExtPub, clientRow(e_.sub.oid()));
    run();
    capture.clear();
    ASSERT_TRUE(db_->erase(kExtPub, clientRow(e_.sub.oid())));
    run();
    EXPECT_TRUE(hasTrace(capture, "SubscriptionTranslator", 9,
                         " deleting internal publication [0]  for external subscription: "));
    EXPECT_EQ(lines(kCtrlPub), std::vector<std::string>{carried(e_.sid).toString()});
}

// At readiness every client publication is carried over, then internal publications without a
// client row behind them are deleted, in key order, after the walk. Outside the server the client
// rows are not visible to that check, so even the rows just carried over go.
TEST_F(ExternalPublicationTest, ReadyPassSweepsInternalPublicationsAfterTheWalk) {
    db_->write(kExtPub, clientRow(e_.sub.oid()));
    run();
    const BaseRow stale = db_->write(
        kCtrlPub, makeRecord<veCtrl::publication>({{"subscription_id", e_.sid + 1000}, {"status", true}}));
    db_->write(kExtPub, makeRecord<External::Publication>({{"subscription_id", 8888}, {"status", true}}));
    const std::vector<std::string> clientRows = lines(kExtPub);
    const std::size_t mark = changeLines(log_, kCtrlPub).size();

    translator_.reset();
    start(Kind::standalone, "A", "sysA");
    const std::string carriedRow = carried(e_.sid).toString();
    EXPECT_EQ(changesSince(kCtrlPub, mark),
              (std::vector<std::string>{"+" + carriedRow, "-" + carriedRow, "-" + stale.toString()}));
    EXPECT_EQ(db_->rowCount(kCtrlPub), 0u);
    EXPECT_EQ(entryOf(t(), e_.sub).sid, e_.sid);
    // Client rows are never swept outside the server.
    EXPECT_EQ(lines(kExtPub), clientRows);
}

}  // namespace
}  // namespace Velta::Test
