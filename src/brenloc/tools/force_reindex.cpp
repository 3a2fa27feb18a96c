// force_reindex: the repository, or some files and directories of it, indexed again in the background;
// with clear_existing and no paths, a full rebuild. The worker's reindex facility binds the arguments by
// the list called "status" (tool_binding.h) and answers with its own dictionary.
#include "brenloc/daemon/worker.h"
#include "brenloc/tool_binding.h"
#include "brenloc/tools/tool.h"

namespace brenloc::tools {

namespace {

// Accepted, in progress, or refused (by the request's checks or by the worker's own, alike in shape).
json output_schema() {
  return json{{"type", "object"},
              {"oneOf",
               {object_schema({{"status", {{"const", "accepted"}}},
                               {"message", string_schema()},
                               {"clear_existing", {{"type", "boolean"}}}},
                              {"status", "message", "clear_existing"}),
                object_schema({{"status", {{"const", "in_progress"}}}, {"message", string_schema()}},
                              {"status", "message"}),
                refusal_schema()}}};
}

aio::Task<json> call(daemon::RepoWorker& worker, json arguments) {
  return worker.force_reindex(std::move(arguments));
}

}  // namespace

const Tool& force_reindex() {
  static const Tool tool{
      .name = "force_reindex",
      .title = "Reindex the repository",
      .description =
          "Index the repository again in the background: the whole repository, or the given files and directories. "
          "With clear_existing and no paths, rebuild the whole index from scratch; the live index is replaced only "
          "when every file was indexed. Answers at once; the outcome arrives as a notification.",
      .arguments = argument_list("status"),
      .output_schema = output_schema(),
      .annotations = json{{"readOnlyHint", false}, {"destructiveHint", false}, {"idempotentHint", true},
                          {"openWorldHint", false}},
      .call = call,
  };
  return tool;
}

}  // namespace brenloc::tools
