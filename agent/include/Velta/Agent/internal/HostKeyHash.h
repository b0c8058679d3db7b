// Not API: machinery of the agent library. Detects, at compile time, the host's optional key-hash
// capability (<Velta/HostCapability/KeyHash.h>): the header must be on the include path and its
// helper must have the shape the owner map uses.
//
// The agent headers do not decide by this detection but by the value recorded when the library was
// built (Velta/Agent/Config.h), so that a hosting process always compiles against the layout that
// was built; the agent sources check that the two agree, and the build runs this very test to
// record the value.
#pragma once

#include <Velta/BaseRow.h>
#include <Velta/VeltaDB.h>

#include <concepts>
#include <cstdint>
#include <optional>

namespace Velta::Agent::internal {

// What the owner map asks of the host's key-hash helper.
template <class H>
concept RowKeyHashHelper = std::constructible_from<H, const RowOps*> && std::copy_constructible<H> &&
    requires(const H& h, const BaseRow& row) {
    { h.available() } -> std::same_as<bool>;
    { h.hash(row) } -> std::same_as<std::uint64_t>;
    { h.exact(row) } -> std::same_as<bool>;
    { h.numberKeyLess(row, row) } -> std::same_as<std::optional<bool>>;
};

}  // namespace Velta::Agent::internal

#if __has_include(<Velta/HostCapability/KeyHash.h>)
#include <Velta/HostCapability/KeyHash.h>

namespace Velta::Agent::internal {
inline constexpr bool kHostKeyHashDetected = RowKeyHashHelper<HostCapability::RowKeyHash>;
}  // namespace Velta::Agent::internal
#else
namespace Velta::Agent::internal {
inline constexpr bool kHostKeyHashDetected = false;
}  // namespace Velta::Agent::internal
#endif
