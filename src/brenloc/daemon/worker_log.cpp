#include "brenloc/daemon/worker_log.h"

#include "brenloc/utils/logging.h"

namespace brenloc::daemon {

const std::shared_ptr<spdlog::logger>& worker_logger() {
  static auto logger = utils::get_logger("brenloc.daemon.worker");
  return logger;
}

}  // namespace brenloc::daemon
