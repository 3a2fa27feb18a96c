#include "brenloc/aio/lane.h"

namespace brenloc::aio {

Task<void> Lane::shutdown() {
  {
    std::lock_guard lock(pool_->mu);
    pool_->closed = true;
  }
  co_await to_thread([pool = pool_] { pool->pool.join(); });
}

void Lane::join() {
  {
    std::lock_guard lock(pool_->mu);
    pool_->closed = true;
  }
  pool_->pool.join();
}

}  // namespace brenloc::aio
