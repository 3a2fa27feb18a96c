// list_repos: the repositories of the session, the default first, with the state of each one's index as
// its worker tells it; a repository that no worker serves yet is listed as "not started" (its worker
// starts at the first call that names it).
#include "brenloc/daemon/worker.h"
#include "brenloc/tool_binding.h"
#include "brenloc/tools/tool.h"

namespace brenloc::tools {

namespace {

struct NoArguments {};

const Binding<NoArguments>& binding() {
  static const Binding<NoArguments> b{};
  return b;
}

json output_schema() {
  const json count_or_null = {{"type", {"integer", "null"}}, {"minimum", 0}};
  json repo = object_schema({{"name", string_schema()},
                             {"root", string_schema()},
                             {"default", {{"type", "boolean"}}},
                             {"source", {{"enum", {"--repo", "roots"}}}},
                             {"state", {{"enum", {"ready", "indexing", "not started"}}}},
                             {"files", count_or_null},
                             {"symbols", count_or_null},
                             {"last_index", {{"type", {"object", "null"}}}},
                             {"last_reindex", {{"type", {"object", "null"}}}}},
                            {"name", "root", "default", "source", "state", "files", "symbols", "last_index",
                             "last_reindex"});
  return object_schema({{"repos", {{"type", "array"}, {"items", repo}}}}, {"repos"});
}

aio::Task<json> call(std::vector<SessionRepo> repos, json arguments) {
  binding().bind(arguments);
  json listed = json::array();
  for (const SessionRepo& r : repos) {
    json entry = {{"name", r.name},      {"root", r.root},    {"default", r.is_default},
                  {"source", r.source},  {"state", "not started"}, {"files", nullptr},
                  {"symbols", nullptr},  {"last_index", nullptr},  {"last_reindex", nullptr}};
    if (r.worker != nullptr) {
      const daemon::IndexStatus s = co_await r.worker->status();
      entry["state"] = s.indexing ? "indexing" : "ready";
      entry["files"] = s.files;
      entry["symbols"] = s.symbols;
      entry["last_index"] = s.last_index;
      entry["last_reindex"] = s.last_reindex ? s.last_reindex->to_json() : json();
    }
    listed.push_back(std::move(entry));
  }
  co_return json{{"repos", std::move(listed)}};
}

}  // namespace

const Tool& list_repos() {
  static const Tool tool{
      .name = "list_repos",
      .title = "List repositories",
      .description =
          "The repositories this session serves: each one's name and root (either may be given as the repo "
          "argument of the other tools; without it they work on the default one), whether it came from the "
          "command line or the client's roots, and the state of its index (files and symbols, whether indexing "
          "runs, the last index pass and reindex). A repository listed as not started has its index opened at "
          "the first call that names it.",
      .arguments = binding().arguments(),
      .output_schema = output_schema(),
      .annotations = read_only(),
      .call_on_session = call,
  };
  return tool;
}

}  // namespace brenloc::tools
