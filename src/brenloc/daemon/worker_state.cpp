#include "brenloc/daemon/worker_state.h"

namespace brenloc::daemon {

WorkerState::WorkerState(std::filesystem::path root, std::filesystem::path data, WorkerEnv& env)
    : repo_root(std::move(root)), data_dir(std::move(data)), _env(env) {}

WorkerState::~WorkerState() = default;

}  // namespace brenloc::daemon
