// Hash indexes beside ordered containers (the aggregator's owner map, the host tables) under seeded
// histories checked step by step against an ordered model.
#include "TestSupport.h"

#include <Velta/Agent/internal/RowKeyMap.h>
#include <Velta/HostCapability/KeyHash.h>

#include <iterator>
#include <random>

namespace Velta::Test {
namespace {

using enum FieldKind;

const RowType& namedType() {
    return Host::defineRowType("KeyIndexTest::Named", {{"oid", u32}, {"name", string}, {"value", u32}},
                               {"name"});
}
// A number first in a two-field key: the number alone does not identify a row.
const RowType& rankedType() {
    return Host::defineRowType("KeyIndexTest::Ranked", {{"rank", u16}, {"group", string}, {"value", u32}},
                               {"rank", "group"});
}
const RowType& taggedType() {
    return Host::defineRowType("KeyIndexTest::Tagged", {{"tags", strings}, {"value", u32}}, {"tags"});
}

// Row operations of a host without the key-hash capability: the key order only.
class PlainOps : public RowOps {
public:
    explicit PlainOps(std::shared_ptr<const RowOps> real) : real_(std::move(real)) {}
    bool keyLess(const BaseRow& a, const BaseRow& b) const override { return real_->keyLess(a, b); }

private:
    std::shared_ptr<const RowOps> real_;
};

// Host operations whose hashes collide on purpose: a name's length picks one of six raw hashes,
// three homed in the first slots of an index and three in the last, whose runs wrap around.
class CollidingNameOps final : public PlainOps, public HostCapability::KeyHashing {
public:
    using PlainOps::PlainOps;
    std::uint64_t keyHash(const BaseRow& row) const override {
        const std::uint64_t n = row.string(1).size();
        return n % 2 ? n % 3 : ~(n % 3);
    }
};

// Keys of a history: the model key of each row, and a fresh row for each model key.
template <class K>
struct KeySpace {
    std::vector<K> keys;
    std::function<BaseRow(const K&, unsigned)> rowOf;
    std::function<K(const BaseRow&)> keyOf;
};

// A row's non-key value: the last field of each type here.
unsigned valueOf(const BaseRow& r) { return r.number(r.rowType()->fields().size() - 1); }

KeySpace<std::string> nameKeys(std::size_t count) {
    std::vector<std::string> keys;
    for (std::size_t i = 0; i < count; ++i) keys.push_back(std::string(i % 17, 'k') + std::to_string(i));
    return {keys,
            [](const std::string& k, unsigned v) {
                return makeRow(namedType(), {{"name", k}, {"value", v}});
            },
            [](const BaseRow& r) { return r.string(1); }};
}

// The map's values are shared owners, as in the aggregator, compared by address; owner 0 is null.
using Owner = std::shared_ptr<const unsigned>;

// Writes, erasures, lookups and erasing sweeps (which put some keys straight back, as the aggregator
// does) on an owner map ordered by `less` and, given `table`, a host table, checked against one model;
// each owner held exactly by the keys naming it (element and index entry), and by none once gone.
template <class K>
void runHistory(const RowOpsKeyLess& less, const KeySpace<K>& space, const RowType* table, std::uint64_t seed,
                int steps) {
    std::mt19937_64 rng(seed);
    std::vector<Owner> owners{nullptr};
    for (unsigned i = 1; i < 8; ++i) owners.push_back(std::make_shared<const unsigned>(i));
    Agent::internal::RowKeyMap<const unsigned> map(less);
    std::map<K, std::pair<Owner, unsigned>> model;  // key -> its owner in the map, its value in the table
    auto db = Host::Database::create();
    auto agent = db->connect({"keys", "keys"});
    const std::string path = "test/keys";
    std::unique_ptr<VeTableInterface> iface;
    if (table) {
        db->createTable(path, table->name());
        iface.reset(new VeTableInterface("keys", table->name(), kModifierMode, {}, {}, {}, {}));
        agent->bindInterface(*iface, path, false);
        db->runUntilIdle();
    }
    const auto where = [](const K& k) { return ::testing::PrintToString(k); };
    auto check = [&](const K& k) {
        const BaseRow key = space.rowOf(k, static_cast<unsigned>(rng()));
        const auto found = map.locate(key);
        const auto it = map.find(key);
        const auto m = model.find(k);
        ASSERT_EQ(static_cast<bool>(found), m != model.end()) << where(k);
        ASSERT_EQ(it == map.end(), m == model.end()) << where(k);
        if (found) {
            EXPECT_TRUE(found.pos() == it && space.keyOf(it->first) == k) << where(k);
            EXPECT_TRUE(map.value(it) == m->second.first && found.value() == m->second.first)
                << where(k) << ": a stale owner";
        }
        if (!table) return;
        const BaseRow viaRow = iface->row(key, 0);
        const VeRowIterator viaFind = iface->find(key, 0);
        const BaseRow viaRead = db->read(path, key);
        const std::vector<bool> misses{viaRow.empty(), viaFind == iface->end(0), viaRead.empty()};
        ASSERT_EQ(misses, std::vector(3, m == model.end())) << where(k);
        if (m == model.end()) return;
        for (const BaseRow& r : {viaRow, *viaFind, viaRead}) {
            EXPECT_EQ(space.keyOf(r), k);
            EXPECT_EQ(valueOf(r), m->second.second) << where(k);
        }
    };
    auto put = [&](const K& k, BaseRow row, const Owner& owner, bool viaClient) {
        const auto found = map.locate(row);
        ASSERT_EQ(static_cast<bool>(found), model.count(k) == 1) << where(k);
        if (found)
            map.assign(found, owner);
        else if (viaClient)
            map.emplace(row, owner);
        else
            map.emplace_hint(map.lower_bound(row), row, owner);
        model[k] = {owner, valueOf(row)};
        if (table && viaClient) db->write(path, row);
        if (table && !viaClient) iface->rowIs(row);
    };
    for (int step = 0; step < steps && !::testing::Test::HasFailure(); ++step) {
        const unsigned op = static_cast<unsigned>(rng() % 100);
        const K k = space.keys[rng() % space.keys.size()];
        const BaseRow row = space.rowOf(k, static_cast<unsigned>(rng() % 100000));
        if (op < 40) {
            put(k, row, owners[rng() % owners.size()], op % 2 == 0);
        } else if (op < 70) {
            const auto it = map.find(row);
            const auto m = model.find(k);
            ASSERT_EQ(it == map.end(), m == model.end()) << "step " << step;
            if (table && op % 2 == 0)
                ASSERT_EQ(db->erase(path, row), m != model.end()) << "step " << step;
            else if (table)
                iface->rowDel(row);
            if (m != model.end()) {
                const auto next = map.erase(it);
                const auto modelNext = model.erase(m);
                ASSERT_EQ(next == map.end() ? "" : where(space.keyOf(next->first)),
                          modelNext == model.end() ? "" : where(modelNext->first))
                    << "step " << step;
            }
        } else if (op < 97) {
            check(k);
        } else if (op < 99 || !table) {
            for (auto it = map.begin(); it != map.end();) {
                if (rng() % 2 == 0) {
                    ++it;
                    continue;
                }
                const BaseRow key = it->first;
                const K erased = space.keyOf(key);
                it = map.erase(it);
                if (table) iface->rowDel(key);
                if (rng() % 4 != 0) {
                    model.erase(erased);
                    continue;
                }
                const Owner& owner = model[erased].first = owners[rng() % owners.size()];
                ASSERT_TRUE(std::next(map.emplace_hint(it, key, owner)) == it) << "step " << step;
                BaseRow back = space.rowOf(erased, model[erased].second);
                if (table) iface->rowIs(back);
            }
        } else {
            for (VeRowIterator it = iface->begin(0); it != iface->end(0);) {
                if (rng() % 3 != 0) {
                    ++it;
                    continue;
                }
                const K erased = space.keyOf(*it);
                map.erase(map.find(*it));
                model.erase(erased);
                it = iface->rowDel(it);
            }
        }
        ASSERT_EQ(map.size(), model.size()) << "step " << step;
        if (step % 64 == 0) {
            std::vector<std::pair<K, std::pair<Owner, unsigned>>> contents;
            for (auto it = map.begin(); it != map.end(); ++it)
                contents.push_back(
                    {space.keyOf(it->first), {map.value(it), model[space.keyOf(it->first)].second}});
            ASSERT_EQ(contents, (decltype(contents)(model.begin(), model.end()))) << "step " << step;
            if (table) {
                std::vector<std::pair<K, unsigned>> stored, expected;
                for (const BaseRow& r : db->rows(path)) stored.emplace_back(space.keyOf(r), valueOf(r));
                for (const auto& [key, value] : model) expected.emplace_back(key, value.second);
                ASSERT_EQ(stored, expected) << "step " << step;
            }
            for (const K& key : space.keys) check(key);
        }
    }
    for (const Owner& owner : owners) {
        const auto named =
            std::count_if(model.begin(), model.end(), [&](const auto& m) { return m.second.first == owner; });
        EXPECT_TRUE(!owner || owner.use_count() == 1 + 2 * named) << "owner " << *owner;
    }
    while (!map.empty()) map.erase(map.begin());
    for (const K& key : space.keys) EXPECT_TRUE(map.find(space.rowOf(key, 0)) == map.end());
    model.clear();
    for (const Owner& owner : owners)
        EXPECT_TRUE(!owner || owner.use_count() == 1) << "a released key kept its owner";
}

TEST(KeyIndexes, HistoriesMatchTheModel) {
    auto db = Host::Database::create();
    auto handle = db->connect({"keys", "keys"});
    const auto less = [&](const RowType& type) { return RowOpsKeyLess(handle->getRowOps(type.name(), 0)); };
    // Number keys: the hash alone decides, and the tree compares inline. Then keys of the twin type
    // too, whose equal hashes are other keys: hash trust ends while one is in the map.
    using NumKey = std::pair<unsigned, std::uint64_t>;
    KeySpace<NumKey> numbers{
        {},
        [](const NumKey& key, unsigned v) {
            return makeRow(numType(key.first != numType().id()), {{"k", key.second}, {"v", v}});
        },
        [](const BaseRow& r) { return std::make_pair(r.rowType()->id(), r.number(0)); }};
    for (std::uint64_t k = 0; k < 200; ++k)
        for (const std::uint64_t key : {k << 40, ~k}) numbers.keys.emplace_back(numType().id(), key);
    runHistory(less(numType()), numbers, &numType(), 11, 20000);
    for (std::uint64_t k = 0; k < 100; ++k) numbers.keys.emplace_back(numType(true).id(), ~k);
    runHistory(less(numType()), numbers, nullptr, 14, 20000);
    // String keys compare rows; with colliding hashes every probe meets other keys; operations
    // that do not hash leave every lookup to the tree.
    const auto namedOps = handle->getRowOps(namedType().name(), 0);
    runHistory(less(namedType()), nameKeys(400), &namedType(), 12, 20000);
    runHistory(RowOpsKeyLess(std::make_shared<CollidingNameOps>(namedOps)), nameKeys(120), nullptr, 13, 8000);
    runHistory(RowOpsKeyLess(std::make_shared<PlainOps>(namedOps)), nameKeys(120), nullptr, 15, 8000);
    // Keys of two fields, a number first, and keys that are lists.
    using RankKey = std::pair<std::uint64_t, std::string>;
    KeySpace<RankKey> ranked{
        {},
        [](const RankKey& k, unsigned v) {
            return makeRow(rankedType(), {{"rank", k.first}, {"group", k.second}, {"value", v}});
        },
        [](const BaseRow& r) { return std::make_pair(r.number(0), r.string(1)); }};
    for (std::uint64_t rank = 0; rank < 60; ++rank)
        for (const char* group : {"", "g", "h", "a-group-name-longer-than-a-word"})
            ranked.keys.emplace_back(rank, group);
    runHistory(less(rankedType()), ranked, &rankedType(), 22, 12000);
    std::set<std::vector<std::string>> lists;
    for (unsigned i = 0; i < 200; ++i) {
        std::vector<std::string> tags;
        for (unsigned j = 0; j < i % 4; ++j)
            tags.push_back(std::string((i + j) % 3, 'a') + static_cast<char>('b' + (i / 4 + j) % 5));
        lists.insert(tags);
    }
    KeySpace<std::vector<std::string>> tagged{{lists.begin(), lists.end()},
                                              [](const std::vector<std::string>& k, unsigned v) {
                                                  return makeRow(taggedType(), {{"tags", k}, {"value", v}});
                                              },
                                              [](const BaseRow& r) { return r.strings(0); }};
    runHistory(less(taggedType()), tagged, &taggedType(), 23, 12000);
}

}  // namespace
}  // namespace Velta::Test
