// Callback delivery of the in-memory host: when, in which order and to whom. The contracts every
// host keeps are the conformance kit's (conformance_test); these are this host's own choices.
#include "TestSupport.h"

#include <map>

namespace Velta::Test {
namespace {

constexpr const char* kPath = "test/events";

const RowType& eventType() {
    return Host::defineRowType("CallbacksTest::Event", {{"name", FieldKind::string}, {"n", FieldKind::u32}},
                               {"name"});
}

BaseRow ev(const std::string& name, unsigned n = 0) {
    return makeRow(eventType(), {{"name", name}, {"n", n}});
}
std::string line(const std::string& iface, const std::string& what, const std::string& name, unsigned n = 0) {
    return iface + " " + what + " " + ev(name, n).toString();
}

class HostCallbacks : public HostTest {
protected:
    HostCallbacks() : agent_(connect("A")) { db_->createTable(kPath, eventType().name()); }

    std::unique_ptr<RecordingInterface> observer(const std::string& name, bool clientReady = true,
                                                 const std::string& path = kPath) {
        auto r = std::make_unique<RecordingInterface>(log_, name, eventType().name());
        agent_->bindInterface(r->iface, path, false);
        if (clientReady) r->iface.clientReadyIs(true);
        return r;
    }

    VeltaDB::p_t agent_;
    std::vector<std::string> log_;
};

TEST_F(HostCallbacks, NothingIsCalledFromInsideAHostCall) {
    auto o = observer("o");
    db_->write(kPath, ev("a"));
    BaseRow b = ev("b");
    o->iface.rowIs(b);
    o->iface.rowDel(ev("a"));
    EXPECT_TRUE(log_.empty());
    EXPECT_FALSE(o->iface.ready());
    EXPECT_EQ(db_->pending(), 4u);  // ready, row a, row b, delete a

    // A write made inside a callback is delivered after that callback has returned.
    // Running the loop from inside a callback delivers nothing either.
    int depth = 0;
    o->onEvent = [&](const std::string& what, const BaseRow& row) {
        EXPECT_EQ(++depth, 1);
        if (what == "row" && row.string(0) == "b") db_->write(kPath, ev("from-callback"));
        EXPECT_EQ(db_->runUntilIdle(), 0u);
        EXPECT_FALSE(db_->runOne());
        --depth;
    };
    EXPECT_EQ(run(), 5u);
    EXPECT_EQ(log_, (std::vector<std::string>{"o ready", line("o", "row", "a"), line("o", "row", "b"),
                                              line("o", "delete", "a"), line("o", "row", "from-callback")}));
}

TEST_F(HostCallbacks, DeliveryIsFifoAcrossInterfacesAndIncludesOwnWritesAndRewrites) {
    auto x = observer("x");
    auto y = observer("y");
    run();
    log_.clear();
    BaseRow own = ev("k", 1);
    x->iface.rowIs(own);            // its own write comes back to it
    db_->write(kPath, ev("k", 1));  // an identical rewrite still notifies
    db_->erase(kPath, ev("k"));
    db_->erase(kPath, ev("absent"));  // nothing removed, nothing said
    run();
    EXPECT_EQ(log_, (std::vector<std::string>{line("x", "row", "k", 1), line("y", "row", "k", 1),
                                              line("x", "row", "k", 1), line("y", "row", "k", 1),
                                              line("x", "delete", "k", 1), line("y", "delete", "k", 1)}));
}

TEST_F(HostCallbacks, ObserverStartsWhenBoundAndClientReadyInEitherOrderAndOnce) {
    db_->write(kPath, ev("before"));
    // Client-ready first, then bound.
    RecordingInterface early(log_, "early", eventType().name());
    early.iface.clientReadyIs(true);
    run();
    EXPECT_TRUE(log_.empty());
    agent_->bindInterface(early.iface, kPath, false);
    // Bound first, then client-ready: rows written in between are not replayed to it.
    auto late = observer("late", false);
    db_->write(kPath, ev("between"));
    run();
    late->iface.clientReadyIs(true);
    late->iface.clientReadyIs(true);  // ready is queued once
    db_->write(kPath, ev("after"));
    run();
    EXPECT_EQ(log_, (std::vector<std::string>{"early ready", line("early", "row", "between"), "late ready",
                                              line("early", "row", "after"), line("late", "row", "after")}));
}

TEST_F(HostCallbacks, DestroyedInterfaceLeavesNoneOfItsCallbacksQueued) {
    auto gone = observer("gone");
    auto stays = observer("stays");
    db_->write(kPath, ev("a"));
    db_->erase(kPath, ev("a"));
    EXPECT_EQ(db_->pending(), 6u);
    gone.reset();
    EXPECT_EQ(db_->pending(), 3u);
    EXPECT_EQ(run(), 3u);
    EXPECT_EQ(log_, (std::vector<std::string>{"stays ready", line("stays", "row", "a"),
                                              line("stays", "delete", "a")}));
}

TEST_F(HostCallbacks, ShuffledOrderKeepsEachInterfacesOwnOrder) {
    auto deliveries = [](std::uint64_t seed) {
        Host::Database::Options options;
        options.shuffleSeed = seed;
        auto db = Host::Database::create(options);
        auto agent = db->connect({"A", "s"});
        std::vector<std::string> log;
        std::vector<std::unique_ptr<RecordingInterface>> ifaces;
        for (const char* name : {"p", "q", "r"}) {
            ifaces.push_back(std::make_unique<RecordingInterface>(log, name, eventType().name()));
            agent->bindInterface(ifaces.back()->iface, kPath, false);
            ifaces.back()->iface.clientReadyIs(true);
        }
        for (unsigned i = 0; i < 8; ++i) db->write(kPath, ev("e", i));
        db->runUntilIdle();
        return log;
    };
    const std::vector<std::string> fifo = deliveries(0);
    ASSERT_EQ(fifo.size(), 27u);
    bool reordered = false;
    for (std::uint64_t seed = 1; seed <= 10; ++seed) {
        const std::vector<std::string> shuffled = deliveries(seed);
        EXPECT_EQ(shuffled, deliveries(seed)) << "same seed, same order";
        reordered = reordered || shuffled != fifo;
        // Per interface, the subsequence is exactly the FIFO one.
        std::map<char, std::vector<std::string>> mine, expected;
        for (const std::string& l : shuffled) mine[l[0]].push_back(l);
        for (const std::string& l : fifo) expected[l[0]].push_back(l);
        EXPECT_EQ(mine, expected) << "seed " << seed;
    }
    EXPECT_TRUE(reordered);
}

TEST_F(HostCallbacks, RunUntilIdleStopsAtTheDeliveryBound) {
    Host::Database::Options options;
    options.deliveryBound = 50;
    reset(options);
    db_->createTable(kPath, eventType().name());
    auto agent = connect("A");
    // An observer that rewrites every row it gets feeds itself forever.
    RecordingInterface loop(log_, "loop", eventType().name());
    loop.onEvent = [&](const std::string&, const BaseRow&) {
        BaseRow again = ev("x", static_cast<unsigned>(log_.size()));
        loop.iface.rowIs(again);
    };
    agent->bindInterface(loop.iface, kPath, false);
    loop.iface.clientReadyIs(true);
    EXPECT_EQ(db_->runUntilIdle(), 50u);
    EXPECT_FALSE(db_->settled());
    EXPECT_EQ(db_->pending(), 1u);
    EXPECT_EQ(log_.size(), 50u);
    loop.onEvent = nullptr;
    EXPECT_EQ(db_->runUntilIdle(), 1u);
    EXPECT_TRUE(db_->settled());
    EXPECT_FALSE(db_->runOne());
}

}  // namespace
}  // namespace Velta::Test
