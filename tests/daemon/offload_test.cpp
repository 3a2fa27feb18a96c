// Background tasks: kept alive while nobody holds them, a failure that leaves one logged, and what
// remains cancelled by a drain.
#include <gtest/gtest.h>

#include <stdexcept>

#include "brenloc/daemon/offload.h"
#include "daemon/fake_worker.h"
#include "support/log_capture.h"

namespace brenloc::testing {
namespace {

aio::Task<void> fail_when_open(aio::Future<void> gate) {
  co_await aio::shield(gate);
  throw std::logic_error("escaped");
}

aio::Task<void> set_when_open(aio::Future<void> gate, bool& flag) {
  co_await aio::shield(gate);
  flag = true;
}

TEST(DetachedTask, KeptAliveWithoutAHandleFailuresLoggedAndDrainCancelsTheRest) {
  LogCapture logs;
  bool ran = false;
  aio::EventLoop loop(1);
  aio::run_until_complete(loop, [](bool& ran) -> aio::Task<void> {
    auto gate = make_gate();
    auto failing = daemon::detached_task(fail_when_open(gate));
    auto setting = daemon::detached_task(set_when_open(gate, ran));
    auto waiting = daemon::detached_task(set_when_open(make_gate(), ran));
    EXPECT_EQ(daemon::detached_task_count(), 3u);
    open_gate(gate);
    co_await aio::wait_all({failing.base(), setting.base()});
    EXPECT_EQ(daemon::detached_task_count(), 1u);
    co_await daemon::drain_detached_tasks();
    EXPECT_TRUE(waiting.cancelled());
    EXPECT_EQ(daemon::detached_task_count(), 0u);
  }(ran));
  EXPECT_TRUE(ran);
  auto recs = logs.of("brenloc.daemon.offload");
  ASSERT_EQ(recs.size(), 1u);
  EXPECT_EQ(recs[0].first_line(), "Background task failed");
  EXPECT_NE(recs[0].message.find("std::logic_error: escaped"), std::string::npos);
}

}  // namespace
}  // namespace brenloc::testing
