// Reading a scenario's YAML: the document itself, and its nodes as the values a scenario holds.
//
// Every reader either returns what it read or throws one ScenarioError with the mark of the node at
// fault and a message saying what was expected there ("expected a number ... for 'oid', found a
// list"); `what` names the value in those messages, quoted as the file writes it.
#pragma once

#include "Scenario.h"

#include <yaml-cpp/yaml.h>

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace VeltaSim {

// A problem in a scenario file: where it is and what was expected there.
struct ScenarioError {
    Mark mark;
    std::string message;
};

Mark markOf(const YAML::Node& node);
[[noreturn]] void fail(const Mark& mark, std::string message);
[[noreturn]] void fail(const YAML::Node& node, std::string message);
// "nothing", "a plain value", "a list" or "a map", for "found ..." in messages.
const char* nodeKind(const YAML::Node& node);

// The one YAML document of a scenario file. Invalid YAML throws YAML::Exception; a second document
// (which would otherwise be dropped without a word) and an alias (which carries its anchor's mark)
// are refused.
YAML::Node loadDocument(const std::string& text);
// A yaml-cpp error as a ScenarioError, its terse message said in terms of what the writer of the
// file has to fix.
ScenarioError invalidYaml(const YAML::Exception& e);

// A YAML map read by key, refusing duplicates and keys not in `allowed` (with a "did you mean").
class MapView {
public:
    struct Entry {
        std::string key;
        YAML::Node keyNode;
        YAML::Node value;
    };

    // `context` names the map in messages, e.g. "'start'".
    MapView(const YAML::Node& node, const std::string& context, std::vector<std::string> allowed);

    // The value under `key`, or nullptr.
    const YAML::Node* get(std::string_view key) const;
    // The value under `key`; a missing key fails at the map.
    const YAML::Node& need(std::string_view key) const;
    const Entry* entry(std::string_view key) const;
    const std::vector<Entry>& entries() const noexcept { return entries_; }
    const YAML::Node& node() const noexcept { return node_; }

private:
    YAML::Node node_;
    std::string context_;
    std::vector<Entry> entries_;
};

std::string text(const YAML::Node& node, const std::string& what);
std::string nonEmptyText(const YAML::Node& node, const std::string& what);
// Decimal or 0x hex, at most `max`.
std::uint64_t number(const YAML::Node& node, const std::string& what,
                     std::uint64_t max = std::numeric_limits<std::uint64_t>::max());
// true or false, in any letter case.
bool boolean(const YAML::Node& node, const std::string& what);
std::vector<std::string> textList(const YAML::Node& node, const std::string& what);

}  // namespace VeltaSim
