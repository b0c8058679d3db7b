// SubscriptionTranslator: the subscription registry, completion bookkeeping and withdrawal of
// external subscriptions, on the in-memory host.
#include "TestSupport.h"

#include <Velta/Agent/SubscriptionTranslator.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace Velta::Test {
namespace {

const std::string kDeleteSignature =
    "void Velta::Agent::SubscriptionTranslator::extSubsOnDelete(const Velta::BaseRow&)";

External::Subscription registryKey(std::uint32_t oid, const std::string& path = "velta/out/reg") {
    return makeRecord<External::Subscription>(
        {{"oid", oid}, {"system_description", 10}, {"outputPath", path}, {"typeName", "Test::Item"}});
}

class RegistryTest : public TranslatorTest {
protected:
    void eraseSubscription(const External::Subscription& sub, const std::string& path = kExtSubs) {
        ASSERT_TRUE(db_->erase(path, sub));
    }
};

// An entry is made on first sight; its control id follows the latest non-zero sid, and the id map
// follows it; flags and type stay as first recorded; the query id changes nothing.
TEST_F(RegistryTest, SidUpdatesFollowTheLatestControlId) {
    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    const unsigned typeId = itemTypeId();
    ScopedDebugMask mask("SubscriptionTranslator", 1u << 9);
    Host::TraceCapture capture;
    const External::Subscription sub = registryKey(31);
    EXPECT_EQ(t.externalSubscriptionId(0), 0u);
    EXPECT_FALSE(t.subscription(sub));

    t.subscriptionComplete(sub, Agent::TableRow(), false, false, true, 0, 5, "");
    const std::shared_ptr<Agent::SubscriptionEntry> entry = t.subscription(sub);
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->externalOid, 31u);
    EXPECT_EQ(entry->tableOid, 0u);
    EXPECT_EQ(entry->typeId, typeId);
    EXPECT_EQ(entry->sid, 5u);
    EXPECT_EQ(entry->spare, 0u);
    EXPECT_TRUE(entry->record.empty());
    EXPECT_EQ(t.externalSubscriptionId(5), 31u);

    t.subscriptionComplete(sub, Agent::TableRow(), true, true, true, 1234, 9, "");
    EXPECT_EQ(t.subscription(sub), entry);
    EXPECT_FALSE(entry->writer);
    EXPECT_FALSE(entry->reader);
    EXPECT_EQ(entry->sid, 9u);
    EXPECT_EQ(t.externalSubscriptionId(5), 0u);
    EXPECT_EQ(t.externalSubscriptionId(9), 31u);

    // A sid of 0 and a query id change nothing.
    t.subscriptionComplete(sub, Agent::TableRow(), false, false, true, 77, 0, "");
    EXPECT_EQ(entry->sid, 9u);
    EXPECT_EQ(t.externalSubscriptionId(9), 31u);
    EXPECT_EQ(t.externalSubscriptionId(0), 0u);

    // The key fields find the entry whatever the other fields say.
    External::Subscription lookAlike = registryKey(99);
    lookAlike.queryTextIs("SELECT * INTO elsewhere");
    EXPECT_EQ(t.subscription(lookAlike), entry);
    EXPECT_EQ(t.subscriptionCount(), 1u);

    EXPECT_EQ(traces(capture),
              (std::vector<std::string>{
                  "L9 SubscriptionTranslator:728 subscriptionComplete | Updating sid for velta/out/reg, 0=>5",
                  "L9 SubscriptionTranslator:728 subscriptionComplete | Updating sid for velta/out/reg, 5=>9",
              }));
    EXPECT_EQ(db_->rowCount(kExtPub), 0u);
}

// A failure with a table row withdraws the control row and resets the entry's sid to 0, while the
// old sid stays mapped; without a table row nothing is withdrawn and the sid stays.
TEST_F(RegistryTest, FailureResetsSidButTheOldSidStaysMapped) {
    writeSystem(10, "clientSys", "client");
    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    const External::Subscription sub = writeSubscription({{"system_description", 10},
                                                          {"outputPath", "velta/out/f"},
                                                          {"queryText", "SELECT 1"},
                                                          {"standing", true}});
    const External::Subscription other = writeSubscription({{"system_description", 10},
                                                            {"outputPath", "velta/out/g"},
                                                            {"queryText", "SELECT 1"},
                                                            {"standing", true}});
    run();
    const std::uint32_t sid = ctrlFor(sub.oid()).oid();
    ASSERT_NE(sid, 0u);
    const std::vector<std::string> publications = lines(kExtPub);
    ASSERT_EQ(publications.size(), 2u);

    t.subscriptionComplete(sub, Agent::TableRow(), false, false, false, 0, 0, "no table");
    EXPECT_EQ(entryOf(t, sub).sid, sid);
    EXPECT_FALSE(ctrlFor(sub.oid()).empty());

    t.subscriptionComplete(sub, tableRow("velta/out/f"), false, false, false, 0, 0, "gone");
    EXPECT_TRUE(ctrlFor(sub.oid()).empty());
    EXPECT_FALSE(ctrlFor(other.oid()).empty());
    EXPECT_EQ(entryOf(t, sub).sid, 0u);
    EXPECT_EQ(t.externalSubscriptionId(sid), sub.oid());
    // The existing publication rows win over the failure.
    EXPECT_EQ(lines(kExtPub), publications);

    // Without a publication row the control row goes first, then the failure is reported.
    ASSERT_TRUE(db_->erase(kExtPub, extPubFor(other.oid())));
    const veCtrl::subscription otherCtrl = ctrlFor(other.oid());
    const std::uint32_t otherTable = tableRow("velta/out/g").oid();
    log_.clear();
    t.subscriptionComplete(other, tableRow("velta/out/g"), false, false, false, 0, 0, "lost");
    const External::Publication failed = makeRecord<External::Publication>({{"subscription_id", other.oid()},
                                                                            {"connection_id", other.oid()},
                                                                            {"tableId", otherTable},
                                                                            {"typeId", itemTypeId()},
                                                                            {"status", false},
                                                                            {"error", "lost"}});
    EXPECT_EQ(changeLines(log_), (std::vector<std::string>{"-" + kCtrlSubs + " " + otherCtrl.toString(),
                                                           "+" + kExtPub + " " + failed.toString()}));
}

// The external oid of an entry follows a re-created row only in a non-server agent with per-agent
// tables, and never to 0.
TEST_F(RegistryTest, ExternalOidFollowsOnlyInPerAgentNonServer) {
    for (Kind kind : {Kind::server, Kind::standalone, Kind::perAgent}) {
        SCOPED_TRACE(static_cast<int>(kind));
        Agent::SubscriptionTranslator& t = start(kind, "A" + std::to_string(static_cast<int>(kind)), "sysA");
        ScopedDebugMask mask("SubscriptionTranslator", 1u << 9);
        Host::TraceCapture capture;
        t.subscriptionComplete(registryKey(31), Agent::TableRow(), false, false, true, 0, 0, "");
        t.subscriptionComplete(registryKey(32), Agent::TableRow(), false, false, true, 0, 0, "");
        t.subscriptionComplete(registryKey(0), Agent::TableRow(), false, false, true, 0, 0, "");
        const auto entry = t.subscription(registryKey(0));
        ASSERT_TRUE(entry);
        EXPECT_EQ(t.subscriptionCount(), 1u);
        if (kind == Kind::perAgent) {
            EXPECT_EQ(entry->externalOid, 32u);
            EXPECT_EQ(traces(capture),
                      std::vector<std::string>{"L9 SubscriptionTranslator:715 subscriptionComplete | "
                                               "Updating Sid for velta/out/reg, 31=>32"});
        } else {
            EXPECT_EQ(entry->externalOid, 31u);
            EXPECT_TRUE(traces(capture).empty());
        }
        // A new sid maps to the oid the row has now.
        t.subscriptionComplete(registryKey(33), Agent::TableRow(), false, false, true, 0, 8, "");
        EXPECT_EQ(t.externalSubscriptionId(8), 33u);
    }
}

// clean() empties the readiness list and the registry only; held entries stay valid, and the next
// onTableReady runs the ready passes at once.
TEST_F(RegistryTest, CleanEmptiesReadinessListAndRegistryOnly) {
    writeSystem(20, "sysA", "A");
    Agent::SubscriptionTranslator& t = start(Kind::standalone, "A", "sysA");
    const External::Subscription sub = writeSubscription({{"system_description", 20},
                                                          {"outputPath", "velta/out/c"},
                                                          {"queryText", "SELECT 1"},
                                                          {"standing", true}});
    ASSERT_TRUE(db_->runOne());  // intake only: the table is not there yet
    t.subscriptionComplete(registryKey(31), Agent::TableRow(), false, false, true, 0, 5, "");
    const auto entry = t.subscription(registryKey(31));
    ASSERT_EQ(t.pendingTableSubscriptions().size(), 1u);
    ASSERT_EQ(t.subscriptionCount(), 2u);

    t.clean();
    EXPECT_TRUE(t.requiredInterfaces().empty());
    EXPECT_EQ(t.subscriptionCount(), 0u);
    EXPECT_FALSE(t.subscription(sub));
    EXPECT_EQ(t.externalSubscriptionId(5), 31u);
    EXPECT_EQ(t.pendingTableSubscriptions().size(), 1u);
    EXPECT_EQ(entry->sid, 5u);

    ScopedDebugMask mask("SubscriptionTranslator", 0x3ff);
    Host::TraceCapture capture;
    t.onTableReady();
    EXPECT_TRUE(hasTrace(capture, "SubscriptionTranslator", 8,
                         "void Velta::Agent::SubscriptionTranslator::extSubsOnReady()"));
    EXPECT_FALSE(hasTrace(capture, "SubscriptionTranslator", 9, " not ready"));
}

// Withdrawing a query subscription in the server agent: registry, id map, the client's publication
// row and the control row (found by its sid) go, and the query named by the output path is removed.
TEST_F(RegistryTest, ServerWithdrawalOfAQuery) {
    writeSystem(10, "clientSys", "client");
    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    const External::Subscription sub = writeSubscription({{"system_description", 10},
                                                          {"outputPath", "velta/out/w1"},
                                                          {"queryText", "SELECT 1"},
                                                          {"standing", true}});
    const External::Subscription other = writeSubscription({{"system_description", 10},
                                                            {"outputPath", "velta/out/w2"},
                                                            {"queryText", "SELECT 2"},
                                                            {"standing", true}});
    run();
    const std::uint32_t sid = ctrlFor(sub.oid()).oid();
    ASSERT_NE(sid, 0u);
    const auto held = t.subscription(sub);
    ASSERT_TRUE(held);
    db_->callsClear();

    // Changes and host calls in the order they happen: the client's publication, then the control
    // row, then the query.
    const External::Publication pub = extPubFor(sub.oid());
    const veCtrl::subscription ctrl = ctrlFor(sub.oid());
    log_.clear();

    ScopedDebugMask mask("SubscriptionTranslator", 0x3ff);
    Host::TraceCapture capture;
    eraseSubscription(sub);
    run();
    ASSERT_EQ(db_->calls().size(), 1u);
    EXPECT_EQ(changeLines(log_),
              (std::vector<std::string>{
                  "-" + kExtSubs + " " + sub.toString(), "-" + kExtPub + " " + pub.toString(),
                  "-" + kCtrlSubs + " " + ctrl.toString(), "call " + Host::toString(db_->calls().front())}));
    EXPECT_EQ(traces(capture),
              (std::vector<std::string>{
                  "L8 SubscriptionTranslator:652 extSubsOnDelete | " + kDeleteSignature + ": ",
                  "L9 SubscriptionTranslator:653 extSubsOnDelete |   key: " + streamed(sub),
                  "L4 SubscriptionTranslator:662 extSubsOnDelete |  deleting subscription [" +
                      std::to_string(sub.oid()) + "] velta/out/w1",
                  "L9 SubscriptionTranslator:672 extSubsOnDelete |   Lookup sid: " + std::to_string(sid),
                  "L4 SubscriptionTranslator:683 extSubsOnDelete | [serverSys] removeQuery velta/out/w1",
              }));
    EXPECT_EQ(callLines(*db_), std::vector<std::string>{"removeQuery name=\"velta/out/w1\" agent=server"});
    EXPECT_FALSE(t.subscription(sub));
    EXPECT_EQ(t.externalSubscriptionId(sid), 0u);
    EXPECT_TRUE(ctrlFor(sub.oid()).empty());
    EXPECT_TRUE(extPubFor(sub.oid()).empty());
    EXPECT_FALSE(ctrlFor(other.oid()).empty());
    EXPECT_FALSE(extPubFor(other.oid()).empty());
    EXPECT_EQ(t.subscriptionCount(), 1u);
    // A holder keeps a valid entry after its removal.
    EXPECT_EQ(held->sid, sid);
}

// Direct reads and writes have no query to remove; their rows still go.
TEST_F(RegistryTest, DirectAccessWithdrawalRemovesNoQuery) {
    writeSystem(10, "clientSys", "client");
    start(Kind::server, "server", "serverSys");
    const External::Subscription reader = writeSubscription({{"system_description", 10},
                                                             {"outputPath", "velta/out/rd"},
                                                             {"queryText", "SELECT * FROM velta/out/rd"},
                                                             {"standing", true}});
    const External::Subscription writer = writeSubscription({{"system_description", 10},
                                                             {"outputPath", "velta/out/wr"},
                                                             {"queryText", "SELECT * INTO velta/out/wr"}});
    run();
    ASSERT_EQ(db_->rowCount(kCtrlSubs), 2u);
    db_->callsClear();
    eraseSubscription(reader);
    eraseSubscription(writer);
    run();
    EXPECT_TRUE(db_->calls().empty());
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 0u);
    EXPECT_EQ(db_->rowCount(kExtPub), 0u);
}

// A subscription whose control row was withdrawn looks up sid 0 and finds nothing; the query is
// removed all the same.
TEST_F(RegistryTest, WithdrawalWithSidZeroTracesNotFound) {
    writeSystem(10, "clientSys", "client");
    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    const External::Subscription sub = writeSubscription(
        {{"system_description", 99}, {"outputPath", "velta/out/z"}, {"queryText", "SELECT 1"}});
    run();
    ASSERT_EQ(entryOf(t, sub).sid, 0u);
    ASSERT_EQ(extPubFor(sub.oid()).error(), "SystemDescription no longer valid.");
    db_->callsClear();

    ScopedDebugMask mask("SubscriptionTranslator", 1u << 9);
    Host::TraceCapture capture;
    eraseSubscription(sub);
    run();
    EXPECT_EQ(traces(capture), (std::vector<std::string>{
                                   "L9 SubscriptionTranslator:653 extSubsOnDelete |   key: " + streamed(sub),
                                   "L9 SubscriptionTranslator:672 extSubsOnDelete |   Lookup sid: 0",
                                   "L9 SubscriptionTranslator:679 extSubsOnDelete |   Not found",
                               }));
    EXPECT_EQ(callLines(*db_), std::vector<std::string>{"removeQuery name=\"velta/out/z\" agent=server"});
    EXPECT_TRUE(extPubFor(sub.oid()).empty());
    EXPECT_EQ(t.subscriptionCount(), 0u);
}

// In a non-server agent only the registry and the control row are withdrawn.
TEST_F(RegistryTest, NonServerWithdrawalLeavesPublicationsAndQueries) {
    itemType();
    writeSystem(20, "sysA", "A");
    db_->createTable("velta/out/n", "Test::Item");
    Agent::SubscriptionTranslator& t = start(Kind::standalone, "A", "sysA");
    const External::Subscription sub = writeSubscription({{"system_description", 20},
                                                          {"outputPath", "velta/out/n"},
                                                          {"queryText", "SELECT 1"},
                                                          {"standing", true}});
    run();
    const std::uint32_t sid = ctrlFor(sub.oid()).oid();
    ASSERT_NE(sid, 0u);
    db_->write(kExtPub,
               makeRecord<External::Publication>({{"subscription_id", sub.oid()}, {"status", true}}));
    run();
    ASSERT_EQ(db_->rowCount(kCtrlPub), 1u);
    const std::vector<std::string> extPublications = lines(kExtPub);
    const std::vector<std::string> ctrlPublications = lines(kCtrlPub);
    db_->callsClear();

    eraseSubscription(sub);
    run();
    EXPECT_FALSE(t.subscription(sub));
    EXPECT_EQ(t.externalSubscriptionId(sid), 0u);
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 0u);
    EXPECT_EQ(lines(kExtPub), extPublications);
    EXPECT_EQ(lines(kCtrlPub), ctrlPublications);
    EXPECT_TRUE(db_->calls().empty());
}

// A subscription the registry never saw produces only the two entry traces.
TEST_F(RegistryTest, UnknownSubscriptionProducesOnlyEntryTraces) {
    writeSystem(10, "clientSys", "client");
    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    const External::Subscription known = writeSubscription(
        {{"system_description", 10}, {"outputPath", "velta/out/k"}, {"queryText", "SELECT 1"}});
    run();
    const std::vector<std::string> ctrlBefore = lines(kCtrlSubs);
    const std::vector<std::string> pubBefore = lines(kExtPub);
    db_->callsClear();

    ScopedDebugMask mask("SubscriptionTranslator", 0xffffffffu);
    Host::TraceCapture capture;
    const External::Subscription stranger = registryKey(known.oid(), "velta/out/stranger");
    t.extSubsOnDelete(stranger);
    EXPECT_EQ(traces(capture),
              (std::vector<std::string>{
                  "L8 SubscriptionTranslator:652 extSubsOnDelete | " + kDeleteSignature + ": ",
                  "L9 SubscriptionTranslator:653 extSubsOnDelete |   key: " + streamed(stranger),
              }));
    EXPECT_EQ(lines(kCtrlSubs), ctrlBefore);
    EXPECT_EQ(lines(kExtPub), pubBefore);
    EXPECT_TRUE(db_->calls().empty());
    EXPECT_EQ(t.subscriptionCount(), 1u);
}

// Withdrawing a subscription that waits for its table leaves the pending entry: when the table
// arrives the intake re-runs on whatever the shared table holds for the key (nothing: an empty
// row, refused for its empty output path).
TEST_F(RegistryTest, PendingTableEntryIsLeftInPlace) {
    writeSystem(20, "sysA", "A");
    Agent::SubscriptionTranslator& t = start(Kind::standalone, "A", "sysA");
    const External::Subscription sub = writeSubscription({{"system_description", 20},
                                                          {"outputPath", "velta/out/p"},
                                                          {"queryText", "SELECT 1"},
                                                          {"standing", true}});
    ASSERT_TRUE(db_->runOne());
    ASSERT_EQ(t.pendingTableSubscriptions().count("velta/out/p"), 1u);
    ASSERT_TRUE(t.subscription(sub));

    ScopedDebugMask mask("SubscriptionTranslator", 1u << 8);
    Host::TraceCapture capture;
    eraseSubscription(sub);
    run();
    EXPECT_FALSE(t.subscription(sub));
    EXPECT_EQ(t.pendingTableSubscriptions().count("velta/out/p"), 1u);
    EXPECT_TRUE(
        hasTrace(capture, "SubscriptionTranslator", 8,
                 "( ok:0, sid:0,tr?0): " + streamed(External::Subscription()) + "[Output path is empty.]"));
    EXPECT_TRUE(t.subscription(External::Subscription()));
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 0u);
}

}  // namespace
}  // namespace Velta::Test
