// Best-effort steps: logged_suppress(logger, what) is a scope (see aio/scope.h) that logs an ordinary
// failure of its body under the description `what`, with its trace, and swallows it. A cancellation is
// not a failure of the step: it passes through untouched, so a cancelled caller still ends cancelled.
#pragma once

#include <memory>
#include <string>

#include <spdlog/logger.h>

#include "brenloc/aio/scope.h"

namespace brenloc::utils {

class LoggedSuppress {
 public:
  LoggedSuppress(std::shared_ptr<spdlog::logger> logger, std::string what)
      : logger_(std::move(logger)), what_(std::move(what)) {}
  void enter() {}
  bool exit(const aio::ScopeExit& e);

 private:
  std::shared_ptr<spdlog::logger> logger_;
  std::string what_;
};

inline LoggedSuppress logged_suppress(std::shared_ptr<spdlog::logger> logger, std::string what) {
  return LoggedSuppress(std::move(logger), std::move(what));
}

}  // namespace brenloc::utils
