// The scenario runner: parsing and validation, the report of failed expectations, the settle bound,
// child-process runs (expected and unexpected assertions), seeded delivery orders and the views.
#include "Format.h"
#include "Report.h"
#include "Runner.h"
#include "Scenario.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using VeltaSim::Failure;
using VeltaSim::RunOptions;
using VeltaSim::Scenario;

Scenario parsed(const std::string& text) {
    VeltaSim::ParseResult result = VeltaSim::parseScenario("s.yaml", text);
    if (!result.scenario) ADD_FAILURE() << result.error;
    return result.scenario ? std::move(*result.scenario) : Scenario{};
}

std::string parseError(const std::string& text) {
    const VeltaSim::ParseResult result = VeltaSim::parseScenario("s.yaml", text);
    EXPECT_FALSE(result.scenario) << "parsed although malformed";
    return result.error;
}

// Each failure as its headline followed by its diff lines.
std::vector<std::string> failureLines(const std::vector<Failure>& failures) {
    std::vector<std::string> lines;
    for (const Failure& f : failures) {
        lines.push_back(VeltaSim::failureHeadline(f));
        for (const std::string& d : f.details) lines.push_back(d);
    }
    return lines;
}

// Three inputs of one row type merged by an aggregator on agent a1.
const std::string kAggregatorPreamble = R"(
row_types:
  - name: Sim::Route
    key: [prefix]
    fields: {prefix: string, nexthop: string, metric: u32, tags: strings}
agents:
  - {name: a1, system: sysA}
)";

TEST(VeltaSimParse, ReadsEveryPartOfAScenario) {
    const Scenario s = parsed(R"(name: all parts
host: {server_process: true, auto_publish: true, queries: manual}
trace: {SubscriptionTranslator: 0x31f, Aggregator: 7}
order_independent: true
row_types:
  - name: Sim::Route
    key: [prefix]
    fields: {prefix: string, nexthop: string, metric: u32, tags: strings}
agents:
  - {name: srv, system: sysA, server_agent: true}
  - {name: ext, system: sysB, external: true, standalone: false}
steps:
  - start: {agent: srv, translator: true}
  - write:
      table: velta/External/Subscription
      row: {oid: 0x1F, outputPath: velta/out/q, typeName: Sim::Route, flags: 65535, paramName: [a, "b c"]}
  - run
  - expect_rows: {table: velta/out/q, rows: [{prefix: p, tags: [x]}]}
  - expect_calls: [{registerTable: {path: velta/out/q, tableType: 1}}, {removeQuery: {name: n}}]
  - call: {agent: srv, translator: true, op: clean}
  - stop: {agent: srv, translator: true}
)");
    EXPECT_EQ(s.name, "all parts");
    EXPECT_TRUE(s.serverProcess && s.autoPublish && s.manualQueries && s.orderIndependent);
    ASSERT_EQ(s.traceMasks.size(), 2u);
    EXPECT_EQ(s.traceMasks[0], std::make_pair(std::string("SubscriptionTranslator"), 0x31fu));
    ASSERT_EQ(s.agents.size(), 2u);
    EXPECT_TRUE(s.agents[1].external);
    EXPECT_FALSE(s.agents[1].standalone);
    ASSERT_EQ(s.steps.size(), 7u);
    EXPECT_EQ(s.steps[1].mark.line, 14);
    EXPECT_EQ(s.steps[1].keyword, "write");
    const auto& write = std::get<VeltaSim::Write>(s.steps[1].action);
    ASSERT_EQ(write.rows.size(), 1u);
    EXPECT_EQ(VeltaSim::formatSpec(write.rows[0]),
              "{oid: 31, outputPath: velta/out/q, typeName: Sim::Route, flags: 65535, paramName: [a, b c]}");
    // The subscription's outputPath made velta/out/q a known table of its type.
    const auto& rows = std::get<VeltaSim::ExpectRows>(s.steps[3].action);
    EXPECT_EQ(rows.rows[0].type->name(), "Sim::Route");
    const auto& calls = std::get<VeltaSim::ExpectCalls>(s.steps[4].action).calls;
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(VeltaSim::formatExpectedCall(calls[0]), "registerTable: {path: velta/out/q, tableType: 1}");
    EXPECT_EQ(VeltaSim::formatExpectedCall(calls[1]), "removeQuery: {name: n}");
    EXPECT_TRUE(s.steps[3].isExpectation());
    EXPECT_FALSE(s.steps[2].isExpectation());
}

TEST(VeltaSimParse, FollowsTheRunToRefuseStepsThatCannotWork) {
    // Each file is these two agents (lines 1 to 3) followed by the case's text.
    const std::string agents =
        "agents:\n  - {name: srv, system: sysA, server_agent: true}\n  - {name: a1, system: sysA}\n";
    const std::string aggregator =
        "  - start: {agent: a1, aggregator: g, input_prefix: p/, output: o, row_type: ";
    const std::pair<std::string, std::string> cases[] = {
        {"steps:\n  - start: {agent: srv, translator: true}\n  - start: {agent: srv, translator: true}\n",
         "6:12: a translator is already running on agent 'srv' (started at line 5)"},
        {"steps:\n" + aggregator +
             "veCtrl::subscription}\n  - stop: {agent: a1, aggregator: g}\n"
             "  - call: {agent: a1, aggregator: g, op: enableIs, value: true}\n",
         "7:35: no aggregator 'g' is running on agent 'a1' at this step"},
        {"steps:\n  - expect_external_id: {agent: srv, sid: 1, oid: 2}\n",
         "5:25: no translator is running on agent 'srv' at this step (start it first)"},
        // Tables are known from the step that creates them on, not before.
        {"steps:\n  - expect_rows: {table: t/x, rows: []}\n  - create_table: {path: t/x, type: "
         "veMetadata::veTable}\n",
         "5:26: unknown table 't/x': create it with create_table first, or name a table an earlier step "
         "implies (a subscription's outputPath, an aggregator's output)"},
        // The aggregator's output is known with the aggregator's row type; its fields are checked.
        {"steps:\n" + aggregator +
             "veMetadata::veTable}\n  - expect_rows: {table: o, rows: [{tablePath: x, nexthop: y}]}\n",
         "6:51: 'nexthop' is not a field of veMetadata::veTable; fields are: oid, tablePath, typeName, "
         "owner"},
        {"steps:\n  - expect_row: {table: velta/External/Publication, key: {subscription_id: 1}}\n",
         "5:17: 'expect_row' needs either 'row' or 'absent: true'"},
        {"steps:\n  - expect_trace: {channel: C, level: 32, text: x}\n",
         "5:39: expected a number (decimal or 0x hex) up to 31 for 'level', 32 is too large"},
        {"row_types:\n  - {name: veCtrl::publication, key: [a], fields: {a: u16}}\nsteps: []\n",
         "5:12: row type 'veCtrl::publication' is a built-in record; choose another name"},
        {"steps:\n  - run: {table: x}\n", "5:10: 'run' takes no fields"},
        {"steps:\n  - expect_calls: [{defineQuery: {txt: q}}]\n",
         "5:35: unknown key 'txt' in 'defineQuery' (did you mean 'text'?); expected one of: text, typeId, "
         "params, standing, name"},
    };
    for (const auto& [text, error] : cases) EXPECT_EQ(parseError(agents + text), "s.yaml:" + error) << text;
}

TEST(VeltaSimParse, FilesMayGiveOneRowTypeNameDifferentDefinitions) {
    // Parsing registers nothing: both parse, and each is defined only when (and where) it runs.
    const Scenario first =
        parsed("row_types:\n  - {name: Sim::Twice, key: [a], fields: {a: u32}}\nsteps: []\n");
    const Scenario second =
        parsed("row_types:\n  - {name: Sim::Twice, key: [b], fields: {b: string}}\nsteps: []\n");
    EXPECT_EQ(Velta::Host::findRowType("Sim::Twice"), nullptr);
    EXPECT_TRUE(VeltaSim::runIsolated(first, RunOptions{}).passed);
    EXPECT_TRUE(VeltaSim::runIsolated(second, RunOptions{}).passed);
}

TEST(VeltaSimFormat, FoundRowsReadBackAsTheSameRow) {
    EXPECT_EQ(VeltaSim::yamlText(""), "\"\"");
    EXPECT_EQ(VeltaSim::yamlText("SELECT a FROM t/x"), "SELECT a FROM t/x");
    EXPECT_EQ(VeltaSim::yamlText("a: b"), "\"a: b\"");
    EXPECT_EQ(VeltaSim::yamlText("-1"), "\"-1\"");
    EXPECT_EQ(VeltaSim::yamlText("x, y"), "\"x, y\"");
    EXPECT_EQ(VeltaSim::yamlText("say \"hi\"\n"), "\"say \\\"hi\\\"\\n\"");

    // A row as a report shows it, pasted back into a scenario, matches the row it came from.
    const Velta::RowType& type = Velta::External::Subscription::type();
    Velta::BaseRow row(type);
    row.stringIs(static_cast<std::size_t>(type.fieldIndex("queryText")), "SELECT * FROM a: b, c #d");
    row.stringsIs(static_cast<std::size_t>(type.fieldIndex("paramName")), {"", "[x]", "y"});
    row.numberIs(static_cast<std::size_t>(type.fieldIndex("standing")), 1);
    row.numberIs(static_cast<std::size_t>(type.fieldIndex("oid")), 4000000000u);
    const std::string shown = VeltaSim::formatFields(row, VeltaSim::keyAndSetFields(row));
    EXPECT_EQ(
        shown,
        "{system_description: 0, outputPath: \"\", oid: 4000000000, queryText: \"SELECT * FROM a: b, c #d\", "
        "standing: true, paramName: [\"\", \"[x]\", y]}");
    const Scenario s =
        parsed("steps:\n  - expect_rows: {table: velta/External/Subscription, rows: [" + shown + "]}\n");
    const auto& listed = std::get<VeltaSim::ExpectRows>(s.steps[0].action).rows.at(0);
    EXPECT_TRUE(VeltaSim::matches(row, listed));
    row.numberIs(static_cast<std::size_t>(type.fieldIndex("standing")), 0);
    EXPECT_FALSE(VeltaSim::matches(row, listed));
}

TEST(VeltaSimRun, ReportsEachFailedExpectationAsADiff) {
    const Scenario s = parsed(kAggregatorPreamble + R"(
steps:
  - create_table: {path: velta/in/a/routes, type: Sim::Route}
  - write: {table: velta/in/a/routes, rows: [{prefix: p1, nexthop: a}, {prefix: p2, nexthop: a}, {prefix: p3, nexthop: a}]}
  - expect_rows: {table: velta/in/a/routes, rows: [{prefix: p1}, {prefix: p3, nexthop: b}, {prefix: p4}]}
  - expect_rows: {table: velta/in/a/routes, rows: [{prefix: p1}, {prefix: p2}, {prefix: p3}]}
  - expect_row: {table: velta/in/a/routes, key: {prefix: p2}, row: {nexthop: b, metric: 0}}
  - expect_row: {table: velta/in/a/routes, key: {prefix: p9}, row: {nexthop: b}}
  - expect_row: {table: velta/in/a/routes, key: {prefix: p1}, absent: true}
  - delete: {table: velta/in/a/routes, key: {prefix: p1}}
  - expect_row: {table: velta/in/a/routes, key: {prefix: p1}, absent: true}
  - expect_rows: {table: velta/in/a/routes, rows: []}
)");
    const VeltaSim::RunResult result = VeltaSim::runScenario(s, RunOptions{});
    EXPECT_TRUE(result.completed);
    EXPECT_EQ(failureLines(result.failures),
              (std::vector<std::string>{
                  // Found rows show the key and every field an expected row names.
                  "step 3 (line 12) expect_rows: velta/in/a/routes: the rows differ",
                  "  {prefix: p1, nexthop: a}",
                  "- {prefix: p3, nexthop: b}",
                  "- {prefix: p4}",
                  "+ {prefix: p2, nexthop: a}",
                  "+ {prefix: p3, nexthop: a}",
                  "step 5 (line 14) expect_row: velta/in/a/routes: the row with key {prefix: p2} differs",
                  "- {nexthop: b, metric: 0}",
                  "+ {prefix: p2, nexthop: a, metric: 0}",
                  "step 6 (line 15) expect_row: velta/in/a/routes: no row with key {prefix: p9}",
                  "- {nexthop: b}",
                  "+ (no row)",
                  "step 7 (line 16) expect_row: velta/in/a/routes: the row with key {prefix: p1} was "
                  "expected absent",
                  "+ {prefix: p1, nexthop: a}",
                  "step 10 (line 19) expect_rows: velta/in/a/routes: 0 rows expected, 2 found",
                  "+ {prefix: p2, nexthop: a}",
                  "+ {prefix: p3, nexthop: a}",
              }));
}

TEST(VeltaSimRun, ChecksHostCallsTracesAndTheRegistry) {
    const Scenario s = parsed(R"(
host: {auto_publish: true}
trace: {SubscriptionTranslator: 0x11}
agents:
  - {name: srv, system: sysA, server_agent: true}
steps:
  - write: {table: velta/metadata/SystemDescription, row: {oid: 1, sysName: sysA, agentName: cli, properties: 1}}
  - write:
      table: velta/External/Subscription
      row: {oid: 7, system_description: 1, outputPath: velta/out/d7, typeName: veMetadata::veTable,
            queryText: "SELECT * INTO velta/out/d7", standing: true}
  - start: {agent: srv, translator: true}
  - expect_calls: [{registerTable: {path: velta/out/d7, owner: srv}}]
  - expect_calls: []
  - expect_trace: {channel: SubscriptionTranslator, level: 4, text: "[sysA:1] subscribe w velta/out/d"}
  - expect_trace: {channel: SubscriptionTranslator, level: 4, contains: "subscribe w velta/out/d"}
  - expect_no_trace: {channel: SubscriptionTranslator, level: 4, contains: "subscribe w"}
  - clear_traces
  - expect_no_trace: {channel: SubscriptionTranslator, level: 4, contains: "subscribe w"}
  - expect_registry:
      agent: srv
      key: {system_description: 1, outputPath: velta/out/d7}
      entry: {writer: true, reader: true, externalOid: 7}
  - expect_registry: {agent: srv, key: {system_description: 2, outputPath: velta/out/d7}, entry: {sid: 0}}
  - expect_external_id: {agent: srv, sid: 1234, oid: 7}
)");
    const VeltaSim::RunResult result = VeltaSim::runScenario(s, RunOptions{});
    std::vector<std::string> lines = failureLines(result.failures);
    // The entry's table oid, type id and control id are the host's numbers: checked for presence.
    ASSERT_EQ(lines.size(), 15u) << ::testing::PrintToString(lines);
    EXPECT_EQ(lines[10].rfind("+ {writer: true, reader: false, externalOid: 7, tableOid: ", 0), 0u)
        << lines[10];
    lines[10] = "+ {writer: true, reader: false, externalOid: 7, ...}";
    EXPECT_EQ(
        lines,
        (std::vector<std::string>{
            "step 4 (line 13) expect_calls: the host calls differ since the start",
            "- registerTable: {path: velta/out/d7, owner: srv}",
            "+ registerTable: {path: velta/out/d7, typeName: veMetadata::veTable, tableType: 0, "
            "desiredFlags: 0, flags: 0, owner: cli}   (by srv)",
            "step 6 (line 15) expect_trace: no trace SubscriptionTranslator[4] \"[sysA:1] subscribe w "
            "velta/out/d\"",
            "- SubscriptionTranslator[4] \"[sysA:1] subscribe w velta/out/d\"",
            "+ SubscriptionTranslator[4] SubscriptionTranslator:593 extSubsOnRowCommon: [sysA:1] subscribe w "
            "velta/out/d7",
            "step 8 (line 17) expect_no_trace: unexpected trace SubscriptionTranslator[4] containing "
            "subscribe w",
            "+ SubscriptionTranslator[4] SubscriptionTranslator:593 extSubsOnRowCommon: [sysA:1] subscribe w "
            "velta/out/d7",
            "step 11 (line 20) expect_registry: the registry entry of srv for {system_description: 1, "
            "outputPath: velta/out/d7} differs",
            "- {writer: true, reader: true, externalOid: 7}",
            "+ {writer: true, reader: false, externalOid: 7, ...}",
            "step 12 (line 24) expect_registry: the registry of srv has no entry for {system_description: 2, "
            "outputPath: velta/out/d7}",
            "- {sid: 0}",
            "+ (no entry)",
            "step 13 (line 25) expect_external_id: externalSubscriptionId(1234) of srv is 0, expected 7",
        }));
}

TEST(VeltaSimRun, StopsAtAStepWhoseCallbacksDoNotSettle) {
    // The output path fits the input pattern: the aggregator takes its own output as an input and
    // rewrites every row it gets, forever.
    const Scenario s = parsed(kAggregatorPreamble + R"(
steps:
  - create_table: {path: velta/in/a/routes, type: Sim::Route}
  - start: {agent: a1, aggregator: g, input_prefix: velta/in/, input_suffix: /routes,
            output: velta/in/all/routes, row_type: Sim::Route}
  - run
  - write: {table: velta/in/a/routes, row: {prefix: p1, nexthop: a}}
  - expect_rows: {table: velta/in/all/routes, rows: [{prefix: p1}]}
  - expect_rows: {table: velta/in/all/routes, rows: []}
)");
    RunOptions options;
    options.deliveryBound = 500;
    const VeltaSim::RunResult result = VeltaSim::runScenario(s, options);
    EXPECT_FALSE(result.completed);
    EXPECT_EQ(failureLines(result.failures),
              std::vector<std::string>{"step 5 (line 15) expect_rows: did not settle after 500 callbacks"});
}

TEST(VeltaSimRun, CompleteQueryFailsWhenNoDefinerOfTheTextIsLeft) {
    const Scenario s = parsed(R"(
host: {auto_publish: true, queries: manual}
agents:
  - {name: srv, system: sysA, server_agent: true}
steps:
  - start: {agent: srv, translator: true}
  - write: {table: velta/metadata/SystemDescription, row: {oid: 1, sysName: sysA, agentName: cli, properties: 1}}
  - write: {table: velta/External/Subscription, row: {oid: 7, system_description: 1, outputPath: velta/out/q7,
            typeName: veMetadata::veTable, queryText: "SELECT tablePath FROM velta/out/q7", standing: true}}
  - run
  - stop: {agent: srv, translator: true}
  - complete_query: {text: "SELECT tablePath FROM velta/out/q7"}
)");
    EXPECT_EQ(failureLines(VeltaSim::runScenario(s, RunOptions{}).failures),
              (std::vector<std::string>{
                  "step 6 (line 12) complete_query: no pending query with text SELECT tablePath FROM "
                  "velta/out/q7 whose completion can still be delivered",
                  "+ pending: SELECT tablePath FROM velta/out/q7   (its agent object was stopped)"}));
}

TEST(VeltaSimRun, ChildRunsReportAssertionsAsExpectedOrAsFailures) {
    const std::string body =
        "agents:\n  - {name: plain, system: sysA}\nsteps:\n"
        "  - expect_rows: {table: velta/veCtrl/subscription, rows: [{oid: 1}]}\n"
        "  - start: {agent: plain, translator: true}\n"
        "  - run\n";
    // Expected: the failure before the abort still counts.
    VeltaSim::Outcome expected = VeltaSim::runIsolated(
        parsed(body + "expect_abort: \"vdb_->isServerAgent() || vdb_->external()\"\n"), RunOptions{});
    EXPECT_EQ(failureLines(expected.failures),
              (std::vector<std::string>{
                  "step 1 (line 4) expect_rows: velta/veCtrl/subscription: 1 row expected, 0 found",
                  "- {oid: 1}"}));
    // The wrong expression.
    VeltaSim::Outcome wrong = VeltaSim::runIsolated(
        parsed(body + "expect_abort: \"pName.size() == pValue.size()\"\n"), RunOptions{});
    ASSERT_EQ(wrong.failures.size(), 2u);
    EXPECT_EQ(
        VeltaSim::failureHeadline(wrong.failures[1]),
        "step 2 (line 5) expect_abort: the run aborted, but its report does not name the expected assertion");
    EXPECT_EQ(wrong.failures[1].details.at(0), "- pName.size() == pValue.size()");
    EXPECT_NE(
        wrong.failures[1].details.at(1).find("Assertion `vdb_->isServerAgent() || vdb_->external()' failed"),
        std::string::npos);
    // No abort at all.
    VeltaSim::Outcome none = VeltaSim::runIsolated(
        parsed("steps:\n  - run\nexpect_abort: \"vdb_->isServerAgent() || vdb_->external()\"\n"),
        RunOptions{});
    ASSERT_EQ(none.failures.size(), 1u);
    EXPECT_EQ(VeltaSim::failureHeadline(none.failures[0]),
              "step 1 (line 2) expect_abort: expected the run to end in the assertion, but it did not abort");
    // Not expected: reported, and the runner goes on.
    VeltaSim::Outcome unexpected = VeltaSim::runIsolated(parsed(body), RunOptions{});
    EXPECT_FALSE(unexpected.passed);
    ASSERT_EQ(unexpected.failures.size(), 2u);
    EXPECT_EQ(VeltaSim::failureHeadline(unexpected.failures[1])
                  .rfind("step 2 (line 5) start: the run ended with signal 6", 0),
              0u);
}

TEST(VeltaSimRun, SeededDeliveryOrdersDecideWhichOfTwoInputsWins) {
    // Two inputs deliver one key in the same batch: the later delivery wins, so the winner depends
    // on the order; each interface's own rows keep their order.
    const Scenario s = parsed(kAggregatorPreamble + R"(
steps:
  - create_table: {path: velta/in/a/routes, type: Sim::Route}
  - create_table: {path: velta/in/b/routes, type: Sim::Route}
  - start: {agent: a1, aggregator: g, input_prefix: velta/in/, input_suffix: /routes,
            output: velta/out/routes, row_type: Sim::Route}
  - run
  - write: {table: velta/in/a/routes, rows: [{prefix: p, nexthop: a, metric: 1}]}
  - write: {table: velta/in/b/routes, rows: [{prefix: p, nexthop: b}]}
  - write: {table: velta/in/a/routes, rows: [{prefix: p, nexthop: a, metric: 2}]}
  - expect_row: {table: velta/out/routes, key: {prefix: p}, row: {nexthop: b}}
)");
    EXPECT_FALSE(VeltaSim::runScenario(s, RunOptions{}).failures.empty())
        << "plain order: a's second row comes last";
    std::size_t bWins = 0;
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        RunOptions options;
        options.shuffleSeed = seed;
        const VeltaSim::RunResult result = VeltaSim::runScenario(s, options);
        if (result.failures.empty()) {
            ++bWins;
            continue;
        }
        // When a wins it is always with its later row: its own deliveries stay in order.
        ASSERT_EQ(result.failures[0].details.size(), 2u);
        EXPECT_EQ(result.failures[0].details[1], "+ {prefix: p, nexthop: a}");
    }
    EXPECT_GT(bWins, 0u);
    EXPECT_LT(bWins, 20u);

    // Seeds run one after the other in one child give the same verdicts as runs in this process.
    const auto isolated = VeltaSim::runSeeds(s, RunOptions{}, 1, 20, true);
    const auto local = VeltaSim::runSeeds(s, RunOptions{}, 1, 20, false);
    ASSERT_EQ(isolated.size(), 20u);
    ASSERT_EQ(local.size(), 20u);
    for (std::size_t i = 0; i < 20; ++i) {
        EXPECT_EQ(isolated[i].seed, i + 1);
        EXPECT_EQ(isolated[i].outcome.passed, local[i].outcome.passed) << "seed " << i + 1;
        EXPECT_EQ(failureLines(isolated[i].outcome.failures), failureLines(local[i].outcome.failures));
    }
}

TEST(VeltaSimRun, ASeedWhoseRunEndsTheChildIsReportedAndTheNextSeedsStillRun) {
    // Every run ends in the translator's assertion, which this scenario does not expect: each seed
    // needs a child of its own, and each is reported.
    const Scenario s = parsed(
        "agents:\n  - {name: plain, system: sysA}\nsteps:\n"
        "  - run\n  - start: {agent: plain, translator: true}\n  - run\n");
    const auto outcomes = VeltaSim::runSeeds(s, RunOptions{}, 3, 6, true);
    ASSERT_EQ(outcomes.size(), 4u);
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
        EXPECT_EQ(outcomes[i].seed, i + 3);
        EXPECT_FALSE(outcomes[i].outcome.passed);
        ASSERT_EQ(outcomes[i].outcome.failures.size(), 1u);
        EXPECT_EQ(VeltaSim::failureHeadline(outcomes[i].outcome.failures[0])
                      .rfind("step 2 (line 5) start: the run ended with signal 6", 0),
                  0u);
    }
}

TEST(VeltaSimViews, TimelineDumpAndTracesShowWhatHappened) {
    const Scenario s = parsed(kAggregatorPreamble + R"(
trace: {Aggregator: 0x40}
steps:
  - create_table: {path: velta/in/a/routes, type: Sim::Route}
  - create_table: {path: velta/in/b/routes, type: Sim::Route}
  - write: {table: velta/in/a/routes, row: {prefix: p1, nexthop: a}}
  - write: {table: velta/in/b/routes, row: {prefix: p2, nexthop: "b e\u0301漢", tags: [t]}}
  - start: {agent: a1, aggregator: g, input_prefix: velta/in/, input_suffix: /routes,
            output: velta/out/routes, row_type: Sim::Route}
  - run
  - dump: {table: velta/in/a/routes}
  - write: {table: velta/out/routes, row: {prefix: p3}}
  - expect_rows: {table: velta/out/routes, rows: [{prefix: p1, from: velta/in/a/routes}, {prefix: p2, from: velta/in/b/routes},
                                                  {prefix: p3, from: ""}]}
  - expect_row: {table: velta/out/routes, key: {prefix: p2}, row: {from: velta/in/a/routes}}
)");
    RunOptions options;
    options.timeline = true;
    options.dump = true;
    options.trace = true;
    const VeltaSim::RunResult result = VeltaSim::runScenario(s, options);
    EXPECT_EQ(failureLines(result.failures),
              (std::vector<std::string>{
                  "step 10 (line 22) expect_row: velta/out/routes: the row with key {prefix: p2} differs",
                  "- {from: velta/in/a/routes}", "+ {prefix: p2, from: velta/in/b/routes}"}));
    const std::string& v = result.views;
    auto has = [&v](const std::string& text) { return v.find(text) != std::string::npos; };
    EXPECT_TRUE(has(
        "step 3 (line 13): write velta/in/a/routes\n  write velta/in/a/routes {prefix: p1, nexthop: a}\n"))
        << v;
    EXPECT_TRUE(has("  #1 a1/g outputModifier [velta/out/routes] ready\n")) << v;
    EXPECT_TRUE(
        has("a1/g inputObserver [velta/in/b/routes] ready\n      write velta/out/routes {prefix: p2, "
            "nexthop: b e\u0301漢, tags: [t]}\n"))
        << v;
    EXPECT_TRUE(
        has("  trace Aggregator[6] Aggregator:234 onVeTableRow: Adding aggregated input table "
            "velta/in/a/routes to velta/out/routes\n"))
        << v;
    EXPECT_TRUE(
        has("step 7 (line 18): dump velta/in/a/routes\n  table velta/in/a/routes (Sim::Route, 1 row)\n"
            "    prefix  nexthop\n    ------  -------\n    p1      a\n"))
        << v;
    // At the end, the output table names the input that supplies each row; columns are as wide as
    // their texts show (a combining mark takes no column, a wide character two).
    EXPECT_TRUE(
        has("  table velta/out/routes (Sim::Route, 3 rows)\n"
            "    prefix  nexthop  tags  <- input\n"
            "    ------  -------  ----  -----------------\n"
            "    p1      a        []    velta/in/a/routes\n"
            "    p2      b e\u0301漢    [t]   velta/in/b/routes\n"
            "    p3      \"\"       []    (none)\n"))
        << v;
}

TEST(VeltaSimReport, TextAndJsonCarryTheSameFacts) {
    VeltaSim::ScenarioReport report;
    report.file = "x.yaml";
    report.name = "a \"quoted\" name";
    report.orderIndependent = false;
    report.outcome.passed = true;
    report.shuffleRuns = 4;
    report.failingSeeds = {2, 3};
    Failure f;
    f.step = 3;
    f.line = 9;
    f.keyword = "expect_rows";
    f.message = "t: 1 row expected, 0 found";
    f.details = {"- {a: 1}"};
    report.firstShuffleFailure = f;
    // Not declared order independent: failing orders are reported, the scenario still passes.
    EXPECT_TRUE(report.passed());
    EXPECT_EQ(
        VeltaSim::textReport(report),
        "PASS x.yaml: a \"quoted\" name\n"
        "  delivery orders: failed under 2 of 4 seeds (2, 3); reported only: the scenario does not declare "
        "order_independent\n"
        "  under seed 2:\n"
        "  step 3 (line 9) expect_rows: t: 1 row expected, 0 found\n"
        "      - {a: 1}\n");
    report.orderIndependent = true;
    EXPECT_FALSE(report.passed());
    EXPECT_EQ(
        VeltaSim::jsonReport(report),
        "{\"file\":\"x.yaml\",\"name\":\"a \\\"quoted\\\" name\",\"passed\":false,\"order_independent\":true,"
        "\"failures\":[],\"shuffle\":{\"runs\":4,\"failing_seeds\":[2,3],\"first_failure\":{\"step\":3,"
        "\"line\":9,"
        "\"keyword\":\"expect_rows\",\"message\":\"t: 1 row expected, 0 found\",\"diff\":[\"- {a: 1}\"]}}}");
    EXPECT_EQ(VeltaSim::jsonString(std::string("a\tb\x01", 4)), "\"a\\tb\\u0001\"");
    EXPECT_EQ(VeltaSim::summaryLine(3, 1), "3 passed, 1 failed");
}

}  // namespace
