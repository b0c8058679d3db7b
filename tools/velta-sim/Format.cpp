#include "Format.h"

#include "Text.h"

#include <algorithm>
#include <string_view>

namespace VeltaSim {

using Velta::BaseRow;
using Velta::FieldKind;
using Velta::RowType;

namespace {

bool isDefault(const BaseRow& row, std::size_t field) {
    switch (row.rowType()->fields()[field].kind) {
        case FieldKind::string:
            return row.string(field).empty();
        case FieldKind::strings:
            return row.strings(field).empty();
        default:
            return row.number(field) == 0;
    }
}

std::string formatSpecValue(const RowSpec& listed, const FieldValue& value) {
    const FieldKind kind = listed.type->fields()[value.field].kind;
    if (const auto* n = std::get_if<std::uint64_t>(&value.value))
        return kind == FieldKind::boolean ? (*n != 0 ? "true" : "false") : std::to_string(*n);
    if (const auto* s = std::get_if<std::string>(&value.value)) return yamlText(*s);
    std::string out = "[";
    for (const std::string& item : std::get<std::vector<std::string>>(value.value)) {
        if (out.size() > 1) out += ", ";
        out += yamlText(item);
    }
    return out + "]";
}

// The call as an expectation that names every argument of its kind, so that a call and an expected
// call print alike.
ExpectedCall everyArgument(const Velta::Host::HostCall& call) {
    using Kind = Velta::Host::HostCall::Kind;
    ExpectedCall all;
    all.kind = call.kind;
    switch (call.kind) {
        case Kind::registerTable:
            all.path = call.path;
            all.typeName = call.typeName;
            all.tableType = static_cast<unsigned>(call.tableType);
            all.desiredFlags = call.desiredFlags;
            all.flags = call.flags;
            all.owner = call.owner;
            break;
        case Kind::defineQuery:
            all.text = call.text;
            all.typeId = call.typeId;
            all.params = call.params;
            all.standing = call.standing;
            all.name = call.name;
            break;
        case Kind::removeQuery:
            all.name = call.name;
            break;
    }
    return all;
}

}  // namespace

std::string yamlText(const std::string& text) {
    // Plain null, Null and NULL (and ~, caught below) read back as no value, not as a text.
    bool plain = !text.empty() && text.front() != ' ' && text.back() != ' ' && text != "null" &&
                 text != "Null" && text != "NULL";
    if (plain && std::string_view("-?:,[]{}#&*!|>'\"%@`~").find(text.front()) != std::string_view::npos)
        plain = false;
    for (std::size_t i = 0; plain && i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == ',' || c == '[' || c == ']' || c == '{' || c == '}' || c == '"' || c == '\\')
            plain = false;
        else if (c == ':' && (i + 1 == text.size() || text[i + 1] == ' '))
            plain = false;
        else if (c == '#' && i > 0 && text[i - 1] == ' ')
            plain = false;
    }
    // Control characters (C0, DEL, C1 and the two line separators) quote the text too.
    return plain && !hasControl(text) ? text : doubleQuoted(text, Quoting::yaml);
}

std::string formatValue(const BaseRow& row, std::size_t field) {
    switch (row.rowType()->fields()[field].kind) {
        case FieldKind::boolean:
            return row.number(field) != 0 ? "true" : "false";
        case FieldKind::string:
            return yamlText(row.string(field));
        case FieldKind::strings: {
            std::string out = "[";
            for (const std::string& item : row.strings(field)) {
                if (out.size() > 1) out += ", ";
                out += yamlText(item);
            }
            return out + "]";
        }
        default:
            return std::to_string(row.number(field));
    }
}

std::string formatFields(const BaseRow& row, const std::vector<std::size_t>& fields) {
    if (row.empty()) return "(no row)";
    std::string out = "{";
    for (const std::size_t field : fields) {
        if (out.size() > 1) out += ", ";
        out += row.rowType()->fields()[field].name + ": " + formatValue(row, field);
    }
    return out + "}";
}

std::vector<std::size_t> keyAndSetFields(const BaseRow& row) {
    std::vector<std::size_t> fields;
    if (row.empty()) return fields;
    const RowType& type = *row.rowType();
    for (const auto key : type.keyFields()) fields.push_back(key);
    for (std::size_t i = 0; i < type.fields().size(); ++i)
        if (std::find(fields.begin(), fields.end(), i) == fields.end() && !isDefault(row, i))
            fields.push_back(i);
    return fields;
}

std::vector<std::size_t> fieldsNamed(const BaseRow& row, const std::vector<const RowSpec*>& specs) {
    std::vector<std::size_t> fields;
    if (row.empty()) return fields;
    const RowType& type = *row.rowType();
    for (std::size_t i = 0; i < type.fields().size(); ++i) {
        bool wanted =
            std::find(type.keyFields().begin(), type.keyFields().end(), i) != type.keyFields().end();
        for (const RowSpec* listed : specs)
            for (const FieldValue& v : listed->values)
                if (listed->type->fields()[v.field].name == type.fields()[i].name) wanted = true;
        if (wanted) fields.push_back(i);
    }
    return fields;
}

std::string formatSpec(const RowSpec& listed) {
    std::string out = "{";
    for (const FieldValue& v : listed.values) {
        if (out.size() > 1) out += ", ";
        out += listed.type->fields()[v.field].name + ": " + formatSpecValue(listed, v);
    }
    if (listed.from) out += (out.size() > 1 ? ", from: " : "from: ") + yamlText(*listed.from);
    return out + "}";
}

BaseRow buildRow(const RowSpec& listed) {
    // The registered type of that name: a file's own types are registered when its run starts.
    const RowType* registered = Velta::Host::findRowType(listed.type->name());
    BaseRow row(registered != nullptr ? *registered : *listed.type);
    for (const FieldValue& v : listed.values) {
        if (const auto* n = std::get_if<std::uint64_t>(&v.value))
            row.numberIs(v.field, *n);
        else if (const auto* s = std::get_if<std::string>(&v.value))
            row.stringIs(v.field, *s);
        else
            row.stringsIs(v.field, std::get<std::vector<std::string>>(v.value));
    }
    return row;
}

bool matches(const BaseRow& row, const RowSpec& listed) {
    if (row.empty()) return false;
    const RowType& type = *row.rowType();
    for (const FieldValue& v : listed.values) {
        const int index = type.fieldIndex(listed.type->fields()[v.field].name);
        if (index < 0) return false;
        const auto field = static_cast<std::size_t>(index);
        const FieldKind kind = type.fields()[field].kind;
        if (const auto* n = std::get_if<std::uint64_t>(&v.value)) {
            if (!Velta::isNumberKind(kind) || row.number(field) != *n) return false;
        } else if (const auto* s = std::get_if<std::string>(&v.value)) {
            if (kind != FieldKind::string || row.string(field) != *s) return false;
        } else {
            if (kind != FieldKind::strings ||
                row.strings(field) != std::get<std::vector<std::string>>(v.value))
                return false;
        }
    }
    return true;
}

std::string formatCall(const Velta::Host::HostCall& call) { return formatExpectedCall(everyArgument(call)); }

std::string formatExpectedCall(const ExpectedCall& call) {
    using Kind = Velta::Host::HostCall::Kind;
    std::string out;
    auto add = [&out](const char* name, const std::string& value) {
        if (!out.empty()) out += ", ";
        out += std::string(name) + ": " + value;
    };
    if (call.path) add("path", yamlText(*call.path));
    if (call.typeName) add("typeName", yamlText(*call.typeName));
    if (call.tableType) add("tableType", std::to_string(*call.tableType));
    if (call.desiredFlags) add("desiredFlags", std::to_string(*call.desiredFlags));
    if (call.flags) add("flags", std::to_string(*call.flags));
    if (call.owner) add("owner", yamlText(*call.owner));
    if (call.text) add("text", yamlText(*call.text));
    if (call.typeId) add("typeId", std::to_string(*call.typeId));
    if (call.params) {
        std::string params = "{";
        for (const auto& [name, value] : *call.params) {
            if (params.size() > 1) params += ", ";
            params += yamlText(name) + ": " + yamlText(value);
        }
        add("params", params + "}");
    }
    if (call.standing) add("standing", *call.standing ? "true" : "false");
    if (call.name) add("name", yamlText(*call.name));
    const char* kind = call.kind == Kind::registerTable ? "registerTable"
                       : call.kind == Kind::defineQuery ? "defineQuery"
                                                        : "removeQuery";
    return std::string(kind) + ": {" + out + "}";
}

bool matches(const Velta::Host::HostCall& call, const ExpectedCall& expected) {
    if (call.kind != expected.kind) return false;
    if (expected.path && *expected.path != call.path) return false;
    if (expected.typeName && *expected.typeName != call.typeName) return false;
    if (expected.tableType && *expected.tableType != static_cast<unsigned>(call.tableType)) return false;
    if (expected.desiredFlags && *expected.desiredFlags != call.desiredFlags) return false;
    if (expected.flags && *expected.flags != call.flags) return false;
    if (expected.owner && *expected.owner != call.owner) return false;
    if (expected.text && *expected.text != call.text) return false;
    if (expected.typeId && *expected.typeId != call.typeId) return false;
    if (expected.params && *expected.params != call.params) return false;
    if (expected.standing && *expected.standing != call.standing) return false;
    if (expected.name && *expected.name != call.name) return false;
    return true;
}

std::vector<std::string> formatTable(const RowType& type, const std::vector<BaseRow>& rows,
                                     const ExtraColumn& extra) {
    std::vector<std::size_t> columns;
    for (std::size_t i = 0; i < type.fields().size(); ++i) {
        bool keep = std::find(type.keyFields().begin(), type.keyFields().end(), i) != type.keyFields().end();
        for (const BaseRow& row : rows) keep = keep || !isDefault(row, i);
        if (keep) columns.push_back(i);
    }
    std::vector<std::vector<std::string>> cells;
    std::vector<std::string> header;
    for (const std::size_t c : columns) header.push_back(type.fields()[c].name);
    if (!extra.header.empty()) header.push_back(extra.header);
    cells.push_back(header);
    for (std::size_t r = 0; r < rows.size(); ++r) {
        std::vector<std::string> line;
        for (const std::size_t c : columns) line.push_back(formatValue(rows[r], c));
        if (!extra.header.empty()) line.push_back(r < extra.cells.size() ? extra.cells[r] : "");
        cells.push_back(std::move(line));
    }
    std::vector<std::size_t> widths(header.size(), 0);
    for (const auto& line : cells)
        for (std::size_t c = 0; c < line.size(); ++c) widths[c] = std::max(widths[c], displayWidth(line[c]));
    std::vector<std::string> out;
    auto render = [&](const std::vector<std::string>& line) {
        std::string text;
        for (std::size_t c = 0; c < line.size(); ++c) {
            if (c > 0) text += "  ";
            text += line[c];
            if (c + 1 < line.size()) text.append(widths[c] - displayWidth(line[c]), ' ');
        }
        return text;
    };
    out.push_back(render(cells.front()));
    std::vector<std::string> rule;
    for (const std::size_t w : widths) rule.emplace_back(w, '-');
    out.push_back(render(rule));
    for (std::size_t r = 1; r < cells.size(); ++r) out.push_back(render(cells[r]));
    return out;
}

}  // namespace VeltaSim
