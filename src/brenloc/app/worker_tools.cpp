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
      {"search_symbols", "Find symbol definitions by name (substring match), optionally of one kind.",
       input_schema("search")},
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
