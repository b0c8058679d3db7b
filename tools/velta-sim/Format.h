// Rows, host calls and tables as velta-sim shows them: in the scenario file's own YAML flow form,
// so that a found row can be pasted back into a scenario as an expectation.
#pragma once

#include "Scenario.h"

#include <Velta/BaseRow.h>
#include <Velta/Host/Database.h>

#include <algorithm>
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

// The lines of a diff between `expected` items and `found` items under `same`: the longest common
// subsequence is shown as "  " lines, the rest as "- " (expected, missing) and "+ " (found, extra).
template <class Expected, class Found, class Same, class ShowExpected, class ShowFound>
std::vector<std::string> diffLines(const std::vector<Expected>& expected, const std::vector<Found>& found,
                                   Same same, ShowExpected showExpected, ShowFound showFound) {
    const std::size_t n = expected.size();
    const std::size_t m = found.size();
    std::vector<std::vector<std::size_t>> lcs(n + 1, std::vector<std::size_t>(m + 1, 0));
    for (std::size_t i = n; i-- > 0;)
        for (std::size_t j = m; j-- > 0;)
            lcs[i][j] =
                same(expected[i], found[j]) ? lcs[i + 1][j + 1] + 1 : std::max(lcs[i + 1][j], lcs[i][j + 1]);
    std::vector<std::string> lines;
    std::size_t i = 0, j = 0;
    while (i < n || j < m) {
        if (i < n && j < m && same(expected[i], found[j]) && lcs[i][j] == lcs[i + 1][j + 1] + 1) {
            lines.push_back("  " + showFound(found[j]));
            ++i;
            ++j;
        } else if (i < n && (j == m || lcs[i + 1][j] >= lcs[i][j + 1])) {
            lines.push_back("- " + showExpected(expected[i]));
            ++i;
        } else {
            lines.push_back("+ " + showFound(found[j]));
            ++j;
        }
    }
    return lines;
}

}  // namespace VeltaSim
