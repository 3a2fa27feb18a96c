// The statistics of an index pass, and the record of completed passes that the worker keeps for status.
#pragma once

#include <cstdint>

#include <nlohmann/json.hpp>

namespace brenloc::workers {

struct IndexStats {
  std::int64_t files_processed = 0;  // files the pass indexed: stored anew, or found up to date
  std::int64_t symbols_added = 0;    // symbols stored by the pass
  std::int64_t errors = 0;  // files or directories the pass could not index (left out)
  std::int64_t files_unchanged = 0;  // of files_processed: found up to date by content hash
  std::int64_t files_removed = 0;    // rows dropped: files gone, or now left out by policy
  std::int64_t files_skipped = 0;    // left out by policy (ignored, links, special, binary, too large)
  // {"type", "duration_seconds", "files_processed", "errors"} of the pass, or null when there is nothing
  // to record.
  nlohmann::ordered_json last_info;

  nlohmann::ordered_json get_last_index_info() const { return last_info; }

  // Values are passed through as the caller got them from get_last_index_info().
  struct Completion {
    nlohmann::ordered_json index_type;
    nlohmann::ordered_json duration_seconds;
    nlohmann::ordered_json files_processed;
    nlohmann::ordered_json errors;
  };
  // Records a completed pass: it becomes get_last_index_info().
  void record_completion(const Completion& c);
};

}  // namespace brenloc::workers
