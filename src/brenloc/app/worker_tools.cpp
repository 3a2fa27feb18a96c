#include "brenloc/app/worker_tools.h"

#include "brenloc/tool_binding.h"

namespace brenloc::app {


std::vector<mcp::ToolDescriptor> WorkerTools::tools() const { return worker_tool_descriptors(); }

std::string WorkerTools::instructions() const { return worker_instructions(); }

namespace {

json object_schema(json properties, json required) {
  return json{{"type", "object"}, {"properties", std::move(properties)}, {"required", std::move(required)},
              {"additionalProperties", false}};
}

const json kString = {{"type", "string"}};
const json kInteger = {{"type", "integer"}, {"minimum", 0}};
const json kStringOrNull = {{"type", {"string", "null"}}};

// A refusal: of a request (a path outside the repository, say) or by the worker itself.
json refused() { return object_schema({{"error", kString}, {"status", {{"const", "failed"}}}}, {"error", "status"}); }

// force_reindex answers in one of three forms: accepted, in progress, or refused (by the request's
// checks or by the worker's own, alike in shape).
json reindex_output() {
  return json{{"type", "object"},
              {"oneOf",
               {object_schema({{"status", {{"const", "accepted"}}}, {"message", kString}, {"clear_existing", {{"type", "boolean"}}}},
                              {"status", "message", "clear_existing"}),
                object_schema({{"status", {{"const", "in_progress"}}}, {"message", kString}}, {"status", "message"}),
                refused()}}};
}

json status_output() {
  json last_index = {{"type", {"object", "null"}},
                     {"properties",
                      {{"type", kString},
                       {"duration_seconds", {{"type", "number"}}},
                       {"files_processed", kInteger},
                       {"errors", kInteger},
                       {"finished_at", kString}}},
                     {"required", {"type", "duration_seconds", "files_processed", "errors"}}};
  json progress = {{"type", {"object", "null"}},
                   {"properties",
                    {{"phase", {{"enum", {"walking", "indexing", "swapping"}}}},
                     {"files_done", kInteger},
                     {"files_total", kInteger},
                     {"started_at", kString}}},
                   {"required", {"phase", "files_done", "files_total", "started_at"}},
                   {"additionalProperties", false}};
  // The last accepted force_reindex: "interrupted" when its process ended during it (its outcome then
  // says so as a reindex_failed message).
  json last_reindex = {{"type", {"object", "null"}},
                       {"properties",
                        {{"started_at", kString},
                         {"pid", kInteger},
                         {"clear_existing", {{"type", "boolean"}}},
                         {"state", {{"enum", {"running", "ended", "interrupted"}}}},
                         {"outcome", {{"type", {"object", "null"}}}}}},
                       {"required", {"started_at", "pid", "clear_existing", "state", "outcome"}},
                       {"additionalProperties", false}};
  json entry = {{"type", "object"},
                {"properties", {{"path", kString}, {"stage", kString}, {"error", kString}, {"skipped", kString}}},
                {"required", {"path", "stage"}}};
  json left_out = object_schema({{"count", kInteger}, {"first", {{"type", "array"}, {"items", entry}}}}, {"count", "first"});
  return object_schema({{"repo_root", kString},
                        {"data_dir", kString},
                        {"indexing", {{"type", "boolean"}}},
                        {"progress", progress},
                        {"last_reindex_error", kStringOrNull},
                        {"rebuild_refusal", kStringOrNull},
                        {"last_reindex", last_reindex},
                        {"files", kInteger},
                        {"symbols", kInteger},
                        {"last_index", last_index},
                        {"left_out", left_out},
                        {"watch", {{"enum", {"inotify", "polling", "off"}}}},
                        {"watches", kInteger}},
                       {"repo_root", "data_dir", "indexing", "progress", "last_reindex_error", "rebuild_refusal",
                        "last_reindex", "files", "symbols", "last_index", "left_out", "watch", "watches"});
}

json search_output() {
  json hit = object_schema({{"name", kString},
                            {"kind", kString},
                            {"path", kString},
                            {"line", kInteger},
                            {"column", kInteger},
                            {"end_line", kInteger},
                            {"scope", kString},
                            {"language", kString},
                            {"signature", kStringOrNull}},
                           {"name", "kind", "path", "line", "column", "end_line", "scope", "language", "signature"});
  return object_schema({{"query", kString},
                        {"match", {{"enum", {"auto", "exact", "prefix", "substring", "fuzzy"}}}},
                        {"total", kInteger},
                        {"more", {{"type", "boolean"}}},
                        {"count", kInteger},
                        {"truncated", {{"type", "boolean"}}},
                        {"results", {{"type", "array"}, {"items", hit}}},
                        {"note", kString}},  // while the index is empty or its first pass runs
                       {"query", "match", "total", "more", "count", "truncated", "results"});
}

// A file's definitions as a tree, or a refusal (a path outside the repository, a file not indexed).
json outline_output() {
  json node = object_schema({{"name", kString},
                             {"kind", kString},
                             {"line", kInteger},
                             {"end_line", kInteger},
                             {"children", {{"type", "array"}, {"items", {{"$ref", "#/$defs/node"}}}}}},
                            {"name", "kind", "line", "end_line", "children"});
  json tree = object_schema({{"path", kString},
                             {"language", kString},
                             {"total", kInteger},
                             {"count", kInteger},
                             {"truncated", {{"type", "boolean"}}},
                             {"symbols", {{"type", "array"}, {"items", {{"$ref", "#/$defs/node"}}}}}},
                            {"path", "language", "total", "count", "truncated", "symbols"});
  return json{{"type", "object"}, {"$defs", {{"node", node}}}, {"oneOf", {tree, refused()}}};
}

json source_output() {
  json source = object_schema({{"name", kString},
                               {"kind", kString},
                               {"path", kString},
                               {"language", kString},
                               {"line", kInteger},
                               {"start_line", kInteger},
                               {"end_line", kInteger},
                               {"scope", kString},
                               {"signature", kStringOrNull},
                               {"source", kStringOrNull},
                               {"truncated", {{"type", "boolean"}}},
                               {"other_matches", kInteger}},
                              {"name", "kind", "path", "language", "line", "start_line", "end_line", "scope", "signature",
                               "source", "truncated", "other_matches"});
  return json{{"type", "object"}, {"oneOf", {source, refused()}}};
}

json read_only() { return json{{"readOnlyHint", true}, {"openWorldHint", false}}; }

}  // namespace

std::vector<mcp::ToolDescriptor> worker_tool_descriptors() {
  return {
      {"force_reindex",
       "Index the repository again in the background: the whole repository, or the given files and directories. "
       "With clear_existing and no paths, rebuild the whole index from scratch; the live index is replaced only "
       "when every file was indexed. Answers at once; the outcome arrives as a notification.",
       input_schema("status"), "Reindex the repository", reindex_output(),
       json{{"readOnlyHint", false}, {"destructiveHint", false}, {"idempotentHint", true}, {"openWorldHint", false}}},
      {"index_status",
       "The state of the repository's index: file and symbol counts, whether indexing runs and how far it is, the "
       "last reindex error, a standing rebuild refusal, and the files left out of the index (how many, the first "
       "few with the reason).",
       input_schema("none"), "Index status", status_output(), read_only()},
      {"search_symbols",
       "Find symbol definitions by name, best first: exact names, then names starting with the query, then "
       "names containing it at a word boundary or anywhere, then names holding its letters in order anywhere "
       "(word starts first: gSB finds getStatusBar). Filter by "
       "kind, language or path (a directory or glob). Each hit has its signature line; the answer gives the "
       "total and stays small (hits are cut, and it says so).",
       input_schema("search"), "Search symbols", search_output(), read_only()},
      {"file_outline", "The definitions of one file as a tree (classes with their members), with kinds and lines.",
       input_schema("outline"), "File outline", outline_output(), read_only()},
      {"symbol_source",
       "The source of one definition, by name (optionally within a path, of a kind) or by a path and a line, "
       "from the line that names it, with its file, lines and signature.",
       input_schema("source"), "Symbol source", source_output(), read_only()},
  };
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
