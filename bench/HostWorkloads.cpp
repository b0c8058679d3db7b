// Host workloads: a row write with its delivery, the std::map it is compared with, the
// translator's intake, and the aggregator's resync with the lookups it is made of.
#include "BenchSupport.h"

#include <Velta/Agent/Aggregator.h>
#include <Velta/Agent/SubscriptionTranslator.h>
#include <Velta/Records.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <utility>

namespace Velta::Bench {
namespace {

constexpr std::size_t kStreamLength = 1 << 17;

// Random keys below `keys`, the same for a given seed.
std::vector<std::uint64_t> randomKeys(std::size_t keys, std::size_t count, std::uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::vector<std::uint64_t> result(count);
    for (auto& key : result) key = rng() % keys;
    return result;
}

// ---------------------------------------------------------------------------------------------
// One row written through a modifier, its notification delivered to an observer in another agent.

class HostWriteWorld : public Workload {
public:
    explicit HostWriteWorld(std::size_t keys)
        : db_(Host::Database::create(benchOptions())),
          writer_(db_->connect({"writer", "bench"})),
          reader_(db_->connect({"reader", "bench"})),
          modifier_("modifier", benchRowType().name(), kModifierMode, noReady(), noRow(), noRow(), noFlag()),
          observer_(
              "observer", benchRowType().name(), kObserverMode, noReady(),
              [this](const BaseRow& row) {
                  ++deliveries_;
                  checksum_ += row.number(kCountField);
              },
              noRow(), noFlag()) {
        db_->createTable(kPath, benchRowType().name());
        writer_->bindInterface(modifier_, kPath, false);
        reader_->bindInterface(observer_, kPath, false);
        observer_.clientReadyIs(true);
        db_->runUntilIdle();
        for (std::uint64_t key = 0; key < keys; ++key) {
            BaseRow row = benchRow(key, key);
            modifier_.rowIs(row);
            if ((key + 1) % kLoopBatch == 0) db_->runUntilIdle();
        }
        db_->runUntilIdle();
        if (db_->rowCount(kPath) != keys || deliveries_ != keys)
            worldBroken("host write world: table or deliveries incomplete");
        for (std::uint64_t key : randomKeys(keys, kStreamLength, 7))
            rows_.push_back(benchRow(key, rows_.size()));
        nsPerUnit(1);
        if (deliveries_ != keys + 1) worldBroken("host write world: the observer missed a row");
    }

    double nsPerUnit(std::size_t units) override {
        const double start = nowNs();
        for (std::size_t i = 0; i < units; ++i) {
            modifier_.rowIs(rows_[next_]);
            if (++next_ == rows_.size()) next_ = 0;
            if ((i + 1) % kLoopBatch == 0) db_->runUntilIdle();
        }
        db_->runUntilIdle();
        return (nowNs() - start) / static_cast<double>(units);
    }

private:
    static constexpr const char* kPath = "velta/bench/table";
    std::shared_ptr<Host::Database> db_;
    VeltaDB::p_t writer_;
    VeltaDB::p_t reader_;
    VeTableInterface modifier_;
    VeTableInterface observer_;
    std::vector<BaseRow> rows_;
    std::size_t next_ = 0;
    std::size_t deliveries_ = 0;
    std::uint64_t checksum_ = 0;  // keeps the observer's work observable
};

// The same keys and values in a std::map, by insert-or-assign.
class MapWorld : public Workload {
public:
    struct Value {
        std::uint64_t count = 0;
        std::string label;
    };

    explicit MapWorld(std::size_t keys) {
        for (std::uint64_t key = 0; key < keys; ++key)
            map_.insert_or_assign(key, valueOf(benchRow(key, key)));
        for (std::uint64_t key : randomKeys(keys, kStreamLength, 7))
            entries_.emplace_back(key, valueOf(benchRow(key, entries_.size())));
    }

    double nsPerUnit(std::size_t units) override {
        const double start = nowNs();
        for (std::size_t i = 0; i < units; ++i) {
            const auto& [key, value] = entries_[next_];
            map_.insert_or_assign(key, value);
            if (++next_ == entries_.size()) next_ = 0;
        }
        const double elapsed = nowNs() - start;
        if (map_.empty()) worldBroken("map world: empty");
        return elapsed / static_cast<double>(units);
    }

private:
    static Value valueOf(const BaseRow& row) { return {row.number(kCountField), row.string(kLabelField)}; }
    std::map<std::uint64_t, Value> map_;
    std::vector<std::pair<std::uint64_t, Value>> entries_;
    std::size_t next_ = 0;
};

// ---------------------------------------------------------------------------------------------
// The host calls a server agent's intake makes for one new External::Subscription (a direct
// standing read of a table that exists), in the translator's order, and nothing else: the type
// and table lookups, the system description by oid, the control row written and read back, the
// two publication lookups and the placeholder publication written. No registry, no checks, no
// traces: what any intake pays the host on this interface.

class HostCallsIntake {
public:
    explicit HostCallsIntake(const VeltaDB::p_t& vdb)
        : vdb_(vdb),
          subsObserver_(
              "extSubsObserver", External::Subscription::rowTypeName(), kObserverMode, noReady(),
              [this](const BaseRow& row) { onRow(row); }, noRow(), noFlag()),
          subsReader_("subsReader", veCtrl::subscription::rowTypeName(), kReaderMode, noReady(), noRow(),
                      noRow(), noFlag()),
          subsModifier_("subsModifier", veCtrl::subscription::rowTypeName(), kModifierMode, noReady(),
                        noRow(), noRow(), noFlag()),
          extPubModifier_("extPubModifier", External::Publication::rowTypeName(), kModifierMode, noReady(),
                          noRow(), noRow(), noFlag()),
          pubReader_("pubReader", veCtrl::publication::rowTypeName(), kReaderMode, noReady(), noRow(),
                     noRow(), noFlag()),
          sysDescReader_("sysDescReader", veMetadata::SystemDescription::rowTypeName(), kReaderMode,
                         noReady(), noRow(), noRow(), noFlag()) {
        vdb->bindInterface(subsObserver_, "velta/External/Subscription", false);
        vdb->bindInterface(subsReader_, "velta/veCtrl/subscription", false);
        vdb->bindInterface(subsModifier_, "velta/veCtrl/subscription", false);
        vdb->bindInterface(extPubModifier_, "velta/External/Publication", false);
        vdb->bindInterface(pubReader_, "velta/veCtrl/publication", false);
        vdb->bindInterface(sysDescReader_, "velta/metadata/SystemDescription", false);
        sysDescReader_.activateIndex(1);
        subsObserver_.clientReadyIs(true);
    }

private:
    void onRow(const BaseRow& row) {
        // The texts are read where the row holds them, as the translator reads them.
        static const auto field = [](std::string_view name) {
            return static_cast<std::size_t>(External::Subscription::type().fieldIndex(name));
        };
        static const std::size_t kOutputPath = field("outputPath"), kTypeName = field("typeName");
        const External::Subscription sub(row);
        const std::string& typeName = row.string(kTypeName);
        const unsigned typeId = vdb_->tableTypeId(typeName, false);
        const veMetadata::veTable table = vdb_->tableInfo(row.string(kOutputPath));
        veMetadata::SystemDescription sysDesc;
        sysDesc.oidIs(sub.system_description());
        if (sysDescReader_.row(sysDesc, 1).empty() || table.empty())
            worldBroken("host calls intake: lookup failed");
        veCtrl::subscription ctrl;
        ctrl.system_descriptionIs(sub.system_description());
        ctrl.connection_idIs(sub.oid());
        ctrl.tableIdIs(table.oid());
        ctrl.typeNameIs(typeName);
        subsModifier_.rowIs(ctrl);
        const veCtrl::subscription stored(subsReader_.row(ctrl, 0));
        vdb_->tableTypeId(typeName, false);  // the registry entry reads the type id again
        External::Publication pub;
        pub.subscription_idIs(sub.oid());
        veCtrl::publication internalKey;
        internalKey.subscription_idIs(stored.oid());
        if (!extPubModifier_.row(pub, 0).empty() || !pubReader_.row(internalKey, 0).empty()) return;
        pub.statusIs(true);
        pub.tableIdIs(table.oid());
        pub.typeIdIs(typeId);
        extPubModifier_.rowIs(pub);
    }

    VeltaDB::p_t vdb_;
    VeTableInterface subsObserver_;
    VeTableInterface subsReader_;
    VeTableInterface subsModifier_;
    VeTableInterface extPubModifier_;
    VeTableInterface pubReader_;
    VeTableInterface sysDescReader_;
};

// The translator's intake in a server agent: a client writes a new External::Subscription (a
// direct standing read of a table that exists), the translator checks it, writes the control row,
// records it and writes the placeholder publication. Or, with `hostCallsOnly`, the same
// subscriptions met by HostCallsIntake instead of the translator.

class IntakeWorld : public Workload {
public:
    explicit IntakeWorld(bool hostCallsOnly) : hostCallsOnly_(hostCallsOnly) { build(); }

    double nsPerUnit(std::size_t units) override {
        if (next_ + units > kTables * kSystems) build();
        std::vector<BaseRow> subs;
        subs.reserve(units);
        for (std::size_t i = 0; i < units; ++i) subs.push_back(subscription(next_ + i));
        const std::size_t ctrlBefore = db_->rowCount("velta/veCtrl/subscription");
        const double start = nowNs();
        for (std::size_t i = 0; i < units; ++i) {
            clientModifier_->rowIs(subs[i]);
            if ((i + 1) % kLoopBatch == 0) db_->runUntilIdle();
        }
        db_->runUntilIdle();
        const double elapsed = nowNs() - start;
        next_ += units;
        if (db_->rowCount("velta/veCtrl/subscription") != ctrlBefore + units ||
            db_->rowCount("velta/External/Publication") != next_)
            worldBroken("intake world: not every subscription was established");
        return elapsed / static_cast<double>(units);
    }

private:
    static constexpr std::size_t kTables = 16;
    static constexpr std::size_t kSystems = 16'384;

    static std::string tablePath(std::size_t table) { return "velta/bench/sub/t" + std::to_string(table); }

    External::Subscription subscription(std::size_t index) const {
        External::Subscription sub;
        const std::string path = tablePath(index % kTables);
        sub.system_descriptionIs(static_cast<std::uint32_t>(1 + index / kTables));
        sub.outputPathIs(path);
        sub.typeNameIs(benchRowType().name());
        sub.queryTextIs("SELECT * FROM " + path);
        sub.standingIs(true);
        return sub;
    }

    void build() {
        clientModifier_.reset();
        client_.reset();
        translator_.reset();
        hostCalls_.reset();
        server_.reset();
        db_ = Host::Database::create(benchOptions());
        next_ = 0;
        for (std::size_t t = 0; t < kTables; ++t) db_->createTable(tablePath(t), benchRowType().name());
        for (std::size_t s = 1; s <= kSystems; ++s) {
            veMetadata::SystemDescription desc;
            desc.oidIs(static_cast<std::uint32_t>(s));
            desc.sysNameIs("bench");
            desc.agentNameIs("client");
            db_->write("velta/metadata/SystemDescription", desc);
        }
        Host::AgentOptions server{"server", "bench"};
        server.serverAgent = true;
        server_ = db_->connect(server);
        if (hostCallsOnly_)
            hostCalls_ = std::make_unique<HostCallsIntake>(server_);
        else
            translator_ = std::make_unique<Agent::SubscriptionTranslator>(server_);
        client_ = db_->connect({"client", "bench"});
        clientModifier_ =
            std::make_unique<VeTableInterface>("clientModifier", External::Subscription::rowTypeName(),
                                               kModifierMode, noReady(), noRow(), noRow(), noFlag());
        client_->bindInterface(*clientModifier_, "velta/External/Subscription", false);
        db_->runUntilIdle();
    }

    std::shared_ptr<Host::Database> db_;
    VeltaDB::p_t server_;
    bool hostCallsOnly_;
    std::unique_ptr<Agent::SubscriptionTranslator> translator_;
    std::unique_ptr<HostCallsIntake> hostCalls_;
    VeltaDB::p_t client_;
    std::unique_ptr<VeTableInterface> clientModifier_;
    std::size_t next_ = 0;
};

// ---------------------------------------------------------------------------------------------
// Resync: 4 inputs, every output row held only by the last input in path order.

struct ResyncWorld {
    static constexpr unsigned kInputs = 4;

    explicit ResyncWorld(std::size_t keys) : keys(keys), db(Host::Database::create(benchOptions())) {
        for (unsigned i = 0; i < kInputs; ++i) db->createTable(mergeInputPath(i), benchRowType().name());
        aggregator =
            std::make_unique<Agent::Aggregator>(db->connect({"merger", "bench"}), kMergePrefix, kMergeSuffix,
                                                mergeOutputPath(), benchRowType().name(), false, true, false);
        db->runUntilIdle();
        producer = db->connect({"producer", "bench"});
        lastInput = std::make_unique<VeTableInterface>("producerModifier", benchRowType().name(),
                                                       kModifierMode, noReady(), noRow(), noRow(), noFlag());
        producer->bindInterface(*lastInput, mergeInputPath(kInputs - 1), false);
        db->runUntilIdle();
        for (std::uint64_t key = 0; key < keys; ++key) {
            BaseRow row = benchRow(key, key);
            lastInput->rowIs(row);
            if ((key + 1) % kLoopBatch == 0) db->runUntilIdle();
        }
        db->runUntilIdle();
        if (db->rowCount(mergeOutputPath()) != keys) worldBroken("resync world: output incomplete");
    }

    std::size_t keys;
    std::shared_ptr<Host::Database> db;
    std::unique_ptr<Agent::Aggregator> aggregator;
    VeltaDB::p_t producer;
    std::unique_ptr<VeTableInterface> lastInput;
};

class ResyncWorkload : public Workload {
public:
    explicit ResyncWorkload(std::shared_ptr<ResyncWorld> world) : world_(std::move(world)) {}

    double nsPerUnit(std::size_t units) override {
        const std::size_t passes = std::max<std::size_t>(1, units / world_->keys);
        const double start = nowNs();
        for (std::size_t p = 0; p < passes; ++p) world_->aggregator->enableIs(true);
        world_->db->runUntilIdle();
        const double elapsed = nowNs() - start;
        if (world_->db->rowCount(mergeOutputPath()) != world_->keys)
            worldBroken("resync world: resync lost rows");
        return elapsed / static_cast<double>(passes * world_->keys);
    }

private:
    std::shared_ptr<ResyncWorld> world_;
};

// The lookups of a resync done directly: for each output row in key order, one row() per input.
class ResyncLookups : public Workload {
public:
    explicit ResyncLookups(std::shared_ptr<ResyncWorld> world)
        : world_(std::move(world)), handle_(world_->db->connect({"lookups", "bench"})) {
        for (unsigned i = 0; i < ResyncWorld::kInputs; ++i) {
            readers_.push_back(std::make_unique<VeTableInterface>(
                "reader", benchRowType().name(), kReaderMode, noReady(), noRow(), noRow(), noFlag()));
            handle_->bindInterface(*readers_.back(), mergeInputPath(i), false);
        }
        world_->db->runUntilIdle();
        keys_ = world_->db->rows(mergeOutputPath());
    }

    double nsPerUnit(std::size_t units) override {
        const std::size_t passes = std::max<std::size_t>(1, units / keys_.size());
        std::size_t found = 0;
        const double start = nowNs();
        for (std::size_t p = 0; p < passes; ++p) {
            for (const BaseRow& key : keys_) {
                for (const auto& reader : readers_) {
                    if (!reader->row(key, 0).empty()) {
                        ++found;
                    }
                }
            }
        }
        const double elapsed = nowNs() - start;
        if (found != passes * keys_.size()) worldBroken("resync lookups: wrong number of rows found");
        return elapsed / static_cast<double>(passes * keys_.size());
    }

private:
    std::shared_ptr<ResyncWorld> world_;
    VeltaDB::p_t handle_;
    std::vector<std::unique_ptr<VeTableInterface>> readers_;
    std::vector<BaseRow> keys_;
};

}  // namespace

std::unique_ptr<Workload> makeHostWriteWorkload(std::size_t keys) {
    return std::make_unique<HostWriteWorld>(keys);
}
std::unique_ptr<Workload> makeMapWorkload(std::size_t keys) { return std::make_unique<MapWorld>(keys); }
std::unique_ptr<Workload> makeIntakeWorkload() { return std::make_unique<IntakeWorld>(false); }
std::unique_ptr<Workload> makeIntakeHostCallsWorkload() { return std::make_unique<IntakeWorld>(true); }

ResyncPair makeResyncWorkloads(std::size_t keys) {
    auto world = std::make_shared<ResyncWorld>(keys);
    ResyncPair pair;
    pair.resync = std::make_unique<ResyncWorkload>(world);
    pair.lookups = std::make_unique<ResyncLookups>(world);
    return pair;
}

}  // namespace Velta::Bench
