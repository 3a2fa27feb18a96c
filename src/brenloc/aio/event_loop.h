// The event loop: one thread that runs every coroutine of the daemon, on top of an asio io_context.
// Other threads reach it only through post(); everything else here is for the loop's own thread.
// The loop also owns the default pool of threads onto which blocking functions are offloaded.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

namespace brenloc::aio {

class EventLoop {
 public:
  // Held by work on another thread that will post back to this loop: the loop is not destroyed while a
  // token is alive, so a thread never posts into a loop that is going away. Move-only.
  class RemoteToken {
   public:
    explicit RemoteToken(EventLoop* loop) : loop_(loop) { loop_->remote_.fetch_add(1, std::memory_order_relaxed); }
    RemoteToken(RemoteToken&& o) noexcept : loop_(std::exchange(o.loop_, nullptr)) {}
    RemoteToken(const RemoteToken&) = delete;
    RemoteToken& operator=(const RemoteToken&) = delete;
    RemoteToken& operator=(RemoteToken&&) = delete;
    ~RemoteToken() {
      if (loop_ != nullptr) loop_->remote_.fetch_sub(1, std::memory_order_release);
    }

   private:
    EventLoop* loop_;
  };

  // `pool_threads` is the size of the default offload pool (0: one per core, at least 2).
  explicit EventLoop(std::size_t pool_threads = 0);
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // The loop whose run() is executing on the calling thread, or nullptr.
  static EventLoop* current();

  // Queues `fn` to run on the loop thread. Safe from any thread, also before or during run().
  template <class F>
  void post(F&& fn) {
    boost::asio::post(io_, std::forward<F>(fn));
  }

  // Runs queued work until stop() is called. Keeps running while idle.
  void run();
  // Makes run() return once the handler that is running now has finished. Safe from any thread.
  void stop();

  boost::asio::io_context& context() { return io_; }
  boost::asio::thread_pool& default_pool() { return pool_; }

 private:
  boost::asio::io_context io_;
  boost::asio::thread_pool pool_;
  std::atomic<int> remote_{0};
};

}  // namespace brenloc::aio
