// The force_reindex tool handler and its background run, over scripted index passes and a host worker whose
// own operations fail or wait on demand: what each request answers, what the pass is given, and what the
// run leaves on the worker, in the log and in its broadcasts.
#include <gtest/gtest.h>

#include <fmt/format.h>

#include <latch>

#include "brenloc/aio/timer.h"
#include "brenloc/tool_binding.h"
#include "daemon/fake_worker.h"
#include "support/log_capture.h"
#include "utils/tree_fixtures.h"

namespace brenloc::testing {
namespace {

using daemon::IncompleteRebuildError;

const char* kLogger = "brenloc.daemon.worker";

template <class F>
void on_loop(F&& body) {
  aio::EventLoop loop(2);
  aio::run_until_complete(loop, body());
}

aio::Task<void> wait_for_run(FakeWorker& w) {
  if (w._indexer_task) co_await aio::wait_all({w._indexer_task->base()});
}

// Lets queued loop work run.
aio::Task<void> yield_steps(int n = 5) {
  for (int i = 0; i < n; ++i) co_await aio::to_thread([] {});
}

TEST(ForceReindexHandler, ResponseFormsAndWhatThePassIsGiven) {
  TempDir dir;
  const fs::path root = dir.path();
  fs::create_directories(root / "docs");
  write_file(root / "a.py", "def f(): pass\n");
  const std::string started = R"({"status":"accepted","message":"Reindexing started in background","clear_existing":)";
  const json refused = {{"error", "gone"}, {"status", "failed"}};
  struct Case {
    json params, check_result;
    std::string expected;  // serialised: key order matters; "" = the worker's refusal
    std::string pass;      // the live pass's paths: "-" no pass, "*" the whole repository, else joined by ","
    bool rebuilt = false;  // a full rebuild was swapped in (and the report written after it)
  };
  const std::vector<Case> cases = {
      {json::object(), json::object(), started + "false}", "*"},
      {{{"clear_existing", true}}, json::object(), started + "true}", "-", true},
      {{{"clear_existing", true}, {"paths", json::array()}}, json::object(), started + "true}", "-", true},
      {{{"clear_existing", true}, {"paths", {"a.py"}}}, json::object(),
       R"({"status":"accepted","message":"Reindexing started in background; clear_existing rebuilds only the whole repository: paths are reindexed","clear_existing":false})",
       "a.py"},
      {{{"paths", json::array()}}, json::object(), started + "false}", "*"},
      {{{"paths", {"a.py", "missing.py"}}}, json::object(), started + "false}", "a.py"},
      {{{"paths", {"docs"}}}, json::object(), started + "false}", ""},
      {{{"paths", {"../elsewhere"}}, {"clear_existing", true}}, json::object(),
       R"({"error":"Path outside repository","status":"failed"})", "-"},
      {{{"paths", {"a.py"}}}, refused, "", "-"},
      {json::object(), json(), started + "false}", "*"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.params.dump() + " " + c.check_result.dump());
    ScriptedEnv env;
    FakeWorker w(env, root);
    w.check_result = c.check_result;
    w._rebuild_refusal = "standing refusal";
    const bool starts = c.expected.starts_with(R"({"status":"accepted")");
    on_loop([&]() -> aio::Task<void> {
      json response = co_await w._handle_force_reindex(c.params);
      EXPECT_EQ(response.dump(), c.expected.empty() ? refused.dump() : c.expected);
      EXPECT_EQ(w._indexer_task.has_value(), starts);
      // A request the worker did not refuse copies the standing refusal into the last error.
      EXPECT_EQ(w._last_reindex_error.has_value(), !c.expected.empty());
      co_await wait_for_run(w);
    });
    std::string pass = "-";
    if (!env.indexers.empty() && !env.indexers[0]->given.empty()) {
      ASSERT_EQ(env.indexers[0]->given.size(), 1u);
      const auto& given = env.indexers[0]->given[0];
      pass = given ? "" : "*";
      for (const auto& p : given.value_or(std::vector<fs::path>{})) {
        pass += (pass.empty() ? "" : ",") + fs::relative(p, root).string();
      }
    }
    EXPECT_EQ(pass, c.pass);
    EXPECT_EQ(env.forced_reports, c.rebuilt ? 1 : 0);
    EXPECT_EQ(w._rebuild_refusal.has_value(), !c.rebuilt);  // a rebuild that succeeds lifts the refusal
  }
}

// Cancelled while it waits for the lock or for path resolution, the handler leaves the locks free and
// starts nothing, also once the resolution it left behind has ended.
TEST(ForceReindexHandler, CancelledWhileWaitingHoldsNoLockAndStartsNothing) {
  for (const std::string waits_for : {"lock", "resolution"}) {
    SCOPED_TRACE(waits_for);
    TempDir root;
    write_file(root.path() / "a.py");
    ScriptedEnv env;
    FakeWorker w(env, root.path());
    std::latch lane_free(1);
    on_loop([&]() -> aio::Task<void> {
      std::optional<aio::LockGuard> held;
      std::optional<aio::Future<void>> blocker;
      if (waits_for == "lock") held = co_await w._indexer_lock.scoped();
      else blocker = w._maintenance.run([&] { lane_free.wait(); });
      auto handler = aio::spawn(w._handle_force_reindex({{"paths", {"a.py"}}}));
      co_await yield_steps();
      EXPECT_FALSE(handler.done());
      handler.cancel();
      co_await aio::wait_all({handler.base()});
      EXPECT_TRUE(handler.cancelled());
      held.reset();
      if (blocker) {
        lane_free.count_down();
        co_await *blocker;
      }
      co_await w._maintenance.run([] {});  // after the resolution, which the lane runs to its end
      EXPECT_FALSE(w._indexer_lock.locked());
      EXPECT_FALSE(w._indexing_lock.locked());
      EXPECT_FALSE(w._indexer_task.has_value());
    });
  }
}

aio::Task<void> park(aio::Future<void> g) { co_await aio::shield(g); }

TEST(ForceReindexHandler, BusyWhileARunIsUnderWayOrThePassCountIsRaised) {
  struct Case {
    bool task_running, task_finished;
    int in_progress;
    bool busy;
  };
  for (const auto& c : std::vector<Case>{{false, false, 0, false}, {true, false, 0, true}, {false, true, 0, false},
                                         {false, false, 1, true}, {false, false, 2, true}}) {
    SCOPED_TRACE(::testing::Message() << c.task_running << c.task_finished << c.in_progress);
    ScriptedEnv env;
    FakeWorker w(env);
    w._rebuild_refusal = "earlier refusal";
    auto gate = make_gate();
    on_loop([&]() -> aio::Task<void> {
      if (c.task_running) w._indexer_task = aio::spawn(park(gate));
      if (c.task_finished) {
        w._indexer_task = aio::spawn([]() -> aio::Task<void> { co_return; }());
        co_await yield_steps();
      }
      w._indexing_in_progress = c.in_progress;
      // Arguments that do not bind: a busy worker answers before looking at them.
      std::string outcome;
      try {
        outcome = (co_await w._handle_force_reindex(json{{"paths", 5}})).dump();
      } catch (const ArgumentError& e) {
        outcome = std::string("bind error: ") + e.what();
      }
      EXPECT_EQ(outcome, c.busy ? R"({"status":"in_progress","message":"Indexing already in progress"})"
                                : "bind error: argument 'paths' must be an array of strings");
      EXPECT_FALSE(w._last_reindex_error.has_value());
      EXPECT_FALSE(w._indexer_lock.locked());
      EXPECT_FALSE(w._indexing_lock.locked());
      open_gate(gate);
      co_await wait_for_run(w);
    });
  }
}

struct RunCase {
  std::string name;
  json params;
  std::optional<std::string> refusal_before;
  PassScript pass;  // the live pass, or the staging pass of a rebuild
  bool with_own_indexer = true;
  std::exception_ptr start_failure;
  std::optional<std::string> refusal_after, last_error_after;
  std::string log;        // "" = none; else the first line of the first record
  std::string broadcast;  // serialised, "" = none
  bool recorded = false;  // the pass's last info reached the worker's own indexer
};

TEST(BackgroundRun, EveryOutcomeUpdatesFieldsLogsAndBroadcastsAsItShould) {
  const workers::PassRecord info{workers::PassType::paths, 1.5, 5, 0};
  auto fail = [](auto e) { return std::make_exception_ptr(e); };
  const std::string incomplete = IncompleteRebuildError(2).what();
  auto complete = [](int files, int symbols, int errors) {
    return fmt::format(R"({{"type":"reindex_complete","files_processed":{},"symbols_added":{},"errors":{}}})", files,
                       symbols, errors);
  };
  const json rebuild = {{"clear_existing", true}};
  const std::vector<RunCase> cases = {
      {.name = "rebuild succeeded", .params = rebuild, .refusal_before = "old refusal",
       .pass = {.stats = make_stats(5, 7, 0, info)},
       .log = "Reindex completed: 5 files processed, 7 symbols added", .broadcast = complete(5, 7, 0), .recorded = true},
      {.name = "live reindex succeeded after a refused rebuild", .params = {{"paths", json::array()}},
       .refusal_before = "old refusal", .pass = {.stats = make_stats(2, 3, 1, info)}, .refusal_after = "old refusal",
       .last_error_after = "old refusal", .log = "Reindex completed: 2 files processed, 3 symbols added",
       .broadcast = complete(2, 3, 1), .recorded = true},
      {.name = "rebuild incomplete", .params = rebuild, .pass = {.stats = make_stats(4, 4, 2)},
       .refusal_after = incomplete, .last_error_after = incomplete, .log = "Reindex failed: " + incomplete,
       .broadcast = json{{"type", "reindex_failed"}, {"error", incomplete}}.dump()},
      {.name = "rebuild failed otherwise", .params = rebuild, .refusal_before = "old refusal",
       .pass = {.failure = fail(std::runtime_error("disk on fire"))}, .refusal_after = "old refusal",
       .last_error_after = "disk on fire", .log = "Reindex failed: disk on fire",
       .broadcast = R"({"type":"reindex_failed","error":"disk on fire"})"},
      {.name = "live pass failed with an empty text", .params = json::object(),
       .pass = {.failure = fail(std::runtime_error(""))}, .last_error_after = "", .log = "Reindex failed: ",
       .broadcast = R"({"type":"reindex_failed","error":""})"},
      {.name = "no own indexer: nothing recorded", .params = json::object(),
       .pass = {.stats = make_stats(1, 1, 0, info)}, .with_own_indexer = false,
       .log = "Reindex completed: 1 files processed, 1 symbols added", .broadcast = complete(1, 1, 0)},
      {.name = "no last info: nothing recorded", .params = json::object(), .pass = {.stats = make_stats(1, 1, 0)},
       .log = "Reindex completed: 1 files processed, 1 symbols added", .broadcast = complete(1, 1, 0)},
      {.name = "start failed", .params = rebuild, .refusal_before = "old refusal",
       .start_failure = fail(std::runtime_error("cannot start")), .refusal_after = "old refusal",
       .last_error_after = "old refusal"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture logs;
    ScriptedEnv env;
    env.pass = c.pass;
    FakeWorker w(env);
    w._rebuild_refusal = c.refusal_before;
    w.start_failure = c.start_failure;
    std::shared_ptr<FakeIndexer> own;
    if (c.with_own_indexer) w._indexer = own = std::make_shared<FakeIndexer>(workers::IndexerOptions{}, PassScript{});
    std::string ended;
    on_loop([&]() -> aio::Task<void> {
      EXPECT_EQ((co_await w._handle_force_reindex(c.params))["status"], "accepted");
      co_await wait_for_run(w);
      ended = ending_of(*w._indexer_task);
    });
    EXPECT_EQ(ended, c.start_failure ? "cannot start" : "ok");
    EXPECT_EQ(w._rebuild_refusal, c.refusal_after);
    EXPECT_EQ(w._last_reindex_error, c.last_error_after);
    const bool failed = c.broadcast.find("reindex_failed") != std::string::npos;
    // The run's own line (a rebuild's swap logs a line of its own before it).
    std::vector<LogRecord> records;
    for (const auto& r : logs.of(kLogger)) {
      if (r.first_line().starts_with("Reindex ")) records.push_back(r);
    }
    if (c.log.empty()) {
      EXPECT_TRUE(records.empty());
    } else {
      ASSERT_EQ(records.size(), 1u);
      EXPECT_EQ(records[0].first_line(), c.log);
      EXPECT_EQ(records[0].level, failed ? spdlog::level::err : spdlog::level::info);
      if (failed) EXPECT_NE(records[0].message.find("\nTrace"), std::string::npos);  // logged with its trace
    }
    std::string broadcasts;
    for (const auto& b : w.broadcasts) broadcasts += b.dump();
    EXPECT_EQ(broadcasts, c.broadcast);
    // Only a completed run triggers the follow-up passes.
    EXPECT_EQ(w._passes->triggers(), c.broadcast.find("reindex_complete") != std::string::npos ? 1 : 0);
    EXPECT_EQ(w._indexing_in_progress, 0);
    if (own) EXPECT_EQ(own->stats.get_last_index_info(), c.recorded ? workers::pass_info(info) : json());
  }
}

// Errors of the closing steps leave the run; a cancellation (of the worker's start, the live pass or the
// rebuild) leaves it after the finish that a raised count needs, and changes and says nothing.
TEST(BackgroundRun, CancellationAndErrorsOfTheClosingStepsLeaveTheRun) {
  struct Case {
    bool fail_pass, fail_broadcast, fail_finish;
    std::string cancel_at;  // "": not cancelled; else "start", "pass" or "rebuild"
    std::string ends;       // "ok", "cancelled", or the text of the error that leaves the run
  };
  const std::vector<Case> cases = {
      {true, true, false, "", "broadcast down"},          {false, false, true, "", "finish failed"},
      {true, false, true, "", "finish failed"},           {true, true, true, "", "finish failed"},
      {false, false, true, "pass", "finish failed"},      {false, false, false, "pass", "cancelled"},
      {false, false, false, "rebuild", "cancelled"},      {false, false, false, "start", "cancelled"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.fail_pass << c.fail_broadcast << c.fail_finish << " " << c.cancel_at);
    LogCapture logs;
    ScriptedEnv env;
    if (c.fail_pass) env.pass.failure = std::make_exception_ptr(std::runtime_error("pass broke"));
    if (c.cancel_at == "pass" || c.cancel_at == "rebuild") env.pass.gate = make_gate();
    FakeWorker w(env);
    w._rebuild_refusal = "kept";
    if (c.fail_broadcast) w.failure_broadcast_failure = std::make_exception_ptr(std::runtime_error("broadcast down"));
    if (c.fail_finish) w.finish_failure = std::make_exception_ptr(std::logic_error("finish failed"));
    if (c.cancel_at == "start") w.start_gate = make_gate();
    std::string ended;
    on_loop([&]() -> aio::Task<void> {
      co_await w._handle_force_reindex(c.cancel_at == "rebuild" ? json{{"clear_existing", true}} : json::object());
      w._last_reindex_error = "also kept";  // overwrites the handler's copy of the refusal
      if (!c.cancel_at.empty()) {
        co_await yield_steps();
        w._indexer_task->cancel();
      }
      co_await wait_for_run(w);
      ended = ending_of(*w._indexer_task);
    });
    EXPECT_EQ(ended, c.ends);
    EXPECT_EQ(w._indexing_in_progress, 0);
    if (ended != "cancelled") continue;
    EXPECT_EQ(w._rebuild_refusal, "kept");
    EXPECT_EQ(w._last_reindex_error, "also kept");
    EXPECT_TRUE(w.broadcasts.empty());
    EXPECT_TRUE(logs.of(kLogger).empty());
    EXPECT_EQ(w._passes->triggers(), 0);
    EXPECT_FALSE(staging_files_left(w.data_dir));
  }
}

}  // namespace
}  // namespace brenloc::testing
