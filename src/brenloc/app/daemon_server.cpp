#include "brenloc/app/daemon_server.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <thread>
#include <iostream>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <variant>

#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/signal_set.hpp>
#include <fmt/format.h>

#include "brenloc/aio/fair_turns.h"
#include "brenloc/aio/fd_wait.h"
#include "brenloc/aio/outcome.h"
#include "brenloc/aio/task.h"
#include "brenloc/aio/thread.h"
#include "brenloc/aio/timer.h"
#include "brenloc/app/daemon_client.h"
#include "brenloc/app/data_dir.h"
#include "brenloc/app/runtime_dir.h"
#include "brenloc/app/session_tools.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/mcp/protocol.h"
#include "brenloc/mcp/server.h"
#include "brenloc/utils/logging.h"
#include "brenloc/utils/owner_lock.h"
#include "brenloc/utils/path_text.h"

namespace brenloc::app {

namespace fs = std::filesystem;
namespace asio = boost::asio;
using Clock = std::chrono::steady_clock;
using local = asio::local::stream_protocol;

namespace {

std::shared_ptr<spdlog::logger> logger() { return utils::get_logger("brenloc.daemon"); }

constexpr int kAttachRefused = -32001;
constexpr std::chrono::seconds kFirstLineTimeout{10};
constexpr std::chrono::seconds kSweepInterval{1};
constexpr std::size_t kFirstLineMax = 64 * 1024;

using WorkerKey = std::pair<fs::path, fs::path>;  // (repository root, data directory)

struct Entry {
  std::unique_ptr<daemon::RepoWorker> worker;
  aio::Future<void> started;
  std::optional<aio::Future<void>> stopped;  // set once the worker is being stopped
  int clients = 0;
  std::optional<Clock::time_point> idle_since;
};

struct Session {
  int fd = -1;
  bool attached = false;
  std::shared_ptr<aio::FutureState<void>> end = std::make_shared<aio::FutureState<void>>();
  aio::Future<void> task;
};

void reply(int fd, const json& message) {
  try {
    write_line(fd, mcp::serialize(message));
  } catch (const DaemonError&) {
    // The client has gone; its session ends when its input does.
  }
}

aio::Task<void> set_when_done(aio::Future<void> f, std::shared_ptr<aio::FutureState<void>> target) {
  co_await aio::shield(f);
  target->set_result();
}

// The client's first line, read as it arrives without holding a thread (a client that connects and says
// nothing costs only its socket until its time runs out), and without taking anything after it from the
// socket. Absent when the client closes first; DaemonError past `timeout` or `max` bytes.
aio::Task<std::optional<std::string>> read_first_line(int fd, std::size_t max, Clock::duration timeout) {
  const auto deadline = Clock::now() + timeout;
  std::string line;
  char chunk[4096];
  for (;;) {
    const auto left = deadline - Clock::now();
    if (left <= Clock::duration::zero() || !co_await aio::wait_readable(fd, left)) {
      throw DaemonError(fmt::format("no request within {} s", kFirstLineTimeout.count()));
    }
    ssize_t n = ::recv(fd, chunk, sizeof chunk, MSG_PEEK | MSG_DONTWAIT);
    if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
    if (n <= 0) co_return line.empty() ? std::nullopt : std::optional<std::string>(line);
    const char* nl = static_cast<const char*>(std::memchr(chunk, '\n', static_cast<std::size_t>(n)));
    const std::size_t take = nl != nullptr ? static_cast<std::size_t>(nl - chunk) + 1 : static_cast<std::size_t>(n);
    if (::recv(fd, chunk, take, MSG_DONTWAIT) != static_cast<ssize_t>(take)) throw DaemonError("the client's socket failed");
    line.append(chunk, nl != nullptr ? take - 1 : take);
    if (line.size() > max) throw DaemonError("an overlong first request");
    if (nl != nullptr) co_return line;
  }
}

// While a client waits for its attach to be answered, tells it every second that the daemon is at work,
// so that the client can tell a daemon that is starting a worker from one that does not answer at all.
aio::Task<void> keep_alive(int fd) {
  for (;;) {
    co_await aio::sleep_for(std::chrono::seconds(1));
    reply(fd, mcp::make_notification(std::string(kAttachWaiting), json::object()));
  }
}

class Daemon {
 public:
  Daemon(aio::EventLoop& loop, RuntimePaths paths, DaemonOptions options, local::acceptor acceptor)
      : loop_(loop), paths_(std::move(paths)), options_(options), acceptor_(std::move(acceptor)),
        signals_(loop.context(), SIGINT, SIGTERM), started_(Clock::now()),
        // Tool calls of all sessions take turns, a few more than the threads that run them, so that a
        // session's flood queues on its own side and another session's call waits at most a turn.
        turns_(std::make_shared<aio::FairTurns>(2 * std::max(2u, std::thread::hardware_concurrency()))) {}

  aio::Task<void> run() {
    signals_.async_wait([this](const boost::system::error_code& ec, int sig) {
      if (!ec) request_stop(sig == SIGINT ? "SIGINT" : "SIGTERM");
    });
    accept_next();
    auto sweeper = aio::spawn(sweep_loop(this));
    co_await aio::shield(aio::Future<void>(stop_requested_));
    sweeper.cancel();
    co_await shutdown();
  }

 private:
  void request_stop(const std::string& why) {
    if (stop_requested_->done()) return;
    logger()->info("Stopping ({})", why);
    stopping_ = true;
    stop_requested_->set_result();
  }

  void accept_next() {
    acceptor_.async_accept([this](const boost::system::error_code& ec, local::socket socket) {
      if (ec) {
        if (!stopping_) {
          logger()->warn("Accepting a connection failed: {}", ec.message());
          accept_next();
        }
        return;
      }
      int fd = socket.release();
      accept_next();
      on_connection(fd);
    });
  }

  void on_connection(int fd) {
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    ucred peer{};
    socklen_t len = sizeof peer;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &len) != 0 || peer.uid != ::getuid()) {
      logger()->warn("Refused a connection from uid {} (pid {}): this daemon serves uid {} only", peer.uid, peer.pid,
                     ::getuid());
      ::close(fd);
      return;
    }
    if (stopping_) {
      ::close(fd);
      return;
    }
    auto session = std::make_shared<Session>();
    session->fd = fd;
    sessions_.push_back(session);
    idle_since_.reset();
    session->task = aio::spawn(run_session(this, session), &loop_);
  }

  static aio::Task<void> run_session(Daemon* self, std::shared_ptr<Session> s) {
    try {
      co_await self->handle_session(*s);
    } catch (const std::exception& e) {
      logger()->warn("A client session failed: {}", e.what());
    }
    ::close(s->fd);
    self->sessions_.remove(s);
    if (self->sessions_.empty()) self->idle_since_ = Clock::now();
  }

  aio::Task<void> handle_session(Session& s) {
    const int fd = s.fd;
    std::optional<std::string> line;
    try {
      line = co_await read_first_line(fd, kFirstLineMax, kFirstLineTimeout);
    } catch (const DaemonError& e) {
      logger()->info("A client sent no first request: {}", e.what());
      co_return;
    }
    if (!line || stopping_) co_return;
    mcp::Incoming m = mcp::parse_message(*line);
    if (m.kind != mcp::Incoming::Kind::request) {
      reply(fd, mcp::make_error(m.id, mcp::kInvalidRequest, "Invalid Request: the first message must be a request"));
      co_return;
    }
    if (m.method == "brenloc/attach") {
      co_await attach_and_serve(s, m);
    } else if (m.method == "brenloc/status") {
      reply(fd, mcp::make_result(m.id, status()));
    } else if (m.method == "brenloc/stop") {
      reply(fd, mcp::make_result(m.id, json::object()));
      request_stop("asked by a client");
    } else {
      reply(fd, mcp::make_error(m.id, mcp::kMethodNotFound,
                                "Method not found: " + m.method + " (attach first with brenloc/attach)"));
    }
  }

  // The key of an attach request, or the reason to refuse it.
  static std::variant<WorkerKey, std::string> key_of(const json& params) {
    auto path_param = [&](const char* name) -> std::optional<fs::path> {
      if (!params.is_object() || !params.contains(name) || !params[name].is_string()) return std::nullopt;
      fs::path p = utils::path_bytes(params[name].get<std::string>());
      if (!p.is_absolute()) return std::nullopt;
      return p.lexically_normal();
    };
    auto root = path_param("repo_root");
    auto data = path_param("data_dir");
    const bool data_given = params.is_object() && params.contains("data_dir");
    if (!root || (data_given && !data)) {
      return std::string("\"repo_root\" (and \"data_dir\" when given) must be absolute paths");
    }
    std::error_code ec;
    fs::path resolved = fs::canonical(*root, ec);
    if (ec || !fs::is_directory(resolved, ec)) return fmt::format("repository {} is not a directory", root->string());
    return WorkerKey{resolved, data ? *data : default_data_dir(resolved)};
  }

  aio::Task<void> attach_and_serve(Session& s, const mcp::Incoming& m) {
    if (m.params.is_object() && m.params.contains("build")) {
      BuildIdentity theirs = BuildIdentity::from_json(m.params["build"]);
      if (theirs.mtime_ns > build_.mtime_ns && !(theirs == build_)) {
        // An upgrade or a rebuild: this daemon makes way, and its clients reconnect to the new one.
        reply(s.fd, mcp::make_error(m.id, kDaemonMakesWay,
                                    fmt::format("this brenloc daemon ({}) is older than the client's binary ({}); it "
                                                "stops to make way",
                                                build_.version, theirs.version)));
        request_stop("a newer brenloc binary asked for the daemon");
        co_return;
      }
    }
    auto key = key_of(m.params);
    if (auto* why = std::get_if<std::string>(&key)) {
      reply(s.fd, mcp::make_error(m.id, mcp::kInvalidParams, *why));
      co_return;
    }
    const WorkerKey& k = std::get<WorkerKey>(key);
    std::shared_ptr<Entry> entry;
    std::optional<aio::Future<void>> waiting;
    if (m.params.is_object() && m.params.value("waiting", false) == true) waiting = aio::spawn(keep_alive(s.fd));
    auto acquired = co_await aio::outcome_of(acquire(k));
    if (waiting) {
      waiting->cancel();
      co_await aio::wait_all({waiting->base()});
    }
    try {
      entry = std::move(acquired).get();
    } catch (const aio::Cancelled&) {
      throw;
    } catch (const std::exception& e) {
      logger()->warn("Refused to attach a client to {}: {}", k.first.string(), e.what());
      reply(s.fd, mcp::make_error(m.id, kAttachRefused, e.what()));
      co_return;
    }
    reply(s.fd, mcp::make_result(m.id, json{{"repo_root", utils::path_text(k.first.native())},
                                                  {"data_dir", utils::path_text(k.second.native())},
                                                  {"pid", ::getpid()},
                                                  {"version", BRENLOC_VERSION}}));
    s.attached = true;
    auto ended = co_await aio::outcome_of(serve_mcp(s, k.first, *entry->worker, more_repos(m.params)));
    release(entry);
    std::move(ended).get();
  }

  // The session's other repositories ("repos" of the attach, absolute): those that are directories, resolved.
  static std::vector<fs::path> more_repos(const json& params) {
    std::vector<fs::path> roots;
    if (!params.is_object() || !params.contains("repos") || !params["repos"].is_array()) return roots;
    for (const json& r : params["repos"]) {
      if (!r.is_string()) continue;
      std::error_code ec;
      fs::path root = fs::canonical(fs::path(utils::path_bytes(r.get<std::string>())), ec);
      if (!ec && root.is_absolute() && fs::is_directory(root, ec)) roots.push_back(root);
    }
    return roots;
  }

  // The workers a session opens besides its first: shared in the daemon's table, counted as clients until
  // the session ends.
  class SharedWorkers final : public WorkerPool {
   public:
    explicit SharedWorkers(Daemon& daemon) : daemon_(daemon) {}
    aio::Task<daemon::RepoWorker*> open(fs::path root, bool start) override {
      WorkerKey key{root, default_data_dir(root)};
      if (!start) {
        auto it = daemon_.workers_.find(key);
        if (it == daemon_.workers_.end() || it->second->stopped || !it->second->started.done() ||
            it->second->started.state()->state() != aio::FutureBase::State::finished) {
          co_return nullptr;
        }
        ++it->second->clients;
        it->second->idle_since.reset();
        held_.push_back(it->second);
        co_return it->second->worker.get();
      }
      std::shared_ptr<Entry> e = co_await daemon_.acquire(key);
      held_.push_back(e);
      co_return e->worker.get();
    }
    aio::Task<void> close() override {
      for (auto& e : held_) daemon_.release(e);
      held_.clear();
      co_return;
    }

   private:
    Daemon& daemon_;
    std::vector<std::shared_ptr<Entry>> held_;
  };

  // MCP on the session's socket until the client leaves or the daemon stops.
  aio::Task<void> serve_mcp(Session& s, const fs::path& root, daemon::RepoWorker& worker, std::vector<fs::path> more) {
    more.insert(more.begin(), root);
    SharedWorkers pool(*this);
    SessionTools tools(SessionRepos(std::move(more)), worker, pool);
    {
      mcp::McpServer server(loop_, tools, s.fd, s.fd, mcp::ServerOptions{.turns = turns_});
      server.start();
      auto watcher = aio::spawn(set_when_done(server.input_ended(), s.end));
      co_await aio::shield(aio::Future<void>(s.end));
      watcher.cancel();
      co_await server.stop();
    }
    co_await tools.close();
  }

  // The started worker of `key`, created when there is none; counts the caller as a client.
  aio::Task<std::shared_ptr<Entry>> acquire(WorkerKey key) {
    for (;;) {
      if (stopping_) throw DaemonError("the brenloc daemon is stopping");
      auto it = workers_.find(key);
      if (it != workers_.end() && it->second->stopped) {
        // The old worker lets its lock go when its stop ends; a new one is made after that.
        aio::Future<void> stopped = *it->second->stopped;
        co_await aio::shield(stopped);
        continue;
      }
      if (it == workers_.end()) {
        auto e = std::make_shared<Entry>();
        e->worker = std::make_unique<daemon::RepoWorker>(
            key.first, key.second, daemon::FollowOptions{.catch_up = true, .watch = options_.watch});
        e->worker->set_owner_note(std::string(kOwnerSocketNote) + paths_.socket.string());
        e->started = aio::spawn(e->worker->start(), &loop_);
        it = workers_.emplace(key, e).first;
        logger()->info("Starting the worker of {} (data directory {})", key.first.string(), key.second.string());
      }
      std::shared_ptr<Entry> e = it->second;
      ++e->clients;
      e->idle_since.reset();
      auto started = co_await aio::outcome_of(aio::await_shielded(e->started));
      if (!started.failed()) co_return e;
      --e->clients;
      if (!e->stopped && !started.cancelled()) e->stopped = aio::spawn(stop_entry(this, key, e), &loop_);
      std::move(started).get();
    }
  }

  void release(const std::shared_ptr<Entry>& e) {
    if (--e->clients == 0) e->idle_since = Clock::now();
  }

  static aio::Task<void> stop_entry(Daemon* self, WorkerKey key, std::shared_ptr<Entry> e) {
    try {
      co_await e->worker->stop();
    } catch (const std::exception& ex) {
      logger()->error("Stopping the worker of {} failed: {}", key.first.string(), ex.what());
    }
    auto it = self->workers_.find(key);
    if (it != self->workers_.end() && it->second == e) self->workers_.erase(it);
    if (e->started.state()->state() == aio::FutureBase::State::finished) {
      logger()->info("Stopped the worker of {}", key.first.string());
    }
  }

  static aio::Task<void> sweep_loop(Daemon* self) {
    for (;;) {
      co_await aio::sleep_for(kSweepInterval);
      self->sweep();
    }
  }

  // Stops workers idle for long enough, and the daemon when nobody has used it for long enough.
  void sweep() {
    const auto now = Clock::now();
    bool busy = false;
    for (auto& [key, e] : workers_) {
      if (e->stopped) continue;
      if (!e->started.done() || e->worker->busy()) {
        busy = true;
        if (e->clients == 0) e->idle_since = now;  // the idle time counts from the run's end
        continue;
      }
      if (e->clients > 0) continue;
      if (!e->idle_since) e->idle_since = now;
      if (now - *e->idle_since >= options_.worker_idle) {
        logger()->info("Stopping the worker of {}: no client for {} s", key.first.string(),
                       options_.worker_idle.count());
        e->stopped = aio::spawn(stop_entry(this, key, e), &loop_);
      }
    }
    if (!sessions_.empty() || busy) {
      idle_since_.reset();
      return;
    }
    if (!idle_since_) idle_since_ = now;
    if (options_.idle_exit.count() > 0 && now - *idle_since_ >= options_.idle_exit) {
      request_stop(fmt::format("no client for {} s", options_.idle_exit.count()));
    }
  }

  // The variables of this daemon's environment that moved its directories from their defaults: a client
  // started without them would look for another daemon and another index.
  json moved_by() const {
    json moved = json::array();
    if (!paths_.set_by.empty()) moved.push_back(paths_.set_by);
    if (!data_home_.set_by.empty()) moved.push_back(data_home_.set_by);
    return moved;
  }

  json status() const {
    json workers = json::array();
    for (const auto& [key, e] : workers_) {
      workers.push_back(json{{"repo_root", utils::path_text(key.first.native())},
                                  {"data_dir", utils::path_text(key.second.native())},
                                  {"clients", e->clients},
                                  {"busy", e->started.done() && !e->stopped && e->worker->busy()},
                                  {"stopping", e->stopped.has_value()}});
    }
    auto uptime = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started_).count();
    return json{{"pid", ::getpid()},          {"version", BRENLOC_VERSION}, {"build", build_.to_json()},
                     {"socket", paths_.socket.string()}, {"runtime_dir", paths_.dir.string()},
                     {"data_home", data_home_.dir.string()}, {"moved_by", moved_by()}, {"uptime_seconds", uptime},
                     {"sessions", sessions_.size()}, {"workers", workers}};
  }

  aio::Task<void> shutdown() {
    boost::system::error_code ignored;
    acceptor_.close(ignored);
    signals_.cancel(ignored);
    // Sessions first (their servers stop and their clients see the end), then the workers.
    std::vector<std::shared_ptr<aio::FutureBase>> tasks;
    for (auto& s : sessions_) {
      s->end->set_result();
      if (!s->attached) ::shutdown(s->fd, SHUT_RDWR);  // ends a wait for the first request
      tasks.push_back(s->task.base());
    }
    co_await aio::wait_all(std::move(tasks));
    std::vector<std::shared_ptr<aio::FutureBase>> stops;
    for (auto& [key, e] : workers_) {
      if (!e->stopped) {
        co_await aio::wait_all({e->started.base()});
        e->stopped = aio::spawn(stop_entry(this, key, e), &loop_);
      }
      stops.push_back(e->stopped->base());
    }
    co_await aio::wait_all(std::move(stops));
    std::error_code ec;
    fs::remove(paths_.socket, ec);
    logger()->info("Stopped");
  }

  aio::EventLoop& loop_;
  RuntimePaths paths_;
  DataHome data_home_ = data_home();
  DaemonOptions options_;
  local::acceptor acceptor_;
  asio::signal_set signals_;
  Clock::time_point started_;
  BuildIdentity build_ = build_identity();  // taken at start: the file may be replaced while the daemon runs
  std::shared_ptr<aio::FutureState<void>> stop_requested_ = std::make_shared<aio::FutureState<void>>();
  bool stopping_ = false;
  std::list<std::shared_ptr<Session>> sessions_;
  std::map<WorkerKey, std::shared_ptr<Entry>> workers_;
  std::optional<Clock::time_point> idle_since_ = Clock::now();
  std::shared_ptr<aio::FairTurns> turns_;
};

// Binds the socket with no permission for anyone else, over a stale socket file left by a daemon that
// died (only the holder of the daemon lock ever removes or binds it).
local::acceptor listen_on(aio::EventLoop& loop, const fs::path& socket) {
  std::error_code ec;
  fs::remove(socket, ec);
  local::acceptor acceptor(loop.context());
  acceptor.open();
  mode_t old = ::umask(0177);
  boost::system::error_code bind_ec;
  acceptor.bind(local::endpoint(socket.string()), bind_ec);
  ::umask(old);
  if (bind_ec) throw std::system_error(bind_ec, "cannot listen on " + socket.string());
  ::chmod(socket.c_str(), 0600);
  acceptor.listen();
  return acceptor;
}

}  // namespace

int run_daemon(const DaemonOptions& options) {
  RuntimePaths paths;
  utils::OwnerLock lock;
  try {
    paths = prepare_runtime_dir();
    lock = utils::OwnerLock::acquire(paths.lock, "the brenloc daemon's runtime directory " + paths.dir.string());
  } catch (const utils::LockBusy& e) {
    std::cerr << fmt::format("brenloc: a brenloc daemon already runs for this user (pid {}, socket {})\n",
                             e.owner(), paths.socket.string());
    return 2;
  } catch (const std::exception& e) {
    std::cerr << "brenloc: " << e.what() << "\n";
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGHUP, SIG_IGN);
  try {
    aio::EventLoop loop;
    Daemon daemon(loop, paths, options, listen_on(loop, paths.socket));
    logger()->info("brenloc {} daemon listening on {} (pid {})", BRENLOC_VERSION, paths.socket.string(), ::getpid());
    aio::run_until_complete(loop, daemon.run());
  } catch (const std::exception& e) {
    utils::log_exception(*logger(), "The daemon failed", std::current_exception());
    std::error_code ec;
    fs::remove(paths.socket, ec);
    return 1;
  }
  return 0;
}

}  // namespace brenloc::app
