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

using HostMetadata = HostTest;

TEST_F(HostMetadata, VeTableRowsFollowTablesAndRegistrations) {
    std::string builtinOids;  // the built-in tables, in path order
    for (const BaseRow& r : db_->rows(kVeTable)) builtinOids += std::to_string(r.number(0)) + " ";
    EXPECT_EQ(builtinOids, "4 3 2 1 6 5 ");
    auto server = connectServer("srv");
    auto agent = connect("A", false, true);
    db_->createTable("t/one", resultType().name(), "owner1");
    db_->createTable("t/one", veMetadata::veTable::rowTypeName(), "other");  // exists: nothing changes
    db_->createTable("t/two", resultType().name(), "", 77);  // metadata oid chosen by the caller
    VeTableInterface reader("r", resultType().name(), kReaderMode, {}, {}, {}, {});
    agent->bindInterface(reader, "t/three", false);  // a missing path: created, owned by the agent
    VeTableInterface strange("s", "No::Such", kReaderMode, {}, {}, {}, {});
    agent->bindInterface(strange, "t/strange", false);  // an unknown type: bound, but no table
    EXPECT_NE(strange.attachment(), 0u);
    EXPECT_TRUE(db_->dropTable("t/one"));
    EXPECT_FALSE(db_->dropTable("t/one"));
    EXPECT_THROW(db_->createTable("t/bad", "No::Such"), std::invalid_argument);
    // Another agent's registration travels; the server's wins at once and the travelling one then
    // finds the table and changes nothing.
    agent->registerTable("t/race", resultType().name(), TableType::oneShot, 3, 4, "ownerE");
    server->registerTable("t/race", resultType().name(), TableType::standing, 1, 2, "ownerS");
    agent->registerTable("t/u", "No::Such", TableType::standing, 0, 0, "x");  // unknown type: no table
    agent->registerTable("t/y", resultType().name(), TableType::standing, 0, 0, "A");
    EXPECT_FALSE(db_->hasTable("t/y"));
    db_->write("t/two", makeRow(resultType(), {{"k", "k1"}}));
    run();
    EXPECT_FALSE(db_->hasTable("t/strange") || db_->hasTable("t/u"));
    EXPECT_EQ(agent->tableInfo("t/race").owner(), "ownerS");
    EXPECT_EQ(agent->tableInfo("t/two").toString(), meta(77, "t/two", resultType().name(), ""));
    EXPECT_EQ(agent->tableInfo(8u).toString(), meta(8, "t/three", resultType().name(), "A"));
    EXPECT_EQ(agent->tableInfo(11u).toString(), meta(11, "t/y", resultType().name(), "A"));
    EXPECT_TRUE(agent->tableInfo("t/one").empty() && agent->tableInfo(7u).empty());
    db_->write(kVeTable, makeRecord<veMetadata::veTable>({{"oid", 500}, {"tablePath", "t/virtual"}}));
    EXPECT_EQ(agent->tableInfo(500u).tablePath(), "t/virtual");  // also rows a client wrote

    const std::vector<std::string> calls = callLines(*db_);
    EXPECT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls.at(0),
              "registerTable path=t/race typeName=MetadataTest::Result tableType=1 desiredFlags=3 "
              "flags=4 owner=ownerE agent=A");
    db_->callsClear();
    EXPECT_TRUE(db_->calls().empty());

    // A client deleted an existing table's metadata row: only the server's registration writes it again.
    veMetadata::veTable key;
    key.tablePathIs("t/y");
    ASSERT_TRUE(db_->erase(kVeTable, key));
    agent->registerTable("t/y", resultType().name(), TableType::standing, 0, 0, "ext");
    run();
    EXPECT_TRUE(server->tableInfo("t/y").empty());
    server->registerTable("t/y", resultType().name(), TableType::standing, 0, 0, "again");
    EXPECT_EQ(server->tableInfo("t/y").owner(), "again");
    // The whole metadata table was dropped: it comes back with the registered table's row.
    ASSERT_TRUE(db_->dropTable(kVeTable));
    server->registerTable("t/fresh", resultType().name(), TableType::standing, 0, 0, "o");
    EXPECT_EQ(server->tableInfo("t/fresh").owner(), "o");
    EXPECT_FALSE(server->tableInfo(kVeTable).empty());
}

TEST_F(HostMetadata, ControlPublicationsAnswerControlSubscriptions) {
    reset({.autoPublish = true});
    db_->createTable("out/r", resultType().name());
    const unsigned tableId = static_cast<unsigned>(
        db_->read(kVeTable, makeRecord<veMetadata::veTable>({{"tablePath", "out/r"}})).number(0));
    auto ctrl = [&](unsigned sys) {
        return makeRecord<veCtrl::subscription>(
            {{"system_description", sys}, {"connection_id", 1}, {"tableId", tableId}});
    };
    db_->clockAdvance(250);
    const BaseRow stored = db_->write("velta/veCtrl/subscription", ctrl(3));
    db_->write("velta/veCtrl/subscription", ctrl(3));  // a rewrite is no new row
    EXPECT_TRUE(lines("velta/veCtrl/publication").empty());
    run();
    EXPECT_EQ(lines("velta/veCtrl/publication"),
              std::vector<std::string>{makeRecord<veCtrl::publication>({{"subscription_id", stored.number(0)},
                                                                        {"tableId", tableId},
                                                                        {"typeId", resultType().id()},
                                                                        {"system_id", 3},
                                                                        {"status", true},
                                                                        {"ptime", 250}})
                                           .toString()});
    db_->erase("velta/veCtrl/subscription", ctrl(3));  // gone with its control row
    // A control row that is gone when the turn comes gets nothing, even if its key is back by then.
    db_->write("velta/veCtrl/subscription", ctrl(4));
    db_->erase("velta/veCtrl/subscription", ctrl(4));
    const BaseRow back = db_->write("velta/veCtrl/subscription", ctrl(4));
    run();
    const std::vector<BaseRow> pubs = db_->rows("velta/veCtrl/publication");
    ASSERT_EQ(pubs.size(), 1u);
    EXPECT_EQ(veCtrl::publication(pubs[0]).subscription_id(), back.number(0));
    reset({});  // off by default
    db_->write("velta/veCtrl/subscription", ctrl(3));
    run();
    EXPECT_EQ(db_->rowCount("velta/veCtrl/publication"), 0u);
}

TEST_F(HostMetadata, QueriesCompleteOneTurnLaterOrByHandAndDieWithTheirHandle) {
    db_->createTable("data/known", resultType().name());
    std::vector<std::string> outcomes;
    auto done = [&](const std::string& who) {
        return [&outcomes, who](bool ok, unsigned id, const std::string& error) {
            outcomes.push_back(who + " " + std::to_string(ok) + " " + std::to_string(id) + " " + error);
        };
    };
    auto agent = connect("A");
    agent->defineQuery("SELECT a FROM data/known WHERE x", 9, {{"p", "1"}, {"a", "2"}}, done("a"), true,
                       "q1");
    agent->defineQuery("SELECT a FROM  data/missing", 9, {}, done("b"), false, "");
    auto gone = connect("G");
    gone->defineQuery("SHOW tables", 9, {}, done("g"), false, "");
    gone.reset();  // its completion goes with it
    agent->removeQuery("q1");
    EXPECT_TRUE(outcomes.empty());
    EXPECT_EQ(run(), 3u);
    EXPECT_EQ(outcomes, (std::vector<std::string>{"a 1 1 ", "b 0 0 No such table: data/missing"}));
    EXPECT_EQ(db_->queries()[1].state, Host::QueryInfo::State::failed);
    EXPECT_EQ(db_->queries()[2].state, Host::QueryInfo::State::completed);
    EXPECT_FALSE(db_->completeQuery("SHOW tables", true));  // nothing left to complete by hand
    EXPECT_EQ(callLines(*db_).front(),
              "defineQuery text=\"SELECT a FROM data/known WHERE x\" typeId=9 params={a=2,p=1} standing=1 "
              "name=\"q1\" agent=A");
    EXPECT_EQ(callLines(*db_).back(), "removeQuery name=\"q1\" agent=A");

    reset({.manualQueries = true});
    outcomes.clear();
    auto keeper = connect("K");
    auto leaver = connect("L");
    keeper->defineQuery("SELECT 1 FROM nowhere", 1, {}, done("k1"), false, "");
    leaver->defineQuery("SELECT 1 FROM nowhere", 1, {}, done("l1"), false, "");
    keeper->defineQuery("SELECT 1 FROM nowhere", 1, {}, done("k2"), false, "");
    run();
    EXPECT_TRUE(outcomes.empty());
    EXPECT_TRUE(db_->completeQuery("SELECT 1 FROM nowhere", false, "refused"));  // the oldest: k1
    EXPECT_TRUE(db_->completeQuery("SELECT 1 FROM nowhere", true));              // then l1
    leaver.reset();
    run();
    EXPECT_EQ(db_->queries()[2].state, Host::QueryInfo::State::pending);
    EXPECT_TRUE(db_->completeQuery("SELECT 1 FROM nowhere", true));
    run();
    EXPECT_EQ(outcomes, (std::vector<std::string>{"k1 0 0 refused", "k2 1 2 "}));
}

}  // namespace
}  // namespace Velta::Test
