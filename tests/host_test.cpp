// The in-memory host's own choices (the contracts every host keeps are the conformance kit's): rows,
// tables and positions, callbacks, lookahead, metadata, queries, traces, the query runtime's opcodes.
#include "TestSupport.h"

#include <Kesto/DebugSupport.h>
#include <Kesto/Platform.h>
#include <Velta/HostCapability/Lookahead.h>
#include <Velta/VeRT.h>
#include <Velta/Scheduler>
#include <array>
#include <cstdlib>
#include <functional>
#include <new>
#include <ostream>
#include <random>

// Allocations fail on demand, so that the host's answer to a failed allocation can be seen: after
// `allocationsBeforeFailure` more allocations succeed, every one fails until it is set back to -1.
namespace {
long allocationsBeforeFailure = -1;
long liveAllocations = 0;
}  // namespace

// Once these are inlined into one another, GCC takes the free() for a release of a block from the
// standard new.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
    if (allocationsBeforeFailure == 0) throw std::bad_alloc();
    if (allocationsBeforeFailure > 0) --allocationsBeforeFailure;
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) throw std::bad_alloc();
    ++liveAllocations;
    return block;
}
void operator delete(void* block) noexcept {
    if (block == nullptr) return;
    --liveAllocations;
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
#pragma GCC diagnostic pop

namespace Velta::Test {
namespace {

using enum FieldKind;

const RowType& pairType() {
    return Host::defineRowType(
        "RowsTest::Pair",
        {{"oid", u32}, {"group", string}, {"rank", u16}, {"tags", strings}, {"big", u64}, {"on", boolean}},
        {"group", "rank"});
}

using HostRows = HostTest;

TEST_F(HostRows, CopyOnWriteConversionPrintingAndEquality) {
    const auto original =
        makeRecord<External::Publication>({{"subscription_id", 7}, {"error", "bad \"x\"\t\r"}});
    External::Publication edited = original;
    edited.errorIs("second");
    auto moved = makeRecord<veMetadata::veTable>({{"oid", 4}, {"tablePath", "t"}});
    const veMetadata::veTable kept = moved;  // shared: a change copies, the type's only number too
    moved.tablePathIs("u");
    EXPECT_EQ(moved.oid(), 4u);
    const auto pub = makeRecord<veCtrl::publication>({{"subscription_id", 1}});
    const veCtrl::publication cloned = pub.clone();  // data of its own even before any write
    EXPECT_TRUE(cloned.equals(pub) && !cloned.sameData(pub));
    EXPECT_EQ(original.toString(),  // the edit of its copy left it alone
              "External::Publication{subscription_id=7 publication_id=0 connection_id=0 tableId=0 typeId=0 "
              "view_id=0 status=0 error=\"bad \\\"x\\\"\\t\\r\" ptime=0}");
    EXPECT_EQ(BaseRow().toString(), "{}");

    // Another record reads fields by name; numbers are narrowed, kinds that differ read as missing.
    const RowType& wide =
        Host::defineRowType("RowsTest::Wide", {{"rank", u64}, {"group", u32}, {"tags", strings}}, {"rank"});
    const BaseRow p =
        makeRow(wide, {{"rank", 0x12345ull}, {"group", 5}, {"tags", {"a", "b"}}}).as(pairType());
    EXPECT_EQ(p.toString(), "RowsTest::Pair{oid=0 group=\"\" rank=9029 tags=[\"a\",\"b\"] big=0 on=0}");
    EXPECT_EQ(makeRow(pairType(), {{"rank", 0x12345ull}, {"on", 2}}).toString(),  // a setter narrows too
              "RowsTest::Pair{oid=0 group=\"\" rank=9029 tags=[] big=0 on=1}");
    EXPECT_TRUE(External::Publication(static_cast<const BaseRow&>(original)).sameData(original));
    EXPECT_TRUE(External::Subscription(BaseRow()).empty());

    // Equality is by type and every value.
    const BaseRow a = makeRow(pairType(), {{"group", "g"}, {"tags", {"x"}}, {"on", true}});
    EXPECT_TRUE(a.equals(makeRow(pairType(), {{"group", "g"}, {"tags", {"x"}}, {"on", true}})));
    EXPECT_FALSE(a.equals(makeRow(pairType(), {{"group", "g"}, {"tags", {"y"}}, {"on", true}})));
    EXPECT_FALSE(a.equals(makeRow(pairType(), {{"group", "g"}, {"tags", {"x"}}})));
    EXPECT_FALSE(a.equals(BaseRow()));
    EXPECT_FALSE(makeRow(wide, {}).equals(makeRow(pairType(), {})));

    // A generic read of a field of another kind, or past the fields, reads zero or empty: each kind
    // has its own array, and slot 0 of another holds some other field.
    const BaseRow full = makeRow(pairType(), {{"oid", 5}, {"group", "g"}, {"tags", {"x"}}});
    EXPECT_EQ(full.number(1), 0u);
    EXPECT_EQ(full.string(3), "");
    EXPECT_TRUE(full.strings(1).empty());
    EXPECT_EQ(full.number(6) + full.string(6).size() + full.strings(6).size(), 0u);
}

TEST(HostRowsDeathTest, SettersOfAnotherKindAndListenersThatThrowOrChangeTheDatabaseEndTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    BaseRow row = makeRow(pairType(), {});
    EXPECT_DEATH(row.stringIs(3, "x"), "stringIs");  // tags is a list: strings[3] does not exist
    EXPECT_DEATH(row.numberIs(1, 7), "numberIs");    // group is a string
    // A listener's hook runs in the middle of the host's bookkeeping (here, a write reported before
    // the event that tells its observers is queued): a throw, or a change of whatever kind, must not
    // leave a control row without its publication behind.
    struct Hooked : Host::EventListener {
        std::shared_ptr<Host::Database> db = Host::Database::create();
        VeltaDB::p_t handle = db->connect({"a", "s"});
        VeTableInterface iface{"iface", pairType().name(), kModifierMode, {}, {}, {}, {}};
        BaseRow keyed = makeRow(pairType(), {{"oid", 1}});
        void (*change)(Hooked&) = nullptr;
        void onWrite(const std::string& path, const BaseRow&) override {
            if (path == "test/rows") change(*this);
        }
    };
    const std::tuple<const char*, void (*)(Hooked&), const char*> changes[] = {
        {"throw", [](Hooked&) { throw std::runtime_error("listener"); }, "listener"},
        {"write", [](Hooked& h) { h.db->write("test/echo", h.keyed); }, "must not change"},
        {"erase", [](Hooked& h) { h.db->erase("test/rows", h.keyed); }, "must not change"},
        {"createTable", [](Hooked& h) { h.db->createTable("test/new", "RowsTest::Pair"); },
         "must not change"},
        {"dropTable", [](Hooked& h) { h.db->dropTable("test/rows"); }, "must not change"},
        {"runUntilIdle", [](Hooked& h) { h.db->runUntilIdle(); }, "must not change"},
        {"clockAdvance", [](Hooked& h) { h.db->clockAdvance(1); }, "must not change"},
        {"callsClear", [](Hooked& h) { h.db->callsClear(); }, "must not change"},
        {"queriesClear", [](Hooked& h) { h.db->queriesClear(); }, "must not change"},
        {"registerTable",
         [](Hooked& h) {
             h.handle->registerTable("test/t", "RowsTest::Pair", TableType::standing, 0, 0, "");
         },
         "must not change"},
        {"bindInterface", [](Hooked& h) { h.handle->bindInterface(h.iface, "test/other", false); },
         "must not change"},
    };
    const auto changeFromAHook = [](void (*change)(Hooked&)) {
        Hooked hooked;
        hooked.change = change;
        hooked.db->listenerIs(&hooked);
        hooked.db->write("test/rows", hooked.keyed);
    };
    for (const auto& [name, change, message] : changes)
        EXPECT_DEATH(changeFromAHook(change), message) << name;
}

TEST(HostRowsDeathTest, AFailedAllocationLeavesNoRowHalfCopiedOrHalfStored) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string longText(40, 'x');  // past what a string holds without an allocation
    const BaseRow row =
        makeRow(pairType(),
                {{"oid", 3}, {"group", longText}, {"tags", std::vector<std::string>{longText, longText}}});
    // The copy a change makes fails at the tags, after its block and the group's text: both go back.
    BaseRow shared = row;
    const long live = liveAllocations;
    allocationsBeforeFailure = 2;
    EXPECT_THROW(shared.numberIs(2, 9), std::bad_alloc);
    allocationsBeforeFailure = -1;
    EXPECT_EQ(liveAllocations, live);
    EXPECT_TRUE(shared.sameData(row));
    // A store that cannot finish would leave the hash entry without its ordered entry, so the
    // process ends at the failure instead.
    EXPECT_DEATH(
        {
            const auto db = Host::Database::create();
            db->createTable("test/rows", pairType().name());
            allocationsBeforeFailure = 0;
            db->write("test/rows", row);
        },
        "bad_alloc");
}

TEST_F(HostRows, TypeRegistryClassesAndRowOps) {
    const char* builtins[] = {"External::Subscription", "External::Publication",
                              "veCtrl::subscription",   "veCtrl::publication",
                              "veMetadata::veTable",    "veMetadata::SystemDescription",
                              "veMetadata::veClass"};
    auto handle = connect("a");
    for (unsigned i = 0; i < std::size(builtins); ++i) {  // built-ins first, in their fixed order
        EXPECT_EQ(handle->tableTypeId(builtins[i], false), i + 1) << builtins[i];
        EXPECT_EQ(&builtinRowType(static_cast<BuiltinRow>(i)), Host::findRowType(builtins[i]));
    }
    EXPECT_GT(pairType().id(), 7u);
    EXPECT_EQ(handle->tableTypeId("RowsTest::Pair", false), pairType().id());
    // A name looked up before its type is defined is not remembered as unknown.
    EXPECT_EQ(handle->tableTypeId("RowsTest::Late", false), VeltaDB::kUnknownTypeId);
    EXPECT_EQ(handle->tableTypeId("RowsTest::Late", false),
              Host::defineRowType("RowsTest::Late", {{"k", u32}}, {"k"}).id());
    // Anything else under a known name, duplicate or empty field names, an unknown key, or more
    // fields than a 16-bit place can tell apart: refused.
    std::vector<Host::FieldSpec> wide;
    for (std::size_t i = 0; i <= Host::kMaxRowTypeFields; ++i) wide.push_back({"f" + std::to_string(i), u32});
    for (const auto& [name, fields, key] :
         std::vector<std::tuple<std::string, std::vector<Host::FieldSpec>, std::vector<std::string>>>{
             {"RowsTest::Pair", {{"group", string}}, {"group"}},
             {"RowsTest::Bad", wide, {"f65535"}},
             {"RowsTest::Bad", {{"a", u32}, {"a", u16}}, {"a"}},
             {"RowsTest::Bad", {{"", u32}}, {}},
             {"RowsTest::Bad", {{"a", u32}}, {"b"}}})
        EXPECT_THROW(Host::defineRowType(name, fields, key), std::invalid_argument) << name;
    EXPECT_EQ(Host::findRowType("RowsTest::Bad"), nullptr);
    for (FieldKind k : {u16, u32, u64, boolean, string, strings})
        EXPECT_EQ(Host::parseFieldKind(fieldKindName(k)), k);
    EXPECT_EQ(Host::parseFieldKind("u8"), std::nullopt);
    EXPECT_EQ(veMetadata::veClass(VeltaDB::veClass("veMetadata::veTable")).fields(),
              (std::vector<std::string>{"oid:u32", "tablePath:string", "typeName:string", "owner:string"}));

    // Index 1 orders by oid first; a row without data has the zero key.
    const RowOpsKeyLess less0(handle->getRowOps("RowsTest::Pair", 0));
    const RowOpsKeyLess less1(handle->getRowOps("RowsTest::Pair", 1));
    const BaseRow a = makeRow(pairType(), {{"oid", 9}, {"group", "a"}, {"rank", 2}});
    const BaseRow b = makeRow(pairType(), {{"oid", 1}, {"group", "a"}, {"rank", 3}});
    EXPECT_EQ((std::array{less0(a, b), less1(b, a), less0(a, a)}), (std::array{true, true, false}));
    const BaseRow zero = makeRow(pairType(), {{"big", 5}});
    EXPECT_EQ((std::array{less0(BaseRow(), zero), less0(zero, BaseRow()), less1(BaseRow(), zero)}),
              (std::array{false, false, false}));
    EXPECT_TRUE(less0(BaseRow(), a) && less1(BaseRow(), a));
    // An unknown type still orders rows: empty first, then by type id, then by key.
    const RowOpsKeyLess unknown(handle->getRowOps("No::SuchType", 0));
    const External::Publication pub = makeRecord<External::Publication>({{"subscription_id", 1}});
    EXPECT_EQ((std::array{unknown(BaseRow(), pub), unknown(pub, a), unknown(a, pub)}),
              (std::array{true, true, false}));
}

constexpr const char* kItems = "test/items";

const RowType& itemType() {
    return Host::defineRowType("TablesTest::Item", {{"oid", u32}, {"name", string}, {"value", u32}},
                               {"name"});
}

BaseRow item(const std::string& name, unsigned value = 0, unsigned oid = 0) {
    return makeRow(itemType(), {{"name", name}, {"value", value}, {"oid", oid}});
}
BaseRow key(const std::string& name) { return makeRow(itemType(), {{"name", name}}); }
BaseRow oidKey(unsigned oid) { return makeRow(itemType(), {{"oid", oid}}); }
std::string nameOf(const BaseRow& row) { return row.string(1); }
std::uint64_t oidOf(const BaseRow& row) { return row.number(0); }
// `row` written through `iface`, as the caller holds it afterwards: with the oid it was given.
BaseRow writeVia(VeTableInterface& iface, BaseRow row) {
    iface.rowIs(row);
    return row;
}

class HostTables : public HostTest {
protected:
    HostTables() : agent_(connect("A")), iface_("items", itemType().name(), kModifierMode, {}, {}, {}, {}) {
        agent_->bindInterface(iface_, kItems, false);
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
    for (const char* name : {"b", "d", "f", "h"}) db_->write(kItems, item(name));
    EXPECT_EQ(walk(iface_.begin(0), 0,
                   [&](VeRowIterator& it) {
                       if (nameOf(*it) == "b") {
                           db_->write(kItems, item("a"));  // behind the position: not visited
                           db_->write(kItems, item("c"));  // ahead: visited
                       }
                       if (nameOf(*it) != "d") return;
                       writeVia(iface_, item("d", 42, 77));  // replaced in place, even under another oid
                       EXPECT_EQ((*it).number(2), 42u);
                       iface_.rowDel(key("d"));  // deleted: * keeps the row as it was, ++ goes on
                       EXPECT_EQ(nameOf(*it), "d");
                       db_->erase(kItems, key("f"));   // the successor goes too
                       db_->write(kItems, item("e"));  // and a new successor arrives
                   }),
              (std::vector<std::string>{"b", "c", "d", "e", "h"}));
    EXPECT_EQ(walk(iface_.begin(0)), (std::vector<std::string>{"a", "b", "c", "e", "h"}));

    // Index 1 is (oid, key); a walk along it survives the current row moving to another oid.
    for (const auto& [name, oid] :
         std::map<std::string, unsigned>{{"a", 8}, {"b", 5}, {"c", 5}, {"e", 3}, {"h", 6}})
        db_->write(kItems, item(name, 0, oid));
    EXPECT_EQ(walk(iface_.begin(1), 1,
                   [&](VeRowIterator& it) {
                       if (nameOf(*it) == "b") {
                           db_->write(kItems, item("b", 7, 5));  // the same oid: * shows the new row
                           EXPECT_EQ((*it).number(2), 7u);
                       }
                       if (nameOf(*it) != "e" || oidOf(*it) == 9) return;
                       db_->write(kItems, item("e", 0, 9));
                       EXPECT_EQ(oidOf(*it), 3u);  // moved on: * keeps the row this place had
                   }),
              (std::vector<std::string>{"e", "b", "c", "h", "a", "e"}));
    EXPECT_EQ(walk(iface_.find(oidKey(5), 1), 1), (std::vector<std::string>{"b", "c", "h", "a", "e"}));
    EXPECT_EQ(iface_.find(oidKey(4), 1), iface_.end(1));
    EXPECT_EQ(nameOf(*iface_.lower_bound(oidKey(4), 1)), "b");
    EXPECT_EQ(nameOf(*iface_.lower_bound(makeRow(itemType(), {{"oid", 5}, {"name", "bb"}}), 1)), "c");

    // Positions compare by table, index and key; past the end stays at the end.
    VeRowIterator x = iface_.find(key("a"), 0);
    db_->write(kItems, item("a", 3));
    VeRowIterator y = iface_.begin(0);  // on the replacement, x on the row it replaced: the same key
    EXPECT_EQ(x, y);
    ++y;
    EXPECT_NE(x, y);
    for (int i = 0; i < 5; ++i) ++y;
    EXPECT_EQ(y, VeRowIterator());
    EXPECT_EQ(iface_.rowDel(y), iface_.end(0));

    // A bound interface keeps its database alive when no handle or pointer to it is left.
    VeTableInterface alone("alone", itemType().name(), kModifierMode, {}, {}, {}, {});
    Host::Database::create()->connect({"B", "t"})->bindInterface(alone, kItems, false);
    writeVia(alone, item("kept"));
    EXPECT_EQ(nameOf(alone.row(key("kept"), 0)), "kept");
}

TEST_F(HostTables, OidsComeFromOneCounterAndAreKeptOnReplace) {
    const BaseRow first = writeVia(iface_, item("x"));
    const std::uint64_t oid = oidOf(first);
    EXPECT_GT(oid, 0u);
    EXPECT_TRUE(first.sameData(iface_.row(key("x"), 0)));  // written back: the stored row itself
    EXPECT_EQ(oidOf(writeVia(iface_, item("y"))), oid + 1);
    EXPECT_EQ(oidOf(writeVia(iface_, item("x", 5))), oid);  // oid 0: keeps the replaced row's oid
    writeVia(iface_, item("x", 6, 900));                    // a non-zero oid is kept, and index 1 follows it
    EXPECT_EQ(nameOf(iface_.row(oidKey(900), 1)), "x");
    EXPECT_TRUE(iface_.row(oidKey(static_cast<unsigned>(oid)), 1).empty());

    // A row of another type is converted by field name; its oid is still reported back.
    // A new row never takes an oid a row of its table has, one a writer gave included.
    writeVia(iface_, item("taken", 0, static_cast<unsigned>(oid + 2)));
    EXPECT_EQ(oidOf(writeVia(iface_, makeRecord<veMetadata::veTable>({{"tablePath", "ignored"}}))), oid + 3);
    EXPECT_EQ(iface_.row(key(""), 0).rowType(), &itemType());
    // Into a table keyed by oid a converted row is always new; the caller learns that oid too.
    const RowType& byOid =
        Host::defineRowType("TablesTest::ByOid", {{"oid", u32}, {"name", string}}, {"oid"});
    VeTableInterface o("byOid", byOid.name(), kModifierMode, {}, {}, {}, {});
    agent_->bindInterface(o, "test/by-oid", false);
    const BaseRow converted = writeVia(o, item("c"));
    EXPECT_EQ(oidOf(converted), oidOf(db_->rows("test/by-oid").at(0)));
    // A shared caller row is copied before the oid is written into it.
    const BaseRow keep = item("z");
    EXPECT_GT(oidOf(writeVia(iface_, keep)), 0u);
    EXPECT_EQ(oidOf(keep), 0u);

    // A type without oid: index 1 follows the primary key.
    const RowType& plain = Host::defineRowType("TablesTest::Plain",
                                               {{"name", string}, {"n", u64}, {"value", u32}}, {"n", "name"});
    VeTableInterface p("plain", plain.name(), kModifierMode, {}, {}, {}, {});
    agent_->bindInterface(p, "test/plain", false);
    for (const auto& [name, n] : std::vector<std::pair<const char*, unsigned>>{{"x", 2}, {"a", 2}, {"q", 1}})
        writeVia(p, makeRow(plain, {{"name", name}, {"n", n}}));
    std::string alongOne;
    for (VeRowIterator it = p.begin(1); it != p.end(1); ++it) alongOne += (*it).string(0);
    EXPECT_EQ(alongOne, "qax");  // by (n, name)
    EXPECT_EQ(p.row(makeRow(plain, {{"name", "x"}, {"n", 2}}), 1).string(0), "x");
    EXPECT_TRUE(p.row(makeRow(plain, {{"name", "x"}, {"n", 1}}), 1).empty());
    writeVia(iface_, makeRow(plain, {{"name", "w"}}));   // converted into a table with oids: nothing to tell
    EXPECT_EQ(oidOf(iface_.row(key("w"), 0)), oid + 8);  // oid + 4 and + 7: the new tables' metadata rows
    // Such writes may wait in the table; counts, positions and drops see them at once all the same.
    writeVia(p, makeRow(plain, {{"name", "v"}, {"value", 1}}));
    EXPECT_EQ(db_->rowCount("test/plain"), 4u);
    VeRowIterator at = p.begin(0);
    writeVia(p, makeRow(plain, {{"name", "v"}, {"value", 2}}));
    EXPECT_EQ((*at).number(2), 2u);
    writeVia(p, makeRow(plain, {{"name", "w"}}));
    db_->dropTable("test/plain");
    EXPECT_EQ(++at, p.end(0));
}

TEST_F(HostTables, ForeignEmptyAndUnboundLookupsAndDroppedTables) {
    for (const char* name : {"a", "b", "c"}) db_->write(kItems, item(name));
    EXPECT_EQ((std::array{iface_.row(BaseRow(), 0).empty(), iface_.find(BaseRow(), 0) == iface_.end(0),
                          (*iface_.end(0)).empty()}),
              (std::array{true, true, true}));
    const BaseRow foreignKey =
        makeRow(Host::defineRowType("TablesTest::Name", {{"name", string}}, {"name"}), {{"name", "b"}});
    EXPECT_EQ(nameOf(iface_.row(foreignKey, 0)), "b");  // a key of another type is read by field name

    VeTableInterface unbound("loose", itemType().name(), kModifierMode, {}, {}, {}, {});
    EXPECT_EQ((std::array{unbound.row(key("b"), 0).empty(), unbound.begin(0) == unbound.end(0),
                          unbound.lower_bound(key("a"), 1) == unbound.end(1)}),
              (std::array{true, true, true}));
    writeVia(unbound, item("q"));  // nowhere to go: ignored
    unbound.rowDel(key("b"));
    EXPECT_EQ(db_->rowCount(kItems), 3u);

    // A dropped table ends walks (the position keeps its row) and comes back for bound interfaces.
    VeRowIterator it = iface_.begin(0);
    ASSERT_TRUE(db_->dropTable(kItems));
    EXPECT_EQ((std::array{db_->erase(kItems, key("b")), db_->rowCount(kItems) == 0,
                          iface_.row(key("b"), 0).empty(), iface_.begin(0) == iface_.end(0)}),
              (std::array{false, true, true, true}));
    EXPECT_EQ(nameOf(*it), "a");
    EXPECT_EQ(++it, iface_.end(0));
    db_->write(kItems, item("n"));  // a write makes the table again, under the same path
    EXPECT_EQ(walk(iface_.begin(0)), std::vector<std::string>{"n"});
    EXPECT_NE(iface_.begin(0), iface_.begin(1));  // the same row, along two indexes
    db_->dropTable(kItems);
    writeVia(iface_, item("w"));  // recreates the table, of the interface's type
    EXPECT_EQ(db_->tableType(kItems), &itemType());
    EXPECT_EQ(db_->rowCount(kItems), 1u);
}

constexpr const char* kEvents = "test/events";

const RowType& eventType() {
    return Host::defineRowType("CallbacksTest::Event", {{"name", string}, {"n", u32}}, {"name"});
}
BaseRow ev(const std::string& name, unsigned n = 0) {
    return makeRow(eventType(), {{"name", name}, {"n", n}});
}
std::string line(const std::string& iface, const std::string& what, const std::string& name, unsigned n = 0) {
    return iface + " " + what + " " + ev(name, n).toString();
}

class HostCallbacks : public HostTest {
protected:
    HostCallbacks() : agent_(connect("A")) { db_->createTable(kEvents, eventType().name()); }

    // An observer of the events table that logs "<name> ready", "<name> row <row>" and
    // "<name> delete <row>", each followed by onEvent_[name] when set.
    std::unique_ptr<VeTableInterface> observer(const std::string& name, bool clientReady = true) {
        const auto record = [this, name](std::string what) {
            return [this, name, what](const BaseRow& r) {
                log_.push_back(name + " " + what + (r.empty() ? "" : " " + r.toString()));
                if (const auto f = onEvent_[name]) f(what, r);
            };
        };
        auto r = std::make_unique<VeTableInterface>(
            name, eventType().name(), kObserverMode, [record] { record("ready")(BaseRow()); }, record("row"),
            record("delete"), VeTableInterface::FlagCallback());
        agent_->bindInterface(*r, kEvents, false);
        if (clientReady) r->clientReadyIs(true);
        return r;
    }

    VeltaDB::p_t agent_;
    std::vector<std::string> log_;
    std::map<std::string, std::function<void(const std::string& what, const BaseRow& row)>> onEvent_;
};

TEST_F(HostCallbacks, QueuedInFifoOrderAndDeliveredOnlyFromTheLoop) {
    db_->write(kEvents, ev("before"));
    auto o = observer("o");
    auto late = observer("late", false);  // rows written before it is client-ready are not replayed
    auto gone = observer("gone");
    db_->write(kEvents, ev("a"));
    writeVia(*o, ev("b"));         // its own write comes back to it
    db_->write(kEvents, ev("b"));  // an identical rewrite still notifies
    o->rowDel(ev("a"));
    db_->erase(kEvents, ev("absent"));  // nothing removed, nothing said
    EXPECT_FALSE(o->ready());
    EXPECT_EQ(db_->pending(), 10u);
    gone.reset();  // none of its callbacks stays queued
    EXPECT_EQ(db_->pending(), 5u);
    late->clientReadyIs(true);
    late->clientReadyIs(false);
    late->clientReadyIs(true);  // ready is queued once, however often readiness comes back

    // A write made inside a callback is delivered after it; the loop run from inside delivers nothing.
    int depth = 0;
    onEvent_["o"] = [&](const std::string& what, const BaseRow& row) {
        EXPECT_EQ(++depth, 1);
        if (what == "row" && row.string(0) == "b" && log_.size() < 4) db_->write(kEvents, ev("nested"));
        EXPECT_EQ(db_->runUntilIdle(), 0u);
        EXPECT_FALSE(db_->runOne());
        --depth;
    };
    EXPECT_EQ(run(), 8u);
    EXPECT_EQ(log_, (std::vector<std::string>{"o ready", line("o", "row", "a"), line("o", "row", "b"),
                                              line("o", "row", "b"), line("o", "delete", "a"), "late ready",
                                              line("o", "row", "nested"), line("late", "row", "nested")}));

    // A callback that throws stops the loop with its exception, its delivery still ends for the
    // listener and the run is judged unsettled; the loop goes on delivering afterwards.
    Host::EventLog thrown;
    db_->listenerIs(&thrown);
    onEvent_["o"] = [](const std::string&, const BaseRow&) { throw std::runtime_error("callback failed"); };
    db_->write(kEvents, ev("c"));
    EXPECT_THROW(db_->runUntilIdle(), std::runtime_error);
    EXPECT_FALSE(db_->settled());
    db_->write(kEvents, ev("c2"));
    std::vector<std::pair<Host::EventLog::Entry::Kind, std::size_t>> depths;
    for (const Host::EventLog::Entry& e : thrown.entries()) depths.emplace_back(e.kind, e.depth);
    using Kind = Host::EventLog::Entry::Kind;
    EXPECT_EQ(depths,
              (decltype(depths){
                  {Kind::write, 0}, {Kind::deliveryBegin, 0}, {Kind::deliveryEnd, 0}, {Kind::write, 0}}));
    db_->listenerIs(nullptr);
    onEvent_["o"] = {};
    EXPECT_EQ(run(), 3u);

    // An interface bound again leaves its first table at once, with all it had queued from there.
    log_.clear();
    auto moved = observer("moved");
    db_->write(kEvents, ev("d"));
    agent_->bindInterface(*moved, "test/other", false);
    EXPECT_EQ(db_->pending(), 3u);  // d for o and late, ready for moved
    db_->write(kEvents, ev("e"));
    run();
    EXPECT_EQ(log_, (std::vector<std::string>{line("o", "row", "d"), line("late", "row", "d"), "moved ready",
                                              line("o", "row", "e"), line("late", "row", "e")}));
}

// A seed's order is its draws: each delivery picks one of the queued callbacks uniformly with a
// 64-bit Mersenne twister seeded with the seed, and delivers the oldest callback of the picked one's
// receiver (host work is one receiver). A seed saved from a failing run replays only while that holds,
// so it is checked against a model, over a queue that stays long while it turns over many times, with
// host work queued and an interface going mid-run.
TEST_F(HostCallbacks, ShuffledOrderFollowsTheSeededDraws) {
    constexpr std::uint64_t kSeed = 29;
    reset({.shuffleSeed = kSeed});
    agent_ = connect("A");
    log_.clear();
    const std::array<std::string, 3> names = {"p", "q", "r"};
    std::array<std::unique_ptr<VeTableInterface>, 3> observers;
    std::vector<std::pair<std::string, std::string>> model;  // receiver ("" for host work), log line
    for (std::size_t i = 0; i < names.size(); ++i) {
        observers[i] = observer(names[i]);
        model.emplace_back(names[i], names[i] + " ready");
    }
    std::mt19937_64 draws(kSeed);
    std::vector<std::string> expected;
    const auto deliver = [&](std::size_t n) {
        for (; n > 0 && db_->runOne(); --n) {
            ASSERT_FALSE(model.empty());
            std::size_t pick = 0;
            if (model.size() > 1)
                pick = std::uniform_int_distribution<std::size_t>(0, model.size() - 1)(draws);
            const auto oldest = std::find_if(model.begin(), model.end(),
                                             [&](const auto& e) { return e.first == model[pick].first; });
            if (!oldest->first.empty()) expected.push_back(oldest->second);
            model.erase(oldest);
        }
    };
    for (unsigned i = 0; i < 1500; ++i) {
        db_->write(kEvents, ev("e", i));
        for (std::size_t o = 0; o < names.size(); ++o)
            if (observers[o]) model.emplace_back(names[o], line(names[o], "row", "e", i));
        if (i % 50 == 0) {
            agent_->registerTable("test/t" + std::to_string(i), eventType().name(), TableType::standing, 0, 0,
                                  "A");
            model.emplace_back("", "");
        }
        if (i == 700) {
            observers[1].reset();
            std::erase_if(model, [](const auto& e) { return e.first == "q"; });
        }
        deliver(i % 4 == 0 ? 1 : 3);
    }
    deliver(model.size() + 1);
    EXPECT_TRUE(model.empty());
    EXPECT_EQ(log_, expected);
}

// A hook sees queued rows in order before their delivery and changes nothing; another handle's
// interface is not hooked; prefetching a key is harmless whatever the interface.
TEST(Lookahead, HooksSeeQueuedRowsBeforeTheirDeliveryAndChangeNothing) {
    auto db = Host::Database::create();
    auto reader = db->connect({"reader", "sys"});
    auto writer = db->connect({"writer", "sys"});
    auto* lookahead = HostCapability::Lookahead::of(*reader);
    ASSERT_NE(lookahead, nullptr);
    std::vector<std::string> log;  // "hook k", "row k" and "delete k", as they happened
    const auto logs = [&log](std::string what) {
        return [&log, what](const BaseRow& r) { log.push_back(what + std::to_string(r.number(0))); };
    };
    VeTableInterface observer("observer", numType().name(), kModeObserve | kModeRead, {}, logs("row "),
                              logs("delete "), {});
    VeTableInterface modifier("modifier", numType().name(), kModeRead | kModeWrite, {}, {}, {}, {});
    reader->bindInterface(observer, "test/ahead", false);
    writer->bindInterface(modifier, "test/ahead", false);
    observer.clientReadyIs(true);
    db->runUntilIdle();
    auto hook = [](void* context, const BaseRow& r) {
        static_cast<std::vector<std::string>*>(context)->push_back("hook " + std::to_string(r.number(0)));
    };
    lookahead->lookaheadIs(observer, hook, &log);
    lookahead->lookaheadIs(modifier, hook, &log);  // bound through another handle: ignored
    VeTableInterface unbound("unbound", numType().name(), kModeObserve, {}, {}, {}, {});
    lookahead->lookaheadIs(unbound, hook, &log);  // not bound at all: ignored

    std::vector<std::string> expected;  // the deliveries: more than the queue first holds, so it grows
    for (int k = 0; k < 60; ++k) {
        BaseRow row = makeRow(numType(), {{"k", k}, {"v", k}});
        modifier.rowIs(row);
        expected.push_back("row " + std::to_string(k));
        if (k % 3 == 0) modifier.rowDel(row), expected.push_back("delete " + std::to_string(k));
    }
    HostCapability::Lookahead::prefetchKey(observer, makeRow(numType(), {{"k", 5}}));
    HostCapability::Lookahead::prefetchKey(observer, makeRow(numType(true), {{"k", 5}}));
    HostCapability::Lookahead::prefetchKey(unbound, BaseRow());
    db->runUntilIdle();
    // All events but the first few (queued too close to the front) are hooked, in order, each
    // before its delivery.
    std::vector<std::pair<std::string, std::size_t>> hooked;  // the row's key, the deliveries before it
    std::size_t delivered = 0;
    for (const std::string& line : log) {
        if (line.rfind("hook ", 0) == 0)
            hooked.emplace_back(line.substr(5), delivered);
        else
            EXPECT_EQ(line, expected.at(delivered++));
    }
    EXPECT_EQ(delivered, expected.size());
    ASSERT_TRUE(!hooked.empty() && hooked.size() + 8 >= expected.size()) << hooked.size() << " hooks";
    for (std::size_t i = 0, j = expected.size() - hooked.size(); i < hooked.size(); ++i, ++j) {
        EXPECT_EQ(hooked[i].first, expected[j].substr(expected[j].find(' ') + 1)) << i;
        EXPECT_LE(hooked[i].second, j) << "hooked after its delivery: " << hooked[i].first;
    }
}

const RowType& resultType() {
    return Host::defineRowType("MetadataTest::Result", {{"oid", u32}, {"k", string}}, {"k"});
}

using HostMetadata = HostTest;

TEST_F(HostMetadata, VeTableRowsFollowTablesAndRegistrations) {
    std::string builtinOids;  // the built-in tables, in path order
    for (const BaseRow& r : db_->rows(kVeTable)) builtinOids += std::to_string(r.number(0)) + " ";
    EXPECT_EQ(builtinOids, "4 3 2 1 6 5 ");
    Host::EventLog events;
    db_->listenerIs(&events);
    auto server = connect("srv", true);
    auto agent = connect("A", false, true);
    db_->createTable("t/one", resultType().name(), "owner1");
    db_->createTable("t/one", veMetadata::veTable::rowTypeName(), "other");  // exists: nothing changes
    db_->createTable("t/two", resultType().name(), "", 77);  // metadata oid chosen by the caller
    VeTableInterface reader("r", resultType().name(), kReaderMode, {}, {}, {}, {});
    agent->bindInterface(reader, "t/three", false);  // a missing path: created, owned by the agent
    VeTableInterface strange("s", "No::Such", kReaderMode, {}, {}, {}, {});
    agent->bindInterface(strange, "t/strange", false);  // an unknown type: bound, but no table
    EXPECT_NE(strange.attachment(), 0u);
    EXPECT_TRUE(db_->dropTable("t/one") && !db_->dropTable("t/one"));
    EXPECT_THROW(db_->createTable("t/bad", "No::Such"), std::invalid_argument);
    // Another agent's registration travels; the server's wins at once and the travelling one then
    // finds the table and changes nothing.
    agent->registerTable("t/race", resultType().name(), TableType::oneShot, 3, 4, "ownerE");
    server->registerTable("t/race", resultType().name(), TableType::standing, 1, 2, "ownerS");
    agent->registerTable("t/u", "No::Such", TableType::standing, 0, 0, "x");  // unknown type: no table
    agent->registerTable("t/y", resultType().name(), TableType::standing, 0, 0, "A");
    db_->write("t/two", makeRow(resultType(), {{"k", "k1"}}));
    db_->write("t/four", makeRow(resultType(), {{"k", "k1"}}));  // a missing table is created
    run();
    EXPECT_FALSE(db_->hasTable("t/strange") || db_->hasTable("t/u"));
    db_->listenerIs(nullptr);
    // The listener's log, each entry as a letter for its kind (begin, end, write, delete, call,
    // created, dropped) and its path, interface or work.
    std::string seen;
    for (const Host::EventLog::Entry& e : events.entries())
        seen += std::string(1, "bewdkcx"[static_cast<int>(e.kind)]) +
                (e.call           ? e.call->path
                 : e.iface        ? e.ifName
                 : e.what.empty() ? e.path
                                  : e.what) +
                " ";
    EXPECT_EQ(
        seen,
        "ct/one wvelta/metadata/veTable ct/two wvelta/metadata/veTable ct/three wvelta/metadata/veTable "
        "xt/one dvelta/metadata/veTable kt/race kt/race ct/race wvelta/metadata/veTable kt/u kt/y wt/two "
        "ct/four wvelta/metadata/veTable wt/four br e bs e bregisterTable t/race e bregisterTable t/y ct/y "
        "wvelta/metadata/veTable e ");
    EXPECT_EQ(agent->tableInfo("t/race").owner(), "ownerS");
    EXPECT_EQ(brief(agent->tableInfo("t/four")), "oid=11 tablePath=t/four typeName=MetadataTest::Result");
    EXPECT_EQ(brief(agent->tableInfo("t/two")), "oid=77 tablePath=t/two typeName=MetadataTest::Result");
    EXPECT_EQ(brief(agent->tableInfo(8u)), "oid=8 tablePath=t/three typeName=MetadataTest::Result owner=A");
    EXPECT_EQ(brief(agent->tableInfo(13u)), "oid=13 tablePath=t/y typeName=MetadataTest::Result owner=A");
    EXPECT_TRUE(agent->tableInfo("t/one").empty() && agent->tableInfo(7u).empty());
    db_->write(kVeTable, makeRecord<veMetadata::veTable>({{"oid", 500}, {"tablePath", "t/virtual"}}));
    EXPECT_EQ(agent->tableInfo(500u).tablePath(), "t/virtual");  // also rows a client wrote

    EXPECT_EQ(db_->calls().size(), 4u);
    EXPECT_EQ(Host::toString(db_->calls().at(0)),
              "registerTable path=t/race typeName=MetadataTest::Result tableType=1 desiredFlags=3 "
              "flags=4 owner=ownerE agent=A");
    db_->callsClear();
    EXPECT_TRUE(db_->calls().empty());

    // A client deleted an existing table's metadata row: only the server's registration writes it again.
    ASSERT_TRUE(db_->erase(kVeTable, makeRecord<veMetadata::veTable>({{"tablePath", "t/y"}})));
    agent->registerTable("t/y", resultType().name(), TableType::standing, 0, 0, "ext");
    EXPECT_EQ(run(), 0u);  // the table exists: nothing travels
    EXPECT_TRUE(server->tableInfo("t/y").empty());
    server->registerTable("t/y", resultType().name(), TableType::standing, 0, 0, "again");
    EXPECT_EQ(brief(server->tableInfo("t/y")),
              "oid=14 tablePath=t/y typeName=MetadataTest::Result owner=again");
    // The whole metadata table was dropped: it comes back with the registered table's row.
    ASSERT_TRUE(db_->dropTable(kVeTable));
    server->registerTable("t/fresh", resultType().name(), TableType::standing, 0, 0, "o");
    EXPECT_EQ(server->tableInfo("t/fresh").owner(), "o");
    EXPECT_FALSE(server->tableInfo(kVeTable).empty());
    // Dropped again and made again by a client's row of another type: a registration of a table
    // that exists looks for its row in that table's own type.
    ASSERT_TRUE(db_->dropTable(kVeTable));
    const RowType& wide = Host::defineRowType(
        "MetadataTest::Wide", {{"a", string}, {"b", string}, {"c", string}, {"d", string}}, {"d"});
    db_->write(kVeTable, makeRow(wide, {{"d", "client"}}));
    server->registerTable("t/fresh", resultType().name(), TableType::standing, 0, 0, "o");
    EXPECT_EQ(db_->rowCount(kVeTable), 2u);
}

// The publications' fields are in the translator's transcripts; here, what is decided at the turn.
TEST_F(HostMetadata, ControlPublicationsAnswerControlRowsStillThereAtTheirTurn) {
    reset({.autoPublish = true});
    auto ctrl = [&](unsigned sys) {
        return makeRecord<veCtrl::subscription>({{"system_description", sys}, {"connection_id", 1}});
    };
    const BaseRow stored = db_->write(kCtrlSubs, ctrl(3));
    db_->write(kCtrlSubs, ctrl(3));  // a rewrite is no new row
    db_->write(kCtrlSubs, ctrl(4));
    db_->erase(kCtrlSubs, ctrl(4));                       // gone before the turn: nothing for it
    const BaseRow back = db_->write(kCtrlSubs, ctrl(4));  // its key back: a new row
    EXPECT_EQ(db_->rowCount(kCtrlPub), 0u);
    Host::EventLog events;
    db_->listenerIs(&events);
    run();
    db_->listenerIs(nullptr);
    std::vector<std::uint64_t> answered;  // each publication written, once
    for (const Host::EventLog::Entry& e : events.entries())
        if (e.kind == Host::EventLog::Entry::Kind::write && e.path == kCtrlPub)
            answered.push_back(veCtrl::publication(e.row).subscription_id());
    EXPECT_EQ(answered, (std::vector<std::uint64_t>{stored.number(0), back.number(0)}));
    veCtrl::subscription moved = ctrl(3);
    moved.oidIs(900);  // the row its publication answered is gone, though its key stays
    db_->write(kCtrlSubs, moved);
    run();
    EXPECT_EQ(veCtrl::publication(db_->rows(kCtrlPub).at(0)).subscription_id(), back.number(0));
    db_->dropTable(kCtrlSubs);  // every control row goes, and so does its answer
    run();
    EXPECT_EQ(db_->rowCount(kCtrlPub), 0u);
    reset({});  // off by default
    db_->write(kCtrlSubs, ctrl(3));
    run();
    EXPECT_EQ(db_->rowCount(kCtrlPub), 0u);
    // The clock those publications carry never wraps back to the past.
    db_->clockAdvance(std::numeric_limits<std::uint64_t>::max() - 1);
    db_->clockAdvance(5);
    EXPECT_EQ(db_->clock(), std::numeric_limits<std::uint64_t>::max());
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
    agent->defineQuery("SELECT a FROM data/known;", 9, {{"p", "1"}, {"a", "2"}}, done("a"), true, "q1");
    agent->defineQuery("SELECT a\nfrom\tdata/missing WHERE x", 9, {}, done("b"), false, "");
    auto gone = connect("G");
    gone->defineQuery("SHOW tables", 9, {}, done("g"), false, "");
    gone.reset();  // its completion goes with it
    agent->removeQuery("q1");
    db_->queriesClear();  // all three wait for their turn: none is forgotten
    EXPECT_EQ(run(), 3u);
    EXPECT_EQ(outcomes, (std::vector<std::string>{"a 1 1 ", "b 0 0 No such table: data/missing"}));
    EXPECT_EQ(db_->queries()[1].state, Host::QueryInfo::State::failed);
    EXPECT_EQ(db_->queries()[2].state, Host::QueryInfo::State::completed);
    EXPECT_FALSE(db_->completeQuery("SHOW tables", true));  // nothing left to complete by hand
    EXPECT_EQ(Host::toString(db_->calls().front()),
              "defineQuery text=\"SELECT a FROM data/known;\" typeId=9 params={a=2,p=1} standing=1 "
              "name=\"q1\" agent=A");
    EXPECT_EQ(Host::toString(db_->calls()[1]),  // one line, whatever the client's text holds
              "defineQuery text=\"SELECT a\\nfrom\tdata/missing WHERE x\" typeId=9 params={} standing=0 "
              "name=\"\" agent=A");
    EXPECT_EQ(Host::toString(db_->calls().back()), "removeQuery name=\"q1\" agent=A");

    reset({.manualQueries = true});
    EXPECT_FALSE(db_->completeQuery("SELECT 1 FROM nowhere", true));  // none defined yet
    outcomes.clear();
    auto keeper = connect("K");
    auto leaver = connect("L");
    keeper->defineQuery("SELECT 1 FROM nowhere", 1, {}, done("k1"), false, "");
    leaver->defineQuery("SELECT 1 FROM nowhere", 1, {}, done("l1"), false, "");
    keeper->defineQuery("SELECT 1 FROM nowhere", 1, {}, done("k2"), false, "");
    run();
    EXPECT_TRUE(db_->completeQuery("SELECT 1 FROM nowhere", false, "refused"));  // the oldest: k1
    EXPECT_TRUE(db_->completeQuery("SELECT 1 FROM nowhere", true));              // then l1
    leaver.reset();
    run();
    EXPECT_EQ(db_->queries()[1].state, Host::QueryInfo::State::completed);  // each call took its own
    EXPECT_EQ(db_->queries()[2].state, Host::QueryInfo::State::pending);
    db_->queriesClear();  // k1 and l1 are answered and go; k2 still waits
    ASSERT_EQ(db_->queries().size(), 1u);
    EXPECT_TRUE(db_->completeQuery("SELECT 1 FROM nowhere", true));
    run();
    EXPECT_EQ(outcomes, (std::vector<std::string>{"k1 0 0 refused", "k2 1 2 "}));
    EXPECT_EQ(db_->queries()[0].state, Host::QueryInfo::State::completed);
}

// A value that counts how often it is formatted.
struct Counted {
    static inline int formatted = 0;
};
std::ostream& operator<<(std::ostream& os, const Counted&) {
    ++Counted::formatted;
    return os << "counted";
}

TEST(HostDebug, TracesAreBuiltOnlyForEnabledLevelsAndGoToTheInnermostCapture) {
    Kesto::DebugSupport debug(Kesto::Platform::getDebugHandler("DebugTest::Quiet"), false);
    EXPECT_EQ(Kesto::Platform::getDebugHandler("DebugTest::Quiet"), debug.handler());  // one per channel
    Host::TraceCapture outer;
    ASSERT_EQ(debug.handler()->mask(), 0u);  // every channel starts silent
    KESTO_TRACE(debug, 9, "DebugTest", 10, "quiet", "value " << Counted{});
    ScopedDebugMask on("DebugTest::Quiet", 0x201);
    KESTO_TRACE(debug, 8, "DebugTest", 11, "quiet", "other level " << Counted{});
    Kesto::DebugSupport none;  // no handler: off
    KESTO_TRACE(none, 0, "DebugTest", 13, "quiet", Counted{});
    EXPECT_EQ(Counted::formatted, 0);
    {
        Host::TraceCapture inner;
        KESTO_TRACE(debug, 9, "DebugTest", 12, "quiet", "value " << Counted{});
        EXPECT_EQ(Counted::formatted, 1);
        ASSERT_EQ(inner.records().size(), 1u);
        EXPECT_EQ(Host::toString(inner.records()[0]),
                  "DebugTest::Quiet[9] DebugTest:12 quiet: value counted");
    }
    KESTO_TRACE(debug, 0, "F", 6, "fn", "to outer");
    EXPECT_EQ(outer.messages("DebugTest::Quiet"), std::vector<std::string>{"to outer"});
    outer.clear();

    // The interface traces client-ready at level 8 of "Schedulable", also when nothing changes.
    ScopedDebugMask schedulable("Schedulable", 0x100);
    VeTableInterface iface("watcher", "veMetadata::veTable", kObserverMode, {}, {}, {}, {});
    iface.clientReadyIs(true);
    iface.clientReadyIs(true);
    ASSERT_EQ(outer.records().size(), 2u);
    EXPECT_EQ(Host::toString(outer.records()[1]),
              "Schedulable[8] src-includes/api/Velta/Scheduler:103 clientReadyIs: virtual void "
              "Velta::Schedulable::clientReadyIs(bool) watcher ready: 1");
}

TEST(HostDebug, MasksFromTextAndTheDefaultSink) {
    EXPECT_TRUE(Host::debugMasksFromText("DebugTest::A=0x31f, DebugTest::B=7"));
    Kesto::DebugSupport a(Kesto::Platform::getDebugHandler("DebugTest::A"), false);
    testing::internal::CaptureStderr();  // standard error when nothing captures
    KESTO_TRACE(a, 2, "Some/File", 77, "someFunction", "on stderr " << 5 << "\r\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "DebugTest::A[2] Some/File:77 someFunction: on stderr 5\\r\\n\n");
    // Malformed text changes nothing at all.
    for (const char* bad :
         {"DebugTest::A=1,DebugTest::B", "DebugTest::A=zz", "=5", "DebugTest::A=0x1ffffffff",
          "DebugTest::A=-1", "DebugTest::A=1,DebugTest::B=2x"}) {
        EXPECT_FALSE(Host::debugMasksFromText(bad)) << bad;
        EXPECT_EQ(Host::debugMask("DebugTest::A") * 10 + Host::debugMask("DebugTest::B"), 0x31fu * 10 + 7)
            << bad;
    }
    EXPECT_TRUE(Host::debugMasksFromText(""));
    Host::debugMasksClear();
    EXPECT_EQ(Host::debugMask("DebugTest::A") + Host::debugMask("DebugTest::B"), 0u);
}

TEST(HostDebugDeathTest, KestoDebugIsReadAtFirstUse) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process, where no channel exists yet
    EXPECT_EXIT(
        {
            setenv("KESTO_DEBUG", "SubscriptionTranslator=0x31f,Aggregator=0x3ff", 1);
            const bool ok = Kesto::Platform::getDebugHandler("SubscriptionTranslator")->mask() == 0x31f &&
                            Kesto::Platform::getDebugHandler("Aggregator")->mask() == 0x3ff &&
                            Kesto::Platform::getDebugHandler("Schedulable")->mask() == 0;
            std::exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// Both tables hold the whole catalogue, name for code and code for name: 100 * category + code,
// each category's codes without gaps, "dummy" at -1; the flag and count follow their category.
TEST(Opcodes, CatalogueIsConsistentBothWays) {
    const std::set<std::string> flagZero = {"noop", "boolAnd", "boolOr", "not", "copyBytes"};
    std::set<int> codes, expected = {-1};
    const int last[] = {0, 120, 203, 302, 420, 511, 611, 712};
    for (int cat = 1; cat <= 7; ++cat)
        for (int code = cat == 1 ? 100 : 100 * cat + 1; code <= last[cat]; ++code) expected.insert(code);
    ASSERT_EQ(VeRT::opCatByName.size(), expected.size());
    for (const auto& [code, name] : VeRT::opNameByCode) {
        codes.insert(code);
        const VeRT::opCat& c = VeRT::opCatByName.at(name);
        EXPECT_EQ(code, name == "dummy" ? -1 : static_cast<int>(100 * c.category + c.code)) << name;
        const bool zero = flagZero.count(name) != 0 || c.category == 4 || c.category == 7;
        EXPECT_EQ(c.flag, zero ? 0 : 1) << name;
        EXPECT_LE(c.count, c.category <= 3 ? 0 : 5) << name;
    }
    EXPECT_EQ(codes, expected);
}

}  // namespace
}  // namespace Velta::Test
