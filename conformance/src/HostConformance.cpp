// The list of checks, their registration as GoogleTest tests, and the helpers they share.
#include "Kit.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace Velta::Conformance {

const std::vector<Check>& checks() {
    using namespace kit;
    static const std::vector<Check> all = {
        {"ReadyComesBeforeRowCallbacks",
         "an observer's ready callback comes before any row or delete callback for it (whether existing rows "
         "are then replayed is the host's choice)",
         readyComesFirst},
        {"ReadyIsTrueInTheReadyCallback",
         "ready() answers true when the ready callback runs, and from then on",
         readyIsTrueInTheReadyCallback},
        {"ReadersAndModifiersBecomeReadyUnasked",
         "a reader or modifier gets its ready callback once bound, without being declared client-ready",
         readersAndModifiersBecomeReady},
        {"ObserverWaitsForClientReady",
         "a bound observer gets no callback until it is declared client-ready; then its ready callback and "
         "the changes that follow",
         observerWaitsForClientReady},
        {"EveryChangeIsReportedWhoeverMadeIt",
         "an observer gets one row callback for every insert or replace and one delete callback for every "
         "removal, carrying the row written or removed, whether a client, another agent or another interface "
         "of its own agent made the change (whether identical rewrites notify is the host's choice)",
         everyChangeIsReported},
        {"EachInterfaceSeesChangesInOrder",
         "each interface gets its callbacks in the order the changes were made (the order across interfaces "
         "is the host's choice)",
         changesArriveInOrder},
        {"DeleteCallbackComesAfterTheRowLeft",
         "a delete callback runs after the row has left the interface's view: row(key, 0) and find(key, 0) "
         "made inside it no longer find the row",
         deleteComesAfterTheRowLeft},
        {"DestroyedInterfaceGetsNoCallbacks",
         "once an interface is destroyed (also from inside another interface's callback) none of its queued "
         "or later callbacks reach it",
         destroyedInterfaceIsLeftAlone},
        {"CallbacksNeverOverlap",
         "one callback at a time: no callback starts while another runs, also when the running one binds "
         "interfaces, writes, deletes, registers a table or asks tableInfo",
         callbacksNeverOverlap},
        {"ScheduledFlagOffKeepsCallbacks",
         "an observer whose scheduled flag the agent set to false still gets its callbacks",
         scheduledFlagOffKeepsCallbacks},
        {"ActivatedFlagFollowsActivate",
         "activated() is true after activate(true) and false after activate(false), also across callbacks",
         activatedFlagFollowsActivate},
        {"AttachmentIsNonZeroOnceBound",
         "the attachment value is zero before bindInterface and non-zero once it has returned",
         attachmentMarksBinding},
        {"PrimaryKeyFindsAndRemovesRows",
         "row, find and rowDel(key) through index 0 reach the row whose primary key equals the key row's, "
         "whatever the key row's other fields; a missing key gives an empty row and end() (built-in records "
         "and the adapter's own row type)",
         primaryKeyAddressesRows},
        {"OidIndexFindsRows",
         "rows written with oid 0 get non-zero oids no other row has (one a writer gave included), a row "
         "written with an oid keeps it, and row "
         "and find through index 1 reach a row by its oid alone; a missing oid gives an empty row and end()",
         oidIndexFindsRows},
        {"WalksSurviveChanges",
         "a walk from begin to end goes on while rows are written and deleted under it (the current one too) "
         "and visits every row present throughout once, in order; rowDel(position) returns the next "
         "position; lower_bound resumes at a bookmarked row or, when it is gone, at its successor (whether "
         "rows added or removed during the walk are visited is the host's choice)",
         walksSurviveChanges},
        {"OwnWritesAreVisibleAtOnce",
         "an agent sees its own writes and deletions at once, through any of its interfaces on that table",
         ownWritesAreVisibleAtOnce},
        {"RowsAreCopiedOnWrite",
         "a setter on a row whose data is shared (a row written, read, handed to a callback, or a copy of "
         "one) copies it first: neither the table nor another copy sees the change",
         rowsAreCopiedOnWrite},
        {"KeyOrdersFollowThePrimaryKey",
         "operator< of the records and the RowOpsKeyLess of getRowOps(type, 0) are strict weak orders under "
         "which two rows are equivalent exactly when their primary keys are equal (built-in records and the "
         "adapter's own row type)",
         keyOrdersFollowThePrimaryKey},
        {"TablesAreListedAndDescribed",
         "every table has a row in velta/metadata/veTable with its path and row type name: observers find it "
         "in their walk or are told of it, tableInfo answers by path and by id (for created and registered "
         "tables alike), and an unknown path or id gives an empty row",
         tablesAreListedAndDescribed},
        {"DroppedTablesLeaveTheListing",
         "when a table is dropped, its row leaves velta/metadata/veTable, observers get a delete callback "
         "for it, and tableInfo gives an empty row by path and by id; a table made again at the path is "
         "listed again (skipped when the adapter cannot drop tables)",
         droppedTablesLeaveTheListing},
        {"ServerRegistrationIsVisibleAtOnce",
         "in the server agent, registerTable makes the table known to tableInfo, with its type and owner, "
         "before it returns",
         serverRegistrationIsVisibleAtOnce},
        {"RegistrationReachesMetadataObservers",
         "a table registered by an agent that is not the server agent reaches tableInfo and the observers of "
         "velta/metadata/veTable once delivered (how soon is the host's choice)",
         registrationReachesMetadataObservers},
        {"RowTypesKnownAndUnknown",
         "tableTypeId and veClass answer for every built-in record type; an unknown type name gives 65535 "
         "and an empty row",
         rowTypesKnownAndUnknown},
        {"HandleReportsItsAgent",
         "a handle reports the agent name, system name and server-agent, external and standalone flags it "
         "was connected with",
         handleReportsItsAgent},
        {"QueryCompletesOnceAndLater",
         "the completion of defineQuery runs exactly once, after defineQuery has returned",
         queryCompletesOnceAndLater},
    };
    return all;
}

namespace {

class CheckTest : public testing::Test {
public:
    CheckTest(HostAdapterFactory makeHost, const Check& check)
        : makeHost_(std::move(makeHost)), check_(check) {}
    void TestBody() override {
        SCOPED_TRACE(std::string("contract: ") + check_.contract);
        const std::unique_ptr<HostAdapter> host = makeHost_();
        ASSERT_NE(host, nullptr) << "the adapter factory made no adapter";
        check_.run(*host);
    }

private:
    HostAdapterFactory makeHost_;
    const Check& check_;
};

}  // namespace

void registerHostConformance(const std::string& suite, HostAdapterFactory makeHost) {
    for (const Check& check : checks()) {
        testing::RegisterTest(
            suite.c_str(), check.name, nullptr, nullptr, __FILE__, __LINE__,
            [makeHost, &check]() -> testing::Test* { return new CheckTest(makeHost, check); });
    }
}

namespace kit {

VeltaDB::p_t connectAgent(HostAdapter& host, const std::string& name, bool serverAgent) {
    AgentSpec agent;
    agent.agentName = name;
    agent.systemName = "system-" + name;
    agent.serverAgent = serverAgent;
    agent.external = !serverAgent;
    return host.connect(agent);
}

External::Publication pub(unsigned id, const std::string& value) {
    External::Publication row;
    row.subscription_idIs(id);
    row.errorIs(value);
    return row;
}

std::string showPub(const BaseRow& row) {
    const External::Publication p(row);
    return "#" + std::to_string(p.subscription_id()) + (p.error().empty() ? "" : " " + p.error());
}

std::string showTable(const BaseRow& row) {
    const veMetadata::veTable t(row);
    return t.tablePath() + " " + t.typeName();
}

std::vector<std::string> Log::of(const std::string& ifName, const std::string& what) const {
    std::vector<std::string> found;
    const std::string prefix = ifName + " " + what;
    for (const std::string& line : lines)
        if (line.compare(0, prefix.size(), prefix) == 0) found.push_back(line.substr(ifName.size() + 1));
    return found;
}

std::string Log::seen() const {
    return "\n  callbacks seen:" + (lines.empty() ? std::string(" none") : kit::lines(lines));
}

std::string lines(const std::vector<std::string>& items) {
    std::string text;
    for (const std::string& item : items) text += "\n    " + item;
    return text;
}

struct Probe::State {
    std::shared_ptr<Log> log;
    std::string name;
    Show show;
    Hook hook;
    Probe* self = nullptr;  // null once the probe is destroyed

    void called(const char* what, const BaseRow& row) {
        std::string line = name + " " + what + (row.empty() ? "" : " " + show(row));
        if (self == nullptr) line += " (after the interface was destroyed)";
        if (log->running > 0) log->overlaps.push_back(line);
        log->lines.push_back(line);
        ++log->running;
        if (self != nullptr && hook) hook(*self, what, row);
        --log->running;
    }
};

Probe::Probe(std::shared_ptr<Log> log, const std::string& name, const std::string& rowTypeName,
             unsigned char mode, Show show)
    : state_(std::make_shared<State>(State{std::move(log), name, show, nullptr, this})),
      mode_(mode),
      iface(
          name, rowTypeName, mode, [s = state_] { s->called("ready", BaseRow()); },
          [s = state_](const BaseRow& row) { s->called("row", row); },
          [s = state_](const BaseRow& row) { s->called("delete", row); }, {}) {}

Probe::~Probe() {
    state_->self = nullptr;
    state_->hook = nullptr;
}

void Probe::hookIs(Hook hook) { state_->hook = std::move(hook); }

void Probe::bind(VeltaDB& db, const std::string& path, bool clientReady) {
    db.bindInterface(iface, path, false);
    if (clientReady && mode_ == kObserverMode) iface.clientReadyIs(true);
}

Scene::Scene(HostAdapter& host, const std::string& name, const std::string& rowTypeName)
    : host(host), path("conformance/" + name), rowTypeName(rowTypeName) {
    host.createTable(path, rowTypeName);
}

VeltaDB& Scene::agent(const std::string& name, bool serverAgent) {
    for (const auto& [known, db] : agents_)
        if (known == name) return *db;
    agents_.emplace_back(name, connectAgent(host, name, serverAgent));
    return *agents_.back().second;
}

Probe& Scene::probe(const std::string& ifName, unsigned char mode, Probe::Hook hook,
                    const std::string& agentName, bool clientReady) {
    probes_.push_back(std::make_unique<Probe>(log, ifName, rowTypeName, mode));
    probes_.back()->hookIs(std::move(hook));
    probes_.back()->bind(agent(agentName), path, clientReady);
    return *probes_.back();
}

std::vector<std::string> walk(const VeTableInterface& iface, Probe::Show show, unsigned char index,
                              std::size_t limit) {
    std::vector<std::string> rows;
    for (VeRowIterator it = iface.begin(index); it != iface.end(index) && rows.size() < limit; ++it)
        rows.push_back(show(*it));
    return rows;
}

}  // namespace kit
}  // namespace Velta::Conformance
