// The tools of a repository worker, in the order of their listing: what the MCP server lists and calls,
// what the daemon serves and what the command line runs in its own process, all from this one table;
// and the tools a session answers about its repositories.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "brenloc/tools/tool.h"

namespace brenloc::tools {

const std::vector<const Tool*>& worker_tools();
// The tools about a session's repositories as a whole (list_repos), listed after the worker's.
const std::vector<const Tool*>& session_tools();

// The worker's tool called `name`; throws UnknownTool when there is none.
const Tool& find_tool(std::string_view name);

// Runs the tool `name` with its arguments on `worker` and gives its answer. Throws UnknownTool for another
// name and ArgumentError for bad arguments; a failure of the index database is told without the
// database's path (which goes to the log).
aio::Task<json> call_tool(daemon::RepoWorker& worker, std::string name, json arguments);

}  // namespace brenloc::tools
