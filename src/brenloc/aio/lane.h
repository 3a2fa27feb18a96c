// Lanes: small named pools of threads for blocking work, awaited on the event loop.
//
// `lane.run(fn, args...)` submits the call at once and returns a Future of its result; the call always
// runs to its end, also when its waiter is cancelled. `run` is a value (Lane::Run) that can be handed on,
// so that a unit can be given "where my blocking work goes" without knowing whose lane it is. shutdown()
// stops the lane taking work and waits, off the loop, until its threads have finished. A background lane's
// threads run below normal priority (see priority.h).
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include <boost/asio/thread_pool.hpp>

#include "brenloc/aio/priority.h"
#include "brenloc/aio/task.h"
#include "brenloc/aio/thread.h"

namespace brenloc::aio {

class Lane {
  struct Pool {
    Pool(std::string n, std::size_t threads, bool bg) : name(std::move(n)), background(bg), pool(threads) {}
    std::string name;
    bool background;
    boost::asio::thread_pool pool;
    std::mutex mu;
    bool closed = false;
  };

 public:
  // The lane's run operation as a value; an empty Run (default-constructed) is false. Calls made after
  // shutdown fail with std::runtime_error. Call it on the loop thread: the result completes there.
  class Run {
   public:
    Run() = default;
    explicit Run(std::shared_ptr<Pool> pool) : pool_(std::move(pool)) {}
    explicit operator bool() const { return pool_ != nullptr; }

    template <class F, class... A>
    auto operator()(F&& fn, A&&... args) const {
      auto call = [fn = std::forward<F>(fn), tup = std::make_tuple(std::forward<A>(args)...),
                   background = pool_->background]() mutable {
        if (background) lower_thread_priority();
        return std::apply(fn, std::move(tup));
      };
      EventLoop* loop = EventLoop::current();
      std::lock_guard lock(pool_->mu);
      if (pool_->closed) throw std::runtime_error("lane '" + pool_->name + "' is shut down");
      return run_on(pool_->pool, *loop, std::move(call));
    }

   private:
    std::shared_ptr<Pool> pool_;
  };

  enum class Priority { normal, background };

  Lane(std::string name, std::size_t threads, Priority priority = Priority::normal)
      : pool_(std::make_shared<Pool>(std::move(name), threads, priority == Priority::background)), run(pool_) {}
  Lane(const Lane&) = delete;
  Lane& operator=(const Lane&) = delete;

  const std::string& name() const { return pool_->name; }

  // Refuses new work, then waits (on a default-pool thread) until the lane's threads have finished.
  Task<void> shutdown();
  // The blocking form, for use off the loop.
  void join();

 private:
  std::shared_ptr<Pool> pool_;

 public:
  const Run run;
};

}  // namespace brenloc::aio
