// The repository worker's logger, "brenloc.daemon.worker": the worker, its reindex facility and the
// follower of its tree log under this one name.
#pragma once

#include <memory>

#include <spdlog/logger.h>

namespace brenloc::daemon {

const std::shared_ptr<spdlog::logger>& worker_logger();

}  // namespace brenloc::daemon
