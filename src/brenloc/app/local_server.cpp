#include "brenloc/app/local_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "brenloc/aio/outcome.h"
#include "brenloc/aio/task.h"
#include "brenloc/app/session_tools.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/mcp/server.h"

namespace brenloc::app {

namespace fs = std::filesystem;

struct LocalServer::Thread {
  std::thread thread;
};

namespace {

// Runs on the server's own loop: starts the worker (telling `started` how that went), serves until the
// bridge closes its end, then stops the server and the worker.
aio::Task<void> serve(aio::EventLoop& loop, daemon::RepoWorker& worker, std::vector<fs::path> repos,
                      daemon::FollowOptions follow, int fd, std::promise<void>& started) {
  auto up = co_await aio::outcome_of(worker.start());
  if (up.failed()) {
    started.set_exception(up.error);
    co_await worker.stop();
    co_return;
  }
  started.set_value();
  {
    ProcessWorkers others(follow);
    SessionTools tools(SessionRepos(std::move(repos)), worker, others);
    {
      mcp::McpServer server(loop, tools, fd, fd);
      server.start();
      co_await aio::shield(server.input_ended());
      co_await server.stop();
    }
    co_await tools.close();
  }
  co_await worker.stop();
}

}  // namespace

std::unique_ptr<LocalServer> LocalServer::start(const fs::path& repo_root, const fs::path& data_dir,
                                                daemon::FollowOptions follow, std::vector<fs::path> more_repos) {
  more_repos.insert(more_repos.begin(), repo_root);
  int sv[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) throw std::system_error(errno, std::generic_category(), "socketpair");
  std::unique_ptr<LocalServer> local(new LocalServer());
  local->fd_ = sv[0];
  local->thread_ = std::make_unique<Thread>();
  std::promise<void> started;
  auto ready = started.get_future();
  local->thread_->thread = std::thread([root = repo_root, data = data_dir, follow, repos = std::move(more_repos),
                                        fd = sv[1], &started]() mutable {
    {
      aio::EventLoop loop;
      daemon::RepoWorker worker(root, data, follow);
      aio::run_until_complete(loop, serve(loop, worker, std::move(repos), follow, fd, started));
    }
    ::close(fd);
  });
  try {
    ready.get();
  } catch (...) {
    local.reset();  // closes the bridge's end and joins the thread, which has already ended
    throw;
  }
  return local;
}

LocalServer::~LocalServer() {
  if (fd_ >= 0) ::close(fd_);
  if (thread_ && thread_->thread.joinable()) thread_->thread.join();
}

}  // namespace brenloc::app
