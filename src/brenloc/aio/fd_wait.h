// Waiting on the event loop until a file descriptor can be read (data, end of input or an error), for
// at most a given time. The descriptor stays the caller's; nothing is read from it. A cancelled wait
// ends at once with Cancelled.
#pragma once

#include <chrono>
#include <coroutine>
#include <memory>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>

#include "brenloc/aio/future.h"

namespace brenloc::aio {

class WaitReadable final : public SuspendBase {
 public:
  WaitReadable(int fd, std::chrono::steady_clock::duration timeout) : fd_(fd), timeout_(timeout) {}
  bool await_ready() const { return false; }
  template <class P>
  bool await_suspend(std::coroutine_handle<P> h) {
    if (!begin_suspend(h)) return false;
    state_ = std::make_shared<State>(loop_->context(), fd_, timeout_);
    // The handlers may run after an interrupted wait's frame is gone: they look at `ended` first.
    state_->descriptor.async_wait(boost::asio::posix::descriptor_base::wait_read,
                                  [this, s = state_](const boost::system::error_code&) { end(*s, true); });
    state_->timer.async_wait([this, s = state_](const boost::system::error_code&) { end(*s, false); });
    return true;
  }
  // True when the descriptor became readable, false when the time ran out.
  bool await_resume() {
    if (late_cancel()) throw Cancelled{};
    return readable_;
  }
  void interrupt() override {
    state_->close();
    wake_cancelled();
  }

 private:
  struct State {
    State(boost::asio::io_context& io, int fd, std::chrono::steady_clock::duration timeout)
        : descriptor(io, fd), timer(io, timeout) {}
    ~State() { close(); }
    void close() {
      ended = true;
      boost::system::error_code ignored;
      timer.cancel();
      descriptor.cancel(ignored);
      if (descriptor.is_open()) descriptor.release();  // the caller's descriptor is never closed here
    }
    boost::asio::posix::stream_descriptor descriptor;
    boost::asio::steady_timer timer;
    bool ended = false;
  };

  void end(State& s, bool readable) {
    if (s.ended) return;
    s.close();
    readable_ = readable;
    wake();
  }

  int fd_;
  std::chrono::steady_clock::duration timeout_;
  std::shared_ptr<State> state_;
  bool readable_ = false;
};

inline WaitReadable wait_readable(int fd, std::chrono::steady_clock::duration timeout) {
  return WaitReadable(fd, timeout);
}

}  // namespace brenloc::aio
