#include "brenloc/app/daemon_client.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include <fmt/format.h>

#include "brenloc/utils/owner_lock.h"
#include "brenloc/utils/path_text.h"

namespace brenloc::app {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::uintmax_t kLogRotateBytes = 8u << 20;

int poll_ms(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left < 0 ? 0 : static_cast<int>(std::min<long long>(left, 200));
}

}  // namespace

int connect_socket(const fs::path& socket) {
  struct stat st {};
  if (::lstat(socket.c_str(), &st) != 0) return -1;
  if (!S_ISSOCK(st.st_mode)) {
    const char* what = S_ISDIR(st.st_mode) ? "a directory" : S_ISLNK(st.st_mode) ? "a symbolic link" : "a file";
    throw DaemonError(fmt::format("{} is {}, not the brenloc daemon's socket: remove it", socket.string(), what));
  }
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (socket.native().size() >= sizeof addr.sun_path) return -1;
  std::memcpy(addr.sun_path, socket.c_str(), socket.native().size() + 1);
  // Non-blocking, so that a listener that is stopped with its backlog full cannot hold us: a Unix socket
  // then says EAGAIN, and the attempt is repeated until the deadline.
  const auto deadline = Clock::now() + kConnectTimeout;
  for (;;) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
      ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
      return fd;
    }
    const int error = errno;
    ::close(fd);
    if (error != EAGAIN && error != EINTR) return -1;
    if (Clock::now() >= deadline) {
      throw DaemonTimeout(fmt::format("the brenloc daemon's socket {} took no connection within {} s (is the daemon "
                                      "stopped?)",
                                      socket.string(), kConnectTimeout.count()));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

void spawn_daemon(const RuntimePaths& paths) {
  // Everything the child needs is made before fork(): after it, a process with threads may only make
  // async-signal-safe calls until exec.
  std::error_code ec;
  if (fs::file_size(paths.log, ec) > kLogRotateBytes && !ec) fs::rename(paths.log, paths.log.string() + ".1", ec);
  const std::string log = paths.log.string();
  char arg0[] = "brenloc", arg1[] = "daemon";
  char* argv[] = {arg0, arg1, nullptr};

  pid_t child = ::fork();
  if (child < 0) throw DaemonError(fmt::format("cannot start the brenloc daemon: fork: {}", std::strerror(errno)));
  if (child == 0) {
    // A session of its own, then a second fork: the daemon is no session leader, so it can never take a
    // terminal, and no signal sent to the caller's process group or session reaches it.
    ::setsid();
    if (::fork() != 0) ::_exit(0);
    if (::chdir("/") != 0) ::_exit(127);
    int null = ::open("/dev/null", O_RDONLY);
    int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW, 0600);
    if (null < 0 || out < 0) ::_exit(127);
    ::dup2(null, STDIN_FILENO);
    ::dup2(out, STDOUT_FILENO);
    ::dup2(out, STDERR_FILENO);
    ::close_range(3, ~0U, 0);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) ::signal(sig, SIG_DFL);
    ::execv("/proc/self/exe", argv);
    ::_exit(127);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
}

int connect_daemon(const RuntimePaths& paths, bool start) {
  int fd = connect_socket(paths.socket);
  if (fd >= 0 || !start) {
    if (fd < 0) throw DaemonError(fmt::format("no brenloc daemon listens on {}", paths.socket.string()));
    return fd;
  }
  // Started again every second while nobody answers: a daemon that was on its way out when the first one
  // lost the race for the lock is then replaced too.
  const auto deadline = Clock::now() + kDaemonStartTimeout;
  auto next_spawn = Clock::now();
  auto pause = std::chrono::milliseconds(5);
  while (Clock::now() < deadline) {
    if (Clock::now() >= next_spawn) {
      spawn_daemon(paths);
      next_spawn = Clock::now() + std::chrono::seconds(1);
    }
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, std::chrono::milliseconds(100));
    fd = connect_socket(paths.socket);
    if (fd >= 0) return fd;
  }
  throw DaemonError(fmt::format("the brenloc daemon did not start within {} s (its log: {})",
                                kDaemonStartTimeout.count(), paths.log.string()));
}

json BuildIdentity::to_json() const { return json{{"version", version}, {"file", file}, {"mtime_ns", mtime_ns}}; }

BuildIdentity BuildIdentity::from_json(const json& j) {
  if (!j.is_object()) return {};
  return {j.value("version", std::string()), j.value("file", std::string()), j.value("mtime_ns", std::int64_t{0})};
}

BuildIdentity build_identity() {
  struct stat st {};
  BuildIdentity id{BRENLOC_VERSION, "", 0};
  if (::stat("/proc/self/exe", &st) == 0) {
    id.file = fmt::format("{}:{}:{}", st.st_dev, st.st_ino, st.st_size);
    id.mtime_ns = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec;
  }
  return id;
}

namespace {

// Waits until the daemon that holds the lock of `paths` has exited (its lock is free).
void wait_for_exit(const RuntimePaths& paths) {
  for (auto deadline = Clock::now() + std::chrono::seconds(120); Clock::now() < deadline;
       std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
    try {
      utils::OwnerLock::acquire(paths.lock, "the daemon's runtime directory");
      return;
    } catch (const utils::LockBusy&) {
    }
  }
  throw DaemonError("the older brenloc daemon did not make way within 120 s");
}

}  // namespace

int attach_worker(const RuntimePaths& paths, const fs::path& repo_root, const std::optional<fs::path>& data_dir,
                  bool start, const std::vector<fs::path>& more_repos) {
  // Paths in their text form: the daemon reads them back as the file system's bytes.
  json params = {{"repo_root", utils::path_text(repo_root.native())}};
  if (data_dir) params["data_dir"] = utils::path_text(data_dir->native());
  if (!more_repos.empty()) {
    params["repos"] = json::array();
    for (const auto& root : more_repos) params["repos"].push_back(utils::path_text(root.native()));
  }
  params["build"] = build_identity().to_json();
  params["waiting"] = true;
  for (int attempt = 1;; ++attempt) {
    int fd = start ? connect_daemon(paths, true) : connect_socket(paths.socket);
    if (fd < 0) return -1;
    try {
      first_request(fd, "brenloc/attach", params);
      return fd;
    } catch (const DaemonTimeout&) {
      ::close(fd);
      throw;  // a daemon that does not answer is not waited for again
    } catch (const DaemonError&) {
      ::close(fd);
      // A daemon on its way out still accepts for a moment: the next attempt starts a new one.
      if (attempt == 3) throw;
      std::this_thread::sleep_for(std::chrono::milliseconds(50 * attempt));
    } catch (const RpcError& e) {
      ::close(fd);
      if (e.code() != kDaemonMakesWay || attempt == 3) throw;
      // An older daemon stops for this newer binary: once it is gone, a new one is started (or, when
      // this client starts none, it runs in its own process).
      wait_for_exit(paths);
    } catch (...) {
      ::close(fd);
      throw;
    }
  }
}

void write_line(int fd, const std::string& line) {
  std::string data = line + "\n";
  std::size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw DaemonError(fmt::format("the brenloc daemon has gone ({})", std::strerror(errno)));
    done += static_cast<std::size_t>(n);
  }
}

std::optional<std::string> read_line_unbuffered(int fd, std::size_t max_bytes, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  std::string line;
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    int r = ::poll(&p, 1, poll_ms(deadline));
    if (r < 0 && errno == EINTR) continue;
    if (r == 0) {
      if (Clock::now() >= deadline) throw DaemonTimeout("no answer on the daemon's socket in time");
      continue;
    }
    char c = 0;
    ssize_t n = ::read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (line.empty()) return std::nullopt;
      return line;
    }
    if (c == '\n') return line;
    if (line.size() >= max_bytes) throw DaemonError("an overlong first line on the daemon's socket");
    line.push_back(c);
  }
}

json first_request(int fd, const std::string& method, json params) {
  write_line(fd, json{{"jsonrpc", "2.0"}, {"id", 0}, {"method", method}, {"params", std::move(params)}}.dump());
  const auto give_up = Clock::now() + kAttachTimeout;
  for (;;) {
    const auto left = std::min<Clock::duration>(kHandshakeTimeout, give_up - Clock::now());
    std::optional<std::string> line;
    try {
      line = read_line_unbuffered(fd, 1 << 20,
                                  std::max(std::chrono::milliseconds(0),
                                           std::chrono::duration_cast<std::chrono::milliseconds>(left)));
    } catch (const DaemonTimeout&) {
      throw DaemonTimeout(Clock::now() >= give_up
                              ? fmt::format("the brenloc daemon did not answer within {} s", kAttachTimeout.count())
                              : fmt::format("the brenloc daemon did not answer within {} s (is it stopped, or is "
                                            "something else listening on its socket?)",
                                            kHandshakeTimeout.count()));
    }
    if (!line) throw DaemonError("the brenloc daemon closed the connection without answering");
    json answer = json::parse(*line, nullptr, false);
    if (answer.is_discarded() || !answer.is_object()) throw DaemonError("the brenloc daemon answered nonsense");
    if (answer.value("method", std::string()) == kAttachWaiting) continue;  // at work: the silence starts again
    if (answer.contains("error")) {
      const json& e = answer["error"];
      throw RpcError(e.value("code", 0), e.value("message", std::string("refused")));
    }
    return answer.value("result", json::object());
  }
}

DaemonClient::~DaemonClient() {
  if (fd_ >= 0) ::close(fd_);
}

void DaemonClient::initialize() {
  request("initialize", json{{"protocolVersion", "2025-11-25"},
                             {"capabilities", json::object()},
                             {"clientInfo", {{"name", "brenloc"}, {"version", BRENLOC_VERSION}}}});
  write_line(fd_, json{{"jsonrpc", "2.0"}, {"method", "notifications/initialized"}}.dump());
}

json DaemonClient::request(const std::string& method, json params, const OnNotification& on_note) {
  const long long id = next_id_++;
  write_line(fd_, json{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", std::move(params)}}.dump());
  for (;;) {
    json m = read_message();
    if (m.contains("method")) {
      if (on_note) on_note(m);
      continue;
    }
    if (m.value("id", json()) != json(id)) continue;
    if (m.contains("error")) {
      const json& e = m["error"];
      throw RpcError(e.value("code", 0), e.value("message", std::string("error")));
    }
    return m.value("result", json::object());
  }
}

json DaemonClient::next_notification() {
  for (;;) {
    json m = read_message();
    if (m.contains("method")) return m;
  }
}

json DaemonClient::read_message() {
  // A daemon silent for kHandshakeTimeout is pinged; silent as long again, it is taken for stopped.
  auto last_heard = Clock::now();
  std::optional<Clock::time_point> pinged;
  for (;;) {
    if (auto nl = buffer_.find('\n'); nl != std::string::npos) {
      std::string line = buffer_.substr(0, nl);
      buffer_.erase(0, nl + 1);
      json m = json::parse(line, nullptr, false);
      if (m.is_discarded() || !m.is_object()) throw DaemonError("the brenloc daemon sent a line that is not JSON");
      return m;
    }
    if (interrupted && interrupted()) throw Interrupted();
    const auto now = Clock::now();
    if (!pinged && now - last_heard >= kHandshakeTimeout) {
      write_line(fd_, json{{"jsonrpc", "2.0"}, {"id", fmt::format("brenloc-ping-{}", next_id_++)}, {"method", "ping"}}.dump());
      pinged = now;
    } else if (pinged && now - *pinged >= kHandshakeTimeout) {
      throw DaemonTimeout(fmt::format("the brenloc daemon has not answered for {} s (is it stopped?)",
                                      2 * kHandshakeTimeout.count()));
    }
    pollfd p{fd_, POLLIN, 0};
    int r = ::poll(&p, 1, 200);
    if (r <= 0) continue;  // a timeout or a signal: look at the interruption first
    char chunk[65536];
    ssize_t n = ::read(fd_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw DaemonError("the brenloc daemon went away (the connection closed)");
    buffer_.append(chunk, static_cast<std::size_t>(n));
    last_heard = Clock::now();
    pinged.reset();
  }
}

}  // namespace brenloc::app
