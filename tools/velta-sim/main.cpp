// velta-sim: runs scenario files of the agents on the in-memory host, or checks them.
//
// Exit status: 0 every scenario passed, 1 some expectation failed, 2 a file (or the command line)
// could not be used. Nothing escapes as an exception.
#include "Report.h"
#include "Runner.h"
#include "Scenario.h"
#include "Text.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <limits>
#include <string>
#include <vector>

namespace {

struct Settings {
    std::vector<std::string> files;
    bool dump = false;
    bool trace = false;
    bool json = false;
    bool timeline = false;
    bool noFork = false;
    std::size_t shuffle = 0;
    std::uint64_t seed = 0;
};

int runCommand(const Settings& settings) {
    std::vector<VeltaSim::ParseResult> parsed;
    for (const std::string& file : settings.files) parsed.push_back(VeltaSim::loadScenario(file));

    bool unusable = false;
    std::size_t passed = 0, failed = 0;
    for (std::size_t i = 0; i < parsed.size(); ++i) {
        if (!parsed[i].scenario) {
            unusable = true;
            if (settings.json)
                std::cout << VeltaSim::jsonFileError(settings.files[i], parsed[i].error) << std::endl;
            else
                std::cerr << parsed[i].error << std::endl;
            continue;
        }
        const VeltaSim::Scenario& scenario = *parsed[i].scenario;
        VeltaSim::RunOptions options;
        options.dump = settings.dump;
        options.trace = settings.trace;
        options.timeline = settings.timeline;
        options.shuffleSeed = settings.seed;

        VeltaSim::ScenarioReport report;
        report.file = scenario.file;
        report.name = scenario.name;
        report.orderIndependent = scenario.orderIndependent;
        report.outcome = VeltaSim::runIsolated(scenario, options, !settings.noFork);

        VeltaSim::RunOptions quiet;
        if (settings.shuffle > 0) {
            for (const VeltaSim::SeedOutcome& run :
                 VeltaSim::runSeeds(scenario, quiet, 1, settings.shuffle, !settings.noFork)) {
                ++report.shuffleRuns;
                if (run.outcome.passed) continue;
                report.failingSeeds.push_back(run.seed);
                if (!report.firstShuffleFailure && !run.outcome.failures.empty())
                    report.firstShuffleFailure = run.outcome.failures.front();
            }
        }

        if (report.passed())
            ++passed;
        else
            ++failed;
        if (settings.json)
            std::cout << VeltaSim::jsonReport(report) << std::endl;
        else
            std::cout << VeltaSim::textReport(report) << std::flush;
    }
    // In JSON mode standard output carries only the objects, one per line.
    (settings.json ? std::cerr : std::cout) << VeltaSim::summaryLine(passed, failed) << std::endl;
    if (unusable) return 2;
    return failed > 0 ? 1 : 0;
}

int checkCommand(const std::vector<std::string>& files) {
    bool unusable = false;
    for (const std::string& file : files) {
        const VeltaSim::ParseResult result = VeltaSim::loadScenario(file);
        if (!result.scenario) {
            unusable = true;
            std::cerr << result.error << std::endl;
            continue;
        }
        std::cout << "ok " << file << " (" << VeltaSim::counted(result.scenario->steps.size(), "step") << ")"
                  << std::endl;
    }
    return unusable ? 2 : 0;
}

int runVeltaSim(int argc, char** argv) {
    CLI::App app{"velta-sim: runs scenario files of the subscription agents on the in-memory host"};
    app.require_subcommand(1);
    Settings settings;

    CLI::App* run =
        app.add_subcommand("run", "run scenarios; report each; close with \"N passed, N failed\"");
    run->add_flag("--dump", settings.dump,
                  "also print every non-empty table at the end, as aligned text tables");
    run->add_flag("--trace", settings.trace, "also print the captured traces, step by step");
    run->add_flag("--json", settings.json, "the report as JSON (one object per scenario and line)");
    run->add_flag("--timeline", settings.timeline,
                  "also print every delivered callback, with the writes, deletions and host calls it made");
    run->add_option("--shuffle", settings.shuffle,
                    "rerun each scenario under N seeded delivery orders and report the seeds that fail")
        ->check(CLI::Range(0, 100000));
    // CLI11 reads an unsigned option with strtoull, which takes -1 for the largest seed and clamps
    // one past it without a word: the text must be a seed as it stands.
    const CLI::Validator seedText(
        [](std::string& text) {
            std::uint64_t value = 0;
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
            if (error == std::errc() && end == text.data() + text.size()) return std::string();
            return "Value " + text + " is not a seed: a whole number from 0 to " +
                   std::to_string(std::numeric_limits<std::uint64_t>::max());
        },
        "SEED");
    run->add_option(
           "--seed", settings.seed,
           "deliver in the order of this seed (as --shuffle reports them), e.g. to see it with --timeline")
        ->check(seedText);
    run->add_flag("--no-fork", settings.noFork,
                  "run scenarios inside this process (for debuggers; an assertion then ends velta-sim)");
    run->add_option("FILE", settings.files, "scenario files")->required();

    std::vector<std::string> checkFiles;
    CLI::App* check = app.add_subcommand("check", "parse and validate only");
    check->add_option("FILE", checkFiles, "scenario files")->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? 0 : 2;
    }
    if (*run) return runCommand(settings);
    return checkCommand(checkFiles);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return runVeltaSim(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "velta-sim: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "velta-sim: unexpected failure\n");
    }
    return 2;
}
