// index_status: the state of the repository's index, its indexing and how the worker follows the tree.
#include <fmt/chrono.h>
#include <fmt/format.h>

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
  const json count = count_schema();
  json last_index = {{"type", {"object", "null"}},
                     {"properties",
                      {{"type", string_schema()},
                       {"duration_seconds", {{"type", "number"}}},
                       {"files_processed", count},
                       {"errors", count},
                       {"finished_at", string_schema()}}},
                     {"required", {"type", "duration_seconds", "files_processed", "errors"}}};
  json progress = {{"type", {"object", "null"}},
                   {"properties",
                    {{"phase", {{"enum", {"walking", "indexing", "swapping"}}}},
                     {"files_done", count},
                     {"files_total", count},
                     {"started_at", string_schema()}}},
                   {"required", {"phase", "files_done", "files_total", "started_at"}},
                   {"additionalProperties", false}};
  // The last accepted force_reindex: "interrupted" when its process ended during it (its outcome then
  // says so as a reindex_failed message).
  json last_reindex = {{"type", {"object", "null"}},
                       {"properties",
                        {{"started_at", string_schema()},
                         {"pid", count},
                         {"clear_existing", {{"type", "boolean"}}},
                         {"state", {{"enum", {"running", "ended", "interrupted"}}}},
                         {"outcome", {{"type", {"object", "null"}}}}}},
                       {"required", {"started_at", "pid", "clear_existing", "state", "outcome"}},
                       {"additionalProperties", false}};
  json entry = {{"type", "object"},
                {"properties",
                 {{"path", string_schema()}, {"stage", string_schema()}, {"error", string_schema()},
                  {"skipped", string_schema()}}},
                {"required", {"path", "stage"}}};
  json left_out = object_schema({{"count", count}, {"first", {{"type", "array"}, {"items", entry}}}}, {"count", "first"});
  return object_schema({{"repo_root", string_schema()},
                        {"data_dir", string_schema()},
                        {"indexing", {{"type", "boolean"}}},
                        {"progress", progress},
                        {"last_reindex_error", string_or_null_schema()},
                        {"rebuild_refusal", string_or_null_schema()},
                        {"last_reindex", last_reindex},
                        {"files", count},
                        {"symbols", count},
                        {"last_index", last_index},
                        {"left_out", left_out},
                        {"watch", {{"enum", {"inotify", "polling", "off"}}}},
                        {"watches", count}},
                       {"repo_root", "data_dir", "indexing", "progress", "last_reindex_error", "rebuild_refusal",
                        "last_reindex", "files", "symbols", "last_index", "left_out", "watch", "watches"});
}

json text_or_null(const std::optional<std::string>& s) { return s ? json(*s) : json(); }

json render(const daemon::IndexStatus& s) {
  json progress;
  if (s.progress) {
    progress = json{{"phase", s.progress->phase},
                    {"files_done", s.progress->done},
                    {"files_total", s.progress->total},
                    {"started_at", fmt::format("{:%Y-%m-%dT%H:%M:%S}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(
                                                                            s.progress->started)))}};
  }
  return json{{"repo_root", s.repo_root},
              {"data_dir", s.data_dir},
              {"indexing", s.indexing},
              {"progress", std::move(progress)},
              {"last_reindex_error", text_or_null(s.last_reindex_error)},
              {"rebuild_refusal", text_or_null(s.rebuild_refusal)},
              {"last_reindex", s.last_reindex ? s.last_reindex->to_json() : json()},
              {"files", s.files},
              {"symbols", s.symbols},
              {"last_index", s.last_index},
              {"left_out", workers::left_out_json(s.left_out)},
              {"watch", daemon::TreeFollower::mode_name(s.watch)},
              {"watches", s.watches}};
}

aio::Task<json> call(daemon::RepoWorker& worker, json arguments) {
  binding().bind(arguments);
  co_return render(co_await worker.status());
}

}  // namespace

const Tool& index_status() {
  static const Tool tool{
      .name = "index_status",
      .title = "Index status",
      .description =
          "The state of the repository's index: file and symbol counts, whether indexing runs and how far it is, the "
          "last reindex error, a standing rebuild refusal, and the files left out of the index (how many, the first "
          "few with the reason).",
      .arguments = binding().arguments(),
      .output_schema = output_schema(),
      .annotations = read_only(),
      .call = call,
  };
  return tool;
}

}  // namespace brenloc::tools
