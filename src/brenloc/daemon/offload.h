// Lanes and background tasks.
//
// An Offloader is a lane: a small named pool of threads. `lane.run(fn, args...)` submits the call at
// once and returns a Future of its result; the call always runs to its end, also when its waiter is
// cancelled. `run` is a value (Offloader::Run) that can be handed on, as the indexer's offload function.
// shutdown() stops the lane taking work and waits, off the loop, until its threads have finished.
//
// detached_task(task) starts a background task that nobody awaits: the loop's registry keeps it alive
// until it ends, logs a failure that leaves it, and lets the daemon cancel and drain what remains.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>

#include <boost/asio/thread_pool.hpp>

#include "brenloc/aio/task.h"
#include "brenloc/aio/thread.h"

namespace brenloc::daemon {

class Offloader {
  struct Lane {
    Lane(std::string n, std::size_t threads) : name(std::move(n)), pool(threads) {}
    std::string name;
    boost::asio::thread_pool pool;
    std::mutex mu;
    bool closed = false;
  };

 public:
  // The lane's run operation as a value. Calls made after shutdown fail with std::runtime_error.
  class Run {
   public:
    Run() = default;
    explicit Run(std::shared_ptr<Lane> lane) : lane_(std::move(lane)) {}
    explicit operator bool() const { return lane_ != nullptr; }

    template <class F, class... A>
    auto operator()(F&& fn, A&&... args) const {
      auto call = [fn = std::forward<F>(fn), tup = std::make_tuple(std::forward<A>(args)...)]() mutable {
        return std::apply(fn, std::move(tup));
      };
      aio::EventLoop* loop = aio::EventLoop::current();
      std::lock_guard lock(lane_->mu);
      if (lane_->closed) throw std::runtime_error("lane '" + lane_->name + "' is shut down");
      return aio::run_on(lane_->pool, *loop, std::move(call));
    }

   private:
    std::shared_ptr<Lane> lane_;
  };

  Offloader(std::string name, std::size_t threads)
      : lane_(std::make_shared<Lane>(std::move(name), threads)), run(lane_) {}
  Offloader(const Offloader&) = delete;
  Offloader& operator=(const Offloader&) = delete;

  const std::string& name() const { return lane_->name; }

  // Refuses new work, then waits (on a default-pool thread) until the lane's threads have finished.
  aio::Task<void> shutdown();
  // The blocking form, for use off the loop.
  void join();

 private:
  std::shared_ptr<Lane> lane_;

 public:
  const Run run;
};

// Starts `task` in the background; see above. Returns its future.
aio::Future<void> detached_task(aio::Task<void> task);

// Cancels every detached task still running and waits until all have ended.
aio::Task<void> drain_detached_tasks();

// How many detached tasks are still running.
std::size_t detached_task_count();

}  // namespace brenloc::daemon
