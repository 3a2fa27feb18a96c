#include "brenloc/app/mcp_bridge.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string>

#include <fmt/format.h>

#include "brenloc/app/daemon_client.h"
#include "brenloc/app/worker_tools.h"
#include "brenloc/mcp/protocol.h"
#include "brenloc/utils/logging.h"

namespace brenloc::app {

using mcp::Json;

namespace {

std::shared_ptr<spdlog::logger> logger() { return utils::get_logger("brenloc.serve"); }

constexpr std::size_t kMaxLine = 8 * 1024 * 1024;

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
  Json id = Json::parse(rest.substr(0, std::min(end, rest.size())), nullptr, false);
  if (id.is_discarded()) return std::nullopt;
  return mcp::id_key(id);
}

// Writes all of `data`; false when the descriptor is broken.
bool write_all(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) n = ::write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd p{fd, POLLOUT, 0};
      ::poll(&p, 1, -1);
      continue;
    }
    if (n <= 0) return false;
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
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
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return true;
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
        buffer_.clear();
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

struct Pending {
  Json id;
  std::string method;
};

class Bridge {
 public:
  Bridge(const BridgeTarget& target, int in, int out) : target_(target), in_(in), out_(out) {}

  void run(int signal_fd) {
    connect();  // at once, so that the daemon is ready by the first call
    while (!done_) {
      pollfd fds[3] = {{in_, POLLIN, 0}, {signal_fd, POLLIN, 0}, {daemon_fd_, POLLIN, 0}};
      int r = ::poll(fds, daemon_fd_ >= 0 ? 3 : 2, -1);
      if (r < 0) {
        if (errno == EINTR) continue;
        break;
      }
      if (fds[1].revents != 0) break;
      if (daemon_fd_ >= 0 && fds[2].revents != 0) {
        bool open = from_daemon_.read(
            daemon_fd_, [this](std::string_view line) { on_daemon_line(line); }, [](std::size_t) {});
        if (!open) lost_daemon();
      }
      if (fds[0].revents != 0) {
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
    if (daemon_fd_ < 0 && m.kind == mcp::Incoming::Kind::request) connect();
    if (daemon_fd_ < 0) {
      answer_alone(m);
      return;
    }
    note_handshake(m);
    if (m.kind == mcp::Incoming::Kind::request) pending_[mcp::id_key(m.id)] = Pending{m.id, m.method};
    std::string out(line);
    out += '\n';
    if (!write_all(daemon_fd_, out)) lost_daemon();
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
      to_client(mcp::make_result(m.id, mcp::initialize_result(m.params, worker_instructions())));
    } else if (m.method == "ping" || m.method == "logging/setLevel") {
      to_client(mcp::make_result(m.id, Json::object()));
    } else if (m.method == "tools/list") {
      to_client(mcp::make_result(m.id, mcp::tool_listing(worker_tool_descriptors())));
    } else if (m.method == "tools/call") {
      to_client(mcp::make_result(m.id, mcp::tool_failure_result("The brenloc daemon cannot be reached: " + unreachable_)));
    } else {
      to_client(mcp::make_error(m.id, mcp::kMethodNotFound, "Method not found: " + m.method));
    }
  }

  void to_client(const Json& message) { to_client_line(mcp::serialize(message)); }
  void to_client_line(std::string_view line) {
    std::string out(line);
    out += '\n';
    if (!write_all(out_, out)) done_ = true;  // the client has gone
  }

  // --- the daemon's side ---

  void connect() {
    int fd = -1;
    try {
      fd = attach_worker(target_.paths, target_.repo_root, target_.data_dir, true);
    } catch (const std::exception& e) {
      if (unreachable_ != e.what()) logger()->warn("The brenloc daemon cannot be reached: {}", e.what());
      unreachable_ = e.what();
      return;
    }
    if (!unreachable_.empty()) logger()->info("Connected to the brenloc daemon");
    unreachable_.clear();
    daemon_fd_ = fd;
    from_daemon_.reset();
    replay_handshake();
  }

  void replay_handshake() {
    std::string out;
    auto private_request = [&](const char* method, const Json& params) {
      std::string id = fmt::format("brenloc-bridge-{}", next_private_++);
      private_ids_.insert(mcp::id_key(Json(id)));
      Json m = {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}};
      if (!params.is_null()) m["params"] = params;
      out += mcp::serialize(m) + "\n";
    };
    if (initialize_params_) private_request("initialize", *initialize_params_);
    if (initialized_) out += "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/initialized\"}\n";
    if (level_params_) private_request("logging/setLevel", *level_params_);
    if (!out.empty() && !write_all(daemon_fd_, out)) lost_daemon();
  }

  void on_daemon_line(std::string_view line) {
    if (auto key = response_id_key(line)) {
      if (private_ids_.erase(*key) != 0) return;
      pending_.erase(*key);
    }
    to_client_line(line);
  }

  // The daemon went away: every pending request is answered, and the next one reconnects.
  void lost_daemon() {
    logger()->warn("The brenloc daemon went away; it is started again at the next request");
    drop_daemon();
    unreachable_ = "it went away";
    for (auto& [key, p] : pending_) {
      to_client(p.method == "tools/call" ? mcp::make_result(p.id, mcp::tool_failure_result(kGone))
                                         : mcp::make_error(p.id, mcp::kInternalError, kGone));
    }
    pending_.clear();
    private_ids_.clear();
  }

  void drop_daemon() {
    if (daemon_fd_ >= 0) ::close(std::exchange(daemon_fd_, -1));
  }

  const BridgeTarget& target_;
  int in_, out_;
  bool done_ = false;
  int daemon_fd_ = -1;
  LineSplitter from_client_, from_daemon_;
  std::string unreachable_;  // why the daemon could not be reached the last time

  // What the client has said that a new daemon must hear again, and the requests it still waits for.
  std::optional<Json> initialize_params_;
  bool initialized_ = false;
  std::optional<Json> level_params_;
  std::map<std::string, Pending> pending_;
  std::set<std::string> private_ids_;
  long long next_private_ = 1;
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
