// Fuzz target: the scenario parser of velta-sim. Any bytes must give either a scenario or one
// error message; the parser must never throw, crash, leak or read out of bounds.
#include "Scenario.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const VeltaSim::ParseResult result = VeltaSim::parseScenario("fuzz.yaml", text);
    // Exactly one of the two outcomes, and a failure always says something.
    if (result.scenario.has_value() == !result.error.empty()) __builtin_trap();
    return 0;
}
