// The report of a run: one entry per scenario, as text or as one JSON object per line.
#pragma once

#include "Runner.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace VeltaSim {

struct ScenarioReport {
    std::string file;
    std::string name;
    bool orderIndependent = false;
    Outcome outcome;              // the run in the host's plain delivery order
    std::size_t shuffleRuns = 0;  // further runs under seeded delivery orders
    std::vector<std::uint64_t> failingSeeds;
    std::optional<Failure> firstShuffleFailure;

    // A scenario that declares its outcome independent of delivery order also fails when any
    // seeded order fails; for the others a failing order is reported only.
    bool passed() const noexcept { return outcome.passed && (!orderIndependent || failingSeeds.empty()); }
};

// "step 5 (line 12) expect_rows: message", or the message alone when not tied to a step.
std::string failureHeadline(const Failure& failure);
// PASS/FAIL line, failures with their diffs, the delivery-order result and the views.
std::string textReport(const ScenarioReport& report);
// One JSON object on one line.
std::string jsonReport(const ScenarioReport& report);
// A file that could not be used, as a JSON object on one line.
std::string jsonFileError(const std::string& file, const std::string& message);
// "N passed, N failed".
std::string summaryLine(std::size_t passed, std::size_t failed);

}  // namespace VeltaSim
