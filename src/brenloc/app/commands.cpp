#include "brenloc/app/commands.h"

#include <unistd.h>

#include <csignal>
#include <iostream>
#include <memory>

#include <boost/asio/signal_set.hpp>
#include <fmt/format.h>

#include "brenloc/aio/task.h"
#include "brenloc/app/data_dir.h"
#include "brenloc/app/worker_tools.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/mcp/server.h"
#include "brenloc/utils/logging.h"

namespace brenloc::app {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

namespace {

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Resolved {
  fs::path root;
  fs::path data_dir;
};

Resolved resolve(const Where& where) {
  std::error_code ec;
  fs::path root = fs::canonical(where.repo.empty() ? fs::current_path() : where.repo, ec);
  if (ec) throw UsageError(fmt::format("repository {}: {}", where.repo.string(), ec.message()));
  if (!fs::is_directory(root)) throw UsageError(fmt::format("repository {} is not a directory", root.string()));
  fs::path data = where.data_dir ? fs::absolute(*where.data_dir) : default_data_dir(root);
  return {root, data};
}

// A future completed by SIGINT or SIGTERM (on the loop thread).
class StopSignal {
 public:
  explicit StopSignal(aio::EventLoop& loop)
      : signals_(loop.context(), SIGINT, SIGTERM), fired_(std::make_shared<aio::FutureState<void>>()) {
    signals_.async_wait([fired = fired_](const boost::system::error_code& ec, int) {
      if (!ec) fired->set_result();
    });
  }
  ~StopSignal() { signals_.cancel(); }
  aio::Future<void> fired() const { return aio::Future<void>(fired_); }

 private:
  boost::asio::signal_set signals_;
  std::shared_ptr<aio::FutureState<void>> fired_;
};

// Runs `body` with a started worker on a loop of its own, stopping the worker on every way out.
template <class Body>
int with_worker(const Where& where, Body body) {
  try {
    Resolved r = resolve(where);
    aio::EventLoop loop;
    daemon::RepoWorker worker(r.root, r.data_dir);
    return aio::run_until_complete(loop, [](aio::EventLoop& loop, daemon::RepoWorker& worker, Body body) -> aio::Task<int> {
      co_await worker.start();
      int code = kExitFailed;
      std::exception_ptr failure;
      try {
        code = co_await body(loop, worker);
      } catch (...) {
        failure = std::current_exception();
      }
      co_await worker.stop();
      if (failure) std::rethrow_exception(failure);
      co_return code;
    }(loop, worker, std::move(body)));
  } catch (const UsageError& e) {
    std::cerr << "brenloc: " << e.what() << "\n";
    return kExitUsage;
  } catch (const std::exception& e) {
    std::cerr << "brenloc: " << e.what() << "\n";
    return kExitFailed;
  }
}

// Shows progress on stderr: a bar that redraws itself on a terminal, plain lines otherwise.
class ProgressView {
 public:
  ProgressView() : tty_(::isatty(STDERR_FILENO) == 1) {}
  void show(std::int64_t done, std::int64_t total) {
    if (tty_) {
      const int width = 30;
      int filled = total > 0 ? static_cast<int>(width * done / total) : 0;
      std::cerr << fmt::format("\r[{}{}] {}/{} files", std::string(filled, '#'), std::string(width - filled, '.'),
                               done, total)
                << std::flush;
      drawn_ = true;
    } else {
      std::cerr << fmt::format("progress: {}/{} files\n", done, total);
    }
  }
  void finish() {
    if (drawn_) std::cerr << "\n";
    drawn_ = false;
  }

 private:
  bool tty_;
  bool drawn_ = false;
};

aio::Task<void> watch_input(aio::Future<void> ended, std::shared_ptr<aio::FutureState<void>> stop) {
  co_await aio::shield(ended);
  stop->set_result();
}

aio::Task<void> watch_signal(aio::Future<void> fired, std::shared_ptr<aio::FutureState<void>> stop) {
  co_await aio::shield(fired);
  stop->set_result();
}

}  // namespace

int run_serve(const Where& where) {
  return with_worker(where, [](aio::EventLoop& loop, daemon::RepoWorker& worker) -> aio::Task<int> {
    WorkerTools tools(worker);
    mcp::McpServer server(loop, tools, STDIN_FILENO, STDOUT_FILENO);
    StopSignal signal(loop);
    server.start();
    auto stop = std::make_shared<aio::FutureState<void>>();
    auto a = aio::spawn(watch_input(server.input_ended(), stop));
    auto b = aio::spawn(watch_signal(signal.fired(), stop));
    co_await aio::shield(aio::Future<void>(stop));
    a.cancel();
    b.cancel();
    co_await server.stop();
    co_await worker.stop();
    co_return kExitOk;
  });
}

int run_reindex(const Where& where, bool clear_existing, const std::vector<std::string>& paths) {
  return with_worker(where, [clear_existing, paths](aio::EventLoop& loop, daemon::RepoWorker& worker) -> aio::Task<int> {
    ProgressView progress;
    std::optional<json> outcome;
    struct Subscription {
      daemon::RepoWorker& worker;
      int id;
      ~Subscription() { worker.unsubscribe(id); }
    } sub{worker, worker.subscribe([&](const json& m) {
            if (m.value("type", "") == "reindex_progress") {
              progress.show(m.value("files_done", 0), m.value("files_total", 0));
            } else {
              outcome = m;
            }
          })};
    StopSignal signal(loop);
    json response = co_await worker._handle_force_reindex(json{{"paths", paths}, {"clear_existing", clear_existing}});
    std::cout << response.dump() << std::endl;
    if (response.value("status", "") != "accepted") co_return kExitRefused;
    auto stop = std::make_shared<aio::FutureState<void>>();
    auto run = *worker._indexer_task;
    auto a = aio::spawn(watch_signal(signal.fired(), stop));
    auto b = aio::spawn([](aio::Future<void> run, std::shared_ptr<aio::FutureState<void>> stop) -> aio::Task<void> {
      co_await aio::wait_all({run.base()});
      stop->set_result();
    }(run, stop));
    co_await aio::shield(aio::Future<void>(stop));
    a.cancel();
    b.cancel();
    if (!run.done()) {
      co_await worker.stop();  // cancels the run and waits for its clean-up
      progress.finish();
      std::cerr << "brenloc: interrupted; the reindex was cancelled and the live index kept\n";
      co_return kExitFailed;
    }
    progress.finish();
    if (!outcome) {
      std::cerr << "brenloc: the reindex ended without an outcome\n";
      co_return kExitFailed;
    }
    std::cout << outcome->dump() << std::endl;
    if (outcome->value("type", "") == "reindex_complete") co_return kExitOk;
    std::cerr << "brenloc: " << outcome->value("error", "") << "\n";
    co_return kExitFailed;
  });
}

int run_status(const Where& where) {
  return with_worker(where, [](aio::EventLoop&, daemon::RepoWorker& worker) -> aio::Task<int> {
    json status = co_await worker.index_status();
    std::cout << status.dump(2) << std::endl;
    co_return kExitOk;
  });
}

int run_search(const Where& where, const std::string& query, const std::optional<std::string>& kind,
               std::optional<int> limit) {
  return with_worker(where, [query, kind, limit](aio::EventLoop&, daemon::RepoWorker& worker) -> aio::Task<int> {
    json params = {{"query", query}};
    if (kind) params["kind"] = *kind;
    if (limit) params["limit"] = *limit;
    json result = co_await worker.search_symbols(params);
    std::cout << result.dump(2) << std::endl;
    co_return kExitOk;
  });
}

}  // namespace brenloc::app
