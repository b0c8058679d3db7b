// SubscriptionTranslator: construction, readiness, teardown and tracing, and one walk-through per
// kind of agent from construction to teardown, on the in-memory host.
#include "TestSupport.h"

#include <Velta/Agent/SubscriptionTranslator.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Velta::Test {
namespace {

const std::string kChannel = "SubscriptionTranslator";
const std::string kCompleteSignature =
    "void Velta::Agent::SubscriptionTranslator::subscriptionComplete(Velta::Agent::Subs, "
    "Velta::Agent::TableRow, "
    "bool, bool, bool, Velta::oid_t, Velta::oid_t, const string&)";
const std::string kCommonSignature =
    "void Velta::Agent::SubscriptionTranslator::extSubsOnRowCommon(const Velta::BaseRow&, bool)";

Host::Database::Options autoPublishing() {
    Host::Database::Options o;
    o.autoPublish = true;
    return o;
}

class LifecycleTest : public TranslatorTest {
protected:
    // Every row of every table, as "path row" lines.
    std::vector<std::string> snapshot() const {
        std::vector<std::string> out;
        for (const std::string& path : db_->tablePaths()) {
            for (const std::string& l : lines(path)) out.push_back(path + " " + l);
        }
        return out;
    }
};

// ---------------------------------------------------------------------------------------------
// Construction, readiness and teardown

TEST_F(LifecycleTest, ConstructorRequiresServerOrExternalAgent) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Host::AgentOptions plain;
    plain.agentName = "plain";
    plain.systemName = "sys";
    VeltaDB::p_t handle = db_->connect(plain);
    EXPECT_DEATH(
        { Agent::SubscriptionTranslator t(handle); },
        "SubscriptionTranslator:327: Velta::Agent::SubscriptionTranslator::SubscriptionTranslator\\(Velta::"
        "VeltaDB::p_t\\): Assertion `vdb_->isServerAgent\\(\\) \\|\\| vdb_->external\\(\\)' failed");
    // The start-up notice comes first.
    ScopedDebugMask mask(kChannel, 1);
    EXPECT_DEATH({ Agent::SubscriptionTranslator t(handle); },
                 "SubscriptionTranslator starting for plain:sys");
}

// Construction traces, then an onTableReady with nothing ready names only the first interface of
// the list; the ready pass runs once all are ready.
TEST_F(LifecycleTest, ConstructionAndReadinessTraces) {
    ScopedDebugMask mask(kChannel, 0x3ff);
    Host::TraceCapture capture;
    itemType();
    translator_ = std::make_unique<Agent::SubscriptionTranslator>(
        db_->connect(agentOptions(Kind::server, "server", "serverSys")));
    EXPECT_EQ(
        traces(capture),
        (std::vector<std::string>{
            "L0 SubscriptionTranslator:326 SubscriptionTranslator | SubscriptionTranslator starting for "
            "server:serverSys",
            "L8 SubscriptionTranslator:347 SubscriptionTranslator | "
            "Velta::Agent::SubscriptionTranslator::SubscriptionTranslator(Velta::VeltaDB::p_t)",
        }));
    EXPECT_FALSE(translator_->debugChannel().ownsHandler());
    EXPECT_EQ(translator_->debugChannel().handler(),
              Kesto::Platform::getDebugHandler("SubscriptionTranslator"));

    capture.clear();
    translator_->onTableReady();
    EXPECT_EQ(
        traces(capture),
        std::vector<std::string>{"L9 SubscriptionTranslator:394 onTableReady | extSubsObserver_ not ready"});

    capture.clear();
    run();
    const auto passes =
        findTraces(capture, kChannel, 8, "void Velta::Agent::SubscriptionTranslator::extSubsOnReady()");
    ASSERT_EQ(passes.size(), 1u);
    EXPECT_EQ(passes[0].line, 417u);
    EXPECT_EQ(passes[0].function, "extSubsOnReady");
    EXPECT_EQ(passes[0].file, "SubscriptionTranslator");
    for (const auto& r : findTraces(capture, kChannel, 9, " not ready")) {
        EXPECT_EQ(r.line, 394u);
        EXPECT_EQ(r.function, "onTableReady");
    }
    for (VeTableInterface* iface : translator_->requiredInterfaces())
        EXPECT_TRUE(iface->ready()) << iface->ifName();
}

// Observers are declared client-ready in a fixed order, so the host reports readers and modifiers
// ready in bind order and observers in that order; each report before the last names the first
// interface of the readiness list still waiting. The ready pass replays the existing subscription
// before its own entry trace.
TEST_F(LifecycleTest, ReadinessOrderPerKindOfAgent) {
    struct Observed {
        std::vector<std::string> clientReady;  // Schedulable's clientReadyIs traces
        std::vector<std::string> ready;        // ready deliveries
        std::vector<std::string> translator;   // entry traces (function) and readiness traces
    };
    auto observe = [this](Kind kind) {
        translator_.reset();
        reset(Host::Database::Options{});
        itemType();
        writeSystem(10, "clientSys", "client");
        writeSubscription(
            {{"system_description", 10}, {"outputPath", "velta/out/ro"}, {"queryText", "SELECT 1"}});
        ScopedDebugMask translatorMask(kChannel, (1u << 8) | (1u << 9));
        ScopedDebugMask schedulableMask("Schedulable", 1u << 8);
        Host::TraceCapture capture;
        Host::EventLog events;
        db_->listenerIs(&events);
        translator_ =
            std::make_unique<Agent::SubscriptionTranslator>(db_->connect(agentOptions(kind, "A", "sysA")));
        run();
        db_->listenerIs(nullptr);
        Observed o;
        for (const Host::EventLog::Entry& e : events.entries()) {
            if (e.kind == Host::EventLog::Entry::Kind::deliveryBegin &&
                e.delivery == Host::EventListener::Delivery::ready && e.iface != nullptr)
                o.ready.push_back(e.ifName);
        }
        const std::string prefix = "virtual void Velta::Schedulable::clientReadyIs(bool) ";
        for (const Host::TraceRecord& r : capture.records()) {
            if (r.channel == "Schedulable") {
                o.clientReady.push_back(r.message.substr(prefix.size()));
            } else if (r.channel == kChannel && r.level == 8) {
                o.translator.push_back(r.function);
            } else if (r.channel == kChannel && r.function == "onTableReady") {
                o.translator.push_back(r.message);
            }
        }
        return o;
    };
    const std::vector<std::string> waitingForExtSubs(4, "extSubsObserver_ not ready");
    auto concat = [](std::vector<std::string> a, const std::vector<std::string>& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };

    Observed o = observe(Kind::server);
    EXPECT_EQ(o.clientReady,
              (std::vector<std::string>{"extSubsObserver_ ready: 1", "pubObserver_ ready: 1"}));
    EXPECT_EQ(o.ready, (std::vector<std::string>{"subsModifier", "subsReader", "sysDescReader",
                                                 "extPubModifier", "extSubsObserver_", "pubObserver_"}));
    EXPECT_EQ(o.translator, concat(concat({"SubscriptionTranslator"}, waitingForExtSubs),
                                   {"pubObserver_ not ready", "extSubsOnRowCommon", "subscriptionComplete",
                                    "extSubsOnReady"}));

    o = observe(Kind::standalone);
    EXPECT_EQ(o.clientReady,
              (std::vector<std::string>{"extSubsObserver_ ready: 1", "veTableObserver ready: 1",
                                        "extPubObserver_ ready: 1"}));
    EXPECT_EQ(o.ready, (std::vector<std::string>{"subsModifier", "subsReader", "sysDescReader", "pubModifier",
                                                 "extSubsObserver_", "veTableObserver", "extPubObserver_"}));
    EXPECT_EQ(o.translator, concat(concat({"SubscriptionTranslator"}, waitingForExtSubs),
                                   {"extPubObserver_ not ready", "extPubObserver_ not ready",
                                    "extSubsOnRowCommon", "extSubsOnReady"}));

    o = observe(Kind::perAgent);
    EXPECT_EQ(o.clientReady,
              (std::vector<std::string>{"extSubsObserver_ ready: 1", "extSubsPerClientObserver_ ready: 1",
                                        "veTableObserver ready: 1", "extPubObserver_ ready: 1"}));
    EXPECT_EQ(o.ready, (std::vector<std::string>{"subsModifier", "subsReader", "sysDescReader", "pubModifier",
                                                 "extSubsObserver_", "extSubsPerClientObserver_",
                                                 "veTableObserver", "extPubObserver_"}));
    EXPECT_EQ(o.translator, concat(concat({"SubscriptionTranslator"}, waitingForExtSubs),
                                   {"extPubObserver_ not ready", "extPubObserver_ not ready",
                                    "extPubObserver_ not ready", "extSubsOnRowCommon", "extSubsOnReady"}));
}

// Each ready pass walks its table with the walked observer activated and deactivates it after:
// every change the passes make is made while exactly that observer is active.
TEST_F(LifecycleTest, ReadyPassesWalkWithTheirObserverActivated) {
    struct ActiveLog : Host::EventListener {
        explicit ActiveLog(const std::unique_ptr<Agent::SubscriptionTranslator>& t) : translator(t) {}
        void onWrite(const std::string& path, const BaseRow&) override {
            lines.push_back("+" + path + active());
        }
        void onDelete(const std::string& path, const BaseRow&) override {
            lines.push_back("-" + path + active());
        }
        std::string active() const {
            std::string out;
            for (const char* name : {"extSubsObserver_", "pubObserver_", "extPubObserver_"}) {
                if (translator->tableInterface(name)->activated()) out += std::string(" ") + name;
            }
            return out;
        }
        const std::unique_ptr<Agent::SubscriptionTranslator>& translator;
        std::vector<std::string> lines;
    };

    // Server: the replay writes the control row; the publication check fails an orphaned client row.
    itemType();
    writeSystem(10, "clientSys", "client");
    db_->createTable("velta/out/act", "Test::Item");
    const External::Subscription sub = writeSubscription({{"system_description", 10},
                                                          {"outputPath", "velta/out/act"},
                                                          {"queryText", "SELECT 1"},
                                                          {"standing", true}});
    db_->write(kExtPub, makeRecord<External::Publication>(
                            {{"subscription_id", sub.oid()}, {"publication_id", 777}, {"status", true}}));
    ActiveLog serverLog(translator_);
    db_->listenerIs(&serverLog);
    translator_ = std::make_unique<Agent::SubscriptionTranslator>(
        db_->connect(agentOptions(Kind::server, "server", "s")));
    run();
    EXPECT_EQ(serverLog.lines, (std::vector<std::string>{"+" + kCtrlSubs + " extSubsObserver_",
                                                         "+" + kExtPub + " pubObserver_"}));
    EXPECT_EQ(serverLog.active(), "");
    db_->listenerIs(nullptr);

    // Non-server: the replay writes the control row; the carry-over writes the internal
    // publication, which the stale sweep then deletes.
    translator_.reset();
    reset(Host::Database::Options{});
    itemType();
    writeSystem(20, "sysA", "A");
    db_->createTable("velta/out/act", "Test::Item");
    const External::Subscription own = writeSubscription({{"system_description", 20},
                                                          {"outputPath", "velta/out/act"},
                                                          {"queryText", "SELECT 1"},
                                                          {"standing", true}});
    db_->write(kExtPub,
               makeRecord<External::Publication>({{"subscription_id", own.oid()}, {"status", true}}));
    ActiveLog agentLog(translator_);
    db_->listenerIs(&agentLog);
    translator_ = std::make_unique<Agent::SubscriptionTranslator>(
        db_->connect(agentOptions(Kind::standalone, "A", "sysA")));
    run();
    EXPECT_EQ(agentLog.lines, (std::vector<std::string>{"+" + kCtrlSubs + " extSubsObserver_",
                                                        "+" + kCtrlPub + " extPubObserver_",
                                                        "-" + kCtrlPub + " extPubObserver_"}));
    EXPECT_EQ(agentLog.active(), "");
    db_->listenerIs(nullptr);
}

// The shared debug handler outlives every translator: objects never own it.
TEST_F(LifecycleTest, TeardownKeepsTheSharedHandler) {
    Kesto::Platform::DebugHandler* handler = Agent::SubscriptionTranslator::__kestoDebug::getHandler();
    ASSERT_NE(handler, nullptr);
    start(Kind::server, "s1", "sys");
    start(Kind::standalone, "s2", "sys");
    translator_.reset();
    EXPECT_EQ(Agent::SubscriptionTranslator::__kestoDebug::getHandler(), handler);
    EXPECT_EQ(Kesto::Platform::getDebugHandler("SubscriptionTranslator"), handler);
    ScopedDebugMask mask(kChannel, 1);
    Host::TraceCapture capture;
    start(Kind::server, "s3", "sys");
    EXPECT_EQ(traces(capture),
              std::vector<std::string>{"L0 SubscriptionTranslator:326 SubscriptionTranslator | "
                                       "SubscriptionTranslator starting for s3:sys"});
}

// ---------------------------------------------------------------------------------------------
// Tracing

// Exact text, line and function of the traces along a non-server agent's intake, a late table,
// and the carry-over of a publication.
TEST_F(LifecycleTest, TraceTextsOfANonServerFlow) {
    writeSystem(20, "sysA", "A");
    start(Kind::standalone, "A", "sysA");
    ScopedDebugMask mask(kChannel, 0x3ff);
    Host::TraceCapture capture;
    const External::Subscription sub = writeSubscription({{"system_description", 20},
                                                          {"outputPath", "velta/out/tt"},
                                                          {"queryText", "SELECT * FROM velta/out/tt"},
                                                          {"standing", true}});
    run();
    const veMetadata::veTable table = tableRow("velta/out/tt");
    const std::uint32_t sid = ctrlFor(sub.oid()).oid();
    ASSERT_NE(sid, 0u);
    const std::string s = streamed(sub);
    EXPECT_EQ(
        traces(capture),
        (std::vector<std::string>{
            "L8 SubscriptionTranslator:477 extSubsOnRowCommon | " + kCommonSignature + " (perClient:0): " + s,
            "L4 SubscriptionTranslator:556 extSubsOnRowCommon | Table row not ready for velta/out/tt",
            "L8 SubscriptionTranslator:695 subscriptionComplete | " + kCompleteSignature +
                "( ok:0, sid:0,tr?0): " + s + "[Table row not ready for velta/out/tt]",
            "L8 SubscriptionTranslator:641 onTableRow | "
            "void Velta::Agent::SubscriptionTranslator::onTableRow(const Velta::BaseRow&): ",
            "L9 SubscriptionTranslator:642 onTableRow |   table row: " + streamed(table),
            "L8 SubscriptionTranslator:477 extSubsOnRowCommon | " + kCommonSignature + " (perClient:0): " + s,
            "L4 SubscriptionTranslator:593 extSubsOnRowCommon | [sysA:20] subscribe r velta/out/tt",
            "L8 SubscriptionTranslator:695 subscriptionComplete | " + kCompleteSignature +
                "( ok:1, sid:" + std::to_string(sid) + ",tr?1): " + s + "[]",
            "L9 SubscriptionTranslator:728 subscriptionComplete | Updating sid for velta/out/tt, 0=>" +
                std::to_string(sid),
        }));

    capture.clear();
    const BaseRow pub =
        db_->write(kExtPub, makeRecord<External::Publication>({{"subscription_id", sub.oid()}}));
    run();
    ASSERT_TRUE(db_->erase(kExtPub, pub));
    run();
    EXPECT_EQ(traces(capture),
              (std::vector<std::string>{
                  "L8 SubscriptionTranslator:889 extPubOnRow | "
                  "void Velta::Agent::SubscriptionTranslator::extPubOnRow(const Velta::BaseRow&)",
                  "L9 SubscriptionTranslator:891 extPubOnRow |  External publication: " +
                      streamed(External::Publication(pub)),
                  "L8 SubscriptionTranslator:950 extPubOnDelete | "
                  "void Velta::Agent::SubscriptionTranslator::extPubOnDelete(const Velta::BaseRow&)",
              }));
}

// Exact traces of the server's publication handlers.
TEST_F(LifecycleTest, TraceTextsOfServerPublications) {
    itemType();
    writeSystem(10, "clientSys", "client");
    db_->createTable("velta/in/items", "Test::Item");
    start(Kind::server, "server", "serverSys");
    const External::Subscription sub = writeSubscription({{"system_description", 10},
                                                          {"outputPath", "velta/out/ts"},
                                                          {"queryText", "SELECT key FROM velta/in/items"}});
    run();
    const std::uint32_t sid = ctrlFor(sub.oid()).oid();
    const veCtrl::publication internal =
        makeRecord<veCtrl::publication>({{"subscription_id", sid},
                                         {"tableId", tableRow("velta/out/ts").oid()},
                                         {"typeId", itemTypeId()},
                                         {"status", true}});

    ScopedDebugMask mask(kChannel, 0x3ff);
    Host::TraceCapture capture;
    db_->write(kCtrlPub, internal);
    run();
    ASSERT_TRUE(db_->erase(kCtrlPub, internal));
    run();
    EXPECT_EQ(traces(capture),
              (std::vector<std::string>{
                  "L8 SubscriptionTranslator:760 pubOnRow | "
                  "void Velta::Agent::SubscriptionTranslator::pubOnRow(const Velta::BaseRow&): " +
                      streamed(internal),
                  "L4 SubscriptionTranslator:822 pubOnRow | [serverSys:10] defineQuery (velta/out/ts) SELECT "
                  "key FROM "
                  "velta/in/items",
                  "L8 SubscriptionTranslator:695 subscriptionComplete | " + kCompleteSignature +
                      "( ok:1, sid:" + std::to_string(sid) + ",tr?1): " + streamed(sub) + "[]",
                  "L8 SubscriptionTranslator:846 pubOnDelete | "
                  "void Velta::Agent::SubscriptionTranslator::pubOnDelete(const Velta::BaseRow&)",
              }));
}

// Every trace is emitted at its own level only when that level is on, and tracing changes nothing
// else: for each single level the traces are exactly the full run's traces of that level, and with
// the mask 0 there are none while the tables end up the same.
TEST_F(LifecycleTest, TracesFollowTheMaskLevelByLevel) {
    auto scenario = [this](std::uint32_t mask) {
        translator_.reset();
        reset(autoPublishing());
        ScopedDebugMask scoped(kChannel, mask);
        Host::TraceCapture capture;
        itemType();
        writeSystem(10, "clientSys", "client");
        writeSystem(11, "internalSys", "member", 0);
        db_->createTable("velta/in/items", "Test::Item");
        start(Kind::server, "server", "serverSys");
        const External::Subscription query =
            writeSubscription({{"system_description", 10},
                               {"outputPath", "velta/out/q"},
                               {"queryText", "SELECT key FROM velta/in/items"},
                               {"paramName", {"p"}},
                               {"paramValue", {"v"}}});
        const External::Subscription reader = writeSubscription({{"system_description", 10},
                                                                 {"outputPath", "velta/out/r"},
                                                                 {"queryText", "SELECT * FROM velta/out/r"},
                                                                 {"standing", true}});
        writeSubscription(
            {{"system_description", 11}, {"outputPath", "velta/out/m"}, {"queryText", "SELECT 1"}});
        writeSubscription({{"system_description", 99}, {"outputPath", "velta/out/x"}});
        run();
        db_->erase(kExtSubs, query);
        db_->erase(kExtSubs, reader);
        run();
        translator_.reset();
        // A non-server agent: unrelated subscriptions, a late table and publications.
        writeSystem(20, "sysA", "A");
        start(Kind::standalone, "A", "sysA");
        const External::Subscription own = writeSubscription(
            {{"system_description", 20}, {"outputPath", "velta/out/a"}, {"queryText", "SELECT 1"}});
        writeSubscription(
            {{"system_description", 10}, {"outputPath", "velta/out/b"}, {"queryText", "SELECT 1"}});
        run();
        db_->write(kExtPub, makeRecord<External::Publication>({{"subscription_id", own.oid()}}));
        db_->write(kExtPub, makeRecord<External::Publication>({{"subscription_id", 4242}}));
        run();
        translator_.reset();
        std::vector<std::pair<unsigned, std::string>> recorded;
        for (const auto& r : capture.records()) {
            if (r.channel == kChannel) recorded.emplace_back(r.level, toString(r));
        }
        return std::make_pair(recorded, snapshot());
    };

    const auto full = scenario(0xffffffffu);
    const auto silent = scenario(0);
    EXPECT_TRUE(silent.first.empty());
    EXPECT_EQ(silent.second, full.second);
    for (unsigned level : {0u, 1u, 2u, 4u, 6u, 8u, 9u}) {
        SCOPED_TRACE(level);
        std::vector<std::pair<unsigned, std::string>> expected;
        for (const auto& r : full.first) {
            if (r.first == level) expected.push_back(r);
        }
        if (level == 0 || level == 2 || level == 4 || level == 8 || level == 9) {
            EXPECT_FALSE(expected.empty());
        }
        EXPECT_EQ(scenario(1u << level).first, expected);
    }
    for (const auto& r : full.first) {
        EXPECT_TRUE(r.first == 0 || r.first == 2 || r.first == 4 || r.first == 8 || r.first == 9) << r.second;
    }
}

// ---------------------------------------------------------------------------------------------
// Walk-throughs, one per kind of agent

// Server agent: intake, mirrored publications and the query, a changed publication, withdrawal,
// teardown.
TEST_F(LifecycleTest, WalkThroughServerAgent) {
    reset(autoPublishing());
    itemType();
    writeSystem(10, "clientSys", "client");
    db_->createTable("velta/in/items", "Test::Item");
    Agent::SubscriptionTranslator& t = start(Kind::server, "server", "serverSys");
    const unsigned typeId = itemTypeId();
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 0u);
    EXPECT_EQ(db_->rowCount(kExtPub), 0u);
    EXPECT_TRUE(db_->calls().empty());

    // Intake and publication.
    const External::Subscription query = writeSubscription({{"system_description", 10},
                                                            {"outputPath", "velta/out/wq"},
                                                            {"queryText", "SELECT key FROM velta/in/items"},
                                                            {"standing", true}});
    const External::Subscription reader = writeSubscription({{"system_description", 10},
                                                             {"outputPath", "velta/out/wr"},
                                                             {"queryText", "SELECT * FROM velta/out/wr"},
                                                             {"standing", true}});
    run();
    const std::uint32_t querySid = ctrlFor(query.oid()).oid();
    const std::uint32_t readerSid = ctrlFor(reader.oid()).oid();
    ASSERT_NE(querySid, 0u);
    ASSERT_NE(readerSid, 0u);
    const std::uint32_t queryTable = tableRow("velta/out/wq").oid();
    const std::uint32_t readerTable = tableRow("velta/out/wr").oid();
    auto extPub = [&](const External::Subscription& s, std::uint32_t sid, std::uint32_t table, bool status,
                      const std::string& error) {
        return makeRecord<External::Publication>({{"subscription_id", s.oid()},
                                                  {"publication_id", sid},
                                                  {"tableId", table},
                                                  {"typeId", typeId},
                                                  {"status", status},
                                                  {"error", error}})
            .toString();
    };
    EXPECT_EQ(lines(kExtPub), (std::vector<std::string>{extPub(query, querySid, queryTable, true, ""),
                                                        extPub(reader, readerSid, readerTable, true, "")}));
    EXPECT_EQ(db_->rowCount(kCtrlPub), 2u);
    EXPECT_EQ(callLines(*db_),
              (std::vector<std::string>{
                  "registerTable path=velta/out/wq typeName=Test::Item tableType=0 desiredFlags=0 flags=0 "
                  "owner= agent=server",
                  "registerTable path=velta/out/wr typeName=Test::Item tableType=0 desiredFlags=0 flags=0 "
                  "owner= agent=server",
                  "defineQuery text=\"SELECT key FROM velta/in/items\" typeId=" + std::to_string(typeId) +
                      " params={} standing=1 name=\"\" agent=server",
              }));
    EXPECT_EQ(t.publications().size(), 2u);

    // The host reports a problem with the query's publication: the client sees it.
    db_->write(kCtrlPub, makeRecord<veCtrl::publication>({{"subscription_id", querySid},
                                                          {"tableId", queryTable},
                                                          {"typeId", typeId},
                                                          {"system_id", 10},
                                                          {"status", false},
                                                          {"error", "lost"}}));
    run();
    EXPECT_EQ(lines(kExtPub), (std::vector<std::string>{extPub(query, querySid, queryTable, false, "lost"),
                                                        extPub(reader, readerSid, readerTable, true, "")}));

    // Withdrawal of both: rows go, the query is removed, the host's publications follow.
    db_->callsClear();
    ASSERT_TRUE(db_->erase(kExtSubs, query));
    ASSERT_TRUE(db_->erase(kExtSubs, reader));
    run();
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 0u);
    EXPECT_EQ(db_->rowCount(kExtPub), 0u);
    EXPECT_EQ(db_->rowCount(kCtrlPub), 0u);
    EXPECT_EQ(callLines(*db_), std::vector<std::string>{"removeQuery name=\"velta/out/wq\" agent=server"});
    EXPECT_EQ(t.subscriptionCount(), 0u);
    EXPECT_TRUE(t.publications().empty());
    EXPECT_EQ(t.externalSubscriptionId(querySid), 0u);

    // Teardown removes nothing.
    const std::vector<std::string> before = snapshot();
    translator_.reset();
    run();
    EXPECT_EQ(snapshot(), before);
    EXPECT_EQ(db_->calls().size(), 1u);
}

// Standalone non-server agent: a late table, publications carried to the control side, withdrawal,
// teardown.
TEST_F(LifecycleTest, WalkThroughStandaloneNonServerAgent) {
    writeSystem(20, "sysA", "A");
    Agent::SubscriptionTranslator& t = start(Kind::standalone, "A", "sysA");
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 0u);

    const External::Subscription sub = writeSubscription({{"system_description", 20},
                                                          {"outputPath", "velta/out/sa"},
                                                          {"queryText", "SELECT * INTO velta/out/sa"},
                                                          {"standing", true}});
    run();
    const veCtrl::subscription ctrl = ctrlFor(sub.oid());
    ASSERT_FALSE(ctrl.empty());
    EXPECT_TRUE(ctrl.writer());
    EXPECT_EQ(ctrl.tableId(), tableRow("velta/out/sa").oid());
    EXPECT_EQ(tableRow("velta/out/sa").owner(), "A");
    EXPECT_EQ(db_->rowCount(kExtPub), 0u);
    EXPECT_EQ(callLines(*db_),
              std::vector<std::string>{"registerTable path=velta/out/sa typeName=Test::Item tableType=0 "
                                       "desiredFlags=0 flags=0 owner=A agent=A"});
    EXPECT_TRUE(t.pendingTableSubscriptions().empty());

    // The client publishes, then changes its publication.
    auto clientPub = [&](bool status, const std::string& error) {
        return makeRecord<External::Publication>({{"subscription_id", sub.oid()},
                                                  {"tableId", ctrl.tableId()},
                                                  {"typeId", 9},
                                                  {"ptime", 5},
                                                  {"status", status},
                                                  {"error", error}});
    };
    auto carried = [&](bool status, const std::string& error) {
        return makeRecord<veCtrl::publication>({{"subscription_id", ctrl.oid()},
                                                {"tableId", ctrl.tableId()},
                                                {"typeId", 9},
                                                {"ptime", 5},
                                                {"system_id", 20},
                                                {"status", status},
                                                {"error", error}})
            .toString();
    };
    db_->write(kExtPub, clientPub(true, ""));
    run();
    EXPECT_EQ(lines(kCtrlPub), std::vector<std::string>{carried(true, "")});
    db_->write(kExtPub, clientPub(false, "full"));
    run();
    EXPECT_EQ(lines(kCtrlPub), std::vector<std::string>{carried(false, "full")});

    // Withdrawal: only the registry and the control row.
    ASSERT_TRUE(db_->erase(kExtSubs, sub));
    run();
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 0u);
    EXPECT_EQ(lines(kCtrlPub), std::vector<std::string>{carried(false, "full")});
    EXPECT_EQ(db_->rowCount(kExtPub), 1u);
    EXPECT_EQ(t.subscriptionCount(), 0u);
    EXPECT_EQ(db_->calls().size(), 1u);

    const std::vector<std::string> before = snapshot();
    translator_.reset();
    run();
    EXPECT_EQ(snapshot(), before);
}

// Per-agent non-server agent: shared and per-client rows, a publication, withdrawal of both kinds
// of row, a second ready pass, teardown.
TEST_F(LifecycleTest, WalkThroughPerAgentNonServerAgent) {
    itemType();
    writeSystem(20, "sysA", "A");
    db_->createTable("velta/out/pa", "Test::Item");
    db_->createTable("velta/out/pc", "Test::Item");
    Agent::SubscriptionTranslator& t = start(Kind::perAgent, "A", "sysA");
    const std::string clientTable = "velta/External/input/A/Subscription";
    ASSERT_TRUE(db_->hasTable(clientTable));

    const External::Subscription shared = writeSubscription({{"system_description", 20},
                                                             {"outputPath", "velta/out/pa"},
                                                             {"queryText", "SELECT 1"},
                                                             {"standing", true}});
    const External::Subscription perClient = writeSubscription({{"oid", 7},
                                                                {"system_description", 20},
                                                                {"outputPath", "velta/out/pc"},
                                                                {"queryText", "SELECT 2"},
                                                                {"standing", true}},
                                                               clientTable);
    run();
    const veCtrl::subscription sharedCtrl = ctrlFor(shared.oid());
    const veCtrl::subscription clientCtrl = ctrlFor(0);
    ASSERT_FALSE(sharedCtrl.empty());
    ASSERT_FALSE(clientCtrl.empty());
    EXPECT_EQ(clientCtrl.tableId(), tableRow("velta/out/pc").oid());
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 2u);
    EXPECT_EQ(t.subscriptionCount(), 2u);
    EXPECT_TRUE(db_->calls().empty());

    db_->write(kExtPub,
               makeRecord<External::Publication>({{"subscription_id", shared.oid()}, {"status", true}}));
    run();
    EXPECT_EQ(lines(kCtrlPub),
              std::vector<std::string>{
                  makeRecord<veCtrl::publication>(
                      {{"subscription_id", sharedCtrl.oid()}, {"system_id", 20}, {"status", true}})
                      .toString()});

    // A per-client row has no withdrawal of its own; the shared one does.
    ASSERT_TRUE(db_->erase(clientTable, perClient));
    ASSERT_TRUE(db_->erase(kExtSubs, shared));
    run();
    EXPECT_EQ(lines(kCtrlSubs), std::vector<std::string>{clientCtrl.toString()});
    EXPECT_EQ(t.subscriptionCount(), 1u);

    // The next ready pass finds no external subscription behind the per-client control row.
    t.onTableReady();
    run();
    EXPECT_EQ(db_->rowCount(kCtrlSubs), 0u);
    EXPECT_EQ(db_->rowCount(kCtrlPub), 0u);

    const std::vector<std::string> before = snapshot();
    translator_.reset();
    run();
    EXPECT_EQ(snapshot(), before);
}

}  // namespace
}  // namespace Velta::Test
