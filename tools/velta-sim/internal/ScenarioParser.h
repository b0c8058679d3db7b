// The parser behind parseScenario (internal to velta-sim; not API).
//
// It walks the YAML tree once, in file order, and keeps a small static picture of what the run will
// have: the agents and their running translators and aggregators, and which table paths exist with
// which row type. Every problem becomes one ScenarioError carrying the mark of the node at fault;
// the first one ends parsing, so the user sees exactly one message.
//
// Scenario.cpp reads the file's sections, the rows and the references to agents, row types and
// tables, and finds each step's type by its keyword; Steps.cpp reads each step type's fields.
#pragma once

#include "Scenario.h"
#include "internal/Yaml.h"

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace VeltaSim {

class ScenarioParser {
public:
    explicit ScenarioParser(const std::string& file) { scenario_.file = file; }

    // The scenario of the document `root`; throws ScenarioError.
    Scenario parse(const YAML::Node& root);

private:
    struct AgentState {
        bool translator = false;
        Mark translatorStarted;
        std::map<std::string, Mark> aggregators;  // id -> where it was started
    };

    // A table path as far as the steps so far make it known: the row type the host has it with, and
    // where the file made or implied it (for messages). A dropped table keeps its entry, as a write
    // makes it again with that type (and is known again), but create_table may make it again with any
    // type.
    struct KnownTable {
        const Velta::RowType* type = nullptr;
        std::string origin;  // e.g. "created at line 6"
        bool dropped = false;
    };

    Scenario scenario_;
    std::map<std::string, KnownTable> tables_;  // by path
    std::map<std::string, AgentState> agentStates_;

    // The file's sections.
    void parseHost(const YAML::Node& node);
    void parseTrace(const YAML::Node& node);
    void parseRowTypes(const YAML::Node& node);
    void seedTables();
    void parseAgents(const YAML::Node& node);
    void parseSteps(const YAML::Node& node);

    // References, each checked against what the file declared or the steps so far created.
    std::vector<std::string> agentNames() const;
    std::string agentRef(const MapView& map);
    // A built-in record type or one of the file's own row types, or nullptr.
    const Velta::RowType* findType(const std::string& typeName) const;
    const Velta::RowType& rowTypeRef(const YAML::Node& node, const std::string& what);
    // A table path that the run will have by the time this step runs.
    std::pair<std::string, const Velta::RowType*> tableRef(const YAML::Node& node, const std::string& what);

    // Rows.
    FieldValue fieldValue(const Velta::RowType& type, std::size_t index, const YAML::Node& node);
    // A row of a step. An expected row (`expected`) may also name `from`, the input expected to
    // supply it, unless its type has a field of that name.
    RowSpec rowSpec(const YAML::Node& node, const Velta::RowType& type, const std::string& context,
                    bool expected = false);
    // The `key` of a delete or expect_row: the row is found by its key fields only, so any other
    // field would be ignored.
    RowSpec keySpec(const YAML::Node& node, const Velta::RowType& type);
    std::vector<RowSpec> rowList(const YAML::Node& node, const Velta::RowType& type,
                                 const std::string& context, bool expected = false);
    // A subscription row names its output table: the translator registers it with that type. A
    // metadata row's table path is refused with a control character, as every table path is.
    void learnOutputTables(const std::vector<RowSpec>& rows);
    // A table the run will have from here on, unless it has it already (known and not dropped): the
    // host keeps an existing table as it is. Refuses, at `where`, a path with a control character
    // (every report line that names the table would break).
    void impliedTable(const std::string& path, const Velta::RowType& type, std::string origin,
                      const Mark& where);

    // The step `keyword` with its fields `body` (`item` is the whole list item), read by the read()
    // overload of the Action type whose keyword it is.
    Action parseAction(const std::string& keyword, const YAML::Node& item, const YAML::Node& body);
    template <std::size_t... I>
    Action parseAction(const std::string& keyword, const YAML::Node& item, const YAML::Node& body,
                       std::index_sequence<I...>);
    template <class T>
    T parseAs(const YAML::Node& item, const YAML::Node& body);

    // One overload per step type with fields (a type without members takes none): reads `body`
    // into `step`, `context` being the quoted keyword, and follows what the step does to the
    // static picture.
    void read(Start& step, const YAML::Node& body, const std::string& context);
    void read(Stop& step, const YAML::Node& body, const std::string& context);
    void read(Call& step, const YAML::Node& body, const std::string& context);
    void read(CreateTable& step, const YAML::Node& body, const std::string& context);
    void read(DropTable& step, const YAML::Node& body, const std::string& context);
    void read(Write& step, const YAML::Node& body, const std::string& context);
    void read(Delete& step, const YAML::Node& body, const std::string& context);
    void read(Clock& step, const YAML::Node& body, const std::string& context);
    void read(CompleteQuery& step, const YAML::Node& body, const std::string& context);
    void read(Dump& step, const YAML::Node& body, const std::string& context);
    void read(ExpectRows& step, const YAML::Node& body, const std::string& context);
    void read(ExpectRow& step, const YAML::Node& body, const std::string& context);
    void read(ExpectCalls& step, const YAML::Node& body, const std::string& context);
    void read(ExpectTrace& step, const YAML::Node& body, const std::string& context);
    void read(ExpectNoTrace& step, const YAML::Node& body, const std::string& context);
    void read(ExpectRegistry& step, const YAML::Node& body, const std::string& context);
    void read(ExpectExternalId& step, const YAML::Node& body, const std::string& context);

    // What the step readers share.
    void requireTranslator(const std::string& agent, const YAML::Node& node);
    void requireAggregator(const std::string& agent, const std::string& id, const YAML::Node& node);
    static std::string markText(const Mark& mark);
    // A stop or call step names its agent object by `translator: true` or `aggregator: ID`: exactly
    // one of them must be there (checked first), and its value is read where the step needs it.
    void requireObjectKind(const MapView& m, const std::string& context);
    std::string aggregatorId(const MapView& m);
    TracePattern tracePattern(const YAML::Node& body, const std::string& context);
};

}  // namespace VeltaSim
