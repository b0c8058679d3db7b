// Tables, indexes and positions of the in-memory host, as agents reach them through interfaces.
// The contracts every host keeps are the conformance kit's (conformance_test); these are this
// host's own choices.
#include "TestSupport.h"

namespace Velta::Test {
namespace {

constexpr const char* kPath = "test/items";

const RowType& itemType() {
    return Host::defineRowType(
        "TablesTest::Item", {{"oid", FieldKind::u32}, {"name", FieldKind::string}, {"value", FieldKind::u32}},
        {"name"});
}

BaseRow item(const std::string& name, unsigned value = 0, unsigned oid = 0) {
    return makeRow(itemType(), {{"name", name}, {"value", value}, {"oid", oid}});
}
BaseRow key(const std::string& name) { return makeRow(itemType(), {{"name", name}}); }
BaseRow oidKey(unsigned oid) { return makeRow(itemType(), {{"oid", oid}}); }
std::string nameOf(const BaseRow& row) { return row.string(1); }
std::uint64_t oidOf(const BaseRow& row) { return row.number(0); }

class HostTables : public HostTest {
protected:
    HostTables() : agent_(connect("A")), iface_("items", itemType().name(), kModifierMode, {}, {}, {}, {}) {
        agent_->bindInterface(iface_, kPath, false);
    }

    void fill(std::initializer_list<const char*> names) {
        for (const char* n : names) db_->write(kPath, item(n));
    }

    // Names along index `index` from `it` to the end; `during` runs at each row before moving on.
    std::vector<std::string> walk(VeRowIterator it, unsigned char index = 0,
                                  const std::function<void(VeRowIterator&)>& during = {}) {
        std::vector<std::string> names;
        for (; it != iface_.end(index); ++it) {
            names.push_back(nameOf(*it));
            if (during) during(it);
        }
        return names;
    }

    VeltaDB::p_t agent_;
    VeTableInterface iface_;
};

TEST_F(HostTables, WalksSeeRowsAheadAndSurviveTheirCurrentRowChangingOrGoing) {
    fill({"b", "d", "f", "h"});
    EXPECT_EQ(walk(iface_.begin(0), 0,
                   [&](VeRowIterator& it) {
                       if (nameOf(*it) == "b") {
                           db_->write(kPath, item("a"));  // behind the position: not visited
                           db_->write(kPath, item("c"));  // ahead: visited
                       }
                       if (nameOf(*it) != "d") return;
                       BaseRow changed = item("d", 42);
                       iface_.rowIs(changed);  // replaced in place: * shows the new row
                       EXPECT_EQ((*it).number(2), 42u);
                       iface_.rowDel(key("d"));  // deleted: * keeps the row as it was, ++ goes on
                       EXPECT_EQ(nameOf(*it), "d");
                       db_->erase(kPath, key("f"));   // the successor goes too
                       db_->write(kPath, item("e"));  // and a new successor arrives
                   }),
              (std::vector<std::string>{"b", "c", "d", "e", "h"}));
    EXPECT_EQ(walk(iface_.begin(0)), (std::vector<std::string>{"a", "b", "c", "e", "h"}));

    // Index 1 is (oid, key); a walk along it survives the current row moving to another oid.
    db_->write(kPath, item("a", 0, 8));
    db_->write(kPath, item("b", 0, 5));
    db_->write(kPath, item("c", 0, 5));
    db_->write(kPath, item("e", 0, 3));
    db_->write(kPath, item("h", 0, 6));
    EXPECT_EQ(walk(iface_.begin(1), 1,
                   [&](VeRowIterator& it) {
                       if (nameOf(*it) == "e") db_->write(kPath, item("e", 0, 9));
                   }),
              (std::vector<std::string>{"e", "b", "c", "h", "a", "e"}));
    EXPECT_EQ(walk(iface_.find(oidKey(5), 1), 1), (std::vector<std::string>{"b", "c", "h", "a", "e"}));
    EXPECT_EQ(iface_.find(oidKey(4), 1), iface_.end(1));
    EXPECT_EQ(nameOf(*iface_.lower_bound(oidKey(4), 1)), "b");
    EXPECT_EQ(nameOf(*iface_.lower_bound(makeRow(itemType(), {{"oid", 5}, {"name", "bb"}}), 1)), "c");
    EXPECT_TRUE(iface_.row(oidKey(7), 1).empty());

    // Positions compare by table, index and key; past the end stays at the end.
    VeRowIterator x = iface_.find(key("a"), 0), y = iface_.begin(0);
    db_->write(kPath, item("a", 3));
    EXPECT_EQ(x, y);
    ++y;
    EXPECT_NE(x, y);
    EXPECT_NE(iface_.begin(0), iface_.begin(1));
    for (int i = 0; i < 5; ++i) ++y;
    EXPECT_EQ(y, VeRowIterator());
    EXPECT_TRUE(y.atEnd());
    EXPECT_EQ(iface_.rowDel(y), iface_.end(0));
}

TEST_F(HostTables, OidsComeFromOneCounterAndAreKeptOnReplace) {
    BaseRow first = item("x");
    iface_.rowIs(first);
    const std::uint64_t oid = oidOf(first);
    EXPECT_GT(oid, 0u);
    EXPECT_TRUE(first.sameData(iface_.row(key("x"), 0)));  // written back: the stored row itself
    BaseRow second = item("y");
    iface_.rowIs(second);
    EXPECT_EQ(oidOf(second), oid + 1);
    BaseRow replace = item("x", 5);  // oid 0: keeps the replaced row's oid
    iface_.rowIs(replace);
    EXPECT_EQ(oidOf(replace), oid);
    BaseRow explicitOid = item("x", 6, 900);  // a non-zero oid is kept, and index 1 follows it
    iface_.rowIs(explicitOid);
    EXPECT_EQ(nameOf(iface_.row(oidKey(900), 1)), "x");
    EXPECT_TRUE(iface_.row(oidKey(static_cast<unsigned>(oid)), 1).empty());

    // A row of another type is converted by field name; its oid is still reported back.
    veMetadata::veTable foreign;
    foreign.tablePathIs("ignored");
    db_->createTable("test/meta-like", itemType().name());
    VeTableInterface writer("w", itemType().name(), kModifierMode, {}, {}, {}, {});
    agent_->bindInterface(writer, "test/meta-like", false);
    writer.rowIs(foreign);
    EXPECT_EQ(foreign.oid(), oid + 3);  // oid + 2 went to the new table's metadata row
    EXPECT_EQ(db_->rows("test/meta-like").at(0).rowType(), &itemType());
    // A shared caller row is copied before the oid is written into it.
    BaseRow shared = item("z");
    const BaseRow keep = shared;
    iface_.rowIs(shared);
    EXPECT_EQ(oidOf(keep), 0u);
    EXPECT_GT(oidOf(shared), 0u);

    // A type without oid: index 1 follows the primary key.
    const RowType& plain = Host::defineRowType(
        "TablesTest::Plain", {{"name", FieldKind::string}, {"n", FieldKind::u64}}, {"n", "name"});
    VeTableInterface p("plain", plain.name(), kModifierMode, {}, {}, {}, {});
    agent_->bindInterface(p, "test/plain", false);
    for (const auto& [name, n] :
         std::vector<std::pair<const char*, unsigned>>{{"x", 2}, {"a", 2}, {"q", 1}}) {
        BaseRow r = makeRow(plain, {{"name", name}, {"n", n}});
        p.rowIs(r);
    }
    std::vector<BaseRow> alongOne;
    for (VeRowIterator it = p.begin(1); it != p.end(1); ++it) alongOne.push_back(*it);
    EXPECT_EQ(rowLines(alongOne), rowLines(db_->rows("test/plain")));
    EXPECT_EQ(p.row(makeRow(plain, {{"name", "x"}, {"n", 2}}), 1).string(0), "x");
    EXPECT_TRUE(p.row(makeRow(plain, {{"name", "x"}, {"n", 1}}), 1).empty());
}

TEST_F(HostTables, ForeignEmptyAndUnboundLookupsAndDroppedTables) {
    fill({"a", "b", "c"});
    EXPECT_TRUE(iface_.row(BaseRow(), 0).empty());
    EXPECT_EQ(iface_.find(BaseRow(), 0), iface_.end(0));
    EXPECT_TRUE((*iface_.end(0)).empty());
    const BaseRow foreignKey = makeRow(
        Host::defineRowType("TablesTest::Name", {{"name", FieldKind::string}}, {"name"}), {{"name", "b"}});
    EXPECT_EQ(nameOf(iface_.row(foreignKey, 0)), "b");  // a key of another type is read by field name

    VeTableInterface unbound("loose", itemType().name(), kModifierMode, {}, {}, {}, {});
    EXPECT_TRUE(unbound.row(key("b"), 0).empty());
    EXPECT_EQ(unbound.begin(0), unbound.end(0));
    EXPECT_EQ(unbound.lower_bound(key("a"), 1), unbound.end(1));
    BaseRow lost = item("q");
    unbound.rowIs(lost);  // nowhere to go: ignored
    unbound.rowDel(key("b"));
    EXPECT_EQ(db_->rowCount(kPath), 3u);

    // A dropped table ends walks (the position keeps its row) and comes back for bound interfaces.
    VeRowIterator it = iface_.begin(0);
    ASSERT_TRUE(db_->dropTable(kPath));
    EXPECT_EQ(nameOf(*it), "a");
    EXPECT_EQ(++it, iface_.end(0));
    EXPECT_TRUE(iface_.row(key("b"), 0).empty());
    EXPECT_EQ(iface_.begin(0), iface_.end(0));
    db_->createTable(kPath, itemType().name());
    db_->write(kPath, item("n"));
    EXPECT_EQ(walk(iface_.begin(0)), std::vector<std::string>{"n"});
    db_->dropTable(kPath);
    BaseRow again = item("w");
    iface_.rowIs(again);  // recreates the table, of the interface's type
    EXPECT_EQ(db_->tableType(kPath), &itemType());
    EXPECT_EQ(db_->rowCount(kPath), 1u);
}

}  // namespace
}  // namespace Velta::Test
