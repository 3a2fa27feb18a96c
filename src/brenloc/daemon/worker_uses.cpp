// The worker's answers about uses: the references of a name, read from the index and checked against the
// files as they read now, and the importers of a file or module.
#include <algorithm>
#include <filesystem>
#include <set>

#include <fmt/format.h>

#include "brenloc/aio/thread.h"
#include "brenloc/daemon/reindex_paths.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/engines/import_paths.h"
#include "brenloc/storage/definition_source.h"
#include "brenloc/storage/source_text.h"
#include "brenloc/utils/path_text.h"

namespace brenloc::daemon {

namespace {

namespace fs = std::filesystem;

std::variant<std::string, Refusal> file_in_root(const fs::path& root, const std::string& requested) {
  auto [resolved, refusal] = guard_requested_path(root, requested);
  if (refusal) return Refusal{*refusal};
  return utils::path_text(resolved.lexically_relative(root).generic_string());
}

bool name_char(char c) {
  const auto u = static_cast<unsigned char>(c);
  return std::isalnum(u) || c == '_' || c == '$' || u >= 0x80;
}

// Whether `name` stands at `offset` of `text` as a whole word: the file may have changed since it was
// read, and two names may share a key.
bool stands_at(std::string_view text, std::uint32_t offset, std::string_view name) {
  if (offset > text.size() || text.substr(offset, name.size()) != name) return false;
  const std::size_t end = offset + name.size();
  return (offset == 0 || !name_char(text[offset - 1])) && (end >= text.size() || !name_char(text[end]));
}

// The innermost definition whose lines hold `line`, other than the one named at line:column.
std::optional<storage::SymbolHit> definition_around(const storage::FileEntry& file, int line, int column) {
  const storage::SymbolRow* best = nullptr;
  for (const storage::SymbolRow& s : file.symbols) {
    const int first = s.start_line > 0 ? std::min(s.start_line, s.line) : s.line;
    if (line < first || line > s.end_line || (s.line == line && s.column == column)) continue;
    if (best == nullptr || s.end_line - first <= best->end_line - std::min(best->start_line > 0 ? best->start_line : best->line, best->line)) {
      best = &s;
    }
  }
  if (best == nullptr) return std::nullopt;
  return storage::SymbolHit{.name = best->name, .kind = best->kind, .path = file.file.path, .line = best->line,
                            .column = best->column, .end_line = best->end_line, .scope = best->scope,
                            .language = file.file.language};
}

// The hits of a page with their lines, columns, texts and definitions around them, file by file.
std::vector<ReferenceFile> located(const std::string& name, const std::vector<storage::UseHit>& hits,
                                   storage::Repository& repo, storage::SourceFiles& sources) {
  std::vector<ReferenceFile> files;
  std::optional<storage::FileEntry> definitions;
  const std::string* text = nullptr;
  std::size_t scanned = 0;  // the text is scanned for lines once, up to the last hit
  int line = 1;
  std::size_t line_start = 0;
  for (const storage::UseHit& h : hits) {
    if (files.empty() || files.back().path != h.path) {
      files.push_back({h.path, h.language, {}});
      text = sources.content(h.path);
      definitions = repo.file_symbols(h.path);
      scanned = 0;
      line = 1;
      line_start = 0;
    }
    if (text == nullptr || !stands_at(*text, h.use.offset, name)) continue;
    for (; scanned < h.use.offset; ++scanned) {
      if ((*text)[scanned] == '\n') {
        ++line;
        line_start = scanned + 1;
      }
    }
    const std::size_t line_end = std::min(text->find('\n', h.use.offset), text->size());
    Reference r{.file_id = h.file_id, .ordinal = h.ordinal, .line = line,
                .column = static_cast<int>(h.use.offset - line_start) + 1, .role = h.use.role,
                .text = text->substr(line_start, line_end - line_start)};
    if (!r.text.empty() && r.text.back() == '\r') r.text.pop_back();
    if (definitions) r.within = definition_around(*definitions, r.line, r.column);
    files.back().hits.push_back(std::move(r));
  }
  std::erase_if(files, [](const ReferenceFile& f) { return f.hits.empty(); });
  return files;
}

}  // namespace

aio::Task<ReferencesAnswer> RepoWorker::references(ReferencesArgs args) {
  auto [answer, files] = co_await aio::to_thread(
      [repo = _repository, root = repo_root, args = std::move(args)]() -> std::pair<ReferencesAnswer, std::int64_t> {
        const std::int64_t indexed = repo->file_count();
        storage::UsesQuery query{.roles = args.roles, .from_file = args.from_file, .skip = args.skip, .limit = args.limit};
        if (args.name) {
          query.name = *args.name;
          query.path_prefix = args.path;
        } else {
          auto relative = file_in_root(root, args.path.value_or(""));
          if (auto* refusal = std::get_if<Refusal>(&relative)) return {*refusal, indexed};
          const std::string& rel = std::get<std::string>(relative);
          auto file = repo->file_symbols(rel);
          if (!file) return {Refusal{fmt::format("File not in the index: {}", rel)}, indexed};
          auto at = storage::definition_at(*file, args.line);
          if (!at) return {Refusal{fmt::format("No definition at {}:{}", rel, args.line)}, indexed};
          query.name = at->name;
        }
        storage::SourceFiles sources(root);
        storage::UsesPage page = repo->find_uses(query, sources);
        References out{.name = query.name, .total = page.total, .more = page.more, .next = page.next};
        out.files = located(query.name, page.hits, *repo, sources);
        return {std::move(out), indexed};
      });
  if (auto* found = std::get_if<References>(&answer)) found->note = search_note(files);
  co_return std::move(answer);
}

aio::Task<ImportersAnswer> RepoWorker::importers(ImportersArgs args) {
  auto [answer, files] = co_await aio::to_thread(
      [repo = _repository, root = repo_root, args = std::move(args)]() -> std::pair<ImportersAnswer, std::int64_t> {
        const std::int64_t indexed = repo->file_count();
        Importers out;
        if (args.path) {
          auto relative = file_in_root(root, *args.path);
          if (auto* refusal = std::get_if<Refusal>(&relative)) return {*refusal, indexed};
          out.path = std::get<std::string>(relative);
          for (storage::ImportHit& hit : repo->imports_by_stem(engines::stems_of_file(out.path))) {
            if (hit.path != out.path && engines::imports_file(hit.language, hit.path, hit.target, out.path)) {
              out.importers.push_back(std::move(hit));
            }
          }
        } else {
          const std::string& module = *args.module;
          for (storage::ImportHit& hit : repo->imports_by_stem({storage::import_stem(module)})) {
            if (engines::names_module(hit.target, module)) out.importers.push_back(std::move(hit));
          }
        }
        return {std::move(out), indexed};
      });
  if (auto* found = std::get_if<Importers>(&answer)) found->note = search_note(files);
  co_return std::move(answer);
}

}  // namespace brenloc::daemon
