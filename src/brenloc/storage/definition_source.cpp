#include "brenloc/storage/definition_source.h"

#include <algorithm>

#include "brenloc/utils/utf8.h"

namespace brenloc::storage {

namespace {

int first_line(const SymbolRow& s) { return s.start_line > 0 ? std::min(s.start_line, s.line) : s.line; }

}  // namespace

std::optional<SymbolHit> definition_at(const FileEntry& file, int line) {
  const SymbolRow* best = nullptr;
  for (const SymbolRow& s : file.symbols) {
    if (first_line(s) > line || line > s.end_line) continue;
    // Rows come outer before inner: a later row that holds the line is nested deeper (or alike).
    if (best == nullptr || (first_line(*best) <= first_line(s) && s.end_line <= best->end_line)) best = &s;
  }
  if (best == nullptr) return std::nullopt;
  return SymbolHit{best->name,  best->kind,         file.file.path, best->line,         best->column,
                   best->end_line, best->scope, file.file.language, 0,            first_line(*best)};
}

json source_answer(const SymbolHit& d, SourceFiles& sources, int max_lines,
                                     std::int64_t other_matches) {
  const int first = d.start_line > 0 ? std::min(d.start_line, d.line) : d.line;
  const int last = std::min(std::max(d.end_line, d.line), first + max_lines - 1);
  auto text = sources.lines(d.path, first, last);
  json signature;
  if (text) signature = utils::utf8_or_replaced(signature_of(*text, d.line - first));
  return json{{"name", utils::utf8_or_replaced(d.name)},
              {"kind", d.kind},
              {"path", d.path},
              {"language", d.language},
              {"line", d.line},
              {"start_line", first},
              {"end_line", d.end_line},
              {"scope", utils::utf8_or_replaced(d.scope)},
              {"signature", signature},
              {"source", text ? json(utils::utf8_or_replaced(*text)) : json()},
              {"truncated", d.end_line > last},
              {"other_matches", other_matches}};
}

}  // namespace brenloc::storage
