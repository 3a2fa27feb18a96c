#include "brenloc/daemon/passes.h"

#include "brenloc/utils/logging.h"

namespace brenloc::daemon {

PassScheduler::PassScheduler(Offloader::Run lane, std::vector<Pass> passes)
    : lane_(std::move(lane)), passes_(std::move(passes)) {}

void PassScheduler::trigger(Trigger) {
  ++triggers_;
  if (closed_) return;
  queued_ = true;
  if (!runner_ || runner_->done()) runner_ = aio::spawn(run_loop(this));
}

aio::Task<void> PassScheduler::run_loop(PassScheduler* self) {
  auto logger = utils::get_logger("brenloc.daemon.passes");
  while (self->queued_) {
    self->queued_ = false;
    for (const auto& pass : self->passes_) {
      try {
        co_await self->lane_(pass.run);
      } catch (const std::exception&) {
        utils::log_exception(*logger, "Pass '" + pass.name + "' failed", std::current_exception());
      }
    }
    ++self->runs_completed_;
  }
}

aio::Task<void> PassScheduler::drain() {
  closed_ = true;
  queued_ = false;
  if (runner_) co_await aio::wait_all({runner_->base()});
}

}  // namespace brenloc::daemon
