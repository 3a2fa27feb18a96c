#include "brenloc/storage/definition_source.h"

#include <algorithm>

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

}  // namespace brenloc::storage
