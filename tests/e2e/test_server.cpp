// A stand-in for `brenloc serve` in the end-to-end tests: the real MCP server on stdin/stdout, over a
// tool host that answers the daemon's three tools in their real shapes without indexing anything.
// force_reindex binds its arguments as the daemon does, refuses paths outside the repository, answers
// "in_progress" while its pretend run lasts, and broadcasts the outcome like a real run. One extra
// tool, "sleep", waits as long as it is told, for the cancellation tests. It stops when its input ends.
//
//   brenloc_mcp_test_server --repo DIR
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

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

  std::vector<brenloc::mcp::ToolDescriptor> tools() const override {
    return {{"force_reindex", "Reindex the repository, or some paths in it, in the background",
             brenloc::input_schema("status")},
            {"index_status", "State of the index", brenloc::input_schema("none")},
            {"search_symbols", "Find symbols by name", brenloc::input_schema("search")},
            {"sleep", "Waits, for cancellation tests", Json()}};
  }

  aio::Task<Json> call_tool(std::string name, Json arguments) override {
    if (name == "force_reindex") co_return force_reindex(brenloc::bind_arguments("status", arguments));
    if (name == "index_status") {
      brenloc::bind_arguments("none", arguments);
      co_return Json{{"repo_root", repo_.string()}, {"data_dir", (repo_ / ".brenloc-test").string()},
                     {"indexing", running()},       {"progress", nullptr}, {"last_reindex_error", nullptr},
                     {"rebuild_refusal", nullptr},  {"files", 2},
                     {"symbols", 5},                {"last_index", nullptr},
                     {"watch", "off"},              {"watches", 0}};
    }
    if (name == "search_symbols") {
      co_return Json{{"query", brenloc::bind_arguments("search", arguments)["query"]}, {"results", Json::array()}};
    }
    if (name != "sleep") throw brenloc::mcp::UnknownTool(name);
    co_await aio::sleep_for(std::chrono::milliseconds(arguments.value("ms", 0)));
    co_return Json{{"slept", arguments["ms"]}};
  }

  int subscribe(brenloc::mcp::BroadcastSink sink) override {
    sinks_.emplace_back(next_id_, std::move(sink));
    return next_id_++;
  }
  void unsubscribe(int id) override { std::erase_if(sinks_, [id](const auto& s) { return s.first == id; }); }

  aio::Task<void> stop() {
    if (run_.valid() && run_.cancel()) co_await aio::wait_all({run_.base()});
  }

 private:
  bool running() const { return run_.valid() && !run_.done(); }

  Json force_reindex(const Json& bound) {
    if (running()) return Json{{"status", "in_progress"}, {"message", "Indexing already in progress"}};
    const Json& paths = bound["paths"];
    for (const auto& p : paths) {
      auto rel = fs::weakly_canonical(repo_ / p.get<std::string>()).lexically_relative(repo_);
      if (rel.empty() || *rel.begin() == "..") return Json{{"error", "Path outside repository"}, {"status", "failed"}};
    }
    const bool clear = bound["clear_existing"].get<bool>(), rebuild = clear && paths.empty();
    std::string message = "Reindexing started in background";
    if (clear && !rebuild) message += "; clear_existing rebuilds only the whole repository: paths are reindexed";
    run_ = aio::spawn(pretend_run(this));
    return Json{{"status", "accepted"}, {"message", message}, {"clear_existing", rebuild}};
  }

  static aio::Task<void> pretend_run(PretendDaemon* self) {
    co_await aio::sleep_for(400ms);
    auto sinks = self->sinks_;
    for (auto& [id, sink] : sinks) {
      sink("info", {{"type", "reindex_complete"}, {"files_processed", 2}, {"symbols_added", 5}, {"errors", 0}});
    }
  }

  fs::path repo_;
  aio::Future<void> run_;
  std::vector<std::pair<int, brenloc::mcp::BroadcastSink>> sinks_;
  int next_id_ = 1;
};

// Serves until the input ends, then stops the pretend run and the server.
aio::Task<void> serve(brenloc::mcp::McpServer& server, PretendDaemon& daemon) {
  server.start();
  co_await aio::shield(server.input_ended());
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
  aio::run_until_complete(loop, serve(server, daemon));
}
