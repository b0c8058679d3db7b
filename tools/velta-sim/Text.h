// Text helpers shared by velta-sim's parser, formats and report: quoting for messages, "did you
// mean" hints, double-quoted escaping and the width of a text on a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace VeltaSim {

// Whether `text` has a control character (below 0x20, or DEL).
bool hasControl(std::string_view text);
// 'text', as messages quote names and keys; a text with a control character (a newline, say) is
// double-quoted and escaped instead, so that a message stays on its line.
std::string quoted(std::string_view text);
// `text` itself, or double-quoted and escaped when it has a control character.
std::string oneLine(std::string_view text);
// The items separated by ", ", each on one line as oneLine gives it.
std::string joined(const std::vector<std::string>& items);
// "1 row", "2 rows": `count` and `noun`, with an "s" unless the count is one.
std::string counted(std::size_t count, std::string_view noun);
// " (did you mean 'candidate'?)" for the candidate nearest to `word` in edit distance when it is
// near enough (at most a third of the word, or 2, wrong); "" when none is.
std::string suggestion(std::string_view word, const std::vector<std::string>& candidates);

// The two double-quoted forms velta-sim writes. Both escape `"`, `\`, newline, tab and carriage
// return by letter; other control characters differ: YAML writes \xNN (and escapes DEL, which is
// not printable in YAML), JSON has no \x and writes \b, \f and \u00NN.
enum class Quoting { yaml, json };
// `text` between double quotes, escaped as `quoting` requires.
std::string doubleQuoted(std::string_view text, Quoting quoting);

// The columns `text` takes on a terminal: UTF-8 characters, wide East Asian ones counting 2 and
// combining marks 0.
std::size_t displayWidth(std::string_view text);

}  // namespace VeltaSim
