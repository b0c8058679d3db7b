// Parsing and validation of scenario files.
//
// The parser walks the YAML tree once, in file order, and keeps a small static picture of what the
// run will have: the agents and their running translators and aggregators, and which table paths
// exist with which row type. Every problem becomes one ScenarioError carrying the mark of the node
// at fault; the first one ends parsing, so the user sees exactly one message.
#include "Scenario.h"

#include <Velta/Records.h>

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>

namespace VeltaSim {

bool Step::isExpectation() const noexcept {
    return std::holds_alternative<ExpectRows>(action) || std::holds_alternative<ExpectRow>(action) ||
           std::holds_alternative<ExpectCalls>(action) || std::holds_alternative<ExpectTrace>(action) ||
           std::holds_alternative<ExpectRegistry>(action) || std::holds_alternative<ExpectExternalId>(action);
}

const AgentDecl* Scenario::agent(const std::string& agentName) const {
    for (const AgentDecl& a : agents)
        if (a.name == agentName) return &a;
    return nullptr;
}

namespace {

struct ScenarioError {
    Mark mark;
    std::string message;
};

Mark markOf(const YAML::Node& node) {
    const YAML::Mark m = node.Mark();
    if (m.is_null()) return {};
    return {m.line + 1, m.column + 1};
}

[[noreturn]] void fail(const Mark& mark, std::string message) { throw ScenarioError{mark, std::move(message)}; }
[[noreturn]] void fail(const YAML::Node& node, std::string message) { fail(markOf(node), std::move(message)); }

std::string quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

std::string joined(const std::vector<std::string>& items, const char* separator = ", ") {
    std::string out;
    for (const std::string& item : items) {
        if (!out.empty()) out += separator;
        out += item;
    }
    return out;
}

// Edit distance, for "did you mean" hints on misspelt keys and names.
std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

std::string suggestion(std::string_view word, const std::vector<std::string>& candidates) {
    std::string best;
    std::size_t bestDistance = std::max<std::size_t>(2, word.size() / 3) + 1;
    for (const std::string& c : candidates) {
        const std::size_t d = distance(word, c);
        if (d < bestDistance) {
            bestDistance = d;
            best = c;
        }
    }
    return best.empty() ? std::string() : " (did you mean " + quoted(best) + "?)";
}

const char* nodeKind(const YAML::Node& node) {
    switch (node.Type()) {
        case YAML::NodeType::Null: return "nothing";
        case YAML::NodeType::Scalar: return "a plain value";
        case YAML::NodeType::Sequence: return "a list";
        case YAML::NodeType::Map: return "a map";
        default: return "nothing";
    }
}

// A YAML map read by key, refusing duplicates and keys not in `allowed`.
class MapView {
public:
    struct Entry {
        std::string key;
        YAML::Node keyNode;
        YAML::Node value;
    };

    MapView(const YAML::Node& node, const std::string& context, std::vector<std::string> allowed)
        : node_(node), context_(context) {
        if (!node.IsMap()) fail(node, "expected a map for " + context + ", found " + nodeKind(node));
        for (auto it = node.begin(); it != node.end(); ++it) {
            if (!it->first.IsScalar()) fail(it->first, "expected a plain key in " + context);
            Entry entry{it->first.Scalar(), it->first, it->second};
            for (const Entry& seen : entries_)
                if (seen.key == entry.key) fail(entry.keyNode, "duplicate key " + quoted(entry.key) + " in " + context);
            if (std::find(allowed.begin(), allowed.end(), entry.key) == allowed.end())
                fail(entry.keyNode, "unknown key " + quoted(entry.key) + " in " + context +
                                        suggestion(entry.key, allowed) + "; expected one of: " + joined(allowed));
            entries_.push_back(std::move(entry));
        }
    }

    const YAML::Node* get(std::string_view key) const {
        for (const Entry& e : entries_)
            if (e.key == key) return &e.value;
        return nullptr;
    }
    const YAML::Node& need(std::string_view key) const {
        const YAML::Node* value = get(key);
        if (value == nullptr) fail(node_, context_ + " needs " + quoted(key));
        return *value;
    }
    const Entry* entry(std::string_view key) const {
        for (const Entry& e : entries_)
            if (e.key == key) return &e;
        return nullptr;
    }
    const std::vector<Entry>& entries() const noexcept { return entries_; }
    const YAML::Node& node() const noexcept { return node_; }

private:
    YAML::Node node_;
    std::string context_;
    std::vector<Entry> entries_;
};

std::string text(const YAML::Node& node, const std::string& what) {
    if (!node.IsScalar()) fail(node, "expected a text for " + what + ", found " + nodeKind(node));
    return node.Scalar();
}

std::string nonEmptyText(const YAML::Node& node, const std::string& what) {
    std::string value = text(node, what);
    if (value.empty()) fail(node, "expected a non-empty text for " + what);
    return value;
}

std::uint64_t number(const YAML::Node& node, const std::string& what,
                     std::uint64_t max = std::numeric_limits<std::uint64_t>::max()) {
    const std::string range = max == std::numeric_limits<std::uint64_t>::max() ? "" : " up to " + std::to_string(max);
    const std::string expected = "expected a number (decimal or 0x hex)" + range + " for " + what;
    if (!node.IsScalar()) fail(node, expected + ", found " + nodeKind(node));
    const std::string& s = node.Scalar();
    std::string_view digits = s;
    unsigned base = 10;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        base = 16;
        digits.remove_prefix(2);
    }
    if (digits.empty()) fail(node, expected + ", found " + quoted(s));
    std::uint64_t value = 0;
    for (char c : digits) {
        unsigned d;
        if (c >= '0' && c <= '9') d = static_cast<unsigned>(c - '0');
        else if (base == 16 && c >= 'a' && c <= 'f') d = static_cast<unsigned>(c - 'a' + 10);
        else if (base == 16 && c >= 'A' && c <= 'F') d = static_cast<unsigned>(c - 'A' + 10);
        else fail(node, expected + ", found " + quoted(s));
        if (value > (std::numeric_limits<std::uint64_t>::max() - d) / base) fail(node, expected + ", " + s + " is too large");
        value = value * base + d;
    }
    if (value > max) fail(node, expected + ", " + s + " is too large");
    return value;
}

bool boolean(const YAML::Node& node, const std::string& what) {
    if (node.IsScalar()) {
        std::string s = node.Scalar();
        std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (s == "true") return true;
        if (s == "false") return false;
        fail(node, "expected true or false for " + what + ", found " + quoted(node.Scalar()));
    }
    fail(node, "expected true or false for " + what + ", found " + nodeKind(node));
}

std::vector<std::string> textList(const YAML::Node& node, const std::string& what) {
    if (!node.IsSequence()) fail(node, "expected a list of texts for " + what + ", found " + nodeKind(node));
    std::vector<std::string> out;
    for (const YAML::Node& item : node) out.push_back(text(item, "an item of " + what));
    return out;
}

std::uint64_t kindMax(Velta::FieldKind kind) {
    switch (kind) {
        case Velta::FieldKind::u16: return 0xffff;
        case Velta::FieldKind::u32: return 0xffffffff;
        default: return std::numeric_limits<std::uint64_t>::max();
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

// The file's static picture of the run, kept while the steps are read in order.
class Parser {
public:
    explicit Parser(const std::string& file) { scenario_.file = file; }

    Scenario parse(const YAML::Node& root) {
        if (root.IsNull()) fail(Mark{1, 1}, "expected a scenario (a map with at least 'steps'), the file is empty");
        const MapView top(root, "the scenario",
                          {"name", "host", "trace", "row_types", "agents", "steps", "expect_abort", "order_independent"});
        if (const YAML::Node* n = top.get("name")) scenario_.name = text(*n, "'name'");
        if (const YAML::Node* n = top.get("host")) parseHost(*n);
        if (const YAML::Node* n = top.get("trace")) parseTrace(*n);
        if (const YAML::Node* n = top.get("row_types")) parseRowTypes(*n);
        seedTables();
        if (const YAML::Node* n = top.get("agents")) parseAgents(*n);
        if (const YAML::Node* n = top.get("expect_abort")) scenario_.expectAbort = nonEmptyText(*n, "'expect_abort'");
        if (const YAML::Node* n = top.get("order_independent"))
            scenario_.orderIndependent = boolean(*n, "'order_independent'");
        parseSteps(top.need("steps"));
        return std::move(scenario_);
    }

private:
    struct AgentState {
        bool translator = false;
        Mark translatorStarted;
        std::map<std::string, Mark> aggregators;
    };

    Scenario scenario_;
    std::map<std::string, const Velta::RowType*> tables_;  // path -> row type, as far as known
    std::map<std::string, AgentState> agentStates_;

    void parseHost(const YAML::Node& node) {
        const MapView host(node, "'host'", {"server_process", "auto_publish", "queries"});
        if (const YAML::Node* n = host.get("server_process")) scenario_.serverProcess = boolean(*n, "'server_process'");
        if (const YAML::Node* n = host.get("auto_publish")) scenario_.autoPublish = boolean(*n, "'auto_publish'");
        if (const YAML::Node* n = host.get("queries")) {
            const std::string mode = text(*n, "'queries'");
            if (mode == "manual") scenario_.manualQueries = true;
            else if (mode != "auto") fail(*n, "expected auto or manual for 'queries', found " + quoted(mode));
        }
    }

    void parseTrace(const YAML::Node& node) {
        if (!node.IsMap()) fail(node, std::string("expected a map of channel: mask for 'trace', found ") + nodeKind(node));
        std::set<std::string> seen;
        for (auto it = node.begin(); it != node.end(); ++it) {
            const std::string channel = nonEmptyText(it->first, "a trace channel");
            if (!seen.insert(channel).second) fail(it->first, "duplicate key " + quoted(channel) + " in 'trace'");
            scenario_.traceMasks.emplace_back(
                channel, static_cast<std::uint32_t>(number(it->second, "the mask of " + quoted(channel), 0xffffffff)));
        }
    }

    void parseRowTypes(const YAML::Node& node) {
        if (!node.IsSequence()) fail(node, std::string("expected a list of row types for 'row_types', found ") + nodeKind(node));
        for (const YAML::Node& item : node) {
            const MapView def(item, "a row type", {"name", "key", "fields"});
            RowTypeDef rowType;
            rowType.mark = markOf(item);
            rowType.name = nonEmptyText(def.need("name"), "the row type's 'name'");
            const YAML::Node& fields = def.need("fields");
            if (!fields.IsMap() || fields.size() == 0)
                fail(fields, "expected a map of field: kind (u16 u32 u64 bool string strings) for 'fields'");
            std::set<std::string> names;
            for (auto it = fields.begin(); it != fields.end(); ++it) {
                const std::string fieldName = nonEmptyText(it->first, "a field name");
                if (!names.insert(fieldName).second) fail(it->first, "duplicate field " + quoted(fieldName));
                const std::string kindText = text(it->second, "the kind of " + quoted(fieldName));
                const std::optional<Velta::FieldKind> kind = Velta::Host::parseFieldKind(kindText);
                if (!kind)
                    fail(it->second, "expected a field kind (u16 u32 u64 bool string strings) for " + quoted(fieldName) +
                                         ", found " + quoted(kindText));
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
                if (!keys.insert(rowType.key[i]).second) fail(key[i], "key field " + quoted(rowType.key[i]) + " is named twice");
            }
            if (builtinType(rowType.name) != nullptr)
                fail(def.need("name"), "row type " + quoted(rowType.name) + " is a built-in record; choose another name");
            for (const RowTypeDef& other : scenario_.rowTypes)
                if (other.name == rowType.name) fail(def.need("name"), "duplicate row type " + quoted(rowType.name));
            std::vector<Velta::RowType::Field> fieldList;
            for (const auto& f : rowType.fields) fieldList.push_back({f.name, f.kind, 0});
            std::vector<std::uint16_t> keyIndexes;
            for (const std::string& k : rowType.key) {
                for (std::uint16_t i = 0; i < fieldList.size(); ++i)
                    if (fieldList[i].name == k) keyIndexes.push_back(i);
            }
            rowType.local = std::make_shared<const Velta::RowType>(rowType.name, 0, std::move(fieldList), std::move(keyIndexes));
            scenario_.rowTypes.push_back(std::move(rowType));
        }
    }

    void seedTables() {
        for (const auto& builtin : Velta::detail::kBuiltinTypes)
            if (builtin.tablePath != nullptr) tables_[builtin.tablePath] = &Velta::builtinRowType(builtin.which);
    }

    void parseAgents(const YAML::Node& node) {
        if (!node.IsSequence()) fail(node, std::string("expected a list of agents for 'agents', found ") + nodeKind(node));
        for (const YAML::Node& item : node) {
            const MapView def(item, "an agent", {"name", "system", "server_agent", "external", "standalone"});
            AgentDecl agent;
            agent.mark = markOf(item);
            agent.name = nonEmptyText(def.need("name"), "the agent's 'name'");
            if (scenario_.agent(agent.name) != nullptr) fail(def.need("name"), "duplicate agent " + quoted(agent.name));
            agent.system = text(def.need("system"), "the agent's 'system'");
            if (const YAML::Node* n = def.get("server_agent")) agent.serverAgent = boolean(*n, "'server_agent'");
            if (const YAML::Node* n = def.get("external")) agent.external = boolean(*n, "'external'");
            if (const YAML::Node* n = def.get("standalone")) agent.standalone = boolean(*n, "'standalone'");
            if (!agent.standalone) {
                // The per-agent tables a non-standalone translator works on exist once it runs.
                tables_["velta/External/input/" + agent.name + "/Subscription"] =
                    &Velta::External::Subscription::type();
                tables_["velta/veCtrl/input/" + agent.name + "/subscription"] = &Velta::veCtrl::subscription::type();
            }
            agentStates_[agent.name];
            scenario_.agents.push_back(std::move(agent));
        }
    }

    std::vector<std::string> agentNames() const {
        std::vector<std::string> out;
        for (const AgentDecl& a : scenario_.agents) out.push_back(a.name);
        return out;
    }

    std::string agentRef(const MapView& map) {
        const YAML::Node& node = map.need("agent");
        const std::string agentName = nonEmptyText(node, "'agent'");
        if (scenario_.agent(agentName) == nullptr) {
            if (scenario_.agents.empty()) fail(node, "unknown agent " + quoted(agentName) + ": the file declares no 'agents'");
            fail(node, "unknown agent " + quoted(agentName) + suggestion(agentName, agentNames()) +
                           "; agents are: " + joined(agentNames()));
        }
        return agentName;
    }

    // A built-in record type or one of the file's own row types, or nullptr.
    const Velta::RowType* findType(const std::string& typeName) const {
        for (const RowTypeDef& def : scenario_.rowTypes)
            if (def.name == typeName) return def.local.get();
        return builtinType(typeName);
    }

    const Velta::RowType& rowTypeRef(const YAML::Node& node, const std::string& what) {
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

    // A table path that the run will have by the time this step runs.
    std::pair<std::string, const Velta::RowType*> tableRef(const YAML::Node& node, const std::string& what) {
        const std::string path = nonEmptyText(node, what);
        const auto it = tables_.find(path);
        if (it == tables_.end()) {
            std::vector<std::string> known;
            for (const auto& [p, t] : tables_) known.push_back(p);
            fail(node, "unknown table " + quoted(path) + suggestion(path, known) +
                           ": create it with create_table first, or name a table an earlier step implies "
                           "(a subscription's outputPath, an aggregator's output)");
        }
        return *it;
    }

    FieldValue fieldValue(const Velta::RowType& type, std::size_t index, const YAML::Node& node) {
        const auto& field = type.fields()[index];
        const std::string what = "field " + quoted(field.name) + " (" + Velta::fieldKindName(field.kind) + ")";
        FieldValue value;
        value.field = index;
        value.mark = markOf(node);
        switch (field.kind) {
            case Velta::FieldKind::u16:
            case Velta::FieldKind::u32:
            case Velta::FieldKind::u64: value.value = number(node, what, kindMax(field.kind)); break;
            case Velta::FieldKind::boolean: value.value = static_cast<std::uint64_t>(boolean(node, what)); break;
            case Velta::FieldKind::string: value.value = text(node, what); break;
            case Velta::FieldKind::strings: value.value = textList(node, what); break;
        }
        return value;
    }

    // A row of a step. An expected row (`expected`) may also name `from`, the input expected to
    // supply it, unless its type has a field of that name.
    RowSpec rowSpec(const YAML::Node& node, const Velta::RowType& type, const std::string& context,
                    bool expected = false) {
        if (!node.IsMap())
            fail(node, "expected a map of field: value for " + context + " (a " + type.name() + " row), found " + nodeKind(node));
        RowSpec listed;
        listed.type = &type;
        listed.mark = markOf(node);
        std::set<std::string> seen;
        for (auto it = node.begin(); it != node.end(); ++it) {
            const std::string fieldName = text(it->first, "a field name");
            if (!seen.insert(fieldName).second) fail(it->first, "duplicate field " + quoted(fieldName) + " in " + context);
            const int index = type.fieldIndex(fieldName);
            if (index < 0 && expected && fieldName == "from") {
                listed.from = text(it->second, "'from'");
                continue;
            }
            if (index < 0)
                fail(it->first, quoted(fieldName) + " is not a field of " + type.name() +
                                    suggestion(fieldName, fieldNames(type)) + "; fields are: " + joined(fieldNames(type)));
            listed.values.push_back(fieldValue(type, static_cast<std::size_t>(index), it->second));
        }
        return listed;
    }

    std::vector<RowSpec> rowList(const YAML::Node& node, const Velta::RowType& type, const std::string& context,
                                 bool expected = false) {
        if (!node.IsSequence()) fail(node, "expected a list of rows for " + context + ", found " + nodeKind(node));
        std::vector<RowSpec> rows;
        for (const YAML::Node& item : node) rows.push_back(rowSpec(item, type, "a row of " + context, expected));
        return rows;
    }

    // A subscription row names its output table: the translator registers it with that type.
    void learnOutputTables(const std::vector<RowSpec>& rows) {
        for (const RowSpec& row : rows) {
            if (row.type != &Velta::External::Subscription::type()) continue;
            std::string outputPath, typeName;
            for (const FieldValue& v : row.values) {
                const std::string& name = row.type->fields()[v.field].name;
                if (name == "outputPath") outputPath = std::get<std::string>(v.value);
                if (name == "typeName") typeName = std::get<std::string>(v.value);
            }
            const Velta::RowType* type = findType(typeName);
            if (!outputPath.empty() && type != nullptr) tables_.emplace(outputPath, type);
        }
    }

    void parseSteps(const YAML::Node& node) {
        if (!node.IsSequence()) fail(node, std::string("expected a list of steps for 'steps', found ") + nodeKind(node));
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
                    fail(it->first, "unexpected " + quoted(it->first.IsScalar() ? it->first.Scalar() : "?") + " beside " +
                                        quoted(step.keyword) +
                                        ": a step is a map with one key; indent the step's fields under it");
            } else {
                fail(item, std::string("expected a step (e.g. '- run' or '- write: {...}'), found ") + nodeKind(item));
            }
            step.action = parseAction(step.keyword, item, body);
            scenario_.steps.push_back(std::move(step));
        }
    }

    static const std::vector<std::string>& stepKeywords() {
        static const std::vector<std::string> keywords = {
            "start", "stop", "call", "create_table", "drop_table", "write", "delete", "run", "clock", "complete_query",
            "clear_traces", "dump", "expect_rows", "expect_row", "expect_calls", "expect_trace", "expect_no_trace",
            "expect_registry", "expect_external_id"};
        return keywords;
    }

    Action parseAction(const std::string& keyword, const YAML::Node& item, const YAML::Node& body) {
        const auto& keywords = stepKeywords();
        if (std::find(keywords.begin(), keywords.end(), keyword) == keywords.end())
            fail(item.IsMap() ? item.begin()->first : item,
                 "unknown step " + quoted(keyword) + suggestion(keyword, keywords) + "; expected one of: " + joined(keywords));
        if (keyword == "run" || keyword == "clear_traces") {
            if (body.IsDefined() && !body.IsNull() && !(body.IsMap() && body.size() == 0))
                fail(body, quoted(keyword) + " takes no fields");
            if (keyword == "run") return Run{};
            return ClearTraces{};
        }
        if (!body.IsDefined() || body.IsNull()) fail(item, quoted(keyword) + " needs its fields, e.g. " + keyword + ": {...}");
        const std::string context = quoted(keyword);
        if (keyword == "start") return parseStart(body);
        if (keyword == "stop") return parseStop(body);
        if (keyword == "call") return parseCall(body);
        if (keyword == "create_table") {
            const MapView m(body, context, {"path", "type", "owner", "oid"});
            CreateTable step;
            step.path = nonEmptyText(m.need("path"), "'path'");
            const Velta::RowType& type = rowTypeRef(m.need("type"), "'type'");
            step.type = type.name();
            if (const YAML::Node* n = m.get("owner")) step.owner = text(*n, "'owner'");
            if (const YAML::Node* n = m.get("oid")) step.oid = static_cast<unsigned>(number(*n, "'oid'", 0xffffffff));
            tables_[step.path] = &type;
            return step;
        }
        if (keyword == "drop_table") {
            const MapView m(body, context, {"path"});
            return DropTable{tableRef(m.need("path"), "'path'").first};
        }
        if (keyword == "write") {
            const MapView m(body, context, {"table", "row", "rows"});
            const auto [path, type] = tableRef(m.need("table"), "'table'");
            Write step;
            step.path = path;
            const YAML::Node* row = m.get("row");
            const YAML::Node* rows = m.get("rows");
            if ((row == nullptr) == (rows == nullptr)) fail(body, context + " needs either 'row' or 'rows'");
            if (row != nullptr) step.rows.push_back(rowSpec(*row, *type, "'row'"));
            else step.rows = rowList(*rows, *type, "'rows'");
            learnOutputTables(step.rows);
            return step;
        }
        if (keyword == "delete") {
            const MapView m(body, context, {"table", "key"});
            const auto [path, type] = tableRef(m.need("table"), "'table'");
            return Delete{path, rowSpec(m.need("key"), *type, "'key'")};
        }
        if (keyword == "clock") {
            const MapView m(body, context, {"advance"});
            return Clock{number(m.need("advance"), "'advance'")};
        }
        if (keyword == "complete_query") {
            const MapView m(body, context, {"text", "ok", "error"});
            CompleteQuery step;
            step.text = nonEmptyText(m.need("text"), "'text'");
            if (const YAML::Node* n = m.get("ok")) step.ok = boolean(*n, "'ok'");
            if (const YAML::Node* n = m.get("error")) step.error = text(*n, "'error'");
            return step;
        }
        if (keyword == "dump") {
            const MapView m(body, context, {"table"});
            return Dump{tableRef(m.need("table"), "'table'").first};
        }
        if (keyword == "expect_rows") {
            const MapView m(body, context, {"table", "rows"});
            const auto [path, type] = tableRef(m.need("table"), "'table'");
            return ExpectRows{path, rowList(m.need("rows"), *type, "'rows'", true)};
        }
        if (keyword == "expect_row") {
            const MapView m(body, context, {"table", "key", "row", "absent"});
            const auto [path, type] = tableRef(m.need("table"), "'table'");
            ExpectRow step;
            step.path = path;
            step.key = rowSpec(m.need("key"), *type, "'key'");
            const YAML::Node* row = m.get("row");
            const YAML::Node* absent = m.get("absent");
            if ((row == nullptr) == (absent == nullptr)) fail(body, context + " needs either 'row' or 'absent: true'");
            if (row != nullptr) step.row = rowSpec(*row, *type, "'row'", true);
            else if (!boolean(*absent, "'absent'")) fail(*absent, "'absent' can only be true; give 'row' to expect a row");
            return step;
        }
        if (keyword == "expect_calls") return parseExpectCalls(body);
        if (keyword == "expect_trace" || keyword == "expect_no_trace") {
            const MapView m(body, context, {"channel", "level", "text", "contains", "line", "function"});
            ExpectTrace step;
            step.negated = keyword == "expect_no_trace";
            step.channel = nonEmptyText(m.need("channel"), "'channel'");
            const YAML::Node& levelNode = m.need("level");
            step.level = static_cast<unsigned>(number(levelNode, "'level'", 31));
            const YAML::Node* textNode = m.get("text");
            const YAML::Node* containsNode = m.get("contains");
            if ((textNode == nullptr) == (containsNode == nullptr)) fail(body, context + " needs either 'text' or 'contains'");
            if (textNode != nullptr) step.text = text(*textNode, "'text'");
            else step.contains = nonEmptyText(*containsNode, "'contains'");
            if (const YAML::Node* n = m.get("line")) step.line = static_cast<unsigned>(number(*n, "'line'", 0xffffffff));
            if (const YAML::Node* n = m.get("function")) step.function = nonEmptyText(*n, "'function'");
            // A trace of a level the file leaves off is never captured: the check could not fail
            // (expect_no_trace) or could not pass (expect_trace).
            std::uint32_t mask = 0;
            for (const auto& [channel, value] : scenario_.traceMasks)
                if (channel == step.channel) mask = value;
            if (((mask >> step.level) & 1u) == 0)
                fail(levelNode, "level " + std::to_string(step.level) + " of channel " + quoted(step.channel) +
                                    " is not enabled under 'trace', so no such trace can be captured");
            return step;
        }
        if (keyword == "expect_registry") {
            const MapView m(body, context, {"agent", "key", "entry", "absent"});
            ExpectRegistry step;
            step.agent = agentRef(m);
            const MapView key(m.need("key"), "the registry 'key'", {"system_description", "outputPath"});
            step.systemDescription =
                static_cast<std::uint32_t>(number(key.need("system_description"), "'system_description'", 0xffffffff));
            step.outputPath = text(key.need("outputPath"), "'outputPath'");
            const YAML::Node* entry = m.get("entry");
            const YAML::Node* absent = m.get("absent");
            if ((entry == nullptr) == (absent == nullptr)) fail(body, context + " needs either 'entry' or 'absent: true'");
            if (absent != nullptr) {
                if (!boolean(*absent, "'absent'")) fail(*absent, "'absent' can only be true; give 'entry' to expect one");
                step.absent = true;
            } else {
                const MapView e(*entry, "the registry 'entry'", {"writer", "reader", "externalOid", "tableOid", "typeId", "sid"});
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
            return step;
        }
        // expect_external_id
        const MapView m(body, context, {"agent", "sid", "oid"});
        ExpectExternalId step;
        step.agent = agentRef(m);
        step.sid = static_cast<std::uint32_t>(number(m.need("sid"), "'sid'", 0xffffffff));
        step.oid = static_cast<std::uint32_t>(number(m.need("oid"), "'oid'", 0xffffffff));
        requireTranslator(step.agent, m.node());
        return step;
    }

    void requireTranslator(const std::string& agent, const YAML::Node& node) {
        if (!agentStates_[agent].translator)
            fail(node, "no translator is running on agent " + quoted(agent) + " at this step (start it first)");
    }

    void requireAggregator(const std::string& agent, const std::string& id, const YAML::Node& node) {
        if (agentStates_[agent].aggregators.count(id) == 0)
            fail(node, "no aggregator " + quoted(id) + " is running on agent " + quoted(agent) + " at this step");
    }

    static std::string markText(const Mark& mark) { return "line " + std::to_string(mark.line); }

    Action parseStart(const YAML::Node& body) {
        if (body.IsMap() && body["translator"]) {
            const MapView m(body, "'start'", {"agent", "translator"});
            const std::string agent = agentRef(m);
            if (!boolean(m.need("translator"), "'translator'")) fail(m.need("translator"), "'translator' can only be true");
            AgentState& state = agentStates_[agent];
            if (state.translator)
                fail(body, "a translator is already running on agent " + quoted(agent) + " (started at " +
                               markText(state.translatorStarted) + ")");
            state.translator = true;
            state.translatorStarted = markOf(body);
            return StartTranslator{agent};
        }
        const MapView m(body, "'start'",
                        {"agent", "aggregator", "input_prefix", "input_suffix", "output", "row_type",
                         "delete_without_replacement", "enabled", "bind_flag"});
        StartAggregator step;
        step.agent = agentRef(m);
        if (m.get("aggregator") == nullptr) fail(body, "'start' needs 'translator: true' or 'aggregator: ID'");
        step.id = nonEmptyText(m.need("aggregator"), "'aggregator'");
        step.inputPrefix = text(m.need("input_prefix"), "'input_prefix'");
        if (const YAML::Node* n = m.get("input_suffix")) step.inputSuffix = text(*n, "'input_suffix'");
        step.output = nonEmptyText(m.need("output"), "'output'");
        const Velta::RowType& type = rowTypeRef(m.need("row_type"), "'row_type'");
        step.rowType = type.name();
        if (const YAML::Node* n = m.get("delete_without_replacement"))
            step.deleteWithoutReplacement = boolean(*n, "'delete_without_replacement'");
        if (const YAML::Node* n = m.get("enabled")) step.enabled = boolean(*n, "'enabled'");
        if (const YAML::Node* n = m.get("bind_flag")) step.bindFlag = boolean(*n, "'bind_flag'");
        AgentState& state = agentStates_[step.agent];
        if (const auto it = state.aggregators.find(step.id); it != state.aggregators.end())
            fail(m.need("aggregator"), "aggregator " + quoted(step.id) + " is already running on agent " +
                                           quoted(step.agent) + " (started at " + markText(it->second) + ")");
        state.aggregators[step.id] = markOf(body);
        tables_.emplace(step.output, &type);
        return step;
    }

    Action parseStop(const YAML::Node& body) {
        const MapView m(body, "'stop'", {"agent", "translator", "aggregator"});
        const std::string agent = agentRef(m);
        const YAML::Node* translator = m.get("translator");
        const YAML::Node* aggregator = m.get("aggregator");
        if ((translator == nullptr) == (aggregator == nullptr))
            fail(body, "'stop' needs either 'translator: true' or 'aggregator: ID'");
        if (translator != nullptr) {
            if (!boolean(*translator, "'translator'")) fail(*translator, "'translator' can only be true");
            requireTranslator(agent, body);
            agentStates_[agent].translator = false;
            return StopTranslator{agent};
        }
        const std::string id = nonEmptyText(*aggregator, "'aggregator'");
        requireAggregator(agent, id, *aggregator);
        agentStates_[agent].aggregators.erase(id);
        return StopAggregator{agent, id};
    }

    Action parseCall(const YAML::Node& body) {
        const MapView m(body, "'call'", {"agent", "translator", "aggregator", "op", "value", "input"});
        const std::string agent = agentRef(m);
        const YAML::Node* translator = m.get("translator");
        const YAML::Node* aggregator = m.get("aggregator");
        if ((translator == nullptr) == (aggregator == nullptr))
            fail(body, "'call' needs either 'translator: true' or 'aggregator: ID'");
        const YAML::Node& opNode = m.need("op");
        const std::string op = nonEmptyText(opNode, "'op'");
        if (translator != nullptr) {
            if (!boolean(*translator, "'translator'")) fail(*translator, "'translator' can only be true");
            if (op != "clean") fail(opNode, "unknown translator op " + quoted(op) + "; expected: clean");
            if (m.get("value") != nullptr) fail(m.entry("value")->keyNode, "'clean' takes no 'value'");
            if (m.get("input") != nullptr) fail(m.entry("input")->keyNode, "'clean' takes no 'input'");
            requireTranslator(agent, body);
            return CallTranslator{agent};
        }
        CallAggregator step;
        step.agent = agent;
        step.id = nonEmptyText(*aggregator, "'aggregator'");
        requireAggregator(agent, step.id, *aggregator);
        const std::vector<std::string> ops = {"enableIs", "suppressResyncIs", "scheduledIs", "outputBlocked"};
        if (op == "enableIs") step.op = CallAggregator::Op::enableIs;
        else if (op == "suppressResyncIs") step.op = CallAggregator::Op::suppressResyncIs;
        else if (op == "scheduledIs") step.op = CallAggregator::Op::scheduledIs;
        else if (op == "outputBlocked") step.op = CallAggregator::Op::outputBlocked;
        else fail(opNode, "unknown aggregator op " + quoted(op) + suggestion(op, ops) + "; expected one of: " + joined(ops));
        step.value = boolean(m.need("value"), "'value'");
        if (step.op == CallAggregator::Op::outputBlocked) step.input = tableRef(m.need("input"), "'input'").first;
        else if (m.get("input") != nullptr) fail(m.entry("input")->keyNode, quoted(op) + " takes no 'input'");
        return step;
    }

    Action parseExpectCalls(const YAML::Node& body) {
        if (!body.IsSequence())
            fail(body, std::string("expected a list of calls for 'expect_calls' (each {registerTable: {...}}, "
                                   "{defineQuery: {...}} or {removeQuery: {...}}; [] for none), found ") +
                           nodeKind(body));
        ExpectCalls step;
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
                const MapView m(args, context, {"path", "typeName", "tableType", "desiredFlags", "flags", "owner"});
                if (const YAML::Node* n = m.get("path")) call.path = text(*n, "'path'");
                if (const YAML::Node* n = m.get("typeName")) call.typeName = text(*n, "'typeName'");
                if (const YAML::Node* n = m.get("tableType")) call.tableType = static_cast<unsigned>(number(*n, "'tableType'", 1));
                if (const YAML::Node* n = m.get("desiredFlags"))
                    call.desiredFlags = static_cast<unsigned>(number(*n, "'desiredFlags'", 0xffff));
                if (const YAML::Node* n = m.get("flags")) call.flags = static_cast<unsigned>(number(*n, "'flags'", 0xffff));
                if (const YAML::Node* n = m.get("owner")) call.owner = text(*n, "'owner'");
            } else if (entry.key == "defineQuery") {
                call.kind = Velta::Host::HostCall::Kind::defineQuery;
                const MapView m(args, context, {"text", "typeId", "params", "standing", "name"});
                if (const YAML::Node* n = m.get("text")) call.text = text(*n, "'text'");
                if (const YAML::Node* n = m.get("typeId")) call.typeId = static_cast<unsigned>(number(*n, "'typeId'", 0xffffffff));
                if (const YAML::Node* n = m.get("params")) {
                    if (!n->IsMap()) fail(*n, std::string("expected a map of name: value for 'params', found ") + nodeKind(*n));
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
        return step;
    }
};

// yaml-cpp's terse parser messages, said in terms of what the writer of the file has to fix.
std::string yamlProblem(const std::string& message) {
    static const std::pair<const char*, const char*> known[] = {
        {"illegal block entry", "a list item ('- ') where none can start; is a '{' or '[' before it left open?"},
        {"end of sequence flow not found", "expected ']' to close the list"},
        {"end of map flow not found", "expected '}' to close the map"},
        {"illegal map value", "a ': ' where no key can start; quote a text that contains ': '"},
        {"illegal tab when looking for indentation", "a tab in the indentation; indent with spaces"},
        {"end of string not found", "expected the closing quote of the text"},
        // yaml-cpp's only use of this text when parsing from memory: its nesting limit.
        {"bad file", "lists and maps nested too deep (yaml-cpp stops at 2048 levels)"},
    };
    for (const auto& [raw, plain] : known)
        if (message == raw) return std::string(plain) + " (" + raw + ")";
    return message;
}

// Where a second document with any content starts, if the text has one. (The parser is asked for
// exactly two documents: asking for all of them does not end on some malformed inputs.)
std::optional<Mark> secondDocument(const std::string& text) {
    struct FirstContent : YAML::EventHandler {
        std::optional<Mark> mark;
        void seen(const YAML::Mark& m) {
            if (!mark) mark = m.is_null() ? Mark{} : Mark{m.line + 1, m.column + 1};
        }
        void OnDocumentStart(const YAML::Mark&) override {}
        void OnDocumentEnd() override {}
        void OnNull(const YAML::Mark&, YAML::anchor_t) override {}
        void OnAlias(const YAML::Mark& m, YAML::anchor_t) override { seen(m); }
        void OnScalar(const YAML::Mark& m, const std::string&, YAML::anchor_t, const std::string&) override { seen(m); }
        void OnSequenceStart(const YAML::Mark& m, const std::string&, YAML::anchor_t, YAML::EmitterStyle::value) override {
            seen(m);
        }
        void OnSequenceEnd() override {}
        void OnMapStart(const YAML::Mark& m, const std::string&, YAML::anchor_t, YAML::EmitterStyle::value) override {
            seen(m);
        }
        void OnMapEnd() override {}
    };
    std::istringstream in(text);
    YAML::Parser parser(in);
    FirstContent first;
    if (!parser.HandleNextDocument(first)) return std::nullopt;
    FirstContent second;
    if (!parser.HandleNextDocument(second)) return std::nullopt;
    return second.mark;
}

std::string located(const std::string& file, const Mark& mark, const std::string& message) {
    const Mark m = mark.line > 0 ? mark : Mark{1, 1};
    return file + ":" + std::to_string(m.line) + ":" + std::to_string(m.column) + ": " + message;
}

}  // namespace

ParseResult parseScenario(const std::string& file, const std::string& text) {
    ParseResult result;
    try {
        const YAML::Node root = YAML::Load(text);
        // Everything after a '---' would otherwise be dropped without a word.
        if (const std::optional<Mark> second = secondDocument(text))
            throw ScenarioError{*second, "a second YAML document; a scenario file holds one"};
        result.scenario = Parser(file).parse(root);
    } catch (const ScenarioError& e) {
        result.error = located(file, e.mark, e.message);
    } catch (const YAML::Exception& e) {
        const Mark mark = e.mark.is_null() ? Mark{} : Mark{e.mark.line + 1, e.mark.column + 1};
        result.error = located(file, mark, "invalid YAML: " + yamlProblem(e.msg));
    } catch (const std::exception& e) {
        result.error = located(file, Mark{}, std::string("cannot read the scenario: ") + e.what());
    }
    return result;
}

ParseResult loadScenario(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        ParseResult result;
        result.error = file + ": cannot read: " + std::strerror(errno);
        return result;
    }
    std::ostringstream content;
    content << in.rdbuf();
    return parseScenario(file, content.str());
}

}  // namespace VeltaSim
