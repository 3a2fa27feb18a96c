// Waiting until the first of several futures is done, on the event loop.
//
// Like wait_all (future.h), it neither raises the futures' failures nor cancels them: a cancelled waiter
// stops waiting (Cancelled) and the futures go on.
#pragma once

#include <algorithm>
#include <coroutine>
#include <memory>
#include <vector>

#include "brenloc/aio/future.h"

namespace brenloc::aio {

class WaitAny final : public SuspendBase, public DoneListener {
 public:
  explicit WaitAny(std::vector<std::shared_ptr<FutureBase>> fs) : futures_(std::move(fs)) {}
  WaitAny(const WaitAny&) = delete;
  WaitAny(WaitAny&& o) noexcept : futures_(std::move(o.futures_)) {}

  bool await_ready() const {
    return futures_.empty() || std::any_of(futures_.begin(), futures_.end(), [](const auto& f) { return f->done(); });
  }
  template <class P>
  bool await_suspend(std::coroutine_handle<P> h) {
    if (!begin_suspend(h)) return false;
    for (auto& f : futures_) f->add_listener(this);
    return true;
  }
  void await_resume() {
    if (late_cancel()) throw Cancelled{};
  }

  void on_done() override {
    detach();
    wake();
  }
  void interrupt() override {
    detach();
    wake_cancelled();
  }

 private:
  void detach() {
    for (auto& f : futures_) f->remove_listener(this);
  }

  std::vector<std::shared_ptr<FutureBase>> futures_;
};

inline WaitAny wait_any(std::vector<std::shared_ptr<FutureBase>> fs) { return WaitAny(std::move(fs)); }

}  // namespace brenloc::aio
