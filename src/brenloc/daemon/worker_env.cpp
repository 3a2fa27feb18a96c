#include "brenloc/daemon/worker_env.h"

#include "brenloc/workers/report_generator.h"

namespace brenloc::daemon {

// A rebuild of a large tree spends a fifth of its time waiting for syncs if its staging database syncs; a
// crash of the machine must not corrupt the live index, which does.
std::shared_ptr<storage::Database> WorkerEnv::new_database(const std::filesystem::path& path, bool live) {
  return std::make_shared<storage::Database>(path, live ? storage::Durability::synced : storage::Durability::unsynced);
}

std::shared_ptr<storage::Repository> WorkerEnv::new_repository(std::shared_ptr<storage::Database> database) {
  return std::make_shared<storage::Repository>(std::move(database));
}

std::shared_ptr<workers::Indexer> WorkerEnv::new_indexer(workers::IndexerOptions options) {
  return std::make_shared<workers::Indexer>(std::move(options));
}

void WorkerEnv::write_report(const std::shared_ptr<storage::Repository>& repository,
                             const std::filesystem::path& repo_root, bool force) {
  workers::write_report(repository, repo_root, force);
}

WorkerEnv& WorkerEnv::standard() {
  static WorkerEnv env;
  return env;
}

}  // namespace brenloc::daemon
