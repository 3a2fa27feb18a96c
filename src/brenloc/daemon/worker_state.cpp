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

std::shared_ptr<storage::Database> WorkerState::_new_database(const std::filesystem::path& path) {
  return std::make_shared<storage::Database>(path);
}

std::shared_ptr<storage::Repository> WorkerState::_new_repository(std::shared_ptr<storage::Database> database) {
  return std::make_shared<storage::Repository>(std::move(database));
}

}  // namespace brenloc::daemon
