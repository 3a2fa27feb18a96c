// Sleeping on the event loop. A cancelled sleep ends at once with Cancelled.
#pragma once

#include <chrono>
#include <coroutine>
#include <memory>

#include <boost/asio/steady_timer.hpp>

#include "brenloc/aio/future.h"

namespace brenloc::aio {

class Sleep final : public SuspendBase {
 public:
  explicit Sleep(std::chrono::steady_clock::duration d) : duration_(d) {}
  bool await_ready() const { return false; }
  template <class P>
  bool await_suspend(std::coroutine_handle<P> h) {
    if (!begin_suspend(h)) return false;
    timer_ = std::make_shared<boost::asio::steady_timer>(loop_->context(), duration_);
    ended_ = std::make_shared<bool>(false);
    // The handler may run after an interrupted sleep's frame is gone: it looks at `ended_` first.
    timer_->async_wait([this, timer = timer_, ended = ended_](const boost::system::error_code&) {
      if (*ended) return;
      *ended = true;
      wake();
    });
    return true;
  }
  void await_resume() {
    if (late_cancel()) throw Cancelled{};
  }
  void interrupt() override {
    *ended_ = true;
    timer_->cancel();
    wake_cancelled();
  }

 private:
  std::chrono::steady_clock::duration duration_;
  std::shared_ptr<boost::asio::steady_timer> timer_;
  std::shared_ptr<bool> ended_;
};

inline Sleep sleep_for(std::chrono::steady_clock::duration d) { return Sleep(d); }

}  // namespace brenloc::aio
