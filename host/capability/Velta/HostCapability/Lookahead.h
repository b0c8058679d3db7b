// Delivery lookahead: an optional capability of the in-memory host, offered beside the host
// interface.
//
// The host delivers queued row events one at a time, and what a delivery reads (the agent's own
// maps, the rows of the tables it writes) usually lies far apart in memory: each delivery would wait
// for its reads in turn. A host with this capability calls an observing interface's lookahead hook
// with the row of a queued row or deletion event a few deliveries before it delivers that event, so
// that the agent can fetch into the cache what the delivery will read while the deliveries before it
// run; and it fetches a table's entry for a key on request. A plug-in that finds this header at
// compile time may use it; one built without it loses nothing but speed. The header is not part of
// the interface: another host need not provide it.
//
// Invariants:
// - A hook only prefetches: it changes nothing, in the agent or through the host, and the host
//   delivers exactly what it would deliver without it. It is not a delivery (no listener sees it)
//   and may be called for an event that is then dropped (its interface detached meanwhile).
#pragma once

#include <Velta/BaseRow.h>
#include <Velta/VeTableInterface.h>
#include <Velta/VeltaDB.h>

namespace Velta::HostCapability {

// Implemented, beside VeltaDB, by the agent handles of a host that looks ahead in its queue.
class Lookahead {
public:
    // Called with the context given to lookaheadIs and the row of the queued event (for a
    // deletion, the row deleted).
    using Hook = void (*)(void* context, const BaseRow& row);

    // The capability of the host behind `db`, or null when it has none.
    static Lookahead* of(VeltaDB& db) noexcept { return dynamic_cast<Lookahead*>(&db); }

    // From now on calls `hook` for the row and deletion events queued for `observer`, an interface
    // bound through this handle, a few deliveries before each is delivered (null: no more calls).
    // Binding the interface again forgets the hook.
    virtual void lookaheadIs(VeTableInterface& observer, Hook hook, void* context) = 0;
    // Fetches into the cache what finding `key`'s primary key reads in the table `iface` is bound
    // to (nothing when there is no table or `key` is of another row type). It needs no handle, so
    // a hook can call it with nothing but its interfaces at hand.
    static void prefetchKey(const VeTableInterface& iface, const BaseRow& key) noexcept;

protected:
    ~Lookahead() = default;
};

}  // namespace Velta::HostCapability
