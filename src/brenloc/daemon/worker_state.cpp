#include "brenloc/daemon/worker_state.h"

#include "brenloc/utils/logging.h"

namespace brenloc::daemon {

const std::shared_ptr<spdlog::logger>& worker_logger() {
  static auto logger = utils::get_logger("brenloc.daemon.worker");
  return logger;
}

WorkerState::WorkerState(std::filesystem::path root, std::filesystem::path data)
    : repo_root(std::move(root)), data_dir(std::move(data)) {}

WorkerState::~WorkerState() = default;

std::shared_ptr<workers::Indexer> WorkerState::_new_indexer(workers::IndexerOptions options) {
  return std::make_shared<workers::Indexer>(std::move(options));
}

// Any database of the worker other than its live index is a staging database: it is deleted unread after
// a crash, so its writes are not synced (a rebuild of a large tree spends a fifth of its time waiting for
// syncs otherwise). The live index is synced: a crash of the machine must not corrupt it.
std::shared_ptr<storage::Database> WorkerState::_new_database(const std::filesystem::path& path) {
  const bool live = path == data_dir / "index.db";
  return std::make_shared<storage::Database>(path, live ? storage::Durability::synced : storage::Durability::unsynced);
}

std::shared_ptr<storage::Repository> WorkerState::_new_repository(std::shared_ptr<storage::Database> database) {
  return std::make_shared<storage::Repository>(std::move(database));
}

}  // namespace brenloc::daemon
