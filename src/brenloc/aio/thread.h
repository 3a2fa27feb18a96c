// Running a blocking function on a thread and awaiting its result on the event loop.
// The function starts as soon as a thread of the pool is free and always runs to its end: cancelling
// the coroutine that awaits it only stops the waiting (the result is then dropped). A failure of the
// function comes back through the await.
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

#include <boost/asio/post.hpp>

#include "brenloc/aio/future.h"

namespace brenloc::aio {

// Submits `fn` to `executor` (a thread pool) and returns the future of its result, completed on `loop`.
template <class Executor, class F>
auto run_on(Executor&& executor, EventLoop& loop, F fn) -> Future<std::invoke_result_t<F&>> {
  using R = std::invoke_result_t<F&>;
  auto state = std::make_shared<FutureState<R>>();
  // The result, or the failure, travels to the loop together with the only other reference to the
  // shared state, so both are released on the loop's thread; the failure is handed over only after this
  // thread's catch block has let go of it.
  boost::asio::post(executor, [state, fn = std::move(fn), loop = &loop, token = EventLoop::RemoteToken(&loop)]() mutable {
    std::exception_ptr failure;
    try {
      if constexpr (std::is_void_v<R>) {
        fn();
        loop->post([state = std::move(state)] { state->set_result(); });
      } else {
        auto value = fn();
        loop->post([state = std::move(state), v = std::move(value)]() mutable { state->set_result(std::move(v)); });
      }
      return;
    } catch (...) {
      failure = std::current_exception();
    }
    if (state) loop->post([state = std::move(state), e = std::move(failure)] { state->set_exception(e); });
  });
  return Future<R>(std::move(state));
}

// Runs `fn` on the current loop's default pool.
template <class F>
auto to_thread(F fn) {
  EventLoop* loop = EventLoop::current();
  return run_on(loop->default_pool(), *loop, std::move(fn));
}

}  // namespace brenloc::aio
