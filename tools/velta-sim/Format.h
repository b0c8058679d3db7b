// Rows, host calls and tables as velta-sim shows them: in the scenario file's own YAML flow form,
// so that a found row can be pasted back into a scenario as an expectation.
#pragma once

#include "Scenario.h"

#include <Velta/BaseRow.h>
#include <Velta/Host/Database.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace VeltaSim {

// A text as a YAML flow scalar: plain when that reads back the same, else double-quoted.
std::string yamlText(const std::string& text);
// One field of a row: decimal number, true/false, text, or [a, b] for a list.
std::string formatValue(const Velta::BaseRow& row, std::size_t field);
// "{name: value, ...}" for the given fields of `row`, in the order given.
std::string formatFields(const Velta::BaseRow& row, const std::vector<std::size_t>& fields);
// The key fields followed by every other field that is not zero, false or empty.
std::vector<std::size_t> keyAndSetFields(const Velta::BaseRow& row);
// Fields of `row`'s type named like the fields of `specs` or its key, in type order.
std::vector<std::size_t> fieldsNamed(const Velta::BaseRow& row, const std::vector<const RowSpec*>& specs);
// A row of a step, as written: "{name: value, ...}".
std::string formatSpec(const RowSpec& listed);

// A fresh row of the registered type of the listed row's type name, with the named fields set.
Velta::BaseRow buildRow(const RowSpec& listed);
// True when every field the listed row names has that value in `row` (looked up by field name).
bool matches(const Velta::BaseRow& row, const RowSpec& listed);

// "registerTable: {path: ..., typeName: ..., ...}" with every argument of the call's kind, as an
// expect_calls entry writes it (the host's toString is a log line, not something to paste back).
std::string formatCall(const Velta::Host::HostCall& call);
// The same for an expected call, with only the arguments it names.
std::string formatExpectedCall(const ExpectedCall& call);
// True when `call` is of the expected kind and has each argument `expected` names; arguments it
// leaves out match anything.
bool matches(const Velta::Host::HostCall& call, const ExpectedCall& expected);

// An aligned text table with a header line and a rule. Columns whose cells are all empty, zero or
// false are left out unless listed in `keep`; `extra` (if its header is non-empty) is appended.
struct ExtraColumn {
    std::string header;
    std::vector<std::string> cells;  // one per row
};
std::vector<std::string> formatTable(const Velta::RowType& type, const std::vector<Velta::BaseRow>& rows,
                                     const ExtraColumn& extra = {});

// The lines of a diff between `expected` items and `found` items under `same`: a longest common
// subsequence is shown as "  " lines, the rest as "- " (expected, missing) and "+ " (found, extra).
// Of a run of matched items, kDiffContext are shown on each side of a change and the others counted
// in one "  ... N more as expected" line (and never formatted), so that one wrong row among
// thousands reads as a few lines. The common ends are matched as they stand (part of some longest
// common subsequence whatever `same` is), so such a diff costs time in proportion to the items; a
// differing middle too large to align (more than kMaxDiffCells pairs) is shown whole, expected then
// found.
inline constexpr std::size_t kDiffContext = 3;
inline constexpr std::size_t kMaxDiffCells = std::size_t{1} << 22;
template <class Expected, class Found, class Same, class ShowExpected, class ShowFound>
std::vector<std::string> diffLines(const std::vector<Expected>& expected, const std::vector<Found>& found,
                                   Same same, ShowExpected showExpected, ShowFound showFound) {
    // The diff as steps: ' ' an expected item matched by a found one, '-' an expected one missing,
    // '+' a found one extra; `found` indexes the found item of a ' ' or '+' step.
    struct Step {
        char mark;
        std::size_t expected, found;
    };
    std::vector<Step> steps;
    std::size_t begin = 0, n = expected.size(), m = found.size();
    while (begin < n && begin < m && same(expected[begin], found[begin])) ++begin;
    while (n > begin && m > begin && same(expected[n - 1], found[m - 1])) {
        --n;
        --m;
    }
    for (std::size_t k = 0; k < begin; ++k) steps.push_back({' ', k, k});
    const std::size_t rows = n - begin + 1, columns = m - begin + 1;
    if (rows * columns <= kMaxDiffCells) {
        // lcs(i, j): the longest common subsequence of expected[i..n) and found[j..m).
        std::vector<std::uint32_t> table(rows * columns, 0);
        const auto lcs = [&](std::size_t i, std::size_t j) -> std::uint32_t& {
            return table[(i - begin) * columns + (j - begin)];
        };
        for (std::size_t i = n; i-- > begin;)
            for (std::size_t j = m; j-- > begin;)
                lcs(i, j) = same(expected[i], found[j]) ? lcs(i + 1, j + 1) + 1
                                                        : std::max(lcs(i + 1, j), lcs(i, j + 1));
        std::size_t i = begin, j = begin;
        while (i < n || j < m) {
            if (i < n && j < m && same(expected[i], found[j]) && lcs(i, j) == lcs(i + 1, j + 1) + 1)
                steps.push_back({' ', i++, j++});
            else if (i < n && (j == m || lcs(i + 1, j) >= lcs(i, j + 1)))
                steps.push_back({'-', i++, j});
            else
                steps.push_back({'+', i, j++});
        }
    } else {
        for (std::size_t i = begin; i < n; ++i) steps.push_back({'-', i, m});
        for (std::size_t j = begin; j < m; ++j) steps.push_back({'+', n, j});
    }
    for (std::size_t k = 0; k < expected.size() - n; ++k) steps.push_back({' ', n + k, m + k});

    std::vector<std::string> lines;
    for (std::size_t i = 0; i < steps.size();) {
        std::size_t end = i;
        while (end < steps.size() && steps[end].mark == ' ') ++end;
        // Matched steps [i, end): context for the change before them and for the change after them.
        const std::size_t head = i == 0 ? 0 : std::min(kDiffContext, end - i);
        const std::size_t tail = end == steps.size() ? 0 : std::min(kDiffContext, end - i - head);
        const bool collapse = end - i > head + tail + 1;
        for (std::size_t k = i; k < end; ++k) {
            if (collapse && k == i + head)
                lines.push_back("  ... " + std::to_string(end - i - head - tail) + " more as expected");
            if (!collapse || k < i + head || k >= end - tail)
                lines.push_back("  " + showFound(found[steps[k].found]));
        }
        for (i = end; i < steps.size() && steps[i].mark != ' '; ++i)
            lines.push_back(steps[i].mark == '-' ? "- " + showExpected(expected[steps[i].expected])
                                                 : "+ " + showFound(found[steps[i].found]));
    }
    return lines;
}

}  // namespace VeltaSim
