// file_outline: the definitions of one file as a tree, in an answer that stays within its size cap.
#include <algorithm>
#include <vector>

#include "brenloc/aio/thread.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/tool_binding.h"
#include "brenloc/tools/tool.h"
#include "brenloc/utils/utf8.h"

namespace brenloc::tools {

namespace {

constexpr std::size_t kOutlineBytes = 64 * 1024;

struct Arguments {
  std::string path;
  std::size_t first = 0;  // the file's entry the page starts with, from a cursor
};

// A cursor is the position, in file order, of the first entry of the next page.
std::size_t cursor_position(const json& v) {
  const std::string text = v.get<std::string>();
  if (text.empty() || text.size() > 9 || !std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; })) {
    throw ArgumentError("cursor", "argument 'cursor' is not one that file_outline gave (pass an answer's next_cursor as it is)");
  }
  return std::stoul(text);
}

const Binding<Arguments>& binding() {
  static const Binding<Arguments> b{
      {{"path", ArgumentType::string, true, nullptr, "File, relative to the repository root"}, into(&Arguments::path)},
      {{"cursor", ArgumentType::string, false, nullptr,
        "An earlier answer's next_cursor: the definitions after those it held"},
       [](Arguments& a, const json& v) { a.first = v.is_null() ? 0 : cursor_position(v); }},
  };
  return b;
}

// A file's definitions as a tree, or a refusal (a path outside the repository, a file not indexed).
json output_schema() {
  const json count = count_schema();
  json node = object_schema({{"name", string_schema()},
                             {"kind", string_schema()},
                             {"line", count},
                             {"end_line", count},
                             {"children", {{"type", "array"}, {"items", {{"$ref", "#/$defs/node"}}}}}},
                            {"name", "kind", "line", "end_line", "children"});
  json tree = object_schema({{"path", string_schema()},
                             {"language", string_schema()},
                             {"total", count},
                             {"count", count},
                             {"truncated", {{"type", "boolean"}}},
                             {"next_cursor", string_schema()},  // when truncated: the next page's cursor
                             {"symbols", {{"type", "array"}, {"items", {{"$ref", "#/$defs/node"}}}}}},
                            {"path", "language", "total", "count", "truncated", "symbols"});
  return json{{"type", "object"}, {"$defs", {{"node", node}}}, {"oneOf", {tree, refusal_schema()}}};
}

std::size_t json_size(const json& j) { return j.dump().size(); }

// Whether `scope` names the definition `name` (its last part is that name).
bool scope_ends_with(const std::string& scope, const std::string& name) {
  if (!scope.ends_with(name)) return false;
  if (scope.size() == name.size()) return true;
  const char before = scope[scope.size() - name.size() - 1];
  return before == ':' || before == '.' || before == '/';
}

// {"path", "language", "total", "count", "truncated", ["next_cursor"], "symbols": [{"name", "kind", "line",
// "end_line", "children"}]}: a definition is a child of the nearest one before it whose lines hold its line
// and whose name ends the scope the indexer recorded for it; the rest (a method defined out of its class,
// say) stand at the top, as do children whose parent was on an earlier page. A page holds the entries
// from `first` on, in file order, as many as fit in `max_bytes`; the rest are the next page's.
json render(const storage::FileEntry& file, std::size_t first, std::size_t max_bytes) {
  // Entries in file order with their parents, then those that fit, then the tree.
  const auto& rows = file.symbols;
  std::vector<int> parent(rows.size(), -1);
  std::vector<int> open;  // the chain of entries that may still take children
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const storage::SymbolRow& s = rows[i];
    while (!open.empty()) {
      const storage::SymbolRow& p = rows[static_cast<std::size_t>(open.back())];
      if (p.line <= s.line && s.line <= p.end_line && scope_ends_with(s.scope, p.name)) break;
      open.pop_back();
    }
    if (!open.empty() && static_cast<std::size_t>(open.back()) >= first) parent[i] = open.back();
    open.push_back(static_cast<int>(i));
  }
  json head{{"path", file.file.path}, {"language", file.file.language}, {"total", rows.size()},
            {"count", rows.size()},   {"truncated", false},                {"symbols", json::array()}};
  std::size_t size = json_size(head);
  std::vector<json> nodes(rows.size());
  std::vector<bool> kept(rows.size(), false);
  std::size_t next = rows.size();
  for (std::size_t i = first; i < rows.size(); ++i) {
    nodes[i] = json{{"name", utils::utf8_or_replaced(rows[i].name)}, {"kind", rows[i].kind}, {"line", rows[i].line},
                    {"end_line", rows[i].end_line}, {"children", json::array()}};
    const std::size_t more = json_size(nodes[i]) + 1;
    if (size + more > max_bytes && i > first) {  // a page holds at least one entry
      next = i;
      break;
    }
    size += more;
    kept[i] = true;
  }
  const bool truncated = next < rows.size();
  // Children are attached from the last entry back, so that each node is complete when it is moved.
  json top = json::array();
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
  if (next < rows.size()) head["next_cursor"] = std::to_string(next);
  head["symbols"] = std::move(top);
  return head;
}

aio::Task<json> call(daemon::RepoWorker& worker, json arguments) {
  Arguments a = binding().bind(arguments);
  daemon::OutlineAnswer answer = co_await worker.outline(std::move(a.path));
  if (auto* refusal = std::get_if<daemon::Refusal>(&answer)) co_return refusal_json(*refusal);
  const auto& file = std::get<storage::FileEntry>(answer);
  if (a.first > 0 && a.first >= file.symbols.size()) {
    throw ArgumentError("cursor", "argument 'cursor' is past the file's definitions (the file changed since: start again without it)");
  }
  co_return co_await aio::to_thread([&] { return render(file, a.first, kOutlineBytes); });
}

}  // namespace

const Tool& file_outline() {
  static const Tool tool{
      .name = "file_outline",
      .title = "File outline",
      .description = "The definitions of one file as a tree (classes with their members), with kinds and lines. "
                     "A large file comes in pages: pass an answer's next_cursor as cursor for the next.",
      .arguments = binding().arguments(),
      .output_schema = output_schema(),
      .annotations = read_only(),
      .call = call,
  };
  return tool;
}

}  // namespace brenloc::tools
