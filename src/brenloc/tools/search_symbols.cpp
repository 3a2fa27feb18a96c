// search_symbols: symbol definitions by name, best first, in an answer that stays within its size cap.
#include <algorithm>
#include <filesystem>
#include <optional>

#include "brenloc/aio/thread.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/storage/source_text.h"
#include "brenloc/symbol_kinds.h"
#include "brenloc/tool_binding.h"
#include "brenloc/tools/tool.h"
#include "brenloc/utils/path_text.h"
#include "brenloc/utils/utf8.h"

namespace brenloc::tools {

namespace {

namespace fs = std::filesystem;
using Match = storage::SymbolQuery::Match;

struct Arguments {
  daemon::SearchArgs search;
  std::size_t max_bytes = 0;
};

constexpr std::string_view kMatchModes[] = {"auto", "exact", "prefix", "substring", "fuzzy"};
constexpr Match kMatches[] = {Match::automatic, Match::exact, Match::prefix, Match::substring, Match::fuzzy};

std::string_view match_name(Match m) {
  return kMatchModes[std::ranges::find(kMatches, m) - std::begin(kMatches)];
}

const Binding<Arguments>& binding() {
  using T = ArgumentType;
  static const Binding<Arguments> b{
      {{"query", T::string, true, nullptr,
        "Name to look for: a whole name, its start, a part of it or its letters in order (\"gSB\" finds "
        "getStatusBar); \"Cart.add\" also asks for the scope; * and ? are wildcards",
        {}, 1000},
       [](Arguments& a, const json& v) { a.search.query = v.get<std::string>(); }},
      {{"match", T::string, false, "auto",
        "How the query matches: auto (every way, best first), exact, prefix, substring or fuzzy", {}, {}, kMatchModes},
       [](Arguments& a, const json& v) {
         a.search.match = kMatches[std::ranges::find(kMatchModes, v.get<std::string>()) - std::begin(kMatchModes)];
       }},
      {{"kind", T::string, false, nullptr, "Only symbols of this kind", {}, {}, kSymbolKinds},
       [](Arguments& a, const json& v) { a.search.kind = v.is_null() ? std::nullopt : std::optional(v.get<std::string>()); }},
      {{"path", T::string, false, nullptr,
        "Only files under this directory, or matching this glob, relative to the repository root"},
       [](Arguments& a, const json& v) { a.search.path = v.is_null() ? std::nullopt : std::optional(v.get<std::string>()); }},
      {{"language", T::string, false, nullptr, "Only files of this language", {}, {}, kLanguages},
       [](Arguments& a, const json& v) {
         a.search.language = v.is_null() ? std::nullopt : std::optional(v.get<std::string>());
       }},
      {{"limit", T::integer, false, 20, "Largest number of results", 1, 1000},
       [](Arguments& a, const json& v) { a.search.limit = v.get<int>(); }},
      {{"max_bytes", T::integer, false, 16384, "Largest size of the answer in bytes of JSON; hits are cut to fit",
        1024, 1048576},
       into(&Arguments::max_bytes)},
  };
  return b;
}

json output_schema() {
  const json count = count_schema();
  json hit = object_schema({{"name", string_schema()},
                            {"kind", string_schema()},
                            {"path", string_schema()},
                            {"line", count},
                            {"column", count},
                            {"end_line", count},
                            {"scope", string_schema()},
                            {"language", string_schema()},
                            {"signature", string_or_null_schema()}},
                           {"name", "kind", "path", "line", "column", "end_line", "scope", "language", "signature"});
  json answer = object_schema({{"query", string_schema()},
                               {"match", {{"enum", {"auto", "exact", "prefix", "substring", "fuzzy"}}}},
                               {"total", count},
                               {"more", {{"type", "boolean"}}},
                               {"count", count},
                               {"truncated", {{"type", "boolean"}}},
                               {"results", {{"type", "array"}, {"items", hit}}},
                               {"note", string_schema()}},  // while the index is empty or its first pass runs
                              {"query", "match", "total", "more", "count", "truncated", "results"});
  return json{{"type", "object"}, {"oneOf", {answer, refusal_schema()}}};  // a path outside is refused
}

std::size_t json_size(const json& j) { return j.dump().size(); }

// A hit with its signature: its line as it is on disk now (null when the file cannot be read).
json hit_json(const storage::SymbolHit& h, storage::SourceFiles& sources) {
  const int first = h.start_line > 0 ? std::min(h.start_line, h.line) : h.line;
  auto lines = sources.lines(h.path, first, h.line);
  return json{{"name", utils::utf8_or_replaced(h.name)},
              {"kind", h.kind},
              {"path", h.path},
              {"line", h.line},
              {"column", h.column},
              {"end_line", h.end_line},
              {"scope", utils::utf8_or_replaced(h.scope)},
              {"language", h.language},
              {"signature",
               lines ? json(utils::utf8_or_replaced(storage::signature_of(*lines, h.line - first))) : json()}};
}

// {"query", "match", "total", "more", "count", "truncated", "results", ["note"]}: at most `max_bytes` of
// JSON (compact), unless even no hit at all would not fit. The signatures are read while the hits are cut
// to fit, so that hits past the cap are never read.
json render(const std::string& query, Match match, const daemon::SearchAnswer& answer, storage::SourceFiles& sources,
            std::size_t max_bytes) {
  const storage::SymbolSearch& found = answer.found;
  json results = json::array();
  // The answer without hits, with the largest numbers it can get, plus a comma per hit.
  std::size_t size = json_size(json{{"query", query},
                                    {"match", match_name(match)},
                                    {"total", found.total},
                                    {"more", found.more},
                                    {"count", found.hits.size()},
                                    {"truncated", false},
                                    {"results", json::array()}});
  bool truncated = false;
  for (const auto& h : found.hits) {
    json hit = hit_json(h, sources);
    const std::size_t more = json_size(hit) + (results.empty() ? 0 : 1);
    if (size + more > max_bytes) {
      truncated = true;
      break;
    }
    size += more;
    results.push_back(std::move(hit));
  }
  const auto count = results.size();
  json out{{"query", query},     {"match", match_name(match)}, {"total", found.total}, {"more", found.more},
           {"count", count},     {"truncated", truncated},     {"results", std::move(results)}};
  if (!answer.note.empty()) out["note"] = answer.note;
  return out;
}

aio::Task<json> call(daemon::RepoWorker& worker, json arguments) {
  Arguments a = binding().bind(arguments);
  if (a.search.path) {
    a.search.path = path_filter_within(worker.repo_root, *a.search.path);
    if (!a.search.path) co_return refusal_json(daemon::Refusal{"Path outside repository"});
  }
  const std::string query = a.search.query;
  const Match match = a.search.match;
  daemon::SearchAnswer answer = co_await worker.search(std::move(a.search));
  co_return co_await aio::to_thread([&, root = worker.repo_root] {
    storage::SourceFiles sources(root);
    return render(query, match, answer, sources, a.max_bytes);
  });
}

}  // namespace

const Tool& search_symbols() {
  static const Tool tool{
      .name = "search_symbols",
      .title = "Search symbols",
      .description =
          "Find symbol definitions by name, best first: exact names, then names starting with the query, then "
          "names containing it at a word boundary or anywhere, then names holding its letters in order anywhere "
          "(word starts first: gSB finds getStatusBar). Filter by "
          "kind, language or path (a directory or glob). Each hit has its signature line; the answer gives the "
          "total and stays small (hits are cut, and it says so).",
      .arguments = binding().arguments(),
      .output_schema = output_schema(),
      .annotations = read_only(),
      .call = call,
  };
  return tool;
}

}  // namespace brenloc::tools
