// Running one scenario on a fresh in-memory database, in this process or in a child process.
//
// Invariants:
// - Every run starts from a clean process state it sets itself (debug masks, the server-process
//   flag) and leaves the masks cleared and the flag false afterwards.
// - Each started agent object gets its own host handle, and that handle is referenced only by the
//   agent object: stopping the object releases the handle and with it its pending query completions.
// - A run never throws: host errors become failures of the step that met them.
#pragma once

#include "Scenario.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace VeltaSim {

// One failed expectation, or a step that could not be carried out.
struct Failure {
    std::size_t step = 0;  // 1-based; 0 when not tied to one step
    int line = 0;
    std::string keyword;               // the step's keyword
    std::string message;               // one line: what was expected and what was found
    std::vector<std::string> details;  // diff lines: "  " kept, "- " expected, "+ " found
};

struct RunOptions {
    std::uint64_t shuffleSeed = 0;  // non-zero: a seeded delivery order
    std::size_t deliveryBound = 0;  // 0: the host's own bound
    bool trace = false;             // view: the traces captured during each step
    bool timeline = false;          // view: every delivery with the changes it made
    bool dump = false;              // view: every non-empty table at the end
    // In a child run of a sanitizer build: look for leaks before the child ends (a leak fails
    // the run). Reruns in other delivery orders check once per child and, only when that finds
    // a leak, each seed again on its own.
    bool leakCheck = true;
    // Called with each failure as soon as it is found, and with each piece of view text.
    std::function<void(const Failure&)> onFailure;
    std::function<void(const std::string&)> onView;
    // Called as each step starts (before anything of it runs).
    std::function<void(const Step&)> onStep;
};

struct RunResult {
    std::vector<Failure> failures;
    std::string views;       // view text, when RunOptions::onView is not set
    bool completed = false;  // every step ran (no step stopped the run)
};

// Runs `scenario` in this process. An assertion in an agent ends the process; use runIsolated
// for anything that may abort.
RunResult runScenario(const Scenario& scenario, const RunOptions& options);

// One run of a scenario in one delivery order.
struct Outcome {
    // No failure: every expectation held and the run ended as the scenario says (normally, or in
    // the assertion its expect_abort names). False whenever `failures` is not empty.
    bool passed = false;
    std::vector<Failure> failures;
    std::string views;
};

// Runs `scenario` in a child process (always when it expects an abort, else when `isolate`), so
// that an assertion or a crash is reported as a failure instead of ending the runner, and checks
// `expect_abort` against the child's standard error.
Outcome runIsolated(const Scenario& scenario, const RunOptions& options, bool isolate = true);

struct SeedOutcome {
    std::uint64_t seed = 0;
    Outcome outcome;
};

// Runs `scenario` once under each delivery-order seed from `first` to `last`, in that order. With
// `isolate`, one child process runs the seeds in turn (a run that ends the child is reported as
// that seed's failure and the next child goes on with the next seed); a scenario that expects an
// abort gets a child per seed. Views are not collected.
std::vector<SeedOutcome> runSeeds(const Scenario& scenario, const RunOptions& options, std::uint64_t first,
                                  std::uint64_t last, bool isolate = true);

}  // namespace VeltaSim
