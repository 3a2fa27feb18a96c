#include "brenloc/app/mcp_bridge.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <fmt/format.h>

#include "brenloc/app/daemon_client.h"
#include "brenloc/app/local_server.h"
#include "brenloc/app/session_tools.h"
#include "brenloc/mcp/protocol.h"
#include "brenloc/mcp/server.h"
#include "brenloc/utils/logging.h"
#include "brenloc/utils/owner_lock.h"

namespace brenloc::app {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

std::shared_ptr<spdlog::logger> logger() { return utils::get_logger("brenloc.serve"); }

constexpr std::size_t kMaxLine = 8 * 1024 * 1024;
// One place among the daemon's is kept for the bridge's own ping.
constexpr std::size_t kClientInFlight = mcp::kMaxRequestsInFlight - 1;
// Output waiting for the client beyond which notifications are dropped and the client's input is not read.
constexpr std::size_t kOutputSoftLimit = 4 * 1024 * 1024;
// Input waiting for the daemon beyond which the client's input is not read.
constexpr std::size_t kToDaemonLimit = 1024 * 1024;
// A request pending this long with nothing heard from the daemon has the bridge ping it; a ping not
// answered (nor anything else heard) within kPingTimeout means the daemon does not answer.
constexpr Clock::duration kQuiet = 5s;
constexpr Clock::duration kPingTimeout = 5s;
// A daemon that could not be reached is not tried again sooner (calls meanwhile are answered at once).
constexpr Clock::duration kRetryAfter = 10s;
// How long the last answers may take to reach the client when its input has ended.
constexpr Clock::duration kFlushTimeout = 2s;

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
  json id = json::parse(rest.substr(0, std::min(end, rest.size())), nullptr, false);
  if (id.is_discarded()) return std::nullopt;
  return mcp::id_key(id);
}

// Splits what is read from a descriptor into lines; a line longer than the limit is skipped and counted.
class LineSplitter {
 public:
  // Reads what is there; false at the end of input or on an error. `on_line(line)` for each line,
  // `on_oversized(bytes)` for each skipped one.
  template <class OnLine, class OnOversized>
  bool read(int fd, OnLine on_line, OnOversized on_oversized) {
    char chunk[65536];
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) return true;
    if (n <= 0) return false;
    std::string_view data(chunk, static_cast<std::size_t>(n));
    while (!data.empty()) {
      std::size_t nl = data.find('\n');
      std::string_view piece = data.substr(0, nl);
      if (skipping_) {
        skipped_ += piece.size();
      } else if (buffer_.size() + piece.size() > kMaxLine) {
        skipping_ = true;
        skipped_ = buffer_.size() + piece.size();
        std::string().swap(buffer_);
      } else {
        buffer_.append(piece);
      }
      if (nl == std::string_view::npos) break;
      if (skipping_) {
        on_oversized(skipped_);
      } else {
        on_line(std::string_view(buffer_));
      }
      buffer_.clear();
      skipping_ = false;
      data.remove_prefix(nl + 1);
    }
    return true;
  }
  void reset() {
    buffer_.clear();
    skipping_ = false;
  }

 private:
  std::string buffer_;
  bool skipping_ = false;
  std::size_t skipped_ = 0;
};

// Lines waiting for the client. A line that answers one of the client's requests gives its place in
// flight back once it is wholly written.
class ClientOutput {
 public:
  void push(std::string_view line, bool answer) {
    std::string data(line);
    data += '\n';
    bytes_ += data.size();
    lines_.push_back({std::move(data), answer});
  }
  bool empty() const { return lines_.empty(); }
  std::size_t bytes() const { return bytes_; }

  // Writes what the descriptor takes without blocking (PIPE_BUF bytes at a time after poll() said it is
  // writable); returns the answers wholly written, or nullopt when the output is broken.
  std::optional<std::size_t> flush(int fd) {
    std::size_t answers = 0;
    while (!lines_.empty()) {
      pollfd p{fd, POLLOUT, 0};
      if (::poll(&p, 1, 0) <= 0) break;
      if ((p.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) return std::nullopt;
      const std::string& data = lines_.front().data;
      const std::size_t n = std::min<std::size_t>(data.size() - offset_, PIPE_BUF);
      ssize_t w = ::write(fd, data.data() + offset_, n);
      if (w < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (w <= 0) return std::nullopt;
      offset_ += static_cast<std::size_t>(w);
      bytes_ -= static_cast<std::size_t>(w);
      if (offset_ == data.size()) {
        answers += lines_.front().answer ? 1 : 0;
        lines_.pop_front();
        offset_ = 0;
      }
    }
    return answers;
  }

 private:
  struct Line {
    std::string data;
    bool answer;
  };
  std::deque<Line> lines_;
  std::size_t offset_ = 0;
  std::size_t bytes_ = 0;
};

struct Pending {
  json id;
  std::string method;
  std::string tool;  // of a tools/call
  json repo;         // the repository it names, when it names one
};

enum class Private { handshake, ping, status };

class Bridge {
 public:
  Bridge(const BridgeTarget& target, int in, int out) : target_(target), in_(in), out_(out) {}

  void run(int signal_fd) {
    connect();  // at once, so that the daemon is ready by the first call
    while (!done_) {
      const bool reading = in_flight_ < kClientInFlight && to_daemon_.size() < kToDaemonLimit &&
                           to_client_.bytes() < kOutputSoftLimit;
      pollfd fds[4] = {{signal_fd, POLLIN, 0},
                       {reading ? in_ : -1, POLLIN, 0},
                       {to_client_.empty() ? -1 : out_, POLLOUT, 0},
                       {daemon_fd_, static_cast<short>(POLLIN | (to_daemon_.empty() ? 0 : POLLOUT)), 0}};
      int r = ::poll(fds, 4, poll_timeout_ms());
      if (r < 0) {
        if (errno == EINTR) continue;
        break;
      }
      if (fds[0].revents != 0) break;
      if (daemon_fd_ >= 0 && (fds[3].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        bool open = from_daemon_.read(
            daemon_fd_, [this](std::string_view line) { on_daemon_line(line); }, [](std::size_t) {});
        if (!open) lost_daemon(kGone, "it went away");
      }
      if (daemon_fd_ >= 0 && (fds[3].revents & POLLOUT) != 0) flush_to_daemon();
      if (fds[1].revents != 0) {
        bool open = from_client_.read(
            in_, [this](std::string_view line) { on_client_line(line); },
            [this](std::size_t bytes) {
              to_client(mcp::make_error(nullptr, mcp::kInvalidRequest,
                                        fmt::format("Invalid Request: line of {} bytes is longer than the limit of "
                                                    "{} bytes",
                                                    bytes, kMaxLine)));
            });
        if (!open) break;
      }
      if (!to_client_.empty()) flush_to_client();
      check_daemon();
    }
    // The client's input has ended (or a signal came): what is already queued for it gets a moment.
    for (auto until = Clock::now() + kFlushTimeout; !done_ && !to_client_.empty() && Clock::now() < until;) {
      pollfd p{out_, POLLOUT, 0};
      if (::poll(&p, 1, 100) > 0) flush_to_client();
    }
    drop_daemon();
  }

 private:
  // --- the client's side ---

  void on_client_line(std::string_view raw) {
    std::string_view line = trim(raw);
    if (line.empty()) return;
    mcp::Incoming m = mcp::parse_message(line);
    // Only a request is worth starting a daemon for; a notification has nobody to reach.
    if (daemon_fd_ < 0 && m.kind == mcp::Incoming::Kind::request && Clock::now() >= retry_at_) connect();
    if (daemon_fd_ < 0) {
      answer_alone(m);
      return;
    }
    note_handshake(m);
    if (m.kind == mcp::Incoming::Kind::request) {
      const std::string key = mcp::id_key(m.id);
      if (pending_.contains(key)) {
        // As the daemon would answer it; forwarded, its answer could not be told from the first one's.
        to_client(mcp::make_error(m.id, mcp::kInvalidRequest,
                                  "Invalid Request: id " + key + " is already in use by a running request"));
        return;
      }
      std::string tool;
      json repo;
      if (m.method == "tools/call" && m.params.is_object() && m.params.contains("name") && m.params["name"].is_string()) {
        tool = m.params["name"].get<std::string>();
        const json arguments = m.params.value("arguments", json());
        if (arguments.is_object() && arguments.contains("repo")) repo = arguments["repo"];
      }
      if (pending_.empty()) waiting_since_ = Clock::now();
      pending_[key] = Pending{m.id, m.method, std::move(tool), std::move(repo)};
      ++in_flight_;
    } else if (m.kind == mcp::Incoming::Kind::notification && m.method == "notifications/cancelled" &&
               m.params.is_object() && m.params.contains("requestId")) {
      // The daemon answers a cancelled request no more: its place is free now.
      if (pending_.erase(mcp::id_key(m.params["requestId"])) != 0) --in_flight_;
    }
    to_daemon_.append(line);
    to_daemon_ += '\n';
    flush_to_daemon();
  }

  void note_handshake(const mcp::Incoming& m) {
    if (m.kind == mcp::Incoming::Kind::request && m.method == "initialize") initialize_params_ = m.params;
    if (m.kind == mcp::Incoming::Kind::request && m.method == "logging/setLevel") level_params_ = m.params;
    if (m.kind == mcp::Incoming::Kind::notification && m.method == "notifications/initialized") initialized_ = true;
  }

  // Answers a client message without a daemon.
  void answer_alone(const mcp::Incoming& m) {
    note_handshake(m);
    if (m.kind == mcp::Incoming::Kind::invalid) {
      to_client(mcp::make_error(m.id, m.error_code, m.error_message));
      return;
    }
    if (m.kind != mcp::Incoming::Kind::request) return;
    if (m.method == "initialize") {
      to_client(mcp::make_result(m.id, mcp::initialize_result(m.params, session_instructions())));
    } else if (m.method == "ping" || m.method == "logging/setLevel") {
      to_client(mcp::make_result(m.id, json::object()));
    } else if (m.method == "tools/list") {
      to_client(mcp::make_result(m.id, mcp::tool_listing(session_tool_descriptors())));
    } else if (m.method == "tools/call") {
      to_client(mcp::make_result(m.id, mcp::tool_failure_result("The brenloc daemon cannot be reached: " + unreachable_)));
    } else {
      to_client(mcp::make_error(m.id, mcp::kMethodNotFound, "Method not found: " + m.method));
    }
  }

  void to_client(const json& message, bool answer = false) { to_client_.push(mcp::serialize(message), answer); }

  void flush_to_client() {
    auto answers = to_client_.flush(out_);
    if (!answers) {
      done_ = true;  // the client has gone
      return;
    }
    in_flight_ -= std::min(*answers, in_flight_);
  }

  // --- the daemon's side ---

  void connect() {
    int fd = -1;
    try {
      fd = attach_worker(target_.paths, target_.repo_root,
                         target_.data_dir_given ? std::optional<std::filesystem::path>(target_.data_dir) : std::nullopt, true,
                         target_.more_repos);
    } catch (const RpcError& e) {
      // The daemon answers but refuses (another process owns the data directory, say): asked again at the
      // next call, at once.
      unreachable(e.what(), Clock::now());
      return;
    } catch (const std::exception& e) {
      serve_alone(e.what());  // says why it cannot, when it cannot
      return;
    }
    if (!unreachable_.empty()) logger()->info("Connected to the brenloc daemon");
    attached(fd);
  }

  void unreachable(const std::string& why, Clock::time_point retry_at) {
    if (unreachable_ != why) logger()->warn("The brenloc daemon cannot be reached: {}", why);
    unreachable_ = why;
    retry_at_ = retry_at;
  }

  // Serves the repository in this process when its data directory is free; true when it does.
  bool serve_alone(const std::string& why) {
    try {
      local_ = LocalServer::start(target_.repo_root, target_.data_dir,
                                  daemon::FollowOptions{.catch_up = true, .watch = target_.watch}, target_.more_repos);
    } catch (const utils::LockBusy& busy) {
      unreachable(why + "; and " + busy.what(), Clock::now() + kRetryAfter);
      return false;
    } catch (const std::exception& e) {
      unreachable(why + "; and serving in this process failed: " + e.what(), Clock::now() + kRetryAfter);
      return false;
    }
    logger()->warn("The brenloc daemon cannot be reached ({}); serving {} in this process", why,
                   target_.repo_root.string());
    unreachable_.clear();
    attached(local_->fd());
    local_->forget_fd();  // closed with the connection, like the daemon's socket
    return true;
  }

  void attached(int fd) {
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    daemon_fd_ = fd;
    from_daemon_.reset();
    to_daemon_.clear();
    last_heard_ = Clock::now();
    ping_.reset();
    replay_handshake();
  }

  std::string private_request(Private kind, const char* method, const json& params) {
    std::string id = fmt::format("brenloc-bridge-{}", next_private_++);
    private_[mcp::id_key(json(id))] = kind;
    json m = {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}};
    if (!params.is_null()) m["params"] = params;
    to_daemon_ += mcp::serialize(m) + "\n";
    return id;
  }

  void replay_handshake() {
    if (initialize_params_) private_request(Private::handshake, "initialize", *initialize_params_);
    if (initialized_) to_daemon_ += "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/initialized\"}\n";
    if (level_params_) private_request(Private::handshake, "logging/setLevel", *level_params_);
    // A reindex this session started ended unheard (the daemon went away during it): the new worker says how.
    if (run_unheard_) {
      json arguments = json::object();
      if (!run_unheard_repo_.is_null()) arguments["repo"] = run_unheard_repo_;
      private_request(Private::status, "tools/call", json{{"name", "index_status"}, {"arguments", arguments}});
    }
    flush_to_daemon();
  }

  void flush_to_daemon() {
    while (daemon_fd_ >= 0 && !to_daemon_.empty()) {
      ssize_t n = ::send(daemon_fd_, to_daemon_.data(), to_daemon_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
      if (n <= 0) {
        lost_daemon(kGone, "it went away");
        return;
      }
      to_daemon_.erase(0, static_cast<std::size_t>(n));
    }
  }

  void on_daemon_line(std::string_view line) {
    last_heard_ = Clock::now();
    if (auto key = response_id_key(line)) {
      if (auto p = private_.find(*key); p != private_.end()) {
        Private kind = p->second;
        private_.erase(p);
        if (kind == Private::ping) ping_.reset();
        if (kind == Private::status) on_status_probe(line);
        return;
      }
      auto it = pending_.find(*key);
      if (it == pending_.end()) {
        to_client_.push(line, false);  // an answer to a request the client has cancelled meanwhile
        return;
      }
      if (it->second.tool == "force_reindex" && line.find("\"accepted\"") != std::string_view::npos) {
        json answer = json::parse(line, nullptr, false);
        json content = answer.is_object() && answer.contains("result") && answer["result"].is_object()
                           ? answer["result"].value("structuredContent", json::object())
                           : json();
        if (content.is_object() && content.value("status", "") == "accepted") {
          run_unheard_ = true;
          run_unheard_repo_ = it->second.repo;
        }
      }
      pending_.erase(it);
      to_client_.push(line, true);
      return;
    }
    if (line.find("\"reindex_complete\"") != std::string_view::npos ||
        line.find("\"reindex_failed\"") != std::string_view::npos) {
      run_unheard_ = false;
    }
    if (to_client_.bytes() > kOutputSoftLimit) {
      if (dropped_++ == 0) logger()->warn("The MCP client is not reading its output; dropping notifications");
      return;
    }
    to_client_.push(line, false);
  }

  // The new worker's index_status, asked for after a reconnection with a reindex unheard: its record of
  // the last reindex tells how that one ended (interrupted, when the daemon died during it).
  void on_status_probe(std::string_view line) {
    json answer = json::parse(line, nullptr, false);
    if (!answer.is_object() || !answer.contains("result") || !answer["result"].is_object()) return;
    json status = answer["result"].value("structuredContent", json::object());
    if (!status.is_object()) return;
    json last = status.value("last_reindex", json());
    if (!last.is_object() || last.value("state", "") == "running") return;  // its outcome is still to come
    json outcome = last.value("outcome", json());
    if (!outcome.is_object()) return;
    run_unheard_ = false;
    json params = {{"level", outcome.value("type", "") == "reindex_failed" ? "error" : "info"},
                   {"logger", "brenloc"},
                   {"data", outcome}};
    to_client(mcp::make_notification("notifications/message", std::move(params)));
  }

  // Pings a daemon that has been silent while requests wait, and gives up on one that does not answer.
  void check_daemon() {
    if (daemon_fd_ < 0 || pending_.empty()) {
      ping_.reset();
      return;
    }
    const auto now = Clock::now();
    const auto quiet_since = std::max(last_heard_, waiting_since_);
    if (!ping_ && now - quiet_since >= kQuiet) {
      private_request(Private::ping, "ping", json());
      ping_ = now;
      flush_to_daemon();
    } else if (ping_ && now - *ping_ >= kPingTimeout && last_heard_ < *ping_) {
      const auto silent = std::chrono::duration_cast<std::chrono::seconds>(now - quiet_since).count();
      lost_daemon(fmt::format("The brenloc daemon has not answered for {} s (it may be stopped or overloaded); this "
                              "call was given up: call the tool again.",
                              silent),
                  fmt::format("it has not answered for {} s", silent), Clock::now() + kRetryAfter);
    }
  }

  int poll_timeout_ms() const {
    if (daemon_fd_ < 0 || pending_.empty()) return -1;
    const auto now = Clock::now();
    const auto next = ping_ ? *ping_ + kPingTimeout : std::max(last_heard_, waiting_since_) + kQuiet;
    return static_cast<int>(std::clamp<long long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count() + 1, 0, 1000));
  }

  // The daemon went away (or does not answer): every pending request is answered, and the next one
  // reconnects (not before `retry_at`).
  void lost_daemon(const std::string& tool_text, const std::string& why, Clock::time_point retry_at = Clock::now()) {
    logger()->warn("The brenloc daemon {}; it is tried again at the next request", why);
    drop_daemon();
    unreachable_ = why;
    retry_at_ = retry_at;
    for (auto& [key, p] : pending_) {
      to_client(p.method == "tools/call" ? mcp::make_result(p.id, mcp::tool_failure_result(tool_text))
                                         : mcp::make_error(p.id, mcp::kInternalError, tool_text),
                true);
    }
    pending_.clear();
    private_.clear();
    ping_.reset();
  }

  void drop_daemon() {
    if (daemon_fd_ >= 0) ::close(std::exchange(daemon_fd_, -1));
    to_daemon_.clear();
    local_.reset();  // a worker of this process stops once its connection is closed
  }

  const BridgeTarget& target_;
  int in_, out_;
  bool done_ = false;
  int daemon_fd_ = -1;
  std::unique_ptr<LocalServer> local_;  // when this process serves the repository itself
  LineSplitter from_client_, from_daemon_;
  std::string to_daemon_;
  ClientOutput to_client_;
  std::uint64_t dropped_ = 0;
  std::string unreachable_;  // why the daemon could not be reached the last time
  Clock::time_point retry_at_{};

  // What the client has said that a new daemon must hear again, and the requests it still waits for.
  std::optional<json> initialize_params_;
  bool initialized_ = false;
  std::optional<json> level_params_;
  std::map<std::string, Pending> pending_;
  std::size_t in_flight_ = 0;  // the client's requests sent on and not yet answered to it
  std::map<std::string, Private> private_;
  long long next_private_ = 1;
  bool run_unheard_ = false;  // a reindex the client started whose outcome it has not heard
  json run_unheard_repo_;     // the repository it named (null: the default)

  // The daemon's liveness: when it was last heard, since when requests wait, and the ping in flight.
  Clock::time_point last_heard_{};
  Clock::time_point waiting_since_{};
  std::optional<Clock::time_point> ping_;
};

}  // namespace

void run_bridge(const BridgeTarget& target, int input_fd, int output_fd) {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &stop, nullptr);
  int signal_fd = ::signalfd(-1, &stop, SFD_CLOEXEC);
  Bridge(target, input_fd, output_fd).run(signal_fd);
  ::close(signal_fd);
}

}  // namespace brenloc::app
