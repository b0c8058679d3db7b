// Row values, records and row types of the in-memory host.
#include "TestSupport.h"

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

TEST(HostRows, CopyOnWriteConversionPrintingAndEquality) {
    External::Publication original;
    original.subscription_idIs(7);
    original.errorIs("bad \"x\"");
    External::Publication edited = original;
    edited.errorIs("second");
    EXPECT_EQ(original.error(), "bad \"x\"");
    const RowData* before = edited.data();
    edited.view_idIs(3);  // a sole holder writes in place
    EXPECT_EQ(edited.data(), before);
    veCtrl::publication pub;
    pub.subscription_idIs(1);
    const veCtrl::publication cloned = pub.clone();  // data of its own even before any write
    EXPECT_TRUE(cloned.equals(pub) && !cloned.sameData(pub));
    // A stored row is shared: changing what a lookup gave changes nothing stored.
    auto db = Host::Database::create();
    db->write("velta/External/Publication", original);
    External::Publication read(db->read("velta/External/Publication", original));
    read.errorIs("changed by a reader");
    EXPECT_EQ(db->rows("velta/External/Publication")[0].toString(),
              "External::Publication{subscription_id=7 publication_id=0 connection_id=0 tableId=0 typeId=0 "
              "view_id=0 status=0 error=\"bad \\\"x\\\"\" ptime=0}");
    EXPECT_EQ(streamed(original), original.toString());
    EXPECT_EQ(BaseRow().toString(), "{}");

    // Another record reads fields by name; numbers are narrowed, kinds that differ read as missing.
    const RowType& wide = Host::defineRowType(
        "RowsTest::Wide", {{"rank", FieldKind::u64}, {"group", FieldKind::u32}, {"tags", FieldKind::strings}},
        {"rank"});
    const BaseRow p =
        makeRow(wide, {{"rank", 0x12345ull}, {"group", 5}, {"tags", {"a", "b"}}}).as(pairType());
    EXPECT_EQ(p.toString(), "RowsTest::Pair{oid=0 group=\"\" rank=9029 tags=[\"a\",\"b\"] big=0 on=0}");
    EXPECT_TRUE(External::Publication(static_cast<const BaseRow&>(original)).sameData(original));
    EXPECT_TRUE(External::Subscription(BaseRow()).empty());

    // Equality is by type and every value.
    const BaseRow a = makeRow(pairType(), {{"group", "g"}, {"tags", {"x"}}, {"on", true}});
    EXPECT_TRUE(a.equals(makeRow(pairType(), {{"group", "g"}, {"tags", {"x"}}, {"on", true}})));
    EXPECT_FALSE(a.equals(makeRow(pairType(), {{"group", "g"}, {"tags", {"y"}}, {"on", true}})));
    EXPECT_FALSE(a.equals(makeRow(pairType(), {{"group", "g"}, {"tags", {"x"}}})));
    EXPECT_FALSE(a.equals(BaseRow()));
    EXPECT_TRUE(BaseRow().equals(BaseRow()));
    EXPECT_FALSE(makeRow(wide, {}).equals(makeRow(pairType(), {})));
}

TEST(HostRowTypes, RegistryClassesAndRowOps) {
    const char* builtins[] = {"External::Subscription", "External::Publication",
                              "veCtrl::subscription",   "veCtrl::publication",
                              "veMetadata::veTable",    "veMetadata::SystemDescription",
                              "veMetadata::veClass"};
    auto db = Host::Database::create();
    auto handle = db->connect({"a", "s"});
    for (unsigned i = 0; i < std::size(builtins); ++i) {  // built-ins first, in their fixed order
        EXPECT_EQ(handle->tableTypeId(builtins[i], false), i + 1) << builtins[i];
        EXPECT_EQ(&builtinRowType(static_cast<BuiltinRow>(i)), Host::findRowType(builtins[i]));
    }
    EXPECT_GT(pairType().id(), 7u);
    EXPECT_EQ(handle->tableTypeId("RowsTest::Pair", false), pairType().id());
    EXPECT_EQ(&pairType(), &pairType());  // the same definition again: the same type
    // Anything else under a known name, duplicate or empty field names, or an unknown key: refused.
    for (const auto& [name, fields, key] :
         std::vector<std::tuple<std::string, std::vector<Host::FieldSpec>, std::vector<std::string>>>{
             {"RowsTest::Pair", {{"group", FieldKind::string}}, {"group"}},
             {"RowsTest::Bad", {{"a", FieldKind::u32}, {"a", FieldKind::u16}}, {"a"}},
             {"RowsTest::Bad", {{"", FieldKind::u32}}, {}},
             {"RowsTest::Bad", {{"a", FieldKind::u32}}, {"b"}}})
        EXPECT_THROW(Host::defineRowType(name, fields, key), std::invalid_argument) << name;
    EXPECT_EQ(Host::findRowType("RowsTest::Bad"), nullptr);
    for (FieldKind k : {FieldKind::u16, FieldKind::u32, FieldKind::u64, FieldKind::boolean, FieldKind::string,
                        FieldKind::strings})
        EXPECT_EQ(Host::parseFieldKind(fieldKindName(k)), k);
    EXPECT_EQ(Host::parseFieldKind("u8"), std::nullopt);
    EXPECT_EQ(pairType().oidField(), 0);  // slots are per kind
    EXPECT_EQ(pairType().numberCount() * 100 + pairType().stringCount() * 10 + pairType().listCount(), 411u);
    EXPECT_EQ(Host::findRowType("External::Publication")->oidField(), -1);
    EXPECT_EQ(veMetadata::veClass(VeltaDB::veClass("veMetadata::veTable")).fields(),
              (std::vector<std::string>{"oid:u32", "tablePath:string", "typeName:string", "owner:string"}));

    // Index 1 orders by oid first; a row without data has the zero key; the operations are cached.
    const RowOpsKeyLess less0(handle->getRowOps("RowsTest::Pair", 0));
    const RowOpsKeyLess less1(handle->getRowOps("RowsTest::Pair", 1));
    const BaseRow a = makeRow(pairType(), {{"oid", 9}, {"group", "a"}, {"rank", 2}});
    const BaseRow b = makeRow(pairType(), {{"oid", 1}, {"group", "a"}, {"rank", 3}});
    EXPECT_TRUE(less0(a, b) && less1(b, a) && !less0(a, a));
    const BaseRow zero = makeRow(pairType(), {{"big", 5}});
    EXPECT_FALSE(less0(BaseRow(), zero) || less0(zero, BaseRow()) || less1(BaseRow(), zero));
    EXPECT_TRUE(less0(BaseRow(), a) && less1(BaseRow(), a));
    EXPECT_EQ(handle->getRowOps("RowsTest::Pair", 0).get(), less0.ops().get());
    // An unknown type still orders rows: empty first, then by type id, then by key.
    const RowOpsKeyLess unknown(handle->getRowOps("No::SuchType", 0));
    const External::Publication pub = makeRecord<External::Publication>({{"subscription_id", 1}});
    EXPECT_TRUE(unknown(BaseRow(), pub) && unknown(pub, a) && !unknown(a, pub));
}

}  // namespace
}  // namespace Velta::Test
