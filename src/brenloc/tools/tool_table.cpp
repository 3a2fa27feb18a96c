#include "brenloc/tools/tool_table.h"

#include <fmt/format.h>

#include "brenloc/aio/outcome.h"
#include "brenloc/daemon/worker_log.h"
#include "brenloc/storage/errors.h"
#include "brenloc/tool_binding.h"
#include "brenloc/utils/logging.h"

namespace brenloc::tools {

// Each tool is defined in the file of its name.
const Tool& force_reindex();
const Tool& index_status();
const Tool& search_symbols();
const Tool& file_outline();
const Tool& symbol_source();
const Tool& list_repos();
const Tool& find_references();
const Tool& find_importers();

const std::vector<const Tool*>& worker_tools() {
  static const std::vector<const Tool*> all = {
      &force_reindex(), &index_status(),   &search_symbols(), &file_outline(),
      &symbol_source(), &find_references(), &find_importers(),
  };
  return all;
}

const std::vector<const Tool*>& session_tools() {
  static const std::vector<const Tool*> all = {&list_repos()};
  return all;
}

const Tool& find_tool(std::string_view name) {
  for (const Tool* tool : worker_tools()) {
    if (tool->name == name) return *tool;
  }
  throw UnknownTool(std::string(name));
}

aio::Task<json> call_tool(daemon::RepoWorker& worker, std::string name, json arguments) {
  const Tool& tool = find_tool(name);
  auto answer = co_await aio::outcome_of(tool.call(worker, std::move(arguments)));
  if (answer.failed() && !answer.cancelled()) {
    try {
      std::rethrow_exception(answer.error);
    } catch (const storage::StorageError& e) {
      // The client hears what failed, not the database's path on this machine: that goes to the log.
      utils::log_exception(*daemon::worker_logger(), fmt::format("Tool {} failed", name), answer.error);
      throw std::runtime_error(fmt::format("{} failed in the index database (SQLite code {}); the log of brenloc "
                                           "has the details",
                                           name, e.code()));
    } catch (...) {
    }
  }
  co_return std::move(answer).get();
}

}  // namespace brenloc::tools
