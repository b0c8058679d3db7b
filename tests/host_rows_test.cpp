// Row values, records and row types of the in-memory host.
#include "TestSupport.h"

#include <Velta/Records.h>
#include <Velta/VeltaDB.h>

#include <algorithm>
#include <set>
#include <sstream>

namespace Velta::Test {
namespace {

const RowType& pairType() {
    return Host::defineRowType("RowsTest::Pair",
                               {{"oid", FieldKind::u32},
                                {"group", FieldKind::string},
                                {"rank", FieldKind::u16},
                                {"tags", FieldKind::strings},
                                {"big", FieldKind::u64},
                                {"on", FieldKind::boolean}},
                               {"group", "rank"});
}

TEST(HostRows, CopyOnWriteKeepsEveryOtherHolderUnchanged) {
    External::Publication original;
    original.subscription_idIs(7);
    original.errorIs("first");
    const External::Publication copy = original;
    ASSERT_TRUE(copy.sameData(original));

    External::Publication edited = copy;
    edited.errorIs("second");
    edited.statusIs(true);
    EXPECT_FALSE(edited.sameData(original));
    EXPECT_EQ(original.error(), "first");
    EXPECT_EQ(copy.error(), "first");
    EXPECT_FALSE(copy.status());
    EXPECT_EQ(edited.error(), "second");
    EXPECT_EQ(edited.subscription_id(), 7u);

    // A sole holder writes in place: no new data.
    const RowData* before = edited.data();
    edited.view_idIs(3);
    EXPECT_EQ(edited.data(), before);

    // A stored table row is shared too: changing what a callback or lookup gave changes nothing stored.
    auto db = Host::Database::create();
    db->write("velta/External/Publication", original);
    External::Publication read(db->read("velta/External/Publication", original));
    read.errorIs("changed by a reader");
    EXPECT_EQ(External::Publication(db->read("velta/External/Publication", original)).error(), "first");

    // clone() gives data of its own even before any write.
    veCtrl::publication pub;
    pub.subscription_idIs(1);
    const veCtrl::publication cloned = pub.clone();
    EXPECT_FALSE(cloned.sameData(pub));
    EXPECT_TRUE(cloned.equals(pub));
}

TEST(HostRows, ReadingThroughAnotherRecordMapsFieldsByName) {
    veCtrl::subscription ctrl;
    ctrl.oidIs(41);
    ctrl.system_descriptionIs(3);
    ctrl.connection_idIs(9);
    ctrl.typeNameIs("T");
    ctrl.tableIdIs(12);
    ctrl.writerIs(true);
    ctrl.ptimeIs(1234567890123ull);

    const External::Subscription ext(ctrl);  // shares oid, typeName, system_description, features, ptime
    EXPECT_EQ(ext.rowType()->name(), "External::Subscription");
    EXPECT_EQ(ext.oid(), 41u);
    EXPECT_EQ(ext.system_description(), 3u);
    EXPECT_EQ(ext.typeName(), "T");
    EXPECT_EQ(ext.ptime(), 1234567890123ull);
    EXPECT_EQ(ext.outputPath(), "");  // not a field of the control row
    EXPECT_TRUE(ext.paramName().empty());
    EXPECT_FALSE(ext.standing());

    // Same type: shared, not copied. Empty stays empty.
    const veCtrl::subscription same(static_cast<const BaseRow&>(ctrl));
    EXPECT_TRUE(same.sameData(ctrl));
    EXPECT_TRUE(External::Subscription(BaseRow()).empty());

    // Numbers are narrowed to the reading field's width; kinds that differ read as missing.
    const RowType& wide = Host::defineRowType(
        "RowsTest::Wide", {{"rank", FieldKind::u64}, {"group", FieldKind::u32}}, {"rank"});
    const BaseRow w = makeRow(wide, {{"rank", 0x12345ull}, {"group", 5}});
    const BaseRow p = w.as(pairType());
    EXPECT_EQ(p.number(static_cast<std::size_t>(pairType().fieldIndex("rank"))), 0x2345u);
    EXPECT_EQ(p.string(static_cast<std::size_t>(pairType().fieldIndex("group"))), "");

    // An empty record reads zero, false, empty.
    const External::Subscription none;
    EXPECT_EQ(none.oid(), 0u);
    EXPECT_EQ(none.queryText(), "");
    EXPECT_TRUE(none.paramValue().empty());
}

TEST(HostRows, OrderIsThePrimaryKeyOrder) {
    auto sub = [](unsigned sys, const std::string& path, unsigned oid) {
        return makeRecord<External::Subscription>(
            {{"system_description", sys}, {"outputPath", path}, {"oid", oid}});
    };
    // Other fields (oid) do not take part; system_description comes before outputPath.
    const std::vector<External::Subscription> rows = {sub(2, "a", 1), sub(1, "z", 2), sub(1, "b", 3),
                                                      sub(2, "a", 9)};
    std::set<External::Subscription> set(rows.begin(), rows.end());
    std::vector<std::string> keys;
    for (const auto& s : set) keys.push_back(std::to_string(s.system_description()) + s.outputPath());
    EXPECT_EQ(keys, (std::vector<std::string>{"1b", "1z", "2a"}));

    // The same order as the table's index 0.
    auto db = Host::Database::create();
    for (const auto& r : rows) db->write("velta/External/Subscription", r);
    std::vector<std::string> tableKeys;
    for (const BaseRow& r : db->rows("velta/External/Subscription")) {
        const External::Subscription s(r);
        tableKeys.push_back(std::to_string(s.system_description()) + s.outputPath());
    }
    EXPECT_EQ(tableKeys, keys);

    // A record without data reads as its zero key: the key (0, ""), before (0, "a"). (A map keyed by
    // records must find one under the other.) veCtrl::subscription orders by system_description,
    // connection_id, tableId.
    EXPECT_FALSE(External::Subscription() < sub(0, "", 5));
    EXPECT_FALSE(sub(0, "", 5) < External::Subscription());
    EXPECT_TRUE(External::Subscription() < sub(0, "a", 0));
    auto ctrl = [](unsigned sys, unsigned conn, unsigned table) {
        return makeRecord<veCtrl::subscription>(
            {{"system_description", sys}, {"connection_id", conn}, {"tableId", table}});
    };
    EXPECT_TRUE(ctrl(1, 9, 9) < ctrl(2, 0, 0));
    EXPECT_TRUE(ctrl(1, 1, 9) < ctrl(1, 2, 0));
    EXPECT_TRUE(ctrl(1, 1, 1) < ctrl(1, 1, 2));
    EXPECT_FALSE(ctrl(1, 1, 2) < ctrl(1, 1, 2));
}

TEST(HostRows, PrintedFormShowsTypeAndEveryField) {
    External::Publication pub;
    pub.subscription_idIs(7);
    pub.errorIs("bad \"x\"");
    EXPECT_EQ(pub.toString(),
              "External::Publication{subscription_id=7 publication_id=0 connection_id=0 tableId=0 typeId=0 "
              "view_id=0 "
              "status=0 error=\"bad \\\"x\\\"\" ptime=0}");
    std::ostringstream streamedForm;
    streamedForm << pub;
    EXPECT_EQ(streamedForm.str(), pub.toString());

    External::Subscription sub;
    sub.paramNameIs({"a", "b"});
    sub.standingIs(true);
    EXPECT_NE(sub.toString().find(" standing=1 "), std::string::npos);
    EXPECT_NE(sub.toString().find(" paramName=[\"a\",\"b\"] paramValue=[] "), std::string::npos);

    EXPECT_EQ(BaseRow().toString(), "{}");
    const RowType& none = Host::defineRowType("RowsTest::NoFields", {}, {});
    EXPECT_EQ(BaseRow(none).toString(), "RowsTest::NoFields{}");
}

TEST(HostRows, EqualityIsByTypeAndValue) {
    const BaseRow a = makeRow(pairType(), {{"group", "g"}, {"tags", {"x"}}, {"on", true}});
    const BaseRow b = makeRow(pairType(), {{"group", "g"}, {"tags", {"x"}}, {"on", true}});
    EXPECT_TRUE(a.equals(b));
    EXPECT_FALSE(a.sameData(b));
    EXPECT_FALSE(a.equals(makeRow(pairType(), {{"group", "g"}, {"tags", {"y"}}, {"on", true}})));
    EXPECT_FALSE(a.equals(makeRow(pairType(), {{"group", "g"}, {"tags", {"x"}}})));
    EXPECT_FALSE(a.equals(BaseRow()));
    EXPECT_TRUE(BaseRow().equals(BaseRow()));
    // Same values, another type.
    const RowType& twin = Host::defineRowType("RowsTest::Twin", {{"group", FieldKind::string}}, {"group"});
    const RowType& twin2 = Host::defineRowType("RowsTest::Twin2", {{"group", FieldKind::string}}, {"group"});
    EXPECT_FALSE(makeRow(twin, {{"group", "g"}}).equals(makeRow(twin2, {{"group", "g"}})));
}

TEST(HostRowTypes, RegistryIdsAndDefinitions) {
    // Built-ins first, in their fixed order.
    const char* builtins[] = {"External::Subscription", "External::Publication",
                              "veCtrl::subscription",   "veCtrl::publication",
                              "veMetadata::veTable",    "veMetadata::SystemDescription",
                              "veMetadata::veClass"};
    auto db = Host::Database::create();
    auto handle = db->connect({"a", "s"});
    for (unsigned i = 0; i < std::size(builtins); ++i) {
        EXPECT_EQ(handle->tableTypeId(builtins[i], false), i + 1) << builtins[i];
        ASSERT_NE(Host::findRowType(builtins[i]), nullptr);
        EXPECT_EQ(&builtinRowType(static_cast<BuiltinRow>(i)), Host::findRowType(builtins[i]));
    }
    EXPECT_EQ(handle->tableTypeId("No::SuchType", false), VeltaDB::kUnknownTypeId);
    EXPECT_GT(pairType().id(), 7u);  // user types come after the built-ins
    EXPECT_EQ(handle->tableTypeId("RowsTest::Pair", false), pairType().id());

    // Redefinition: same definition gives the same type; anything else is refused.
    EXPECT_EQ(&pairType(), &pairType());
    EXPECT_THROW(Host::defineRowType("RowsTest::Pair", {{"group", FieldKind::string}}, {"group"}),
                 std::invalid_argument);
    EXPECT_THROW(Host::defineRowType("RowsTest::Bad", {{"a", FieldKind::u32}, {"a", FieldKind::u16}}, {"a"}),
                 std::invalid_argument);
    EXPECT_THROW(Host::defineRowType("RowsTest::Bad", {{"", FieldKind::u32}}, {}), std::invalid_argument);
    EXPECT_THROW(Host::defineRowType("RowsTest::Bad", {{"a", FieldKind::u32}}, {"b"}), std::invalid_argument);
    EXPECT_EQ(Host::findRowType("RowsTest::Bad"), nullptr);

    EXPECT_EQ(Host::parseFieldKind("strings"), FieldKind::strings);
    EXPECT_EQ(Host::parseFieldKind("bool"), FieldKind::boolean);
    EXPECT_EQ(Host::parseFieldKind("u8"), std::nullopt);
    for (FieldKind k : {FieldKind::u16, FieldKind::u32, FieldKind::u64, FieldKind::boolean, FieldKind::string,
                        FieldKind::strings})
        EXPECT_EQ(Host::parseFieldKind(fieldKindName(k)), k);

    // The oid field gives index 1; slots are per kind.
    EXPECT_EQ(pairType().oidField(), 0);
    EXPECT_EQ(pairType().numberCount(), 4u);
    EXPECT_EQ(pairType().stringCount(), 1u);
    EXPECT_EQ(pairType().listCount(), 1u);
    EXPECT_EQ(Host::findRowType("External::Publication")->oidField(), -1);
}

TEST(HostRowTypes, ClassDescriptionsAndRowOps) {
    const veMetadata::veClass cls(VeltaDB::veClass("veMetadata::veTable"));
    ASSERT_FALSE(cls.empty());
    EXPECT_EQ(cls.name(), "veMetadata::veTable");
    EXPECT_EQ(cls.typeId(), 5u);
    EXPECT_EQ(cls.fields(),
              (std::vector<std::string>{"oid:u32", "tablePath:string", "typeName:string", "owner:string"}));
    EXPECT_TRUE(VeltaDB::veClass("No::SuchClass").empty());

    auto db = Host::Database::create();
    auto handle = db->connect({"a", "s"});
    pairType();  // registered before its row operations are asked for (each test may run alone)
    const RowOpsKeyLess less0(handle->getRowOps("RowsTest::Pair", 0));
    const RowOpsKeyLess less1(handle->getRowOps("RowsTest::Pair", 1));
    const BaseRow a = makeRow(pairType(), {{"oid", 9}, {"group", "a"}, {"rank", 2}});
    const BaseRow b = makeRow(pairType(), {{"oid", 1}, {"group", "a"}, {"rank", 3}});
    EXPECT_TRUE(less0(a, b));
    EXPECT_FALSE(less0(b, a));
    EXPECT_TRUE(less1(b, a));  // by oid first
    EXPECT_FALSE(less0(a, a));
    // A row without data has the type's zero key, in both indexes.
    const BaseRow zero = makeRow(pairType(), {{"big", 5}});
    EXPECT_FALSE(less0(BaseRow(), zero) || less0(zero, BaseRow()) || less1(BaseRow(), zero));
    EXPECT_TRUE(less0(BaseRow(), a) && less1(BaseRow(), a));
    // Cached: asking again gives the same object, no allocation per call.
    EXPECT_EQ(handle->getRowOps("RowsTest::Pair", 0).get(), less0.ops().get());

    // Never null: an unknown type still orders rows (empty first, then by type id, then by key).
    const RowOpsKeyLess unknown(handle->getRowOps("No::SuchType", 0));
    const External::Publication pub = makeRecord<External::Publication>({{"subscription_id", 1}});
    EXPECT_TRUE(unknown(BaseRow(), pub));
    EXPECT_TRUE(unknown(pub, a));  // id 2 before a user type
    EXPECT_FALSE(unknown(a, pub));
}

}  // namespace
}  // namespace Velta::Test
