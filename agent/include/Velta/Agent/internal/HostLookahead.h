// Not API: machinery of the agent library. Detects, at compile time, the host's optional delivery
// lookahead capability (<Velta/HostCapability/Lookahead.h>): the header must be on the include path
// and the capability must have the shape the aggregator uses.
//
// As for the key hash (HostKeyHash.h), the agent headers follow the value recorded when the library
// was built (Velta/Agent/Config.h); the agent sources check that the two agree.
#pragma once

#include <Velta/BaseRow.h>
#include <Velta/VeTableInterface.h>
#include <Velta/VeltaDB.h>

#include <concepts>

namespace Velta::Agent::internal {

// What the aggregator asks of the host's lookahead capability.
template <class L>
concept LookaheadCapability = requires(L& l, VeltaDB& db, VeTableInterface& iface, const BaseRow& row,
                                       void* context, void (*hook)(void*, const BaseRow&)) {
    { L::of(db) } -> std::same_as<L*>;
    l.lookaheadIs(iface, hook, context);
    L::prefetchKey(iface, row);
};

}  // namespace Velta::Agent::internal

#if __has_include(<Velta/HostCapability/Lookahead.h>)
#include <Velta/HostCapability/Lookahead.h>

namespace Velta::Agent::internal {
inline constexpr bool kHostLookaheadDetected = LookaheadCapability<HostCapability::Lookahead>;
}  // namespace Velta::Agent::internal
#else
namespace Velta::Agent::internal {
inline constexpr bool kHostLookaheadDetected = false;
}  // namespace Velta::Agent::internal
#endif
