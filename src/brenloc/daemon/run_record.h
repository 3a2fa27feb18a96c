// The record, in the data directory, of the last reindex a client asked for: when it started, in which
// process, and how it ended. It is written when the run is accepted and again when its outcome is sent, so
// a worker that finds it still "running" at start knows that the process that ran it ended during it, and
// can say so to the clients that never heard an outcome.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "brenloc/json.h"

namespace brenloc::daemon {

inline constexpr const char* kRunRecordFile = "last_reindex.json";

struct RunRecord {
  std::string started_at;  // UTC, 2026-11-25T21:58:47Z
  std::int64_t pid = 0;
  bool clear_existing = false;
  std::string state = "running";    // "running", "ended", or "interrupted" (found running by a later worker)
  json outcome;   // the status message that ended it; null while running

  // {"started_at", "pid", "clear_existing", "state", "outcome"}
  json to_json() const;
};

// A record for a run that starts now in this process.
RunRecord run_started(bool clear_existing);

// The record in `data_dir`; absent when there is none or it cannot be read.
std::optional<RunRecord> read_run_record(const std::filesystem::path& data_dir);
// Replaces the record (a whole new file, renamed into place). Throws on failure.
void write_run_record(const std::filesystem::path& data_dir, const RunRecord& record);

// Called by a worker at start, under the data directory's lock: a record still "running" belongs to a
// process that ended during its run. It is rewritten as interrupted, with a reindex_failed outcome whose
// error is returned; absent when there was nothing to tell.
std::optional<std::string> settle_interrupted_run(const std::filesystem::path& data_dir);

}  // namespace brenloc::daemon
