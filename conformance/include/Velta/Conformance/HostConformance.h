// The host conformance kit: the contracts the agents rely on of a host, as GoogleTest checks that
// any host implementing the interface in <Velta/VeltaDB.h> can run.
//
// A host plugs in through a HostAdapter (a fresh database per check: connect agents, create tables,
// write and delete rows as a client, deliver what is queued). The checks use nothing but the host
// interface, the six built-in records and the adapter, and each one enforces one contract; where
// the interface leaves a choice to the host (the order across interfaces, whether identical rewrites
// notify, when a registration made outside the server agent arrives...), the checks accept every
// choice. docs/host-contracts.md lists the contracts and the choices.
//
// A host author's test program:
//   int main(int argc, char** argv) {
//       testing::InitGoogleTest(&argc, argv);
//       Velta::Conformance::registerHostConformance("MyHost", [] { return std::make_unique<MyAdapter>(); });
//       return RUN_ALL_TESTS();
//   }
#pragma once

#include <Velta/BaseRow.h>
#include <Velta/VeltaDB.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Velta::Conformance {

// An agent to connect, with the flags its handle must report.
struct AgentSpec {
    std::string agentName;
    std::string systemName;
    bool serverAgent = false;  // VeltaDB::isServerAgent()
    bool external = false;     // VeltaDB::external()
    bool standalone = true;    // VeltaDB::standalone()
};

// A row type of the host's own rather than one of the built-in records: the tables the aggregator
// merges have such types. `make(key, value)` gives a row whose primary key is fixed by `key` alone
// (0 to 3: four distinct keys) and whose fields outside the key are fixed by `value` alone.
struct OwnRowType {
    std::string name;  // empty: the adapter has none to offer
    std::function<BaseRow(int key, const std::string& value)> make;
    // The fields `make` sets, as text; rows read back are compared by it. Empty: the row's own
    // toString(), which suits a type without fields the host fills on write (such as an oid).
    std::function<std::string(const BaseRow& row)> show = nullptr;
};

// The host under test. One adapter is one database, fresh for each check.
class HostAdapter {
public:
    virtual ~HostAdapter() = default;
    // A handle for a new agent of this database.
    virtual VeltaDB::p_t connect(const AgentSpec& agent) = 0;
    // Creates an empty table at `path` for rows of the named built-in record type or own row type.
    virtual void createTable(const std::string& path, const std::string& rowTypeName) = 0;
    // Inserts or replaces `row`, or removes the row with `key`'s primary key, as a client outside
    // every agent would.
    virtual void writeRow(const std::string& path, const BaseRow& row) = 0;
    virtual void deleteRow(const std::string& path, const BaseRow& key) = 0;
    // Drops the table at `path` and its rows, as an administrator outside every agent would; false
    // when this adapter cannot drop tables (the check that needs it is then skipped).
    virtual bool dropTable(const std::string& path) {
        (void)path;
        return false;
    }
    // Returns once every callback and every piece of host work caused so far has been delivered.
    virtual void deliver() = 0;
    // A row type of the host's own, which the key checks then cover beside the built-in records;
    // none by default (those checks then cover the built-in records only).
    virtual OwnRowType ownRowType() { return {}; }
};

using HostAdapterFactory = std::function<std::unique_ptr<HostAdapter>()>;

// One contract and its check. A check reports through GoogleTest assertions; it is run on a
// fresh adapter and returns when done.
struct Check {
    const char* name;      // the test name, e.g. "DeleteCallbackComesAfterTheRowLeft"
    const char* contract;  // the contract, in a host author's words
    void (*run)(HostAdapter& host);
};

// Every check, in a fixed order.
const std::vector<Check>& checks();

// Registers every check as the GoogleTest test `suite.<check name>`, each on an adapter made by
// `makeHost`. Call it before RUN_ALL_TESTS().
void registerHostConformance(const std::string& suite, HostAdapterFactory makeHost);

}  // namespace Velta::Conformance
