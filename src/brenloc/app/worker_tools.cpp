#include "brenloc/app/worker_tools.h"

#include "brenloc/tool_binding.h"

namespace brenloc::app {

using json = nlohmann::ordered_json;

std::vector<mcp::ToolSpec> WorkerTools::tools() const {
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
  if (name == "force_reindex") co_return co_await worker_._handle_force_reindex(std::move(arguments));
  if (name == "index_status") {
    bind_arguments("none", arguments);
    co_return co_await worker_.index_status();
  }
  if (name == "search_symbols") co_return co_await worker_.search_symbols(std::move(arguments));
  throw mcp::UnknownTool(name);
}

std::string WorkerTools::level_of(const json& message) {
  return message.value("type", "") == "reindex_failed" ? "error" : "info";
}

int WorkerTools::subscribe(mcp::BroadcastSink sink) {
  return worker_.subscribe([sink = std::move(sink)](const json& message) { sink(level_of(message), message); });
}

void WorkerTools::unsubscribe(int id) { worker_.unsubscribe(id); }

}  // namespace brenloc::app
