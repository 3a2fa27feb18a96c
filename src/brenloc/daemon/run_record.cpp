#include "brenloc/daemon/run_record.h"

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "brenloc/workers/pass_files.h"

namespace brenloc::daemon {

namespace fs = std::filesystem;

json RunRecord::to_json() const {
  return json{{"started_at", started_at},
              {"pid", pid},
              {"clear_existing", clear_existing},
              {"state", state},
              {"outcome", outcome}};
}

RunRecord run_started(bool clear_existing) {
  RunRecord r;
  r.started_at =
      fmt::format("{:%FT%TZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now())));
  r.pid = ::getpid();
  r.clear_existing = clear_existing;
  return r;
}

std::optional<RunRecord> read_run_record(const fs::path& data_dir) {
  std::ifstream in(data_dir / kRunRecordFile);
  if (!in) return std::nullopt;
  std::stringstream ss;
  ss << in.rdbuf();
  json j = json::parse(ss.str(), nullptr, false);
  if (!j.is_object()) return std::nullopt;
  RunRecord r;
  try {
    r.started_at = j.at("started_at").get<std::string>();
    r.pid = j.at("pid").get<std::int64_t>();
    r.clear_existing = j.at("clear_existing").get<bool>();
    r.state = j.at("state").get<std::string>();
    r.outcome = j.value("outcome", json());
  } catch (const json::exception&) {
    return std::nullopt;
  }
  return r;
}

void write_run_record(const fs::path& data_dir, const RunRecord& record) {
  workers::replace_file(data_dir / kRunRecordFile, record.to_json().dump() + "\n");
}

std::optional<std::string> settle_interrupted_run(const fs::path& data_dir) {
  auto record = read_run_record(data_dir);
  if (!record || record->state != "running") return std::nullopt;
  std::string error = fmt::format(
      "Reindex interrupted: the brenloc process that ran it (pid {}, started {}) ended before it finished; {}. Call "
      "force_reindex again",
      record->pid, record->started_at,
      record->clear_existing ? "the live index was kept as it was" : "the files it had reached were updated");
  record->state = "interrupted";
  record->outcome = json{{"type", "reindex_failed"}, {"error", error}};
  write_run_record(data_dir, *record);
  return error;
}

}  // namespace brenloc::daemon
