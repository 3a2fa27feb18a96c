// find_importers: the files that include or import a file of the tree or a module.
#include "brenloc/aio/thread.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/tool_binding.h"
#include "brenloc/tools/tool.h"
#include "brenloc/utils/utf8.h"

namespace brenloc::tools {

namespace {

struct Arguments {
  daemon::ImportersArgs importers;
  std::size_t limit = 0, max_bytes = 0;
};

const Binding<Arguments>& binding() {
  using T = ArgumentType;
  static const Binding<Arguments> b{
      {{"path", T::string, false, nullptr, "A file of the repository, relative to its root"},
       [](Arguments& a, const json& v) { a.importers.path = v.is_null() ? std::nullopt : std::optional(v.get<std::string>()); }},
      {{"module", T::string, false, nullptr,
        "Instead of a path: a module or header as written in imports (utils.retry, net/socket.h, react)", {}, 1000},
       [](Arguments& a, const json& v) {
         a.importers.module = v.is_null() ? std::nullopt : std::optional(v.get<std::string>());
       }},
      {{"limit", T::integer, false, 100, "Largest number of importers in the answer", 1, 1000}, into(&Arguments::limit)},
      {{"max_bytes", T::integer, false, 16384, "Largest size of the answer in bytes of JSON; importers are cut to fit",
        1024, 1048576},
       into(&Arguments::max_bytes)},
  };
  return b;
}

json output_schema() {
  const json count = count_schema();
  json importer = object_schema({{"path", string_schema()}, {"language", string_schema()}, {"line", count},
                                 {"import", string_schema()}},
                                {"path", "language", "line", "import"});
  json answer = object_schema({{"path", string_schema()},
                               {"module", string_schema()},
                               {"total", count},
                               {"more", {{"type", "boolean"}}},
                               {"count", count},
                               {"truncated", {{"type", "boolean"}}},
                               {"importers", {{"type", "array"}, {"items", importer}}},
                               {"note", string_schema()}},
                              {"total", "more", "count", "truncated", "importers"});
  return json{{"type", "object"}, {"oneOf", {answer, refusal_schema()}}};
}

// {"path" | "module", "total", "more", "count", "truncated", "importers": [{"path", "language", "line",
// "import"}], ["note"]}: at most `limit` importers and `max_bytes` of JSON.
json render(const Arguments& a, const daemon::Importers& found) {
  json out = a.importers.path ? json{{"path", found.path}} : json{{"module", utils::utf8_or_replaced(*a.importers.module)}};
  out["total"] = found.importers.size();
  out["more"] = false;
  out["count"] = 0;
  out["truncated"] = false;
  out["importers"] = json::array();
  if (!found.note.empty()) out["note"] = found.note;
  std::size_t size = out.dump().size() + 10;
  json list = json::array();
  for (const storage::ImportHit& h : found.importers) {
    json row{{"path", h.path}, {"language", h.language}, {"line", h.line}, {"import", utils::utf8_or_replaced(h.target)}};
    const std::size_t more = row.dump().size() + 1;
    if (list.size() == a.limit || size + more > a.max_bytes) {
      out["truncated"] = true;
      break;
    }
    size += more;
    list.push_back(std::move(row));
  }
  out["count"] = list.size();
  out["importers"] = std::move(list);
  return out;
}

aio::Task<json> call(daemon::RepoWorker& worker, json arguments) {
  Arguments a = binding().bind(arguments);
  if (a.importers.path.has_value() == a.importers.module.has_value()) {
    throw ArgumentError("path", "give a 'path' or a 'module' (one of them)");
  }
  daemon::ImportersAnswer answer = co_await worker.importers(a.importers);
  if (auto* refusal = std::get_if<daemon::Refusal>(&answer)) co_return refusal_json(*refusal);
  co_return render(a, std::get<daemon::Importers>(answer));
}

}  // namespace

const Tool& find_importers() {
  static const Tool tool{
      .name = "find_importers",
      .title = "Find importers",
      .description =
          "The files that include or import a file of the repository (by path: quoted and bracketed includes, "
          "Python modules and relative imports, JavaScript and TypeScript relative modules, Go packages, Rust "
          "modules, Java classes, resolved as their language does) or a module as written (module), each with "
          "the line of its import.",
      .arguments = binding().arguments(),
      .output_schema = output_schema(),
      .annotations = read_only(),
      .call = call,
  };
  return tool;
}

}  // namespace brenloc::tools
