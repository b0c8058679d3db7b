// Rows, host calls and tables as velta-sim shows them: in the scenario file's own YAML flow form,
// so that a found row can be pasted back into a scenario as an expectation.
#pragma once

#include "Scenario.h"

#include <Velta/BaseRow.h>
#include <Velta/Host/Database.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
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
bool matches(const Velta::Host::HostCall& call, const ExpectedCall& expected);

// An aligned text table with a header line and a rule. Columns whose cells are all empty, zero or
// false are left out unless listed in `keep`; `extra` (if its header is non-empty) is appended.
struct ExtraColumn {
    std::string header;
    std::vector<std::string> cells;  // one per row
};
std::vector<std::string> formatTable(const Velta::RowType& type, const std::vector<Velta::BaseRow>& rows,
                                     const ExtraColumn& extra = {});

// Keeps kDiffContext matched ("  ") lines on each side of a change and counts the others in one
// "  ... N more as expected" line, so that one wrong row among thousands reads as a few lines.
inline constexpr std::size_t kDiffContext = 3;
inline std::vector<std::string> collapseMatched(std::vector<std::string> lines) {
    std::vector<std::string> kept;
    for (std::size_t i = 0; i < lines.size();) {
        std::size_t end = i;
        while (end < lines.size() && lines[end].starts_with("  ")) ++end;
        // Matched lines [i, end): context for the change before them and for the change after them.
        const std::size_t head = i == 0 ? 0 : std::min(kDiffContext, end - i);
        const std::size_t tail = end == lines.size() ? 0 : std::min(kDiffContext, end - i - head);
        if (end - i > head + tail + 1) {
            std::move(lines.begin() + i, lines.begin() + i + head, std::back_inserter(kept));
            kept.push_back("  ... " + std::to_string(end - i - head - tail) + " more as expected");
            std::move(lines.begin() + (end - tail), lines.begin() + end, std::back_inserter(kept));
        } else {
            std::move(lines.begin() + i, lines.begin() + end, std::back_inserter(kept));
        }
        for (i = end; i < lines.size() && !lines[i].starts_with("  "); ++i)
            kept.push_back(std::move(lines[i]));
    }
    return kept;
}

// The lines of a diff between `expected` items and `found` items under `same`: a longest common
// subsequence is shown as "  " lines (collapsed by collapseMatched), the rest as "- " (expected,
// missing) and "+ " (found, extra).
// The common ends are matched as they stand (part of some longest common subsequence whatever
// `same` is), so one wrong row among many costs time in proportion to the rows; a differing middle
// too large to align (more than kMaxDiffCells pairs) is shown whole, expected then found.
inline constexpr std::size_t kMaxDiffCells = std::size_t{1} << 22;
template <class Expected, class Found, class Same, class ShowExpected, class ShowFound>
std::vector<std::string> diffLines(const std::vector<Expected>& expected, const std::vector<Found>& found,
                                   Same same, ShowExpected showExpected, ShowFound showFound) {
    std::size_t begin = 0, n = expected.size(), m = found.size();
    while (begin < n && begin < m && same(expected[begin], found[begin])) ++begin;
    while (n > begin && m > begin && same(expected[n - 1], found[m - 1])) {
        --n;
        --m;
    }
    std::vector<std::string> lines;
    for (std::size_t k = 0; k < begin; ++k) lines.push_back("  " + showFound(found[k]));
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
            if (i < n && j < m && same(expected[i], found[j]) && lcs(i, j) == lcs(i + 1, j + 1) + 1) {
                lines.push_back("  " + showFound(found[j]));
                ++i;
                ++j;
            } else if (i < n && (j == m || lcs(i + 1, j) >= lcs(i, j + 1))) {
                lines.push_back("- " + showExpected(expected[i]));
                ++i;
            } else {
                lines.push_back("+ " + showFound(found[j]));
                ++j;
            }
        }
    } else {
        for (std::size_t i = begin; i < n; ++i) lines.push_back("- " + showExpected(expected[i]));
        for (std::size_t j = begin; j < m; ++j) lines.push_back("+ " + showFound(found[j]));
    }
    for (std::size_t k = 0; k < expected.size() - n; ++k) lines.push_back("  " + showFound(found[m + k]));
    return collapseMatched(std::move(lines));
}

}  // namespace VeltaSim
