#include "internal/Yaml.h"

#include "Text.h"

#include <yaml-cpp/eventhandler.h>

#include <algorithm>
#include <cctype>
#include <optional>
#include <sstream>

namespace VeltaSim {

namespace {

Mark toMark(const YAML::Mark& m) { return m.is_null() ? Mark{} : Mark{m.line + 1, m.column + 1}; }

// yaml-cpp's terse parser messages, said in terms of what the writer of the file has to fix.
std::string yamlProblem(const std::string& message) {
    static const std::pair<const char*, const char*> known[] = {
        {"illegal block entry",
         "a list item ('- ') where none can start; is a '{' or '[' before it left open?"},
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

// What the events of the text show beyond its tree: where its first alias is, and where a second
// document with any content starts. (The parser is asked for exactly two documents: asking for all of
// them does not end on some malformed inputs.)
struct DocumentEvents {
    std::optional<Mark> alias;
    std::optional<Mark> second;
};

DocumentEvents documentEvents(const std::string& text) {
    struct FirstContent : YAML::EventHandler {
        std::optional<Mark> mark;
        std::optional<Mark> alias;
        void seen(const YAML::Mark& m) {
            if (!mark) mark = toMark(m);
        }
        void OnDocumentStart(const YAML::Mark&) override {}
        void OnDocumentEnd() override {}
        void OnNull(const YAML::Mark&, YAML::anchor_t) override {}
        void OnAlias(const YAML::Mark& m, YAML::anchor_t) override {
            seen(m);
            if (!alias) alias = toMark(m);
        }
        void OnScalar(const YAML::Mark& m, const std::string&, YAML::anchor_t, const std::string&) override {
            seen(m);
        }
        void OnSequenceStart(const YAML::Mark& m, const std::string&, YAML::anchor_t,
                             YAML::EmitterStyle::value) override {
            seen(m);
        }
        void OnSequenceEnd() override {}
        void OnMapStart(const YAML::Mark& m, const std::string&, YAML::anchor_t,
                        YAML::EmitterStyle::value) override {
            seen(m);
        }
        void OnMapEnd() override {}
    };
    std::istringstream in(text);
    YAML::Parser parser(in);
    FirstContent first;
    if (!parser.HandleNextDocument(first)) return {};
    FirstContent second;
    if (!parser.HandleNextDocument(second)) return {first.alias, std::nullopt};
    return {first.alias, second.mark};
}

}  // namespace

Mark markOf(const YAML::Node& node) { return toMark(node.Mark()); }

void fail(const Mark& mark, std::string message) { throw ScenarioError{mark, std::move(message)}; }
void fail(const YAML::Node& node, std::string message) { fail(markOf(node), std::move(message)); }

const char* nodeKind(const YAML::Node& node) {
    switch (node.Type()) {
        case YAML::NodeType::Null:
            return "nothing";
        case YAML::NodeType::Scalar:
            return "a plain value";
        case YAML::NodeType::Sequence:
            return "a list";
        case YAML::NodeType::Map:
            return "a map";
        default:
            return "nothing";
    }
}

YAML::Node loadDocument(const std::string& text) {
    YAML::Node root = YAML::Load(text);
    const DocumentEvents events = documentEvents(text);
    // An alias is the node of its anchor, marks included: whatever is wrong with it would be
    // reported at the anchor, so the file writes every node out where it is used.
    if (events.alias)
        fail(*events.alias,
             "a YAML alias; a scenario file takes none: write the node out again where it is used");
    if (events.second) fail(*events.second, "a second YAML document; a scenario file holds one");
    return root;
}

ScenarioError invalidYaml(const YAML::Exception& e) {
    return ScenarioError{toMark(e.mark), "invalid YAML: " + yamlProblem(e.msg)};
}

MapView::MapView(const YAML::Node& node, const std::string& context, std::vector<std::string> allowed)
    : node_(node), context_(context) {
    if (!node.IsMap()) fail(node, "expected a map for " + context + ", found " + nodeKind(node));
    for (auto it = node.begin(); it != node.end(); ++it) {
        if (!it->first.IsScalar()) fail(it->first, "expected a plain key in " + context);
        Entry entry{it->first.Scalar(), it->first, it->second};
        for (const Entry& seen : entries_)
            if (seen.key == entry.key)
                fail(entry.keyNode, "duplicate key " + quoted(entry.key) + " in " + context);
        if (std::find(allowed.begin(), allowed.end(), entry.key) == allowed.end())
            fail(entry.keyNode, "unknown key " + quoted(entry.key) + " in " + context +
                                    suggestion(entry.key, allowed) + "; expected one of: " + joined(allowed));
        entries_.push_back(std::move(entry));
    }
}

const YAML::Node* MapView::get(std::string_view key) const {
    const Entry* found = entry(key);
    return found != nullptr ? &found->value : nullptr;
}

const YAML::Node& MapView::need(std::string_view key) const {
    const YAML::Node* value = get(key);
    if (value == nullptr) fail(node_, context_ + " needs " + quoted(key));
    return *value;
}

const MapView::Entry* MapView::entry(std::string_view key) const {
    for (const Entry& e : entries_)
        if (e.key == key) return &e;
    return nullptr;
}

std::string text(const YAML::Node& node, const std::string& what) {
    if (!node.IsScalar()) fail(node, "expected a text for " + what + ", found " + nodeKind(node));
    return node.Scalar();
}

std::string nonEmptyText(const YAML::Node& node, const std::string& what) {
    std::string value = text(node, what);
    if (value.empty()) fail(node, "expected a non-empty text for " + what);
    return value;
}

std::uint64_t number(const YAML::Node& node, const std::string& what, std::uint64_t max) {
    const std::string range =
        max == std::numeric_limits<std::uint64_t>::max() ? "" : " up to " + std::to_string(max);
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
        if (c >= '0' && c <= '9')
            d = static_cast<unsigned>(c - '0');
        else if (base == 16 && c >= 'a' && c <= 'f')
            d = static_cast<unsigned>(c - 'a' + 10);
        else if (base == 16 && c >= 'A' && c <= 'F')
            d = static_cast<unsigned>(c - 'A' + 10);
        else
            fail(node, expected + ", found " + quoted(s));
        if (value > (std::numeric_limits<std::uint64_t>::max() - d) / base)
            fail(node, expected + ", " + s + " is too large");
        value = value * base + d;
    }
    if (value > max) fail(node, expected + ", " + s + " is too large");
    return value;
}

bool boolean(const YAML::Node& node, const std::string& what) {
    if (node.IsScalar()) {
        std::string s = node.Scalar();
        std::transform(s.begin(), s.end(), s.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
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

}  // namespace VeltaSim
