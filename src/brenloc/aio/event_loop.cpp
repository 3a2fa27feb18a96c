#include "brenloc/aio/event_loop.h"

#include <algorithm>

namespace brenloc::aio {

namespace {
thread_local EventLoop* running_loop = nullptr;

std::size_t default_pool_size(std::size_t requested) {
  if (requested != 0) return requested;
  return std::max<std::size_t>(2, std::thread::hardware_concurrency());
}
}  // namespace

EventLoop::EventLoop(std::size_t pool_threads) : pool_(default_pool_size(pool_threads)) {}

EventLoop::~EventLoop() {
  // Pool work may still post results here; the pool is joined while the io_context is alive, and work on
  // other threads (lanes) that still holds a token is waited for before the io_context goes.
  pool_.join();
  while (remote_.load(std::memory_order_acquire) != 0) std::this_thread::yield();
}

EventLoop* EventLoop::current() { return running_loop; }

void EventLoop::run() {
  EventLoop* outer = running_loop;
  running_loop = this;
  auto guard = boost::asio::make_work_guard(io_);
  io_.restart();
  try {
    io_.run();
  } catch (...) {
    running_loop = outer;
    throw;
  }
  running_loop = outer;
}

void EventLoop::stop() { io_.stop(); }

}  // namespace brenloc::aio
