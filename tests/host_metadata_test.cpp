// Table metadata, table registration, control publications, the query engine and the host-call
// log of the in-memory host.
#include "TestSupport.h"

namespace Velta::Test {
namespace {

constexpr const char* kVeTable = "velta/metadata/veTable";

const RowType& resultType() {
    return Host::defineRowType("MetadataTest::Result", {{"oid", FieldKind::u32}, {"k", FieldKind::string}},
                               {"k"});
}

std::string meta(unsigned oid, const std::string& path, const std::string& type, const std::string& owner) {
    return makeRecord<veMetadata::veTable>(
               {{"oid", oid}, {"tablePath", path}, {"typeName", type}, {"owner", owner}})
        .toString();
}

class HostMetadata : public HostTest {};

TEST_F(HostMetadata, VeTableRowsFollowTableCreationAndDrop) {
    EXPECT_EQ(lines(kVeTable),
              (std::vector<std::string>{
                  meta(4, "velta/External/Publication", "External::Publication", ""),
                  meta(3, "velta/External/Subscription", "External::Subscription", ""),
                  meta(2, "velta/metadata/SystemDescription", "veMetadata::SystemDescription", ""),
                  meta(1, "velta/metadata/veTable", "veMetadata::veTable", ""),
                  meta(6, "velta/veCtrl/publication", "veCtrl::publication", ""),
                  meta(5, "velta/veCtrl/subscription", "veCtrl::subscription", "")}));
    auto agent = connect("A");
    std::vector<std::string> log;
    RecordingInterface watcher(log, "meta", veMetadata::veTable::rowTypeName());
    agent->bindInterface(watcher.iface, kVeTable, false);
    watcher.iface.clientReadyIs(true);
    run();

    db_->createTable("t/one", resultType().name(), "owner1");
    db_->createTable("t/one", veMetadata::veTable::rowTypeName(), "other");  // exists: nothing changes
    db_->createTable("t/two", resultType().name(), "", 77);  // metadata oid chosen by the caller
    // bindInterface on a missing path creates the table of the interface's type, owned by the agent.
    VeTableInterface reader("r", resultType().name(), kReaderMode, {}, {}, {}, {});
    agent->bindInterface(reader, "t/three", false);
    // An unknown type: bound all the same, but no table.
    VeTableInterface strange("s", "No::Such", kReaderMode, {}, {}, {}, {});
    agent->bindInterface(strange, "t/strange", false);
    EXPECT_NE(strange.attachment(), 0u);
    EXPECT_FALSE(db_->hasTable("t/strange"));
    EXPECT_TRUE(db_->dropTable("t/one"));
    EXPECT_FALSE(db_->dropTable("t/one"));
    EXPECT_THROW(db_->createTable("t/bad", "No::Such"), std::invalid_argument);
    run();
    EXPECT_EQ(log, (std::vector<std::string>{
                       "meta ready", "meta row " + meta(7, "t/one", resultType().name(), "owner1"),
                       "meta row " + meta(77, "t/two", resultType().name(), ""),
                       "meta row " + meta(8, "t/three", resultType().name(), "A"),
                       "meta delete " + meta(7, "t/one", resultType().name(), "owner1")}));
    EXPECT_EQ(db_->tablePaths().size(), 8u);

    // tableInfo answers from the rows, by path and by id (index 1), also for rows a client wrote.
    EXPECT_EQ(agent->tableInfo("t/two").toString(), meta(77, "t/two", resultType().name(), ""));
    EXPECT_EQ(agent->tableInfo(8u).tablePath(), "t/three");
    EXPECT_TRUE(agent->tableInfo("t/one").empty());
    EXPECT_TRUE(agent->tableInfo(7u).empty());
    db_->write(kVeTable, makeRecord<veMetadata::veTable>({{"oid", 500}, {"tablePath", "t/virtual"}}));
    EXPECT_EQ(agent->tableInfo(500u).tablePath(), "t/virtual");
}

TEST_F(HostMetadata, RegisterTableVisibilityDependsOnTheKindOfAgent) {
    auto server = connectServer("srv");
    auto other = connect("ext", false, true);
    server->registerTable("out/s", resultType().name(), TableType::standing, 1, 2, "ownerS");

    other->registerTable("out/e", resultType().name(), TableType::oneShot, 3, 4, "ownerE");
    other->registerTable("out/e", veMetadata::veTable::rowTypeName(), TableType::standing, 0, 0,
                         "again");  // on its way
    server->registerTable("out/s", veMetadata::veTable::rowTypeName(), TableType::standing, 0, 0,
                          "late");                                              // exists
    other->registerTable("out/u", "No::Such", TableType::standing, 0, 0, "x");  // unknown type: no table
    EXPECT_FALSE(db_->hasTable("out/e"));
    EXPECT_TRUE(other->tableInfo("out/e").empty());
    EXPECT_EQ(db_->pending(), 1u);
    EXPECT_TRUE(db_->runOne());  // one loop turn later
    EXPECT_TRUE(db_->hasTable("out/e"));
    EXPECT_EQ(db_->tableType("out/e"), &resultType());
    EXPECT_EQ(other->tableInfo("out/e").owner(), "ownerE");
    EXPECT_EQ(db_->tableType("out/s"), &resultType());
    EXPECT_EQ(server->tableInfo("out/s").owner(), "ownerS");
    EXPECT_FALSE(db_->hasTable("out/u"));
    run();

    EXPECT_EQ(callLines(*db_),
              (std::vector<std::string>{"registerTable path=out/s typeName=MetadataTest::Result tableType=0 "
                                        "desiredFlags=1 flags=2 owner=ownerS agent=srv",
                                        "registerTable path=out/e typeName=MetadataTest::Result tableType=1 "
                                        "desiredFlags=3 flags=4 owner=ownerE agent=ext",
                                        "registerTable path=out/e typeName=veMetadata::veTable tableType=0 "
                                        "desiredFlags=0 flags=0 owner=again agent=ext",
                                        "registerTable path=out/s typeName=veMetadata::veTable tableType=0 "
                                        "desiredFlags=0 flags=0 owner=late agent=srv",
                                        "registerTable path=out/u typeName=No::Such tableType=0 "
                                        "desiredFlags=0 flags=0 owner=x agent=ext"}));
    db_->callsClear();
    EXPECT_TRUE(db_->calls().empty());
}

TEST_F(HostMetadata, ServerRegistrationIsVisibleWhateverElseIsUnderWay) {
    auto server = connectServer("srv");
    auto other = connect("ext", false, true);

    // Another agent's registration of the same path is still travelling: the server's one wins at
    // once, and the travelling one then finds the table and changes nothing.
    other->registerTable("out/race", resultType().name(), TableType::oneShot, 0, 0, "ownerE");
    server->registerTable("out/race", resultType().name(), TableType::standing, 0, 0, "ownerS");
    EXPECT_EQ(server->tableInfo("out/race").owner(), "ownerS");
    run();
    EXPECT_EQ(server->tableInfo("out/race").owner(), "ownerS");

    // A client deleted an existing table's metadata row: the server's registration writes it again.
    db_->createTable("out/known", resultType().name(), "first");
    veMetadata::veTable key;
    key.tablePathIs("out/known");
    ASSERT_TRUE(db_->erase(kVeTable, key));
    EXPECT_TRUE(server->tableInfo("out/known").empty());
    other->registerTable("out/known", resultType().name(), TableType::standing, 0, 0,
                         "ext");  // not the server: nothing
    run();
    EXPECT_TRUE(server->tableInfo("out/known").empty());
    server->registerTable("out/known", resultType().name(), TableType::standing, 0, 0, "again");
    EXPECT_EQ(server->tableInfo("out/known").typeName(), resultType().name());
    EXPECT_EQ(server->tableInfo("out/known").owner(), "again");

    // The whole metadata table was dropped: it comes back with the registered table's row.
    ASSERT_TRUE(db_->dropTable(kVeTable));
    server->registerTable("out/fresh", resultType().name(), TableType::standing, 0, 0, "o");
    EXPECT_EQ(server->tableInfo("out/fresh").tablePath(), "out/fresh");
    EXPECT_EQ(server->tableInfo("out/fresh").owner(), "o");
    EXPECT_FALSE(server->tableInfo(kVeTable).empty());
}

TEST_F(HostMetadata, ControlPublicationsAnswerControlSubscriptions) {
    Host::Database::Options options;
    options.autoPublish = true;
    reset(options);
    db_->createTable("out/r", resultType().name());
    const unsigned tableId =
        db_->read(kVeTable, makeRecord<veMetadata::veTable>({{"tablePath", "out/r"}})).number(0);
    auto ctrl = [&](unsigned sys, unsigned conn, unsigned oid = 0) {
        return makeRecord<veCtrl::subscription>(
            {{"system_description", sys}, {"connection_id", conn}, {"tableId", tableId}, {"oid", oid}});
    };
    db_->clockAdvance(250);
    const BaseRow stored = db_->write("velta/veCtrl/subscription", ctrl(3, 1));
    const unsigned subOid = static_cast<unsigned>(stored.number(0));
    db_->write("velta/veCtrl/subscription", ctrl(3, 1));  // a rewrite is no new row
    EXPECT_TRUE(lines("velta/veCtrl/publication").empty());
    run();
    veCtrl::publication expected;
    expected.subscription_idIs(subOid);
    expected.tableIdIs(tableId);
    expected.typeIdIs(resultType().id());
    expected.system_idIs(3);
    expected.statusIs(true);
    expected.ptimeIs(250);
    EXPECT_EQ(lines("velta/veCtrl/publication"), std::vector<std::string>{expected.toString()});

    // Gone with its control row.
    db_->erase("velta/veCtrl/subscription", ctrl(3, 1));
    run();
    EXPECT_TRUE(lines("velta/veCtrl/publication").empty());

    // A control row that is gone when the turn comes gets nothing, even if its key is back by then.
    db_->write("velta/veCtrl/subscription", ctrl(4, 1));
    db_->erase("velta/veCtrl/subscription", ctrl(4, 1));
    const BaseRow back = db_->write("velta/veCtrl/subscription", ctrl(4, 1));
    run();
    const std::vector<BaseRow> pubs = db_->rows("velta/veCtrl/publication");
    ASSERT_EQ(pubs.size(), 1u);
    EXPECT_EQ(veCtrl::publication(pubs[0]).subscription_id(), back.number(0));

    // Off by default.
    reset(Host::Database::Options{});
    db_->write("velta/veCtrl/subscription", ctrl(3, 1));
    run();
    EXPECT_EQ(db_->rowCount("velta/veCtrl/publication"), 0u);
}

TEST_F(HostMetadata, QueriesCompleteOneTurnLaterOrFailOnUnknownTables) {
    db_->createTable("data/known", resultType().name());
    auto agent = connect("A");
    std::vector<std::string> outcomes;
    auto done = [&](bool ok, unsigned id, const std::string& error) {
        outcomes.push_back(std::to_string(ok) + " " + std::to_string(id) + " " + error);
    };
    agent->defineQuery("SELECT a FROM data/known WHERE x", 9, {{"p", "1"}, {"a", "2"}}, done, true, "q1");
    agent->defineQuery("SELECT a FROM  data/missing", 9, {}, done, false, "");
    agent->defineQuery("SHOW tables", 9, {}, done, false, "");
    agent->removeQuery("q1");
    EXPECT_TRUE(outcomes.empty());
    run();
    EXPECT_EQ(outcomes, (std::vector<std::string>{"1 1 ", "0 0 No such table: data/missing", "1 2 "}));
    ASSERT_EQ(db_->queries().size(), 3u);
    EXPECT_EQ(db_->queries()[0].state, Host::QueryInfo::State::completed);
    EXPECT_EQ(db_->queries()[1].state, Host::QueryInfo::State::failed);
    EXPECT_EQ(db_->queries()[1].error, "No such table: data/missing");
    EXPECT_FALSE(db_->completeQuery("SHOW tables", true));  // nothing left to complete by hand
    EXPECT_EQ(callLines(*db_),
              (std::vector<std::string>{
                  "defineQuery text=\"SELECT a FROM data/known WHERE x\" typeId=9 params={a=2,p=1} "
                  "standing=1 name=\"q1\" agent=A",
                  "defineQuery text=\"SELECT a FROM  data/missing\" typeId=9 params={} standing=0 name=\"\" "
                  "agent=A",
                  "defineQuery text=\"SHOW tables\" typeId=9 params={} standing=0 name=\"\" agent=A",
                  "removeQuery name=\"q1\" agent=A"}));
}

TEST_F(HostMetadata, ManualQueriesCompleteOnlyByHandAndCompletionsDieWithTheirHandle) {
    Host::Database::Options options;
    options.manualQueries = true;
    reset(options);
    std::vector<std::string> outcomes;
    auto done = [&](const std::string& who) {
        return [&outcomes, who](bool ok, unsigned id, const std::string& error) {
            outcomes.push_back(who + " " + std::to_string(ok) + " " + std::to_string(id) + " " + error);
        };
    };
    auto keeper = connect("K");
    auto leaver = connect("L");
    keeper->defineQuery("SELECT 1 FROM nowhere", 1, {}, done("k1"), false, "");
    leaver->defineQuery("SELECT 1 FROM nowhere", 1, {}, done("l1"), false, "");
    keeper->defineQuery("SELECT 1 FROM nowhere", 1, {}, done("k2"), false, "");
    run();
    EXPECT_TRUE(outcomes.empty());

    EXPECT_TRUE(db_->completeQuery("SELECT 1 FROM nowhere", false, "refused"));  // the oldest: k1
    EXPECT_TRUE(db_->completeQuery("SELECT 1 FROM nowhere", true));              // then l1
    EXPECT_FALSE(db_->completeQuery("SELECT 2", true));
    leaver.reset();  // its pending completion goes with it
    run();
    EXPECT_EQ(outcomes, std::vector<std::string>{"k1 0 0 refused"});
    EXPECT_EQ(db_->queries()[1].state, Host::QueryInfo::State::completed);
    EXPECT_EQ(db_->queries()[2].state, Host::QueryInfo::State::pending);
    EXPECT_TRUE(db_->completeQuery("SELECT 1 FROM nowhere", true));
    run();
    EXPECT_EQ(outcomes, (std::vector<std::string>{"k1 0 0 refused", "k2 1 2 "}));

    // Automatic completions are dropped the same way.
    reset(Host::Database::Options{});
    auto gone = connect("G");
    gone->defineQuery("SELECT 1", 1, {}, done("g"), false, "");
    gone.reset();
    EXPECT_EQ(run(), 1u);
    EXPECT_EQ(outcomes.size(), 2u);
    EXPECT_EQ(db_->queries()[0].state, Host::QueryInfo::State::completed);
}

TEST_F(HostMetadata, ListenerSeesDeliveriesChangesAndHostCalls) {
    Host::EventLog events;
    db_->listenerIs(&events);
    auto agent = connect("A");
    std::vector<std::string> log;
    RecordingInterface o(log, "obs", resultType().name());
    agent->bindInterface(o.iface, "t/x", false);
    o.iface.clientReadyIs(true);
    agent->registerTable("t/y", resultType().name(), TableType::standing, 0, 0, "A");
    db_->write("t/x", makeRow(resultType(), {{"k", "k1"}}));
    db_->dropTable("t/x");
    run();
    db_->listenerIs(nullptr);
    // "begin <delivery> <interface or work>[ <key>]", "end", "<change> <path>".
    std::vector<std::string> lines;
    for (const Host::EventLog::Entry& e : events.entries()) {
        static const char* const kinds[] = {"begin", "end", "write", "delete", "call", "created", "dropped"};
        static const char* const deliveries[] = {"ready", "row", "delete", "task"};
        std::string line = kinds[static_cast<int>(e.kind)];
        if (e.kind == Host::EventLog::Entry::Kind::deliveryBegin)
            line += std::string(" ") + deliveries[static_cast<int>(e.delivery)] + " " +
                    (e.iface ? e.ifName : e.what) + (e.row.empty() ? "" : " " + e.row.string(1));
        else if (e.call)
            line += " " + e.call->path;
        else if (!e.path.empty())
            line += " " + e.path;
        lines.push_back(line);
    }
    EXPECT_EQ(lines,
              (std::vector<std::string>{
                  "created t/x", "write velta/metadata/veTable", "call t/y", "write t/x", "dropped t/x",
                  "delete velta/metadata/veTable", "begin ready obs", "end", "begin task registerTable t/y",
                  "created t/y", "write velta/metadata/veTable", "end", "begin row obs k1", "end"}));
}

}  // namespace
}  // namespace Velta::Test
