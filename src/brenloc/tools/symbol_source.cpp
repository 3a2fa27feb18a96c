// symbol_source: the source of one definition, by name or by a path and a line.
#include "brenloc/daemon/worker.h"
#include "brenloc/symbol_kinds.h"
#include "brenloc/tool_binding.h"
#include "brenloc/tools/tool.h"
#include "brenloc/utils/utf8.h"

namespace brenloc::tools {

namespace {

const Binding<daemon::SourceArgs>& binding() {
  using A = daemon::SourceArgs;
  using T = ArgumentType;
  static const Binding<A> b{
      {{"name", T::string, false, nullptr, "Name of the definition (\"Cart.add\" also asks for the scope)"},
       into(&A::name)},
      {{"path", T::string, false, nullptr, "File of the definition, relative to the repository root"}, into(&A::path)},
      {{"kind", T::string, false, nullptr, "Kind of the definition", {}, {}, kSymbolKinds}, into(&A::kind)},
      {{"line", T::integer, false, nullptr, "A line of the definition in that file (instead of a name)", 1, 100000000},
       [](A& a, const json& v) { a.line = v.is_null() ? 0 : v.get<int>(); }},
      {{"max_lines", T::integer, false, 200, "Largest number of lines of source", 1, 5000}, into(&A::max_lines)},
  };
  return b;
}

json output_schema() {
  const json count = count_schema();
  json source = object_schema({{"name", string_schema()},
                               {"kind", string_schema()},
                               {"path", string_schema()},
                               {"language", string_schema()},
                               {"line", count},
                               {"start_line", count},
                               {"end_line", count},
                               {"scope", string_schema()},
                               {"signature", string_or_null_schema()},
                               {"source", string_or_null_schema()},
                               {"truncated", {{"type", "boolean"}}},
                               {"other_matches", count}},
                              {"name", "kind", "path", "language", "line", "start_line", "end_line", "scope",
                               "signature", "source", "truncated", "other_matches"});
  return json{{"type", "object"}, {"oneOf", {source, refusal_schema()}}};
}

// {"name", "kind", "path", "language", "line", "start_line", "end_line", "scope", "signature", "source",
//  "truncated", "other_matches"}: signature and source are null when the file cannot be read.
json render(const daemon::DefinitionSource& s) {
  const storage::SymbolHit& d = s.definition;
  auto text = [](const std::optional<std::string>& t) { return t ? json(utils::utf8_or_replaced(*t)) : json(); };
  return json{{"name", utils::utf8_or_replaced(d.name)},
              {"kind", d.kind},
              {"path", d.path},
              {"language", d.language},
              {"line", d.line},
              {"start_line", s.first_line},
              {"end_line", d.end_line},
              {"scope", utils::utf8_or_replaced(d.scope)},
              {"signature", text(s.signature)},
              {"source", text(s.text)},
              {"truncated", s.truncated},
              {"other_matches", s.other_matches}};
}

aio::Task<json> call(daemon::RepoWorker& worker, json arguments) {
  daemon::SourceArgs args = binding().bind(arguments);
  if (!args.name && (!args.path || args.line == 0)) throw ArgumentError("name", "give a 'name', or a 'path' and a 'line'");
  daemon::SourceAnswer answer = co_await worker.source(std::move(args));
  if (auto* refusal = std::get_if<daemon::Refusal>(&answer)) co_return refusal_json(*refusal);
  co_return render(std::get<daemon::DefinitionSource>(answer));
}

}  // namespace

const Tool& symbol_source() {
  static const Tool tool{
      .name = "symbol_source",
      .title = "Symbol source",
      .description =
          "The source of one definition, by name (optionally within a path, of a kind) or by a path and a line, "
          "from the line that names it, with its file, lines and signature.",
      .arguments = binding().arguments(),
      .output_schema = output_schema(),
      .annotations = read_only(),
      .call = call,
  };
  return tool;
}

}  // namespace brenloc::tools
