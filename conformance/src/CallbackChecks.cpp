// Checks of the callbacks: when an interface is ready, what it is told, in which order, and that
// nothing reaches it out of turn.
//
// Each check first lets its interfaces become ready and only then makes the changes it looks at,
// so that a host's choices about readiness (replaying existing rows or not, reporting ready more
// than once) never show in checks about something else.
#include "Kit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace Velta::Conformance::kit {
namespace {

bool has(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

}  // namespace

void readyComesFirst(HostAdapter& host) {
    Scene s(host, "ready-first");
    s.probe("early", kObserverMode);
    host.writeRow(s.path, pub(1, "x"));
    host.writeRow(s.path, pub(2, "y"));
    host.deleteRow(s.path, pub(1));
    host.deliver();
    s.probe("late", kObserverMode);  // bound to a table that already holds rows
    host.writeRow(s.path, pub(3, "z"));
    host.deliver();
    for (const char* name : {"early", "late"}) {
        const std::vector<std::string> got = s.log->of(name);
        if (got.empty())
            VELTA_KIT_EXPECT(false) << "your host never called the ready callback of observer '" << name
                                    << "' (table " << s.path << ")" << kDeliverHint << s.log->seen();
        else
            VELTA_KIT_EXPECT(got.front() == "ready")
                << "your host delivered a row or delete callback to observer '" << name
                << "' before its ready callback (table " << s.path << ")" << s.log->seen();
    }
}

void readyIsTrueInTheReadyCallback(HostAdapter& host) {
    Scene s(host, "ready-flag");
    std::vector<bool> flags;
    Probe& observer =
        s.probe("observer", kObserverMode, [&](Probe& self, const std::string& what, const BaseRow&) {
            if (what == "ready") flags.push_back(self.iface.ready());
        });
    host.deliver();
    VELTA_KIT_REQUIRE(!flags.empty())
        << "your host never called the ready callback of an observer bound to " << s.path << kDeliverHint;
    VELTA_KIT_EXPECT(std::find(flags.begin(), flags.end(), false) == flags.end())
        << "your host called the ready callback while ready() still answered false (the translator starts "
           "only "
           "when every interface answers ready)"
        << s.log->seen();
    VELTA_KIT_EXPECT(observer.iface.ready()) << "ready() answered false after the ready callback";
}

void readersAndModifiersBecomeReady(HostAdapter& host) {
    Scene s(host, "ready-unasked");
    for (unsigned char mode : {kReaderMode, kModifierMode})
        s.probe(mode == kReaderMode ? "reader" : "modifier", mode);
    host.deliver();
    for (const char* name : {"reader", "modifier"})
        VELTA_KIT_EXPECT(!s.log->of(name, "ready").empty())
            << "your host did not report the " << name << " bound to " << s.path
            << " ready (no clientReadyIs is made on readers and modifiers)" << s.log->seen();
}

void observerWaitsForClientReady(HostAdapter& host) {
    Scene s(host, "client-ready");
    Probe& observer = s.probe("observer", kObserverMode, nullptr, "A", false);
    host.writeRow(s.path, pub(1, "before"));
    host.deliver();
    VELTA_KIT_EXPECT(s.log->lines.empty())
        << "your host called back an observer that was bound but not declared client-ready (the aggregator "
           "binds its input observers early and expects silence until it declares them ready)"
        << s.log->seen();
    s.log->lines.clear();
    observer.iface.clientReadyIs(true);
    host.deliver();
    host.writeRow(s.path, pub(2, "after"));
    host.deliver();
    const std::vector<std::string> got = s.log->of("observer");
    VELTA_KIT_EXPECT(!got.empty() && got.front() == "ready" && has(got, "row #2 after"))
        << "after clientReadyIs(true) your host did not deliver the ready callback and then the next change "
           "(table "
        << s.path << ")" << s.log->seen();
}

void everyChangeIsReported(HostAdapter& host) {
    Scene s(host, "every-change");
    s.probe("observer", kObserverMode);
    Probe& own = s.probe("ownModifier", kModifierMode);
    Probe& other = s.probe("otherModifier", kModifierMode, nullptr, "B");
    host.deliver();

    host.writeRow(s.path, pub(1, "client"));
    other.write(pub(2, "other agent"));
    own.write(pub(3, "own agent"));
    host.writeRow(s.path, pub(1, "client again"));
    other.iface.rowDel(pub(2));  // by key
    VeRowIterator at = own.iface.find(pub(3), 0);
    if (at != own.iface.end(0)) own.iface.rowDel(at);  // at a position
    host.deleteRow(s.path, pub(1));
    host.deliver();

    std::vector<std::string> expected = {
        "row #1 client",         "row #2 other agent",  "row #3 own agent",      "row #1 client again",
        "delete #2 other agent", "delete #3 own agent", "delete #1 client again"};
    std::vector<std::string> got = s.log->of("observer");
    std::erase(got, "ready");
    std::sort(expected.begin(), expected.end());
    std::sort(got.begin(), got.end());
    // What differs, either way: a change missed, or one told twice or wrongly. The label says who
    // made the change (the client through the adapter, another agent, the agent itself).
    std::vector<std::string> missing, unexpected;
    std::set_difference(expected.begin(), expected.end(), got.begin(), got.end(),
                        std::back_inserter(missing));
    std::set_difference(got.begin(), got.end(), expected.begin(), expected.end(),
                        std::back_inserter(unexpected));
    VELTA_KIT_EXPECT(missing.empty() && unexpected.empty())
        << "your host did not tell the observer of every change exactly once, with the row written or "
           "removed (table "
        << s.path << ")\n  missing:" << lines(missing)
        << "\n  told but not made, or told again:" << lines(unexpected) << s.log->seen();
}

void changesArriveInOrder(HostAdapter& host) {
    Scene s(host, "in-order");
    s.probe("first", kObserverMode);
    s.probe("second", kObserverMode);
    host.deliver();
    host.writeRow(s.path, pub(1, "a"));
    host.writeRow(s.path, pub(2, "a"));
    host.writeRow(s.path, pub(1, "b"));
    host.deleteRow(s.path, pub(2));
    host.writeRow(s.path, pub(3, "a"));
    host.writeRow(s.path, pub(2, "b"));
    host.deleteRow(s.path, pub(1));
    host.deliver();
    const std::vector<std::string> changes = {"row #1 a", "row #2 a", "row #1 b",   "delete #2 a",
                                              "row #3 a", "row #2 b", "delete #1 b"};
    // Completeness is another check's business: only the order of what arrived counts here.
    const auto position = [&](const std::string& line) {
        return std::find(changes.begin(), changes.end(), line);
    };
    for (const char* name : {"first", "second"}) {
        std::vector<std::string> got = s.log->of(name);
        std::erase_if(got, [&](const std::string& line) { return !has(changes, line); });
        VELTA_KIT_EXPECT(std::is_sorted(
            got.begin(), got.end(), [&](const auto& a, const auto& b) { return position(a) < position(b); }))
            << "your host delivered the changes of " << s.path << " to interface '" << name
            << "' out of the order they were made\n  made in this order:" << lines(changes) << s.log->seen();
    }
}

void deleteComesAfterTheRowLeft(HostAdapter& host) {
    Scene s(host, "delete-after");
    for (unsigned id : {1u, 2u, 3u}) host.writeRow(s.path, pub(id, "v"));
    std::vector<std::string> stillThere;
    s.probe("observer", kObserverMode, [&](Probe& self, const std::string& what, const BaseRow& row) {
        const VeTableInterface& i = self.iface;
        if (what == "delete" && (!i.row(row, 0).empty() || i.find(row, 0) != i.end(0)))
            stillThere.push_back(showPub(row));
    });
    Probe& other = s.probe("otherModifier", kModifierMode, nullptr, "B");
    host.deliver();
    host.deleteRow(s.path, pub(2));
    other.iface.rowDel(pub(3));
    host.deliver();
    VELTA_KIT_REQUIRE(!s.log->of("observer", "delete").empty())
        << "your host delivered no delete callback, so this contract could not be checked (table " << s.path
        << ")";
    VELTA_KIT_EXPECT(stillThere.empty())
        << "your host called the delete callback while the row was still in the interface's view (row or "
           "find "
           "inside the callback found it; the aggregator would write the deleted row back):"
        << lines(stillThere) << s.log->seen();
}

void destroyedInterfaceIsLeftAlone(HostAdapter& host) {
    Scene s(host, "destroyed");
    auto gone = std::make_unique<Probe>(s.log, "gone", s.rowTypeName, kObserverMode);
    auto victim = std::make_unique<Probe>(s.log, "victim", s.rowTypeName, kObserverMode);
    for (Probe* p : {gone.get(), victim.get()}) p->bind(s.agent(), s.path);
    Probe& killer = s.probe("killer", kObserverMode);
    host.deliver();
    host.writeRow(s.path, pub(1, "queued"));
    gone.reset();  // with a callback queued for it
    host.deliver();
    killer.hookIs([&](Probe&, const std::string&, const BaseRow&) { victim.reset(); });  // inside a callback
    host.writeRow(s.path, pub(2, "x"));
    host.writeRow(s.path, pub(3, "y"));
    host.deliver();
    killer.hookIs(nullptr);
    std::vector<std::string> late = s.log->lines;
    std::erase_if(late, [](const std::string& line) {
        return line.find("after the interface was destroyed") == std::string::npos;
    });
    VELTA_KIT_EXPECT(late.empty()) << "your host called back interfaces after they were destroyed (agents "
                                      "destroy input observers inside "
                                      "callbacks):"
                                   << lines(late) << s.log->seen();
}

void callbacksNeverOverlap(HostAdapter& host) {
    Scene s(host, "one-at-a-time");
    VeltaDB& agent = s.agent();
    bool done = false;
    s.probe("observer", kObserverMode, [&](Probe&, const std::string& what, const BaseRow&) {
        if (what != "row" || done) return;
        done = true;
        s.probe("reader", kReaderMode);
        s.probe("observer2", kObserverMode);
        s.probe("modifier", kModifierMode).write(pub(2, "from a callback"));
        s.probe("modifier2", kModifierMode).iface.rowDel(pub(1));
        agent.registerTable(s.path + "/registered", s.rowTypeName, static_cast<TableType>(0), 0, 0, "A");
        (void)agent.tableInfo(s.path);
    });
    host.deliver();
    host.writeRow(s.path, pub(1, "x"));
    host.deliver();
    VELTA_KIT_EXPECT(s.log->overlaps.empty())
        << "your host started callbacks while another callback was still running:" << lines(s.log->overlaps)
        << s.log->seen();
}

void scheduledFlagOffKeepsCallbacks(HostAdapter& host) {
    Scene s(host, "scheduled");
    Probe& observer = s.probe("observer", kObserverMode, nullptr, "A", false);
    observer.iface.scheduledIs(false);
    observer.iface.clientReadyIs(true);
    host.deliver();
    host.writeRow(s.path, pub(1, "x"));
    host.deliver();
    VELTA_KIT_EXPECT(!s.log->of("observer", "ready").empty() && has(s.log->of("observer"), "row #1 x"))
        << "your host did not call back an observer whose scheduled flag was set to false (the aggregator "
           "clears the flag on its metadata observer and relies on its callbacks)"
        << s.log->seen();
}

void activatedFlagFollowsActivate(HostAdapter& host) {
    Scene s(host, "activated");
    Probe& observer =
        s.probe("observer", kObserverMode, [](Probe& self, const std::string& what, const BaseRow&) {
            if (what == "ready") self.iface.activate(true);
        });
    host.deliver();
    VELTA_KIT_EXPECT(observer.iface.activated()) << "activated() answered false after activate(true) in the "
                                                    "ready callback, once the callback had returned";
    host.writeRow(s.path, pub(1, "x"));
    host.deliver();
    VELTA_KIT_EXPECT(observer.iface.activated())
        << "activated() answered false after a later callback, with no activate(false) made";
    observer.iface.activate(false);
    VELTA_KIT_EXPECT(!observer.iface.activated()) << "activated() answered true after activate(false)";
    observer.iface.activate(true);
    VELTA_KIT_EXPECT(observer.iface.activated()) << "activated() answered false after activate(true)";
}

void attachmentMarksBinding(HostAdapter& host) {
    Scene s(host, "attachment");
    Probe modifier(s.log, "modifier", s.rowTypeName, kModifierMode);
    VELTA_KIT_EXPECT(modifier.iface.attachment() == 0)
        << "the attachment value of an interface never bound was not zero";
    modifier.bind(s.agent(), s.path);
    VELTA_KIT_EXPECT(modifier.iface.attachment() != 0) << "your host left the attachment value at zero after "
                                                          "bindInterface had returned (the aggregator reads "
                                                          "zero as 'not attached to its table')";
    host.deliver();
    VELTA_KIT_EXPECT(modifier.iface.attachment() != 0)
        << "the attachment value went back to zero after delivery";
}

}  // namespace Velta::Conformance::kit
