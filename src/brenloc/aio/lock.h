// An event-loop lock: FIFO, for coroutines of one loop.
//
//   auto guard = co_await lock.scoped();   // released when `guard` goes out of scope
//
// A waiter cancelled while queued leaves the queue. A release hands the lock straight to the first
// waiter; if that waiter's task is cancelled before it runs again, it passes the lock on instead of
// keeping it, so a hand-off that races a cancellation never leaks the lock.
#pragma once

#include <coroutine>
#include <deque>
#include <utility>

#include "brenloc/aio/future.h"

namespace brenloc::aio {

class Lock;

class LockGuard {
 public:
  LockGuard() = default;
  explicit LockGuard(Lock* l) : lock_(l) {}
  LockGuard(LockGuard&& o) noexcept : lock_(std::exchange(o.lock_, nullptr)) {}
  LockGuard& operator=(LockGuard&& o) noexcept;
  ~LockGuard() { unlock(); }
  void unlock();
  bool owns_lock() const { return lock_ != nullptr; }

 private:
  Lock* lock_ = nullptr;
};

class Lock {
 public:
  class Acquire final : public SuspendBase {
   public:
    explicit Acquire(Lock& l) : lock_(l) {}
    bool await_ready() {
      // Uncontended: taken at once, without a suspension.
      if (!lock_.locked_ && lock_.waiters_.empty()) {
        lock_.locked_ = true;
        return true;
      }
      return false;
    }
    template <class P>
    bool await_suspend(std::coroutine_handle<P> h) {
      if (!begin_suspend(h)) return false;
      lock_.waiters_.push_back(this);
      return true;
    }
    void await_resume() {
      if (late_cancel()) {
        lock_.release();  // handed to us, but we are cancelled: pass it on
        throw Cancelled{};
      }
    }
    void interrupt() override;
    void grant() { wake(); }

   private:
    Lock& lock_;
  };

  struct ScopedAcquire {
    Acquire inner;
    bool await_ready() { return inner.await_ready(); }
    template <class P>
    bool await_suspend(std::coroutine_handle<P> h) {
      return inner.await_suspend(h);
    }
    LockGuard await_resume() {
      inner.await_resume();
      return LockGuard(lock);
    }
    Lock* lock;
  };

  Lock() = default;
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  Acquire acquire() { return Acquire(*this); }
  ScopedAcquire scoped() { return ScopedAcquire{Acquire(*this), this}; }
  void release();
  bool locked() const { return locked_; }
  std::size_t waiting() const { return waiters_.size(); }

 private:
  bool locked_ = false;
  std::deque<Acquire*> waiters_;
};

}  // namespace brenloc::aio
