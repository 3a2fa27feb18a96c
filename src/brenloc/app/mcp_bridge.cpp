#include "brenloc/app/mcp_bridge.h"

#include <sys/socket.h>
#include <unistd.h>

#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>

#include <fmt/format.h>

#include "brenloc/aio/thread.h"
#include "brenloc/app/daemon_client.h"
#include "brenloc/app/worker_tools.h"
#include "brenloc/mcp/line_io.h"
#include "brenloc/mcp/protocol.h"
#include "brenloc/utils/logging.h"

namespace brenloc::app {

using mcp::Json;

namespace {

std::shared_ptr<spdlog::logger> logger() { return utils::get_logger("brenloc.serve"); }

constexpr std::size_t kMaxLine = 8 * 1024 * 1024;
constexpr std::size_t kMaxPending = 32 * 1024 * 1024;
constexpr std::size_t kMaxQueued = 64 * 1024 * 1024;

const char kGone[] =
    "The brenloc daemon stopped before answering this call; it is started again at the next call: call the "
    "tool again.";

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.back() == '\r' || s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  return s;
}

// The daemon writes its messages with "jsonrpc" first and, in a response, "id" second: the id is read
// from the line without parsing the (possibly large) rest of it.
std::optional<std::string> response_id_key(std::string_view line) {
  constexpr std::string_view prefix = R"({"jsonrpc":"2.0","id":)";
  if (line.substr(0, prefix.size()) != prefix) return std::nullopt;
  std::string_view rest = line.substr(prefix.size());
  std::size_t end = 0;
  if (!rest.empty() && rest[0] == '"') {
    for (end = 1; end < rest.size() && rest[end] != '"'; ++end) {
      if (rest[end] == '\\') ++end;
    }
    ++end;
  } else {
    while (end < rest.size() && rest[end] != ',' && rest[end] != '}') ++end;
  }
  Json id = Json::parse(rest.substr(0, end), nullptr, false);
  if (id.is_discarded()) return std::nullopt;
  return mcp::id_key(id);
}

struct Pending {
  Json id;
  std::string method;
};

}  // namespace

struct McpBridge::Core : std::enable_shared_from_this<Core> {
  enum class Link { down, connecting, up };

  Core(aio::EventLoop& l, BridgeTarget t, int in, int out)
      : loop(&l), target(std::move(t)), input_fd(in), client_out(out, kMaxQueued),
        ended(std::make_shared<aio::FutureState<void>>()) {}

  ~Core() { drop_daemon(); }

  aio::EventLoop* loop;
  BridgeTarget target;
  int input_fd;
  mcp::LineWriter client_out;
  std::unique_ptr<mcp::LineReader> client_in;
  std::shared_ptr<aio::FutureState<void>> ended;
  bool stopping = false;

  // The daemon connection; events of an earlier connection (an older generation) are ignored.
  Link link = Link::down;
  int daemon_fd = -1;
  int generation = 0;
  std::unique_ptr<mcp::LineReader> daemon_in;
  std::unique_ptr<mcp::LineWriter> daemon_out;
  std::deque<std::string> waiting;  // client lines that wait for the connection
  std::string unreachable;          // why the last connection attempt failed

  // What the client has said that a new daemon must hear again, and the requests it still waits for.
  std::optional<Json> initialize_params;
  bool initialized = false;
  std::optional<Json> level_params;
  std::map<std::string, Pending> pending;
  std::set<std::string> private_ids;
  long long next_private = 1;

  void start() {
    std::weak_ptr<Core> weak = weak_from_this();
    aio::EventLoop* l = loop;
    client_in = std::make_unique<mcp::LineReader>(input_fd, kMaxLine, kMaxPending, [weak, l](mcp::InputEvent ev) {
      l->post([weak, ev = std::move(ev)]() mutable {
        if (auto c = weak.lock()) c->on_client(std::move(ev));
      });
    });
    client_in->start();
    connect();  // at once, so that the daemon is ready by the first call
  }

  // --- the client's side ---

  void on_client(mcp::InputEvent ev) {
    if (ev.kind == mcp::InputEvent::Kind::end) {
      ended->set_result();
      return;
    }
    if (ev.kind == mcp::InputEvent::Kind::oversized) {
      client_out.send(mcp::serialize(mcp::make_error(nullptr, mcp::kInvalidRequest,
                                                     fmt::format("Invalid Request: line of {} bytes is longer than "
                                                                 "the limit of {} bytes",
                                                                 ev.size, kMaxLine))));
    } else if (!stopping) {
      std::string_view line = trim(ev.text);
      if (!line.empty()) on_client_line(std::string(line));
    }
    if (client_in) client_in->consumed(ev.size);
  }

  void on_client_line(std::string line) {
    switch (link) {
      case Link::up:
        forward(std::move(line));
        break;
      case Link::connecting:
        waiting.push_back(std::move(line));
        break;
      case Link::down:
        // Only a request is worth starting a daemon for; a notification has nobody to reach.
        if (mcp::parse_message(line).kind != mcp::Incoming::Kind::request) {
          answer_alone(line);
          break;
        }
        waiting.push_back(std::move(line));
        connect();
        break;
    }
  }

  // Sends a client line to the daemon, noting what a reconnection would need.
  void forward(std::string line) {
    mcp::Incoming m = mcp::parse_message(line);
    note_handshake(m);
    if (m.kind == mcp::Incoming::Kind::request) pending[mcp::id_key(m.id)] = Pending{m.id, m.method};
    daemon_out->send(std::move(line));
  }

  void note_handshake(const mcp::Incoming& m) {
    if (m.kind == mcp::Incoming::Kind::request && m.method == "initialize") initialize_params = m.params;
    if (m.kind == mcp::Incoming::Kind::request && m.method == "logging/setLevel") level_params = m.params;
    if (m.kind == mcp::Incoming::Kind::notification && m.method == "notifications/initialized") initialized = true;
  }

  // Answers a client line without a daemon.
  void answer_alone(const std::string& line) {
    mcp::Incoming m = mcp::parse_message(line);
    note_handshake(m);
    if (m.kind == mcp::Incoming::Kind::invalid) {
      client_out.send(mcp::serialize(mcp::make_error(m.id, m.error_code, m.error_message)));
      return;
    }
    if (m.kind != mcp::Incoming::Kind::request) return;
    Json answer;
    if (m.method == "initialize") {
      answer = mcp::make_result(m.id, mcp::initialize_result(m.params));
    } else if (m.method == "ping" || m.method == "logging/setLevel") {
      answer = mcp::make_result(m.id, Json::object());
    } else if (m.method == "tools/list") {
      answer = mcp::make_result(m.id, mcp::tool_listing(worker_tool_specs()));
    } else if (m.method == "tools/call") {
      answer = mcp::make_result(m.id, mcp::tool_failure_result("The brenloc daemon cannot be reached: " + unreachable));
    } else {
      answer = mcp::make_error(m.id, mcp::kMethodNotFound, "Method not found: " + m.method);
    }
    client_out.send(mcp::serialize(answer));
  }

  // --- the daemon's side ---

  void connect() {
    if (stopping) return;
    link = Link::connecting;
    aio::spawn(connect_task(shared_from_this()), loop);
  }

  static aio::Task<void> connect_task(std::shared_ptr<Core> self) {
    BridgeTarget t = self->target;
    int fd = -1;
    std::string failure;
    try {
      fd = co_await aio::to_thread([t] { return attach_worker(t.paths, t.repo_root, t.data_dir, true); });
    } catch (const std::exception& e) {
      failure = e.what();
    }
    if (self->stopping) {
      if (fd >= 0) ::close(fd);
      co_return;
    }
    if (fd < 0) {
      self->went_down(failure);
      co_return;
    }
    self->came_up(fd);
  }

  void came_up(int fd) {
    if (!unreachable.empty()) logger()->info("Connected to the brenloc daemon again");
    unreachable.clear();
    link = Link::up;
    daemon_fd = fd;
    const int gen = ++generation;
    std::weak_ptr<Core> weak = weak_from_this();
    aio::EventLoop* l = loop;
    daemon_out = std::make_unique<mcp::LineWriter>(fd, kMaxQueued);
    daemon_in = std::make_unique<mcp::LineReader>(fd, kMaxLine, kMaxPending, [weak, l, gen](mcp::InputEvent ev) {
      l->post([weak, gen, ev = std::move(ev)]() mutable {
        if (auto c = weak.lock()) c->on_daemon(gen, std::move(ev));
      });
    });
    daemon_in->start();
    replay_handshake();
    while (!waiting.empty() && link == Link::up) {
      std::string line = std::move(waiting.front());
      waiting.pop_front();
      forward(std::move(line));
    }
  }

  void replay_handshake() {
    auto private_request = [this](const char* method, const Json& params) {
      std::string id = fmt::format("brenloc-bridge-{}", next_private++);
      private_ids.insert(mcp::id_key(Json(id)));
      Json m = {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}};
      if (!params.is_null()) m["params"] = params;
      daemon_out->send(mcp::serialize(m));
    };
    if (initialize_params) private_request("initialize", *initialize_params);
    if (initialized) daemon_out->send(R"({"jsonrpc":"2.0","method":"notifications/initialized"})");
    if (level_params) private_request("logging/setLevel", *level_params);
  }

  void went_down(const std::string& why) {
    if (unreachable != why) {
      logger()->warn("The brenloc daemon cannot be reached: {}", why);
    }
    unreachable = why;
    link = Link::down;
    while (!waiting.empty()) {
      std::string line = std::move(waiting.front());
      waiting.pop_front();
      answer_alone(line);
    }
  }

  void on_daemon(int gen, mcp::InputEvent ev) {
    if (gen != generation || link != Link::up) {
      if (daemon_in) daemon_in->consumed(ev.size);
      return;
    }
    if (ev.kind == mcp::InputEvent::Kind::end) {
      lost_daemon();
      return;
    }
    if (ev.kind == mcp::InputEvent::Kind::line) {
      std::string_view line = ev.text;
      if (auto key = response_id_key(line)) {
        if (private_ids.erase(*key) == 0) {
          pending.erase(*key);
          client_out.send(std::string(line));
        }
      } else {
        client_out.send(std::string(line), true);  // notifications may be dropped for a slow client
      }
    }
    daemon_in->consumed(ev.size);
  }

  // The daemon went away: every pending request is answered, and the next one reconnects.
  void lost_daemon() {
    logger()->warn("The brenloc daemon went away; it is started again at the next request");
    drop_daemon();
    link = Link::down;
    unreachable = "it went away";
    for (auto& [key, p] : pending) {
      Json answer = p.method == "tools/call" ? mcp::make_result(p.id, mcp::tool_failure_result(kGone))
                                             : mcp::make_error(p.id, mcp::kInternalError, kGone);
      client_out.send(mcp::serialize(answer));
    }
    pending.clear();
    private_ids.clear();
  }

  void drop_daemon() {
    if (daemon_in) daemon_in->stop();
    if (daemon_fd >= 0) ::shutdown(daemon_fd, SHUT_RDWR);
    if (daemon_in) daemon_in->join();
    if (daemon_out) daemon_out->abort();
    daemon_in.reset();
    daemon_out.reset();
    if (daemon_fd >= 0) ::close(std::exchange(daemon_fd, -1));
  }

  static aio::Task<void> stop(std::shared_ptr<Core> self) {
    if (self->stopping) co_return;
    self->stopping = true;
    if (self->client_in) self->client_in->stop();
    self->drop_daemon();
    self->link = Link::down;
    mcp::LineReader* reader = self->client_in.get();
    mcp::LineWriter* writer = &self->client_out;
    co_await aio::to_thread([reader, writer] {
      if (reader != nullptr) reader->join();
      writer->close(std::chrono::milliseconds(2000));
    });
  }
};

McpBridge::McpBridge(aio::EventLoop& loop, BridgeTarget target, int input_fd, int output_fd)
    : core_(std::make_shared<Core>(loop, std::move(target), input_fd, output_fd)) {}

McpBridge::~McpBridge() {
  core_->stopping = true;
  if (core_->client_in) {
    core_->client_in->stop();
    core_->client_in->join();
  }
  core_->drop_daemon();
  core_->client_out.abort();
}

void McpBridge::start() { core_->start(); }

aio::Future<void> McpBridge::input_ended() const { return aio::Future<void>(core_->ended); }

aio::Task<void> McpBridge::stop() { return Core::stop(core_); }

}  // namespace brenloc::app
