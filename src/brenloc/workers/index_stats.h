// The statistics of an index pass, and the record of completed passes that the worker keeps for status.
#pragma once

#include <cstdint>
#include <optional>

#include "brenloc/json.h"

namespace brenloc::workers {

// What a pass covered: the whole repository, or listed paths. Named "full" and "paths" in status.
enum class PassType { full, paths };
const char* pass_type_name(PassType type);

// The record of one completed pass, as status shows it.
struct PassRecord {
  PassType index_type = PassType::full;
  double duration_seconds = 0;
  std::int64_t files_processed = 0;
  std::int64_t errors = 0;
};

// The dictionary of a record: {"type", "duration_seconds", "files_processed", "errors"}; null for none.
json pass_info(const std::optional<PassRecord>& record);

struct IndexStats {
  std::int64_t files_processed = 0;  // files the pass indexed: stored anew, or found up to date
  std::int64_t symbols_added = 0;    // symbols stored by the pass
  std::int64_t errors = 0;  // files or directories the pass could not index (left out)
  std::int64_t files_unchanged = 0;  // of files_processed: found up to date by status or content hash
  std::int64_t files_read = 0;       // files whose content the pass read (the others it trusted by status)
  std::int64_t files_removed = 0;    // rows dropped: files gone, or now left out by policy
  std::int64_t files_skipped = 0;    // left out by policy (ignored, links, special, binary, too large)
  std::optional<PassRecord> last_pass;  // absent when there is nothing to record

  // The design's dictionary of last_pass (pass_info), or null.
  json get_last_index_info() const { return pass_info(last_pass); }
  // Records a completed pass: it becomes last_pass.
  void record_completion(const PassRecord& completion) { last_pass = completion; }
};

}  // namespace brenloc::workers
