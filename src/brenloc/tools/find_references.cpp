// find_references: where a name is used in code, file by file, with the definition around each use, a
// page at a time within the answer's size cap.
#include <algorithm>

#include "brenloc/aio/thread.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/tool_binding.h"
#include "brenloc/tools/tool.h"
#include "brenloc/utils/utf8.h"

namespace brenloc::tools {

namespace {

constexpr std::string_view kRoles[] = {"other", "call", "type", "import", "definition"};
// Longer lines are cut (minified code): a line is shown to place the use, not to be read whole.
constexpr std::size_t kLineBytes = 240;

struct Arguments {
  daemon::ReferencesArgs refs;
  std::size_t max_bytes = 0;
};

// A cursor is "<file>:<uses to skip in it>", as an answer's next_cursor gives it.
void read_cursor(Arguments& a, const json& v) {
  if (v.is_null()) return;
  const std::string text = v.get<std::string>();
  const std::size_t colon = text.find(':');
  auto digits = [](std::string_view s) {
    return !s.empty() && s.size() <= 15 && std::ranges::all_of(s, [](char c) { return c >= '0' && c <= '9'; });
  };
  if (colon == std::string::npos || !digits(text.substr(0, colon)) || !digits(text.substr(colon + 1))) {
    throw ArgumentError("cursor",
                        "argument 'cursor' is not one that find_references gave (pass an answer's next_cursor as it is)");
  }
  a.refs.from_file = std::stoll(text.substr(0, colon));
  a.refs.skip = std::stoll(text.substr(colon + 1));
}

const Binding<Arguments>& binding() {
  using T = ArgumentType;
  static const Binding<Arguments> b{
      {{"name", T::string, false, nullptr, "The name whose uses to find (exact, case-sensitive)", {}, 1000},
       [](Arguments& a, const json& v) { a.refs.name = v.is_null() ? std::nullopt : std::optional(v.get<std::string>()); }},
      {{"path", T::string, false, nullptr,
        "With a name: only files under this directory, or matching this glob. Without: the file of the definition "
        "at `line`, whose name is looked for"},
       [](Arguments& a, const json& v) { a.refs.path = v.is_null() ? std::nullopt : std::optional(v.get<std::string>()); }},
      {{"line", T::integer, false, nullptr, "A line of the definition in the file `path` (instead of a name)", 1, 100000000},
       [](Arguments& a, const json& v) { a.refs.line = v.is_null() ? 0 : v.get<int>(); }},
      {{"role", T::string, false, nullptr,
        "Only uses of this role: call, type (a type named), import (include or import), definition (the name "
        "being defined), other",
        {}, {}, kRoles},
       [](Arguments& a, const json& v) {
         if (v.is_null()) return;
         a.refs.roles = 1u << (std::ranges::find(kRoles, v.get<std::string>()) - std::begin(kRoles));
       }},
      {{"limit", T::integer, false, 50, "Largest number of uses in the answer", 1, 1000},
       [](Arguments& a, const json& v) { a.refs.limit = v.get<int>(); }},
      {{"max_bytes", T::integer, false, 16384, "Largest size of the answer in bytes of JSON; uses are cut to fit",
        1024, 1048576},
       into(&Arguments::max_bytes)},
      {{"cursor", T::string, false, nullptr, "An earlier answer's next_cursor: the uses after those it held", {}, 40},
       read_cursor},
  };
  return b;
}

json output_schema() {
  const json count = count_schema();
  json within = object_schema({{"name", string_schema()}, {"kind", string_schema()}, {"line", count}},
                              {"name", "kind", "line"});
  json use = object_schema({{"line", count},
                            {"column", count},
                            {"role", {{"enum", {"call", "type", "import", "definition", "other"}}}},
                            {"text", string_schema()},
                            {"definition", {{"oneOf", {within, {{"type", "null"}}}}}}},
                           {"line", "column", "role", "text", "definition"});
  json file = object_schema({{"path", string_schema()},
                             {"language", string_schema()},
                             {"references", {{"type", "array"}, {"items", use}}}},
                            {"path", "language", "references"});
  json answer = object_schema({{"name", string_schema()},
                               {"total", count},
                               {"more", {{"type", "boolean"}}},
                               {"count", count},
                               {"truncated", {{"type", "boolean"}}},
                               {"next_cursor", string_schema()},
                               {"files", {{"type", "array"}, {"items", file}}},
                               {"note", string_schema()}},
                              {"name", "total", "more", "count", "truncated", "files"});
  return json{{"type", "object"}, {"oneOf", {answer, refusal_schema()}}};
}

std::size_t json_size(const json& j) { return j.dump().size(); }

std::string cursor_text(std::int64_t file, std::int64_t skip) { return std::to_string(file) + ":" + std::to_string(skip); }

json use_json(const daemon::Reference& r) {
  std::string_view text = r.text;
  if (text.size() > kLineBytes) {
    std::size_t cut = kLineBytes;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xc0) == 0x80) --cut;  // not inside a character
    text = text.substr(0, cut);
  }
  json within;
  if (r.within) within = json{{"name", utils::utf8_or_replaced(r.within->name)}, {"kind", r.within->kind}, {"line", r.within->line}};
  return json{{"line", r.line},
              {"column", r.column},
              {"role", kRoles[static_cast<std::size_t>(r.role)]},
              {"text", utils::utf8_or_replaced(text)},
              {"definition", std::move(within)}};
}

// {"name", "total", "more", "count", "truncated", ["next_cursor"], "files": [{"path", "language",
// "references": [...]}], ["note"]}: the uses that fit in `max_bytes`; the cursor of the first one left out
// (or of the page after) is the next page's.
json render(const daemon::References& found, std::size_t max_bytes) {
  json out{{"name", utils::utf8_or_replaced(found.name)}, {"total", found.total}, {"more", found.more},
           {"count", 0},  {"truncated", false},                           {"files", json::array()}};
  if (!found.note.empty()) out["note"] = found.note;
  std::size_t size = json_size(out) + 40;  // with the largest count and a cursor
  std::size_t count = 0;
  std::optional<std::string> next;
  if (found.next) next = cursor_text(found.next->first, found.next->second);
  json files = json::array();
  for (const daemon::ReferenceFile& f : found.files) {
    json file{{"path", f.path}, {"language", f.language}, {"references", json::array()}};
    std::size_t file_size = json_size(file) + (files.empty() ? 0 : 1);
    for (const daemon::Reference& r : f.hits) {
      json use = use_json(r);
      const std::size_t more = json_size(use) + 1 + (file["references"].empty() ? file_size : 0);
      if (size + more > max_bytes && count > 0) {
        next = cursor_text(r.file_id, r.ordinal);
        out["truncated"] = true;
        break;
      }
      size += more;
      ++count;
      file["references"].push_back(std::move(use));
    }
    if (!file["references"].empty()) files.push_back(std::move(file));
    if (out["truncated"].get<bool>()) break;
  }
  out["count"] = count;
  out["files"] = std::move(files);
  if (next) out["next_cursor"] = *next;
  return out;
}

aio::Task<json> call(daemon::RepoWorker& worker, json arguments) {
  Arguments a = binding().bind(arguments);
  if (!a.refs.name && (!a.refs.path || a.refs.line == 0)) {
    throw ArgumentError("name", "give a 'name', or a 'path' and a 'line'");
  }
  if (a.refs.name && a.refs.path) {
    a.refs.path = path_filter_within(worker.repo_root, *a.refs.path);
    if (!a.refs.path) co_return refusal_json(daemon::Refusal{"Path outside repository"});
  }
  daemon::ReferencesAnswer answer = co_await worker.references(std::move(a.refs));
  if (auto* refusal = std::get_if<daemon::Refusal>(&answer)) co_return refusal_json(*refusal);
  co_return co_await aio::to_thread([&] { return render(std::get<daemon::References>(answer), a.max_bytes); });
}

}  // namespace

const Tool& find_references() {
  static const Tool tool{
      .name = "find_references",
      .title = "Find references",
      .description =
          "Where a name is used in code (never in comments or strings), by name or by the definition at a path "
          "and line: uses grouped by file, each with its line, column, role (call, type, import, definition, "
          "other), the line's text and the definition around it (so the callers of f are the definitions around "
          "its calls: role=call). Filter by path (a directory or glob) or role; large answers come in pages: "
          "pass an answer's next_cursor as cursor.",
      .arguments = binding().arguments(),
      .output_schema = output_schema(),
      .annotations = read_only(),
      .call = call,
  };
  return tool;
}

}  // namespace brenloc::tools
