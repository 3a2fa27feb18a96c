#include "brenloc/app/worker_tools.h"

#include "brenloc/tools/tool_table.h"

namespace brenloc::app {

std::vector<mcp::ToolDescriptor> WorkerTools::tools() const { return worker_tool_descriptors(); }

std::string WorkerTools::instructions() const { return worker_instructions(); }

std::vector<mcp::ToolDescriptor> worker_tool_descriptors() {
  std::vector<mcp::ToolDescriptor> out;
  for (const tools::Tool* t : tools::worker_tools()) {
    out.push_back({t->name, t->description, input_schema(t->arguments), t->title, t->output_schema, t->annotations});
  }
  return out;
}

std::string worker_instructions() {
  return "brenloc keeps an index of this repository's source files and the symbols they define. Use "
         "search_symbols to find where a function, class, method, type or variable is defined (best matches "
         "first; filter by kind, language or path), file_outline to see a file's definitions, symbol_source to "
         "read one definition, and index_status to see what is indexed and whether indexing runs. The index "
         "follows the working tree by itself: a saved, added, moved or deleted file shows in searches within a "
         "moment (index_status tells how: watch is inotify, polling or off). A search answer with a note says the "
         "index is empty or still being built: its results are not the last word. Call force_reindex with paths "
         "only when watch is off; call it with clear_existing (and no paths) only when "
         "results look wrong or stale after large changes, such as a branch switch: it rebuilds the whole index "
         "in the background and replaces the live one only when every file was indexed. force_reindex answers "
         "at once; its outcome arrives as a notification (reindex_complete or reindex_failed) and shows in "
         "index_status.";
}

aio::Task<json> WorkerTools::call_tool(std::string name, json arguments) {
  return tools::call_tool(worker_, std::move(name), std::move(arguments));
}

std::string WorkerTools::level_of(const json& message) {
  return message.value("type", "") == "reindex_failed" ? "error" : "info";
}

int WorkerTools::subscribe(mcp::BroadcastSink sink) {
  return worker_.subscribe([sink = std::move(sink)](const json& message) { sink(level_of(message), message); });
}

void WorkerTools::unsubscribe(int id) { worker_.unsubscribe(id); }

}  // namespace brenloc::app
