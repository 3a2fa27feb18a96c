#include "brenloc/app/worker_tools.h"

#include "brenloc/tool_binding.h"

namespace brenloc::app {

using json = nlohmann::ordered_json;

std::vector<mcp::ToolSpec> WorkerTools::tools() const { return worker_tool_specs(); }

std::vector<mcp::ToolSpec> worker_tool_specs() {
  return {
      {"force_reindex",
       "Index the repository again in the background: the whole repository, or the given files and directories. "
       "With clear_existing and no paths, rebuild the whole index from scratch; the live index is replaced only "
       "when every file was indexed. Answers at once; the outcome arrives as a notification.",
       input_schema("status")},
      {"index_status",
       "The state of the repository's index: file and symbol counts, whether indexing runs, the last reindex "
       "error and a standing rebuild refusal.",
       input_schema("none")},
      {"search_symbols",
       "Find symbol definitions by name, best first: exact names, then names starting with the query, then "
       "names containing it at a word boundary or anywhere, then names holding its letters in order. Filter by "
       "kind, language or path (a directory or glob). Each hit has its signature line; the answer gives the "
       "total and stays small (hits are cut, and it says so).",
       input_schema("search")},
      {"file_outline", "The definitions of one file as a tree (classes with their members), with kinds and lines.",
       input_schema("outline")},
      {"symbol_source",
       "The source of one definition, by name (optionally within a path, of a kind) or by a path and a line, "
       "from the line that names it, with its file, lines and signature.",
       input_schema("source")},
  };
}

aio::Task<json> WorkerTools::call_tool(std::string name, json arguments) {
  return worker_.call_tool(std::move(name), std::move(arguments));
}

std::string WorkerTools::level_of(const json& message) {
  return message.value("type", "") == "reindex_failed" ? "error" : "info";
}

int WorkerTools::subscribe(mcp::BroadcastSink sink) {
  return worker_.subscribe([sink = std::move(sink)](const json& message) { sink(level_of(message), message); });
}

void WorkerTools::unsubscribe(int id) { worker_.unsubscribe(id); }

}  // namespace brenloc::app
