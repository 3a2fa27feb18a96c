// Coroutines and tasks.
//
// Task<T> is a lazily started coroutine. Awaiting it runs it inline as part of the awaiting task: it
// shares that task's cancellation, and its result or failure comes back through the await. A child that
// completes without suspending returns to its parent without growing the stack, so a loop of a million
// immediately-completing awaits is fine.
//
// spawn() starts a Task as a task of its own on the event loop (its first step is queued, not run
// inline) and returns its Future. Cancelling that future delivers one Cancelled at the await where the
// task is suspended; after it the coroutine may await freely again (clean-up) and then rethrow. A task
// cancelled before its first step never runs its body. A task whose coroutine returns while a
// cancellation it never saw is still pending ends cancelled.
//
// Beware: a coroutine lambda keeps its captures in the lambda object, not in the coroutine frame. Pass
// what a coroutine needs as by-value parameters of a coroutine function instead.
#pragma once

#include <cassert>
#include <coroutine>
#include <exception>
#include <memory>
#include <optional>
#include <utility>

#include "brenloc/aio/future.h"

namespace brenloc::aio {

class RootCompletion {
 public:
  virtual void body_finished() = 0;

 protected:
  ~RootCompletion() = default;
};

struct PromiseBase {
  TaskContext* ctx = nullptr;
  std::coroutine_handle<> continuation;
  RootCompletion* root = nullptr;
  bool running_inline = false;
  bool finished = false;
  std::exception_ptr error;

  std::suspend_always initial_suspend() noexcept { return {}; }

  struct FinalAwaiter {
    bool await_ready() noexcept { return false; }
    template <class P>
    std::coroutine_handle<> await_suspend(std::coroutine_handle<P> h) noexcept {
      PromiseBase& p = h.promise();
      p.finished = true;
      if (p.running_inline) return std::noop_coroutine();  // the parent's await_suspend goes on
      if (p.continuation) return p.continuation;
      if (p.root != nullptr) p.root->body_finished();  // destroys this frame; touch nothing after it
      return std::noop_coroutine();
    }
    void await_resume() noexcept {}
  };
  FinalAwaiter final_suspend() noexcept { return {}; }
  void unhandled_exception() noexcept { error = std::current_exception(); }
};

template <class T>
class [[nodiscard]] Task;

namespace detail {

template <class T>
struct TaskPromise : PromiseBase {
  std::optional<T> value;
  Task<T> get_return_object() noexcept;
  void return_value(T v) { value.emplace(std::move(v)); }
  T take() {
    if (error) std::rethrow_exception(error);
    return std::move(*value);
  }
};

template <>
struct TaskPromise<void> : PromiseBase {
  Task<void> get_return_object() noexcept;
  void return_void() noexcept {}
  void take() {
    if (error) std::rethrow_exception(error);
  }
};

}  // namespace detail

template <class T = void>
class [[nodiscard]] Task {
 public:
  using promise_type = detail::TaskPromise<T>;
  using Handle = std::coroutine_handle<promise_type>;

  Task() = default;
  explicit Task(Handle h) : h_(h) {}
  Task(Task&& o) noexcept : h_(std::exchange(o.h_, {})) {}
  Task& operator=(Task&& o) noexcept {
    if (this != &o) {
      if (h_) h_.destroy();
      h_ = std::exchange(o.h_, {});
    }
    return *this;
  }
  ~Task() {
    if (h_) h_.destroy();
  }

  Handle release() { return std::exchange(h_, {}); }

  struct Awaiter {
    Handle child;
    bool await_ready() const noexcept { return false; }
    template <class P>
    bool await_suspend(std::coroutine_handle<P> parent) {
      promise_type& cp = child.promise();
      cp.ctx = parent.promise().ctx;
      cp.continuation = parent;
      cp.running_inline = true;
      child.resume();
      cp.running_inline = false;
      return !cp.finished;  // finished inline: the parent goes on without suspending
    }
    T await_resume() { return child.promise().take(); }
  };
  Awaiter operator co_await() && {
    assert(h_);
    return Awaiter{h_};
  }

 private:
  Handle h_;
};

namespace detail {
template <class T>
Task<T> TaskPromise<T>::get_return_object() noexcept {
  return Task<T>(std::coroutine_handle<TaskPromise<T>>::from_promise(*this));
}
inline Task<void> TaskPromise<void>::get_return_object() noexcept {
  return Task<void>(std::coroutine_handle<TaskPromise<void>>::from_promise(*this));
}

// The state of a spawned task: its future, its cancellation scope and its coroutine.
template <class T>
class TaskState final : public FutureState<T>, public TaskContext, public RootCompletion {
 public:
  explicit TaskState(typename Task<T>::Handle h) : h_(h) {
    h_.promise().ctx = this;
    h_.promise().root = this;
  }
  ~TaskState() override {
    if (h_) h_.destroy();
  }

  void start(std::shared_ptr<TaskState> self, EventLoop* loop) {
    self_ = std::move(self);
    loop->post([this] { first_step(); });
  }

  bool cancel() override {
    if (this->done()) return false;
    ++cancel_requests_;
    request_cancel();
    return true;
  }
  int cancelling() const override { return this->done() ? 0 : cancel_requests_; }

  void body_finished() override {
    auto keep = std::move(self_);
    auto& p = h_.promise();
    std::exception_ptr error = p.error;
    std::optional<Stored<T>> value;
    if constexpr (!std::is_void_v<T>) {
      if (!error) value.emplace(std::move(*p.value));
    }
    std::exchange(h_, {}).destroy();
    if (error) {
      this->set_exception(std::move(error));
    } else if (take_cancel()) {
      FutureBase::cancel();
    } else if constexpr (std::is_void_v<T>) {
      this->set_result();
    } else {
      this->set_result(std::move(*value));
    }
  }

 private:
  void first_step() {
    if (take_cancel()) {
      auto keep = std::move(self_);
      std::exchange(h_, {}).destroy();
      FutureBase::cancel();
      return;
    }
    h_.resume();
  }

  typename Task<T>::Handle h_;
  std::shared_ptr<TaskState> self_;  // keeps the task alive while it runs
  int cancel_requests_ = 0;
};
}  // namespace detail

// Starts `task` as a task of its own on the current event loop (or `loop`) and returns its future.
template <class T>
Future<T> spawn(Task<T> task, EventLoop* loop = nullptr) {
  if (loop == nullptr) loop = EventLoop::current();
  assert(loop != nullptr && "spawn() needs an event loop");
  auto state = std::make_shared<detail::TaskState<T>>(task.release());
  state->start(state, loop);
  return Future<T>(std::shared_ptr<FutureState<T>>(std::move(state)));
}

// A coroutine that awaits `f` shielded (see shield()), for places that take a Task.
template <class T>
Task<T> await_shielded(Future<T> f) {
  if constexpr (std::is_void_v<T>) {
    co_await shield(f);
  } else {
    co_return co_await shield(f);
  }
}

// Runs `task` on `loop` from outside the loop until it has finished, and returns its result. Work still
// queued when it finishes stays queued for the next run.
template <class T>
T run_until_complete(EventLoop& loop, Task<T> task) {
  std::optional<Future<T>> f;
  loop.post([&] {
    f = spawn(std::move(task), &loop);
    struct Stopper final : DoneListener {
      EventLoop* loop;
      void on_done() override {
        loop->stop();
        delete this;
      }
    };
    auto* stopper = new Stopper;
    stopper->loop = &loop;
    f->state()->add_listener(stopper);
  });
  loop.run();
  return f->result();
}

}  // namespace brenloc::aio
