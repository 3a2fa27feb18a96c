// A tool of a repository worker, whole: its name, title and description, the JSON Schemas of its
// arguments and of its answer, the hints that clients read, and how it runs on a worker (its arguments
// bound into the tool's own struct, the worker asked, the answer rendered as JSON). Each tool is one file
// of this folder; tool_table.h lists them for the MCP server, the daemon and the command line.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "brenloc/aio/task.h"
#include "brenloc/daemon/worker_face.h"
#include "brenloc/json.h"
#include "brenloc/tool_binding.h"

namespace brenloc::daemon {
class RepoWorker;
}

namespace brenloc::tools {

// One of a session's repositories, as a tool about the session sees it.
struct SessionRepo {
  std::string name;  // what the `repo` argument of a call may say instead of the root
  std::string root;  // in text form
  bool is_default = false;
  std::string source;                      // "--repo" or "roots" (the client's)
  daemon::RepoWorker* worker = nullptr;  // the worker that serves it, when one runs
};

struct Tool {
  std::string name;
  std::string title;
  std::string description;
  Arguments arguments;  // what the tool takes (its input schema is made from these)
  json output_schema;  // the schema of the answer (the MCP result's structuredContent)
  json annotations;    // readOnlyHint and the like
  // Runs the tool on the event loop. Throws ArgumentError for arguments that do not bind.
  aio::Task<json> (*call)(daemon::RepoWorker& worker, json arguments) = nullptr;
  // For a tool about the session rather than one repository, in place of `call`.
  aio::Task<json> (*call_on_session)(std::vector<SessionRepo> repos, json arguments) = nullptr;
};

// --- pieces that several tools' schemas and answers share ---
// {"type": "object", "properties", "required", "additionalProperties": false}
json object_schema(json properties, json required);
json string_schema();
json count_schema();  // a non-negative integer
json string_or_null_schema();
// {"error", "status": "failed"}: a request turned down by the worker.
json refusal_schema();
json refusal_json(const daemon::Refusal& refusal);
// The hints of a tool that only reads the index.
json read_only();
// A `path` filter (a directory or a glob) as a path relative to the root, or nothing when it reaches
// outside the repository: climbing above the root, or absolute and elsewhere.
std::optional<std::string> path_filter_within(const std::filesystem::path& root, const std::string& path);

}  // namespace brenloc::tools
