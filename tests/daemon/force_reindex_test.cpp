// The force_reindex tool handler and its background run, over test doubles of the worker's operations.
#include <gtest/gtest.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <fstream>
#include <set>

#include "brenloc/aio/timer.h"
#include "brenloc/daemon/offload.h"
#include "brenloc/tool_binding.h"
#include "daemon/fake_worker.h"
#include "support/log_capture.h"
#include "brenloc/utils/logging.h"

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

aio::Task<workers::IndexStats> rebuild_returns(workers::IndexStats s) { co_return s; }

TEST(IncompleteRebuildErrorText, NamesTheCountAndStaysPlural) {
  const std::string tail =
      " files or directories could not be indexed; the live index was kept. errors.jsonl names them: fix each, "
      "or leave it out of the index with a .gitignore rule, then rebuild again";
  for (int n : {3, 1, 0, 12345}) {
    EXPECT_EQ(std::string(IncompleteRebuildError(n).what()), "Rebuild incomplete: " + std::to_string(n) + tail);
  }
  bool caught_as_runtime = false;
  try {
    throw IncompleteRebuildError(2);
  } catch (const std::runtime_error&) {
    caught_as_runtime = true;
  }
  EXPECT_TRUE(caught_as_runtime);
  auto plain_escapes = [] {
    try {
      throw std::runtime_error("other");
    } catch (const IncompleteRebuildError&) {
    }
  };
  EXPECT_THROW(plain_escapes(), std::runtime_error);
}

struct ResponseCase {
  std::string name;
  json params;
  json check_result;
  std::string expected;  // the response, serialised (key order matters)
  bool starts_run;
};

TEST(ForceReindexHandler, ResponseFormsAreExact) {
  auto root = fs::temp_directory_path() / "brenloc-handler-forms";
  fs::remove_all(root);
  fs::create_directories(root / "src");
  std::ofstream(root / "src" / "a.py") << "def f(): pass\n";

  const std::vector<ResponseCase> cases = {
      {"whole repository", json::object(), json::object(),
       R"({"status":"accepted","message":"Reindexing started in background","clear_existing":false})", true},
      {"rebuild", json{{"clear_existing", true}}, json::object(),
       R"({"status":"accepted","message":"Reindexing started in background","clear_existing":true})", true},
      {"rebuild with empty paths", json{{"clear_existing", true}, {"paths", json::array()}}, json::object(),
       R"({"status":"accepted","message":"Reindexing started in background","clear_existing":true})", true},
      {"rebuild with paths", json{{"clear_existing", true}, {"paths", {"src"}}}, json::object(),
       R"({"status":"accepted","message":"Reindexing started in background; clear_existing rebuilds only the whole repository: paths are reindexed","clear_existing":false})",
       true},
      {"paths", json{{"paths", {"src"}}}, json::object(),
       R"({"status":"accepted","message":"Reindexing started in background","clear_existing":false})", true},
      {"outside", json{{"paths", {"../elsewhere"}}, {"clear_existing", true}}, json::object(),
       R"({"error":"Path outside repository","status":"failed"})", false},
      {"worker refuses", json{{"paths", {"src"}}}, json{{"error", "gone"}, {"status", "failed"}},
       R"({"error":"gone","status":"failed"})", false},
      {"null check result", json::object(), json(),
       R"({"status":"accepted","message":"Reindexing started in background","clear_existing":false})", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FakeWorker w(root);
    w.check_result = c.check_result;
    w.rebuild = [] { return rebuild_returns(make_stats(0, 0, 0)); };
    on_loop([&]() -> aio::Task<void> {
      json response = co_await w._handle_force_reindex(c.params);
      EXPECT_EQ(response.dump(), c.expected);
      EXPECT_EQ(w._indexer_task.has_value(), c.starts_run);
      co_await wait_for_run(w);
    });
    if (c.check_result.empty() && !c.check_result.is_null()) {
      // Every request past the checks builds its live indexer over the worker's store, on its lane.
      ASSERT_EQ(w.indexer_options.size(), 1u);
      EXPECT_EQ(w.indexer_options[0].repository, w._repository);
      EXPECT_EQ(w.indexer_options[0].repo_root, w.repo_root);
      EXPECT_TRUE(w.indexer_options[0].offload.has_value() && w.indexer_options[0].refresh_report);
    }
  }
}

aio::Task<void> park(aio::Future<void> g) { co_await aio::shield(g); }

TEST(ForceReindexHandler, BusyWhileARunIsUnderWayOrThePassCountIsRaised) {
  struct Case {
    std::string name;
    bool task_running;
    bool task_finished;
    int in_progress;
    bool busy;
  };
  const std::vector<Case> cases = {
      {"idle", false, false, 0, false},
      {"task running", true, false, 0, true},
      {"task finished", false, true, 0, false},
      {"pass under way", false, false, 1, true},
      {"two passes under way", false, false, 2, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FakeWorker w;
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
        json response = co_await w._handle_force_reindex(json{{"paths", 5}});
        outcome = response.dump();
      } catch (const ArgumentError& e) {
        outcome = std::string("bind error: ") + e.what();
      }
      if (c.busy) {
        EXPECT_EQ(outcome, R"({"status":"in_progress","message":"Indexing already in progress"})");
      } else {
        EXPECT_EQ(outcome, "bind error: argument 'paths' must be an array of strings");
      }
      // Binding comes before the refusal is copied: neither answer touched the last error.
      EXPECT_FALSE(w._last_reindex_error.has_value());
      EXPECT_FALSE(w._indexer_lock.locked());
      EXPECT_FALSE(w._indexing_lock.locked());
      open_gate(gate);
      if (w._indexer_task) co_await aio::wait_all({w._indexer_task->base()});
    });
  }
}

TEST(ForceReindexHandler, ARefusalOfTheWorkerTakesNoLockAndChangesNothing) {
  FakeWorker w;
  w.check_result = json{{"error", "stopping"}, {"status", "failed"}};
  w._rebuild_refusal = "r";
  on_loop([&]() -> aio::Task<void> {
    auto held = co_await w._indexer_lock.scoped();  // would block a handler that took it
    json response = co_await w._handle_force_reindex(json{{"clear_existing", true}});
    EXPECT_EQ(response, w.check_result);
    EXPECT_FALSE(w._last_reindex_error.has_value());
    EXPECT_FALSE(w._indexer_task.has_value());
    EXPECT_TRUE(w.indexer_options.empty());
  });
}

TEST(ForceReindexHandler, TwoRequestsAtOnceStartOneRun) {
  FakeWorker w;
  w.live_pass.gate = make_gate();
  on_loop([&]() -> aio::Task<void> {
    auto a = aio::spawn(w._handle_force_reindex(json::object()));
    auto b = aio::spawn(w._handle_force_reindex(json{{"clear_existing", true}}));
    co_await aio::wait_all({a.base(), b.base()});
    std::multiset<std::string> statuses = {a.result()["status"], b.result()["status"]};
    EXPECT_EQ(statuses, (std::multiset<std::string>{"accepted", "in_progress"}));
    EXPECT_EQ(w.indexer_options.size(), 1u);
    open_gate(*w.live_pass.gate);
    co_await wait_for_run(w);
  });
}

// ---------------------------------------------------------------------------------------------------
// The background run, outcome by outcome.

struct RunCase {
  std::string name;
  json params;
  std::optional<std::string> refusal_before;
  // What the rebuild or the live pass does.
  std::function<aio::Task<workers::IndexStats>()> rebuild;
  PassScript live;
  bool with_own_indexer = true;
  std::exception_ptr start_failure;
  // Expected.
  std::optional<std::string> refusal_after;
  std::optional<std::string> last_error_after;
  std::string log;        // "" = none; else the first line of the one record
  std::string broadcast;  // serialised, "" = none
  int triggers;
  std::string events;  // the calls on the worker, in order, joined by ", "
  bool recorded = false;
};

aio::Task<workers::IndexStats> rebuild_throws(std::exception_ptr e) {
  co_await aio::to_thread([] {});
  std::rethrow_exception(e);
}

std::string incomplete(int n) { return IncompleteRebuildError(n).what(); }

TEST(BackgroundRun, EveryOutcomeUpdatesFieldsLogsAndBroadcastsAsItShould) {
  const json info = {{"type", "full"}, {"duration_seconds", 1.5}, {"files_processed", 5}, {"errors", 0}};
  const json info_without_errors = {{"type", "full"}, {"duration_seconds", 1.5}, {"files_processed", 5}};
  auto fail = [](auto e) { return std::make_exception_ptr(e); };
  std::vector<RunCase> cases;
  cases.push_back({.name = "rebuild succeeded",
                   .params = {{"clear_existing", true}},
                   .refusal_before = "old refusal",
                   .rebuild = [=] { return rebuild_returns(make_stats(5, 7, 0, info)); },
                   .refusal_after = std::nullopt,
                   .last_error_after = std::nullopt,
                   .log = "Reindex completed: 5 files processed, 7 symbols added",
                   .broadcast = R"({"type":"reindex_complete","files_processed":5,"symbols_added":7,"errors":0})",
                   .triggers = 1,
                   .events = "check force_reindex, start, rebuild, broadcast reindex_complete, finish",
                   .recorded = true});
  cases.push_back({.name = "live reindex succeeded after a refused rebuild",
                   .params = {{"paths", json::array()}},
                   .refusal_before = "old refusal",
                   .live = {.stats = make_stats(2, 3, 1, info)},
                   .refusal_after = "old refusal",
                   .last_error_after = "old refusal",
                   .log = "Reindex completed: 2 files processed, 3 symbols added",
                   .broadcast = R"({"type":"reindex_complete","files_processed":2,"symbols_added":3,"errors":1})",
                   .triggers = 1,
                   .events = "check force_reindex, start, scope enter, pass, scope exit normal, broadcast reindex_complete, finish",
                   .recorded = true});
  cases.push_back({.name = "rebuild incomplete",
                   .params = {{"clear_existing", true}},
                   .rebuild = [=] { return rebuild_throws(fail(IncompleteRebuildError(2))); },
                   .refusal_after = incomplete(2),
                   .last_error_after = incomplete(2),
                   .log = "Reindex failed: " + incomplete(2),
                   .broadcast = json{{"type", "reindex_failed"}, {"error", incomplete(2)}}.dump(),
                   .triggers = 0,
                   .events = "check force_reindex, start, rebuild, broadcast reindex_failed, finish"});
  cases.push_back({.name = "rebuild failed otherwise",
                   .params = {{"clear_existing", true}},
                   .refusal_before = "old refusal",
                   .rebuild = [=] { return rebuild_throws(fail(std::runtime_error("disk on fire"))); },
                   .refusal_after = "old refusal",
                   .last_error_after = "disk on fire",
                   .log = "Reindex failed: disk on fire",
                   .broadcast = R"({"type":"reindex_failed","error":"disk on fire"})",
                   .triggers = 0,
                   .events = "check force_reindex, start, rebuild, broadcast reindex_failed, finish"});
  cases.push_back({.name = "live pass failed with an empty text",
                   .params = json::object(),
                   .live = {.failure = fail(std::runtime_error(""))},
                   .refusal_after = std::nullopt,
                   .last_error_after = "",
                   .log = "Reindex failed: ",
                   .broadcast = R"({"type":"reindex_failed","error":""})",
                   .triggers = 0,
                   .events = "check force_reindex, start, scope enter, pass, scope exit failure, broadcast reindex_failed, finish"});
  cases.push_back({.name = "last info without errors fails after the log",
                   .params = json::object(),
                   .live = {.stats = make_stats(5, 1, 0, info_without_errors)},
                   .last_error_after = "[json.exception.out_of_range.403] key 'errors' not found",
                   .log = "Reindex completed: 5 files processed, 1 symbols added",
                   .broadcast =
                       R"({"type":"reindex_failed","error":"[json.exception.out_of_range.403] key 'errors' not found"})",
                   .triggers = 0,
                   .events = "check force_reindex, start, scope enter, pass, scope exit normal, broadcast reindex_failed, finish"});
  cases.push_back({.name = "no own indexer: nothing recorded",
                   .params = json::object(),
                   .live = {.stats = make_stats(1, 1, 0, info)},
                   .with_own_indexer = false,
                   .log = "Reindex completed: 1 files processed, 1 symbols added",
                   .broadcast = R"({"type":"reindex_complete","files_processed":1,"symbols_added":1,"errors":0})",
                   .triggers = 1,
                   .events = "check force_reindex, start, scope enter, pass, scope exit normal, broadcast reindex_complete, finish"});
  cases.push_back({.name = "empty last info: nothing recorded",
                   .params = json::object(),
                   .live = {.stats = make_stats(1, 1, 0, json::object())},
                   .log = "Reindex completed: 1 files processed, 1 symbols added",
                   .broadcast = R"({"type":"reindex_complete","files_processed":1,"symbols_added":1,"errors":0})",
                   .triggers = 1,
                   .events = "check force_reindex, start, scope enter, pass, scope exit normal, broadcast reindex_complete, finish"});
  cases.push_back({.name = "start failed",
                   .params = {{"clear_existing", true}},
                   .refusal_before = "old refusal",
                   .start_failure = fail(std::runtime_error("cannot start")),
                   .refusal_after = "old refusal",
                   .last_error_after = "old refusal",
                   .triggers = 0,
                   .events = "check force_reindex, start"});

  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture logs;
    FakeWorker w;
    w._rebuild_refusal = c.refusal_before;
    w.rebuild = c.rebuild;
    w.live_pass = c.live;
    w.start_failure = c.start_failure;
    std::shared_ptr<FakeIndexer> own;
    if (c.with_own_indexer) {
      own = std::make_shared<FakeIndexer>(workers::IndexerOptions{}, PassScript{}, w.events);
      w._indexer = own;
    }
    on_loop([&]() -> aio::Task<void> {
      json response = co_await w._handle_force_reindex(c.params);
      EXPECT_EQ(response["status"], "accepted");
      co_await wait_for_run(w);
    });
    EXPECT_EQ(w._rebuild_refusal, c.refusal_after);
    EXPECT_EQ(w._last_reindex_error, c.last_error_after);
    auto records = logs.of(kLogger);
    if (c.log.empty()) {
      EXPECT_TRUE(records.empty());
    } else {
      ASSERT_FALSE(records.empty());
      EXPECT_EQ(records[0].first_line(), c.log);
      bool failed = c.broadcast.find("reindex_failed") != std::string::npos;
      ASSERT_EQ(records.size(), failed && c.log.rfind("Reindex completed", 0) == 0 ? 2u : 1u);
      if (failed) {
        EXPECT_EQ(records.back().level, spdlog::level::err);
        EXPECT_NE(records.back().message.find("\nTrace"), std::string::npos);  // logged with its trace
      }
    }
    if (c.broadcast.empty()) {
      EXPECT_TRUE(w.broadcasts.empty());
    } else {
      ASSERT_EQ(w.broadcasts.size(), 1u);
      EXPECT_EQ(w.broadcasts[0].dump(), c.broadcast);
    }
    EXPECT_EQ(w._passes->triggers(), c.triggers);
    EXPECT_EQ(fmt::format("{}", fmt::join(w.events, ", ")), c.events);
    EXPECT_EQ(w._indexing_in_progress, 0);
    if (own) EXPECT_EQ(own->stats.get_last_index_info(), c.recorded ? info : json());
  }
}

TEST(BackgroundRun, LivePassGetsThePathsAsResolvedListEmptyOrAbsent) {
  auto root = fs::temp_directory_path() / "brenloc-run-paths";
  fs::remove_all(root);
  fs::create_directories(root / "docs");
  std::ofstream(root / "a.go") << "package a\n";
  struct Case {
    json params;
    std::optional<std::vector<fs::path>> expected;
  };
  const std::vector<Case> cases = {
      {json::object(), std::nullopt},
      {json{{"paths", json::array()}}, std::nullopt},
      {json{{"paths", {"docs"}}}, std::vector<fs::path>{}},
      {json{{"paths", {"a.go", "missing.go"}}}, std::vector<fs::path>{root / "a.go"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.params.dump());
    FakeWorker w(root);
    on_loop([&]() -> aio::Task<void> {
      co_await w._handle_force_reindex(c.params);
      co_await wait_for_run(w);
    });
    ASSERT_TRUE(w.last_indexer);
    ASSERT_EQ(w.last_indexer->calls.size(), 1u);
    EXPECT_EQ(w.last_indexer->calls[0], c.expected);
  }
}

TEST(BackgroundRun, CancelledInsideTheLivePassChangesNothingAndStillFinishes) {
  LogCapture logs;
  FakeWorker w;
  w._rebuild_refusal = "kept";
  w._last_reindex_error = "also kept";
  w.live_pass.gate = make_gate();
  on_loop([&]() -> aio::Task<void> {
    co_await w._handle_force_reindex(json::object());
    w._last_reindex_error = "also kept";  // the handler copied the refusal; the run must not touch it
    co_await yield_steps();
    w._indexer_task->cancel();
    co_await wait_for_run(w);
    EXPECT_TRUE(w._indexer_task->cancelled());
  });
  EXPECT_EQ(w.events, (std::vector<std::string>{"check force_reindex", "start", "scope enter", "pass",
                                                "scope exit cancelled", "finish"}));
  EXPECT_EQ(w._rebuild_refusal, "kept");
  EXPECT_EQ(w._last_reindex_error, "also kept");
  EXPECT_TRUE(w.broadcasts.empty());
  EXPECT_TRUE(logs.of(kLogger).empty());
  EXPECT_EQ(w._passes->triggers(), 0);
}

TEST(BackgroundRun, ErrorsOfTheClosingStepsLeaveTheRun) {
  struct Case {
    std::string name;
    bool fail_pass;
    bool fail_broadcast;
    bool fail_finish;
    bool cancel;
    std::string ends;  // "ok", "cancelled", or the text of the error that leaves the run
  };
  const std::vector<Case> cases = {
      {"failure broadcast fails", true, true, false, false, "broadcast down"},
      {"finish fails after success", false, false, true, false, "finish failed"},
      {"finish fails after a settled error", true, false, true, false, "finish failed"},
      {"finish replaces the broadcast's error", true, true, true, false, "finish failed"},
      {"finish replaces a cancellation", false, false, true, true, "finish failed"},
      {"cancellation goes on", false, false, false, true, "cancelled"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture logs;
    FakeWorker w;
    if (c.fail_pass) w.live_pass.failure = std::make_exception_ptr(std::runtime_error("pass broke"));
    if (c.fail_broadcast) w.failure_broadcast_failure = std::make_exception_ptr(std::runtime_error("broadcast down"));
    if (c.fail_finish) w.finish_failure = std::make_exception_ptr(std::logic_error("finish failed"));
    if (c.cancel) w.live_pass.gate = make_gate();
    std::string ended;
    on_loop([&]() -> aio::Task<void> {
      co_await w._handle_force_reindex(json::object());
      if (c.cancel) {
        co_await yield_steps();
        w._indexer_task->cancel();
      }
      co_await wait_for_run(w);
      if (w._indexer_task->cancelled()) {
        ended = "cancelled";
      } else if (auto e = w._indexer_task->exception()) {
        ended = utils::error_text(e);
      } else {
        ended = "ok";
      }
    });
    EXPECT_EQ(ended, c.ends);
    EXPECT_EQ(w.events.back(), "finish");
  }
}

}  // namespace
}  // namespace brenloc::testing
