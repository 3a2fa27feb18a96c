#include "brenloc/aio/lock.h"

#include <algorithm>
#include <cassert>

namespace brenloc::aio {

LockGuard& LockGuard::operator=(LockGuard&& o) noexcept {
  if (this != &o) {
    unlock();
    lock_ = std::exchange(o.lock_, nullptr);
  }
  return *this;
}

void LockGuard::unlock() {
  if (lock_ != nullptr) std::exchange(lock_, nullptr)->release();
}

void Lock::release() {
  assert(locked_);
  if (waiters_.empty()) {
    locked_ = false;
    return;
  }
  // Stays locked: ownership passes to the first waiter.
  Acquire* next = waiters_.front();
  waiters_.pop_front();
  next->grant();
}

void Lock::Acquire::interrupt() {
  auto& q = lock_.waiters_;
  q.erase(std::find(q.begin(), q.end(), this));
  wake_cancelled();
}

}  // namespace brenloc::aio
