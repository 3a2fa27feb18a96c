// What a repository worker is asked and what it answers, as records: a search, a file's outline, the
// source of one definition and the state of the index. The tool files (tools/) bind a client's arguments
// into these and render the answers as JSON; nothing here is JSON but what the index keeps as such.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "brenloc/daemon/run_record.h"
#include "brenloc/daemon/tree_follower.h"
#include "brenloc/storage/records.h"
#include "brenloc/workers/pass_files.h"

namespace brenloc::daemon {

// A request that the worker turns down, with the reason the client reads (a path outside the repository,
// a file not in the index, no such definition).
struct Refusal {
  std::string error;
};

struct SearchArgs {
  std::string query;
  storage::SymbolQuery::Match match = storage::SymbolQuery::Match::automatic;
  std::optional<std::string> kind, path, language;  // path: a directory or a glob, relative to the root
  int limit = 20;
};

struct SearchAnswer {
  storage::SymbolSearch found;  // the page of hits, best first, and how many matched
  std::string note;             // while the index is empty or its first pass runs; else empty
};

// A file's rows (relative to the repository root, in text form), or a refusal.
using OutlineAnswer = std::variant<storage::FileEntry, Refusal>;

// A definition by name (the best exact match, within `path` when given, of `kind` when given), or the
// one at `line` of the file `path`.
struct SourceArgs {
  std::optional<std::string> name, path, kind;
  int line = 0;  // 0: by name
  int max_lines = 200;
};

struct DefinitionSource {
  storage::SymbolHit definition;
  int first_line = 0;                 // a template header or return type above the name included
  std::optional<std::string> text;    // its lines from the first, at most max_lines; absent when unreadable
  std::optional<std::string> signature;
  bool truncated = false;             // more lines than max_lines
  std::int64_t other_matches = 0;     // other definitions of that name
};

using SourceAnswer = std::variant<DefinitionSource, Refusal>;

// The uses of a name in code: by `name` (within `path`, a directory or glob, when given), or of the
// definition at `line` of the file `path`; a page starts at a cursor (a file's id and the uses to skip in it).
struct ReferencesArgs {
  std::optional<std::string> name, path;
  int line = 0;
  unsigned roles = 0x1f;  // a bit per storage::UseRole
  std::int64_t from_file = 0, skip = 0;
  int limit = 50;
};

struct Reference {
  std::int64_t file_id = 0, ordinal = 0;  // where a page starting at it would start
  int line = 0, column = 0;                // 1-based; the column counts bytes
  storage::UseRole role = storage::UseRole::other;
  std::string text;                         // the line, as the file reads now
  std::optional<storage::SymbolHit> within;  // the innermost definition around it
};

struct ReferenceFile {
  std::string path, language;
  std::vector<Reference> hits;
};

struct References {
  std::string name;
  std::vector<ReferenceFile> files;  // in the index's order
  std::int64_t total = 0;
  bool more = false;
  std::optional<std::pair<std::int64_t, std::int64_t>> next;  // the next page's cursor
  std::string note;  // as a search's
};

using ReferencesAnswer = std::variant<References, Refusal>;

// The files that include or import a file of the tree (`path`) or a module as written (`module`).
struct ImportersArgs {
  std::optional<std::string> path, module;
};

struct Importers {
  std::string path;  // the file asked about, relative; empty when a module was
  std::vector<storage::ImportHit> importers;  // by path and line
  std::string note;
};

using ImportersAnswer = std::variant<Importers, Refusal>;

struct IndexStatus {
  struct Progress {
    const char* phase = "walking";  // walking, indexing, swapping (the swap and the report after it)
    std::int64_t done = 0, total = 0;
    std::chrono::system_clock::time_point started;
  };

  std::string repo_root, data_dir;  // in text form
  bool indexing = false;
  std::optional<Progress> progress;
  std::optional<std::string> last_reindex_error, rebuild_refusal;
  std::optional<RunRecord> last_reindex;
  std::int64_t files = 0, symbols = 0;
  json last_index;  // the last pass's record as the data directory keeps it, or null
  workers::LeftOutList left_out;
  TreeFollower::Mode watch = TreeFollower::Mode::off;
  std::size_t watches = 0;
};

}  // namespace brenloc::daemon
