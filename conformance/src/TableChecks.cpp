// Checks of tables and of the database handle: lookups through both indexes, walks under change,
// key orders, table metadata, registration, row types, agent flags and query completion.
//
// Each check collects what it finds wrong as lines and fails once with all of them, so a host
// author sees every broken case of a contract in one report.
#include "Kit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Velta::Conformance::kit {
namespace {

const std::string kPubType = External::Publication::rowTypeName();
const std::string kVeTablePath = "velta/metadata/veTable";

unsigned idOf(const BaseRow& row) { return External::Publication(row).subscription_id(); }

// The ids of an interface's rows from begin(0) to end(0), at most 100.
std::vector<unsigned> ids(const VeTableInterface& iface) {
    std::vector<unsigned> found;
    for (VeRowIterator it = iface.begin(0); it != iface.end(0) && found.size() < 100; ++it)
        found.push_back(idOf(*it));
    return found;
}

std::string text(const std::vector<unsigned>& values) {
    std::string out = "[";
    for (unsigned v : values) out += (out.size() > 1 ? " " : "") + std::to_string(v);
    return out + "]";
}

// A metadata row for a message.
std::string describe(const veMetadata::veTable& t) {
    return t.empty() ? "an empty row"
                     : showTable(t) + ", owner \"" + t.owner() + "\", id " + std::to_string(t.oid());
}

// " <value>", or nothing for an empty value.
std::string value(const std::string& v) { return v.empty() ? v : " " + v; }

bool contains(const std::vector<std::string>& items, const std::string& item) {
    return std::find(items.begin(), items.end(), item) != items.end();
}

// One kind of primary key: four distinct keys (the fourth is never written), each row built with a
// value in a field outside the key.
struct KeyShape {
    std::string label;
    std::string typeName;
    std::function<BaseRow(int key, const std::string& value)> make;
    std::function<std::string(const BaseRow& row)> show;
};

const KeyShape kKeyShapes[] = {
    {"number key (External::Publication: subscription_id)", kPubType,
     [](int key, const std::string& value) -> BaseRow { return pub(static_cast<unsigned>(key + 1), value); },
     showPub},
    {"number and string key (External::Subscription: system_description, outputPath)",
     External::Subscription::rowTypeName(),
     [](int key, const std::string& value) -> BaseRow {
         External::Subscription row;
         row.system_descriptionIs(key < 2 ? 1 : 2);
         row.outputPathIs(key % 2 == 0 ? "a" : "b");
         row.queryTextIs(value);
         return row;
     },
     [](const BaseRow& r) {
         const External::Subscription s(r);
         return "(" + std::to_string(s.system_description()) + ",\"" + s.outputPath() + "\")" +
                value(s.queryText());
     }},
    {"three-number key (veCtrl::subscription: system_description, connection_id, tableId)",
     veCtrl::subscription::rowTypeName(),
     [](int key, const std::string& value) -> BaseRow {
         static const unsigned keys[4][3] = {{1, 1, 1}, {1, 1, 2}, {1, 2, 1}, {2, 1, 1}};
         veCtrl::subscription row;
         row.system_descriptionIs(keys[key][0]);
         row.connection_idIs(keys[key][1]);
         row.tableIdIs(keys[key][2]);
         row.typeNameIs(value);
         return row;
     },
     [](const BaseRow& r) {
         const veCtrl::subscription c(r);
         return "(" + std::to_string(c.system_description()) + "," + std::to_string(c.connection_id()) + "," +
                std::to_string(c.tableId()) + ")" + value(c.typeName());
     }},
    {"oid key (veMetadata::SystemDescription: oid)", veMetadata::SystemDescription::rowTypeName(),
     [](int key, const std::string& value) -> BaseRow {
         veMetadata::SystemDescription row;
         row.oidIs(static_cast<unsigned>(key + 1));
         row.sysNameIs(value);
         return row;
     },
     [](const BaseRow& r) {
         const veMetadata::SystemDescription s(r);
         return "(" + std::to_string(s.oid()) + ")" + value(s.sysName());
     }},
};

// The adapter's own row type, or none; an offer without a way to make rows fails the check.
std::optional<OwnRowType> ownRowType(HostAdapter& host) {
    OwnRowType own = host.ownRowType();
    if (own.name.empty()) return std::nullopt;
    if (!own.make) {
        ADD_FAILURE() << "your adapter names its own row type " << own.name << " but gives no make()";
        return std::nullopt;
    }
    if (!own.show) own.show = [](const BaseRow& r) { return r.toString(); };
    return own;
}

// The built-in shapes, and the adapter's own row type when it offers one.
std::vector<KeyShape> keyShapes(HostAdapter& host) {
    std::vector<KeyShape> shapes(std::begin(kKeyShapes), std::end(kKeyShapes));
    if (std::optional<OwnRowType> own = ownRowType(host))
        shapes.push_back({"the host's own row type " + own->name, own->name, own->make, own->show});
    return shapes;
}

// Strict weak order, and equivalence exactly between rows of equal key.
template <class Less>
void checkOrder(const std::string& what, const std::vector<BaseRow>& rows,
                const std::function<std::string(const BaseRow&)>& key, Less less,
                std::vector<std::string>& problems) {
    for (const BaseRow& a : rows) {
        if (less(a, a)) problems.push_back(what + " orders " + key(a) + " before itself");
        for (const BaseRow& b : rows) {
            const bool equivalent = !less(a, b) && !less(b, a);
            if (&a < &b && equivalent != (key(a) == key(b)))
                problems.push_back(what + (equivalent ? " treats keys " : " orders rows of the same key ") +
                                   key(a) + " and " + key(b) + (equivalent ? " as equal" : " apart"));
            for (const BaseRow& c : rows)
                if (less(a, b) && less(b, c) && !less(a, c))
                    problems.push_back(what + " is not transitive on " + key(a) + ", " + key(b) + ", " +
                                       key(c));
        }
    }
}

External::Subscription subscription(unsigned system, const std::string& path, unsigned oid,
                                    const std::string& query) {
    External::Subscription row;
    row.system_descriptionIs(system);
    row.outputPathIs(path);
    row.oidIs(oid);
    row.queryTextIs(query);
    return row;
}

veCtrl::subscription control(unsigned system, unsigned connection, unsigned tableId, unsigned oid = 0) {
    veCtrl::subscription row;
    row.system_descriptionIs(system);
    row.connection_idIs(connection);
    row.tableIdIs(tableId);
    row.oidIs(oid);
    return row;
}

veCtrl::publication ctrlPub(unsigned id, const std::string& error) {
    veCtrl::publication row;
    row.subscription_idIs(id);
    row.errorIs(error);
    row.statusIs(error.empty());
    return row;
}

}  // namespace

void primaryKeyAddressesRows(HostAdapter& host) {
    std::vector<std::string> problems;
    int n = 0;
    for (const KeyShape& shape : keyShapes(host)) {
        Scene s(host, "primary-key/" + std::to_string(n++), shape.typeName);
        const auto stored = [&](int key) { return shape.make(key, "stored " + std::to_string(key)); };
        for (int key = 0; key < 3; ++key) host.writeRow(s.path, stored(key));
        Probe& modifier = s.probe("modifier", kModifierMode);
        host.deliver();
        const VeTableInterface& i = modifier.iface;
        const auto expectAt = [&](const BaseRow& key, const std::string& want) {
            const BaseRow found = i.row(key, 0);
            const std::string got = found.empty() ? "an empty row" : shape.show(found);
            const VeRowIterator at = i.find(key, 0);
            const std::string gotAt = at == i.end(0) ? "end()" : shape.show(*at);
            if (got != want)
                problems.push_back(shape.label + ": row(" + shape.show(key) + ", 0) gave " + got +
                                   ", expected " + want);
            if (gotAt != (want == "an empty row" ? "end()" : want))
                problems.push_back(shape.label + ": find(" + shape.show(key) + ", 0) gave " + gotAt);
        };
        for (int key = 0; key < 3; ++key) {
            expectAt(shape.make(key, ""), shape.show(stored(key)));
            expectAt(shape.make(key, "other fields"), shape.show(stored(key)));
        }
        expectAt(shape.make(3, ""), "an empty row");
        modifier.iface.rowDel(shape.make(1, "other fields"));
        expectAt(shape.make(1, ""), "an empty row");
        expectAt(shape.make(0, ""), shape.show(stored(0)));
        expectAt(shape.make(2, ""), shape.show(stored(2)));
    }
    VELTA_KIT_EXPECT(problems.empty())
        << "your host did not reach rows by their primary key through index 0:" << lines(problems);
}

void oidIndexFindsRows(HostAdapter& host) {
    Scene s(host, "oid-index", veCtrl::subscription::rowTypeName());
    host.writeRow(s.path, control(9, 9, 9, 900));
    Probe& modifier = s.probe("modifier", kModifierMode);
    host.deliver();
    VeTableInterface& i = modifier.iface;
    i.activateIndex(1);
    std::vector<std::string> problems;
    std::vector<std::pair<unsigned, unsigned>> oidToConnection = {{900, 9}};
    for (unsigned connection = 1; connection <= 3; ++connection) {
        modifier.write(control(1, connection, 5));
        const unsigned oid = veCtrl::subscription(i.row(control(1, connection, 5), 0)).oid();
        oidToConnection.emplace_back(oid, connection);
        if (oid == 0) problems.push_back("a row written with oid 0 was stored with oid 0");
        if (connection == 1) {
            // A client takes the number after it, which a plain counter would hand out next.
            modifier.write(control(1, 4, 5, oid + 1));
            oidToConnection.emplace_back(oid + 1, 4);
        }
    }
    std::set<unsigned> distinct;
    for (const auto& [oid, connection] : oidToConnection) distinct.insert(oid);
    if (distinct.size() != oidToConnection.size())
        problems.push_back(
            "a row written with oid 0 got an oid another row has (given by the host or the "
            "writer)");
    for (const auto& [oid, connection] : oidToConnection) {
        veCtrl::subscription key;
        key.oidIs(oid);
        const veCtrl::subscription found(i.row(key, 1));
        const VeRowIterator at = i.find(key, 1);
        if (found.empty() || found.connection_id() != connection)
            problems.push_back("row(oid " + std::to_string(oid) + ", 1) did not give the row of connection " +
                               std::to_string(connection));
        if (at == i.end(1) || veCtrl::subscription(*at).connection_id() != connection)
            problems.push_back("find(oid " + std::to_string(oid) +
                               ", 1) did not reach the row of connection " + std::to_string(connection));
    }
    veCtrl::subscription missing;
    missing.oidIs(*distinct.rbegin() + 1000);
    if (!i.row(missing, 1).empty() || i.find(missing, 1) != i.end(1))
        problems.push_back("a lookup through index 1 of an oid no row has found a row");
    VELTA_KIT_EXPECT(problems.empty())
        << "your host did not number rows or reach them by oid through index 1 (table " << s.path
        << "):" << lines(problems);
}

void walksSurviveChanges(HostAdapter& host) {
    std::vector<std::string> problems;

    // Rows written and deleted under a walk, the current one among them.
    Scene s(host, "walk/changes");
    const std::string& path = s.path;
    for (unsigned id : {10u, 20u, 30u, 40u, 50u, 60u}) host.writeRow(path, pub(id, "v"));
    Probe& walker = s.probe("walker", kModifierMode);
    host.deliver();
    const std::vector<unsigned> order = ids(walker.iface);
    VELTA_KIT_REQUIRE(order.size() == 6) << "a walk of a table of six rows gave " << text(order);
    std::vector<unsigned> visited;
    for (VeRowIterator it = walker.iface.begin(0); it != walker.iface.end(0) && visited.size() < 100; ++it) {
        visited.push_back(idOf(*it));
        if (visited.back() != order[1]) continue;
        host.deleteRow(path, pub(order[1]));            // the current row
        host.deleteRow(path, pub(order[2]));            // the next one, before the walk reaches it
        host.writeRow(path, pub(order[3], "changed"));  // a later one, replaced
        walker.iface.rowDel(pub(order[0]));             // one already passed, through the interface
        host.writeRow(path, pub(35, "new"));            // a new one
    }
    const std::vector<unsigned> throughout = {order[0], order[1], order[3], order[4], order[5]};
    std::vector<unsigned> seen;
    for (unsigned id : visited)
        if (std::find(throughout.begin(), throughout.end(), id) != throughout.end()) seen.push_back(id);
    if (seen != throughout || std::set<unsigned>(visited.begin(), visited.end()).size() != visited.size())
        problems.push_back("a walk of " + text(order) +
                           " during which rows were written and deleted visited " + text(visited) +
                           "; the rows present throughout are " + text(throughout));

    // Deleting at positions during a walk.
    Scene sweep(host, "walk/sweep");
    const std::string& swept = sweep.path;
    for (unsigned id = 1; id <= 6; ++id) host.writeRow(swept, pub(id, "v"));
    Probe& sweeper = sweep.probe("sweeper", kModifierMode);
    host.deliver();
    const std::vector<unsigned> all = ids(sweeper.iface);
    std::vector<unsigned> deleted, kept;
    for (VeRowIterator it = sweeper.iface.begin(0);
         it != sweeper.iface.end(0) && deleted.size() + kept.size() < 100;) {
        if (deleted.size() == kept.size()) {
            deleted.push_back(idOf(*it));
            it = sweeper.iface.rowDel(it);
        } else {
            kept.push_back(idOf(*it));
            ++it;
        }
    }
    if (all.size() != 6 || deleted != std::vector<unsigned>{all[0], all[2], all[4]} ||
        kept != std::vector<unsigned>{all[1], all[3], all[5]} || ids(sweeper.iface) != kept)
        problems.push_back("deleting every other row of " + text(all) + " with it = rowDel(it) deleted " +
                           text(deleted) + ", stepped over " + text(kept) + " and left " +
                           text(ids(sweeper.iface)));

    // Resuming from a bookmark (a copy of the next row to visit) with lower_bound.
    if (kept.size() == 3 && problems.empty()) {
        const BaseRow mark = *sweeper.iface.find(pub(kept[1]), 0);
        const BaseRow last = *sweeper.iface.find(pub(kept[2]), 0);
        const auto resume = [&](const BaseRow& at) {
            const VeRowIterator it = sweeper.iface.lower_bound(at, 0);
            return it == sweeper.iface.end(0) ? std::string("end()") : "#" + std::to_string(idOf(*it));
        };
        const std::string atMark = resume(mark);
        host.deleteRow(swept, mark);
        host.deliver();
        const std::string afterDelete = resume(mark);
        host.deleteRow(swept, last);
        host.deliver();
        const std::string afterLast = resume(last);
        const std::string want = "#" + std::to_string(kept[1]) + ", #" + std::to_string(kept[2]) + ", end()";
        if (atMark + ", " + afterDelete + ", " + afterLast != want)
            problems.push_back("lower_bound from a bookmark on " + text(kept) +
                               " (the row, then the row deleted, then the last row deleted) gave " + atMark +
                               ", " + afterDelete + ", " + afterLast + "; expected " + want);
    }
    VELTA_KIT_EXPECT(problems.empty())
        << "your host's walks did not survive changes made during them:" << lines(problems);
}

void ownWritesAreVisibleAtOnce(HostAdapter& host) {
    Scene s(host, "own-writes");
    Probe& modifier = s.probe("modifier", kModifierMode);
    Probe& reader = s.probe("reader", kReaderMode);
    host.deliver();
    std::vector<std::string> problems;
    const auto expectRow = [&](const char* when, const std::string& want) {
        for (const Probe* p : {&modifier, &reader}) {
            const BaseRow found = p->iface.row(pub(1), 0);
            const bool atEnd = p->iface.find(pub(1), 0) == p->iface.end(0);
            const std::string got = found.empty() ? "nothing" : showPub(found);
            if (got != want || atEnd != (want == "nothing"))
                problems.push_back(std::string(when) + ", the " + p->iface.ifName() + " found " + got +
                                   " (expected " + want + ")");
        }
    };
    modifier.write(pub(1, "written"));
    expectRow("right after the write", "#1 written");
    modifier.iface.rowDel(pub(1));
    expectRow("right after the deletion", "nothing");
    VELTA_KIT_EXPECT(problems.empty())
        << "your host did not show an agent its own changes at once (the translator writes a control row and "
           "reads it back through another interface):"
        << lines(problems);
}

void rowsAreCopiedOnWrite(HostAdapter& host) {
    Scene s(host, "copy-on-write");
    Probe& modifier = s.probe("modifier", kModifierMode);
    s.probe("observer", kObserverMode, [](Probe&, const std::string& what, const BaseRow& row) {
        if (what != "row") return;
        External::Publication mine(row);  // as the intake changes the oid of the row it was handed
        mine.errorIs("changed in a callback");
    });
    host.deliver();
    External::Publication written = pub(1, "written");
    modifier.iface.rowIs(written);
    written.errorIs("changed by the writer");
    host.writeRow(s.path, pub(2, "client"));
    host.deliver();
    External::Publication read(modifier.iface.row(pub(2), 0));
    const External::Publication copy = read;
    read.errorIs("changed by a reader");
    const std::vector<std::string> got = walk(modifier.iface, showPub);
    const std::vector<std::string> want = {"#1 written", "#2 client"};
    VELTA_KIT_EXPECT(got == want && showPub(copy) == "#2 client")
        << "your host let a change to a row an agent holds reach another holder of that row: after the "
           "writer changed its row, an observer changed the row it was handed and a reader changed the "
           "row it read, the table read"
        << lines(got) << "\n  and a copy the reader made before its change read " << showPub(copy)
        << "\n  (expected the table to read" << lines(want) << "\n  and the copy #2 client: a setter on a "
        << "row whose data is shared copies it first)";
}

void keyOrdersFollowThePrimaryKey(HostAdapter& host) {
    auto agent = connectAgent(host, "A");
    std::vector<std::string> problems;
    const std::vector<BaseRow> subscriptions = {subscription(1, "a", 5, "q1"), subscription(1, "a", 6, "q2"),
                                                subscription(1, "b", 5, "q1"), subscription(2, "a", 7, "q1"),
                                                subscription(0, "b", 8, "")};
    const auto subKey = [](const BaseRow& r) {
        const External::Subscription s(r);
        return "(" + std::to_string(s.system_description()) + ",\"" + s.outputPath() + "\")";
    };
    const std::vector<BaseRow> ctrlPubs = {ctrlPub(1, "x"), ctrlPub(1, ""), ctrlPub(2, "x"), ctrlPub(7, "")};
    const auto ctrlPubKey = [](const BaseRow& r) {
        return "(" + std::to_string(veCtrl::publication(r).subscription_id()) + ")";
    };
    const std::vector<BaseRow> pubs = {pub(1, "x"), pub(1, "y"), pub(2, "x"), pub(3, "")};
    const auto pubKey = [](const BaseRow& r) { return "(" + std::to_string(idOf(r)) + ")"; };
    const std::vector<BaseRow> controls = {control(1, 1, 1, 3), control(1, 1, 1, 4), control(1, 1, 2, 3),
                                           control(1, 2, 1), control(2, 1, 1)};
    const auto controlKey = [](const BaseRow& r) {
        const veCtrl::subscription c(r);
        return "(" + std::to_string(c.system_description()) + "," + std::to_string(c.connection_id()) + "," +
               std::to_string(c.tableId()) + ")";
    };

    checkOrder(
        "External::Subscription's operator<", subscriptions, subKey,
        [](const BaseRow& a, const BaseRow& b) {
            return External::Subscription(a) < External::Subscription(b);
        },
        problems);
    checkOrder(
        "veCtrl::publication's operator<", ctrlPubs, ctrlPubKey,
        [](const BaseRow& a, const BaseRow& b) { return veCtrl::publication(a) < veCtrl::publication(b); },
        problems);
    const auto byRowOps = [&](const std::string& type, const std::vector<BaseRow>& rows,
                              const std::function<std::string(const BaseRow&)>& key) {
        checkOrder("RowOpsKeyLess(getRowOps(\"" + type + "\", 0))", rows, key,
                   RowOpsKeyLess(agent->getRowOps(type, 0)), problems);
    };
    byRowOps(External::Subscription::rowTypeName(), subscriptions, subKey);
    byRowOps(veCtrl::publication::rowTypeName(), ctrlPubs, ctrlPubKey);
    byRowOps(kPubType, pubs, pubKey);
    byRowOps(veCtrl::subscription::rowTypeName(), controls, controlKey);
    if (const std::optional<OwnRowType> own = ownRowType(host)) {
        const std::vector<std::pair<int, std::string>> made = {
            {0, "x"}, {0, "y"}, {1, "x"}, {2, ""}, {3, "x"}};
        std::vector<BaseRow> rows;
        for (const auto& [key, value] : made) rows.push_back(own->make(key, value));
        byRowOps(own->name, rows, [&](const BaseRow& r) {
            const auto at =
                std::find_if(rows.begin(), rows.end(), [&](const BaseRow& m) { return m.sameData(r); });
            return "key " + std::to_string(made[static_cast<std::size_t>(at - rows.begin())].first);
        });
    }
    VELTA_KIT_EXPECT(problems.empty()) << "your host's key orders do not follow the primary key (the "
                                          "translator and the aggregator key ordered maps by them):"
                                       << lines(problems);
}

void tablesAreListedAndDescribed(HostAdapter& host) {
    Scene s(host, "tables/before");
    const std::string& before = s.path;
    const std::string after = "conformance/tables/after";
    VeltaDB& agent = s.agent();
    const std::shared_ptr<Log>& log = s.log;
    Probe tables(log, "tables", veMetadata::veTable::rowTypeName(), kObserverMode, showTable);
    std::vector<std::string> walked;
    tables.hookIs([&](Probe& self, const std::string& what, const BaseRow&) {
        if (what == "ready") walked = walk(self.iface, showTable);
    });
    tables.bind(agent, kVeTablePath);
    host.deliver();
    const std::string afterRow = after + " " + veCtrl::publication::rowTypeName();
    host.createTable(after, veCtrl::publication::rowTypeName());
    host.deliver();
    std::vector<std::string> problems;
    if (!contains(walked, before + " " + kPubType))
        problems.push_back("the walk of " + kVeTablePath + " in its observer's ready callback did not list " +
                           before + " of " + kPubType + ":" + lines(walked));
    if (!contains(log->of("tables", "row"), "row " + afterRow) && !contains(walked, afterRow))
        problems.push_back("the observer of " + kVeTablePath + " was not told of " + after +
                           ", created later" + log->seen());
    // By path and by id: a table a client created, and one the server agent registered (the translator
    // finds a result table again by its id).
    const std::string registered = "conformance/tables/registered";
    s.agent("server", true).registerTable(registered, kPubType, static_cast<TableType>(0), 0, 0, "server");
    host.deliver();
    std::set<unsigned> ids;
    for (const std::string& path : {before, registered}) {
        const veMetadata::veTable info = agent.tableInfo(path);
        ids.insert(info.oid());
        if (info.tablePath() != path || info.typeName() != kPubType || info.oid() == 0)
            problems.push_back("tableInfo(\"" + path + "\") gave " + describe(info));
        else if (agent.tableInfo(info.oid()).tablePath() != path)
            problems.push_back("tableInfo(" + std::to_string(info.oid()) + "), the id of " + path +
                               ", gave " + describe(agent.tableInfo(info.oid())));
    }
    if (ids.size() != 2) problems.push_back("two tables have the same id");
    if (!agent.tableInfo("conformance/tables/none").empty())
        problems.push_back("tableInfo of a path with no table did not give an empty row");
    if (!agent.tableInfo(4000000000u).empty())
        problems.push_back("tableInfo of an id no table has (4000000000) did not give an empty row");
    if (log->of("tables", "ready").empty())
        problems.push_back("the observer of " + kVeTablePath + " never became ready");
    VELTA_KIT_EXPECT(problems.empty()) << "your host did not describe its tables in " << kVeTablePath
                                       << " and tableInfo:" << lines(problems);
}

void droppedTablesLeaveTheListing(HostAdapter& host) {
    Scene s(host, "tables/dropped");
    VeltaDB& agent = s.agent();
    Probe tables(s.log, "tables", veMetadata::veTable::rowTypeName(), kObserverMode, showTable);
    tables.bind(agent, kVeTablePath);
    host.deliver();
    const unsigned id = agent.tableInfo(s.path).oid();
    if (!host.dropTable(s.path)) GTEST_SKIP() << "the adapter cannot drop tables";
    host.deliver();
    const std::string listed = s.path + " " + kPubType;
    std::vector<std::string> problems;
    // What the delete callback carries is another check's: this one asks only that it comes.
    if (s.log->of("tables", "delete").empty())
        problems.push_back("the observer of " + kVeTablePath + " got no delete callback when " + s.path +
                           " was dropped" + s.log->seen());
    if (contains(walk(tables.iface, showTable), listed))
        problems.push_back(kVeTablePath + " still lists " + s.path);
    if (!agent.tableInfo(s.path).empty() || !agent.tableInfo(id).empty())
        problems.push_back("tableInfo by path or by its id " + std::to_string(id) + " still describes " +
                           s.path);
    // A table made again at the path is a new table: the aggregator admits it afresh.
    s.log->lines.clear();  // what came before the drop may hold the same row, replayed at ready
    host.createTable(s.path, kPubType);
    host.deliver();
    if (!contains(s.log->of("tables", "row"), "row " + listed) ||
        agent.tableInfo(s.path).typeName() != kPubType)
        problems.push_back(s.path + ", made again after it was dropped, was not listed and described again" +
                           s.log->seen());
    VELTA_KIT_EXPECT(problems.empty()) << "your host did not take a dropped table out of " << kVeTablePath
                                       << " and tableInfo (the aggregator lets an input go when its row "
                                          "goes):"
                                       << lines(problems);
}

void serverRegistrationIsVisibleAtOnce(HostAdapter& host) {
    const std::string path = "conformance/registered/by-server";
    auto server = connectAgent(host, "server", true);
    server->registerTable(path, kPubType, static_cast<TableType>(0), 0, 0, "owner-agent");
    const veMetadata::veTable info = server->tableInfo(path);
    VELTA_KIT_EXPECT(info.tablePath() == path && info.typeName() == kPubType && info.owner() == "owner-agent")
        << "your host did not know a table registered by the server agent when registerTable returned, with "
           "its type and owner (the translator asserts it does); tableInfo gave "
        << describe(info);
}

void registrationReachesMetadataObservers(HostAdapter& host) {
    const std::string path = "conformance/registered/elsewhere";
    const VeltaDB::p_t agent = connectAgent(host, "A");
    auto log = std::make_shared<Log>();
    Probe tables(log, "tables", veMetadata::veTable::rowTypeName(), kObserverMode, showTable);
    tables.bind(*agent, kVeTablePath);
    host.deliver();
    agent->registerTable(path, kPubType, static_cast<TableType>(0), 0, 0, "A");
    host.deliver();
    VELTA_KIT_EXPECT(contains(log->of("tables", "row"), "row " + path + " " + kPubType) &&
                     agent->tableInfo(path).typeName() == kPubType)
        << "your host did not bring a table registered by an agent that is not the server agent to tableInfo "
           "and to the observers of "
        << kVeTablePath << " (the translator waits for that row to go on with a subscription)" << kDeliverHint
        << log->seen();
}

void rowTypesKnownAndUnknown(HostAdapter& host) {
    auto agent = connectAgent(host, "A");
    std::vector<std::string> problems;
    for (const std::string& type :
         {External::Subscription::rowTypeName(), External::Publication::rowTypeName(),
          veCtrl::subscription::rowTypeName(), veCtrl::publication::rowTypeName(),
          veMetadata::veTable::rowTypeName(), veMetadata::SystemDescription::rowTypeName()}) {
        if (agent->tableTypeId(type, false) == VeltaDB::kUnknownTypeId)
            problems.push_back("tableTypeId(\"" + type + "\") gave 65535");
        if (VeltaDB::veClass(type).empty()) problems.push_back("veClass(\"" + type + "\") gave an empty row");
    }
    const std::string unknown = "Conformance::NoSuchType";
    if (const unsigned id = agent->tableTypeId(unknown, false); id != VeltaDB::kUnknownTypeId)
        problems.push_back("tableTypeId of an unknown type gave " + std::to_string(id) + ", not 65535");
    if (!VeltaDB::veClass(unknown).empty()) problems.push_back("veClass of an unknown type gave a row");
    VELTA_KIT_EXPECT(problems.empty())
        << "your host did not answer for its row types as the agents expect:" << lines(problems);
}

void handleReportsItsAgent(HostAdapter& host) {
    const AgentSpec specs[] = {{"server", "systemS", true, false, true},
                               {"external", "systemE", false, true, true},
                               {"perAgent", "systemP", false, true, false}};
    std::vector<std::string> problems;
    const auto flags = [](const std::string& name, const std::string& system, bool server, bool external,
                          bool standalone) {
        return name + "@" + system + " isServerAgent=" + std::to_string(server) +
               " external=" + std::to_string(external) + " standalone=" + std::to_string(standalone);
    };
    for (const AgentSpec& agent : specs) {
        const VeltaDB::p_t db = host.connect(agent);
        const std::string want =
            flags(agent.agentName, agent.systemName, agent.serverAgent, agent.external, agent.standalone);
        const std::string got =
            flags(db->agentName(), db->systemName(), db->isServerAgent(), db->external(), db->standalone());
        if (got != want) problems.push_back("connected as " + want + ", the handle reports " + got);
    }
    VELTA_KIT_EXPECT(problems.empty())
        << "your host's handles do not report the agents they were connected as:" << lines(problems);
}

void queryCompletesOnceAndLater(HostAdapter& host) {
    Scene s(host, "query");
    VeltaDB& server = s.agent("server", true);
    struct Calls {
        int count = 0;
        bool insideDefine = false;
        bool early = false;
    };
    auto calls = std::make_shared<Calls>();
    calls->insideDefine = true;
    server.defineQuery(
        "SELECT subscription_id FROM " + s.path, server.tableTypeId(kPubType, false), {},
        [calls](bool, unsigned, const std::string&) {
            ++calls->count;
            calls->early = calls->early || calls->insideDefine;
        },
        true, "conformance-query");
    calls->insideDefine = false;
    host.deliver();
    VELTA_KIT_EXPECT(!calls->early) << "your host called the completion from inside defineQuery (the "
                                       "translator expects it later, from the host's loop)";
    EXPECT_EQ(calls->count, 1) << "your host called the completion of one defineQuery " << calls->count
                               << " times by the time everything was delivered";
}

}  // namespace Velta::Conformance::kit
