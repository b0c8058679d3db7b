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

    // Names along index `index` from `it` to the end.
    std::vector<std::string> walk(VeRowIterator it, unsigned char index = 0) {
        std::vector<std::string> names;
        for (; it != iface_.end(index); ++it) names.push_back(nameOf(*it));
        return names;
    }

    VeltaDB::p_t agent_;
    VeTableInterface iface_;
};

TEST_F(HostTables, WalkSurvivesInsertReplaceAndDeletionOfTheCurrentRow) {
    fill({"b", "d", "f", "h"});
    std::vector<std::string> seen;
    for (VeRowIterator it = iface_.begin(0); it != iface_.end(0); ++it) {
        const std::string name = nameOf(*it);
        seen.push_back(name);
        if (name == "b") {
            db_->write(kPath, item("a"));  // behind the position: not visited
            db_->write(kPath, item("c"));  // ahead: visited
        }
        if (name == "d") {
            BaseRow changed = item("d", 42);
            iface_.rowIs(changed);  // replaced in place: * shows the new row
            EXPECT_EQ((*it).number(2), 42u);
            iface_.rowDel(key("d"));  // deleted: * keeps the row as it was, ++ goes on
            EXPECT_EQ(nameOf(*it), "d");
            EXPECT_NE(it, iface_.end(0));
            db_->erase(kPath, key("f"));   // the successor goes too
            db_->write(kPath, item("e"));  // and a new successor arrives
        }
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"b", "c", "d", "e", "h"}));
    EXPECT_EQ(walk(iface_.begin(0)), (std::vector<std::string>{"a", "b", "c", "e", "h"}));
}

TEST_F(HostTables, OidsAreAssignedOnInsertAndKeptOnReplace) {
    BaseRow first = item("x");
    iface_.rowIs(first);
    const std::uint64_t oid = oidOf(first);
    EXPECT_GT(oid, 0u);
    // The caller's row was written back and is now the stored row itself: no copy.
    EXPECT_TRUE(first.sameData(iface_.row(key("x"), 0)));

    BaseRow second = item("y");
    iface_.rowIs(second);
    EXPECT_EQ(oidOf(second), oid + 1);  // one counter per database

    BaseRow replace = item("x", 5);  // oid 0: keeps the replaced row's oid
    iface_.rowIs(replace);
    EXPECT_EQ(oidOf(replace), oid);
    EXPECT_EQ(iface_.row(key("x"), 0).number(2), 5u);

    BaseRow explicitOid = item("x", 6, 900);  // a non-zero oid is kept, and index 1 follows it
    iface_.rowIs(explicitOid);
    EXPECT_EQ(oidOf(iface_.row(key("x"), 0)), 900u);
    EXPECT_EQ(nameOf(iface_.row(oidKey(900), 1)), "x");
    EXPECT_TRUE(iface_.row(oidKey(static_cast<unsigned>(oid)), 1).empty());

    // A row of another type is converted by field name; its oid is still reported back.
    veMetadata::veTable foreign;  // has oid, no name/value
    foreign.tablePathIs("ignored");
    db_->createTable("test/meta-like", itemType().name());
    auto other = connect("B");
    VeTableInterface writer("w", itemType().name(), kModifierMode, {}, {}, {}, {});
    other->bindInterface(writer, "test/meta-like", false);
    writer.rowIs(foreign);
    EXPECT_EQ(foreign.rowType()->name(), "veMetadata::veTable");
    EXPECT_EQ(foreign.oid(), oid + 3);  // oid + 2 went to the new table's metadata row
    const std::vector<BaseRow> stored = db_->rows("test/meta-like");
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0].rowType(), &itemType());

    // A shared caller row is copied before the oid is written into it.
    BaseRow shared = item("z");
    const BaseRow keep = shared;
    iface_.rowIs(shared);
    EXPECT_EQ(oidOf(keep), 0u);
    EXPECT_GT(oidOf(shared), 0u);
}

TEST_F(HostTables, IndexOneFindsTheFirstRowWithAnOid) {
    db_->write(kPath, item("m", 0, 5));
    db_->write(kPath, item("c", 0, 5));
    db_->write(kPath, item("z", 0, 3));
    db_->write(kPath, item("a", 0, 8));
    EXPECT_EQ(walk(iface_.begin(1), 1), (std::vector<std::string>{"z", "c", "m", "a"}));
    EXPECT_EQ(nameOf(iface_.row(oidKey(5), 1)), "c");
    VeRowIterator it = iface_.find(oidKey(5), 1);
    ASSERT_NE(it, iface_.end(1));
    EXPECT_EQ(walk(it, 1), (std::vector<std::string>{"c", "m", "a"}));
    EXPECT_EQ(iface_.find(oidKey(4), 1), iface_.end(1));
    EXPECT_TRUE(iface_.row(oidKey(4), 1).empty());
    // lower_bound by (oid, key): the first not ordered before it.
    EXPECT_EQ(nameOf(*iface_.lower_bound(oidKey(4), 1)), "c");
    EXPECT_EQ(nameOf(*iface_.lower_bound(makeRow(itemType(), {{"oid", 5}, {"name", "d"}}), 1)), "m");
    // A walk along index 1 survives the current row moving to another oid.
    std::vector<std::string> seen;
    for (VeRowIterator p = iface_.begin(1); p != iface_.end(1); ++p) {
        seen.push_back(nameOf(*p));
        if (nameOf(*p) == "z") db_->write(kPath, item("z", 0, 9));
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"z", "c", "m", "a", "z"}));
}

TEST_F(HostTables, IndexOneOfATypeWithoutOidFollowsThePrimaryKey) {
    const RowType& plain = Host::defineRowType(
        "TablesTest::Plain", {{"name", FieldKind::string}, {"n", FieldKind::u64}}, {"n", "name"});
    VeTableInterface p("plain", plain.name(), kModifierMode, {}, {}, {}, {});
    agent_->bindInterface(p, "test/plain", false);
    for (const auto& [name, n] :
         std::vector<std::pair<std::string, unsigned>>{{"x", 2}, {"a", 2}, {"q", 1}}) {
        BaseRow r = makeRow(plain, {{"name", name}, {"n", n}});
        p.rowIs(r);
    }
    std::vector<std::string> order;
    for (VeRowIterator it = p.begin(1); it != p.end(1); ++it) order.push_back((*it).string(0));
    EXPECT_EQ(order, (std::vector<std::string>{"q", "a", "x"}));
    EXPECT_EQ(p.row(makeRow(plain, {{"name", "x"}, {"n", 2}}), 1).string(0), "x");
    EXPECT_EQ(p.find(makeRow(plain, {{"name", "a"}, {"n", 2}}), 1),
              p.find(makeRow(plain, {{"name", "a"}, {"n", 2}}), 0));
    EXPECT_TRUE(p.row(makeRow(plain, {{"name", "x"}, {"n", 1}}), 1).empty());
}

TEST_F(HostTables, LookupsOnEmptyOrForeignKeysAndUnboundInterfaces) {
    fill({"b", "d"});
    EXPECT_TRUE(iface_.row(BaseRow(), 0).empty());
    EXPECT_EQ(iface_.find(BaseRow(), 0), iface_.end(0));
    EXPECT_TRUE((*iface_.end(0)).empty());
    // A key of another type is read by field name.
    const BaseRow foreignKey = makeRow(
        Host::defineRowType("TablesTest::Name", {{"name", FieldKind::string}}, {"name"}), {{"name", "d"}});
    EXPECT_EQ(nameOf(iface_.row(foreignKey, 0)), "d");

    VeTableInterface unbound("loose", itemType().name(), kModifierMode, {}, {}, {}, {});
    EXPECT_TRUE(unbound.row(key("b"), 0).empty());
    EXPECT_EQ(unbound.find(key("b"), 0), unbound.end(0));
    EXPECT_EQ(unbound.begin(0), unbound.end(0));
    EXPECT_EQ(unbound.lower_bound(key("a"), 1), unbound.end(1));
    BaseRow lost = item("q");
    unbound.rowIs(lost);  // nowhere to go: ignored
    unbound.rowDel(key("b"));
    EXPECT_EQ(db_->rowCount(kPath), 2u);
}

TEST_F(HostTables, DroppedTableEndsWalksAndComesBackForBoundInterfaces) {
    fill({"a", "b", "c"});
    VeRowIterator it = iface_.begin(0);
    ASSERT_TRUE(db_->dropTable(kPath));
    EXPECT_FALSE(db_->hasTable(kPath));
    EXPECT_EQ(nameOf(*it), "a");  // the row as the position saw it
    ++it;
    EXPECT_EQ(it, iface_.end(0));
    EXPECT_TRUE(iface_.row(key("b"), 0).empty());
    EXPECT_EQ(iface_.begin(0), iface_.end(0));
    EXPECT_NE(iface_.attachment(), 0u);

    db_->createTable(kPath, itemType().name());
    db_->write(kPath, item("n"));
    EXPECT_EQ(walk(iface_.begin(0)), std::vector<std::string>{"n"});

    // Writing through the interface recreates a dropped table of the interface's type.
    db_->dropTable(kPath);
    BaseRow again = item("w");
    iface_.rowIs(again);
    EXPECT_EQ(db_->tableType(kPath), &itemType());
    EXPECT_EQ(tableLines(*db_, kPath).size(), 1u);
}

TEST_F(HostTables, PositionsCompareByTableIndexAndKey) {
    fill({"a", "b"});
    VeRowIterator x = iface_.find(key("a"), 0);
    VeRowIterator y = iface_.begin(0);
    EXPECT_EQ(x, y);
    db_->write(kPath, item("a", 3));  // replaced: still the same position
    EXPECT_EQ(x, y);
    ++y;
    EXPECT_NE(x, y);
    EXPECT_NE(iface_.begin(0), iface_.begin(1));  // another index
    VeRowIterator copy;
    copy = y;
    EXPECT_EQ(copy, y);
    ++copy;
    ++copy;  // past the end stays at the end
    EXPECT_EQ(copy, VeRowIterator());
    EXPECT_TRUE(copy.atEnd());
    EXPECT_EQ(iface_.rowDel(copy), iface_.end(0));  // deleting at the end stays at the end
}

}  // namespace
}  // namespace Velta::Test
