#include "Report.h"

#include "Text.h"

#include <sstream>

namespace VeltaSim {

namespace {

std::string jsonString(const std::string& text) { return doubleQuoted(text, Quoting::json); }

std::string seedList(const std::vector<std::uint64_t>& seeds) {
    std::string out;
    const std::size_t shown = std::min<std::size_t>(seeds.size(), 20);
    for (std::size_t i = 0; i < shown; ++i) out += (i == 0 ? "" : ", ") + std::to_string(seeds[i]);
    if (seeds.size() > shown) out += ", ...";
    return out;
}

void appendFailure(std::string& out, const Failure& failure) {
    out += "  " + failureHeadline(failure) + "\n";
    for (const std::string& line : failure.details) out += "      " + line + "\n";
}

std::string jsonFailure(const Failure& f) {
    std::string out = "{\"step\":" + std::to_string(f.step) + ",\"line\":" + std::to_string(f.line) +
                      ",\"keyword\":" + jsonString(f.keyword) + ",\"message\":" + jsonString(f.message) +
                      ",\"diff\":[";
    for (std::size_t i = 0; i < f.details.size(); ++i) out += (i == 0 ? "" : ",") + jsonString(f.details[i]);
    return out + "]}";
}

}  // namespace

std::string failureHeadline(const Failure& failure) {
    if (failure.step == 0) return failure.message;
    return "step " + std::to_string(failure.step) + " (line " + std::to_string(failure.line) + ") " +
           failure.keyword + ": " + failure.message;
}

std::string textReport(const ScenarioReport& report) {
    std::string out = std::string(report.passed() ? "PASS " : "FAIL ") + report.file;
    if (!report.name.empty()) out += ": " + oneLine(report.name);
    out += "\n";
    for (const Failure& failure : report.outcome.failures) appendFailure(out, failure);
    if (report.shuffleRuns > 0) {
        if (report.failingSeeds.empty()) {
            out += "  delivery orders: passed under " + counted(report.shuffleRuns, "seed") + "\n";
        } else {
            out += "  delivery orders: failed under " + std::to_string(report.failingSeeds.size()) + " of " +
                   counted(report.shuffleRuns, "seed") + " (" + seedList(report.failingSeeds) + ")";
            out += report.orderIndependent
                       ? "\n"
                       : "; reported only: the scenario does not declare order_independent\n";
            if (report.firstShuffleFailure) {
                out += "  under seed " + std::to_string(report.failingSeeds.front()) + ":\n";
                appendFailure(out, *report.firstShuffleFailure);
            }
        }
    }
    if (!report.outcome.views.empty()) {
        std::istringstream in(report.outcome.views);
        std::string line;
        while (std::getline(in, line)) out += "  " + line + "\n";
    }
    return out;
}

std::string jsonReport(const ScenarioReport& report) {
    std::string out = "{\"file\":" + jsonString(report.file) + ",\"name\":" + jsonString(report.name) +
                      ",\"passed\":" + (report.passed() ? "true" : "false") +
                      ",\"order_independent\":" + (report.orderIndependent ? "true" : "false") +
                      ",\"failures\":[";
    for (std::size_t i = 0; i < report.outcome.failures.size(); ++i)
        out += (i == 0 ? "" : ",") + jsonFailure(report.outcome.failures[i]);
    out += "]";
    if (report.shuffleRuns > 0) {
        out += ",\"shuffle\":{\"runs\":" + std::to_string(report.shuffleRuns) + ",\"failing_seeds\":[";
        for (std::size_t i = 0; i < report.failingSeeds.size(); ++i)
            out += (i == 0 ? "" : ",") + std::to_string(report.failingSeeds[i]);
        out += "]";
        if (report.firstShuffleFailure)
            out += ",\"first_failure\":" + jsonFailure(*report.firstShuffleFailure);
        out += "}";
    }
    if (!report.outcome.views.empty()) out += ",\"views\":" + jsonString(report.outcome.views);
    return out + "}";
}

std::string jsonFileError(const std::string& file, const std::string& message) {
    return "{\"file\":" + jsonString(file) + ",\"error\":" + jsonString(message) + "}";
}

std::string summaryLine(std::size_t passed, std::size_t failed) {
    return std::to_string(passed) + " passed, " + std::to_string(failed) + " failed";
}

}  // namespace VeltaSim
