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

    std::unique_ptr<RecordingInterface> observer(const std::string& name, bool clientReady = true) {
        auto r = std::make_unique<RecordingInterface>(log_, name, eventType().name());
        agent_->bindInterface(r->iface, kPath, false);
        if (clientReady) r->iface.clientReadyIs(true);
        return r;
    }

    VeltaDB::p_t agent_;
    std::vector<std::string> log_;
};

TEST_F(HostCallbacks, QueuedInFifoOrderAndDeliveredOnlyFromTheLoop) {
    db_->write(kPath, ev("before"));
    auto o = observer("o");
    auto late = observer("late", false);  // rows written before it is client-ready are not replayed
    auto gone = observer("gone");
    db_->write(kPath, ev("a"));
    BaseRow own = ev("b");
    o->iface.rowIs(own);         // its own write comes back to it
    db_->write(kPath, ev("b"));  // an identical rewrite still notifies
    o->iface.rowDel(ev("a"));
    db_->erase(kPath, ev("absent"));  // nothing removed, nothing said
    EXPECT_TRUE(log_.empty());
    EXPECT_FALSE(o->iface.ready());
    EXPECT_EQ(db_->pending(), 10u);
    gone.reset();  // none of its callbacks stays queued
    EXPECT_EQ(db_->pending(), 5u);
    late->iface.clientReadyIs(true);
    late->iface.clientReadyIs(true);  // ready is queued once

    // A write made inside a callback is delivered after it; the loop run from inside delivers nothing.
    int depth = 0;
    o->onEvent = [&](const std::string& what, const BaseRow& row) {
        EXPECT_EQ(++depth, 1);
        if (what == "row" && row.string(0) == "b" && log_.size() < 4) db_->write(kPath, ev("nested"));
        EXPECT_EQ(db_->runUntilIdle(), 0u);
        EXPECT_FALSE(db_->runOne());
        --depth;
    };
    EXPECT_EQ(run(), 8u);
    EXPECT_EQ(log_, (std::vector<std::string>{"o ready", line("o", "row", "a"), line("o", "row", "b"),
                                              line("o", "row", "b"), line("o", "delete", "a"), "late ready",
                                              line("o", "row", "nested"), line("late", "row", "nested")}));
}

TEST_F(HostCallbacks, ShuffledOrderKeepsEachInterfacesOwnOrder) {
    auto deliveries = [](std::uint64_t seed) {
        auto db = Host::Database::create({.shuffleSeed = seed});
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
        std::map<char, std::vector<std::string>> mine, expected;  // per interface: the FIFO order
        for (const std::string& l : shuffled) mine[l[0]].push_back(l);
        for (const std::string& l : fifo) expected[l[0]].push_back(l);
        EXPECT_EQ(mine, expected) << "seed " << seed;
    }
    EXPECT_TRUE(reordered);
}

}  // namespace
}  // namespace Velta::Test
