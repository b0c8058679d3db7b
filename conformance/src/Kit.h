// What the checks share: agents, probes (table interfaces that log their callbacks), rows of the
// built-in records in a short printed form, and failure texts.
//
// Every check runs on its own database and leaves nothing behind; probes log into one Log per
// check, so the callbacks seen can be compared as one value and printed with a failure.
#pragma once

#include <Velta/Conformance/HostConformance.h>

#include <Velta/BaseRow.h>
#include <Velta/Records.h>
#include <Velta/VeTableInterface.h>
#include <Velta/VeltaDB.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

// Fails the running check with the streamed message unless `condition` holds (REQUIRE also ends
// the check). A host author reads the message, not the expression.
#define VELTA_KIT_EXPECT(condition) \
    switch (0)                      \
    case 0:                         \
    default:                        \
        if (condition) {            \
        } else                      \
            ADD_FAILURE()
#define VELTA_KIT_REQUIRE(condition) \
    switch (0)                       \
    case 0:                          \
    default:                         \
        if (condition) {             \
        } else                       \
            FAIL()

namespace Velta::Conformance::kit {

// A standalone agent named `name`: the server agent or an external one.
VeltaDB::p_t connectAgent(HostAdapter& host, const std::string& name, bool serverAgent = false);

// An External::Publication row: key `id` (subscription_id), value `value` (error).
External::Publication pub(unsigned id, const std::string& value = "");
// "#<id> <value>" of a row read as an External::Publication.
std::string showPub(const BaseRow& row);
// "<tablePath> <typeName>" of a row read as a veMetadata::veTable.
std::string showTable(const BaseRow& row);

// The callbacks the probes of one check were called with, in order.
struct Log {
    std::vector<std::string> lines;     // "<interface> ready", "<interface> row #1 x", ...
    std::vector<std::string> overlaps;  // lines of callbacks that began while another was running
    int running = 0;

    // The lines of one interface without its name, optionally only those starting with `what`.
    std::vector<std::string> of(const std::string& ifName, const std::string& what = "") const;
    // "\n  callbacks seen:\n    ..." for a failure message.
    std::string seen() const;
};

// A table interface of the kit's. Each callback appends a line to the log and then runs the hook.
// The callbacks hold their state by shared pointer, so a host that calls one after the probe was
// destroyed is logged ("... after the interface was destroyed") instead of reaching freed memory.
class Probe {
public:
    using Hook = std::function<void(Probe& self, const std::string& what, const BaseRow& row)>;
    using Show = std::string (*)(const BaseRow&);

    Probe(std::shared_ptr<Log> log, const std::string& name, const std::string& rowTypeName,
          unsigned char mode, Show show = showPub);
    ~Probe();
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;

    // Runs inside every later callback, after it was logged ("ready", "row" or "delete"). Set it
    // before binding to see the ready callback: a host may call it from inside the binding calls.
    void hookIs(Hook hook);
    // Binds the interface to `path`; an observer is then declared client-ready unless told not to.
    void bind(VeltaDB& db, const std::string& path, bool clientReady = true);
    // Writes `row` through this interface.
    void write(BaseRow row) { iface.rowIs(row); }

private:
    struct State;
    std::shared_ptr<State> state_;
    unsigned char mode_;

public:
    VeTableInterface iface;
};

// What one check works on: a fresh table at "conformance/<name>", agents connected on first use,
// and probes bound to the table that log into one log. Probes go before the agents' handles.
class Scene {
public:
    Scene(HostAdapter& host, const std::string& name,
          const std::string& rowTypeName = External::Publication::rowTypeName());
    // The handle of agent `name` (the server agent when `serverAgent`), connected on first use.
    VeltaDB& agent(const std::string& name = "A", bool serverAgent = false);
    // A probe with `hook`, bound to the table through `agentName`'s handle; an observer is declared
    // client-ready unless told not to.
    Probe& probe(const std::string& ifName, unsigned char mode, Probe::Hook hook = nullptr,
                 const std::string& agentName = "A", bool clientReady = true);

    HostAdapter& host;
    const std::string path;
    const std::string rowTypeName;
    const std::shared_ptr<Log> log = std::make_shared<Log>();

private:
    std::vector<std::pair<std::string, VeltaDB::p_t>> agents_;
    std::vector<std::unique_ptr<Probe>> probes_;
};

// The key rows of every row from begin(index) to end(index), in `show`'s form; at most `limit`.
std::vector<std::string> walk(const VeTableInterface& iface, Probe::Show show, unsigned char index = 0,
                              std::size_t limit = 1000);

// Follows a message about a callback that never came: the adapter's deliver() may be what failed.
inline constexpr const char* kDeliverHint =
    "; if it did, your adapter's deliver() returned before everything queued was delivered";

// Lines joined for a message: "\n    a\n    b".
std::string lines(const std::vector<std::string>& items);

// The checks, one function each (CallbackChecks.cpp, TableChecks.cpp).
void readyComesFirst(HostAdapter& host);
void readyIsTrueInTheReadyCallback(HostAdapter& host);
void readersAndModifiersBecomeReady(HostAdapter& host);
void observerWaitsForClientReady(HostAdapter& host);
void everyChangeIsReported(HostAdapter& host);
void changesArriveInOrder(HostAdapter& host);
void deleteComesAfterTheRowLeft(HostAdapter& host);
void destroyedInterfaceIsLeftAlone(HostAdapter& host);
void callbacksNeverOverlap(HostAdapter& host);
void scheduledFlagOffKeepsCallbacks(HostAdapter& host);
void activatedFlagFollowsActivate(HostAdapter& host);
void attachmentMarksBinding(HostAdapter& host);
void primaryKeyAddressesRows(HostAdapter& host);
void oidIndexFindsRows(HostAdapter& host);
void walksSurviveChanges(HostAdapter& host);
void ownWritesAreVisibleAtOnce(HostAdapter& host);
void rowsAreCopiedOnWrite(HostAdapter& host);
void keyOrdersFollowThePrimaryKey(HostAdapter& host);
void tablesAreListedAndDescribed(HostAdapter& host);
void droppedTablesLeaveTheListing(HostAdapter& host);
void serverRegistrationIsVisibleAtOnce(HostAdapter& host);
void registrationReachesMetadataObservers(HostAdapter& host);
void rowTypesKnownAndUnknown(HostAdapter& host);
void handleReportsItsAgent(HostAdapter& host);
void queryCompletesOnceAndLater(HostAdapter& host);

}  // namespace Velta::Conformance::kit
