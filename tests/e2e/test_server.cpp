// A stand-in for `brenloc serve` in the end-to-end tests: the real MCP server on stdin/stdout, over a
// tool host that answers the daemon's three tools in their real shapes without indexing anything.
// force_reindex binds its arguments as the daemon does, refuses paths outside the repository, answers
// "in_progress" while its pretend run lasts, and broadcasts progress and completion like a real run.
// One extra tool, "sleep", waits as long as it is told, for the cancellation tests.
//
//   brenloc_mcp_test_server --repo DIR
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include <boost/asio/signal_set.hpp>

#include "brenloc/aio/task.h"
#include "brenloc/aio/timer.h"
#include "brenloc/mcp/server.h"
#include "brenloc/tool_binding.h"

namespace {

using Json = nlohmann::ordered_json;
namespace aio = brenloc::aio;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

class PretendDaemon : public brenloc::mcp::ToolHost {
 public:
  explicit PretendDaemon(fs::path repo) : repo_(std::move(repo)) {}

  std::vector<brenloc::mcp::ToolSpec> tools() const override {
    Json sleep_schema = {{"type", "object"},
                         {"properties", {{"ms", {{"type", "integer"}, {"minimum", 0}}}}},
                         {"required", {"ms"}},
                         {"additionalProperties", false}};
    return {
        {"force_reindex", "Reindex the repository, or some paths in it, in the background",
         brenloc::input_schema("status")},
        {"index_status", "State of the index", brenloc::input_schema("none")},
        {"search_symbols", "Find symbols by name", brenloc::input_schema("search")},
        {"sleep", "Waits, for cancellation tests", sleep_schema},
    };
  }

  aio::Task<Json> call_tool(std::string name, Json arguments) override {
    if (name == "force_reindex") co_return force_reindex(brenloc::bind_arguments("status", arguments));
    if (name == "index_status") {
      brenloc::bind_arguments("none", arguments);
      co_return status();
    }
    if (name == "search_symbols") {
      Json bound = brenloc::bind_arguments("search", arguments);
      co_return Json{{"query", bound["query"]}, {"results", Json::array()}};
    }
    if (name == "sleep") {
      co_await aio::sleep_for(std::chrono::milliseconds(arguments.value("ms", 0)));
      co_return Json{{"slept", arguments["ms"]}};
    }
    throw brenloc::mcp::UnknownTool(name);
  }

  int subscribe(brenloc::mcp::BroadcastSink sink) override {
    sinks_.emplace_back(next_id_, std::move(sink));
    return next_id_++;
  }
  void unsubscribe(int id) override { std::erase_if(sinks_, [id](const auto& s) { return s.first == id; }); }

  aio::Task<void> stop() {
    if (run_.valid() && !run_.done()) {
      run_.cancel();
      co_await aio::wait_all({run_.base()});
    }
  }

 private:
  Json force_reindex(const Json& bound) {
    if (run_.valid() && !run_.done()) {
      return Json{{"status", "in_progress"}, {"message", "Indexing already in progress"}};
    }
    const Json& paths = bound["paths"];
    for (const auto& p : paths) {
      fs::path resolved = fs::weakly_canonical(repo_ / p.get<std::string>());
      auto rel = resolved.lexically_relative(repo_);
      if (rel.empty() || *rel.begin() == "..") return Json{{"error", "Path outside repository"}, {"status", "failed"}};
    }
    bool rebuild = bound["clear_existing"].get<bool>() && paths.empty();
    std::string message = "Reindexing started in background";
    if (bound["clear_existing"].get<bool>() && !rebuild) {
      message += "; clear_existing rebuilds only the whole repository: paths are reindexed";
    }
    run_ = aio::spawn(pretend_run(this));
    return Json{{"status", "accepted"}, {"message", message}, {"clear_existing", rebuild}};
  }

  Json status() const {
    return Json{{"repo_root", repo_.string()},
                {"data_dir", (repo_ / ".brenloc-test").string()},
                {"indexing", run_.valid() && !run_.done()},
                {"last_reindex_error", nullptr},
                {"rebuild_refusal", nullptr},
                {"files", runs_ * 2},
                {"symbols", runs_ * 5},
                {"last_index", nullptr}};
  }

  void broadcast(const std::string& level, const Json& data) {
    auto sinks = sinks_;
    for (auto& [id, sink] : sinks) sink(level, data);
  }

  static aio::Task<void> pretend_run(PretendDaemon* self) {
    co_await aio::sleep_for(self->run_time_ / 2);
    self->broadcast("info", {{"type", "reindex_progress"}, {"files_done", 1}, {"files_total", 2}});
    co_await aio::sleep_for(self->run_time_ / 2);
    ++self->runs_;
    self->broadcast("info",
                    {{"type", "reindex_complete"}, {"files_processed", 2}, {"symbols_added", 5}, {"errors", 0}});
  }

  fs::path repo_;
  std::chrono::milliseconds run_time_ = 400ms;
  aio::Future<void> run_;
  int runs_ = 0;
  std::vector<std::pair<int, brenloc::mcp::BroadcastSink>> sinks_;
  int next_id_ = 1;
};

aio::Task<void> relay(aio::Future<void> from, std::shared_ptr<aio::FutureState<void>> to) {
  co_await aio::shield(from);
  to->set_result();
}

// Serves until the input ends or a stop signal comes, then stops the pretend run and the server.
aio::Task<void> serve(brenloc::mcp::McpServer& server, PretendDaemon& daemon, aio::EventLoop& loop) {
  auto stop = std::make_shared<aio::FutureState<void>>();
  boost::asio::signal_set signals(loop.context(), SIGINT, SIGTERM);
  signals.async_wait([stop](const boost::system::error_code& ec, int) {
    if (!ec) stop->set_result();
  });
  server.start();
  auto input_relay = aio::spawn(relay(server.input_ended(), stop));
  co_await aio::shield(aio::Future<void>(stop));
  signals.cancel();
  input_relay.cancel();
  co_await aio::wait_all({input_relay.base()});
  co_await daemon.stop();
  co_await server.stop();
}

}  // namespace

int main(int argc, char** argv) {
  std::error_code ec;
  fs::path repo = argc == 3 && argv[1] == std::string("--repo") ? fs::canonical(argv[2], ec) : fs::path();
  if (repo.empty()) {
    std::cerr << "usage: brenloc_mcp_test_server --repo DIR (an existing directory)\n";
    return 64;
  }
  aio::EventLoop loop(2);
  PretendDaemon daemon(repo);
  brenloc::mcp::McpServer server(loop, daemon, STDIN_FILENO, STDOUT_FILENO);
  aio::run_until_complete(loop, serve(server, daemon, loop));
  return 0;
}
