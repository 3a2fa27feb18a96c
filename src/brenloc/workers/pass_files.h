// The files an index pass leaves in the data directory: errors.jsonl and last_index.json (what the pass
// did, with the time it finished, for the report). Both are replaced whole, never seen half written.
//
// errors.jsonl names, one JSON object a line, the files and directories that the index lacks and why:
// {"path", "stage", "error"} for one that could not be indexed (the errors a full rebuild refuses), then
// {"path", "stage", "skipped"} for one left out by policy (a FIFO, a file too large...). Empty when none.
// A whole pass writes what it found; a pass over listed paths replaces what the file said of those
// paths and keeps the rest.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "brenloc/json.h"

#include "brenloc/workers/index_stats.h"
#include "brenloc/workers/walker.h"

namespace brenloc::workers {

inline constexpr const char* kErrorsFile = "errors.jsonl";
inline constexpr const char* kLastIndexFile = "last_index.json";

// Writes both files; `record` is what the pass did, `left_out` what it left out, `listed` the paths it was
// given (relative, in text form), absent for a whole pass. Blocking; throws on failure.
void write_pass_files(const std::filesystem::path& data_dir, const std::vector<LeftOut>& left_out,
                      const PassRecord& record, const std::optional<std::vector<std::string>>& listed = std::nullopt);

// How many entries errors.jsonl holds, and the first `first` of them (lines that do not parse skipped).
struct LeftOutList {
  std::int64_t count = 0;
  std::vector<LeftOut> first;
};
LeftOutList read_left_out(const std::filesystem::path& data_dir, std::size_t first);

// An entry as errors.jsonl writes it; and {"count", "first": [entries]}.
json left_out_json(const LeftOut& entry);
json left_out_json(const LeftOutList& list);

// The last pass's info with "finished_at" (UTC, ISO 8601), or null when there is none to read.
json read_last_index(const std::filesystem::path& data_dir);

// Replaces `path` by a file holding `content` (written beside it, then renamed over it).
void replace_file(const std::filesystem::path& path, std::string_view content);

}  // namespace brenloc::workers
