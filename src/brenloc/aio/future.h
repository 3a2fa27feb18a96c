// Futures: results that arrive later on the event loop, and the cancellation scope of a task.
//
// A Future<T> is a shared handle to one result: pending, then finished with a value, failed with an
// error, or cancelled. All of its state lives on the loop thread; other threads complete it by posting.
// A task (see task.h) is a future whose result is that of a coroutine; cancelling it delivers one
// Cancelled at the await where the task is suspended (or at its next suspension if it is running).
//
// Awaiting a future directly ties the waiter to it: cancelling the waiter cancels the future (and a task
// that is awaited directly is cancelled in turn). shield() waits without that tie: a cancelled waiter
// stops waiting, and the work goes on. A failure that nobody fetched is logged when the future dies.
#pragma once

#include <coroutine>
#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "brenloc/aio/cancelled.h"
#include "brenloc/aio/event_loop.h"

namespace brenloc::aio {

// True when `e` holds a Cancelled.
bool is_cancellation(const std::exception_ptr& e);

// Told of a failure that nobody fetched from its future when the future dies. The runtime's own one
// writes a line to stderr; the daemon's logging puts its own in place (utils/logging.cpp). Any thread.
using UnfetchedFailureReporter = void (*)(const std::exception_ptr& failure);
void set_unfetched_failure_reporter(UnfetchedFailureReporter reporter);

// A suspension that a task's cancellation can interrupt.
class Waiter {
 public:
  virtual void interrupt() = 0;

 protected:
  ~Waiter() = default;
};

// The cancellation scope of one task, shared by every coroutine the task awaits inline.
class TaskContext {
 public:
  // Interrupts the pending suspension, or, when the task is not suspended on anything that can be
  // interrupted, arranges for its next suspension to end in Cancelled. Delivered once.
  void request_cancel() {
    if (waiting_ != nullptr) {
      waiting_->interrupt();
    } else {
      must_cancel_ = true;
    }
  }
  bool take_cancel() { return std::exchange(must_cancel_, false); }
  void wait_on(Waiter* w) { waiting_ = w; }
  void stop_waiting() { waiting_ = nullptr; }

 private:
  Waiter* waiting_ = nullptr;
  bool must_cancel_ = false;
};

// Told when a future completes. Called on the loop thread, synchronously from the completion.
class DoneListener {
 public:
  virtual void on_done() = 0;

 protected:
  ~DoneListener() = default;
};

class FutureBase {
 public:
  enum class State { pending, finished, failed, cancelled };

  FutureBase() = default;
  FutureBase(const FutureBase&) = delete;
  FutureBase& operator=(const FutureBase&) = delete;
  virtual ~FutureBase();

  bool done() const { return state_ != State::pending; }
  bool cancelled() const { return state_ == State::cancelled; }
  State state() const { return state_; }

  // A pending plain future becomes cancelled at once; a task is asked to cancel (task.h). Returns false
  // when there was nothing to cancel.
  virtual bool cancel();
  // How many times a task still running has been asked to cancel (0 for a plain future).
  virtual int cancelling() const { return 0; }

  // The failure of a finished future, or null. Throws Cancelled for a cancelled future. Marks the failure
  // as retrieved, so it is not logged when the future dies.
  std::exception_ptr exception();

  // Finishes the future with a failure (a Cancelled makes it cancelled). Ignored when already done.
  void set_exception(std::exception_ptr e);

  void add_listener(DoneListener* l) { listeners_.push_back(l); }
  void remove_listener(DoneListener* l);

 protected:
  // Marks the future done and tells the listeners.
  void finish(State s, std::exception_ptr e = nullptr);
  // For result(): throws Cancelled or the failure (marking it retrieved).
  void rethrow_unless_finished();

 private:
  State state_ = State::pending;
  std::exception_ptr error_;
  bool retrieved_ = false;
  std::vector<DoneListener*> listeners_;
};

namespace detail {
struct Unit {};
template <class T>
using Stored = std::conditional_t<std::is_void_v<T>, Unit, T>;
}  // namespace detail

template <class T>
class FutureState : public FutureBase {
 public:
  template <class... V>
  void set_result(V&&... v) {
    if (done()) return;
    value_.emplace(std::forward<V>(v)...);
    finish(State::finished);
  }
  // The value of a finished future; throws its failure or Cancelled.
  T result() {
    rethrow_unless_finished();
    if constexpr (!std::is_void_v<T>) return *value_;
  }

 private:
  std::optional<detail::Stored<T>> value_;
};

class SuspendBase;

// Shared handle to a future's state.
template <class T>
class Future {
 public:
  Future() = default;
  explicit Future(std::shared_ptr<FutureState<T>> s) : state_(std::move(s)) {}

  bool valid() const { return state_ != nullptr; }
  bool done() const { return state_->done(); }
  bool cancelled() const { return state_->cancelled(); }
  bool cancel() { return state_->cancel(); }
  int cancelling() const { return state_->cancelling(); }
  T result() const { return state_->result(); }
  std::exception_ptr exception() const { return state_->exception(); }
  const std::shared_ptr<FutureState<T>>& state() const { return state_; }
  std::shared_ptr<FutureBase> base() const { return state_; }

  // Awaiting a future directly: a cancellation of the waiter cancels the future.
  auto operator co_await() const;

 private:
  std::shared_ptr<FutureState<T>> state_;
};

// Common part of the awaiters that suspend a task until something else happens.
class SuspendBase : public Waiter {
 protected:
  // Called from await_suspend: false means "do not suspend, a cancellation is due now".
  template <class P>
  bool begin_suspend(std::coroutine_handle<P> h) {
    ctx_ = h.promise().ctx;
    loop_ = EventLoop::current();
    handle_ = h;
    if (ctx_->take_cancel()) {
      interrupted_ = true;
      return false;
    }
    suspended_ = true;
    ctx_->wait_on(this);
    return true;
  }
  // Schedules the resumption of the suspended coroutine.
  void wake() {
    ctx_->stop_waiting();
    auto h = handle_;
    loop_->post([h] { h.resume(); });
  }
  void wake_cancelled() {
    interrupted_ = true;
    wake();
  }
  // Called from await_resume: throws the cancellation that interrupted the wait, or one that was asked
  // for after the awaited thing completed but before the coroutine ran again. Returns true when the
  // second case applies and the caller must undo what it was given before throwing.
  bool late_cancel() {
    if (interrupted_) throw Cancelled{};
    return suspended_ && ctx_->take_cancel();
  }

  TaskContext* ctx_ = nullptr;
  EventLoop* loop_ = nullptr;
  std::coroutine_handle<> handle_;
  bool interrupted_ = false;
  bool suspended_ = false;
};

namespace detail {

// Awaits one future. `Shielded` decides whether the waiter's cancellation reaches the future.
template <class T, bool Shielded>
class FutureAwaiter final : public SuspendBase, public DoneListener {
 public:
  explicit FutureAwaiter(std::shared_ptr<FutureState<T>> s) : state_(std::move(s)) {}

  bool await_ready() const { return state_->done(); }
  template <class P>
  bool await_suspend(std::coroutine_handle<P> h) {
    if (!begin_suspend(h)) return false;
    state_->add_listener(this);
    return true;
  }
  T await_resume() {
    if (late_cancel()) throw Cancelled{};
    return state_->result();
  }

  void on_done() override { wake(); }
  void interrupt() override {
    if constexpr (Shielded) {
      state_->remove_listener(this);
      wake_cancelled();
    } else {
      // A plain future completes (cancelled) at once and wakes us; a task is asked to cancel and wakes
      // us when it has finished.
      state_->cancel();
    }
  }

 private:
  std::shared_ptr<FutureState<T>> state_;
};

}  // namespace detail

template <class T>
auto Future<T>::operator co_await() const {
  return detail::FutureAwaiter<T, false>(state_);
}

// Awaits `f` without letting a cancellation of the waiter reach it: a cancelled waiter stops waiting
// (Cancelled), the work goes on, and `f` can be awaited again later for its result or failure.
template <class T>
auto shield(const Future<T>& f) {
  return detail::FutureAwaiter<T, true>(f.state());
}

// Waits until every future in `fs` is done, without raising their failures or cancelling them, and
// without a time limit. A cancelled waiter stops waiting; the futures go on.
class WaitAll final : public SuspendBase, public DoneListener {
 public:
  explicit WaitAll(std::vector<std::shared_ptr<FutureBase>> fs) : futures_(std::move(fs)) {}
  WaitAll(const WaitAll&) = delete;
  WaitAll(WaitAll&& o) noexcept : futures_(std::move(o.futures_)) {}
  bool await_ready() const;
  template <class P>
  bool await_suspend(std::coroutine_handle<P> h) {
    if (!begin_suspend(h)) return false;
    for (auto& f : futures_) {
      if (!f->done()) {
        ++pending_;
        f->add_listener(this);
      }
    }
    return true;
  }
  void await_resume() {
    if (late_cancel()) throw Cancelled{};
  }
  void on_done() override;
  void interrupt() override;

 private:
  std::vector<std::shared_ptr<FutureBase>> futures_;
  std::size_t pending_ = 0;
};

inline WaitAll wait_all(std::vector<std::shared_ptr<FutureBase>> fs) { return WaitAll(std::move(fs)); }

}  // namespace brenloc::aio
