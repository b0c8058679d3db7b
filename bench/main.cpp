// velta-bench: Google Benchmark functions for each measured thing, and two modes of its own.
//
//   velta-bench [benchmark options]   the BM_ functions, as Google Benchmark runs them
//   velta-bench --ratios [--reps=N]   each comparison in one process, interleaved repetitions,
//                                     medians; one "ratio <name> <median> [goal <op> <limit>]
//                                     min <min> max <max>" line each and a "bytes_per_row <value>"
//                                     line on standard output, the absolute times as "#" lines on
//                                     standard error
//   velta-bench --curve [--reps=N]    "<keys> <aggregator> <forwarder> <floor>" lines (ns per event)
//                                     for 1k to 1M keys (the data of docs/performance.png)
//   velta-bench --profile=NAME [--keys=N] [--units=N] [--warm-heap=MiB]
//                                     builds one workload (aggregator, forwarder, sqlite, floor,
//                                     hostwrite, map, intake, intakehost, resync, lookups, memory)
//                                     and runs it once, for a profiler such as valgrind
//                                     --tool=callgrind; prints its time and the page faults it took
//                                     (first touches of memory the process had not used before) per
//                                     unit; --warm-heap first touches and frees that much heap and
//                                     keeps it, so that the run shows what the workload costs
//                                     without those first touches
#include "BenchSupport.h"

#include <benchmark/benchmark.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <malloc.h>
#include <sys/resource.h>

namespace Velta::Bench {
namespace {

// ---------------------------------------------------------------------------------------------
// Google Benchmark mode. Worlds are expensive to build (up to a million keys), so the last one
// built is kept for the next run of the same benchmark and dropped when another one is needed.

Workload& cachedWorkload(const std::string& id, const std::function<std::unique_ptr<Workload>()>& make) {
    static std::string currentId;
    static std::unique_ptr<Workload> current;
    if (id != currentId || !current) {
        current.reset();
        current = make();
        currentId = id;
    }
    return *current;
}

constexpr std::size_t kUnitsPerIteration = 4096;

// `units` per iteration: workloads that always do a whole pass (resync) use the pass's size.
void runWorkload(benchmark::State& state, Workload& workload, std::size_t units = kUnitsPerIteration) {
    double totalNs = 0;
    for (auto _ : state) {
        const double ns = workload.nsPerUnit(units);
        totalNs += ns;
        state.SetIterationTime(ns * static_cast<double>(units) * 1e-9);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * units));
    state.counters["ns_per_unit"] = totalNs / static_cast<double>(state.iterations());
}

MergeShape shapeWithKeys(std::int64_t keys) {
    MergeShape shape;
    shape.keys = static_cast<std::size_t>(keys);
    return shape;
}

void BM_AggregatorEvent(benchmark::State& state) {
    const MergeShape shape = shapeWithKeys(state.range(0));
    runWorkload(state, cachedWorkload("aggregator/" + std::to_string(shape.keys),
                                      [&] { return makeAggregatorWorkload(shape); }));
}
BENCHMARK(BM_AggregatorEvent)->Arg(1'000)->Arg(100'000)->Arg(1'000'000)->UseManualTime();

void BM_ForwarderEvent(benchmark::State& state) {
    const MergeShape shape = shapeWithKeys(state.range(0));
    runWorkload(state, cachedWorkload("forwarder/" + std::to_string(shape.keys),
                                      [&] { return makeForwarderWorkload(shape); }));
}
BENCHMARK(BM_ForwarderEvent)->Arg(1'000)->Arg(100'000)->Arg(1'000'000)->UseManualTime();

void BM_SqliteMergeEvent(benchmark::State& state) {
    const MergeShape shape = shapeWithKeys(state.range(0));
    runWorkload(state, cachedWorkload("sqlite/" + std::to_string(shape.keys),
                                      [&] { return makeSqliteWorkload(shape); }));
}
BENCHMARK(BM_SqliteMergeEvent)->Arg(100'000)->UseManualTime();

void BM_FloorMergeEvent(benchmark::State& state) {
    const MergeShape shape = shapeWithKeys(state.range(0));
    runWorkload(state, cachedWorkload("floor/" + std::to_string(shape.keys),
                                      [&] { return makeFloorWorkload(shape); }));
}
BENCHMARK(BM_FloorMergeEvent)->Arg(1'000)->Arg(100'000)->Arg(1'000'000)->UseManualTime();

void BM_HostWriteDelivered(benchmark::State& state) {
    const auto keys = static_cast<std::size_t>(state.range(0));
    runWorkload(state, cachedWorkload("hostwrite/" + std::to_string(keys),
                                      [&] { return makeHostWriteWorkload(keys); }));
}
BENCHMARK(BM_HostWriteDelivered)->Arg(100'000)->UseManualTime();

void BM_MapInsertOrAssign(benchmark::State& state) {
    const auto keys = static_cast<std::size_t>(state.range(0));
    runWorkload(state, cachedWorkload("map/" + std::to_string(keys), [&] { return makeMapWorkload(keys); }));
}
BENCHMARK(BM_MapInsertOrAssign)->Arg(100'000)->UseManualTime();

void BM_TranslatorIntake(benchmark::State& state) {
    runWorkload(state, cachedWorkload("intake", [] { return makeIntakeWorkload(); }));
}
BENCHMARK(BM_TranslatorIntake)->UseManualTime();

void BM_IntakeHostCalls(benchmark::State& state) {
    runWorkload(state, cachedWorkload("intakehost", [] { return makeIntakeHostCallsWorkload(); }));
}
BENCHMARK(BM_IntakeHostCalls)->UseManualTime();

void BM_Resync(benchmark::State& state) {
    const auto keys = static_cast<std::size_t>(state.range(0));
    runWorkload(state,
                cachedWorkload("resync/" + std::to_string(keys),
                               [&] { return std::move(makeResyncWorkloads(keys).resync); }),
                keys);
}
BENCHMARK(BM_Resync)->Arg(100'000)->UseManualTime();

void BM_ResyncLookups(benchmark::State& state) {
    const auto keys = static_cast<std::size_t>(state.range(0));
    runWorkload(state,
                cachedWorkload("lookups/" + std::to_string(keys),
                               [&] { return std::move(makeResyncWorkloads(keys).lookups); }),
                keys);
}
BENCHMARK(BM_ResyncLookups)->Arg(100'000)->UseManualTime();

void BM_BytesPerRow(benchmark::State& state) {
    double bytes = 0;
    for (auto _ : state) bytes = measureBytesPerRow(static_cast<std::size_t>(state.range(0)));
    state.counters["bytes_per_row"] = bytes;
}
BENCHMARK(BM_BytesPerRow)->Arg(100'000)->Iterations(1)->Unit(benchmark::kMillisecond);

// The machine's memory latency, the floor under every table lookup that misses the caches: one
// dependent load at a time around a random cycle through a buffer of state.range(0) MiB, one
// cache line per step.
void BM_DependentLoad(benchmark::State& state) {
    constexpr std::size_t kLine = 64;
    const std::size_t lines = (static_cast<std::size_t>(state.range(0)) << 20) / kLine;
    std::vector<std::size_t> order(lines);
    for (std::size_t i = 0; i < lines; ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937_64(7));
    std::vector<std::size_t> next(lines * (kLine / sizeof(std::size_t)));
    const std::size_t stride = kLine / sizeof(std::size_t);
    for (std::size_t i = 0; i < lines; ++i) next[order[i] * stride] = order[(i + 1) % lines] * stride;
    std::size_t at = order[0] * stride;
    constexpr std::size_t kSteps = 1 << 20;
    for (auto _ : state) {
        for (std::size_t i = 0; i < kSteps; ++i) at = next[at];
        benchmark::DoNotOptimize(at);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kSteps));
    state.counters["ns_per_load"] =
        benchmark::Counter(static_cast<double>(state.iterations() * kSteps),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_DependentLoad)->Arg(4)->Arg(16)->Arg(64)->Arg(256)->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------------------------------------
// --ratios and --curve.

// A ratio line's name and goal; a null `op` means the ratio is printed without a goal.
struct Goal {
    const char* name;
    const char* op;  // "<=", ">=" or null
    double limit;
};

// Measures a against b and prints "ratio <name> <median> [goal <op> <limit>] min <min> max <max>",
// with the medians of both sides noted on standard error as "# <what>: <a> ns / <b> ns".
void compare(const Goal& goal, const char* what, Workload& a, std::size_t aUnits, Workload& b,
             std::size_t bUnits, int reps) {
    const RatioResult r = medianRatio(a, aUnits, b, bUnits, reps);
    std::fprintf(stderr, "# %s: %.1f ns / %.1f ns\n", what, r.aNs, r.bNs);
    std::printf("ratio %s %.3g", goal.name, r.ratio);
    if (goal.op != nullptr) std::printf(" goal %s %g", goal.op, goal.limit);
    std::printf(" min %.3g max %.3g\n", r.minRatio, r.maxRatio);
    std::fflush(stdout);
}

int runRatios(int reps) {
    // Units per repetition: long enough (tens of milliseconds) that a short burst of other work on
    // the machine moves a median little. The intake keeps 10k subscriptions per repetition, as its
    // cost depends on how many are registered.
    constexpr std::size_t kEvents = 200'000;
    constexpr std::size_t kIntakes = 10'000;
    MergeShape shape100k;
    shape100k.keys = 100'000;
    {
        // The floor is built before anything is freed, in fresh memory as the aggregator is: built
        // after the forwarder's world was freed, it read slower and flattered its ratio.
        auto aggregator = makeAggregatorWorkload(shape100k);
        auto floor = makeFloorWorkload(shape100k);
        {
            auto forwarder = makeForwarderWorkload(shape100k);
            compare({"aggregator_vs_forwarder", "<=", 1.3}, "aggregator/forwarder ns per event, 100k keys",
                    *aggregator, kEvents, *forwarder, kEvents, reps);
        }
        compare({"aggregator_vs_floor_100k", "<=", 2.5}, "aggregator/floor ns per event, 100k keys",
                *aggregator, kEvents, *floor, kEvents, reps);
        floor.reset();
        {
            auto write = makeHostWriteWorkload(100'000);
            auto map = makeMapWorkload(100'000);
            compare({"host_write_vs_map", "<=", 3}, "host write+delivery/map insert-or-assign ns, 100k keys",
                    *write, kEvents, *map, kEvents, reps);
        }
        {
            auto sqlite = makeSqliteWorkload(shape100k);
            compare({"sqlite_vs_aggregator", ">=", 10}, "sqlite/aggregator ns per event, 100k keys", *sqlite,
                    kEvents / 5, *aggregator, kEvents, reps);
        }
    }
    {
        // Built before the 1M aggregator, whose loading frees much of what it touched: the 1k world,
        // built after it, read half again slower than in a process of its own, and the floor, built
        // after it too, flattered its ratio as the 100k floor did.
        MergeShape small = shape100k;
        small.keys = 1'000;
        auto little = makeAggregatorWorkload(small);
        MergeShape large = shape100k;
        large.keys = 1'000'000;
        auto floor = makeFloorWorkload(large);
        auto big = makeAggregatorWorkload(large);
        compare({"aggregator_vs_floor_1m", "<=", 2.5}, "aggregator/floor ns per event, 1M keys", *big,
                kEvents, *floor, kEvents, reps);
        floor.reset();
        compare({"scaling_1m_vs_1k", nullptr, 0}, "aggregator ns per event, 1M/1k keys", *big, kEvents,
                *little, kEvents, reps);
    }
    {
        auto intake = makeIntakeWorkload();
        auto write = makeHostWriteWorkload(100'000);
        compare({"translator_intake_vs_write", "<=", 10}, "intake/host write ns", *intake, kIntakes, *write,
                kEvents, reps);
        // What the intake's own host calls cost against the same write: the part of the ratio
        // above that no translator on this host can take away.
        intake.reset();
        auto hostCalls = makeIntakeHostCallsWorkload();
        compare({"intake_host_calls_vs_write", nullptr, 0}, "intake host calls/host write ns", *hostCalls,
                kIntakes, *write, kEvents, reps);
    }
    {
        ResyncPair resync = makeResyncWorkloads(100'000);
        compare({"resync_vs_lookup", "<=", 1.5}, "resync/4 lookups ns per output row, 100k rows",
                *resync.resync, 100'000, *resync.lookups, 100'000, reps);
    }
    std::printf("bytes_per_row %.0f\n", measureBytesPerRow(100'000));
    return 0;
}

int runCurve(int reps) {
    constexpr std::size_t kEvents = 200'000;
    std::printf("# keys aggregator_ns_per_event forwarder_ns_per_event floor_ns_per_event\n");
    for (std::size_t keys : {1'000, 3'000, 10'000, 30'000, 100'000, 300'000, 1'000'000}) {
        MergeShape shape;
        shape.keys = keys;
        double aggregatorNs = 0;
        double forwarderNs = 0;
        double floorNs = 0;
        {
            auto aggregator = makeAggregatorWorkload(shape);
            aggregatorNs = medianNs(*aggregator, kEvents, reps);
        }
        {
            auto forwarder = makeForwarderWorkload(shape);
            forwarderNs = medianNs(*forwarder, kEvents, reps);
        }
        {
            auto floor = makeFloorWorkload(shape);
            floorNs = medianNs(*floor, kEvents, reps);
        }
        std::printf("%zu %.1f %.1f %.1f\n", keys, aggregatorNs, forwarderNs, floorNs);
        std::fflush(stdout);
    }
    return 0;
}

// Touches `mib` MiB of heap in row-sized blocks and frees it, keeping it in the process: a
// long-running process reuses memory it has freed, while a fresh one takes a page fault on the
// first touch of every page. False when the memory could not be had.
bool warmHeap(std::size_t mib) {
    constexpr std::size_t kBlock = 128;
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
    // The blocks are chained through their first bytes, so that keeping them takes no other memory.
    char* last = nullptr;
    std::size_t left = (mib << 20) / kBlock;
    for (; left != 0; --left) {
        char* block = static_cast<char*>(std::malloc(kBlock));
        if (block == nullptr) break;
        std::memset(block, 1, kBlock);
        std::memcpy(block, &last, sizeof last);
        last = block;
    }
    while (last != nullptr) {
        char* previous = nullptr;
        std::memcpy(&previous, last, sizeof previous);
        std::free(last);
        last = previous;
    }
    return left == 0;
}

// Builds one workload and runs it, for a profiler: --profile=NAME [--keys=N] [--units=N]
// [--warm-heap=MiB], within the bounds the command line checks.
int runProfile(const std::string& name, std::size_t keys, std::size_t units, std::size_t warmMib) {
    if (warmMib != 0 && !warmHeap(warmMib)) {
        std::fprintf(stderr, "velta-bench: could not warm %zu MiB of heap\n", warmMib);
        return 2;
    }
    MergeShape shape;
    shape.keys = keys;
    std::unique_ptr<Workload> workload;
    ResyncPair resync;
    if (name == "aggregator")
        workload = makeAggregatorWorkload(shape);
    else if (name == "forwarder")
        workload = makeForwarderWorkload(shape);
    else if (name == "sqlite")
        workload = makeSqliteWorkload(shape);
    else if (name == "floor")
        workload = makeFloorWorkload(shape);
    else if (name == "hostwrite")
        workload = makeHostWriteWorkload(keys);
    else if (name == "map")
        workload = makeMapWorkload(keys);
    else if (name == "intake")
        workload = makeIntakeWorkload();
    else if (name == "intakehost")
        workload = makeIntakeHostCallsWorkload();
    else if (name == "resync" || name == "lookups") {
        resync = makeResyncWorkloads(keys);
        workload = std::move(name == "resync" ? resync.resync : resync.lookups);
    } else if (name == "memory") {
        std::printf("bytes_per_row %.0f\n", measureBytesPerRow(keys));
        return 0;
    } else {
        std::fprintf(stderr, "velta-bench: unknown workload %s\n", name.c_str());
        return 2;
    }
    const auto minorFaults = [] {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        return usage.ru_minflt;
    };
    const long faultsBefore = minorFaults();
    const double ns = workload->nsPerUnit(units);
    const double faults = static_cast<double>(minorFaults() - faultsBefore) / static_cast<double>(units);
    std::printf("%s %zu keys: %.1f ns per unit, %.3f page faults per unit\n", name.c_str(), keys, ns, faults);
    return 0;
}

// The most --reps takes: each repetition adds seconds to --ratios and --curve.
constexpr std::size_t kMostReps = 1000;
// The most --keys takes: each key costs hundreds of bytes in every world.
constexpr std::size_t kMostKeys = 100'000'000;
// The most --warm-heap takes, in MiB.
constexpr std::size_t kMostWarmMib = 1 << 14;

// A whole number from `least` to `most`, written in decimal digits, which the validator rewrites
// in plain form: CLI11 converts with strtoull in base 0, which takes "-1" for the largest value and
// "010" for eight.
CLI::Validator wholeNumber(std::size_t least, std::size_t most) {
    const bool unbounded = most == std::numeric_limits<std::size_t>::max();
    const std::string bounds = unbounded ? "of " + std::to_string(least) + " or more"
                                         : "from " + std::to_string(least) + " to " + std::to_string(most);
    return CLI::Validator(
        [least, most, bounds](std::string& text) {
            std::size_t value = 0;
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
            if (error != std::errc() || end != text.data() + text.size() || value < least || value > most)
                return "'" + text + "' is not a whole number " + bounds;
            text = std::to_string(value);
            return std::string();
        },
        unbounded ? "N >= " + std::to_string(least)
                  : "N in " + std::to_string(least) + ".." + std::to_string(most));
}

}  // namespace
}  // namespace Velta::Bench

int main(int argc, char** argv) {
    using Velta::Bench::wholeNumber;
    CLI::App app{"velta-bench: the benchmarks of the agents on the in-memory host"};
    app.footer(
        "Any other option is Google Benchmark's (--benchmark_filter=REGEX and the like); they follow.");
    // Google Benchmark reads its own options from what is left over.
    app.allow_extras();
    bool ratios = false;
    bool curve = false;
    int reps = 5;
    std::string profile;
    std::size_t keys = 100'000;
    std::size_t units = 100'000;
    std::size_t warmMib = 0;
    app.add_flag("--ratios", ratios, "each comparison in one process, interleaved repetitions, medians");
    app.add_flag("--curve", curve, "ns per event of aggregator, forwarder and floor for 1k to 1M keys");
    app.add_option("--reps", reps, "repetitions of --ratios and --curve")
        ->transform(wholeNumber(1, Velta::Bench::kMostReps))
        ->capture_default_str();
    app.add_option(
        "--profile", profile,
        "run one workload once, for a profiler: aggregator, forwarder, sqlite, floor, hostwrite, map, "
        "intake, intakehost, resync, lookups or memory");
    app.add_option("--keys", keys, "keys of the --profile workload")
        ->transform(wholeNumber(1, Velta::Bench::kMostKeys))
        ->capture_default_str();
    app.add_option("--units", units, "units of work the --profile workload runs")
        ->transform(wholeNumber(1, std::numeric_limits<std::size_t>::max()))
        ->capture_default_str();
    app.add_option("--warm-heap", warmMib, "MiB of heap to touch, free and keep before --profile runs")
        ->transform(wholeNumber(0, Velta::Bench::kMostWarmMib))
        ->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::cout << app.help() << std::endl;
        // Google Benchmark prints its own options and ends the process.
        char help[] = "--help";
        char* helpArgs[] = {argv[0], help, nullptr};
        int helpCount = 2;
        benchmark::Initialize(&helpCount, helpArgs);
        return 0;
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "velta-bench: %s\n", e.what());
        return 2;
    }
    if (ratios) return Velta::Bench::runRatios(reps);
    if (curve) return Velta::Bench::runCurve(reps);
    if (app.count("--profile") != 0) return Velta::Bench::runProfile(profile, keys, units, warmMib);
    std::vector<std::string> rest = app.remaining();
    std::vector<char*> benchmarkArgs{argv[0]};
    for (std::string& arg : rest) benchmarkArgs.push_back(arg.data());
    benchmarkArgs.push_back(nullptr);
    int benchmarkCount = static_cast<int>(benchmarkArgs.size()) - 1;
    benchmark::Initialize(&benchmarkCount, benchmarkArgs.data());
    if (benchmark::ReportUnrecognizedArguments(benchmarkCount, benchmarkArgs.data())) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
