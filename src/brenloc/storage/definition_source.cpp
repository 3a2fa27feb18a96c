#include "brenloc/storage/definition_source.h"

#include <algorithm>

namespace brenloc::storage {

std::optional<SymbolHit> definition_at(const FileEntry& file, int line) {
  const SymbolRow* best = nullptr;
  for (const SymbolRow& s : file.symbols) {
    if (s.line > line || line > s.end_line) continue;
    // Rows come outer before inner: a later row that holds the line is nested deeper (or alike).
    if (best == nullptr || (best->line <= s.line && s.end_line <= best->end_line)) best = &s;
  }
  if (best == nullptr) return std::nullopt;
  return SymbolHit{best->name,     best->kind,  file.file.path,          best->line, best->column,
                   best->end_line, best->scope, file.file.language, 0};
}

nlohmann::ordered_json source_answer(const SymbolHit& d, SourceFiles& sources, int max_lines,
                                     std::int64_t other_matches) {
  using json = nlohmann::ordered_json;
  const int last = std::min(std::max(d.end_line, d.line), d.line + max_lines - 1);
  auto text = sources.lines(d.path, d.line, last);
  json signature;
  if (text) signature = signature_of(std::string_view(*text).substr(0, text->find('\n')));
  return json{{"name", d.name},
              {"kind", d.kind},
              {"path", d.path},
              {"language", d.language},
              {"line", d.line},
              {"end_line", d.end_line},
              {"scope", d.scope},
              {"signature", signature},
              {"source", text ? json(*text) : json()},
              {"truncated", d.end_line > last},
              {"other_matches", other_matches}};
}

}  // namespace brenloc::storage
