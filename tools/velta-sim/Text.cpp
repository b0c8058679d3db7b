#include "Text.h"

#include <locale.h>
#include <wchar.h>

#include <algorithm>
#include <cstdio>

namespace VeltaSim {

namespace {

// Levenshtein distance, one row at a time.
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

// The character that starts at text[i]: its code and its length in bytes, or, when the bytes
// there start no UTF-8 character, length 1 and valid false.
struct Decoded {
    char32_t code;
    std::size_t length;
    bool valid;
};

Decoded decodeAt(std::string_view text, std::size_t i) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const std::size_t length = lead < 0x80             ? 1
                               : (lead & 0xe0) == 0xc0 ? 2
                               : (lead & 0xf0) == 0xe0 ? 3
                               : (lead & 0xf8) == 0xf0 ? 4
                                                       : 0;
    char32_t code = length == 1 ? lead : lead & (0x7f >> length);
    bool valid = length != 0 && i + length <= text.size();
    for (std::size_t k = 1; valid && k < length; ++k) {
        const auto next = static_cast<unsigned char>(text[i + k]);
        valid = (next & 0xc0) == 0x80;
        code = (code << 6) | (next & 0x3f);
    }
    return valid ? Decoded{code, length, true} : Decoded{lead, 1, false};
}

// The C0 and C1 controls, DEL, and the line and paragraph separators: what starts a new line or
// moves the cursor somewhere in some terminal or reader.
bool isControl(char32_t code) {
    return code < 0x20 || (code >= 0x7f && code <= 0x9f) || code == 0x2028 || code == 0x2029;
}

}  // namespace

bool hasControl(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const Decoded d = decodeAt(text, i);
        if (d.valid && isControl(d.code)) return true;
        i += d.length;
    }
    return false;
}

std::string quoted(std::string_view text) {
    return hasControl(text) ? doubleQuoted(text, Quoting::yaml) : "'" + std::string(text) + "'";
}

std::string oneLine(std::string_view text) {
    return hasControl(text) ? doubleQuoted(text, Quoting::yaml) : std::string(text);
}

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const std::string& item : items) {
        if (!out.empty()) out += ", ";
        out += oneLine(item);
    }
    return out;
}

std::string counted(std::size_t count, std::string_view noun) {
    return std::to_string(count) + " " + std::string(noun) + (count == 1 ? "" : "s");
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

std::string doubleQuoted(std::string_view text, Quoting quoting) {
    const bool json = quoting == Quoting::json;
    std::string out = "\"";
    for (std::size_t i = 0; i < text.size();) {
        const Decoded d = decodeAt(text, i);
        const char ch = text[i];
        i += d.length;
        if (d.length > 1) {
            // A control beyond ASCII is escaped by its code; any other character is kept as it is.
            if (isControl(d.code)) {
                char buffer[8];
                std::snprintf(buffer, sizeof buffer, json || d.code > 0xff ? "\\u%04x" : "\\x%02x",
                              static_cast<unsigned>(d.code));
                out += buffer;
            } else {
                out.append(text.substr(i - d.length, d.length));
            }
            continue;
        }
        if (!d.valid && json) {
            out += "\\ufffd";  // JSON text is Unicode: a byte that starts no character cannot be told
            continue;
        }
        const auto c = static_cast<unsigned char>(ch);
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\b':
                out += json ? "\\b" : "\\x08";
                break;
            case '\f':
                out += json ? "\\f" : "\\x0c";
                break;
            default:
                if (c < 0x20 || (c == 0x7f && !json)) {
                    char buffer[8];
                    std::snprintf(buffer, sizeof buffer, json ? "\\u%04x" : "\\x%02x", c);
                    out += buffer;
                } else {
                    out += ch;
                }
        }
    }
    return out + "\"";
}

std::size_t displayWidth(std::string_view text) {
    // The C library knows the width of each character (wide East Asian ones 2, combining marks
    // 0) under a UTF-8 locale; the text is decoded here so that no process locale is touched.
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
    std::size_t width = 0;
    for (std::size_t i = 0; i < text.size();) {
        const Decoded d = decodeAt(text, i);
        i += d.length;
        if (!d.valid || d.length == 1 || utf8 == nullptr) {
            // ASCII, a byte that starts no character (one column, as a terminal shows it), or no
            // character widths to ask.
            width += 1;
            continue;
        }
        const locale_t previous = uselocale(utf8);
        const int columns = wcwidth(static_cast<wchar_t>(d.code));
        uselocale(previous);
        width += columns < 0 ? 1 : static_cast<std::size_t>(columns);
    }
    return width;
}

}  // namespace VeltaSim
