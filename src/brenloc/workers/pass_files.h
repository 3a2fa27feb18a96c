// The files an index pass leaves in the data directory: errors.jsonl (one JSON object per file or
// directory left out: "path", "stage", "error"; empty when none) and last_index.json (what the pass did,
// with the time it finished, for the report). Both are replaced whole, never seen half written.
#pragma once

#include <filesystem>
#include <vector>

#include <nlohmann/json.hpp>

#include "brenloc/workers/index_stats.h"
#include "brenloc/workers/walker.h"

namespace brenloc::workers {

inline constexpr const char* kErrorsFile = "errors.jsonl";
inline constexpr const char* kLastIndexFile = "last_index.json";

// Writes both files; `record` is what the pass did. Blocking; throws on failure.
void write_pass_files(const std::filesystem::path& data_dir, const std::vector<LeftOut>& errors,
                      const PassRecord& record);

// The last pass's info with "finished_at" (UTC, ISO 8601), or null when there is none to read.
nlohmann::ordered_json read_last_index(const std::filesystem::path& data_dir);

// Replaces `path` by a file holding `content` (written beside it, then renamed over it).
void replace_file(const std::filesystem::path& path, std::string_view content);

}  // namespace brenloc::workers
