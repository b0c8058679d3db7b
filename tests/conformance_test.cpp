// The host conformance kit against the in-memory host, and proof that each of its checks catches
// what it claims: a stand-in host (the in-memory host behind a wrapper) that gets one thing wrong
// fails exactly the check of that contract; the same wrapper getting nothing wrong, or making
// another of the choices the interface leaves to a host, fails none.
#include "TestSupport.h"
#include "consumer/InMemoryHost.h"

#include <Velta/Conformance/HostConformance.h>

#include <gtest/gtest-spi.h>

namespace Velta::Test {
namespace {

const bool kRegistered =
    (Conformance::registerHostConformance("InMemoryHost", [] { return std::make_unique<InMemoryHost>(); }),
     true);

// One interface bound through the lab: the kit's own callbacks, and what a twist keeps about it.
struct Bound {
    VeTableInterface* iface = nullptr;
    std::string path;
    VeTableInterface::ReadyCallback ready;
    VeTableInterface::RowCallback row, rowDeleted;
    bool held = false;
    std::optional<BaseRow> stash;
    bool observing() const { return (iface->mode() & kModeObserve) != 0; }
};
using BoundP = std::shared_ptr<Bound>;
using RowHook = std::function<void(Bound&, const BaseRow&)>;
// A registerTable call as the lab sees it: `forward` makes it on the host.
struct Registration {
    VeltaDB& inner;
    std::string path, type, owner;
    std::function<void()> forward;
};

// The in-memory host behind a wrapper whose hooks forward everything unchanged; a twist replaces
// the hooks it needs. The host calls the hooks, the hooks call the kit's callbacks.
class Lab : public InMemoryHost {
public:
    using InMemoryHost::InMemoryHost;
    ~Lab() override { Host::Database::copyOnWriteIs(true); }
    static void bindNow(VeltaDB& inner, const BoundP& b, bool flag) {
        inner.bindInterface(*b->iface, b->path, flag);
    }

    std::function<void(VeltaDB&, const BoundP&, bool)> bind = bindNow;
    std::function<void(const BoundP&)> afterBind = [](const BoundP&) {};
    std::function<void(Bound&)> ready = [](Bound& b) { b.ready(); };
    RowHook row = [](Bound& b, const BaseRow& r) { b.row(r); };
    RowHook rowDeleted = [](Bound& b, const BaseRow& r) { b.rowDeleted(r); };
    std::function<bool()> afterDeliver = [] { return false; };  // true: deliver again
    std::function<std::string(const std::string&)> tableTypeOf = [](const std::string& t) { return t; };
    std::function<void(const std::string&, const BaseRow&)> erase = [this](auto& p, auto& k) {
        db_->erase(p, k);
    };
    std::function<void(const Registration&)> registration = [](const Registration& r) { r.forward(); };
    bool noInfoById = false, unknownTypeIsZero = false, rowOpsOfIndexOne = false, standaloneInverted = false,
         queriesAtOnce = false, ownRowsOrderedWhole = false;
    std::vector<std::function<void()>> deferred;  // run when the lab next delivers
    int depth = 0;                                // callbacks running now

    Host::Database& db() { return *db_; }
    // Whether `f` answered true for any live interface bound through the lab (each is asked).
    bool anyLive(const std::function<bool(Bound&)>& f) const {
        bool any = false;
        for (const auto& w : bound_)
            if (const BoundP b = w.lock()) any = f(*b) || any;
        return any;
    }

    VeltaDB::p_t connect(const Conformance::AgentSpec& a) override {
        return std::make_shared<Handle>(*this, InMemoryHost::connect(a));
    }
    void createTable(const std::string& path, const std::string& type) override {
        db_->createTable(path, tableTypeOf(type));
    }
    void deleteRow(const std::string& path, const BaseRow& key) override { erase(path, key); }
    void deliver() override {
        for (const auto& now : std::exchange(deferred, {})) now();
        do db_->runUntilIdle();
        while (afterDeliver());
    }

private:
    class Handle : public Host::ForwardingVeltaDB {
    public:
        Handle(Lab& lab, VeltaDB::p_t inner)
            : ForwardingVeltaDB(inner), lab_(lab), inner_(std::move(inner)) {}
        void bindInterface(VeTableInterface& iface, const std::string& path, bool flag) override {
            lab_.attach(*inner_, iface, path, flag);
        }
        void registerTable(const std::string& path, const std::string& type, TableType kind,
                           unsigned short desired, unsigned short flags, const std::string& owner) override {
            lab_.registration({*inner_, path, type, owner, [=, this] {
                                   inner_->registerTable(path, type, kind, desired, flags, owner);
                               }});
        }
        void defineQuery(const std::string& text, unsigned typeId, const QueryParams& params,
                         QueryCompletion done, bool standing, const std::string& name) override {
            if (lab_.queriesAtOnce) return done(true, 1, "");
            inner_->defineQuery(text, typeId, params, std::move(done), standing, name);
        }
        using ForwardingVeltaDB::tableInfo;
        veMetadata::veTable tableInfo(unsigned oid) const override {
            return lab_.noInfoById ? veMetadata::veTable() : inner_->tableInfo(oid);
        }
        unsigned tableTypeId(const std::string& type, bool flag) const override {
            const unsigned id = inner_->tableTypeId(type, flag);
            return lab_.unknownTypeIsZero && id == kUnknownTypeId ? 0 : id;
        }
        std::shared_ptr<const RowOps> getRowOps(const std::string& type, unsigned char index) const override {
            struct WholeRowOps : RowOps {  // the printed row, key or not
                bool keyLess(const BaseRow& a, const BaseRow& b) const override {
                    return a.toString() < b.toString();
                }
            };
            if (lab_.ownRowsOrderedWhole && type == lab_.ownRowType().name)
                return std::make_shared<WholeRowOps>();
            return inner_->getRowOps(type, lab_.rowOpsOfIndexOne ? 1 : index);
        }
        bool standalone() const override { return inner_->standalone() != lab_.standaloneInverted; }

    private:
        Lab& lab_;
        VeltaDB::p_t inner_;
    };

    // Takes over the interface's callbacks (the host calls the lab, the lab the kit: test-only, a
    // real host never does this), then binds.
    void attach(VeltaDB& inner, VeTableInterface& iface, const std::string& path, bool flag) {
        auto b = std::make_shared<Bound>();
        *b = {&iface, path, iface.readyCallback(), iface.rowCallback(), iface.deleteCallback(), false, {}};
        bound_.push_back(b);
        const auto guarded = [this](const std::function<void()>& call) { ++depth, call(), --depth; };
        if (b->ready)
            const_cast<VeTableInterface::ReadyCallback&>(iface.readyCallback()) = [=, this] {
                guarded([&] { ready(*b); });
            };
        for (auto [cb, hook] :
             {std::pair{&iface.rowCallback(), &row}, {&iface.deleteCallback(), &rowDeleted}})
            if (*cb)
                const_cast<VeTableInterface::RowCallback&>(*cb) = [=](const BaseRow& r) {
                    guarded([&] { (*hook)(*b, r); });
                };
        bind(inner, b, flag);
        afterBind(b);
    }

    std::vector<std::weak_ptr<Bound>> bound_;  // a Bound lives as long as its interface's callbacks
};

// Tables of the built-in type `name` get a like type "Lab::<name>", with another key or without oid.
std::function<std::string(const std::string&)> variantType(const std::string& name,
                                                           std::vector<std::string> key, bool withOid) {
    return [=](const std::string& type) {
        if (type != name) return type;
        std::vector<Host::FieldSpec> fields;
        for (const RowType::Field& f : Host::findRowType(name)->fields())
            if (withOid || f.name != "oid") fields.push_back({f.name, f.kind});
        return Host::defineRowType("Lab::" + name, fields, key).name();
    };
}

bool releaseHeldReady(Bound& b) { return std::exchange(b.held, false) && (b.ready(), true); }
bool flushStashedRow(Bound& b) { return b.stash && (b.row(*std::exchange(b.stash, std::nullopt)), true); }

struct Proof {
    std::string twist;
    std::string breaks;  // the check that must fail alone; empty: a host's choice, no check may fail
    std::function<void(Lab&)> twistIn;
    Host::Database::Options options{};
};
void PrintTo(const Proof& p, std::ostream* os) { *os << p.twist; }

const std::vector<Proof> kProofs = {
    {"NothingWrong", "", [](Lab&) {}},
    {"Shuffled", "", [](Lab&) {}, {.shuffleSeed = 7}},
    {"ReplaysRowsAtReady", "",
     [](Lab& l) {
         l.ready = [](Bound& b) {
             b.ready();
             for (VeRowIterator it = b.iface->begin(0); b.observing() && it != b.iface->end(0); ++it)
                 b.row(*it);
         };
     }},
    {"ReadyTwice", "", [](Lab& l) { l.ready = [](Bound& b) { b.ready(), b.ready(); }; }},
    {"RegistersAtOnceEverywhere", "",
     [](Lab& l) {
         l.registration = [&l](const Registration& r) { l.db().createTable(r.path, r.type, r.owner); };
     }},
    {"ReadyAfterRows", "ReadyComesBeforeRowCallbacks",  // held back until the next row or delete callback
     [](Lab& l) {
         l.ready = [](Bound& b) { b.held = true; };
         l.row = [](Bound& b, const BaseRow& r) { b.row(r), releaseHeldReady(b); };
         l.rowDeleted = [](Bound& b, const BaseRow& r) { b.rowDeleted(r), releaseHeldReady(b); };
         l.afterDeliver = [&l] { return l.anyLive(releaseHeldReady); };
     }},
    {"ReadyBeforeTheHostsTurn", "ReadyIsTrueInTheReadyCallback",  // when the lab next delivers
     [](Lab& l) {
         l.afterBind = [&l](const BoundP& b) {
             l.deferred.push_back([w = std::weak_ptr<Bound>(b)] {
                 if (const BoundP b = w.lock(); b && (!b->observing() || b->iface->clientReady())) b->ready();
             });
         };
     }},
    {"ReadyOnlyForObservers", "ReadersAndModifiersBecomeReadyUnasked",
     [](Lab& l) { l.ready = [](Bound& b) { b.observing() ? b.ready() : void(); }; }},
    {"ObserversStartAtBind", "ObserverWaitsForClientReady",
     [](Lab& l) {
         l.afterBind = [](const BoundP& b) { b->observing() ? b->iface->clientReadyIs(true) : void(); };
     }},
    {"DeleteCarriesAnEmptyRow", "EveryChangeIsReportedWhoeverMadeIt",
     [](Lab& l) { l.rowDeleted = [](Bound& b, const BaseRow& r) { b.rowDeleted(BaseRow(*r.rowType())); }; }},
    {"RowsSwapped", "EachInterfaceSeesChangesInOrder",  // each pair of consecutive row callbacks
     [](Lab& l) {
         l.row = [](Bound& b, const BaseRow& r) {
             b.stash ? (b.row(r), void(flushStashedRow(b))) : void(b.stash = r);
         };
         l.afterDeliver = [&l] { return l.anyLive(flushStashedRow); };
     }},
    {"DeleteBeforeRowLeaves", "DeleteCallbackComesAfterTheRowLeft",  // the row is put back for the callback
     [](Lab& l) {
         auto echoes = std::make_shared<std::vector<BaseRow>>();  // rows put back: their callbacks are hidden
         const auto echo = [echoes](const BaseRow& r) {
             return std::ranges::any_of(*echoes, [&](const BaseRow& e) { return e.sameData(r); });
         };
         l.row = [echo](Bound& b, const BaseRow& r) { echo(r) ? void() : b.row(r); };
         l.rowDeleted = [&l, echo, echoes](Bound& b, const BaseRow& r) {
             if (echo(r)) return;
             BaseRow back = r;  // with data of its own, so that its callbacks are told apart
             back.numberIs(0, r.number(0));
             echoes->push_back(l.db().write(b.path, back));
             b.rowDeleted(r);
             l.db().erase(b.path, r);
         };
     }},
    {"CallsTheDead", "DestroyedInterfaceGetsNoCallbacks",  // when another interface of its table is called
     [](Lab& l) {
         auto kept = std::make_shared<std::vector<std::pair<std::weak_ptr<Bound>, Bound>>>();
         l.afterBind = [kept](const BoundP& b) { kept->push_back({b, *b}); };
         for (auto [hook, which] : {std::pair{&l.row, &Bound::row}, {&l.rowDeleted, &Bound::rowDeleted}})
             *hook = [kept, which](Bound& b, const BaseRow& r) {
                 (b.*which)(r);
                 for (auto& [alive, copy] : *kept)
                     if (alive.expired() && copy.path == b.path) (copy.*which)(r);
             };
     }},
    {"ReadyInsideBind", "CallbacksNeverOverlap",  // for readers and modifiers bound inside a callback
     [](Lab& l) {
         l.afterBind = [&l](const BoundP& b) { l.depth > 0 && !b->observing() ? b->ready() : void(); };
     }},
    {"ScheduledFlagSilences", "ScheduledFlagOffKeepsCallbacks",
     [](Lab& l) {
         l.ready = [](Bound& b) { b.iface->scheduled() ? b.ready() : void(); };
         l.row = [](Bound& b, const BaseRow& r) { b.iface->scheduled() ? b.row(r) : void(); };
     }},
    {"DeactivatesAfterCallbacks", "ActivatedFlagFollowsActivate",
     [](Lab& l) {
         l.ready = [](Bound& b) { b.ready(), b.iface->deactivate(true); };
         l.row = [](Bound& b, const BaseRow& r) { b.row(r), b.iface->deactivate(true); };
     }},
    {"BindsLate", "AttachmentIsNonZeroOnceBound",  // when the lab next delivers
     [](Lab& l) {
         l.bind = [&l](VeltaDB& inner, const BoundP& b, bool flag) {
             l.deferred.push_back([&inner, w = std::weak_ptr<Bound>(b), flag] {
                 if (const BoundP b = w.lock()) Lab::bindNow(inner, b, flag);
             });
         };
     }},
    {"KeysByFirstFieldOnly", "PrimaryKeyFindsAndRemovesRows",
     [](Lab& l) { l.tableTypeOf = variantType("External::Subscription", {"system_description"}, true); }},
    {"OwnTypeKeyedByFirstField", "PrimaryKeyFindsAndRemovesRows",
     [](Lab& l) { l.tableTypeOf = variantType(l.ownRowType().name, {"prefix"}, true); }},
    {"DropsOids", "OidIndexFindsRows",
     [](Lab& l) {
         l.tableTypeOf =
             variantType("veCtrl::subscription", {"system_description", "connection_id", "tableId"}, false);
     }},
    {"RebuildsOnDelete", "WalksSurviveChanges",  // a client's row from a table nobody observes
     [](Lab& l) {
         l.erase = [&l](const std::string& path, const BaseRow& key) {
             Host::Database& db = l.db();
             db.erase(path, key);
             if (l.anyLive([&](Bound& b) { return b.path == path && b.observing(); })) return;
             const std::vector<BaseRow> rows = db.rows(path);
             const std::string type = db.tableType(path)->name();
             db.dropTable(path);
             db.createTable(path, type);
             for (const BaseRow& r : rows) db.write(path, r);
         };
     }},
    {"ReadersSeeSnapshots", "OwnWritesAreVisibleAtOnce",  // copies brought up to date after each delivery
     [](Lab& l) {
         auto paths = std::make_shared<std::set<std::string>>();  // readers' tables, copied to path + "#"
         const auto refresh = [&l, paths] {
             for (const std::string& path : *paths) {
                 for (const BaseRow& r : l.db().rows(path + "#")) l.db().erase(path + "#", r);
                 for (const BaseRow& r : l.db().rows(path)) l.db().write(path + "#", r);
             }
             return false;
         };
         l.bind = [&l, paths, refresh](VeltaDB& inner, const BoundP& b, bool flag) {
             if (b->iface->mode() != kReaderMode) return Lab::bindNow(inner, b, flag);
             if (paths->insert(b->path).second)
                 l.db().createTable(b->path + "#", l.db().tableType(b->path)->name());
             refresh();
             inner.bindInterface(*b->iface, b->path + "#", flag);
         };
         l.afterDeliver = refresh;
     }},
    {"WritesThroughSharedRows", "RowsAreCopiedOnWrite",  // process-wide: the lab turns it back on
     [](Lab&) { Host::Database::copyOnWriteIs(false); }},
    {"RowOpsOfTheWrongIndex", "KeyOrdersFollowThePrimaryKey", [](Lab& l) { l.rowOpsOfIndexOne = true; }},
    {"OwnTypeOrderedWhole", "KeyOrdersFollowThePrimaryKey", [](Lab& l) { l.ownRowsOrderedWhole = true; }},
    {"TableInfoByPathOnly", "TablesAreListedAndDescribed", [](Lab& l) { l.noInfoById = true; }},
    {"DropsSilently", "DroppedTablesLeaveTheListing",  // no delete callback for a dropped table's row
     [](Lab& l) {
         l.rowDeleted = [](Bound& b, const BaseRow& r) {
             b.path == "velta/metadata/veTable" ? void() : b.rowDeleted(r);
         };
     }},
    {"ServerRegistrationTravels", "ServerRegistrationIsVisibleAtOnce",  // until the lab next delivers
     [](Lab& l) {
         l.registration = [&l](const Registration& r) {
             r.inner.isServerAgent() ? l.deferred.push_back(r.forward) : r.forward();
         };
     }},
    {"LosesRegistrations", "RegistrationReachesMetadataObservers",  // of agents other than the server agent
     [](Lab& l) {
         l.registration = [](const Registration& r) { r.inner.isServerAgent() ? r.forward() : void(); };
     }},
    {"UnknownTypeIsZero", "RowTypesKnownAndUnknown", [](Lab& l) { l.unknownTypeIsZero = true; }},
    {"StandaloneInverted", "HandleReportsItsAgent", [](Lab& l) { l.standaloneInverted = true; }},
    {"CompletesQueriesAtOnce", "QueryCompletesOnceAndLater",  // from inside defineQuery
     [](Lab& l) { l.queriesAtOnce = true; }},
};

class KitCatches : public testing::TestWithParam<Proof> {};

// Runs every check against the twisted host and compares the checks that failed, with what they said.
TEST_P(KitCatches, ExactlyTheBrokenContract) {
    const Proof& p = GetParam();
    std::vector<std::string> failed;
    std::string said;
    for (const Conformance::Check& check : Conformance::checks()) {
        testing::TestPartResultArray results;
        {
            testing::ScopedFakeTestPartResultReporter reporter(
                testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
            Lab host(p.options);
            p.twistIn(host);
            check.run(host);
        }
        if (results.size() > 0) failed.push_back(check.name);
        for (int i = 0; i < results.size(); ++i)
            said += "\n[" + std::string(check.name) + "] " + results.GetTestPartResult(i).message();
    }
    EXPECT_EQ(failed, p.breaks.empty() ? std::vector<std::string>{} : std::vector<std::string>{p.breaks})
        << said;
}

INSTANTIATE_TEST_SUITE_P(Twists, KitCatches, testing::ValuesIn(kProofs),
                         [](const testing::TestParamInfo<Proof>& info) { return info.param.twist; });

// Every check has its proof, in the kit's order.
TEST(KitCatches, EveryCheckHasATwist) {
    std::vector<std::string> checks, proven;
    for (const Conformance::Check& c : Conformance::checks()) checks.push_back(c.name);
    for (const Proof& p : kProofs)
        if (!p.breaks.empty() && (proven.empty() || proven.back() != p.breaks)) proven.push_back(p.breaks);
    EXPECT_EQ(proven, checks);
}

}  // namespace
}  // namespace Velta::Test
