#include "brenloc/storage/search_answer.h"

#include <algorithm>
#include <vector>

#include "brenloc/utils/utf8.h"

namespace brenloc::storage {


namespace {

std::size_t json_size(const json& j) { return j.dump().size(); }

json hit_json(const SymbolHit& h, SourceFiles& sources) {
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
              {"signature", lines ? json(utils::utf8_or_replaced(signature_of(*lines, h.line - first))) : json()}};
}

// Whether `scope` names the definition `parent` (its last part is the parent's name).
bool scope_ends_with(const std::string& scope, const std::string& name) {
  if (!scope.ends_with(name)) return false;
  if (scope.size() == name.size()) return true;
  const char before = scope[scope.size() - name.size() - 1];
  return before == ':' || before == '.' || before == '/';
}

}  // namespace

json search_answer(const std::string& query, const std::string& match, const SymbolSearch& found,
                   SourceFiles& sources, std::size_t max_bytes) {
  json results = json::array();
  // The answer without hits, with the largest numbers it can get, plus a comma per hit.
  std::size_t size = json_size(json{{"query", query},
                                    {"match", match},
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
  return json{{"query", query},     {"match", match},         {"total", found.total}, {"more", found.more},
              {"count", count},     {"truncated", truncated}, {"results", std::move(results)}};
}

json outline_answer(const FileEntry& file, std::size_t max_bytes) {
  // Entries in file order with their parents, then those that fit, then the tree.
  const auto& rows = file.symbols;
  std::vector<int> parent(rows.size(), -1);
  std::vector<int> open;  // the chain of entries that may still take children
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const SymbolRow& s = rows[i];
    while (!open.empty()) {
      const SymbolRow& p = rows[static_cast<std::size_t>(open.back())];
      if (p.line <= s.line && s.line <= p.end_line && scope_ends_with(s.scope, p.name)) break;
      open.pop_back();
    }
    if (!open.empty()) parent[i] = open.back();
    open.push_back(static_cast<int>(i));
  }
  json head{{"path", file.file.path}, {"language", file.file.language}, {"total", rows.size()},
            {"count", rows.size()},   {"truncated", false},                {"symbols", json::array()}};
  std::size_t size = json_size(head);
  std::vector<json> nodes(rows.size());
  std::vector<bool> kept(rows.size(), false);
  bool truncated = false;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    nodes[i] = json{{"name", utils::utf8_or_replaced(rows[i].name)}, {"kind", rows[i].kind}, {"line", rows[i].line},
                    {"end_line", rows[i].end_line}, {"children", json::array()}};
    const std::size_t more = json_size(nodes[i]) + 1;
    if (size + more > max_bytes || (parent[i] >= 0 && !kept[static_cast<std::size_t>(parent[i])])) {
      truncated = true;
      continue;
    }
    size += more;
    kept[i] = true;
  }
  // Children are attached from the last entry back, so that each node is complete when it is moved.
  json top = json::array();
  std::vector<json> attached;
  for (std::size_t i = rows.size(); i-- > 0;) {
    if (!kept[i]) continue;
    auto& children = nodes[i]["children"];
    std::reverse(children.begin(), children.end());
    if (parent[i] >= 0) {
      nodes[static_cast<std::size_t>(parent[i])]["children"].push_back(std::move(nodes[i]));
    } else {
      top.push_back(std::move(nodes[i]));
    }
  }
  std::reverse(top.begin(), top.end());
  std::size_t count = 0;
  for (bool k : kept) count += k;
  head["count"] = count;
  head["truncated"] = truncated;
  head["symbols"] = std::move(top);
  return head;
}

}  // namespace brenloc::storage
