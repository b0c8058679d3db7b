// Shared pieces of the benchmarks: the three-field row type, pre-generated event streams, the
// workloads that are timed, and the helpers that turn timings into medians and ratios.
//
// Invariants:
// - Every workload is built (tables filled, agents settled) before it is timed; building is never
//   part of a measurement.
// - An event stream leaves every table as it found it when it has been run to its end, so running
//   it round and round keeps the table sizes steady.
// - Two workloads that are compared run the same event stream (same keys, same rows, same order).
#pragma once

#include <Velta/BaseRow.h>
#include <Velta/Host/Database.h>
#include <Velta/VeTableInterface.h>
#include <Velta/VeltaDB.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Velta::Bench {

// The benchmark row type "BenchRow": id (u64, primary key), count (u64), label (string).
const RowType& benchRowType();
inline constexpr std::size_t kIdField = 0;
inline constexpr std::size_t kCountField = 1;
inline constexpr std::size_t kLabelField = 2;

// A BenchRow with the given id and count; the label is short enough to stay inside the string.
BaseRow benchRow(std::uint64_t id, std::uint64_t count);

// Empty callbacks, for interfaces that only read or write.
inline VeTableInterface::ReadyCallback noReady() { return {}; }
inline VeTableInterface::RowCallback noRow() { return {}; }
inline VeTableInterface::FlagCallback noFlag() { return {}; }

// Database options for benchmarks: no delivery bound worth speaking of.
Host::Database::Options benchOptions();

// Deliveries queued between two runs of the host loop while a workload feeds events.
inline constexpr std::size_t kLoopBatch = 256;

// CPU time of the calling thread in nanoseconds. The benchmarks are single-threaded and do no I/O,
// so this is their running time without the time other processes on the machine took.
inline double nowNs() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// ---------------------------------------------------------------------------------------------
// Merge event streams: rows arriving in (and leaving) input tables of an aggregation.

// How the keys are laid out over the inputs.
struct MergeShape {
    std::size_t keys = 100'000;    // distinct output keys
    unsigned inputs = 8;           // input tables
    unsigned holders = 2;          // inputs that hold each key (at most 2 here)
    double deleteShare = 0.1;      // share of events that delete a row (each is re-added later)
    std::size_t events = 1 << 17;  // length of the stream before it repeats
    std::uint64_t seed = 42;
};

// The input that holds key `key` as its `holder`-th holder (0 or 1).
inline unsigned holderInput(const MergeShape& shape, std::uint64_t key, unsigned holder) {
    return static_cast<unsigned>((key + holder * 3) % shape.inputs);
}

struct MergeEvent {
    unsigned input = 0;
    bool erase = false;
    BaseRow row;  // the row written, or the key deleted
};

// A stream of random row writes and deletions over the keys of `shape`; a deleted row is written
// again a few events later, and the stream ends with every row present again.
std::vector<MergeEvent> makeMergeEvents(const MergeShape& shape);

// The events of a stream in order, round and round: after the last comes the first again, which
// finds the tables as the stream found them the first time. The stream must not be empty.
class MergeEventCursor {
public:
    MergeEventCursor() = default;
    explicit MergeEventCursor(std::vector<MergeEvent> events) : events_(std::move(events)) {}

    MergeEvent& next() {
        MergeEvent& event = events_[next_];
        if (++next_ == events_.size()) next_ = 0;
        return event;
    }
    // The next event, done by a merge that works on keys: `merge.write(input, row)` for a row
    // written, `merge.erase(input, key)` for a row deleted.
    template <class Merge>
    void playNext(Merge& merge) {
        const MergeEvent& event = next();
        if (event.erase)
            merge.erase(event.input, event.row.number(kIdField));
        else
            merge.write(event.input, event.row);
    }

private:
    std::vector<MergeEvent> events_;
    std::size_t next_ = 0;
};

// The input table paths (in path order, input 0 first) and the output path of a merge world.
std::string mergeInputPath(unsigned input);
std::string mergeOutputPath();
inline const char* const kMergePrefix = "velta/bench/in/";
inline const char* const kMergeSuffix = "/rows";

// ---------------------------------------------------------------------------------------------
// Workloads.

// One measured thing. `nsPerUnit(units)` runs about `units` units of work (events, rows, lookups
// as the workload defines them) and answers the time per unit.
class Workload {
public:
    virtual ~Workload() = default;
    virtual double nsPerUnit(std::size_t units) = 0;
};

// An aggregator world: a database with the inputs of `shape`, filled, and an Aggregator merging
// them; events are written through a separate producer agent.
std::unique_ptr<Workload> makeAggregatorWorkload(const MergeShape& shape);
// The same world with a minimal forwarding agent (writes every row it observes to the output,
// deletes what is deleted) instead of the aggregator.
std::unique_ptr<Workload> makeForwarderWorkload(const MergeShape& shape);
// The same merge done with SQLite in memory.
std::unique_ptr<Workload> makeSqliteWorkload(const MergeShape& shape);
// The same merge done by a plain program, no host and no agent: input and output tables as
// std::unordered_map keyed by the number, holding the rows. What the work itself costs on this
// machine.
std::unique_ptr<Workload> makeFloorWorkload(const MergeShape& shape);

// One row written through a modifier and delivered to one observer, on a table of `keys` rows.
std::unique_ptr<Workload> makeHostWriteWorkload(std::size_t keys);
// std::map insert-or-assign of the same keys and values.
std::unique_ptr<Workload> makeMapWorkload(std::size_t keys);

// One established subscription through a server agent's translator (output table known).
std::unique_ptr<Workload> makeIntakeWorkload();
// The same subscriptions met by the host calls of that intake alone, without the translator.
std::unique_ptr<Workload> makeIntakeHostCallsWorkload();

// The aggregator's resync over `keys` output rows with 4 inputs, every row held only by the last
// one (unit: one output row), and the 4 lookups per row it makes, done directly by a reader
// (unit: one output row). The two share one database.
struct ResyncPair {
    std::unique_ptr<Workload> resync;
    std::unique_ptr<Workload> lookups;
};
ResyncPair makeResyncWorkloads(std::size_t keys);

// Heap bytes the host and the aggregator hold per output row (three-field rows, 8 inputs, each key
// in one input), measured by the allocator's own count before and after loading `rows` rows.
double measureBytesPerRow(std::size_t rows);

// ---------------------------------------------------------------------------------------------
// Statistics.

// The middle value, or the mean of the two middle values of an even count; 0 for no values.
double median(std::vector<double> values);

// Medians over `reps` interleaved repetitions of a.nsPerUnit(aUnits) and b.nsPerUnit(bUnits) and of
// their ratio, with the least and greatest ratio; the order within each repetition alternates. Both
// are warmed up first by one repetition's worth of work.
struct RatioResult {
    double ratio;
    double minRatio;
    double maxRatio;
    double aNs;
    double bNs;
};
RatioResult medianRatio(Workload& a, std::size_t aUnits, Workload& b, std::size_t bUnits, int reps);

// Median of `reps` runs of w.nsPerUnit(units), after one warm-up run of the same length.
double medianNs(Workload& w, std::size_t units, int reps);

// Ends the process with a message when a world is not in the state it must be in to be timed.
[[noreturn]] void worldBroken(const std::string& what);

}  // namespace Velta::Bench
