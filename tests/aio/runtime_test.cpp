// The coroutine runtime's promises: cancellation delivered once at the pending await and never caught
// as an ordinary error, clean-up that can await after it, shields, waits, locks, timers and threads.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "brenloc/aio/fair_turns.h"
#include "brenloc/aio/lane.h"
#include "brenloc/aio/lock.h"
#include "brenloc/aio/scope.h"
#include "brenloc/aio/task.h"
#include "brenloc/aio/thread.h"
#include "brenloc/aio/timer.h"
#include "brenloc/utils/best_effort.h"
#include "brenloc/utils/logging.h"
#include "support/log_capture.h"

namespace brenloc::aio {
namespace {

using namespace std::chrono_literals;

// A handler for ordinary errors (`catch (const std::exception&)`) never catches a cancellation.
static_assert(!std::is_base_of_v<std::exception, Cancelled>);

template <class T>
T run(Task<T> t) {
  EventLoop loop(2);
  return run_until_complete(loop, std::move(t));
}

Task<void> yield_steps(int n = 5) {
  for (int i = 0; i < n; ++i) co_await to_thread([] {});
}

struct Gate {
  std::latch entered{1}, open{1};
};

// Records that the cancellation reached it, awaits in its clean-up, and ends normally.
Task<void> cancellable_body(Task<void> wait, std::vector<std::string>& seen) {
  try {
    co_await std::move(wait);
  } catch (const Cancelled&) {
    seen.push_back("cancelled");
  }
  seen.push_back("clean-up awaited " + std::to_string(co_await to_thread([] { return 7; })));
}

Task<void> wait_on_thread(std::shared_ptr<Gate> g, std::shared_ptr<std::atomic<bool>> finished) {
  co_await to_thread([g, finished] {
    g->entered.count_down();
    g->open.wait();
    finished->store(true);
  });
}

Task<void> wait_on_sleep() { co_await sleep_for(1h); }

Task<void> wait_on_lock(Lock& l) { auto g = co_await l.scoped(); }

Task<int> immediate(int i) { co_return i; }

// Cancelled before its first step, a task never runs its body and ends cancelled; otherwise the body
// may swallow the cancellation and end normally.
TEST(Cancellation, DeliveredOnceAtThePendingAwaitOrBeforeTheFirstStep) {
  for (std::string wait : {"pool thread", "timer", "lock queue", "first step"}) {
    SCOPED_TRACE(wait);
    std::vector<std::string> seen;
    auto gate = std::make_shared<Gate>();
    auto finished = std::make_shared<std::atomic<bool>>(false);
    Lock lock;
    auto test = [&]() -> Task<void> {
      auto held = co_await lock.scoped();  // makes the lock case queue
      auto t = spawn(cancellable_body(wait == "pool thread" ? wait_on_thread(gate, finished)
                                      : wait == "timer"     ? wait_on_sleep()
                                                            : wait_on_lock(lock),
                                      seen));
      if (wait != "first step") co_await yield_steps();
      if (wait == "pool thread") co_await to_thread([&] { gate->entered.wait(); });
      EXPECT_FALSE(t.done());
      EXPECT_TRUE(t.cancel());
      co_await wait_all({t.base()});
      EXPECT_EQ(t.cancelled(), wait == "first step");
      if (wait == "first step") EXPECT_THROW(t.result(), Cancelled);
      EXPECT_EQ(lock.waiting(), 0u);
      EXPECT_FALSE(finished->load());  // the waiter let go without waiting for its thread function...
      gate->open.count_down();
      while (wait == "pool thread" && !finished->load()) co_await sleep_for(1ms);  // ...which runs to its end
    };
    run(test());
    using Seen = std::vector<std::string>;
    EXPECT_EQ(seen, (wait == "first step" ? Seen{} : Seen{"cancelled", "clean-up awaited 7"}));
  }
}

Task<int> slow_value(std::shared_ptr<Gate> g) {
  co_await to_thread([g] { g->open.wait(); });
  co_return 42;
}

// Clean-up waits again for the same work; a second cancellation only stops that wait too.
Task<void> shielded_waiter(Future<int> inner, std::vector<std::string>& log) {
  for (std::string wait : {"first", "second"}) {
    try {
      co_await shield(inner);
    } catch (const Cancelled&) {
      log.push_back(wait + " wait cancelled");
    }
  }
  throw Cancelled{};
}

// Where awaiting a task directly ties the two, so that cancelling the waiter cancels the task too.
TEST(Shield, CancelsOnlyTheWaitAndSurvivesASecondCancellationWhereADirectAwaitCancelsTheTask) {
  std::vector<std::string> log;
  auto gate = std::make_shared<Gate>();
  run([&]() -> Task<void> {
    auto inner = spawn(slow_value(gate));
    auto outer = spawn(shielded_waiter(inner, log));
    auto sleeper = spawn(wait_on_sleep());
    auto direct = spawn([](Future<void> f) -> Task<void> { co_await f; }(sleeper));
    co_await yield_steps();
    outer.cancel();
    direct.cancel();
    co_await yield_steps();
    outer.cancel();
    co_await wait_all({outer.base(), direct.base(), sleeper.base()});
    EXPECT_TRUE(outer.cancelled());
    EXPECT_TRUE(direct.cancelled());
    EXPECT_TRUE(sleeper.cancelled());
    EXPECT_THROW(sleeper.exception(), Cancelled);
    EXPECT_FALSE(inner.done());
    gate->open.count_down();
    EXPECT_EQ(co_await shield(inner), 42);  // the work ran on and can still be awaited
  }());
  EXPECT_EQ(log, (std::vector<std::string>{"first wait cancelled", "second wait cancelled"}));
}

// Fails on a pool thread; the failure comes back through the await.
Task<int> fails_with(std::string text) {
  co_return co_await to_thread([text]() -> int { throw std::runtime_error(text); });
}

TEST(Futures, FailuresComeBackThroughAwaitsAndOnlyAnUnfetchedOneIsLogged) {
  testing::LogCapture logs;
  run([&]() -> Task<void> {
    auto bad = spawn(fails_with("fetched"));
    auto dropped = spawn(fails_with("dropped"));
    auto good = spawn(immediate(1));
    co_await wait_all({bad.base(), dropped.base(), good.base()});  // does not raise
    auto e = bad.exception();  // does not throw
    EXPECT_THROW(e ? std::rethrow_exception(e) : void(), std::runtime_error);
    EXPECT_EQ(good.exception(), nullptr);
    EXPECT_EQ(co_await good, 1);
  }());
  auto recs = logs.of("brenloc.aio");
  ASSERT_EQ(recs.size(), 1u);
  EXPECT_EQ(recs[0].first_line(), "Future exception was never retrieved");
  EXPECT_NE(recs[0].message.find("std::runtime_error: dropped"), std::string::npos);
}

TEST(Tasks, AMillionImmediateAwaitsDoNotGrowTheStackAndASleepLastsItsDuration) {
  auto start = std::chrono::steady_clock::now();
  long sum = run([]() -> Task<long> {
    long s = 0;
    for (int i = 0; i < 1'000'000; ++i) s += co_await immediate(1);
    co_await sleep_for(20ms);
    co_return s;
  }());
  EXPECT_EQ(sum, 1'000'000);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
}

// Takes the lock and holds it until `release` is done.
Task<void> hold_lock(Lock& l, std::vector<int>& order, int id, Future<void> release) {
  auto g = co_await l.scoped();
  order.push_back(id);
  co_await shield(release);
}

// FIFO order; a cancelled waiter leaves the queue; a hand-off that races a cancellation does not leak the lock.
TEST(LockQueue, FifoOrderAndCancelledWaitersNeitherBlockNorLeakIt) {
  std::vector<int> order;
  Lock l;
  Future<void> gate(std::make_shared<FutureState<void>>()), open(std::make_shared<FutureState<void>>());
  open.state()->set_result();
  run([&]() -> Task<void> {
    auto a = spawn(hold_lock(l, order, 1, gate));
    co_await yield_steps();
    auto b = spawn(hold_lock(l, order, 2, open));
    auto c = spawn(hold_lock(l, order, 3, open));
    auto d = spawn(hold_lock(l, order, 4, open));
    co_await yield_steps();
    EXPECT_EQ(l.waiting(), 3u);
    c.cancel();
    EXPECT_EQ(l.waiting(), 2u);
    gate.state()->set_result();
    co_await wait_all({a.base(), b.base(), c.base(), d.base()});
    EXPECT_TRUE(c.cancelled());

    auto g = co_await l.scoped();
    auto e = spawn(hold_lock(l, order, 5, open));
    auto f = spawn(hold_lock(l, order, 6, open));
    co_await yield_steps();
    g.unlock();  // hands the lock to e, queued to run...
    e.cancel();  // ...and cancelled before it runs
    co_await wait_all({e.base(), f.base()});
    EXPECT_TRUE(e.cancelled());
  }());
  EXPECT_EQ(order, (std::vector<int>{1, 2, 4, 6}));
  EXPECT_FALSE(l.locked());
}

// Takes a turn for `party` and holds it until `release` is done.
Task<void> hold_turn(FairTurns& turns, FairTurns::Party& party, std::vector<std::string>& order, std::string id,
                     Future<void> release) {
  auto turn = co_await turns.take(party);
  order.push_back(id);
  co_await shield(release);
}

// Parties are served in rotation, each one's waiters in order; a cancelled waiter neither blocks nor leaks
// a turn; a newcomer does not overtake a waiter.
TEST(FairTurns, ServesPartiesInRotationAndNeverLeaksATurn) {
  std::vector<std::string> order;
  FairTurns turns(1);
  auto a = turns.join(), b = turns.join(), c = turns.join();
  Future<void> gate(std::make_shared<FutureState<void>>()), open(std::make_shared<FutureState<void>>());
  open.state()->set_result();
  run([&]() -> Task<void> {
    std::vector<Future<void>> tasks;
    tasks.push_back(spawn(hold_turn(turns, *a, order, "a0", gate)));
    co_await yield_steps();
    // A floods first; B and C come later with one each.
    for (std::string id : {"a1", "a2", "a3", "a4"}) tasks.push_back(spawn(hold_turn(turns, *a, order, id, open)));
    co_await yield_steps();
    tasks.push_back(spawn(hold_turn(turns, *b, order, "b1", open)));
    tasks.push_back(spawn(hold_turn(turns, *c, order, "c1", open)));
    co_await yield_steps();
    tasks[2].cancel();  // a2 leaves the queue
    EXPECT_EQ(a->waiting(), 3u);
    gate.state()->set_result();
    std::vector<std::shared_ptr<FutureBase>> bases;
    for (auto& t : tasks) bases.push_back(t.base());
    co_await wait_all(bases);
    EXPECT_TRUE(tasks[2].cancelled());

    // A turn handed to a waiter that is cancelled before it runs is passed on.
    auto held = co_await turns.take(*a);
    auto d = spawn(hold_turn(turns, *b, order, "d", open));
    auto e = spawn(hold_turn(turns, *c, order, "e", open));
    co_await yield_steps();
    held.release();  // hands the turn to d, queued to run...
    d.cancel();      // ...and cancelled before it runs
    co_await wait_all({d.base(), e.base()});
    EXPECT_TRUE(d.cancelled());
  }());
  EXPECT_EQ(order, (std::vector<std::string>{"a0", "a1", "b1", "c1", "a3", "a4", "e"}));
  EXPECT_EQ(turns.held(), 0u);
}

// Records how the body ended; swallows it when its mode says so, or as logged_suppress decides.
struct RecordingScope {
  std::vector<std::string>* log;
  std::string mode;
  utils::LoggedSuppress logged = utils::logged_suppress(utils::get_logger("brenloc.test"), "doing a step");
  void enter() { log->push_back("enter"); }
  bool exit(const ScopeExit& e) {
    static const char* names[] = {"normal", "failure", "cancelled"};
    log->push_back(std::string("exit ") + names[e.kind]);
    return mode == "swallows" || (mode == "logged" && logged.exit(e));
  }
};

Task<std::string> outcome_within(RecordingScope scope, std::string body) {
  auto step = [](std::string kind) -> Task<int> {
    if (kind == "failure") throw std::runtime_error("step broke");
    if (kind == "cancelled") throw Cancelled{};
    co_return 5;
  };
  try {
    auto r = co_await within(scope, step(body));
    co_return r ? "value" : "absent";
  } catch (const std::runtime_error&) {
    co_return "failure";
  } catch (const Cancelled&) {
    co_return "cancelled";
  }
}

// logged_suppress swallows and logs failures but lets cancellation through.
TEST(Scope, IsToldHowTheBodyEndedAndSwallowsOnlyWhenItSaysSo) {
  testing::LogCapture logs;
  struct Case {
    std::string body, scope, outcome;  // the body ends as named
  };
  for (const auto& c : std::vector<Case>{{"normal", "keeps", "value"},         {"failure", "keeps", "failure"},
                                         {"failure", "swallows", "absent"},    {"cancelled", "keeps", "cancelled"},
                                         {"cancelled", "swallows", "absent"},  {"failure", "logged", "absent"},
                                         {"cancelled", "logged", "cancelled"}}) {
    SCOPED_TRACE(c.body + " " + c.scope);
    std::vector<std::string> log;
    EXPECT_EQ(run(outcome_within(RecordingScope{&log, c.scope}, c.body)), c.outcome);
    EXPECT_EQ(log, (std::vector<std::string>{"enter", "exit " + c.body}));
  }
  auto recs = logs.of("brenloc.test");
  ASSERT_EQ(recs.size(), 1u);
  EXPECT_EQ(recs[0].first_line(), "Suppressed failure while doing a step");
  EXPECT_NE(recs[0].message.find("step broke"), std::string::npos);
}

TEST(Lane, RunIsAValueAndShutdownWaitsForTheLanesThreads) {
  std::atomic<int> done{0};
  run([&]() -> Task<void> {
    Lane lane("test", 2);
    Lane::Run run = lane.run;  // handed on as a value
    auto slow = run([&](int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); ++done; }, 30);
    EXPECT_EQ(co_await run([](int a, int b) { return a + b; }, 2, 3), 5);
    co_await lane.shutdown();
    EXPECT_EQ(done.load(), 1);  // the slow call had ended before shutdown returned
    EXPECT_THROW(run([] {}), std::runtime_error);
    co_await slow;
  }());
}

// A background lane's threads give way to the others; the lowering never leaks to a normal lane or to the
// loop's pool, where searches run.
TEST(Lane, OnlyABackgroundLanesThreadsRunBelowNormalPriority) {
  const auto nice = [] { return getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())); };
  const int base = nice();
  run([&]() -> Task<void> {
    Lane background("background", 1, Lane::Priority::background);
    Lane normal("normal", 1);
    const int lowered = co_await background.run(nice);
    EXPECT_GE(lowered, std::max(base, 10));
    EXPECT_EQ(co_await background.run(nice), lowered);
    EXPECT_EQ(co_await normal.run(nice), base);
    EXPECT_EQ(co_await to_thread(nice), base);
    co_await background.shutdown();
    co_await normal.shutdown();
  }());
}

}  // namespace
}  // namespace brenloc::aio
