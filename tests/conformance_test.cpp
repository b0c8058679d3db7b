// The host conformance kit against the in-memory host, and proof that each of its checks catches
// what it claims: a stand-in host (the in-memory host behind a wrapper) that gets one thing wrong
// fails exactly the check of that contract; the same wrapper getting nothing wrong, or making
// another of the choices the interface leaves to a host, fails none.
//
// The wrapper reaches the host's callbacks by replacing, when an interface is bound, the
// interface's callbacks with its own, which call the kit's (test-only: a real host never does this).
#include "TestSupport.h"
#include "consumer/InMemoryHost.h"

#include <Velta/Conformance/HostConformance.h>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace Velta::Test {
namespace {

using Conformance::AgentSpec;

const bool kRegistered =
    (Conformance::registerHostConformance("InMemoryHost", [] { return std::make_unique<InMemoryHost>(); }),
     true);

// ---- A stand-in host that can get one thing wrong ----

// One interface bound through the lab: the kit's own callbacks, and what a twist keeps about it.
struct Bound {
    VeTableInterface* iface = nullptr;
    std::string path;
    VeTableInterface::ReadyCallback ready;
    VeTableInterface::RowCallback row;
    VeTableInterface::RowCallback rowDeleted;
    bool observing() const { return (iface->mode() & kModeObserve) != 0; }
    // Twists' state.
    bool readyHeld = false, readyEarly = false, readyDone = false;
    std::optional<BaseRow> stash;
    std::vector<BaseRow> echoes;
};

// The in-memory host behind a wrapper whose hooks forward everything unchanged; each twist
// overrides one hook. Callbacks reach the hooks from the host; the hooks call the kit's callbacks.
class Lab : public InMemoryHost {
public:
    using InMemoryHost::InMemoryHost;
    VeltaDB::p_t connect(const AgentSpec& a) override {
        return std::make_shared<Handle>(*this, InMemoryHost::connect(a));
    }
    void createTable(const std::string& path, const std::string& type) override {
        db_->createTable(path, tableType(type));
    }
    void deleteRow(const std::string& path, const BaseRow& key) override { eraseRow(path, key); }
    void deliver() override {
        beforeDeliver();
        do db_->runUntilIdle();
        while (afterDeliver());
    }

protected:
    class Handle : public Host::ForwardingVeltaDB {
    public:
        Handle(Lab& lab, VeltaDB::p_t inner)
            : ForwardingVeltaDB(inner), lab_(lab), inner_(std::move(inner)) {}
        void bindInterface(VeTableInterface& iface, const std::string& path, bool flag) override {
            lab_.attach(*inner_, iface, path, flag);
        }
        void registerTable(const std::string& path, const std::string& type, TableType kind,
                           unsigned short desired, unsigned short flags, const std::string& owner) override {
            lab_.registerTable(*inner_, path, type, owner,
                               [=, this] { inner_->registerTable(path, type, kind, desired, flags, owner); });
        }
        void defineQuery(const std::string& text, unsigned typeId, const QueryParams& params,
                         QueryCompletion done, bool standing, const std::string& name) override {
            lab_.defineQuery(*inner_, text, typeId, params, std::move(done), standing, name);
        }
        veMetadata::veTable tableInfo(const std::string& path) const override {
            return inner_->tableInfo(path);
        }
        veMetadata::veTable tableInfo(unsigned oid) const override { return lab_.tableInfo(*inner_, oid); }
        unsigned tableTypeId(const std::string& type, bool flag) const override {
            return lab_.tableTypeId(inner_->tableTypeId(type, flag));
        }
        std::shared_ptr<const RowOps> getRowOps(const std::string& type, unsigned char index) const override {
            return lab_.getRowOps(*inner_, type, index);
        }
        bool standalone() const override { return lab_.standalone(inner_->standalone()); }

    private:
        Lab& lab_;
        VeltaDB::p_t inner_;
    };

    // Hooks, each forwarding unchanged.
    virtual void bind(VeltaDB& inner, const std::shared_ptr<Bound>& b, bool flag) {
        inner.bindInterface(*b->iface, b->path, flag);
    }
    virtual void ready(Bound& b) { b.ready(); }
    virtual void row(Bound& b, const BaseRow& r) { b.row(r); }
    virtual void rowDeleted(Bound& b, const BaseRow& r) { b.rowDeleted(r); }
    virtual void beforeDeliver() {}
    virtual bool afterDeliver() { return false; }  // true: deliver again
    virtual std::string tableType(const std::string& type) { return type; }
    virtual void eraseRow(const std::string& path, const BaseRow& key) { db_->erase(path, key); }
    virtual void registerTable(VeltaDB&, const std::string& /*path*/, const std::string& /*type*/,
                               const std::string& /*owner*/, const std::function<void()>& forward) {
        forward();
    }
    virtual void defineQuery(VeltaDB& inner, const std::string& text, unsigned typeId,
                             const VeltaDB::QueryParams& params, VeltaDB::QueryCompletion done, bool standing,
                             const std::string& name) {
        inner.defineQuery(text, typeId, params, std::move(done), standing, name);
    }
    virtual veMetadata::veTable tableInfo(VeltaDB& inner, unsigned oid) { return inner.tableInfo(oid); }
    virtual unsigned tableTypeId(unsigned id) { return id; }
    virtual std::shared_ptr<const RowOps> getRowOps(VeltaDB& inner, const std::string& type,
                                                    unsigned char index) {
        return inner.getRowOps(type, index);
    }
    virtual bool standalone(bool value) { return value; }

    // Every live interface bound through the lab, in binding order.
    std::vector<std::shared_ptr<Bound>> live() const {
        std::vector<std::shared_ptr<Bound>> found;
        for (const auto& w : bound_)
            if (auto b = w.lock()) found.push_back(b);
        return found;
    }
    int depth_ = 0;  // callbacks running now

private:
    // Takes over the interface's callbacks (the host calls the lab, the lab the kit), then binds.
    void attach(VeltaDB& inner, VeTableInterface& iface, const std::string& path, bool flag) {
        auto b = std::make_shared<Bound>();
        b->iface = &iface;
        b->path = path;
        b->ready = iface.readyCallback();
        b->row = iface.rowCallback();
        b->rowDeleted = iface.deleteCallback();
        bound_.push_back(b);
        const auto guarded = [this](auto&& call) {
            ++depth_;
            call();
            --depth_;
        };
        if (b->ready)
            const_cast<VeTableInterface::ReadyCallback&>(iface.readyCallback()) = [this, b, guarded] {
                guarded([&] { ready(*b); });
            };
        if (b->row)
            const_cast<VeTableInterface::RowCallback&>(iface.rowCallback()) =
                [this, b, guarded](const BaseRow& r) { guarded([&] { row(*b, r); }); };
        if (b->rowDeleted)
            const_cast<VeTableInterface::RowCallback&>(iface.deleteCallback()) =
                [this, b, guarded](const BaseRow& r) { guarded([&] { rowDeleted(*b, r); }); };
        bind(inner, b, flag);
    }

    std::vector<std::weak_ptr<Bound>> bound_;  // a Bound lives as long as its interface's callbacks
};

// ---- The twists: one thing wrong each ----

// Holds an observer's ready callback back until after its next row or delete callback.
class ReadyAfterRows : public Lab {
    void ready(Bound& b) override { b.readyHeld = true; }
    void row(Bound& b, const BaseRow& r) override {
        b.row(r);
        release(b);
    }
    void rowDeleted(Bound& b, const BaseRow& r) override {
        b.rowDeleted(r);
        release(b);
    }
    bool afterDeliver() override {
        bool any = false;
        for (const auto& b : live()) any = release(*b) || any;
        return any;
    }
    static bool release(Bound& b) {
        if (!b.readyHeld) return false;
        b.readyHeld = false;
        b.ready();
        return true;
    }
};

// Calls ready callbacks at the start of a delivery, before the host has made the interface ready.
class ReadyBeforeReadyFlag : public Lab {
    void beforeDeliver() override {
        for (const auto& b : live()) {
            if (b->readyDone || (b->observing() && !b->iface->clientReady())) continue;
            b->readyDone = b->readyEarly = true;
            b->ready();
        }
    }
    void ready(Bound& b) override {
        if (!b.readyEarly) {
            b.readyDone = true;
            b.ready();
        }
        b.readyEarly = false;
    }
};

// Never reports readers and modifiers ready.
class ReadyOnlyForObservers : public Lab {
    void ready(Bound& b) override {
        if (b.observing()) b.ready();
    }
};

// Starts observers as soon as they are bound.
class ObserversStartAtBind : public Lab {
    void bind(VeltaDB& inner, const std::shared_ptr<Bound>& b, bool flag) override {
        Lab::bind(inner, b, flag);
        if (b->observing()) b->iface->clientReadyIs(true);
    }
};

// A row with data of its own holding the key fields of `r`, or all its fields.
BaseRow copyOf(const BaseRow& r, bool keyOnly) {
    const RowType& type = *r.rowType();
    BaseRow copy(type);
    for (std::size_t f = 0; f < type.fields().size(); ++f) {
        const auto& key = type.keyFields();
        if (keyOnly && std::find(key.begin(), key.end(), f) == key.end()) continue;
        const FieldKind kind = type.fields()[f].kind;
        if (isNumberKind(kind))
            copy.numberIs(f, r.number(f));
        else if (kind == FieldKind::string)
            copy.stringIs(f, r.string(f));
        else
            copy.stringsIs(f, r.strings(f));
    }
    return copy;
}

// Hands delete callbacks only the key of the removed row.
class DeleteCarriesKeyOnly : public Lab {
    void rowDeleted(Bound& b, const BaseRow& r) override { b.rowDeleted(copyOf(r, true)); }
};

// Swaps each pair of consecutive row callbacks of an interface.
class RowsSwapped : public Lab {
    void row(Bound& b, const BaseRow& r) override {
        if (!b.stash) {
            b.stash = r;
            return;
        }
        b.row(r);
        flush(b);
    }
    bool afterDeliver() override {
        bool any = false;
        for (const auto& b : live()) any = flush(*b) || any;
        return any;
    }
    static bool flush(Bound& b) {
        if (!b.stash) return false;
        const BaseRow r = *b.stash;
        b.stash.reset();
        b.row(r);
        return true;
    }
};

// Calls delete callbacks while the row is still in the table: puts it back for the callback and
// takes it out again, and hides the callbacks that this causes.
class DeleteBeforeRowLeaves : public Lab {
    void rowDeleted(Bound& b, const BaseRow& r) override {
        if (echo(b, r)) return;
        VeTableInterface& put = hidden(b.path);
        BaseRow back = copyOf(r, false);  // data of its own: its callbacks are told apart from the real ones
        put.rowIs(back);
        for (const auto& o : live())
            if (o->path == b.path && o->observing() && o->iface->clientReady())
                o->echoes.insert(o->echoes.end(), 2, back);
        b.rowDeleted(r);
        put.rowDel(back);
    }
    void row(Bound& b, const BaseRow& r) override {
        if (!echo(b, r)) b.row(r);
    }
    static bool echo(Bound& b, const BaseRow& r) {
        for (auto it = b.echoes.begin(); it != b.echoes.end(); ++it) {
            if (!it->sameData(r)) continue;
            b.echoes.erase(it);
            return true;
        }
        return false;
    }
    VeTableInterface& hidden(const std::string& path) {
        auto& iface = hidden_[path];
        if (!iface) {
            iface = std::make_unique<VeTableInterface>("hidden", db_->tableType(path)->name(), kModifierMode,
                                                       nullptr, nullptr, nullptr, nullptr);
            agent_->bindInterface(*iface, path, false);
        }
        return *iface;
    }
    VeltaDB::p_t agent_ = db_->connect({"lab", "lab"});
    std::map<std::string, std::unique_ptr<VeTableInterface>> hidden_;
};

// Goes on calling an interface's callbacks after it was destroyed, whenever another interface of
// its table is called.
class CallsTheDead : public Lab {
    void bind(VeltaDB& inner, const std::shared_ptr<Bound>& b, bool flag) override {
        kept_.push_back({b, *b});
        Lab::bind(inner, b, flag);
    }
    void row(Bound& b, const BaseRow& r) override {
        b.row(r);
        haunt(b.path, [&](Bound& dead) { dead.row(r); });
    }
    void rowDeleted(Bound& b, const BaseRow& r) override {
        b.rowDeleted(r);
        haunt(b.path, [&](Bound& dead) { dead.rowDeleted(r); });
    }
    void haunt(const std::string& path, const std::function<void(Bound&)>& call) {
        for (auto& [alive, copy] : kept_)
            if (alive.expired() && copy.path == path) call(copy);
    }
    std::vector<std::pair<std::weak_ptr<Bound>, Bound>> kept_;
};

// Reports readers and modifiers bound inside a callback ready at once, from inside bindInterface.
class ReadyInsideBind : public Lab {
    void bind(VeltaDB& inner, const std::shared_ptr<Bound>& b, bool flag) override {
        Lab::bind(inner, b, flag);
        if (depth_ > 0 && !b->observing()) b->ready();
    }
};

// Takes the scheduled flag for "do not call back".
class ScheduledFlagSilences : public Lab {
    void ready(Bound& b) override {
        if (b.iface->scheduled()) b.ready();
    }
    void row(Bound& b, const BaseRow& r) override {
        if (b.iface->scheduled()) b.row(r);
    }
};

// Deactivates an interface after each of its callbacks.
class DeactivatesAfterCallbacks : public Lab {
    void ready(Bound& b) override {
        b.ready();
        b.iface->deactivate(true);
    }
    void row(Bound& b, const BaseRow& r) override {
        b.row(r);
        b.iface->deactivate(true);
    }
};

// Binds interfaces only when it next delivers.
class BindsLate : public Lab {
    void bind(VeltaDB& inner, const std::shared_ptr<Bound>& b, bool flag) override {
        pending_.push_back([&inner, w = std::weak_ptr<Bound>(b), flag] {
            if (auto b = w.lock()) inner.bindInterface(*b->iface, b->path, flag);
        });
    }
    void beforeDeliver() override {
        for (auto& bindNow : pending_) bindNow();
        pending_.clear();
    }
    std::vector<std::function<void()>> pending_;
};

// A row type like the built-in one, named "Lab::<name>", without `oid` or with another key.
std::string variantType(const std::string& name, const std::vector<std::string>& key, bool withOid) {
    std::vector<Host::FieldSpec> fields;
    for (const RowType::Field& f : Host::findRowType(name)->fields())
        if (withOid || f.name != "oid") fields.push_back({f.name, f.kind});
    return Host::defineRowType("Lab::" + name, fields, key).name();
}

// Keys External::Subscription tables by their first key field only.
class KeysByFirstFieldOnly : public Lab {
    std::string tableType(const std::string& type) override {
        return type == "External::Subscription" ? variantType(type, {"system_description"}, true) : type;
    }
};

// Keeps no oid in veCtrl::subscription tables.
class DropsOids : public Lab {
    std::string tableType(const std::string& type) override {
        return type == "veCtrl::subscription"
                   ? variantType(type, {"system_description", "connection_id", "tableId"}, false)
                   : type;
    }
};

// Deletes a client's row from a table nobody observes by building the table anew without it.
class RebuildsOnDelete : public Lab {
    void eraseRow(const std::string& path, const BaseRow& key) override {
        for (const auto& b : live())
            if (b->path == path && b->observing()) return Lab::eraseRow(path, key);
        const std::string type = db_->tableType(path)->name();
        const BaseRow victim = db_->read(path, key);
        const std::vector<BaseRow> rows = db_->rows(path);
        db_->dropTable(path);
        db_->createTable(path, type);
        for (const BaseRow& r : rows)
            if (!r.sameData(victim)) db_->write(path, r);
    }
};

// Lets readers see a copy of their table that is brought up to date after each delivery.
class ReadersSeeSnapshots : public Lab {
    void bind(VeltaDB& inner, const std::shared_ptr<Bound>& b, bool flag) override {
        if (b->iface->mode() != kReaderMode) return Lab::bind(inner, b, flag);
        const std::string copy = b->path + "#snapshot";
        if (!db_->hasTable(copy)) db_->createTable(copy, db_->tableType(b->path)->name());
        copies_[b->path] = copy;
        refresh(b->path, copy);
        inner.bindInterface(*b->iface, copy, flag);
    }
    bool afterDeliver() override {
        for (const auto& [path, copy] : copies_) refresh(path, copy);
        return false;
    }
    void refresh(const std::string& path, const std::string& copy) {
        for (const BaseRow& r : db_->rows(copy)) db_->erase(copy, r);
        for (const BaseRow& r : db_->rows(path)) db_->write(copy, r);
    }
    std::map<std::string, std::string> copies_;
};

// Hands out the row operations of index 1 when asked for index 0.
class RowOpsOfTheWrongIndex : public Lab {
    std::shared_ptr<const RowOps> getRowOps(VeltaDB& inner, const std::string& type, unsigned char) override {
        return inner.getRowOps(type, 1);
    }
};

// Answers tableInfo by path only.
class TableInfoByPathOnly : public Lab {
    veMetadata::veTable tableInfo(VeltaDB&, unsigned) override { return veMetadata::veTable(); }
};

// Makes the server agent's registrations travel like everyone else's: they arrive on delivery.
class ServerRegistrationTravels : public Lab {
    void registerTable(VeltaDB& inner, const std::string&, const std::string&, const std::string&,
                       const std::function<void()>& forward) override {
        if (inner.isServerAgent()) return pending_.push_back(forward);
        forward();
    }
    void beforeDeliver() override {
        for (auto& registerNow : pending_) registerNow();
        pending_.clear();
    }
    std::vector<std::function<void()>> pending_;
};

// Loses the registrations of agents other than the server agent.
class LosesRegistrations : public Lab {
    void registerTable(VeltaDB& inner, const std::string&, const std::string&, const std::string&,
                       const std::function<void()>& forward) override {
        if (inner.isServerAgent()) forward();
    }
};

// Answers 0 instead of VeltaDB::kUnknownTypeId for an unknown row type.
class UnknownTypeIsZero : public Lab {
    unsigned tableTypeId(unsigned id) override { return id == VeltaDB::kUnknownTypeId ? 0 : id; }
};

// Reports the standalone flag the wrong way round.
class StandaloneInverted : public Lab {
    bool standalone(bool value) override { return !value; }
};

// Completes a query from inside defineQuery.
class CompletesQueriesAtOnce : public Lab {
    void defineQuery(VeltaDB&, const std::string&, unsigned, const VeltaDB::QueryParams&,
                     VeltaDB::QueryCompletion done, bool, const std::string&) override {
        done(true, 1, "");
    }
};

// ---- Choices the interface leaves to the host: the kit must accept each ----

// Delivers callbacks in a seeded order that keeps each interface's own order.
class Shuffled : public Lab {
public:
    Shuffled() : Lab({.shuffleSeed = 7}) {}
};

// Replays an observer's rows as row callbacks right after its ready callback.
class ReplaysRowsAtReady : public Lab {
    void ready(Bound& b) override {
        b.ready();
        if (b.observing())
            for (VeRowIterator it = b.iface->begin(0); it != b.iface->end(0); ++it) b.row(*it);
    }
};

// Reports every interface ready twice.
class ReadyTwice : public Lab {
    void ready(Bound& b) override {
        b.ready();
        b.ready();
    }
};

// Makes every agent's registration visible at once, not only the server agent's.
class RegistersAtOnceEverywhere : public Lab {
    void registerTable(VeltaDB&, const std::string& path, const std::string& type, const std::string& owner,
                       const std::function<void()>&) override {
        db_->createTable(path, type, owner);
    }
};

// Delivers from inside the calls made outside every callback: bindings, client writes and deletions.
class DeliversInsideHostCalls : public Lab {
    void bind(VeltaDB& inner, const std::shared_ptr<Bound>& b, bool flag) override {
        Lab::bind(inner, b, flag);
        if (depth_ == 0) db_->runUntilIdle();
    }
    void writeRow(const std::string& path, const BaseRow& row) override {
        Lab::writeRow(path, row);
        db_->runUntilIdle();
    }
    void eraseRow(const std::string& path, const BaseRow& key) override {
        Lab::eraseRow(path, key);
        db_->runUntilIdle();
    }
};

// ---- The proofs ----

struct Proof {
    std::string twist;
    std::function<std::unique_ptr<Lab>()> make;
    std::string breaks;  // the check that must fail alone; empty: a host's choice, no check may fail
};

void PrintTo(const Proof& p, std::ostream* os) { *os << p.twist; }

template <class Twist>
Proof proof(const std::string& name, const std::string& check) {
    return {name, [] { return std::make_unique<Twist>(); }, check};
}

const std::vector<Proof> kProofs = {
    proof<Lab>("NothingWrong", ""),
    proof<Shuffled>("Shuffled", ""),
    proof<ReplaysRowsAtReady>("ReplaysRowsAtReady", ""),
    proof<ReadyTwice>("ReadyTwice", ""),
    proof<RegistersAtOnceEverywhere>("RegistersAtOnceEverywhere", ""),
    proof<DeliversInsideHostCalls>("DeliversInsideHostCalls", ""),
    proof<ReadyAfterRows>("ReadyAfterRows", "ReadyComesBeforeRowCallbacks"),
    proof<ReadyBeforeReadyFlag>("ReadyBeforeReadyFlag", "ReadyIsTrueInTheReadyCallback"),
    proof<ReadyOnlyForObservers>("ReadyOnlyForObservers", "ReadersAndModifiersBecomeReadyUnasked"),
    proof<ObserversStartAtBind>("ObserversStartAtBind", "ObserverWaitsForClientReady"),
    proof<DeleteCarriesKeyOnly>("DeleteCarriesKeyOnly", "EveryChangeIsReportedWhoeverMadeIt"),
    proof<RowsSwapped>("RowsSwapped", "EachInterfaceSeesChangesInOrder"),
    proof<DeleteBeforeRowLeaves>("DeleteBeforeRowLeaves", "DeleteCallbackComesAfterTheRowLeft"),
    proof<CallsTheDead>("CallsTheDead", "DestroyedInterfaceGetsNoCallbacks"),
    proof<ReadyInsideBind>("ReadyInsideBind", "CallbacksNeverOverlap"),
    proof<ScheduledFlagSilences>("ScheduledFlagSilences", "ScheduledFlagOffKeepsCallbacks"),
    proof<DeactivatesAfterCallbacks>("DeactivatesAfterCallbacks", "ActivatedFlagFollowsActivate"),
    proof<BindsLate>("BindsLate", "AttachmentIsNonZeroOnceBound"),
    proof<KeysByFirstFieldOnly>("KeysByFirstFieldOnly", "PrimaryKeyFindsAndRemovesRows"),
    proof<DropsOids>("DropsOids", "OidIndexFindsRows"),
    proof<RebuildsOnDelete>("RebuildsOnDelete", "WalksSurviveChanges"),
    proof<ReadersSeeSnapshots>("ReadersSeeSnapshots", "OwnWritesAreVisibleAtOnce"),
    proof<RowOpsOfTheWrongIndex>("RowOpsOfTheWrongIndex", "KeyOrdersFollowThePrimaryKey"),
    proof<TableInfoByPathOnly>("TableInfoByPathOnly", "TablesAreListedAndDescribed"),
    proof<ServerRegistrationTravels>("ServerRegistrationTravels", "ServerRegistrationIsVisibleAtOnce"),
    proof<LosesRegistrations>("LosesRegistrations", "RegistrationReachesMetadataObservers"),
    proof<UnknownTypeIsZero>("UnknownTypeIsZero", "RowTypesKnownAndUnknown"),
    proof<StandaloneInverted>("StandaloneInverted", "HandleReportsItsAgent"),
    proof<CompletesQueriesAtOnce>("CompletesQueriesAtOnce", "QueryCompletesOnceAndLater"),
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
            const std::unique_ptr<Lab> host = p.make();
            check.run(*host);
        }
        if (results.size() == 0) continue;
        failed.push_back(check.name);
        for (int i = 0; i < results.size(); ++i)
            said += "\n[" + std::string(check.name) + "] " + results.GetTestPartResult(i).message();
    }
    EXPECT_EQ(failed, p.breaks.empty() ? std::vector<std::string>{} : std::vector<std::string>{p.breaks})
        << said;
}

INSTANTIATE_TEST_SUITE_P(Twists, KitCatches, testing::ValuesIn(kProofs),
                         [](const testing::TestParamInfo<Proof>& info) { return info.param.twist; });

// Every check has its proof.
TEST(KitCatches, EveryCheckHasATwist) {
    std::vector<std::string> checks, proven;
    for (const Conformance::Check& c : Conformance::checks()) checks.push_back(c.name);
    for (const Proof& p : kProofs)
        if (!p.breaks.empty()) proven.push_back(p.breaks);
    EXPECT_EQ(proven, checks);
}

}  // namespace
}  // namespace Velta::Test
