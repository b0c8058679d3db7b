// Hash indexes beside ordered containers: the bare index under heavily colliding hashes, the key
// hashes of rows (the host's key-hash capability), the aggregator's row-keyed map and the host
// tables that find keys through them. Every history is random but seeded, and is checked step by
// step against a plain ordered model. Last, the host's delivery lookahead capability.
#include "TestSupport.h"

#include <Velta/Agent/internal/KeyHashIndex.h>
#include <Velta/Agent/internal/RowKeyMap.h>
#include <Velta/HostCapability/KeyHash.h>
#include <Velta/HostCapability/Lookahead.h>

#include <functional>
#include <iterator>
#include <map>
#include <random>
#include <set>

namespace Velta::Test {
namespace {

using Agent::internal::KeyHashIndex;
using HostCapability::mixKey;
using HostCapability::RowKeyHash;

// ---- The bare index ----

using PosIndex = KeyHashIndex<std::uint32_t>;

PosIndex::Entry* entryOf(PosIndex& index, std::uint64_t hash, std::uint32_t pos) {
    return index.find(hash, false, [&](std::uint32_t p) { return p == pos; });
}

// Inserts and erases positions with hashes from `hashOf`, in waves that fill the index to `peak`
// entries and drain it to empty (so it grows, empties and is reused), checking after every step
// that the erased entry was there, that size agrees, and every few steps that every stored
// position is still reachable from its hash.
void runIndexHistory(const std::function<std::uint64_t(std::mt19937_64&)>& hashOf, std::uint64_t seed,
                     std::size_t peak, int steps) {
    std::mt19937_64 rng(seed);
    PosIndex index;
    std::map<std::uint32_t, std::uint64_t> model;  // position -> hash
    std::uint32_t next = 0;
    bool filling = true;
    for (int step = 0; step < steps; ++step) {
        if (model.size() >= peak) filling = false;
        if (model.empty()) filling = true;
        if (model.empty() || rng() % 10 < (filling ? 7u : 3u)) {
            const std::uint64_t h = hashOf(rng);
            index.insert(h, next);
            model.emplace(next++, h);
        } else {
            auto victim = std::next(model.begin(), static_cast<std::ptrdiff_t>(rng() % model.size()));
            PosIndex::Entry* e = entryOf(index, victim->second, victim->first);
            ASSERT_NE(e, nullptr) << "step " << step << ": position " << victim->first << " lost";
            index.erase(e);
            ASSERT_EQ(entryOf(index, victim->second, victim->first), nullptr) << "step " << step;
            model.erase(victim);
        }
        ASSERT_EQ(index.size(), model.size()) << "step " << step;
        if (step % 16 == 0) {
            for (const auto& [pos, h] : model)
                ASSERT_NE(entryOf(index, h, pos), nullptr)
                    << "step " << step << ": position " << pos << " lost";
        }
    }
}

TEST(KeyHashIndex, CollidingHistoriesMatchTheModel) {
    // One long run from the first slots.
    runIndexHistory([](std::mt19937_64& r) { return r() % 5; }, 1, 300, 20000);
    // Runs homed in the last slots that wrap around into runs homed in the first ones.
    runIndexHistory(
        [](std::mt19937_64& r) {
            const std::uint64_t s = r() % 6;
            return r() % 2 ? s : ~s;
        },
        2, 300, 20000);
    // Well-spread hashes: many short runs, some of them across the end of the slots.
    runIndexHistory([](std::mt19937_64& r) { return mixKey(r() % 5000); }, 3, 2000, 40000);
}

TEST(KeyHashIndex, ExactProbesTrustTheHashAndComparingProbesSkipRejectedCandidates) {
    PosIndex index;
    int calls = 0;
    auto never = [&](std::uint32_t) {
        ++calls;
        return false;
    };
    EXPECT_EQ(index.find(7, false, never), nullptr);
    index.insert(7, 1);
    index.insert(7 + 16, 2);  // same first slot, another hash
    index.insert(7, 3);
    EXPECT_EQ(index.size(), 3u);

    const PosIndex::Entry* e = index.find(7, true, never);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->pos, 1u);
    EXPECT_EQ(calls, 0);  // the hash alone decided
    std::multiset<std::uint32_t> asked;
    e = index.find(7, false, [&](std::uint32_t p) {
        asked.insert(p);
        return p == 3;
    });
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->pos, 3u);
    // A rejection goes on to the next candidate; entries with other hashes are not asked.
    EXPECT_EQ(asked, (std::multiset<std::uint32_t>{1, 3}));
    EXPECT_EQ(index.find(7, false, never), nullptr);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(index.find(8, true, never), nullptr);

    // Erasing the head of the run shifts the others back into reach.
    index.erase(entryOf(index, 7, 1));
    ASSERT_NE(entryOf(index, 23, 2), nullptr);
    ASSERT_NE(entryOf(index, 7, 3), nullptr);
    EXPECT_EQ(index.find(7, true, never)->pos, 3u);

    index.clear();
    EXPECT_EQ(index.size(), 0u);
    EXPECT_EQ(index.find(7, true, never), nullptr);
    for (std::uint32_t p = 0; p < 100; ++p) index.insert(p % 3, p);  // usable again, growing from nothing
    EXPECT_EQ(index.size(), 100u);
    for (std::uint32_t p = 0; p < 100; ++p) EXPECT_NE(entryOf(index, p % 3, p), nullptr) << p;
}

// ---- Key hashes ----

// Row operations of a host without the key-hash capability: the key order only.
class PlainOps final : public RowOps {
public:
    explicit PlainOps(std::shared_ptr<const RowOps> real) : real_(std::move(real)) {}
    bool keyLess(const BaseRow& a, const BaseRow& b) const override { return real_->keyLess(a, b); }

private:
    std::shared_ptr<const RowOps> real_;
};

const RowType& numType() {
    return Host::defineRowType("KeyIndexTest::Num", {{"k", FieldKind::u64}, {"v", FieldKind::u32}}, {"k"});
}
// The same key layout under another type: its rows hash exactly like numType's.
const RowType& twinType() {
    return Host::defineRowType("KeyIndexTest::Twin", {{"k", FieldKind::u64}, {"w", FieldKind::u32}}, {"k"});
}
const RowType& namedType() {
    return Host::defineRowType(
        "KeyIndexTest::Named",
        {{"oid", FieldKind::u32}, {"name", FieldKind::string}, {"value", FieldKind::u32}}, {"name"});
}
// A number first in a two-field key: the number alone does not identify a row.
const RowType& rankedType() {
    return Host::defineRowType(
        "KeyIndexTest::Ranked",
        {{"rank", FieldKind::u16}, {"group", FieldKind::string}, {"value", FieldKind::u32}},
        {"rank", "group"});
}
const RowType& taggedType() {
    return Host::defineRowType("KeyIndexTest::Tagged",
                               {{"tags", FieldKind::strings}, {"value", FieldKind::u32}}, {"tags"});
}

TEST(KeyHashes, MixIsABijectionThatSpreadsAndEqualKeysHashEqual) {
    std::set<std::uint64_t> inputs;
    for (std::uint64_t i = 0; i < 50000; ++i) inputs.insert(i);
    for (std::uint64_t i = 0; i < 1024; ++i) inputs.insert(i << 40);
    for (int b = 0; b < 64; ++b) inputs.insert(~(1ULL << b));
    std::set<std::uint64_t> outputs;
    for (const std::uint64_t k : inputs) outputs.insert(mixKey(k));
    EXPECT_EQ(outputs.size(), inputs.size());
    // Keys that differ only in high bits still get different first slots.
    std::set<std::uint64_t> slots;
    for (std::uint64_t i = 0; i < 1024; ++i) slots.insert(mixKey(i << 40) & 1023);
    EXPECT_GT(slots.size(), 550u);

    // Equal keys hash equal whatever the other fields; different keys (parts moved between
    // fields or list elements, bytes past the first word, a trailing NUL) hash apart.
    auto db = Host::Database::create();
    auto handle = db->connect({"keys", "keys"});
    auto hashOf = [&](const BaseRow& row) {  // by the host's operations for the row's type
        return RowKeyHash(handle->getRowOps(row.rowType()->name(), 0).get()).hash(row);
    };
    auto named = [](std::string n, unsigned v) {
        return makeRow(namedType(), {{"name", std::move(n)}, {"value", v}, {"oid", v}});
    };
    auto ranked = [](unsigned r, std::string g, unsigned v) {
        return makeRow(rankedType(), {{"rank", r}, {"group", std::move(g)}, {"value", v}});
    };
    auto tagged = [](std::vector<std::string> t, unsigned v) {
        return makeRow(taggedType(), {{"tags", std::move(t)}, {"value", v}});
    };
    const std::string longName = "a-name-well-past-sixteen-bytes";
    EXPECT_EQ(hashOf(named(longName, 1)), hashOf(named(longName, 2)));
    EXPECT_EQ(hashOf(ranked(3, longName, 1)), hashOf(ranked(3, longName, 2)));
    EXPECT_EQ(hashOf(tagged({"x", longName}, 1)), hashOf(tagged({"x", longName}, 2)));
    // (Rows of different types may share a hash: they never share a table or a key.)
    const std::vector<std::vector<BaseRow>> distinctByType = {
        {named("", 0), named("a", 0), named(std::string("a\0", 2), 0), named("abcdefgh", 0),
         named("abcdefghi", 0), named("abcdefgh-abcdefgX", 0), named("abcdefgh-abcdefgY", 0)},
        {ranked(1, "x", 0), ranked(2, "x", 0), ranked(1, "y", 0), ranked(0, "", 0), ranked(1, "", 0)},
        {tagged({}, 0), tagged({""}, 0), tagged({"", ""}, 0), tagged({"abc"}, 0), tagged({"ab", "c"}, 0),
         tagged({"a", "bc"}, 0), tagged({longName, "a"}, 0), tagged({"a", longName}, 0)}};
    for (const std::vector<BaseRow>& distinct : distinctByType) {
        std::set<std::uint64_t> hashes;
        for (const BaseRow& r : distinct) hashes.insert(hashOf(r));
        EXPECT_EQ(hashes.size(), distinct.size()) << distinct.front().rowType()->name();
    }

    // The helper hashes as the host's operations do, inline or not, and calls only a single number
    // key of the operations' own type exact; operations of another host do not hash at all.
    const auto numOps = handle->getRowOps(numType().name(), 0);
    const RowKeyHash numHash(numOps.get());
    const BaseRow n = makeRow(numType(), {{"k", 77}});
    const BaseRow t = makeRow(twinType(), {{"k", 77}});
    EXPECT_EQ(numHash.hash(n), mixKey(77));
    EXPECT_EQ(numHash.hash(t), mixKey(77));         // the real collision the owner map must survive
    EXPECT_EQ(numHash.hash(BaseRow()), mixKey(0));  // a row without data has the zero key
    EXPECT_EQ(dynamic_cast<const HostCapability::KeyHashing&>(*numOps).keyHash(n), mixKey(77));
    EXPECT_TRUE(numHash.exact(n));
    EXPECT_FALSE(numHash.exact(t));
    EXPECT_FALSE(RowKeyHash(handle->getRowOps(namedType().name(), 0).get()).exact(named("x", 0)));
    EXPECT_FALSE(RowKeyHash(std::make_shared<PlainOps>(numOps).get()).available());
}

// ---- Histories against a model, for the owner map and the host tables ----

// Keys of a history: the model key of each row, and a fresh row for each model key.
template <class K>
struct KeySpace {
    std::vector<K> keys;
    std::function<BaseRow(const K&, unsigned)> rowOf;  // the key plus a non-key value
    std::function<K(const BaseRow&)> keyOf;
};

KeySpace<std::uint64_t> numKeys() {
    KeySpace<std::uint64_t> s;
    for (std::uint64_t i = 0; i < 200; ++i) {
        s.keys.push_back(i << 40);
        s.keys.push_back(~i);
    }
    s.rowOf = [](std::uint64_t k, unsigned v) { return makeRow(numType(), {{"k", k}, {"v", v}}); };
    s.keyOf = [](const BaseRow& r) { return r.number(0); };
    return s;
}

KeySpace<std::string> nameKeys(std::size_t count) {
    KeySpace<std::string> s;
    for (std::size_t i = 0; i < count; ++i) s.keys.push_back(std::string(i % 17, 'k') + std::to_string(i));
    s.rowOf = [](const std::string& k, unsigned v) {
        return makeRow(namedType(), {{"name", k}, {"value", v}});
    };
    s.keyOf = [](const BaseRow& r) { return r.string(1); };
    return s;
}

// The map's values are shared owners, as in the aggregator: compared by address.
using Owner = std::shared_ptr<const unsigned>;
using OwnerMap = Agent::internal::RowKeyMap<const unsigned>;

// Owner 0 is null, a value the map carries like any other.
std::vector<Owner> makeOwners() {
    std::vector<Owner> owners{nullptr};
    for (unsigned i = 1; i < 8; ++i) owners.push_back(std::make_shared<const unsigned>(i));
    return owners;
}

template <class K>
std::vector<std::pair<K, Owner>> contentsOf(const OwnerMap& map, const KeySpace<K>& space) {
    std::vector<std::pair<K, Owner>> out;
    for (auto it = map.begin(); it != map.end(); ++it)
        out.emplace_back(space.keyOf(it->first), map.value(it));
    return out;
}

// Writes (locate, then a new key in at its place or a new owner), erasures that return the next
// element, lookups, and sweeps that walk the map erasing as they go and sometimes put an erased
// key straight back at the place it left, as the aggregator does with its owners.
template <class K>
void runMapHistory(const RowOpsKeyLess& less, const KeySpace<K>& space, std::uint64_t seed, int steps) {
    std::mt19937_64 rng(seed);
    const std::vector<Owner> owners = makeOwners();
    OwnerMap map(less);
    std::map<K, Owner> model;  // key -> owner
    auto anyOwner = [&] { return owners[rng() % owners.size()]; };
    auto checkFind = [&](const K& k) {
        const BaseRow key = space.rowOf(k, static_cast<unsigned>(rng()));
        const auto found = map.locate(key);
        const auto it = map.find(key);
        const auto m = model.find(k);
        if (m == model.end()) {
            EXPECT_TRUE(!found && it == map.end())
                << ::testing::PrintToString(k) << " found after its erasure";
        } else if (!found || it == map.end()) {
            ADD_FAILURE() << ::testing::PrintToString(k) << " not found";
        } else {
            EXPECT_TRUE(found.pos() == it);
            EXPECT_EQ(space.keyOf(it->first), k);
            EXPECT_EQ(map.value(it), m->second);
            EXPECT_EQ(found.value(), m->second)
                << ::testing::PrintToString(k) << ": the index holds a stale owner";
        }
    };
    for (int step = 0; step < steps && !::testing::Test::HasFailure(); ++step) {
        const unsigned op = static_cast<unsigned>(rng() % 100);
        const K k = space.keys[rng() % space.keys.size()];
        const BaseRow row = space.rowOf(k, static_cast<unsigned>(rng()));
        if (op < 40) {
            const Owner owner = anyOwner();
            const auto found = map.locate(row);
            ASSERT_EQ(static_cast<bool>(found), model.count(k) == 1)
                << "step " << step << " " << ::testing::PrintToString(k);
            if (found)
                map.assign(found, owner);
            else if (op % 2 == 0)
                map.emplace(row, owner);
            else
                map.emplace_hint(map.lower_bound(row), row, owner);
            model[k] = owner;
        } else if (op < 70) {
            const auto it = map.find(row);
            const auto m = model.find(k);
            ASSERT_EQ(it == map.end(), m == model.end())
                << "step " << step << " " << ::testing::PrintToString(k);
            if (m != model.end()) {
                const auto next = map.erase(it);
                const auto modelNext = model.erase(m);
                ASSERT_EQ(next == map.end(), modelNext == model.end()) << "step " << step;
                if (next != map.end()) {
                    ASSERT_EQ(space.keyOf(next->first), modelNext->first) << "step " << step;
                }
            }
        } else if (op < 98) {
            checkFind(k);
        } else {
            for (auto it = map.begin(); it != map.end();) {
                if (rng() % 2 == 0) {
                    ++it;
                    continue;
                }
                const BaseRow key = it->first;
                it = map.erase(it);
                model.erase(space.keyOf(key));
                if (rng() % 4 == 0) {
                    const Owner owner = anyOwner();
                    const auto back = map.emplace_hint(it, key, owner);
                    model[space.keyOf(key)] = owner;
                    ASSERT_TRUE(std::next(back) == it) << "step " << step;
                }
            }
        }
        ASSERT_EQ(map.size(), model.size()) << "step " << step;
        if (step % 64 == 0) {
            ASSERT_EQ(contentsOf(map, space), (std::vector<std::pair<K, Owner>>(model.begin(), model.end())));
            for (const K& key : space.keys) checkFind(key);
        }
    }
    // An owner is held by the map while a key names it, and released with the key.
    for (const Owner& owner : owners) {
        if (!owner) continue;
        const auto named =
            std::count_if(model.begin(), model.end(), [&](const auto& m) { return m.second == owner; });
        EXPECT_EQ(owner.use_count(), 1 + 2 * named) << "owner " << *owner;
    }
    while (!map.empty()) map.erase(map.begin());
    for (const K& key : space.keys) EXPECT_TRUE(map.find(space.rowOf(key, 0)) == map.end());
    model.clear();
    for (const Owner& owner : owners)
        EXPECT_TRUE(!owner || owner.use_count() == 1) << "a released key kept its owner";
}

// Host operations, except that keys collide on purpose: only the length of a name picks its hash.
class CollidingNameOps final : public RowOps, public HostCapability::KeyHashing {
public:
    explicit CollidingNameOps(std::shared_ptr<const RowOps> real) : real_(std::move(real)) {}
    bool keyLess(const BaseRow& a, const BaseRow& b) const override { return real_->keyLess(a, b); }
    std::uint64_t keyHash(const BaseRow& row) const override { return mixKey(row.string(1).size() % 3); }

private:
    std::shared_ptr<const RowOps> real_;
};

class RowKeyMapTest : public ::testing::Test {
protected:
    std::shared_ptr<Host::Database> db_ = Host::Database::create();
    VeltaDB::p_t handle_ = db_->connect({"keys", "keys"});
    RowOpsKeyLess lessFor(const RowType& type) const {
        return RowOpsKeyLess(handle_->getRowOps(type.name(), 0));
    }
};

TEST_F(RowKeyMapTest, NumberKeysTrustTheHash) { runMapHistory(lessFor(numType()), numKeys(), 11, 20000); }

TEST_F(RowKeyMapTest, StringKeysCompareRows) {
    runMapHistory(lessFor(namedType()), nameKeys(400), 12, 20000);
    // Every probe meets rows of other keys under the same hash.
    runMapHistory(
        RowOpsKeyLess(std::make_shared<CollidingNameOps>(handle_->getRowOps(namedType().name(), 0))),
        nameKeys(120), 13, 8000);
    // Operations that do not hash: every lookup walks the tree.
    runMapHistory(RowOpsKeyLess(std::make_shared<PlainOps>(handle_->getRowOps(namedType().name(), 0))),
                  nameKeys(120), 15, 8000);
}

TEST_F(RowKeyMapTest, KeysOfAnotherTypeTurnHashTrustOff) {
    // Ordered by the number type's operations; the twin type's rows hash to the very same values.
    const RowOpsKeyLess less = lessFor(numType());
    OwnerMap map(less);
    const std::vector<Owner> owners = makeOwners();
    const BaseRow twin5 = makeRow(twinType(), {{"k", 5}});
    const BaseRow num5 = makeRow(numType(), {{"k", 5}});
    map.emplace(twin5, owners[1]);
    ASSERT_FALSE(map.locate(num5));  // an equal hash of another type is no match
    map.emplace(num5, owners[2]);
    ASSERT_EQ(map.size(), 2u);
    EXPECT_EQ(map.locate(num5).value(), owners[2]);
    EXPECT_EQ(map.locate(twin5).value(), owners[1]);
    map.erase(map.find(twin5));
    ASSERT_TRUE(map.find(twin5) == map.end());
    EXPECT_EQ(map.value(map.find(num5)), owners[2]);

    // Both types over the same small numbers, so equal hashes of different keys meet all the time.
    KeySpace<std::pair<unsigned, std::uint64_t>> mixed;
    for (std::uint64_t k = 0; k < 150; ++k) {
        mixed.keys.emplace_back(numType().id(), k);
        mixed.keys.emplace_back(twinType().id(), k);
    }
    mixed.rowOf = [](const std::pair<unsigned, std::uint64_t>& key, unsigned v) {
        return key.first == numType().id() ? makeRow(numType(), {{"k", key.second}, {"v", v}})
                                           : makeRow(twinType(), {{"k", key.second}, {"w", v}});
    };
    mixed.keyOf = [](const BaseRow& r) { return std::make_pair(r.rowType()->id(), r.number(0)); };
    runMapHistory(less, mixed, 14, 20000);
}

// Writes, overwrites and deletions through the client API and through an interface, with
// lookups by key (interface row and find, client read) and walks that delete as they go.
template <class K>
void runTableHistory(const RowType& type, const KeySpace<K>& space, std::size_t valueField,
                     std::uint64_t seed, int steps) {
    auto db = Host::Database::create();
    auto agent = db->connect({"keys", "keys"});
    const std::string path = "test/keys";
    db->createTable(path, type.name());
    VeTableInterface iface("keys", type.name(), kModifierMode, {}, {}, {}, {});
    agent->bindInterface(iface, path, false);
    db->runUntilIdle();
    std::mt19937_64 rng(seed);
    std::map<K, unsigned> model;
    auto checkKey = [&](const K& k) {
        const BaseRow key = space.rowOf(k, static_cast<unsigned>(rng()));
        const auto m = model.find(k);
        const BaseRow viaRow = iface.row(key, 0);
        const VeRowIterator viaFind = iface.find(key, 0);
        const BaseRow viaRead = db->read(path, key);
        if (m == model.end()) {
            EXPECT_TRUE(viaRow.empty() && viaFind == iface.end(0) && viaRead.empty())
                << ::testing::PrintToString(k) << " found after its deletion";
            return;
        }
        ASSERT_FALSE(viaRow.empty() || viaFind == iface.end(0) || viaRead.empty())
            << ::testing::PrintToString(k) << " not found";
        for (const BaseRow& r : {viaRow, *viaFind, viaRead}) {
            EXPECT_EQ(space.keyOf(r), k);
            EXPECT_EQ(r.number(valueField), m->second) << ::testing::PrintToString(k);
        }
    };
    for (int step = 0; step < steps && !::testing::Test::HasFailure(); ++step) {
        const unsigned op = static_cast<unsigned>(rng() % 100);
        const K k = space.keys[rng() % space.keys.size()];
        if (op < 40) {
            const unsigned v = static_cast<unsigned>(rng() % 100000);
            BaseRow row = space.rowOf(k, v);
            if (op % 2 == 0)
                db->write(path, row);
            else
                iface.rowIs(row);
            model[k] = v;
        } else if (op < 65) {
            const BaseRow key = space.rowOf(k, 0);
            if (op % 2 == 0) {
                ASSERT_EQ(db->erase(path, key), model.count(k) == 1) << "step " << step;
            } else {
                iface.rowDel(key);
            }
            model.erase(k);
        } else if (op < 98) {
            checkKey(k);
        } else {
            for (VeRowIterator it = iface.begin(0); it != iface.end(0);) {
                if (rng() % 3 != 0) {
                    ++it;
                    continue;
                }
                model.erase(space.keyOf(*it));
                it = iface.rowDel(it);
            }
        }
        if (step % 64 == 0) {
            std::vector<std::pair<K, unsigned>> stored;
            for (const BaseRow& r : db->rows(path))
                stored.emplace_back(space.keyOf(r), static_cast<unsigned>(r.number(valueField)));
            ASSERT_EQ(stored, (std::vector<std::pair<K, unsigned>>(model.begin(), model.end())))
                << "step " << step;
            for (const K& key : space.keys) checkKey(key);
        }
    }
    // Dropping the table empties its indexes under a position still held there.
    VeRowIterator held = iface.begin(0);
    ASSERT_FALSE(model.empty());
    ASSERT_TRUE(db->dropTable(path));
    EXPECT_EQ(space.keyOf(*held), model.begin()->first);  // the row as the position saw it
    EXPECT_TRUE(++held == iface.end(0));
}

TEST(KeyIndexTables, StringKeyTableMatchesTheModel) {
    runTableHistory(namedType(), nameKeys(300), 2, 21, 12000);
}

TEST(KeyIndexTables, TwoFieldKeyTableMatchesTheModel) {
    KeySpace<std::pair<std::uint64_t, std::string>> s;
    for (std::uint64_t rank = 0; rank < 60; ++rank) {
        for (const char* group : {"", "g", "h", "a-group-name-longer-than-a-word"})
            s.keys.emplace_back(rank, group);
    }
    s.rowOf = [](const std::pair<std::uint64_t, std::string>& k, unsigned v) {
        return makeRow(rankedType(), {{"rank", k.first}, {"group", k.second}, {"value", v}});
    };
    s.keyOf = [](const BaseRow& r) { return std::make_pair(r.number(0), r.string(1)); };
    runTableHistory(rankedType(), s, 2, 22, 12000);
}

TEST(KeyIndexTables, ListKeyTableMatchesTheModel) {
    std::set<std::vector<std::string>> lists;
    for (unsigned i = 0; i < 200; ++i) {
        std::vector<std::string> tags;
        for (unsigned j = 0; j < i % 4; ++j)
            tags.push_back(std::string((i + j) % 3, 'a') + static_cast<char>('b' + (i / 4 + j) % 5));
        lists.insert(tags);
    }
    KeySpace<std::vector<std::string>> s;
    s.keys.assign(lists.begin(), lists.end());
    s.rowOf = [](const std::vector<std::string>& k, unsigned v) {
        return makeRow(taggedType(), {{"tags", k}, {"value", v}});
    };
    s.keyOf = [](const BaseRow& r) { return r.strings(0); };
    runTableHistory(taggedType(), s, 1, 23, 12000);
}

// ---- Delivery lookahead ----

// A hook sees each queued row event's row before that event is delivered, in queue order, and
// changes nothing about the deliveries; a null hook, a rebinding or another handle's interface stop
// it. Prefetching a key is harmless whatever the interface.
TEST(Lookahead, HooksSeeQueuedRowsBeforeTheirDeliveryAndChangeNothing) {
    auto db = Host::Database::create();
    auto reader = db->connect({"reader", "sys"});
    auto writer = db->connect({"writer", "sys"});
    auto* lookahead = HostCapability::Lookahead::of(*reader);
    ASSERT_NE(lookahead, nullptr);
    std::vector<std::string> log;  // "hook k" and "row k" / "delete k", in the order they happened
    VeTableInterface observer(
        "observer", numType().name(), kModeObserve | kModeRead, {},
        [&](const BaseRow& r) { log.push_back("row " + std::to_string(r.number(0))); },
        [&](const BaseRow& r) { log.push_back("delete " + std::to_string(r.number(0))); }, {});
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

    constexpr int kEvents = 40;
    for (int k = 0; k < kEvents; ++k) {
        BaseRow row = makeRow(numType(), {{"k", k}, {"v", k}});
        modifier.rowIs(row);
        if (k % 3 == 0) modifier.rowDel(row);
    }
    HostCapability::Lookahead::prefetchKey(observer, makeRow(numType(), {{"k", 5}}));
    HostCapability::Lookahead::prefetchKey(observer, makeRow(twinType(), {{"k", 5}}));
    HostCapability::Lookahead::prefetchKey(VeTableInterface("unbound", numType().name(), 1, {}, {}, {}, {}),
                                           BaseRow());
    db->runUntilIdle();

    // The deliveries are exactly the events, in order. The hooks name the same keys in the same
    // order, all but the first few events (queued too close to the front to be looked ahead), each
    // before its event is delivered.
    std::vector<std::string> expected;
    for (int k = 0; k < kEvents; ++k) {
        expected.push_back("row " + std::to_string(k));
        if (k % 3 == 0) expected.push_back("delete " + std::to_string(k));
    }
    std::vector<std::string> deliveries;
    std::vector<std::size_t> hookedAt;  // index in `deliveries` of the next delivery at each hook
    std::vector<std::string> hooked;
    for (const std::string& line : log) {
        if (line.rfind("hook ", 0) == 0) {
            hooked.push_back(line.substr(5));
            hookedAt.push_back(deliveries.size());
        } else {
            deliveries.push_back(line);
        }
    }
    ASSERT_EQ(deliveries, expected);
    const std::size_t first = expected.size() - hooked.size();
    ASSERT_TRUE(first > 0 && first <= 8) << hooked.size() << " hooks for " << expected.size() << " events";
    for (std::size_t i = 0; i < hooked.size(); ++i) {
        const std::string& event = expected[first + i];
        EXPECT_EQ(hooked[i], event.substr(event.find(' ') + 1)) << "hook " << i;
        EXPECT_LT(hookedAt[i], first + i) << "hook " << i << " came after its delivery";
    }

    // No hook: the log holds deliveries only; nor after a rebinding forgot it.
    for (const bool rebind : {false, true}) {
        if (rebind) {
            lookahead->lookaheadIs(observer, hook, &log);
            reader->bindInterface(observer, "test/ahead", false);
            observer.clientReadyIs(true);
        } else {
            lookahead->lookaheadIs(observer, nullptr, nullptr);
        }
        db->runUntilIdle();
        log.clear();
        for (int k = 0; k < 20; ++k) {
            BaseRow row = makeRow(numType(), {{"k", 100 + k}});
            modifier.rowIs(row);
        }
        db->runUntilIdle();
        EXPECT_EQ(log.size(), 20u) << (rebind ? "after rebinding" : "without a hook");
    }
}

}  // namespace
}  // namespace Velta::Test
