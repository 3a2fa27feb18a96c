// The coroutine runtime's promises: cancellation delivered once at the pending await and never caught
// as an ordinary error, clean-up that can await after it, shields, waits, locks, timers and threads.
#include <atomic>
#include <chrono>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "brenloc/aio/lock.h"
#include "brenloc/aio/scope.h"
#include "brenloc/aio/task.h"
#include "brenloc/aio/thread.h"
#include "brenloc/aio/timer.h"
#include "brenloc/daemon/offload.h"
#include "brenloc/utils/best_effort.h"
#include "brenloc/utils/logging.h"
#include "support/log_capture.h"

namespace brenloc::aio {
namespace {

using namespace std::chrono_literals;

template <class T>
T run(Task<T> t) {
  EventLoop loop(2);
  return run_until_complete(loop, std::move(t));
}

// Lets queued loop work run (each step is one trip through the loop's queue).
Task<void> yield_steps(int n = 5) {
  for (int i = 0; i < n; ++i) co_await to_thread([] {});
}

// A gate that a pool thread waits on, opened from the test.
struct Gate {
  std::latch entered{1};
  std::latch open{1};
};

// What a coroutine saw when its task was cancelled while suspended.
struct Seen {
  bool by_std_exception = false;
  bool by_cancelled = false;
  bool cleanup_awaited = false;
};

Task<void> cancellable_body(Task<void> wait, Seen& seen) {
  try {
    try {
      co_await std::move(wait);
    } catch (const std::exception&) {
      seen.by_std_exception = true;
      throw;
    }
  } catch (const Cancelled&) {
    seen.by_cancelled = true;
  }
  // Clean-up after the cancellation can await normally.
  int v = co_await to_thread([] { return 7; });
  seen.cleanup_awaited = (v == 7);
  throw Cancelled{};
}

Task<void> wait_on_thread(std::shared_ptr<Gate> g, std::shared_ptr<std::atomic<bool>> finished) {
  co_await to_thread([g, finished] {
    g->entered.count_down();
    g->open.wait();
    finished->store(true);
  });
}

Task<void> wait_on_sleep() { co_await sleep_for(1h); }

Task<void> wait_on_lock(Lock& l) {
  auto g = co_await l.scoped();
}

Task<int> never_done_future_value() { co_return 1; }

// Each case suspends a task in a different kind of wait and cancels it there.
TEST(Cancellation, DeliveredOnceAtThePendingAwaitAndNotCaughtAsAnOrdinaryError) {
  struct Case {
    std::string name;
    std::function<Task<void>(std::shared_ptr<Gate>, std::shared_ptr<std::atomic<bool>>, Lock&)> make;
  };
  std::vector<Case> cases = {
      {"pool thread", [](auto g, auto fin, Lock&) { return wait_on_thread(g, fin); }},
      {"timer", [](auto, auto, Lock&) { return wait_on_sleep(); }},
      {"lock queue", [](auto, auto, Lock& l) { return wait_on_lock(l); }},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    Seen seen;
    auto gate = std::make_shared<Gate>();
    auto finished = std::make_shared<std::atomic<bool>>(false);
    Lock lock;
    auto test = [&]() -> Task<void> {
      auto held = co_await lock.scoped();  // makes the lock case queue
      auto t = spawn(cancellable_body(c.make(gate, finished, lock), seen));
      co_await yield_steps();
      EXPECT_FALSE(t.done());
      EXPECT_TRUE(t.cancel());
      co_await wait_all({t.base()});
      EXPECT_TRUE(t.cancelled());
      EXPECT_THROW(t.result(), Cancelled);
      EXPECT_EQ(lock.waiting(), 0u);
      gate->open.count_down();
    };
    run(test());
    EXPECT_FALSE(seen.by_std_exception);
    EXPECT_TRUE(seen.by_cancelled);
    EXPECT_TRUE(seen.cleanup_awaited);
  }
}

TEST(Cancellation, ThreadFunctionRunsToItsEndAfterItsWaiterIsCancelled) {
  auto gate = std::make_shared<Gate>();
  auto finished = std::make_shared<std::atomic<bool>>(false);
  run([&]() -> Task<void> {
    auto t = spawn(wait_on_thread(gate, finished));
    co_await to_thread([&] { gate->entered.wait(); });
    t.cancel();
    co_await wait_all({t.base()});
    EXPECT_TRUE(t.cancelled());
    EXPECT_FALSE(finished->load());
    gate->open.count_down();
    co_await to_thread([] {});  // the function finishes on its own
    while (!finished->load()) co_await sleep_for(1ms);
  }());
  EXPECT_TRUE(finished->load());
}

Task<int> body_that_must_not_run(bool& ran) {
  ran = true;
  co_return 1;
}

TEST(Cancellation, TaskCancelledBeforeItsFirstStepNeverRuns) {
  bool ran = false;
  run([&]() -> Task<void> {
    auto t = spawn(body_that_must_not_run(ran));
    t.cancel();
    co_await wait_all({t.base()});
    EXPECT_TRUE(t.cancelled());
  }());
  EXPECT_FALSE(ran);
}

Task<void> ignores_one_cancellation(int& after) {
  try {
    co_await sleep_for(1h);
  } catch (const Cancelled&) {
  }
  co_await sleep_for(1ms);  // a second wait is not cancelled again: delivered once
  after = 1;
}

TEST(Cancellation, IsDeliveredOnlyOnce) {
  int after = 0;
  run([&]() -> Task<void> {
    auto t = spawn(ignores_one_cancellation(after));
    co_await yield_steps();
    t.cancel();
    co_await wait_all({t.base()});
    EXPECT_FALSE(t.cancelled());
  }());
  EXPECT_EQ(after, 1);
}

Task<int> slow_value(std::shared_ptr<Gate> g) {
  co_await to_thread([g] { g->open.wait(); });
  co_return 42;
}

Task<void> shielded_waiter(Future<int> inner, std::vector<std::string>& log) {
  try {
    co_await shield(inner);
  } catch (const Cancelled&) {
    log.push_back("first wait cancelled");
  }
  // Clean-up waits again for the same work; a second cancellation only stops that wait too.
  try {
    co_await shield(inner);
  } catch (const Cancelled&) {
    log.push_back("second wait cancelled");
  }
  throw Cancelled{};
}

TEST(Shield, CancelsOnlyTheWaitAndSurvivesASecondCancellation) {
  std::vector<std::string> log;
  auto gate = std::make_shared<Gate>();
  run([&]() -> Task<void> {
    auto inner = spawn(slow_value(gate));
    auto outer = spawn(shielded_waiter(inner, log));
    co_await yield_steps();
    outer.cancel();
    co_await yield_steps();
    outer.cancel();
    co_await wait_all({outer.base()});
    EXPECT_TRUE(outer.cancelled());
    EXPECT_FALSE(inner.done());
    gate->open.count_down();
    EXPECT_EQ(co_await shield(inner), 42);  // the work ran on and can still be awaited
  }());
  EXPECT_EQ(log, (std::vector<std::string>{"first wait cancelled", "second wait cancelled"}));
}

TEST(DirectAwait, CancellingTheWaiterCancelsTheAwaitedTask) {
  run([&]() -> Task<void> {
    auto inner = spawn(wait_on_sleep());
    auto outer = spawn([](Future<void> f) -> Task<void> { co_await f; }(inner));
    co_await yield_steps();
    outer.cancel();
    co_await wait_all({outer.base(), inner.base()});
    EXPECT_TRUE(inner.cancelled());
    EXPECT_TRUE(outer.cancelled());
  }());
}

Task<int> fails_with(std::string text) {
  co_await to_thread([] {});
  throw std::runtime_error(text);
}

TEST(Futures, FailuresComeBackThroughAwaitsAndWaitAllDoesNotRaiseThem) {
  run([&]() -> Task<void> {
    auto bad = spawn(fails_with("boom"));
    auto good = spawn(never_done_future_value());
    co_await wait_all({bad.base(), good.base()});
    EXPECT_TRUE(bad.done());
    auto e = bad.exception();  // does not throw
    EXPECT_TRUE(e);
    if (e) EXPECT_THROW(std::rethrow_exception(e), std::runtime_error);
    EXPECT_EQ(good.exception(), nullptr);
    EXPECT_EQ(co_await good, 1);
    try {
      co_await to_thread([]() -> int { throw std::invalid_argument("from a thread"); });
      ADD_FAILURE() << "no failure";
    } catch (const std::invalid_argument& ex) {
      EXPECT_STREQ(ex.what(), "from a thread");
    }
  }());
}

TEST(Futures, ExceptionOfACancelledFutureThrowsTheCancellation) {
  run([&]() -> Task<void> {
    auto f = spawn(wait_on_sleep());
    co_await yield_steps();
    f.cancel();
    co_await wait_all({f.base()});
    EXPECT_THROW(f.exception(), Cancelled);
  }());
}

TEST(Futures, AFailureNobodyFetchedIsLoggedAndAFetchedOneIsNot) {
  testing::LogCapture logs;
  run([&]() -> Task<void> {
    auto fetched = spawn(fails_with("fetched"));
    auto dropped = spawn(fails_with("dropped"));
    co_await wait_all({fetched.base(), dropped.base()});
    (void)fetched.exception();
  }());
  auto recs = logs.of("brenloc.aio");
  ASSERT_EQ(recs.size(), 1u);
  EXPECT_EQ(recs[0].first_line(), "Future exception was never retrieved");
  EXPECT_NE(recs[0].message.find("std::runtime_error: dropped"), std::string::npos);
}

Task<int> immediate(int i) { co_return i; }

TEST(Tasks, AMillionImmediatelyCompletingAwaitsDoNotGrowTheStack) {
  long sum = run([]() -> Task<long> {
    long s = 0;
    for (int i = 0; i < 1'000'000; ++i) s += co_await immediate(1);
    co_return s;
  }());
  EXPECT_EQ(sum, 1'000'000);
}

Task<void> hold_lock(Lock& l, std::vector<int>& order, int id, std::chrono::milliseconds d) {
  auto g = co_await l.scoped();
  order.push_back(id);
  co_await sleep_for(d);
}

TEST(LockQueue, FifoOrderAndACancelledWaiterLeavesTheQueue) {
  std::vector<int> order;
  Lock l;
  run([&]() -> Task<void> {
    auto a = spawn(hold_lock(l, order, 1, 20ms));
    co_await yield_steps();
    auto b = spawn(hold_lock(l, order, 2, 0ms));
    auto c = spawn(hold_lock(l, order, 3, 0ms));
    auto d = spawn(hold_lock(l, order, 4, 0ms));
    co_await yield_steps();
    EXPECT_EQ(l.waiting(), 3u);
    c.cancel();
    co_await yield_steps();
    EXPECT_EQ(l.waiting(), 2u);
    co_await wait_all({a.base(), b.base(), c.base(), d.base()});
    EXPECT_TRUE(c.cancelled());
  }());
  EXPECT_EQ(order, (std::vector<int>{1, 2, 4}));
  EXPECT_FALSE(l.locked());
}

TEST(LockQueue, AHandOffThatRacesACancellationDoesNotLeakTheLock) {
  Lock l;
  std::vector<int> order;
  run([&]() -> Task<void> {
    auto g = co_await l.scoped();
    auto b = spawn(hold_lock(l, order, 2, 0ms));
    auto c = spawn(hold_lock(l, order, 3, 0ms));
    co_await yield_steps();
    g.unlock();   // hands the lock to b; b is queued to run
    b.cancel();   // ... and is cancelled before it runs
    co_await wait_all({b.base(), c.base()});
    EXPECT_TRUE(b.cancelled());
  }());
  EXPECT_EQ(order, (std::vector<int>{3}));
  EXPECT_FALSE(l.locked());
}

TEST(Timer, SleepsAtLeastItsDuration) {
  auto start = std::chrono::steady_clock::now();
  run([]() -> Task<void> { co_await sleep_for(20ms); }());
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
}

struct RecordingScope {
  std::vector<std::string>& log;
  bool swallow;
  void enter() { log.push_back("enter"); }
  bool exit(const ScopeExit& e) {
    static const char* names[] = {"normal", "failure", "cancelled"};
    log.push_back(std::string("exit ") + names[e.kind]);
    return swallow;
  }
};

TEST(Scope, IsToldHowTheBodyEndedAndSwallowsOnlyWhenItSaysSo) {
  struct Case {
    std::string body;
    bool swallow;
    std::string exit;
    std::string outcome;
  };
  std::vector<Case> cases = {
      {"ok", false, "exit normal", "value"},
      {"fail", false, "exit failure", "failure"},
      {"fail", true, "exit failure", "absent"},
      {"cancel", false, "exit cancelled", "cancelled"},
      {"cancel", true, "exit cancelled", "absent"},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.body + (c.swallow ? " swallowed" : ""));
    std::vector<std::string> log;
    std::string outcome = run([&]() -> Task<std::string> {
      RecordingScope scope{log, c.swallow};
      auto body = [](std::string kind) -> Task<int> {
        if (kind == "fail") throw std::runtime_error("x");
        if (kind == "cancel") throw Cancelled{};
        co_return 5;
      };
      try {
        auto r = co_await within(scope, body(c.body));
        co_return r ? "value" : "absent";
      } catch (const std::runtime_error&) {
        co_return "failure";
      } catch (const Cancelled&) {
        co_return "cancelled";
      }
    }());
    EXPECT_EQ(log, (std::vector<std::string>{"enter", c.exit}));
    EXPECT_EQ(outcome, c.outcome);
  }
}

TEST(Scope, LoggedSuppressSwallowsAndLogsFailuresButLetsCancellationThrough) {
  testing::LogCapture logs;
  auto logger = utils::get_logger("brenloc.test");
  auto outcome = [&](bool cancel) {
    return run([](std::shared_ptr<spdlog::logger> logger, bool cancel) -> Task<std::string> {
      auto scope = utils::logged_suppress(logger, "doing a step");
      auto body = [](bool cancel) -> Task<void> {
        if (cancel) throw Cancelled{};
        throw std::runtime_error("step broke");
        co_return;
      };
      try {
        auto r = co_await within(scope, body(cancel));
        co_return r ? "completed" : "swallowed";
      } catch (const Cancelled&) {
        co_return "cancelled";
      }
    }(logger, cancel));
  };
  EXPECT_EQ(outcome(false), "swallowed");
  EXPECT_EQ(outcome(true), "cancelled");
  auto recs = logs.of("brenloc.test");
  ASSERT_EQ(recs.size(), 1u);
  EXPECT_EQ(recs[0].first_line(), "Suppressed failure while doing a step");
  EXPECT_NE(recs[0].message.find("step broke"), std::string::npos);
}

TEST(Loop, PostFromAnotherThreadRunsOnTheLoopThread) {
  EventLoop loop(1);
  std::thread::id loop_thread, ran_on;
  std::thread poster;
  loop.post([&] {
    loop_thread = std::this_thread::get_id();
    poster = std::thread([&] {
      loop.post([&] {
        ran_on = std::this_thread::get_id();
        loop.stop();
      });
    });
  });
  loop.run();
  poster.join();
  EXPECT_EQ(ran_on, loop_thread);
}

Task<void> fail_in_background() {
  co_await sleep_for(1ms);
  throw std::logic_error("escaped");
}

TEST(DetachedTask, KeptAliveWithoutAHandleAndItsEscapingFailureLogged) {
  testing::LogCapture logs;
  bool ran = false;
  run([&]() -> Task<void> {
    (void)daemon::detached_task(fail_in_background());
    (void)daemon::detached_task([](bool& r) -> Task<void> {
      co_await sleep_for(2ms);
      r = true;
    }(ran));
    EXPECT_EQ(daemon::detached_task_count(), 2u);
    co_await sleep_for(30ms);
    EXPECT_EQ(daemon::detached_task_count(), 0u);
  }());
  EXPECT_TRUE(ran);
  auto recs = logs.of("brenloc.daemon.offload");
  ASSERT_EQ(recs.size(), 1u);
  EXPECT_EQ(recs[0].first_line(), "Background task failed");
  EXPECT_NE(recs[0].message.find("std::logic_error: escaped"), std::string::npos);
}

TEST(DetachedTask, DrainCancelsAndWaitsForWhatRemains) {
  run([&]() -> Task<void> {
    auto f = daemon::detached_task(wait_on_sleep());
    co_await yield_steps();
    co_await daemon::drain_detached_tasks();
    EXPECT_TRUE(f.cancelled());
    EXPECT_EQ(daemon::detached_task_count(), 0u);
  }());
}

TEST(Offloader, RunIsAValueAndShutdownWaitsForTheLanesThreads) {
  std::atomic<int> done{0};
  run([&]() -> Task<void> {
    daemon::Offloader lane("test", 2);
    daemon::Offloader::Run run = lane.run;  // handed on as a value
    auto slow = run([&](int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); ++done; }, 30);
    EXPECT_EQ(co_await run([](int a, int b) { return a + b; }, 2, 3), 5);
    co_await lane.shutdown();
    EXPECT_EQ(done.load(), 1);  // the slow call had ended before shutdown returned
    EXPECT_THROW(run([] {}), std::runtime_error);
    co_await slow;
  }());
}

}  // namespace
}  // namespace brenloc::aio
