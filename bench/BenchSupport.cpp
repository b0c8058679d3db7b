// Row type, event streams and statistics shared by all benchmarks.
#include "BenchSupport.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <limits>
#include <random>

namespace Velta::Bench {

const RowType& benchRowType() {
    static const RowType& type = Host::defineRowType(
        "BenchRow", {{"id", FieldKind::u64}, {"count", FieldKind::u64}, {"label", FieldKind::string}},
        {"id"});
    return type;
}

BaseRow benchRow(std::uint64_t id, std::uint64_t count) {
    BaseRow row(benchRowType());
    row.numberIs(kIdField, id);
    row.numberIs(kCountField, count);
    char label[16];
    std::snprintf(label, sizeof label, "r%llu", static_cast<unsigned long long>(count % 10'000'000));
    row.stringIs(kLabelField, label);
    return row;
}

Host::Database::Options benchOptions() {
    Host::Database::Options options;
    options.deliveryBound = std::numeric_limits<std::size_t>::max() / 2;
    return options;
}

std::string mergeInputPath(unsigned input) {
    return std::string(kMergePrefix) + "a" + std::to_string(input) + kMergeSuffix;
}

std::string mergeOutputPath() { return "velta/bench/merged"; }

std::vector<MergeEvent> makeMergeEvents(const MergeShape& shape) {
    constexpr std::size_t kReAddDelay = 16;
    std::mt19937_64 rng(shape.seed);
    std::uniform_real_distribution<double> coin(0.0, 1.0);
    // present[key] bit h: the key's h-th holder holds it.
    const std::uint8_t all = static_cast<std::uint8_t>((1u << shape.holders) - 1);
    std::vector<std::uint8_t> present(shape.keys, all);
    struct ReAdd {
        std::size_t due;
        std::uint64_t key;
        unsigned holder;
    };
    std::deque<ReAdd> pending;
    std::vector<MergeEvent> events;
    events.reserve(shape.events + kReAddDelay + 1);
    auto write = [&](std::uint64_t key, unsigned holder) {
        present[key] |= static_cast<std::uint8_t>(1u << holder);
        events.push_back({holderInput(shape, key, holder), false, benchRow(key, events.size())});
    };
    for (std::size_t i = 0; i < shape.events; ++i) {
        if (!pending.empty() && pending.front().due <= i) {
            write(pending.front().key, pending.front().holder);
            pending.pop_front();
            continue;
        }
        const std::uint64_t key = rng() % shape.keys;
        const auto holder = static_cast<unsigned>(rng() % shape.holders);
        const auto bit = static_cast<std::uint8_t>(1u << holder);
        if ((present[key] & bit) != 0 && coin(rng) < shape.deleteShare) {
            present[key] &= static_cast<std::uint8_t>(~bit);
            events.push_back({holderInput(shape, key, holder), true, benchRow(key, 0)});
            pending.push_back({i + kReAddDelay, key, holder});
        } else {
            write(key, holder);
        }
    }
    while (!pending.empty()) {
        write(pending.front().key, pending.front().holder);
        pending.pop_front();
    }
    return events;
}

double median(std::vector<double> values) {
    if (values.empty()) return 0.0;
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2.0;
}

RatioResult medianRatio(Workload& a, std::size_t aUnits, Workload& b, std::size_t bUnits, int reps) {
    a.nsPerUnit(aUnits);
    b.nsPerUnit(bUnits);
    std::vector<double> ratios;
    std::vector<double> aTimes;
    std::vector<double> bTimes;
    for (int r = 0; r < reps; ++r) {
        double ta = 0;
        double tb = 0;
        if (r % 2 == 0) {
            ta = a.nsPerUnit(aUnits);
            tb = b.nsPerUnit(bUnits);
        } else {
            tb = b.nsPerUnit(bUnits);
            ta = a.nsPerUnit(aUnits);
        }
        ratios.push_back(ta / tb);
        aTimes.push_back(ta);
        bTimes.push_back(tb);
    }
    const auto [least, greatest] = std::minmax_element(ratios.begin(), ratios.end());
    return {median(ratios), *least, *greatest, median(aTimes), median(bTimes)};
}

double medianNs(Workload& w, std::size_t units, int reps) {
    w.nsPerUnit(units);
    std::vector<double> times;
    for (int r = 0; r < reps; ++r) times.push_back(w.nsPerUnit(units));
    return median(times);
}

void worldBroken(const std::string& what) {
    std::fprintf(stderr, "velta-bench: %s\n", what.c_str());
    std::exit(2);
}

}  // namespace Velta::Bench
