// SubscriptionTranslator: turns external clients' subscriptions into control subscriptions the
// database acts on, and mirrors publications between the control side and the clients' side.
//
// One class serves three kinds of agent: the server agent, a standalone non-server agent and a
// non-server agent with per-agent subscription tables. The hosting process constructs it with the
// agent's database handle; from then on all work happens in the callbacks of its ten table
// interfaces, one callback at a time on the host's thread.
//
// Invariants:
// - Work on rows starts only once every interface in the readiness list reports ready; every
//   later ready pass replays the tables and must leave the same state when nothing changed.
// - `subscriptions_` holds one entry per external subscription key that reached
//   subscriptionComplete and was not withdrawn; `externalSubscriptionIds_` maps every entry's
//   current non-zero control id to the external subscription's oid recorded with it (an id
//   withdrawn by a failure stays mapped until replaced or withdrawn).
// - Client data never stops the process: refusals are traced and, in the server agent, written to
//   the client's publication row. Broken internal contracts end it through KESTO_ASSERT.
// - Destruction removes no rows and no queries.
#pragma once

#include <Kesto/DebugSupport.h>
#include <Velta/BaseRow.h>
#include <Velta/Records.h>
#include <Velta/VeTableInterface.h>
#include <Velta/VeltaDB.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Velta::Agent {

// The names the handlers' signature texts use for the two records passed by value.
using Subs = External::Subscription;
using TableRow = veMetadata::veTable;

// What the translator remembers of one external subscription it has handled. Created on the first
// completion for a subscription key; writer, reader and typeId never change afterwards.
class SubscriptionEntry {
public:
    SubscriptionEntry() = default;
    SubscriptionEntry(bool writerValue, bool readerValue, std::uint32_t externalOidValue,
                      std::uint32_t tableOidValue, std::uint32_t typeIdValue) noexcept
        : writer(writerValue),
          reader(readerValue),
          externalOid(externalOidValue),
          tableOid(tableOidValue),
          typeId(typeIdValue) {}
    virtual ~SubscriptionEntry() = default;

    bool writer = false;            // query text starts with "SELECT * INTO ": writes its table directly
    bool reader = false;            // query text starts with "SELECT * FROM ": reads its table directly
    std::uint32_t externalOid = 0;  // oid of the external subscription row (0 for a per-client row)
    std::uint32_t tableOid = 0;     // oid of the output table's metadata row; 0 while unknown
    std::uint32_t typeId = 0;       // result type id; 0 when the type is unknown
    std::uint32_t sid = 0;          // control subscription id currently known; 0 when none
    std::uint32_t spare = 0;        // reserved; always 0
    External::Subscription record;  // reserved; always empty
};

class SubscriptionTranslator {
public:
    // The translator's debug channel "SubscriptionTranslator", shared by all translators of the
    // process and never owned by one.
    class __kestoDebug : public Kesto::DebugSupport {
    public:
        __kestoDebug(Kesto::Platform::DebugHandler* handler, bool ownsHandler) noexcept
            : Kesto::DebugSupport(handler, ownsHandler) {}
        ~__kestoDebug() override;
        // The channel's handler, fetched once per process on first use.
        static Kesto::Platform::DebugHandler* getHandler();
    };

    // ---- What a hosting process calls ----

    // Builds the ten interfaces, binds those that suit the kind of agent and declares the observers
    // ready for callbacks. The agent must be the server agent or an external one (asserted).
    explicit SubscriptionTranslator(VeltaDB::p_t vdb);
    // Releases everything it holds; removes no rows and no queries. A query it defined calls it back
    // when the host completes the query, so destroy it only when none of its queries is pending or
    // together with the last reference to its handle (a host drops the completions of a handle that
    // is gone).
    virtual ~SubscriptionTranslator();

    SubscriptionTranslator(const SubscriptionTranslator&) = delete;
    SubscriptionTranslator& operator=(const SubscriptionTranslator&) = delete;

    // Empties the readiness list (keeping its storage) and the registry entries; touches nothing else:
    // externalSubscriptionId() still answers for the control ids it knew.
    void clean();

    // Registry lookups; neither inserts nor traces.
    // The external subscription's oid recorded for a control subscription id; 0 when unknown.
    std::uint32_t externalSubscriptionId(unsigned sid) const;
    // The entry of a subscription key (shared with the registry); empty when unknown.
    std::shared_ptr<SubscriptionEntry> subscription(const External::Subscription& sub) const;

    // ---- Handlers ----
    // The host calls these through the interfaces' callbacks and query completions, and they call
    // each other; a hosting process should not call them.

    // Ready callback of every interface: does nothing until all interfaces of the readiness list are
    // ready, then runs the ready passes (repeatable).
    void onTableReady();
    // A metadata row appeared or changed: re-runs the intake of a subscription that waited for it.
    void onTableRow(const BaseRow& row);

    // Intake of external subscriptions: from the shared table, from the agent's per-client table,
    // and the common pass both lead to (a per-client row is handled with oid 0).
    void extSubsOnRow(const BaseRow& row);
    void extSubsOnClientRow(const BaseRow& row);
    void extSubsOnRowCommon(const BaseRow& row, bool perClient);
    // Replays the shared subscription table and sweeps control and publication rows that have no
    // external subscription behind them.
    void extSubsOnReady();
    // Withdrawal of an external subscription: registry, control row, and in the server agent the
    // client's publication row and the query.
    void extSubsOnDelete(const BaseRow& row);

    // Records the outcome of handling a subscription: keeps the registry, withdraws the control row
    // on failure and, in the server agent, reports the failure in the client's publication row.
    // `querySid` (the host's query id) is accepted and ignored.
    void subscriptionComplete(Subs sub, TableRow table, bool writer, bool reader, bool ok, oid_t querySid,
                              oid_t sid, const std::string& error);

    // Internal-to-external publication (server agent): mirrors control publications into the
    // clients' publication table and defines the client's query once a publication is good.
    void pubOnRow(const BaseRow& row);
    void pubOnDelete(const BaseRow& row);
    void pubOnReady();

    // External-to-internal publication (other agents): carries client publications into the control
    // publication table and sweeps internal ones whose external side is gone.
    void extPubOnRow(const BaseRow& row);
    void extPubOnDelete(const BaseRow& row);
    void extPubOnReady();

    // ---- Read access for tests and tools; not part of the agent's design ----

    // The interface whose interface name (= member name) is `ifName`, or nullptr.
    const VeTableInterface* tableInterface(const std::string& ifName) const;
    const std::vector<VeTableInterface*>& requiredInterfaces() const noexcept { return requiredInterfaces_; }
    const std::map<std::string, External::Subscription>& pendingTableSubscriptions() const noexcept {
        return pendingTableSubscriptions_;
    }
    const std::set<veCtrl::publication>& publications() const noexcept { return publications_; }
    std::size_t subscriptionCount() const noexcept { return subscriptions_.size(); }
    const __kestoDebug& debugChannel() const noexcept { return debugChannel_; }

private:
    // The members and their order are part of the agent's design. The ten interfaces bear their
    // host-visible interface names.
    VeltaDB::p_t vdb_;
    VeTableInterface extSubsObserver_;
    VeTableInterface extSubsPerClientObserver_;
    VeTableInterface subsReader;
    VeTableInterface subsModifier;
    VeTableInterface extPubObserver_;
    VeTableInterface extPubModifier;
    VeTableInterface pubObserver_;
    VeTableInterface pubModifier;
    VeTableInterface sysDescReader;
    VeTableInterface veTableObserver;
    std::vector<VeTableInterface*> requiredInterfaces_;
    std::map<External::Subscription, std::shared_ptr<SubscriptionEntry>> subscriptions_;
    std::map<std::uint32_t, std::uint32_t> externalSubscriptionIds_;
    std::set<veCtrl::publication> publications_;
    std::map<std::string, External::Subscription> pendingTableSubscriptions_;
    __kestoDebug debugChannel_;
};

}  // namespace Velta::Agent
