// Reading each step type's fields: one read() overload per type, beside the checks the steps share.
#include "Text.h"
#include "internal/ScenarioParser.h"

#include <optional>
#include <string>
#include <vector>

namespace VeltaSim {

void ScenarioParser::requireTranslator(const std::string& agent, const YAML::Node& node) {
    if (!agentStates_[agent].translator)
        fail(node, "no translator is running on agent " + quoted(agent) + " at this step (start it first)");
}

void ScenarioParser::requireAggregator(const std::string& agent, const std::string& id,
                                       const YAML::Node& node) {
    if (agentStates_[agent].aggregators.count(id) == 0)
        fail(node, "no aggregator " + quoted(id) + " is running on agent " + quoted(agent) + " at this step");
}

std::string ScenarioParser::markText(const Mark& mark) { return "line " + std::to_string(mark.line); }

void ScenarioParser::read(Start& step, const YAML::Node& body, const std::string& context) {
    if (body.IsMap() && body["translator"]) {
        const MapView m(body, context, {"agent", "translator"});
        step.object.agent = agentRef(m);
        if (!boolean(m.need("translator"), "'translator'"))
            fail(m.need("translator"), "'translator' can only be true");
        AgentState& state = agentStates_[step.object.agent];
        if (state.translator)
            fail(body, "a translator is already running on agent " + quoted(step.object.agent) +
                           " (started at " + markText(state.translatorStarted) + ")");
        state.translator = true;
        state.translatorStarted = markOf(body);
        return;
    }
    const MapView m(body, context,
                    {"agent", "aggregator", "input_prefix", "input_suffix", "output", "row_type",
                     "delete_without_replacement", "enabled", "bind_flag"});
    step.object.agent = agentRef(m);
    if (m.get("aggregator") == nullptr) fail(body, "'start' needs 'translator: true' or 'aggregator: ID'");
    step.object.aggregator = nonEmptyText(m.need("aggregator"), "'aggregator'");
    step.inputPrefix = text(m.need("input_prefix"), "'input_prefix'");
    if (const YAML::Node* n = m.get("input_suffix")) step.inputSuffix = text(*n, "'input_suffix'");
    step.output = nonEmptyText(m.need("output"), "'output'");
    const Velta::RowType& type = rowTypeRef(m.need("row_type"), "'row_type'");
    step.rowType = type.name();
    if (const YAML::Node* n = m.get("delete_without_replacement"))
        step.deleteWithoutReplacement = boolean(*n, "'delete_without_replacement'");
    if (const YAML::Node* n = m.get("enabled")) step.enabled = boolean(*n, "'enabled'");
    if (const YAML::Node* n = m.get("bind_flag")) step.bindFlag = boolean(*n, "'bind_flag'");
    const std::string& id = step.object.aggregator;
    AgentState& state = agentStates_[step.object.agent];
    if (const auto it = state.aggregators.find(id); it != state.aggregators.end())
        fail(m.need("aggregator"), "aggregator " + quoted(id) + " is already running on agent " +
                                       quoted(step.object.agent) + " (started at " + markText(it->second) +
                                       ")");
    state.aggregators[id] = markOf(body);
    impliedTable(step.output, type,
                 "the output of aggregator " + quoted(id) + " started at " + markText(markOf(body)),
                 markOf(m.need("output")));
}

void ScenarioParser::requireObjectKind(const MapView& m, const std::string& context) {
    if ((m.get("translator") == nullptr) == (m.get("aggregator") == nullptr))
        fail(m.node(), context + " needs either 'translator: true' or 'aggregator: ID'");
}

std::string ScenarioParser::aggregatorId(const MapView& m) {
    if (const YAML::Node* aggregator = m.get("aggregator")) return nonEmptyText(*aggregator, "'aggregator'");
    const YAML::Node& translator = m.need("translator");
    if (!boolean(translator, "'translator'")) fail(translator, "'translator' can only be true");
    return std::string();
}

void ScenarioParser::read(Stop& step, const YAML::Node& body, const std::string& context) {
    const MapView m(body, context, {"agent", "translator", "aggregator"});
    step.object.agent = agentRef(m);
    requireObjectKind(m, context);
    step.object.aggregator = aggregatorId(m);
    if (step.object.aggregator.empty()) {
        requireTranslator(step.object.agent, body);
        agentStates_[step.object.agent].translator = false;
        return;
    }
    requireAggregator(step.object.agent, step.object.aggregator, m.need("aggregator"));
    agentStates_[step.object.agent].aggregators.erase(step.object.aggregator);
}

void ScenarioParser::read(Call& step, const YAML::Node& body, const std::string& context) {
    const MapView m(body, context, {"agent", "translator", "aggregator", "op", "value", "input"});
    step.object.agent = agentRef(m);
    requireObjectKind(m, context);
    const YAML::Node& opNode = m.need("op");
    const std::string op = nonEmptyText(opNode, "'op'");
    step.object.aggregator = aggregatorId(m);
    if (step.object.aggregator.empty()) {
        if (op != "clean") fail(opNode, "unknown translator op " + quoted(op) + "; expected: clean");
        if (m.get("value") != nullptr) fail(m.entry("value")->keyNode, "'clean' takes no 'value'");
        if (m.get("input") != nullptr) fail(m.entry("input")->keyNode, "'clean' takes no 'input'");
        requireTranslator(step.object.agent, body);
        step.op = Call::Op::clean;
        return;
    }
    requireAggregator(step.object.agent, step.object.aggregator, m.need("aggregator"));
    const std::vector<std::string> ops = {"enableIs", "suppressResyncIs", "scheduledIs", "outputBlocked"};
    if (op == "enableIs")
        step.op = Call::Op::enableIs;
    else if (op == "suppressResyncIs")
        step.op = Call::Op::suppressResyncIs;
    else if (op == "scheduledIs")
        step.op = Call::Op::scheduledIs;
    else if (op == "outputBlocked")
        step.op = Call::Op::outputBlocked;
    else
        fail(opNode, "unknown aggregator op " + quoted(op) + suggestion(op, ops) +
                         "; expected one of: " + joined(ops));
    step.value = boolean(m.need("value"), "'value'");
    if (step.op == Call::Op::outputBlocked)
        step.input = tableRef(m.need("input"), "'input'").first;
    else if (m.get("input") != nullptr)
        fail(m.entry("input")->keyNode, quoted(op) + " takes no 'input'");
}

void ScenarioParser::read(CreateTable& step, const YAML::Node& body, const std::string& context) {
    const MapView m(body, context, {"path", "type", "owner", "oid"});
    step.path = nonEmptyText(m.need("path"), "'path'");
    const Velta::RowType& type = rowTypeRef(m.need("type"), "'type'");
    step.type = type.name();
    if (const YAML::Node* n = m.get("owner")) step.owner = text(*n, "'owner'");
    if (const YAML::Node* n = m.get("oid")) step.oid = static_cast<unsigned>(number(*n, "'oid'", 0xffffffff));
    // The host leaves a table that exists as it is: rows written later have its type, not this one.
    const auto it = tables_.find(step.path);
    if (it != tables_.end() && !it->second.dropped && it->second.type != &type)
        fail(m.need("type"), "table " + quoted(step.path) + " already exists with row type " +
                                 it->second.type->name() + " (" + it->second.origin +
                                 "), and create_table leaves an existing table as it is: name " +
                                 it->second.type->name() + ", or drop_table it first");
    impliedTable(step.path, type, "created at " + markText(markOf(body)), markOf(m.need("path")));
}

void ScenarioParser::read(DropTable& step, const YAML::Node& body, const std::string& context) {
    const MapView m(body, context, {"path"});
    step.path = tableRef(m.need("path"), "'path'").first;
    tables_[step.path].dropped = true;
}

void ScenarioParser::read(Write& step, const YAML::Node& body, const std::string& context) {
    const MapView m(body, context, {"table", "row", "rows"});
    const auto [path, type] = tableRef(m.need("table"), "'table'");
    step.path = path;
    tables_[path].dropped = false;  // the write makes a dropped table again, with its type
    const YAML::Node* row = m.get("row");
    const YAML::Node* rows = m.get("rows");
    if ((row == nullptr) == (rows == nullptr)) fail(body, context + " needs either 'row' or 'rows'");
    if (row != nullptr)
        step.rows.push_back(rowSpec(*row, *type, "'row'"));
    else
        step.rows = rowList(*rows, *type, "'rows'");
    learnOutputTables(step.rows);
}

void ScenarioParser::read(Delete& step, const YAML::Node& body, const std::string& context) {
    const MapView m(body, context, {"table", "key"});
    const auto [path, type] = tableRef(m.need("table"), "'table'");
    step.path = path;
    step.key = keySpec(m.need("key"), *type);
}

void ScenarioParser::read(Clock& step, const YAML::Node& body, const std::string& context) {
    const MapView m(body, context, {"advance"});
    step.advance = number(m.need("advance"), "'advance'");
}

void ScenarioParser::read(CompleteQuery& step, const YAML::Node& body, const std::string& context) {
    const MapView m(body, context, {"text", "ok", "error"});
    if (!scenario_.manualQueries)
        fail(body,
             "'complete_query' needs 'queries: manual' under 'host' (otherwise queries complete by "
             "themselves and none is left to complete)");
    step.text = nonEmptyText(m.need("text"), "'text'");
    if (const YAML::Node* n = m.get("ok")) step.ok = boolean(*n, "'ok'");
    if (const YAML::Node* n = m.get("error")) step.error = text(*n, "'error'");
}

void ScenarioParser::read(Dump& step, const YAML::Node& body, const std::string& context) {
    const MapView m(body, context, {"table"});
    step.path = tableRef(m.need("table"), "'table'").first;
}

void ScenarioParser::read(ExpectRows& step, const YAML::Node& body, const std::string& context) {
    const MapView m(body, context, {"table", "rows"});
    const auto [path, type] = tableRef(m.need("table"), "'table'");
    step.path = path;
    step.rows = rowList(m.need("rows"), *type, "'rows'", true);
}

void ScenarioParser::read(ExpectRow& step, const YAML::Node& body, const std::string& context) {
    const MapView m(body, context, {"table", "key", "row", "absent"});
    const auto [path, type] = tableRef(m.need("table"), "'table'");
    step.path = path;
    step.key = keySpec(m.need("key"), *type);
    const YAML::Node* row = m.get("row");
    const YAML::Node* absent = m.get("absent");
    if ((row == nullptr) == (absent == nullptr))
        fail(body, context + " needs either 'row' or 'absent: true'");
    if (row != nullptr)
        step.row = rowSpec(*row, *type, "'row'", true);
    else if (!boolean(*absent, "'absent'"))
        fail(*absent, "'absent' can only be true; give 'row' to expect a row");
}

void ScenarioParser::read(ExpectCalls& step, const YAML::Node& body, const std::string&) {
    if (!body.IsSequence())
        fail(body, std::string("expected a list of calls for 'expect_calls' (each {registerTable: {...}}, "
                               "{defineQuery: {...}} or {removeQuery: {...}}; [] for none), found ") +
                       nodeKind(body));
    for (const YAML::Node& item : body) {
        const MapView outer(item, "an expected call", {"registerTable", "defineQuery", "removeQuery"});
        if (outer.entries().size() != 1)
            fail(item, "expected exactly one of registerTable, defineQuery, removeQuery in an expected call");
        const MapView::Entry& entry = outer.entries().front();
        ExpectedCall call;
        call.mark = markOf(entry.keyNode);
        const YAML::Node empty(YAML::NodeType::Map);
        const YAML::Node& args = entry.value.IsNull() ? empty : entry.value;
        const std::string context = quoted(entry.key);
        if (entry.key == "registerTable") {
            call.kind = Velta::Host::HostCall::Kind::registerTable;
            const MapView m(args, context,
                            {"path", "typeName", "tableType", "desiredFlags", "flags", "owner"});
            if (const YAML::Node* n = m.get("path")) call.path = text(*n, "'path'");
            if (const YAML::Node* n = m.get("typeName")) call.typeName = text(*n, "'typeName'");
            if (const YAML::Node* n = m.get("tableType"))
                call.tableType = static_cast<unsigned>(number(*n, "'tableType'", 1));
            if (const YAML::Node* n = m.get("desiredFlags"))
                call.desiredFlags = static_cast<unsigned>(number(*n, "'desiredFlags'", 0xffff));
            if (const YAML::Node* n = m.get("flags"))
                call.flags = static_cast<unsigned>(number(*n, "'flags'", 0xffff));
            if (const YAML::Node* n = m.get("owner")) call.owner = text(*n, "'owner'");
        } else if (entry.key == "defineQuery") {
            call.kind = Velta::Host::HostCall::Kind::defineQuery;
            const MapView m(args, context, {"text", "typeId", "params", "standing", "name"});
            if (const YAML::Node* n = m.get("text")) call.text = text(*n, "'text'");
            if (const YAML::Node* n = m.get("typeId"))
                call.typeId = static_cast<unsigned>(number(*n, "'typeId'", 0xffffffff));
            if (const YAML::Node* n = m.get("params")) {
                if (!n->IsMap())
                    fail(*n,
                         std::string("expected a map of name: value for 'params', found ") + nodeKind(*n));
                std::map<std::string, std::string> params;
                for (auto it = n->begin(); it != n->end(); ++it) {
                    const std::string name = text(it->first, "a parameter name");
                    if (!params.emplace(name, text(it->second, "parameter " + quoted(name))).second)
                        fail(it->first, "duplicate parameter " + quoted(name));
                }
                call.params = std::move(params);
            }
            if (const YAML::Node* n = m.get("standing")) call.standing = boolean(*n, "'standing'");
            if (const YAML::Node* n = m.get("name")) call.name = text(*n, "'name'");
        } else {
            call.kind = Velta::Host::HostCall::Kind::removeQuery;
            const MapView m(args, context, {"name"});
            if (const YAML::Node* n = m.get("name")) call.name = text(*n, "'name'");
        }
        step.calls.push_back(std::move(call));
    }
}

TracePattern ScenarioParser::tracePattern(const YAML::Node& body, const std::string& context) {
    const MapView m(body, context, {"channel", "level", "text", "contains", "line", "function"});
    TracePattern pattern;
    pattern.channel = nonEmptyText(m.need("channel"), "'channel'");
    const YAML::Node& levelNode = m.need("level");
    pattern.level = static_cast<unsigned>(number(levelNode, "'level'", 31));
    const YAML::Node* textNode = m.get("text");
    const YAML::Node* containsNode = m.get("contains");
    if ((textNode == nullptr) == (containsNode == nullptr))
        fail(body, context + " needs either 'text' or 'contains'");
    if (textNode != nullptr)
        pattern.text = text(*textNode, "'text'");
    else
        pattern.contains = nonEmptyText(*containsNode, "'contains'");
    if (const YAML::Node* n = m.get("line"))
        pattern.line = static_cast<unsigned>(number(*n, "'line'", 0xffffffff));
    if (const YAML::Node* n = m.get("function")) pattern.function = nonEmptyText(*n, "'function'");
    // A trace of a level the file leaves off is never captured: the check could not fail
    // (expect_no_trace) or could not pass (expect_trace).
    std::uint32_t mask = 0;
    for (const auto& [channel, value] : scenario_.traceMasks)
        if (channel == pattern.channel) mask = value;
    if (((mask >> pattern.level) & 1u) == 0)
        fail(levelNode, "level " + std::to_string(pattern.level) + " of channel " + quoted(pattern.channel) +
                            " is not enabled under 'trace', so no such trace can be captured");
    return pattern;
}

void ScenarioParser::read(ExpectTrace& step, const YAML::Node& body, const std::string& context) {
    step.pattern = tracePattern(body, context);
}

void ScenarioParser::read(ExpectNoTrace& step, const YAML::Node& body, const std::string& context) {
    step.pattern = tracePattern(body, context);
}

void ScenarioParser::read(ExpectRegistry& step, const YAML::Node& body, const std::string& context) {
    const MapView m(body, context, {"agent", "key", "entry", "absent"});
    step.agent = agentRef(m);
    const MapView key(m.need("key"), "the registry 'key'", {"system_description", "outputPath"});
    step.systemDescription = static_cast<std::uint32_t>(
        number(key.need("system_description"), "'system_description'", 0xffffffff));
    step.outputPath = text(key.need("outputPath"), "'outputPath'");
    const YAML::Node* entry = m.get("entry");
    const YAML::Node* absent = m.get("absent");
    if ((entry == nullptr) == (absent == nullptr))
        fail(body, context + " needs either 'entry' or 'absent: true'");
    if (absent != nullptr) {
        if (!boolean(*absent, "'absent'"))
            fail(*absent, "'absent' can only be true; give 'entry' to expect one");
        step.absent = true;
    } else {
        const MapView e(*entry, "the registry 'entry'",
                        {"writer", "reader", "externalOid", "tableOid", "typeId", "sid"});
        if (const YAML::Node* n = e.get("writer")) step.writer = boolean(*n, "'writer'");
        if (const YAML::Node* n = e.get("reader")) step.reader = boolean(*n, "'reader'");
        auto u32 = [&](const char* name) -> std::optional<std::uint32_t> {
            if (const YAML::Node* n = e.get(name))
                return static_cast<std::uint32_t>(number(*n, quoted(name), 0xffffffff));
            return std::nullopt;
        };
        step.externalOid = u32("externalOid");
        step.tableOid = u32("tableOid");
        step.typeId = u32("typeId");
        step.sid = u32("sid");
    }
    requireTranslator(step.agent, m.node());
}

void ScenarioParser::read(ExpectExternalId& step, const YAML::Node& body, const std::string& context) {
    const MapView m(body, context, {"agent", "sid", "oid"});
    step.agent = agentRef(m);
    step.sid = static_cast<std::uint32_t>(number(m.need("sid"), "'sid'", 0xffffffff));
    step.oid = static_cast<std::uint32_t>(number(m.need("oid"), "'oid'", 0xffffffff));
    requireTranslator(step.agent, m.node());
}

}  // namespace VeltaSim
