// Reaching the user's daemon from a client process (`serve`, the command line): connecting to its socket,
// starting it in the background when asked and none runs, attaching to a repository's worker, and a small
// blocking JSON-RPC client for the command line.
//
// The socket speaks MCP, one JSON-RPC message per line, after a first request that names the repository:
//   {"jsonrpc": "2.0", "id": 0, "method": "brenloc/attach", "params": {"repo_root": R, "data_dir": D}}
// ("repos": the session's other repositories, served from their default data directories, when it has some)
// answered with {"repo_root", "data_dir", "pid", "version"} or an error whose message says why (the data
// directory owned by another process, a root that is not a directory, a daemon that is stopping). With
// "waiting": true among the params, the daemon says {"method": "brenloc/waiting"} every second until it
// answers (while it starts the worker), so that a client can tell a busy daemon from one that is stopped.
// "brenloc/status" and "brenloc/stop" as first requests ask the daemon itself.
//
// Every wait has a deadline of a few seconds: a daemon that is stopped, a silent program on the socket, or
// something else at the socket's path is reported in that time, never waited for.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "brenloc/json.h"

#include "brenloc/app/runtime_dir.h"

namespace brenloc::app {


// The daemon could not be reached or started, or it refused (the message says which and why).
class DaemonError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The daemon, or whatever listens on its socket, did not answer in time.
class DaemonTimeout : public DaemonError {
 public:
  using DaemonError::DaemonError;
};

// A JSON-RPC error answered by the daemon.
class RpcError : public std::runtime_error {
 public:
  RpcError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

// The user pressed Ctrl-C (or SIGTERM came) while a blocking client waited.
class Interrupted : public std::runtime_error {
 public:
  Interrupted() : std::runtime_error("interrupted") {}
};

// What identifies the brenloc binary of this process: its version and the executable file it was started
// from (device, inode, size, modification time). A client of a binary newer than the daemon's (an upgrade,
// a rebuild) has the daemon make way for a daemon of its own binary.
struct BuildIdentity {
  std::string version;
  std::string file;          // "dev:ino:size"
  std::int64_t mtime_ns = 0;
  json to_json() const;
  static BuildIdentity from_json(const json& j);
  bool operator==(const BuildIdentity&) const = default;
};
BuildIdentity build_identity();

// The daemon's refusal of a client whose binary is newer than its own; it stops right after.
inline constexpr int kDaemonMakesWay = -32002;

// How the daemon's workers name, in their data directories' lock files, the socket that reaches them.
inline constexpr std::string_view kOwnerSocketNote = "socket ";

inline constexpr std::string_view kAttachWaiting = "brenloc/waiting";

inline constexpr std::chrono::seconds kDaemonStartTimeout{5};
inline constexpr std::chrono::seconds kConnectTimeout{3};
// How long a client waits for the daemon's first word after a request (an answer or a keep-alive).
inline constexpr std::chrono::seconds kHandshakeTimeout{5};
// How long an attach may take in all, keep-alives included (a worker that waits for its predecessor's
// clean-up, say).
inline constexpr std::chrono::seconds kAttachTimeout{120};

// A connected socket to the daemon, or -1 when nobody listens (no socket file, or a stale one). Throws
// DaemonError when something that is not a socket is at the path, DaemonTimeout when the socket takes no
// connection within kConnectTimeout (a daemon that is stopped and whose backlog is full).
int connect_socket(const std::filesystem::path& socket);

// Starts `brenloc daemon` in the background (its own session, detached from the caller's process group
// and terminal, output to the log), without waiting for it.
void spawn_daemon(const RuntimePaths& paths);

// A socket to the daemon, started first when none listens and `start` is set. Throws DaemonError.
// Many callers at once end with one daemon: the others lose the race for its lock and exit.
int connect_daemon(const RuntimePaths& paths, bool start);

// A socket attached to the worker of (`repo_root`, `data_dir`) in the daemon (without `data_dir`, the
// default data directory as the daemon reckons it, so that clients of any environment share one index;
// the daemon is started first when none listens and `start` is set), or -1 when none listens and `start` is not set. A daemon that dies while it
// is being reached (it closes the connection unanswered) is replaced and tried again. Throws RpcError for
// the daemon's refusal, DaemonError when no daemon could be reached.
int attach_worker(const RuntimePaths& paths, const std::filesystem::path& repo_root,
                  const std::optional<std::filesystem::path>& data_dir, bool start,
                  const std::vector<std::filesystem::path>& more_repos = {});

// Writes one line (a newline is added). Throws DaemonError when the daemon has gone.
void write_line(int fd, const std::string& line);

// Reads one line byte by byte, so that nothing after it is taken from the descriptor. Absent at the end of
// input; throws DaemonError after `timeout` or past `max_bytes`.
std::optional<std::string> read_line_unbuffered(int fd, std::size_t max_bytes, std::chrono::milliseconds timeout);

// Sends the first request `method` and returns its result; RpcError for the daemon's refusal, DaemonTimeout
// when nothing is heard within kHandshakeTimeout (keep-alives count) or no answer within kAttachTimeout.
json first_request(int fd, const std::string& method, json params);

// A blocking JSON-RPC client on a socket attached to a worker (the command line's way to the daemon). A
// wait in which the daemon says nothing for kHandshakeTimeout has the client ping it; no word for as long
// again ends the wait with DaemonTimeout.
class DaemonClient {
 public:
  using OnNotification = std::function<void(const json& message)>;

  explicit DaemonClient(int fd) : fd_(fd) {}
  ~DaemonClient();
  DaemonClient(const DaemonClient&) = delete;
  DaemonClient& operator=(const DaemonClient&) = delete;

  // The MCP handshake.
  void initialize();
  // A request's result; RpcError for an error answer. Notifications that arrive meanwhile go to `on_note`.
  json request(const std::string& method, json params, const OnNotification& on_note = {});
  // Waits for the next notification and returns it; DaemonError when the daemon goes away.
  json next_notification();

  // Checked while waiting: when it returns true, the wait ends with Interrupted.
  std::function<bool()> interrupted;

 private:
  json read_message();
  int fd_;
  std::string buffer_;
  long long next_id_ = 1;
};

}  // namespace brenloc::app
