// The repository report: report.json and a readable report.md in the data directory (the directory of
// the repository's database): languages with file and symbol counts, totals, the last index info, the
// largest directories, and the files left out as errors.jsonl names them (the first 200). Blocking.
#pragma once

#include <filesystem>
#include <memory>

#include "brenloc/storage/repository.h"

namespace brenloc::workers {

// Writes the report; unless `force`, does nothing when the report is already up to date with the index.
void write_report(const std::shared_ptr<storage::Repository>& repository, const std::filesystem::path& repo_root,
                  bool force);

}  // namespace brenloc::workers
