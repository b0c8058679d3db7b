// A scenario file as velta-sim understands it: the parsed, validated model of one YAML file.
//
// Invariants:
// - A Scenario returned by parseScenario is complete and consistent: every agent, row type, table
//   and field it names exists (tables as far as the file itself creates or implies them), every
//   value has the kind of its field, and start/stop/call steps pair up. Running it can still fail
//   an expectation, never because the file was unusable.
// - Marks are 1-based line and column numbers in the file, pointing at the node that matters.
#pragma once

#include <Velta/BaseRow.h>
#include <Velta/Host/Database.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace VeltaSim {

struct Mark {
    int line = 0;
    int column = 0;
};

// One field value of a row written or expected in a step.
struct FieldValue {
    std::size_t field = 0;  // index in the row type
    std::variant<std::uint64_t, std::string, std::vector<std::string>> value;
    Mark mark;
};

// The fields a row in a step names; the others are zero, false or empty.
struct RowSpec {
    const Velta::RowType* type = nullptr;  // a built-in record type or a RowTypeDef's private copy
    std::vector<FieldValue> values;
    // Expected rows only: the input table expected to supply the row in its aggregator's output
    // ("" for none), as Aggregator::outputRowSource reports it.
    std::optional<std::string> from;
    Mark mark;
};

// A user row type of the file. It is checked against a private copy while parsing and defined in
// the host's process-wide registry only when the scenario runs, so files that give one name
// different definitions can be used in one invocation (each run has a process of its own).
struct RowTypeDef {
    std::string name;
    std::vector<Velta::Host::FieldSpec> fields;
    std::vector<std::string> key;
    Mark mark;
    std::shared_ptr<const Velta::RowType> local;  // the private copy the file's rows are checked with
};

struct AgentDecl {
    std::string name;
    std::string system;
    bool serverAgent = false;
    bool external = false;
    bool standalone = true;
    Mark mark;
};

// Steps. Each step type is one entry of the registry: `step` gives its keyword and whether it is
// an expectation (an expect_* step, which delivers queued callbacks before it checks), Action lists
// the types in the order messages list the keywords, the parser reads a type by an overload of its
// own and the runner carries it out by another. The compiler refuses a type that misses one.
struct StepInfo {
    std::string_view keyword;
    bool expectation = false;
};

// An agent object: the translator of `agent`, or its aggregator with id `aggregator`.
struct AgentObject {
    std::string agent;
    std::string aggregator;  // empty: the translator
};

struct Start {
    static constexpr StepInfo step{"start"};
    AgentObject object;
    // Aggregators only.
    std::string inputPrefix;
    std::string inputSuffix;
    std::string output;
    std::string rowType;
    bool deleteWithoutReplacement = false;
    bool enabled = true;
    bool bindFlag = false;
};
struct Stop {
    static constexpr StepInfo step{"stop"};
    AgentObject object;
};
struct Call {
    static constexpr StepInfo step{"call"};
    // clean is the translator's only operation; the others are an aggregator's.
    enum class Op { clean, enableIs, suppressResyncIs, scheduledIs, outputBlocked };
    AgentObject object;
    Op op = Op::clean;
    bool value = false;
    std::string input;  // outputBlocked only
};
struct CreateTable {
    static constexpr StepInfo step{"create_table"};
    std::string path;
    std::string type;
    std::string owner;
    unsigned oid = 0;
};
struct DropTable {
    static constexpr StepInfo step{"drop_table"};
    std::string path;
};
struct Write {
    static constexpr StepInfo step{"write"};
    std::string path;
    std::vector<RowSpec> rows;
};
struct Delete {
    static constexpr StepInfo step{"delete"};
    std::string path;
    RowSpec key;
};
struct Run {  // a step type without members takes no fields
    static constexpr StepInfo step{"run"};
};
struct Clock {
    static constexpr StepInfo step{"clock"};
    std::uint64_t advance = 0;
};
struct CompleteQuery {
    static constexpr StepInfo step{"complete_query"};
    std::string text;
    bool ok = true;
    std::string error;
};
struct ClearTraces {
    static constexpr StepInfo step{"clear_traces"};
};
struct Dump {
    static constexpr StepInfo step{"dump"};
    std::string path;
};
struct ExpectRows {
    static constexpr StepInfo step{"expect_rows", true};
    std::string path;
    std::vector<RowSpec> rows;
};
struct ExpectRow {
    static constexpr StepInfo step{"expect_row", true};
    std::string path;
    RowSpec key;
    std::optional<RowSpec> row;  // empty: the row must be absent
};
// One expected host call: its kind and the arguments it names.
struct ExpectedCall {
    Velta::Host::HostCall::Kind kind = Velta::Host::HostCall::Kind::registerTable;
    std::optional<std::string> path, typeName, owner, text, name;
    std::optional<unsigned> tableType, desiredFlags, flags, typeId;
    std::optional<std::map<std::string, std::string>> params;
    std::optional<bool> standing;
    Mark mark;
};
struct ExpectCalls {
    static constexpr StepInfo step{"expect_calls", true};
    std::vector<ExpectedCall> calls;
};
// The traces an expect_trace or expect_no_trace step looks for.
struct TracePattern {
    std::string channel;
    unsigned level = 0;
    std::optional<std::string> text;      // the whole message
    std::optional<std::string> contains;  // a part of it
    std::optional<unsigned> line;
    std::optional<std::string> function;
};
struct ExpectTrace {
    static constexpr StepInfo step{"expect_trace", true};
    TracePattern pattern;
};
struct ExpectNoTrace {
    static constexpr StepInfo step{"expect_no_trace", true};
    TracePattern pattern;
};
struct ExpectRegistry {
    static constexpr StepInfo step{"expect_registry", true};
    std::string agent;
    std::uint32_t systemDescription = 0;
    std::string outputPath;
    bool absent = false;
    std::optional<bool> writer, reader;
    std::optional<std::uint32_t> externalOid, tableOid, typeId, sid;
};
struct ExpectExternalId {
    static constexpr StepInfo step{"expect_external_id", true};
    std::string agent;
    std::uint32_t sid = 0;
    std::uint32_t oid = 0;
};

using Action = std::variant<Start, Stop, Call, CreateTable, DropTable, Write, Delete, Run, Clock,
                            CompleteQuery, ClearTraces, Dump, ExpectRows, ExpectRow, ExpectCalls, ExpectTrace,
                            ExpectNoTrace, ExpectRegistry, ExpectExternalId>;

struct Step {
    std::size_t number = 0;  // 1-based position in `steps`
    std::string keyword;     // the step's key as written, e.g. "expect_rows"
    Mark mark;
    Action action;

    // True for the expect_* steps, which deliver queued callbacks before checking.
    bool isExpectation() const noexcept {
        return std::visit([](const auto& a) { return std::decay_t<decltype(a)>::step.expectation; }, action);
    }
};

struct Scenario {
    std::string file;
    std::string name;
    bool serverProcess = false;
    bool autoPublish = false;
    bool manualQueries = false;
    std::vector<std::pair<std::string, std::uint32_t>> traceMasks;
    std::vector<RowTypeDef> rowTypes;
    std::vector<AgentDecl> agents;
    std::vector<Step> steps;
    std::optional<std::string> expectAbort;
    bool orderIndependent = false;

    // The declared agent called `name`, or null when no agent has that name.
    const AgentDecl* agent(const std::string& name) const;
};

// What parsing produced: a scenario, or one message "file:line:column: what was expected".
struct ParseResult {
    std::optional<Scenario> scenario;
    std::string error;
};

// Parses and validates `text` as the scenario file `file`. Never throws and registers nothing.
ParseResult parseScenario(const std::string& file, const std::string& text);
// Reads `file` and parses it; an unreadable file gives "file: cannot read: reason".
ParseResult loadScenario(const std::string& file);

}  // namespace VeltaSim
