// The answers of search, outline, source, refs and importers as lines for a person at a terminal, in the manner of grep
// and ctags -x: `path:line: kind name  signature`, an outline indented by depth, a definition's source
// under its location. What does not fit the lines (more hits than shown, a cut answer) goes to `notes`.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace brenloc::app {

struct TextView {
  std::string lines;               // for stdout, each ending in a newline
  std::vector<std::string> notes;  // for stderr, one line each
};

TextView search_text(const nlohmann::ordered_json& answer);
TextView outline_text(const nlohmann::ordered_json& answer);
TextView source_text(const nlohmann::ordered_json& answer);
// `path:line:col: text` per use, as grep -n --column prints a match; `path:line: import` per importer.
TextView references_text(const nlohmann::ordered_json& answer);
TextView importers_text(const nlohmann::ordered_json& answer);

}  // namespace brenloc::app
