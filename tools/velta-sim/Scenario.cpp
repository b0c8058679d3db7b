// Parsing and validation of scenario files: the file's sections, rows and references, and the step
// registry (see internal/ScenarioParser.h and, for the step types, Scenario.h).
#include "Scenario.h"

#include "Text.h"
#include "internal/ScenarioParser.h"

#include <Velta/Records.h>

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>

namespace VeltaSim {

const AgentDecl* Scenario::agent(const std::string& agentName) const {
    for (const AgentDecl& a : agents)
        if (a.name == agentName) return &a;
    return nullptr;
}

namespace {

// The step registry is Action itself: each keyword belongs to one type.
template <std::size_t... I>
constexpr bool keywordsDiffer(std::index_sequence<I...>) {
    const std::array<std::string_view, sizeof...(I)> keywords{
        std::variant_alternative_t<I, Action>::step.keyword...};
    for (std::size_t i = 0; i < keywords.size(); ++i)
        for (std::size_t j = i + 1; j < keywords.size(); ++j)
            if (keywords[i] == keywords[j]) return false;
    return true;
}
static_assert(keywordsDiffer(std::make_index_sequence<std::variant_size_v<Action>>{}),
              "two step types share a keyword");

// Every step keyword, in the order of Action.
const std::vector<std::string>& stepKeywords() {
    static const std::vector<std::string> keywords = []<std::size_t... I>(std::index_sequence<I...>) {
        return std::vector<std::string>{std::string(std::variant_alternative_t<I, Action>::step.keyword)...};
    }
    (std::make_index_sequence<std::variant_size_v<Action>>{});
    return keywords;
}

std::uint64_t kindMax(Velta::FieldKind kind) {
    switch (kind) {
        case Velta::FieldKind::u16:
            return 0xffff;
        case Velta::FieldKind::u32:
            return 0xffffffff;
        default:
            return std::numeric_limits<std::uint64_t>::max();
    }
}

const Velta::RowType* builtinType(const std::string& name) {
    for (const auto& builtin : Velta::detail::kBuiltinTypes)
        if (name == builtin.name) return &Velta::builtinRowType(builtin.which);
    return nullptr;
}

std::vector<std::string> fieldNames(const Velta::RowType& type) {
    std::vector<std::string> out;
    for (const auto& f : type.fields()) out.push_back(f.name);
    return out;
}

}  // namespace

Scenario ScenarioParser::parse(const YAML::Node& root) {
    if (root.IsNull())
        fail(Mark{1, 1}, "expected a scenario (a map with at least 'steps'), the file is empty");
    const MapView top(
        root, "the scenario",
        {"name", "host", "trace", "row_types", "agents", "steps", "expect_abort", "order_independent"});
    if (const YAML::Node* n = top.get("name")) scenario_.name = text(*n, "'name'");
    if (const YAML::Node* n = top.get("host")) parseHost(*n);
    if (const YAML::Node* n = top.get("trace")) parseTrace(*n);
    if (const YAML::Node* n = top.get("row_types")) parseRowTypes(*n);
    seedTables();
    if (const YAML::Node* n = top.get("agents")) parseAgents(*n);
    if (const YAML::Node* n = top.get("expect_abort"))
        scenario_.expectAbort = nonEmptyText(*n, "'expect_abort'");
    if (const YAML::Node* n = top.get("order_independent"))
        scenario_.orderIndependent = boolean(*n, "'order_independent'");
    parseSteps(top.need("steps"));
    return std::move(scenario_);
}

void ScenarioParser::parseHost(const YAML::Node& node) {
    const MapView host(node, "'host'", {"server_process", "auto_publish", "queries"});
    if (const YAML::Node* n = host.get("server_process"))
        scenario_.serverProcess = boolean(*n, "'server_process'");
    if (const YAML::Node* n = host.get("auto_publish")) scenario_.autoPublish = boolean(*n, "'auto_publish'");
    if (const YAML::Node* n = host.get("queries")) {
        const std::string mode = text(*n, "'queries'");
        if (mode == "manual")
            scenario_.manualQueries = true;
        else if (mode != "auto")
            fail(*n, "expected auto or manual for 'queries', found " + quoted(mode));
    }
}

void ScenarioParser::parseTrace(const YAML::Node& node) {
    if (!node.IsMap())
        fail(node, std::string("expected a map of channel: mask for 'trace', found ") + nodeKind(node));
    // The channels the agents and the host trace on: a mask for any other name captures nothing, so
    // an expect_no_trace on it could never fail.
    const std::vector<std::string> channels = {"SubscriptionTranslator", "Aggregator", "Schedulable"};
    std::set<std::string> seen;
    for (auto it = node.begin(); it != node.end(); ++it) {
        const std::string channel = nonEmptyText(it->first, "a trace channel");
        if (std::find(channels.begin(), channels.end(), channel) == channels.end())
            fail(it->first, "unknown trace channel " + quoted(channel) + suggestion(channel, channels) +
                                "; channels are: " + joined(channels));
        if (!seen.insert(channel).second) fail(it->first, "duplicate key " + quoted(channel) + " in 'trace'");
        scenario_.traceMasks.emplace_back(
            channel,
            static_cast<std::uint32_t>(number(it->second, "the mask of " + quoted(channel), 0xffffffff)));
    }
}

void ScenarioParser::parseRowTypes(const YAML::Node& node) {
    if (!node.IsSequence())
        fail(node, std::string("expected a list of row types for 'row_types', found ") + nodeKind(node));
    for (const YAML::Node& item : node) {
        const MapView def(item, "a row type", {"name", "key", "fields"});
        RowTypeDef rowType;
        rowType.mark = markOf(item);
        rowType.name = nonEmptyText(def.need("name"), "the row type's 'name'");
        const YAML::Node& fields = def.need("fields");
        if (!fields.IsMap() || fields.size() == 0)
            fail(fields, "expected a map of field: kind (u16 u32 u64 bool string strings) for 'fields'");
        if (fields.size() > Velta::Host::kMaxRowTypeFields)
            fail(fields, "a row type holds at most " + std::to_string(Velta::Host::kMaxRowTypeFields) +
                             " fields, found " + std::to_string(fields.size()));
        std::set<std::string> names;
        for (auto it = fields.begin(); it != fields.end(); ++it) {
            const std::string fieldName = nonEmptyText(it->first, "a field name");
            if (!names.insert(fieldName).second) fail(it->first, "duplicate field " + quoted(fieldName));
            const std::string kindText = text(it->second, "the kind of " + quoted(fieldName));
            const std::optional<Velta::FieldKind> kind = Velta::Host::parseFieldKind(kindText);
            if (!kind)
                fail(it->second, "expected a field kind (u16 u32 u64 bool string strings) for " +
                                     quoted(fieldName) + ", found " + quoted(kindText));
            rowType.fields.push_back({fieldName, *kind});
        }
        const YAML::Node& key = def.need("key");
        rowType.key = textList(key, "'key'");
        if (rowType.key.empty()) fail(key, "expected at least one key field in 'key'");
        std::set<std::string> keys;
        for (std::size_t i = 0; i < rowType.key.size(); ++i) {
            if (names.count(rowType.key[i]) == 0)
                fail(key[i], "key field " + quoted(rowType.key[i]) + " is not one of the fields: " +
                                 joined(std::vector<std::string>(names.begin(), names.end())));
            if (!keys.insert(rowType.key[i]).second)
                fail(key[i], "key field " + quoted(rowType.key[i]) + " is named twice");
        }
        if (builtinType(rowType.name) != nullptr)
            fail(def.need("name"),
                 "row type " + quoted(rowType.name) + " is a built-in record; choose another name");
        for (const RowTypeDef& other : scenario_.rowTypes)
            if (other.name == rowType.name)
                fail(def.need("name"), "duplicate row type " + quoted(rowType.name));
        std::vector<Velta::RowType::Field> fieldList;
        for (const auto& f : rowType.fields) fieldList.push_back({f.name, f.kind, 0});
        std::vector<std::uint16_t> keyIndexes;
        for (const std::string& k : rowType.key) {
            for (std::size_t i = 0; i < fieldList.size(); ++i)
                if (fieldList[i].name == k) keyIndexes.push_back(static_cast<std::uint16_t>(i));
        }
        rowType.local = std::make_shared<const Velta::RowType>(rowType.name, 0, std::move(fieldList),
                                                               std::move(keyIndexes));
        scenario_.rowTypes.push_back(std::move(rowType));
    }
}

void ScenarioParser::seedTables() {
    for (const auto& builtin : Velta::detail::kBuiltinTypes)
        if (builtin.tablePath != nullptr)
            impliedTable(builtin.tablePath, Velta::builtinRowType(builtin.which),
                         "every database starts with it", Mark{});
}

void ScenarioParser::parseAgents(const YAML::Node& node) {
    if (!node.IsSequence())
        fail(node, std::string("expected a list of agents for 'agents', found ") + nodeKind(node));
    for (const YAML::Node& item : node) {
        const MapView def(item, "an agent", {"name", "system", "server_agent", "external", "standalone"});
        AgentDecl agent;
        agent.mark = markOf(item);
        agent.name = nonEmptyText(def.need("name"), "the agent's 'name'");
        if (scenario_.agent(agent.name) != nullptr)
            fail(def.need("name"), "duplicate agent " + quoted(agent.name));
        agent.system = text(def.need("system"), "the agent's 'system'");
        if (const YAML::Node* n = def.get("server_agent")) agent.serverAgent = boolean(*n, "'server_agent'");
        if (const YAML::Node* n = def.get("external")) agent.external = boolean(*n, "'external'");
        if (const YAML::Node* n = def.get("standalone")) agent.standalone = boolean(*n, "'standalone'");
        if (!agent.standalone) {
            // The per-agent tables a non-standalone translator works on exist once it runs.
            const std::string origin = "a per-agent table of agent " + quoted(agent.name);
            impliedTable("velta/External/input/" + agent.name + "/Subscription",
                         Velta::External::Subscription::type(), origin, markOf(def.need("name")));
            impliedTable("velta/veCtrl/input/" + agent.name + "/subscription",
                         Velta::veCtrl::subscription::type(), origin, markOf(def.need("name")));
        }
        agentStates_[agent.name];
        scenario_.agents.push_back(std::move(agent));
    }
}

std::vector<std::string> ScenarioParser::agentNames() const {
    std::vector<std::string> out;
    for (const AgentDecl& a : scenario_.agents) out.push_back(a.name);
    return out;
}

std::string ScenarioParser::agentRef(const MapView& map) {
    const YAML::Node& node = map.need("agent");
    const std::string agentName = nonEmptyText(node, "'agent'");
    if (scenario_.agent(agentName) == nullptr) {
        if (scenario_.agents.empty())
            fail(node, "unknown agent " + quoted(agentName) + ": the file declares no 'agents'");
        fail(node, "unknown agent " + quoted(agentName) + suggestion(agentName, agentNames()) +
                       "; agents are: " + joined(agentNames()));
    }
    return agentName;
}

const Velta::RowType* ScenarioParser::findType(const std::string& typeName) const {
    for (const RowTypeDef& def : scenario_.rowTypes)
        if (def.name == typeName) return def.local.get();
    return builtinType(typeName);
}

const Velta::RowType& ScenarioParser::rowTypeRef(const YAML::Node& node, const std::string& what) {
    const std::string typeName = nonEmptyText(node, what);
    const Velta::RowType* type = findType(typeName);
    if (type == nullptr) {
        std::vector<std::string> known;
        for (const auto& builtin : Velta::detail::kBuiltinTypes) known.push_back(builtin.name);
        for (const RowTypeDef& def : scenario_.rowTypes) known.push_back(def.name);
        fail(node, "unknown row type " + quoted(typeName) + suggestion(typeName, known) +
                       "; declare it under 'row_types' or use one of: " + joined(known));
    }
    return *type;
}

std::pair<std::string, const Velta::RowType*> ScenarioParser::tableRef(const YAML::Node& node,
                                                                       const std::string& what) {
    const std::string path = nonEmptyText(node, what);
    const auto it = tables_.find(path);
    if (it == tables_.end()) {
        std::vector<std::string> known;
        for (const auto& [p, t] : tables_) known.push_back(p);
        fail(node, "unknown table " + quoted(path) + suggestion(path, known) +
                       ": create it with create_table first, or name a table an earlier step implies "
                       "(a subscription's outputPath, an aggregator's output)");
    }
    return {it->first, it->second.type};
}

void ScenarioParser::impliedTable(const std::string& path, const Velta::RowType& type, std::string origin,
                                  const Mark& where) {
    if (hasControl(path)) fail(where, "a table path cannot hold a control character: " + quoted(path));
    KnownTable& known = tables_[path];
    if (known.type != nullptr && !known.dropped) return;
    known = KnownTable{&type, std::move(origin), false};
}

FieldValue ScenarioParser::fieldValue(const Velta::RowType& type, std::size_t index, const YAML::Node& node) {
    const auto& field = type.fields()[index];
    const std::string what = "field " + quoted(field.name) + " (" + Velta::fieldKindName(field.kind) + ")";
    FieldValue value;
    value.field = index;
    value.mark = markOf(node);
    switch (field.kind) {
        case Velta::FieldKind::u16:
        case Velta::FieldKind::u32:
        case Velta::FieldKind::u64:
            value.value = number(node, what, kindMax(field.kind));
            break;
        case Velta::FieldKind::boolean:
            value.value = static_cast<std::uint64_t>(boolean(node, what));
            break;
        case Velta::FieldKind::string:
            value.value = text(node, what);
            break;
        case Velta::FieldKind::strings:
            value.value = textList(node, what);
            break;
    }
    return value;
}

RowSpec ScenarioParser::rowSpec(const YAML::Node& node, const Velta::RowType& type,
                                const std::string& context, bool expected) {
    if (!node.IsMap())
        fail(node, "expected a map of field: value for " + context + " (a " + type.name() + " row), found " +
                       nodeKind(node));
    RowSpec listed;
    listed.type = &type;
    listed.mark = markOf(node);
    std::set<std::string> seen;
    for (auto it = node.begin(); it != node.end(); ++it) {
        const std::string fieldName = text(it->first, "a field name");
        if (!seen.insert(fieldName).second)
            fail(it->first, "duplicate field " + quoted(fieldName) + " in " + context);
        const int index = type.fieldIndex(fieldName);
        if (index < 0 && expected && fieldName == "from") {
            listed.from = text(it->second, "'from'");
            continue;
        }
        if (index < 0)
            fail(it->first, quoted(fieldName) + " is not a field of " + type.name() +
                                suggestion(fieldName, fieldNames(type)) +
                                "; fields are: " + joined(fieldNames(type)));
        listed.values.push_back(fieldValue(type, static_cast<std::size_t>(index), it->second));
    }
    return listed;
}

RowSpec ScenarioParser::keySpec(const YAML::Node& node, const Velta::RowType& type) {
    RowSpec key = rowSpec(node, type, "'key'");
    std::vector<std::string> keyNames;
    for (const auto k : type.keyFields()) keyNames.push_back(type.fields()[k].name);
    for (auto it = node.begin(); it != node.end(); ++it)
        if (std::find(keyNames.begin(), keyNames.end(), it->first.Scalar()) == keyNames.end())
            fail(it->first, quoted(it->first.Scalar()) + " is not a key field of " + type.name() +
                                "; key fields are: " + joined(keyNames));
    return key;
}

std::vector<RowSpec> ScenarioParser::rowList(const YAML::Node& node, const Velta::RowType& type,
                                             const std::string& context, bool expected) {
    if (!node.IsSequence())
        fail(node, "expected a list of rows for " + context + ", found " + nodeKind(node));
    std::vector<RowSpec> rows;
    for (const YAML::Node& item : node) rows.push_back(rowSpec(item, type, "a row of " + context, expected));
    return rows;
}

void ScenarioParser::learnOutputTables(const std::vector<RowSpec>& rows) {
    for (const RowSpec& row : rows) {
        // A metadata row names a table the agents may find and report on, one line each.
        if (row.type == &Velta::veMetadata::veTable::type()) {
            for (const FieldValue& v : row.values) {
                const auto* path = std::get_if<std::string>(&v.value);
                if (path != nullptr && row.type->fields()[v.field].name == "tablePath" && hasControl(*path))
                    fail(v.mark, "a table path cannot hold a control character: " + quoted(*path));
            }
        }
        if (row.type != &Velta::External::Subscription::type()) continue;
        std::string outputPath, typeName;
        for (const FieldValue& v : row.values) {
            const std::string& name = row.type->fields()[v.field].name;
            if (name == "outputPath") outputPath = std::get<std::string>(v.value);
            if (name == "typeName") typeName = std::get<std::string>(v.value);
        }
        const Velta::RowType* type = findType(typeName);
        if (!outputPath.empty() && type != nullptr)
            impliedTable(outputPath, *type,
                         "the outputPath of a subscription written at " + markText(row.mark), row.mark);
    }
}

void ScenarioParser::parseSteps(const YAML::Node& node) {
    if (!node.IsSequence())
        fail(node, std::string("expected a list of steps for 'steps', found ") + nodeKind(node));
    std::size_t number = 0;
    for (const YAML::Node& item : node) {
        Step step;
        step.number = ++number;
        step.mark = markOf(item);
        YAML::Node body;
        if (item.IsScalar()) {
            step.keyword = item.Scalar();
        } else if (item.IsMap() && item.size() >= 1) {
            auto it = item.begin();
            step.keyword = text(it->first, "a step");
            body = it->second;
            if (++it != item.end())
                fail(it->first, "unexpected " + quoted(it->first.IsScalar() ? it->first.Scalar() : "?") +
                                    " beside " + quoted(step.keyword) +
                                    ": a step is a map with one key; indent the step's fields under it");
        } else {
            fail(item,
                 std::string("expected a step (e.g. '- run' or '- write: {...}'), found ") + nodeKind(item));
        }
        step.action = parseAction(step.keyword, item, body);
        scenario_.steps.push_back(std::move(step));
    }
}

Action ScenarioParser::parseAction(const std::string& keyword, const YAML::Node& item,
                                   const YAML::Node& body) {
    return parseAction(keyword, item, body, std::make_index_sequence<std::variant_size_v<Action>>{});
}

template <std::size_t... I>
Action ScenarioParser::parseAction(const std::string& keyword, const YAML::Node& item, const YAML::Node& body,
                                   std::index_sequence<I...>) {
    std::optional<Action> action;
    const auto readAs = [&]<class T>(std::type_identity<T>) {
        if (!action && keyword == T::step.keyword) action = parseAs<T>(item, body);
    };
    (readAs(std::type_identity<std::variant_alternative_t<I, Action>>{}), ...);
    if (!action)
        fail(item.IsMap() ? item.begin()->first : item, "unknown step " + quoted(keyword) +
                                                            suggestion(keyword, stepKeywords()) +
                                                            "; expected one of: " + joined(stepKeywords()));
    return std::move(*action);
}

template <class T>
T ScenarioParser::parseAs(const YAML::Node& item, const YAML::Node& body) {
    const std::string keyword(T::step.keyword);
    if constexpr (std::is_empty_v<T>) {
        if (body.IsDefined() && !body.IsNull() && !(body.IsMap() && body.size() == 0))
            fail(body, quoted(keyword) + " takes no fields");
        return T{};
    } else {
        if (!body.IsDefined() || body.IsNull())
            fail(item, quoted(keyword) + " needs its fields, e.g. " + keyword + ": {...}");
        T step;
        read(step, body, quoted(keyword));
        return step;
    }
}

namespace {

std::string located(const std::string& file, const Mark& mark, const std::string& message) {
    const Mark m = mark.line > 0 ? mark : Mark{1, 1};
    return file + ":" + std::to_string(m.line) + ":" + std::to_string(m.column) + ": " + message;
}

}  // namespace

ParseResult parseScenario(const std::string& file, const std::string& text) {
    ParseResult result;
    try {
        result.scenario = ScenarioParser(file).parse(loadDocument(text));
    } catch (const ScenarioError& e) {
        result.error = located(file, e.mark, e.message);
    } catch (const YAML::Exception& e) {
        const ScenarioError error = invalidYaml(e);
        result.error = located(file, error.mark, error.message);
    } catch (const std::exception& e) {
        result.error = located(file, Mark{}, std::string("cannot read the scenario: ") + e.what());
    }
    return result;
}

ParseResult loadScenario(const std::string& file) {
    ParseResult result;
    // A directory opens as a stream that reads nothing, which would pass for an empty file.
    struct stat info {};
    if (::stat(file.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        result.error = file + ": cannot read: " + std::strerror(EISDIR);
        return result;
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        result.error = file + ": cannot read: " + std::strerror(errno);
        return result;
    }
    std::ostringstream content;
    content << in.rdbuf();
    return parseScenario(file, content.str());
}

}  // namespace VeltaSim
