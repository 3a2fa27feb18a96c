#include "brenloc/utils/best_effort.h"

#include "brenloc/utils/logging.h"

namespace brenloc::utils {

bool LoggedSuppress::exit(const aio::ScopeExit& e) {
  if (e.kind != aio::ScopeExit::failure) return false;
  log_exception(*logger_, "Suppressed failure while " + what_, e.error);
  return true;
}

}  // namespace brenloc::utils
