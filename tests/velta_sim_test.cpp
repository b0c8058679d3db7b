// The scenario runner: parsing and validation, the report of failed expectations, the settle bound,
// child-process runs (expected and unexpected assertions), seeded delivery orders and the views.
#include "Format.h"
#include "Report.h"
#include "Runner.h"
#include "Scenario.h"
#include "TestSupport.h"
#include "Text.h"

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

TEST(VeltaSimParse, FollowsTheRunToRefuseStepsThatCannotWork) {
    // Each file is these two agents (lines 1 to 3) followed by the case's text.
    const std::string agents =
        "agents:\n  - {name: srv, system: sysA, server_agent: true}\n  - {name: a1, system: sysA}\n";
    const std::string aggregator =
        "  - start: {agent: a1, aggregator: g, input_prefix: p/, output: o, row_type: ";
    const std::pair<std::string, std::string> cases[] = {
        {"steps:\n  - start: {agent: srv, translator: true}\n  - start: {agent: srv, translator: true}\n",
         "6:12: a translator is already running on agent 'srv' (started at line 5)"},
        // The aggregator's output is known with the aggregator's row type; its fields are checked.
        {"steps:\n" + aggregator +
             "veMetadata::veTable}\n  - expect_rows: {table: o, rows: [{tablePath: x, nexthop: y}]}\n",
         "6:51: 'nexthop' is not a field of veMetadata::veTable; fields are: oid, tablePath, typeName, "
         "owner"},
        {"steps:\n  - expect_row: {table: velta/External/Publication, key: {subscription_id: 1}}\n",
         "5:17: 'expect_row' needs either 'row' or 'absent: true'"},
        {"row_types:\n  - {name: veCtrl::publication, key: [a], fields: {a: u16}}\nsteps: []\n",
         "5:12: row type 'veCtrl::publication' is a built-in record; choose another name"},
        {"steps:\n  - run: {table: x}\n", "5:10: 'run' takes no fields"},
        {"steps:\n  - &r run\n  - *r\n",
         "6:5: a YAML alias; a scenario file takes none: write the node out again where it is used"},
        {"steps:\n  - start: {agent: \"s\\nrv\", translator: true}\n",
         "5:20: unknown agent \"s\\nrv\" (did you mean 'srv'?); agents are: srv, a1"},
        {"trace: {Aggregater: 0x7f}\nsteps: []\n",
         "4:9: unknown trace channel 'Aggregater' (did you mean 'Aggregator'?); channels are: "
         "SubscriptionTranslator, Aggregator, Schedulable"},
        {"steps:\n  - delete: {table: velta/metadata/veTable, key: {oid: 1}}\n",
         "5:51: 'oid' is not a key field of veMetadata::veTable; key fields are: tablePath"},
        // The host keeps a table that exists as it is; a dropped one can be made with another type.
        {"steps:\n  - create_table: {path: p, type: veCtrl::publication}\n  - drop_table: {path: p}\n"
         "  - create_table: {path: p, type: veMetadata::veTable}\n" +
             aggregator +
             "veMetadata::veTable}\n  - create_table: {path: p, type: veMetadata::veTable}\n"
             "  - create_table: {path: o, type: veCtrl::publication}\n",
         "10:35: table 'o' already exists with row type veMetadata::veTable (the output of aggregator 'g' "
         "started at line 8), and create_table leaves an existing table as it is: name veMetadata::veTable, "
         "or drop_table it first"},
        {"", "1:1: the scenario needs 'steps'"},
        {"steps:\n  - create_table: {path: \"velta/out\\n/r\", type: veCtrl::publication}\n",
         "5:26: a table path cannot hold a control character: \"velta/out\\n/r\""},
        {"steps:\n  - write: {table: velta/metadata/veTable, row: {tablePath: \"a\\tb\"}}\n",
         "5:61: a table path cannot hold a control character: \"a\\tb\""},
        // A write makes a dropped table again with its type.
        {"steps:\n  - create_table: {path: p, type: External::Publication}\n  - drop_table: {path: p}\n"
         "  - write: {table: p, row: {subscription_id: 1}}\n  - create_table: {path: p, type: "
         "veMetadata::veTable}\n",
         "8:35: table 'p' already exists with row type External::Publication (created at line 5), and "
         "create_table leaves an existing table as it is: name External::Publication, or drop_table it "
         "first"},
        {"steps:\n  - complete_query: {text: SELECT}\n",
         "5:21: 'complete_query' needs 'queries: manual' under 'host' (otherwise queries complete by "
         "themselves and none is left to complete)"},
        {"steps:\n  - stop: {agent: srv, translator: true}\n",
         "5:11: no translator is running on agent 'srv' at this step (start it first)"},
        {"trace: {SubscriptionTranslator: 0x10}\nsteps:\n  - start: {agent: srv, translator: true}\n"
         "  - expect_trace: {channel: SubscriptionTranslator, level: 8, contains: \"extSubsOnReady\"}\n",
         "7:60: level 8 of channel 'SubscriptionTranslator' is not enabled under 'trace', so no such trace "
         "can be captured"},
        {"steps:\n  - write: {tabel: velta/External/Subscription, row: {oid: 7}}\n",
         "5:13: unknown key 'tabel' in 'write' (did you mean 'table'?); expected one of: table, row, rows"},
        {"step:\n  - run\n",
         "4:1: unknown key 'step' in the scenario (did you mean 'steps'?); expected one of: name, host, "
         "trace, row_types, agents, steps, expect_abort, order_independent"},
        {"steps:\n  - start: {agent: a1, aggregator: r, input_prefix: i/, row_type: veMetadata::veTable}\n",
         "5:12: 'start' needs 'output'"},
        {"steps:\n  - write: {table: velta/External/Publication, row: {subscription_id: 7, status: true, "
         "subscription_id: 8}}\n",
         "5:88: duplicate field 'subscription_id' in 'row'"},
        {"steps:\n  - write: {table: velta/External/Subscription, row: {outputPath: velta/out/q7, flags: "
         "0x10000}}\n",
         "5:88: expected a number (decimal or 0x hex) up to 65535 for field 'flags' (u16), 0x10000 is too "
         "large"},
        {"steps:\n  - write: {table: velta/External/Publication, row: {subscription_id: 7, status: yes}}\n",
         "5:82: expected true or false for field 'status' (bool), found 'yes'"},
        {"steps:\n  - write:\n      table: velta/External/Subscription\n      row: {oid: seven}\n",
         "7:18: expected a number (decimal or 0x hex) up to 4294967295 for field 'oid' (u32), found 'seven'"},
        {"row_types:\n  - name: Demo::Route\n    key: [prefx]\n    fields: {prefix: string, \"next\\nhop\": "
         "string}\nsteps: []\n",  // a listed name stays on the message's line
         "6:11: key field 'prefx' is not one of the fields: \"next\\nhop\", prefix"},
        {"steps:\n  - write:\n    table: velta/External/Publication\n",
         "6:5: unexpected 'table' beside 'write': a step is a map with one key; indent the step's fields "
         "under it"},
        {"steps:\n  - expect_rows:\n      table: velta/External/Publication\n      rows: [{satus: true}]\n",
         "7:15: 'satus' is not a field of External::Publication (did you mean 'status'?); fields are: "
         "subscription_id, publication_id, connection_id, tableId, typeId, view_id, status, error, ptime"},
        {"steps:\n  - create_table: {path: velta/data/routes, type: Demo::Rout}\n",
         "5:51: unknown row type 'Demo::Rout'; declare it under 'row_types' or use one of: "
         "External::Subscription, External::Publication, veCtrl::subscription, veCtrl::publication, "
         "veMetadata::veTable, veMetadata::SystemDescription, veMetadata::veClass"},
        {"steps:\n  - run\n  - expect_rowz: {table: velta/External/Publication, rows: []}\n",
         "6:5: unknown step 'expect_rowz' (did you mean 'expect_rows'?); expected one of: start, stop, call, "
         "create_table, drop_table, write, delete, run, clock, complete_query, clear_traces, dump, "
         "expect_rows, expect_row, expect_calls, expect_trace, expect_no_trace, expect_registry, "
         "expect_external_id"},
        {"steps:\n  - write: {table: velta/data/routes, row: {tablePath: x}}\n",
         "5:20: unknown table 'velta/data/routes': create it with create_table first, or name a table an "
         "earlier step implies (a subscription's outputPath, an aggregator's output)"},
        {"steps:\n  - write: {table: velta/External/Publication, row: {subscription_id: 7}\n  - run\n",
         "6:3: invalid YAML: a list item ('- ') where none can start; is a '{' or '[' before it left open? "
         "(illegal block entry)"},
    };
    for (const auto& [text, error] : cases) EXPECT_EQ(parseError(agents + text), "s.yaml:" + error) << text;
    // Files without those agents.
    for (const auto& [text, error] : std::initializer_list<std::pair<const char*, const char*>>{
             {"agents: {name: srv, system: sysA}\nsteps:\n  - run\n",
              "1:9: expected a list of agents for 'agents', found a map"},
             {"agents: [{name: srv, system: sysA}\nsteps:\n  - run\n",
              "2:1: invalid YAML: expected ']' to close the list (end of sequence flow not found)"},
             {"", "1:1: expected a scenario (a map with at least 'steps'), the file is empty"}})
        EXPECT_EQ(parseError(text), std::string("s.yaml:") + error) << text;
    // A row type wider than a field's 16-bit place is refused, not counted round for ever.
    std::string wide = "row_types:\n  - name: Sim::Wide\n    key: [f0]\n    fields: {f0: u32";
    for (std::size_t i = 1; i <= Velta::Host::kMaxRowTypeFields; ++i)
        wide += ", f" + std::to_string(i) + ": u32";
    EXPECT_EQ(parseError(wide + "}\nsteps:\n  - run\n"),
              "s.yaml:4:13: a row type holds at most 65535 fields, found 65536");
    const std::string directory = ::testing::TempDir();
    EXPECT_EQ(VeltaSim::loadScenario(directory).error, directory + ": cannot read: Is a directory");
}

TEST(VeltaSimFormat, FoundRowsReadBackAsTheSameRow) {
    EXPECT_EQ(VeltaSim::yamlText("-1") + VeltaSim::yamlText("say \"hi\"\n"), "\"-1\"\"say \\\"hi\\\"\\n\"");
    // A row as a report shows it, pasted back into a scenario, matches the row it came from.
    auto row = Velta::Test::rowOf<Velta::External::Subscription>(
        "outputPath=Null;oid=4000000000;standing=1;queryText=SELECT * FROM a: b, c #d;"
        "paramName=[,[x],y,null,NULL]");
    const std::string shown = VeltaSim::formatFields(row, VeltaSim::keyAndSetFields(row));
    EXPECT_EQ(shown,
              "{system_description: 0, outputPath: \"Null\", oid: 4000000000, "
              "queryText: \"SELECT * FROM a: b, c #d\", standing: true, "
              "paramName: [\"\", \"[x]\", y, \"null\", \"NULL\"]}");
    const Scenario s =
        parsed("steps:\n  - expect_rows: {table: velta/External/Subscription, rows: [" + shown + "]}\n");
    const auto& listed = std::get<VeltaSim::ExpectRows>(s.steps[0].action).rows.at(0);
    EXPECT_TRUE(VeltaSim::matches(row, listed));
    row.standingIs(false);
    EXPECT_FALSE(VeltaSim::matches(row, listed));

    // Controls beyond ASCII are shown escaped and read back as themselves. JSON text is Unicode: a
    // byte that starts no character shows there as U+FFFD.
    row.queryTextIs(
        "a\xc2\x85"
        "b\xe2\x80\xa8"
        "c\xff");
    const std::string escaped = VeltaSim::formatFields(row, VeltaSim::keyAndSetFields(row));
    EXPECT_NE(escaped.find("queryText: \"a\\x85b\\u2028c\xff\""), std::string::npos) << escaped;
    const Scenario again =
        parsed("steps:\n  - expect_rows: {table: velta/External/Subscription, rows: [" + escaped + "]}\n");
    EXPECT_TRUE(VeltaSim::matches(row, std::get<VeltaSim::ExpectRows>(again.steps[0].action).rows.at(0)));
    EXPECT_EQ(VeltaSim::doubleQuoted(row.queryText(), VeltaSim::Quoting::json),
              "\"a\\u0085b\\u2028c\\ufffd\"");
}

TEST(VeltaSimFormat, DiffsAlignTheMiddleOnlyAndShowContext) {
    // Wrong items among many: the common ends cost a comparison each, not one per pair.
    std::vector<int> expected(3000), found(3000);
    for (int i = 0; i < 3000; ++i) expected[i] = found[i] = i;
    found[1500] = -1;
    found[1520] = -2;
    found[1526] = -3;
    std::size_t compared = 0;
    const auto same = [&compared](int a, int b) {
        ++compared;
        return a == b;
    };
    const auto show = [](int v) { return std::to_string(v); };
    const std::vector<std::string> lines = VeltaSim::diffLines(expected, found, same, show, show);
    EXPECT_LT(compared, 6100u);
    // Three matched lines either side of a change, the others counted; a short run stays whole.
    std::string shown;
    for (const std::string& line : lines) shown += line + "\n";
    EXPECT_EQ(shown,
              "  ... 1497 more as expected\n  1497\n  1498\n  1499\n- 1500\n+ -1\n  1501\n  1502\n  1503\n"
              "  ... 13 more as expected\n  1517\n  1518\n  1519\n- 1520\n+ -2\n  1521\n  1522\n  1523\n"
              "  1524\n  1525\n- 1526\n+ -3\n  1527\n  1528\n  1529\n  ... 1470 more as expected\n");
}

TEST(VeltaSimRun, ReportsEachFailedExpectationAsADiff) {
    // A scenario, the delivery bound to run it with (0: the host's) and the failures it reports.
    const std::tuple<std::string, std::size_t, std::vector<std::string>> runs[] = {
        {kAggregatorPreamble + R"(
steps:
  - create_table: {path: velta/in/a/routes, type: Sim::Route}
  - write: {table: velta/in/a/routes, rows: [{prefix: p1, nexthop: a}, {prefix: p2, nexthop: a}, {prefix: p3, nexthop: a}]}
  - expect_rows: {table: velta/in/a/routes, rows: [{prefix: p1}, {prefix: p3, nexthop: b}, {prefix: p4}]}
  - expect_rows: {table: velta/in/a/routes, rows: [{prefix: p1}, {prefix: p2}, {prefix: p3}]}
  - expect_row: {table: velta/in/a/routes, key: {prefix: p2}, row: {nexthop: b, metric: 0}}
  - expect_row: {table: velta/in/a/routes, key: {prefix: p9}, row: {nexthop: b}}
  - expect_row: {table: velta/in/a/routes, key: {prefix: p1}, absent: true}
  - expect_rows: {table: velta/in/a/routes, rows: []}
)",
         0,
         {// Found rows show the key and every field an expected row names.
          "step 3 (line 12) expect_rows: velta/in/a/routes: the rows differ", "  {prefix: p1, nexthop: a}",
          "- {prefix: p3, nexthop: b}", "- {prefix: p4}", "+ {prefix: p2, nexthop: a}",
          "+ {prefix: p3, nexthop: a}",
          "step 5 (line 14) expect_row: velta/in/a/routes: the row with key {prefix: p2} differs",
          "- {nexthop: b, metric: 0}", "+ {prefix: p2, nexthop: a, metric: 0}",
          "step 6 (line 15) expect_row: velta/in/a/routes: no row with key {prefix: p9}", "- {nexthop: b}",
          "+ (no row)",
          "step 7 (line 16) expect_row: velta/in/a/routes: the row with key {prefix: p1} was expected absent",
          "+ {prefix: p1, nexthop: a}",
          "step 8 (line 17) expect_rows: velta/in/a/routes: 0 rows expected, 3 found",
          "+ {prefix: p1, nexthop: a}", "+ {prefix: p2, nexthop: a}", "+ {prefix: p3, nexthop: a}"}},
        {R"(
host: {auto_publish: true, queries: manual}
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
  - expect_registry: {agent: srv, key: {system_description: 2, outputPath: velta/out/d7}, entry: {sid: 0}}
  - expect_external_id: {agent: srv, sid: 1234, oid: 7}
)",
         0,
         {"step 4 (line 13) expect_calls: the host calls differ since the start",
          "- registerTable: {path: velta/out/d7, owner: srv}",
          "+ registerTable: {path: velta/out/d7, typeName: veMetadata::veTable, tableType: 0, "
          "desiredFlags: 0, flags: 0, owner: cli}   (by srv)",
          "step 6 (line 15) expect_trace: no trace SubscriptionTranslator[4] \"[sysA:1] subscribe w "
          "velta/out/d\"",
          "- SubscriptionTranslator[4] \"[sysA:1] subscribe w velta/out/d\"",
          "+ SubscriptionTranslator[4] SubscriptionTranslator:593 extSubsOnRowCommon: [sysA:1] subscribe w "
          "velta/out/d7",
          "step 8 (line 17) expect_no_trace: unexpected trace SubscriptionTranslator[4] containing subscribe "
          "w",
          "+ SubscriptionTranslator[4] SubscriptionTranslator:593 extSubsOnRowCommon: [sysA:1] subscribe w "
          "velta/out/d7",
          "step 11 (line 20) expect_registry: the registry of srv has no entry for {system_description: 2, "
          "outputPath: velta/out/d7}",
          "- {sid: 0}", "+ (no entry)",
          "step 12 (line 21) expect_external_id: externalSubscriptionId(1234) of srv is 0, expected 7"}},
        // The output path fits the input pattern: the aggregator takes its own output as an input and
        // rewrites every row it gets, forever.
        {kAggregatorPreamble + R"(
steps:
  - create_table: {path: velta/in/a/routes, type: Sim::Route}
  - start: {agent: a1, aggregator: g, input_prefix: velta/in/, input_suffix: /routes,
            output: velta/in/all/routes, row_type: Sim::Route}
  - run
  - write: {table: velta/in/a/routes, row: {prefix: p1, nexthop: a}}
  - expect_rows: {table: velta/in/all/routes, rows: [{prefix: p1}]}
  - expect_rows: {table: velta/in/all/routes, rows: []}
)",
         500,
         {"step 5 (line 15) expect_rows: did not settle after 500 callbacks"}},
        // The aggregator's write makes its dropped output again, so a create_table of another type
        // cannot take effect.
        {kAggregatorPreamble + R"(
steps:
  - start: {agent: a1, aggregator: g, input_prefix: velta/in/, input_suffix: /routes,
            output: velta/out/routes, row_type: Sim::Route}
  - create_table: {path: velta/in/a/routes, type: Sim::Route}
  - drop_table: {path: velta/out/routes}
  - write: {table: velta/in/a/routes, row: {prefix: p1, nexthop: a}}
  - run
  - create_table: {path: velta/out/routes, type: External::Publication}
)",
         0,
         {"step 6 (line 16) create_table: table velta/out/routes exists again, with row type Sim::Route, not "
          "External::Publication"}},
    };
    for (const auto& [text, deliveryBound, failures] : runs) {
        RunOptions options;
        options.deliveryBound = deliveryBound;
        const VeltaSim::RunResult result = VeltaSim::runScenario(parsed(text), options);
        EXPECT_EQ(result.completed, deliveryBound == 0);
        EXPECT_EQ(failureLines(result.failures), failures);
    }
    // Row types are process-wide: a later run in this process cannot give Sim::Route another definition.
    const VeltaSim::RunResult again = VeltaSim::runScenario(
        parsed("row_types:\n  - {name: Sim::Route, key: [k], fields: {k: string}}\nsteps: []\n"),
        RunOptions{});
    EXPECT_EQ(failureLines(again.failures),
              std::vector<std::string>{
                  "the run could not go on: row type Sim::Route (line 2) is already defined "
                  "differently by a scenario run earlier in this process, as under --no-fork"});
}

TEST(VeltaSimRun, ChildRunsReportAssertionsAsExpectedOrAsFailures) {
    const std::string body =
        "agents:\n  - {name: plain, system: sysA}\nsteps:\n"
        "  - expect_rows: {table: velta/veCtrl/subscription, rows: [{oid: 1}]}\n"
        "  - start: {agent: plain, translator: true}\n"
        "  - run\n";
    const std::string early =
        "step 1 (line 4) expect_rows: velta/veCtrl/subscription: 1 row expected, 0 found";
    const std::string signal = "step 2 (line 5) start: the run ended with signal 6";
    // A scenario, the number of failures, and each one's headline and diff lines (a line ending in
    // "..." gives the start of the line only).
    const std::tuple<std::string, std::size_t, std::vector<std::string>> cases[] = {
        {body + "expect_abort: \"vdb_->isServerAgent() || vdb_->external()\"\n", 1, {early, "- {oid: 1}"}},
        {body + "expect_abort: \"pName.size() == pValue.size()\"\n",
         2,
         {early, "- {oid: 1}",
          "step 2 (line 5) expect_abort: the run aborted, but its report does not name the expected "
          "assertion",
          "- pName.size() == pValue.size()", "+ ..."}},
        {body, 2, {early, "- {oid: 1}", signal + "...", "..."}},
        {"steps:\n  - run\nexpect_abort: \"vdb_->isServerAgent() || vdb_->external()\"\n",
         1,
         {"step 1 (line 2) expect_abort: expected the run to end in the assertion, but it did not abort",
          "- abort: vdb_->isServerAgent() || vdb_->external()", "+ every step ran to its end"}},
        {kAggregatorPreamble +
             "steps:\n  - create_table: {path: velta/in/a/routes, type: Sim::Route}\n"
             "  - start: {agent: a1, aggregator: g, input_prefix: velta/in/, input_suffix: /routes, output: "
             "velta/in/all/routes, row_type: Sim::Route}\n"
             "  - write: {table: velta/in/a/routes, row: {prefix: p1}}\n  - run\nexpect_abort: never\n",
         2,
         {"step 4 (line 12) run: did not settle after 500 callbacks",
          "step 4 (line 12) expect_abort: expected the run to end in the assertion, but it did not abort",
          "- abort: never", "+ the run stopped at step 4"}},
    };
    RunOptions options;
    options.deliveryBound = 500;
    for (const auto& [text, count, expected] : cases) {
        const VeltaSim::Outcome outcome = VeltaSim::runIsolated(parsed(text), options);
        EXPECT_FALSE(outcome.passed);
        EXPECT_EQ(outcome.failures.size(), count) << text;
        std::vector<std::string> lines = failureLines(outcome.failures);
        for (std::size_t i = 0; i < lines.size() && i < expected.size(); ++i)
            if (expected[i].ends_with("...")) lines[i] = lines[i].substr(0, expected[i].size() - 3) + "...";
        EXPECT_EQ(lines, expected) << text;
    }
    // Seeds in one child: a seed whose run ends the child is reported, and the next seeds still run.
    const auto outcomes = VeltaSim::runSeeds(parsed(body), RunOptions{}, 3, 4, true);
    ASSERT_EQ(outcomes.size(), 2u);
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
        EXPECT_EQ(outcomes[i].seed, i + 3);
        ASSERT_EQ(outcomes[i].outcome.failures.size(), 2u);
        EXPECT_EQ(VeltaSim::failureHeadline(outcomes[i].outcome.failures[1]).rfind(signal, 0), 0u);
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
    // At the end, the output table names the input that supplies each row; columns are as wide as
    // their texts show (a combining mark takes no column, a wide character two).
    for (const char* part :
         {"step 3 (line 13): write velta/in/a/routes\n  write velta/in/a/routes {prefix: p1, nexthop: a}\n",
          "  #1 a1/g outputModifier [velta/out/routes] ready\n",
          "a1/g inputObserver [velta/in/b/routes] ready\n      write velta/out/routes {prefix: p2, "
          "nexthop: b e\u0301漢, tags: [t]}\n",
          "  trace Aggregator[6] Aggregator:234 onVeTableRow: Adding aggregated input table "
          "velta/in/a/routes to velta/out/routes\n",
          "step 7 (line 18): dump velta/in/a/routes\n  table velta/in/a/routes (Sim::Route, 1 row)\n"
          "    prefix  nexthop\n    ------  -------\n    p1      a\n",
          "  table velta/out/routes (Sim::Route, 3 rows)\n"
          "    prefix  nexthop  tags  <- input\n"
          "    ------  -------  ----  -----------------\n"
          "    p1      a        []    velta/in/a/routes\n"
          "    p2      b e\u0301漢    [t]   velta/in/b/routes\n"
          "    p3      \"\"       []    (none)\n",
          "step 10 (line 22): expect_row velta/out/routes {prefix: p2}\n  failed: velta/out/routes: the row "
          "with key "
          "{prefix: p2} differs\n"})
        EXPECT_NE(result.views.find(part), std::string::npos) << part << "\nnot in\n" << result.views;
}

TEST(VeltaSimReport, TextAndJsonCarryTheSameFacts) {
    VeltaSim::ScenarioReport report{"x.yaml", "a \"quoted\"\nname", false, {}, 4, {2, 3}, std::nullopt};
    report.outcome.passed = true;
    report.firstShuffleFailure = Failure{3, 9, "expect_rows", "t: 1 row expected, 0 found", {"- {a: 1}"}};
    // Not declared order independent: failing orders are reported, the scenario still passes.
    EXPECT_TRUE(report.passed());
    EXPECT_EQ(
        VeltaSim::textReport(report),
        "PASS x.yaml: \"a \\\"quoted\\\"\\nname\"\n"
        "  delivery orders: failed under 2 of 4 seeds (2, 3); reported only: the scenario does not declare "
        "order_independent\n"
        "  under seed 2:\n"
        "  step 3 (line 9) expect_rows: t: 1 row expected, 0 found\n"
        "      - {a: 1}\n");
    report.orderIndependent = true;
    EXPECT_FALSE(report.passed());
    EXPECT_EQ(VeltaSim::jsonReport(report),
              "{\"file\":\"x.yaml\",\"name\":\"a \\\"quoted\\\"\\nname\",\"passed\":false,"
              "\"order_independent\":true,\"failures\":[],\"shuffle\":{\"runs\":4,\"failing_seeds\":[2,3],"
              "\"first_failure\":{\"step\":3,\"line\":9,\"keyword\":\"expect_rows\",\"message\":\"t: 1 row "
              "expected, 0 found\",\"diff\":[\"- {a: 1}\"]}}}");
    EXPECT_EQ(VeltaSim::doubleQuoted(std::string("a\tb\x01", 4), VeltaSim::Quoting::json),
              "\"a\\tb\\u0001\"");
    EXPECT_EQ(VeltaSim::summaryLine(3, 1), "3 passed, 1 failed");
}

}  // namespace
