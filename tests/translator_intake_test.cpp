// SubscriptionTranslator: intake of external subscriptions, their refusals, table registration and
// the agent kinds' bindings, on the in-memory host.
#include "TestSupport.h"

#include <Velta/Agent/SubscriptionTranslator.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

namespace Velta::Test {
namespace {

const std::string kCompleteSignature =
    "void Velta::Agent::SubscriptionTranslator::subscriptionComplete(Velta::Agent::Subs, "
    "Velta::Agent::TableRow, "
    "bool, bool, bool, Velta::oid_t, Velta::oid_t, const string&)";
const std::string kOneShotRefusal =
    "Can't do a one-shot read of non-materialized table. Issue a standing read, or use a query instead.";

Host::Database::Options hostOptions(bool autoPublish, bool manualQueries = false) {
    Host::Database::Options o;
    o.autoPublish = autoPublish;
    o.manualQueries = manualQueries;
    return o;
}

std::string line(const BaseRow& row) { return row.toString(); }

class IntakeTest : public TranslatorTest {};

// A query subscription in the server agent, with control publications answered by the host: the
// placeholder publication first, then the mirrored one, the query with the client's arguments, and
// its completion.
TEST_F(IntakeTest, QuerySubscriptionRoadInServerAgent) {
    reset(hostOptions(true));
    itemType();
    writeSystem(10, "clientSys", "client");
    db_->createTable("velta/in/items", "Test::Item");
    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    const unsigned typeId = itemTypeId();
    db_->clockAdvance(500);
    const External::Subscription sub = writeSubscription({{"system_description", 10},
                                                          {"outputPath", "velta/out/q1"},
                                                          {"queryText", "SELECT key FROM velta/in/items"},
                                                          {"standing", true},
                                                          {"features", 6},
                                                          {"paramName", {"a", "b", "a"}},
                                                          {"paramValue", {"1", "2", "3"}},
                                                          {"ptime", 42}});

    // Intake only: the table is registered and visible at once, the control row and a placeholder
    // publication are written.
    ASSERT_TRUE(db_->runOne());
    EXPECT_EQ(callLines(*db_),
              std::vector<std::string>{"registerTable path=velta/out/q1 typeName=Test::Item tableType=0 "
                                       "desiredFlags=0 flags=0 owner= agent=server"});
    const veMetadata::veTable table = tableRow("velta/out/q1");
    ASSERT_FALSE(table.empty());
    ASSERT_EQ(db_->rowCount(kCtrlSubs), 1u);
    const std::uint32_t sid = veCtrl::subscription(db_->rows(kCtrlSubs).at(0)).oid();
    ASSERT_NE(sid, 0u);
    EXPECT_EQ(lines(kCtrlSubs),
              std::vector<std::string>{line(makeRecord<veCtrl::subscription>({{"oid", sid},
                                                                              {"connection_id", sub.oid()},
                                                                              {"system_description", 10},
                                                                              {"typeName", "Test::Item"},
                                                                              {"tableId", table.oid()},
                                                                              {"features", 6},
                                                                              {"writer", false},
                                                                              {"ptime", 42}}))});
    EXPECT_EQ(lines(kExtPub),
              std::vector<std::string>{line(makeRecord<External::Publication>({{"subscription_id", sub.oid()},
                                                                               {"publication_id", 0},
                                                                               {"status", true},
                                                                               {"tableId", table.oid()},
                                                                               {"typeId", typeId},
                                                                               {"ptime", 0}}))});
    const auto entry = t.subscription(sub);
    ASSERT_TRUE(entry);
    EXPECT_FALSE(entry->writer);
    EXPECT_FALSE(entry->reader);
    EXPECT_EQ(entry->externalOid, sub.oid());
    EXPECT_EQ(entry->tableOid, table.oid());
    EXPECT_EQ(entry->typeId, typeId);
    EXPECT_EQ(entry->sid, sid);
    EXPECT_EQ(t.externalSubscriptionId(sid), sub.oid());

    // The host publishes; the publication is mirrored and the client's query defined, then completed.
    ScopedDebugMask mask("SubscriptionTranslator", 0x3ff);
    Host::TraceCapture capture;
    run();
    EXPECT_EQ(lines(kCtrlPub),
              std::vector<std::string>{line(makeRecord<veCtrl::publication>({{"subscription_id", sid},
                                                                             {"tableId", table.oid()},
                                                                             {"typeId", typeId},
                                                                             {"system_id", 10},
                                                                             {"status", true},
                                                                             {"ptime", 500}}))});
    EXPECT_EQ(lines(kExtPub),
              std::vector<std::string>{line(makeRecord<External::Publication>({{"subscription_id", sub.oid()},
                                                                               {"publication_id", sid},
                                                                               {"status", true},
                                                                               {"tableId", table.oid()},
                                                                               {"typeId", typeId},
                                                                               {"ptime", 500}}))});
    EXPECT_EQ(callLines(*db_),
              (std::vector<std::string>{
                  "registerTable path=velta/out/q1 typeName=Test::Item tableType=0 desiredFlags=0 flags=0 "
                  "owner= agent=server",
                  "defineQuery text=\"SELECT key FROM velta/in/items\" typeId=" + std::to_string(typeId) +
                      " params={a=3,b=2} standing=1 name=\"\" agent=server",
              }));
    ASSERT_EQ(db_->queries().size(), 1u);
    EXPECT_EQ(db_->queries()[0].state, Host::QueryInfo::State::completed);
    EXPECT_EQ(t.publications().size(), 1u);
    EXPECT_EQ(findTraces(capture, "SubscriptionTranslator", 4, "defineQuery").size(), 1u);
    EXPECT_TRUE(hasTrace(capture, "SubscriptionTranslator", 4,
                         "[serverSys:10] defineQuery (velta/out/q1) SELECT key FROM velta/in/items"));
    // The completion reports back with the publication's sid and the table row; nothing changes.
    const auto completions = findTraces(capture, "SubscriptionTranslator", 8, kCompleteSignature);
    ASSERT_EQ(completions.size(), 1u);
    EXPECT_EQ(completions[0].message,
              kCompleteSignature + "( ok:1, sid:" + std::to_string(sid) + ",tr?1): " + streamed(sub) + "[]");
    EXPECT_EQ(entry->sid, sid);
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 1u);
}

// A query the host cannot run: the completion withdraws the control row; the host then withdraws
// its publication and the client's row is marked failed.
TEST_F(IntakeTest, FailedQueryWithdrawsControlRowAndFailsThePublication) {
    reset(hostOptions(true));
    writeSystem(10, "clientSys", "client");
    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    const External::Subscription sub = writeSubscription({{"system_description", 10},
                                                          {"outputPath", "velta/out/bad"},
                                                          {"queryText", "SELECT key FROM velta/in/missing"},
                                                          {"standing", true}});
    ASSERT_TRUE(db_->runOne());
    const std::uint32_t sid = ctrlFor(sub.oid()).oid();
    ASSERT_NE(sid, 0u);

    run();
    ASSERT_EQ(db_->queries().size(), 1u);
    EXPECT_EQ(db_->queries()[0].state, Host::QueryInfo::State::failed);
    EXPECT_TRUE(ctrlFor(sub.oid()).empty());
    EXPECT_EQ(db_->rowCount(kCtrlPub), 0u);
    const External::Publication pub = extPubFor(sub.oid());
    EXPECT_FALSE(pub.status());
    EXPECT_EQ(pub.error(), "no corresponding publication row");
    EXPECT_EQ(pub.publication_id(), sid);
    EXPECT_EQ(entryOf(t, sub).sid, 0u);
    EXPECT_EQ(t.externalSubscriptionId(sid), sub.oid());
    EXPECT_TRUE(t.publications().empty());
}

// Every refusal of the intake, each reported with its text in the client's publication row.
TEST_F(IntakeTest, RefusalsAreReportedInTheClientsPublication) {
    itemType();
    writeSystem(10, "clientSys", "client");
    db_->createTable("velta/out/owned", "Test::Item", "someone");
    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    const unsigned typeId = itemTypeId();

    const External::Subscription noPath = writeSubscription({{"system_description", 10}, {"outputPath", ""}});
    const External::Subscription noType = writeSubscription(
        {{"system_description", 10}, {"outputPath", "velta/out/t"}, {"typeName", "No::Such"}});
    // The missing system description is reported without a table, although the table exists.
    db_->createTable("velta/out/s", "Test::Item");
    const External::Subscription noSystem =
        writeSubscription({{"system_description", 99}, {"outputPath", "velta/out/s"}});
    const External::Subscription oneShot =
        writeSubscription({{"system_description", 10},
                           {"outputPath", "velta/out/oneshot"},
                           {"queryText", "SELECT * FROM velta/out/oneshot"},
                           {"standing", false},
                           {"desiredFlags", 0x40},
                           {"flags", 0x41}});
    const External::Subscription owned = writeSubscription({{"system_description", 10},
                                                            {"outputPath", "velta/out/owned"},
                                                            {"queryText", "SELECT * INTO velta/out/owned"},
                                                            {"standing", true},
                                                            {"desiredFlags", 1}});
    run();

    const std::uint32_t oneShotTable = tableRow("velta/out/oneshot").oid();
    const std::uint32_t ownedTable = tableRow("velta/out/owned").oid();
    ASSERT_NE(oneShotTable, 0u);
    auto failed = [](const External::Subscription& s, std::uint32_t tableId, unsigned type,
                     const std::string& error) {
        return makeRecord<External::Publication>({{"subscription_id", s.oid()},
                                                  {"publication_id", 0},
                                                  {"connection_id", s.oid()},
                                                  {"tableId", tableId},
                                                  {"typeId", type},
                                                  {"status", false},
                                                  {"error", error}});
    };
    std::vector<External::Publication> expected = {
        failed(noPath, 0, typeId, "Output path is empty."),
        failed(noType, 0, 0, "Result type undefined."),
        failed(noSystem, 0, typeId, "SystemDescription no longer valid."),
        failed(oneShot, oneShotTable, typeId, kOneShotRefusal),
        failed(owned, ownedTable, typeId, "Can't write to table already owned by someone"),
    };
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(lines(kExtPub), rowLines({expected.begin(), expected.end()}));
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 0u);
    EXPECT_EQ(callLines(*db_),
              std::vector<std::string>{"registerTable path=velta/out/oneshot typeName=Test::Item tableType=1 "
                                       "desiredFlags=64 flags=65 owner= agent=server"});
    for (const External::Subscription& s : {noPath, noType, noSystem, oneShot, owned}) {
        const auto entry = t.subscription(s);
        ASSERT_TRUE(entry) << s;
        EXPECT_EQ(entry->sid, 0u) << s;
    }
    EXPECT_TRUE(entryOf(t, oneShot).reader);
    EXPECT_TRUE(entryOf(t, owned).writer);
    EXPECT_EQ(entryOf(t, noType).typeId, 0u);
}

// A host publication that is already there when the intake runs is mirrored by the intake itself,
// and a placeholder (publication_id 0) does not stop it. The check that follows re-reads with the
// key as the first read left it: when the client had no row at all, that key is empty, this host
// finds nothing for it, and the placeholder is written over the row just mirrored.
TEST_F(IntakeTest, IntakeMirrorsAnInternalPublicationThatIsAlreadyThere) {
    itemType();
    writeSystem(10, "clientSys", "client");
    db_->createTable("velta/in/items", "Test::Item");
    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    const unsigned typeId = itemTypeId();
    const FieldValues values = {{"system_description", 10},
                                {"outputPath", "velta/out/mi"},
                                {"queryText", "SELECT key FROM velta/in/items"},
                                {"standing", true}};
    const External::Subscription sub = writeSubscription(values);
    run();
    const std::uint32_t sid = ctrlFor(sub.oid()).oid();
    const std::uint32_t tableId = tableRow("velta/out/mi").oid();
    ASSERT_NE(sid, 0u);
    ASSERT_EQ(extPubFor(sub.oid()).publication_id(), 0u);
    const External::Publication mirrored = makeRecord<External::Publication>({{"subscription_id", sub.oid()},
                                                                              {"publication_id", sid},
                                                                              {"tableId", tableId},
                                                                              {"typeId", typeId},
                                                                              {"status", true},
                                                                              {"ptime", 7}});
    auto extPubChangesSince = [this](std::size_t mark) {
        const std::vector<std::string> all = changeLines(log_, kExtPub);
        return std::vector<std::string>(all.begin() + static_cast<std::ptrdiff_t>(mark), all.end());
    };

    // The client rewrites its row, then the host publishes; the intake is delivered first.
    writeSubscription(values);
    db_->write(kCtrlPub, makeRecord<veCtrl::publication>({{"subscription_id", sid},
                                                          {"tableId", tableId},
                                                          {"typeId", typeId},
                                                          {"status", true},
                                                          {"ptime", 7}}));
    std::size_t mark = changeLines(log_, kExtPub).size();
    ASSERT_TRUE(db_->runOne());
    EXPECT_EQ(extPubChangesSince(mark), std::vector<std::string>{"+" + mirrored.toString()});
    EXPECT_EQ(t.publications().size(), 1u);
    run();

    // The client's row is gone: mirrored, then overwritten by the placeholder.
    ASSERT_TRUE(db_->erase(kExtPub, mirrored));
    writeSubscription(values);
    mark = changeLines(log_, kExtPub).size();
    run();
    const External::Publication placeholder = makeRecord<External::Publication>(
        {{"subscription_id", sub.oid()}, {"status", true}, {"tableId", tableId}, {"typeId", typeId}});
    EXPECT_EQ(extPubChangesSince(mark),
              (std::vector<std::string>{"+" + mirrored.toString(), "+" + placeholder.toString()}));
}

// A parked subscription is examined afresh when its table arrives: the parked entry goes before
// the refusals are tested, so a pass that refuses leaves nothing parked.
TEST_F(IntakeTest, ArrivingTableClearsTheParkedEntryEvenWhenRefused) {
    writeSystem(20, "sysA", "A");
    Agent::SubscriptionTranslator& t = start(Kind::standalone, "A", "sysA");
    const External::Subscription sub = writeSubscription({{"system_description", 20},
                                                          {"outputPath", "velta/out/pr"},
                                                          {"queryText", "SELECT * FROM velta/out/pr"},
                                                          {"standing", false},
                                                          {"desiredFlags", 0x40},
                                                          {"flags", 0x40}});
    ASSERT_TRUE(db_->runOne());
    ASSERT_EQ(t.pendingTableSubscriptions().count("velta/out/pr"), 1u);
    run();
    EXPECT_TRUE(t.pendingTableSubscriptions().empty());
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 0u);
    EXPECT_TRUE(entryOf(t, sub).reader);
    EXPECT_EQ(entryOf(t, sub).sid, 0u);
    EXPECT_EQ(entryOf(t, sub).tableOid, tableRow("velta/out/pr").oid());
}

// A refusal of a subscription that was established withdraws its control row; the client's
// publication row, which exists by then, is left as it is.
TEST_F(IntakeTest, RefusalWithdrawsAnEstablishedControlRow) {
    writeSystem(10, "clientSys", "client");
    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    FieldValues values = {
        {"system_description", 10}, {"outputPath", "velta/out/r"}, {"queryText", "SELECT * FROM velta/out/r"},
        {"standing", true},         {"desiredFlags", 0x40},        {"flags", 0x40}};
    const External::Subscription sub = writeSubscription(values);
    run();
    const std::uint32_t sid = ctrlFor(sub.oid()).oid();
    ASSERT_NE(sid, 0u);
    const std::vector<std::string> publicationBefore = lines(kExtPub);
    ASSERT_EQ(publicationBefore.size(), 1u);

    values.emplace_back("standing", false);
    writeSubscription(values);
    run();
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 0u);
    EXPECT_EQ(lines(kExtPub), publicationBefore);
    EXPECT_TRUE(extPubFor(sub.oid()).status());
    EXPECT_EQ(entryOf(t, sub).sid, 0u);
    EXPECT_EQ(t.externalSubscriptionId(sid), sub.oid());
}

// Texts that look like refusals but are not: the 0x40 bit in one flag word only, a foreign owner
// with desiredFlags 0, and query texts that are exactly a direct-access prefix.
TEST_F(IntakeTest, LookAlikesAreAccepted) {
    itemType();
    writeSystem(10, "clientSys", "client");
    db_->createTable("velta/out/owned", "Test::Item", "someone");
    db_->createTable("velta/out/owned2", "Test::Item", "someone");
    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    ScopedDebugMask mask("SubscriptionTranslator", 1u << 4);
    Host::TraceCapture capture;

    const External::Subscription desiredOnly =
        writeSubscription({{"system_description", 10},
                           {"outputPath", "velta/out/la1"},
                           {"queryText", "SELECT * FROM velta/out/la1"},
                           {"desiredFlags", 0x40},
                           {"flags", 0x01}});
    const External::Subscription flagsOnly = writeSubscription({{"system_description", 10},
                                                                {"outputPath", "velta/out/la2"},
                                                                {"queryText", "SELECT * FROM velta/out/la2"},
                                                                {"desiredFlags", 0x01},
                                                                {"flags", 0x40}});
    const External::Subscription foreignWriter =
        writeSubscription({{"system_description", 10},
                           {"outputPath", "velta/out/owned"},
                           {"queryText", "SELECT * INTO velta/out/owned"},
                           {"desiredFlags", 0},
                           {"flags", 0x40}});
    const External::Subscription readPrefix = writeSubscription({{"system_description", 10},
                                                                 {"outputPath", "velta/out/la3"},
                                                                 {"queryText", "SELECT * FROM "},
                                                                 {"desiredFlags", 0x40},
                                                                 {"flags", 0x40}});
    const External::Subscription writePrefix = writeSubscription({{"system_description", 10},
                                                                  {"outputPath", "velta/out/owned2"},
                                                                  {"queryText", "SELECT * INTO "},
                                                                  {"desiredFlags", 1}});
    run();

    for (const External::Subscription& s : {desiredOnly, flagsOnly, foreignWriter, readPrefix, writePrefix}) {
        EXPECT_FALSE(ctrlFor(s.oid()).empty()) << s;
        const External::Publication pub = extPubFor(s.oid());
        EXPECT_TRUE(pub.status()) << s;
        EXPECT_EQ(pub.error(), "") << s;
        EXPECT_NE(entryOf(t, s).sid, 0u) << s;
    }
    EXPECT_TRUE(entryOf(t, desiredOnly).reader);
    EXPECT_TRUE(entryOf(t, flagsOnly).reader);
    EXPECT_TRUE(entryOf(t, foreignWriter).writer);
    EXPECT_TRUE(ctrlFor(foreignWriter.oid()).writer());
    for (const External::Subscription& s : {readPrefix, writePrefix}) {
        EXPECT_FALSE(entryOf(t, s).reader) << s;
        EXPECT_FALSE(entryOf(t, s).writer) << s;
        EXPECT_FALSE(ctrlFor(s.oid()).writer()) << s;
    }
    // Only direct reads and writes announce themselves.
    std::vector<std::string> subscribes;
    for (const auto& r : findTraces(capture, "SubscriptionTranslator", 4, "] subscribe "))
        subscribes.push_back(r.message);
    EXPECT_EQ(subscribes, (std::vector<std::string>{"[serverSys:10] subscribe r velta/out/la1",
                                                    "[serverSys:10] subscribe r velta/out/la2",
                                                    "[serverSys:10] subscribe w velta/out/owned"}));
}

// registerTable gets the table kind from standing, the flag words desired first, and an owner
// only for a writer.
TEST_F(IntakeTest, RegisterTableArguments) {
    writeSystem(10, "clientSys", "client");
    start(Kind::server, "server", "serverSys");
    writeSubscription({{"system_description", 10},
                       {"outputPath", "velta/out/r1"},
                       {"queryText", "SELECT 1"},
                       {"standing", true},
                       {"desiredFlags", 0x12},
                       {"flags", 0x34}});
    run();
    writeSubscription({{"system_description", 10},
                       {"outputPath", "velta/out/r2"},
                       {"queryText", "SELECT 1"},
                       {"standing", false},
                       {"desiredFlags", 0x34},
                       {"flags", 0x12}});
    run();
    writeSubscription({{"system_description", 10},
                       {"outputPath", "velta/out/r3"},
                       {"queryText", "SELECT * INTO velta/out/r3"},
                       {"standing", true}});
    run();
    writeSubscription({{"system_description", 10},
                       {"outputPath", "velta/out/r4"},
                       {"queryText", "SELECT * FROM velta/out/r4"},
                       {"standing", false}});
    run();
    EXPECT_EQ(callLines(*db_), (std::vector<std::string>{
                                   "registerTable path=velta/out/r1 typeName=Test::Item tableType=0 "
                                   "desiredFlags=18 flags=52 owner= agent=server",
                                   "registerTable path=velta/out/r2 typeName=Test::Item tableType=1 "
                                   "desiredFlags=52 flags=18 owner= agent=server",
                                   "registerTable path=velta/out/r3 typeName=Test::Item tableType=0 "
                                   "desiredFlags=0 flags=0 owner=client agent=server",
                                   "registerTable path=velta/out/r4 typeName=Test::Item tableType=1 "
                                   "desiredFlags=0 flags=0 owner= agent=server",
                               }));
    EXPECT_EQ(tableRow("velta/out/r3").owner(), "client");
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 4u);
}

// Which interfaces each kind of agent binds, where, with which flag, and which it waits for.
TEST_F(IntakeTest, BindingsPerKindOfAgent) {
    auto bindings = [](const Agent::SubscriptionTranslator& t) {
        std::vector<std::string> out;
        for (const char* name : {"extSubsObserver_", "extSubsPerClientObserver_", "subsReader",
                                 "subsModifier", "extPubObserver_", "extPubModifier", "pubObserver_",
                                 "pubModifier", "sysDescReader", "veTableObserver"}) {
            const VeTableInterface* iface = t.tableInterface(name);
            if (iface == nullptr) {
                out.push_back(std::string(name) + " missing");
            } else if (iface->attachment() == 0) {
                out.push_back(std::string(name) + " unbound");
            } else {
                out.push_back(std::string(name) + " " + iface->tablePath() +
                              (iface->bindFlag() ? " flag" : "") + (iface->ready() ? "" : " not-ready"));
            }
        }
        return out;
    };
    auto required = [](const Agent::SubscriptionTranslator& t) {
        std::vector<std::string> out;
        for (const VeTableInterface* iface : t.requiredInterfaces()) out.push_back(iface->ifName());
        return out;
    };

    Agent::SubscriptionTranslator* t = &start(Kind::server, "srv", "sys");
    EXPECT_EQ(bindings(*t),
              (std::vector<std::string>{
                  "extSubsObserver_ velta/External/Subscription", "extSubsPerClientObserver_ unbound",
                  "subsReader velta/veCtrl/subscription", "subsModifier velta/veCtrl/subscription",
                  "extPubObserver_ unbound", "extPubModifier velta/External/Publication",
                  "pubObserver_ velta/veCtrl/publication", "pubModifier unbound",
                  "sysDescReader velta/metadata/SystemDescription", "veTableObserver unbound"}));
    EXPECT_EQ(required(*t), (std::vector<std::string>{"extSubsObserver_", "subsReader", "sysDescReader",
                                                      "subsModifier", "extPubModifier", "pubObserver_"}));
    EXPECT_EQ(t->tableInterface("subsReader")->mode(), 1);
    EXPECT_EQ(t->tableInterface("subsModifier")->mode(), 3);
    EXPECT_EQ(t->tableInterface("veTableObserver")->mode(), 5);
    EXPECT_EQ(t->tableInterface("nothing"), nullptr);

    t = &start(Kind::standalone, "B", "sysB");
    EXPECT_EQ(
        bindings(*t),
        (std::vector<std::string>{
            "extSubsObserver_ velta/External/Subscription", "extSubsPerClientObserver_ unbound",
            "subsReader velta/veCtrl/subscription", "subsModifier velta/veCtrl/subscription flag",
            "extPubObserver_ velta/External/Publication", "extPubModifier unbound", "pubObserver_ unbound",
            "pubModifier velta/veCtrl/publication flag", "sysDescReader velta/metadata/SystemDescription",
            "veTableObserver velta/metadata/veTable"}));
    EXPECT_EQ(required(*t),
              (std::vector<std::string>{"extSubsObserver_", "subsReader", "sysDescReader", "subsModifier",
                                        "pubModifier", "extPubObserver_", "veTableObserver"}));

    // Outside the server process an external agent writes its control rows into the shared table.
    t = &start(Kind::perAgent, "C", "sysC");
    EXPECT_EQ(
        bindings(*t),
        (std::vector<std::string>{
            "extSubsObserver_ velta/External/Subscription",
            "extSubsPerClientObserver_ velta/External/input/C/Subscription",
            "subsReader velta/veCtrl/subscription", "subsModifier velta/veCtrl/subscription flag",
            "extPubObserver_ velta/External/Publication", "extPubModifier unbound", "pubObserver_ unbound",
            "pubModifier velta/veCtrl/publication flag", "sysDescReader velta/metadata/SystemDescription",
            "veTableObserver velta/metadata/veTable"}));
    EXPECT_EQ(required(*t), (std::vector<std::string>{"extSubsObserver_", "subsReader", "sysDescReader",
                                                      "subsModifier", "pubModifier", "extPubObserver_",
                                                      "veTableObserver", "extSubsPerClientObserver_"}));

    // Inside the server process it writes its own per-agent control table.
    Host::Database::serverProcessIs(true);
    t = &start(Kind::perAgent, "D", "sysD");
    EXPECT_EQ(t->tableInterface("subsModifier")->tablePath(), "velta/veCtrl/input/D/subscription");
    EXPECT_FALSE(t->tableInterface("subsModifier")->bindFlag());
    EXPECT_EQ(t->tableInterface("extSubsPerClientObserver_")->tablePath(),
              "velta/External/input/D/Subscription");
    EXPECT_TRUE(db_->hasTable("velta/veCtrl/input/D/subscription"));
    EXPECT_TRUE(db_->hasTable("velta/External/input/D/Subscription"));
}

// The server agent relies on registered tables being visible at once: a table whose metadata row
// is missing breaks that contract and ends the process with the assertion report.
// A host whose registrations never become visible: everything else is the real in-memory host,
// which (rightly) always shows a server agent's registration at once.
class RegistrationLosingHost : public ForwardingHost {
public:
    using ForwardingHost::ForwardingHost;
    void registerTable(const std::string&, const std::string&, TableType, unsigned short, unsigned short,
                       const std::string&) override {}
};

TEST_F(IntakeTest, ServerWithoutTheTablesMetadataRowEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    itemType();
    writeSystem(10, "clientSys", "client");
    Host::AgentOptions options;
    options.agentName = "server";
    options.systemName = "serverSys";
    options.serverAgent = true;
    Agent::SubscriptionTranslator translator(std::make_shared<RegistrationLosingHost>(db_->connect(options)));
    run();
    writeSubscription(
        {{"system_description", 10}, {"outputPath", "velta/out/nometa"}, {"queryText", "SELECT 1"}});
    EXPECT_DEATH(
        db_->runUntilIdle(),
        "SubscriptionTranslator:547: void Velta::Agent::SubscriptionTranslator::extSubsOnRowCommon\\(const "
        "Velta::BaseRow&, bool\\): Assertion `!vdb_->isServerAgent\\(\\)' failed");
}

// A per-client row is handled with oid 0: control row, registry entry and its id mapping carry 0.
TEST_F(IntakeTest, PerClientRowsAreHandledWithOidZero) {
    itemType();
    writeSystem(20, "sysA", "A");
    db_->createTable("velta/out/pc", "Test::Item");
    Agent::SubscriptionTranslator& t = start(Kind::perAgent, "A", "sysA");
    ScopedDebugMask mask("SubscriptionTranslator", 1u << 8);
    Host::TraceCapture capture;
    const External::Subscription sub = writeSubscription({{"oid", 7},
                                                          {"system_description", 20},
                                                          {"outputPath", "velta/out/pc"},
                                                          {"queryText", "SELECT * FROM velta/out/pc"},
                                                          {"standing", true}},
                                                         "velta/External/input/A/Subscription");
    ASSERT_EQ(sub.oid(), 7u);
    run();

    ASSERT_EQ(db_->rowCount(kCtrlSubs), 1u);
    const veCtrl::subscription ctrl(db_->rows(kCtrlSubs).at(0));
    EXPECT_EQ(ctrl.connection_id(), 0u);
    EXPECT_EQ(ctrl.system_description(), 20u);
    EXPECT_EQ(ctrl.tableId(), tableRow("velta/out/pc").oid());
    const auto entry = t.subscription(sub);
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->externalOid, 0u);
    EXPECT_TRUE(entry->reader);
    EXPECT_EQ(entry->sid, ctrl.oid());
    EXPECT_EQ(t.externalSubscriptionId(ctrl.oid()), 0u);
    EXPECT_EQ(db_->rowCount(kExtPub), 0u);

    // The entry trace shows the row as delivered, the completion the row as handled.
    External::Subscription handled = sub;
    handled.oidIs(0);
    std::vector<std::string> messages;
    for (const auto& r : findTraces(capture, "SubscriptionTranslator", 8, "")) messages.push_back(r.message);
    EXPECT_EQ(messages,
              (std::vector<std::string>{
                  "void Velta::Agent::SubscriptionTranslator::extSubsOnRowCommon(const Velta::BaseRow&, bool)"
                  " (perClient:1): " +
                      streamed(sub),
                  kCompleteSignature + "( ok:1, sid:" + std::to_string(ctrl.oid()) +
                      ",tr?1): " + streamed(handled) + "[]",
              }));
}

// A non-server agent serves only its own system and agent: others are traced and left alone.
TEST_F(IntakeTest, UnrelatedSystemDescriptionIsOnlyTraced) {
    writeSystem(21, "sysA", "B");
    writeSystem(22, "other", "A");
    Agent::SubscriptionTranslator& t = start(Kind::standalone, "A", "sysA");
    ScopedDebugMask mask("SubscriptionTranslator", 1u << 9);
    Host::TraceCapture capture;
    writeSubscription(
        {{"system_description", 21}, {"outputPath", "velta/out/u1"}, {"queryText", "SELECT 1"}});
    writeSubscription(
        {{"system_description", 22}, {"outputPath", "velta/out/u2"}, {"queryText", "SELECT 1"}});
    run();
    EXPECT_EQ(traces(capture),
              (std::vector<std::string>{
                  "L9 SubscriptionTranslator:520 extSubsOnRowCommon | Unrelated SystemDescription "
                  "sysA::B [ours: sysA::A]",
                  "L9 SubscriptionTranslator:520 extSubsOnRowCommon | Unrelated SystemDescription "
                  "other::A [ours: sysA::A]",
              }));
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 0u);
    EXPECT_EQ(db_->rowCount(kExtPub), 0u);
    EXPECT_TRUE(db_->calls().empty());
    EXPECT_EQ(t.subscriptionCount(), 0u);
    EXPECT_TRUE(t.pendingTableSubscriptions().empty());
}

// Outside the server a registered table appears a loop turn later: the subscription is reported
// not ready, parked, and completed when the table's metadata row arrives.
TEST_F(IntakeTest, TableRowNotReadyThenCompletedWhenMetadataArrives) {
    writeSystem(20, "sysA", "A");
    Agent::SubscriptionTranslator& t = start(Kind::standalone, "A", "sysA");
    ScopedDebugMask mask("SubscriptionTranslator", (1u << 4) | (1u << 8) | (1u << 9));
    Host::TraceCapture capture;
    const External::Subscription sub = writeSubscription({{"system_description", 20},
                                                          {"outputPath", "velta/out/late"},
                                                          {"queryText", "SELECT * INTO velta/out/late"},
                                                          {"standing", true},
                                                          {"desiredFlags", 1}});
    ASSERT_TRUE(db_->runOne());
    EXPECT_EQ(callLines(*db_),
              std::vector<std::string>{"registerTable path=velta/out/late typeName=Test::Item tableType=0 "
                                       "desiredFlags=1 flags=0 owner=A agent=A"});
    EXPECT_EQ(findTraces(capture, "SubscriptionTranslator", 4, "").size(), 1u);
    EXPECT_TRUE(hasTrace(capture, "SubscriptionTranslator", 4, "Table row not ready for velta/out/late"));
    EXPECT_TRUE(
        hasTrace(capture, "SubscriptionTranslator", 8,
                 "( ok:0, sid:0,tr?0): " + streamed(sub) + "[Table row not ready for velta/out/late]"));
    ASSERT_EQ(t.pendingTableSubscriptions().count("velta/out/late"), 1u);
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 0u);
    ASSERT_TRUE(t.subscription(sub));
    EXPECT_EQ(entryOf(t, sub).sid, 0u);
    EXPECT_EQ(entryOf(t, sub).tableOid, 0u);

    capture.clear();
    run();
    const veMetadata::veTable table = tableRow("velta/out/late");
    ASSERT_FALSE(table.empty());
    EXPECT_EQ(table.owner(), "A");
    EXPECT_TRUE(hasTrace(capture, "SubscriptionTranslator", 9, "  table row: " + streamed(table)));
    EXPECT_TRUE(t.pendingTableSubscriptions().empty());
    ASSERT_EQ(db_->rowCount(kCtrlSubs), 1u);
    const veCtrl::subscription ctrl(db_->rows(kCtrlSubs).at(0));
    EXPECT_EQ(ctrl.tableId(), table.oid());
    EXPECT_TRUE(ctrl.writer());
    EXPECT_EQ(entryOf(t, sub).sid, ctrl.oid());
    EXPECT_EQ(entryOf(t, sub).tableOid, table.oid());
    EXPECT_EQ(t.externalSubscriptionId(ctrl.oid()), sub.oid());
    EXPECT_TRUE(hasTrace(capture, "SubscriptionTranslator", 4, "[sysA:20] subscribe w velta/out/late"));
    // Only one registration: the second pass found the table.
    EXPECT_EQ(db_->calls().size(), 1u);
}

}  // namespace
}  // namespace Velta::Test
