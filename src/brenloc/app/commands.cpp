#include "brenloc/app/commands.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <csignal>
#include <iostream>
#include <memory>
#include <regex>
#include <thread>

#include <boost/asio/signal_set.hpp>
#include <fmt/format.h>

#include "brenloc/aio/outcome.h"
#include "brenloc/aio/task.h"
#include "brenloc/app/daemon_client.h"
#include "brenloc/app/daemon_server.h"
#include "brenloc/app/data_dir.h"
#include "brenloc/app/refused_tools.h"
#include "brenloc/app/repo_root.h"
#include "brenloc/app/text_view.h"
#include "brenloc/app/mcp_bridge.h"
#include "brenloc/app/session_tools.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/mcp/protocol.h"
#include "brenloc/mcp/server.h"
#include "brenloc/tool_binding.h"
#include "brenloc/tools/tool_table.h"
#include "brenloc/utils/logging.h"
#include "brenloc/utils/owner_lock.h"
#include "brenloc/utils/path_text.h"

namespace brenloc::app {

namespace fs = std::filesystem;

namespace {

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A failure whose message is the whole story (printed as is, with this exit code).
class CommandError : public std::runtime_error {
 public:
  CommandError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

struct Resolved {
  fs::path root;
  fs::path data_dir;
  bool data_dir_given = false;  // --data-dir; else the default, which a daemon reckons for itself
  fs::path start;               // where the search for the root began
  bool marked = false;          // version control marks the tree as a project
  bool force = false;
};

Resolved resolve(const Where& where) {
  const fs::path start = where.repo.empty() ? fs::current_path() : where.repo;
  std::error_code ec;
  fs::path canonical = fs::canonical(start, ec);
  if (ec) throw UsageError(fmt::format("repository {}: {}", where.repo.string(), ec.message()));
  if (!fs::is_directory(canonical)) throw UsageError(fmt::format("repository {} is not a directory", canonical.string()));
  RepoRoot found = where.exact_root ? RepoRoot{canonical, find_repo_root(canonical).marked} : find_repo_root(canonical);
  fs::path data = where.data_dir ? fs::absolute(*where.data_dir).lexically_normal() : default_data_dir(found.root);
  return {found.root, data, where.data_dir.has_value(), canonical, found.marked, where.force};
}

// Refuses to make a first index of a tree the user more likely named by mistake, unless --force.
void insist_on_force(const Resolved& r) {
  if (r.force || fs::exists(r.data_dir / "index.db")) return;
  if (auto why = reason_to_insist(RepoRoot{r.root, r.marked})) {
    throw UsageError(fmt::format("{} has no index yet and brenloc will not index it unasked: {}; pass --force to "
                                 "index it anyway",
                                 r.root.string(), *why));
  }
}

// A refusal of the binder names the tool's argument ("argument 'max_bytes'"); on the command line it
// names the flag or the operand that the user typed.
std::string in_command_terms(std::string text) {
  static const std::regex argument("argument '([a-z_]+)'");
  std::smatch m;
  std::string out;
  while (std::regex_search(text, m, argument)) {
    std::string name = m[1].str();
    std::string flag;
    if (name == "query" || name == "name") {
      for (char c : name) flag += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    } else {
      flag = "--" + name;
      for (char& c : flag) c = c == '_' ? '-' : c;
    }
    out += m.prefix().str() + flag;
    text = m.suffix().str();
  }
  return out + text;
}

// Runs `body`, turning its failures into a message on stderr and an exit code.
template <class Body>
int guarded(Body body) {
  try {
    return body();
  } catch (const UsageError& e) {
    std::cerr << "brenloc: " << in_command_terms(e.what()) << "\n";
    return kExitUsage;
  } catch (const ArgumentError& e) {
    std::cerr << "brenloc: " << in_command_terms(e.what()) << "\n";
    return kExitUsage;
  } catch (const utils::LockBusy& e) {
    std::cerr << "brenloc: " << e.what() << "\n";
    return kExitRefused;
  } catch (const CommandError& e) {
    std::cerr << "brenloc: " << e.what() << "\n";
    return e.code();
  } catch (const std::exception& e) {
    std::cerr << "brenloc: " << e.what() << "\n";
    return kExitFailed;
  }
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

aio::Task<void> set_when_done(aio::Future<void> f, std::shared_ptr<aio::FutureState<void>> target) {
  co_await aio::wait_all({f.base()});
  target->set_result();
}

// Waits until the first of `futures` is done.
aio::Task<void> first_of(std::vector<aio::Future<void>> futures) {
  auto any = std::make_shared<aio::FutureState<void>>();
  std::vector<aio::Future<void>> watchers;
  for (auto& f : futures) watchers.push_back(aio::spawn(set_when_done(f, any)));
  co_await aio::shield(aio::Future<void>(any));
  for (auto& w : watchers) w.cancel();
}

// Runs `body` with a started worker on a loop of its own, stopping the worker on every way out.
template <class Body>
int with_worker(const Resolved& r, Body body, daemon::FollowOptions follow = {}) {
  aio::EventLoop loop;
  daemon::RepoWorker worker(r.root, r.data_dir, follow);
  return aio::run_until_complete(
      loop, [](aio::EventLoop& loop, daemon::RepoWorker& worker, Body body) -> aio::Task<int> {
        auto ended = co_await aio::outcome_of([](aio::EventLoop& loop, daemon::RepoWorker& worker, Body body) -> aio::Task<int> {
          co_await worker.start();
          co_return co_await body(loop, worker);
        }(loop, worker, std::move(body)));
        co_await worker.stop();
        co_return std::move(ended).get();
      }(loop, worker, std::move(body)));
}

// Shows progress on stderr: a bar that redraws itself on a terminal, plain lines otherwise (also when
// the log is shown, so that its lines never land on the bar's), nothing when quiet.
class ProgressView {
 public:
  explicit ProgressView(int verbosity) : quiet_(verbosity < 0), tty_(verbosity == 0 && ::isatty(STDERR_FILENO) == 1) {}
  void show(std::int64_t done, std::int64_t total) {
    if (quiet_) return;
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
  // Shows a status message of the worker: progress, or the outcome it keeps.
  void take(const json& m, std::optional<json>& outcome) {
    if (m.value("type", "") == "reindex_progress") {
      show(m.value("files_done", 0), m.value("files_total", 0));
    } else if (m.value("type", "") == "reindex_complete" || m.value("type", "") == "reindex_failed") {
      outcome = m;
    }
  }

 private:
  bool quiet_;
  bool tty_;
  bool drawn_ = false;
};

// How much a command prints besides its answer: the log of the work in this process only when verbose.
void apply_verbosity(int verbosity) {
  utils::set_log_level(verbosity > 0 ? spdlog::level::info : verbosity < 0 ? spdlog::level::err : spdlog::level::warn);
}

// JSON as printed: text from elsewhere (an error's message naming a file) may hold bytes that are not
// UTF-8; those print as U+FFFD rather than fail the command.
std::string printed(const json& j, int indent = -1) {
  return j.dump(indent, ' ', false, json::error_handler_t::replace);
}

bool lines_wanted(Where::Output output) {
  return output == Where::Output::lines || (output == Where::Output::automatic && ::isatty(STDOUT_FILENO) == 1);
}

// A reindex's response: as it came (JSON), or, for a person, nothing when it was accepted (the progress
// and the outcome follow) and its message when it was not.
void print_response(const json& response, bool lines) {
  if (!lines) {
    std::cout << printed(response) << std::endl;
  } else if (response.value("status", "") != "accepted") {
    std::cerr << "brenloc: " << response.value("message", response.value("error", std::string("refused"))) << "\n";
  }
}

// Prints the outcome of a reindex and gives the exit code.
int report_outcome(const std::optional<json>& outcome, bool lines) {
  if (!outcome) {
    std::cerr << "brenloc: the reindex ended without an outcome\n";
    return kExitFailed;
  }
  if (!lines) {
    std::cout << printed(*outcome) << std::endl;
  } else if (outcome->value("type", "") == "reindex_complete") {
    std::string figures;
    for (const auto& [key, value] : outcome->items()) {
      if (key != "type") figures += fmt::format("{}{} {}", figures.empty() ? "" : ", ", key, printed(value));
    }
    std::cout << "reindex complete: " << figures << std::endl;
  }
  if (outcome->value("type", "") == "reindex_complete") return kExitOk;
  std::cerr << "brenloc: " << outcome->value("error", "") << "\n";
  return kExitFailed;
}

// --- through the daemon ---

std::atomic<bool> g_interrupted{false};

void on_interrupt(int) { g_interrupted.store(true); }

// SIGINT and SIGTERM end a blocking wait on the daemon (with Interrupted) instead of the process.
void catch_interrupts() {
  struct sigaction sa {};
  sa.sa_handler = on_interrupt;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = 0;  // no SA_RESTART: a blocking poll returns at once
  ::sigaction(SIGINT, &sa, nullptr);
  ::sigaction(SIGTERM, &sa, nullptr);
}

// A client attached to the repository's worker through the daemon of `paths`, or null when none listens
// (and none is to be started). A refusal of the daemon (the data directory owned by another process,
// say) is the command's refusal.
std::unique_ptr<DaemonClient> attach(const RuntimePaths& paths, const Resolved& r, bool start) {
  int fd = -1;
  try {
    fd = attach_worker(paths, r.root, r.data_dir_given ? std::optional<fs::path>(r.data_dir) : std::nullopt, start);
  } catch (const RpcError& e) {
    throw CommandError(kExitRefused, e.what());
  }
  if (fd < 0) return nullptr;
  auto client = std::make_unique<DaemonClient>(fd);
  client->interrupted = [] { return g_interrupted.load(); };
  client->initialize();
  return client;
}

// A client of the user's daemon attached to the repository's worker, or null when no daemon runs (and
// none is to be started).
std::unique_ptr<DaemonClient> reach_daemon(const Resolved& r, bool start) {
  RuntimePaths paths;
  try {
    paths = prepare_runtime_dir();
  } catch (const RuntimeDirError& e) {
    if (start) throw CommandError(kExitRefused, e.what());
    return nullptr;  // no usable runtime directory: no daemon of ours can be there
  }
  return attach(paths, r, start);
}

// The daemon that owns the data directory, as its lock file names it, when that is a daemon of this user
// that listens (one started with another runtime directory); else null.
std::unique_ptr<DaemonClient> reach_owner(const Resolved& r, const utils::LockBusy& busy) {
  if (busy.note().rfind(kOwnerSocketNote, 0) != 0) return nullptr;
  RuntimePaths paths;
  paths.socket = busy.note().substr(kOwnerSocketNote.size());
  paths.dir = paths.socket.parent_path();
  try {
    verify_private_dir(paths.dir);
  } catch (const RuntimeDirError&) {
    return nullptr;
  }
  return attach(paths, r, false);
}

// A tool's response dictionary through the daemon; a refusal of the arguments is a usage error.
json call_tool(DaemonClient& client, const std::string& name, json arguments,
               const DaemonClient::OnNotification& on_note = {}) {
  json result;
  try {
    result = client.request("tools/call", json{{"name", name}, {"arguments", std::move(arguments)}}, on_note);
  } catch (const RpcError& e) {
    // The same text as in this process, without the protocol's prefix.
    constexpr std::string_view prefix = "Invalid params: ";
    std::string text = e.what();
    if (text.rfind(prefix, 0) == 0) text.erase(0, prefix.size());
    if (e.code() == mcp::kInvalidParams) throw UsageError(text);
    throw;
  }
  if (result.contains("structuredContent")) return result["structuredContent"];
  std::string text = "the tool failed";
  if (result.contains("content") && !result["content"].empty()) text = result["content"][0].value("text", text);
  // "Invalid arguments for <tool>: <why>": the same usage error as in this process, with the same text.
  constexpr std::string_view refused = "Invalid arguments for ";
  if (text.rfind(refused, 0) == 0 && text.find(": ") != std::string::npos) {
    throw UsageError(text.substr(text.find(": ") + 2));
  }
  throw std::runtime_error(text);
}

// How long a reindex through the daemon waits for the worker's pass at start before it asks anyway.
constexpr std::chrono::minutes kFirstPassWait{10};

// A worker that the daemon has just started first catches up with the tree (an empty index, it indexes
// whole), and a reindex asked meanwhile would be answered "in_progress": the user asked for a reindex,
// not whether one runs. While that pass runs, search answers carry an "indexing: ..." note; the command
// waits until it has gone (for a while at most). Throws Interrupted.
void wait_for_first_pass(DaemonClient& client, int verbosity) {
  bool told = false;
  for (auto deadline = std::chrono::steady_clock::now() + kFirstPassWait; std::chrono::steady_clock::now() < deadline;) {
    json answer = call_tool(client, "search_symbols", {{"query", "_"}, {"limit", 1}, {"max_bytes", 1024}});
    const std::string note = answer.value("note", "");
    if (!note.starts_with("indexing: ")) return;
    if (!told && verbosity >= 0) {
      std::cerr << "brenloc: the worker is catching up with the tree first (" << note << ")\n";
      told = true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (g_interrupted.load()) throw Interrupted();
  }
}

// With `wait`, a request answered "in_progress" is asked again once the run under way has ended (as
// index_status tells), until it is accepted or refused for another reason. Throws Interrupted.
json ask_reindex(DaemonClient& client, const json& arguments, bool wait, int verbosity) {
  for (bool told = false;;) {
    json response = call_tool(client, "force_reindex", arguments);
    if (!wait || response.value("status", "") != "in_progress") return response;
    if (!told && verbosity >= 0) std::cerr << "brenloc: a reindex is under way; waiting for it to end\n";
    told = true;
    while (call_tool(client, "index_status", json::object()).value("indexing", false)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      if (g_interrupted.load()) throw Interrupted();
    }
  }
}

int reindex_via_daemon(DaemonClient& client, const json& arguments, const Where& where) {
  const int verbosity = where.verbosity;
  const bool lines = lines_wanted(where.output);
  ProgressView progress(verbosity);
  std::optional<json> outcome;
  json response;
  try {
    wait_for_first_pass(client, verbosity);
    response = ask_reindex(client, arguments, where.wait, verbosity);
  } catch (const Interrupted&) {
    std::cerr << "brenloc: interrupted before the reindex was asked for\n";
    return kExitInterrupted;
  }
  print_response(response, lines);
  if (response.value("status", "") != "accepted") return kExitRefused;
  try {
    while (!outcome) {
      json note = client.next_notification();
      if (note.value("method", "") == "notifications/message") {
        progress.take(note["params"].value("data", json::object()), outcome);
      }
    }
  } catch (const Interrupted&) {
    progress.finish();
    std::cerr << "brenloc: interrupted; the reindex goes on in the daemon (brenloc status tells how it ends)\n";
    return kExitInterrupted;
  } catch (const DaemonError& e) {
    progress.finish();
    std::cerr << "brenloc: " << e.what() << " before the reindex ended\n";
    return kExitFailed;
  }
  progress.finish();
  return report_outcome(outcome, lines);
}

// --- in this process ---

aio::Task<int> reindex_in_process(aio::EventLoop& loop, daemon::RepoWorker& worker, json arguments, int verbosity,
                                  bool lines) {
  ProgressView progress(verbosity);
  std::optional<json> outcome;
  struct Subscription {
    daemon::RepoWorker& worker;
    int id;
    ~Subscription() { worker.unsubscribe(id); }
  } sub{worker, worker.subscribe([&](const json& m) { progress.take(m, outcome); })};
  StopSignal signal(loop);
  json response = co_await worker.force_reindex(std::move(arguments));
  print_response(response, lines);
  if (response.value("status", "") != "accepted") co_return kExitRefused;
  aio::Future<void> run = *worker.last_run();
  const auto swaps = worker.swaps_committed();
  co_await first_of({run, signal.fired()});
  if (!run.done()) {
    co_await worker.stop();  // cancels the run and waits for its clean-up
    progress.finish();
    if (worker.swaps_committed() != swaps) {
      std::cerr << "brenloc: interrupted after the new index was swapped in; it is live, but its report was not "
                   "refreshed\n";
    } else {
      std::cerr << "brenloc: interrupted; the reindex was cancelled and the live index kept\n";
    }
    co_return kExitInterrupted;
  }
  progress.finish();
  co_return report_outcome(outcome, lines);
}

// Prints a tool's answer as lines or as JSON; gives the exit code.
int print_answer(const std::string& name, const json& answer, Where::Output output) {
  const bool lines = lines_wanted(output);
  const bool found_nothing =
      (name == "search_symbols" || name == "find_references" || name == "find_importers") && answer.value("count", 0) == 0;
  if (!lines || name == "index_status") {
    std::cout << printed(answer, 2) << std::endl;
  } else if (answer.contains("error")) {
    std::cerr << "brenloc: " << in_command_terms(answer.value("error", std::string("the tool failed"))) << "\n";
  } else {
    TextView view = name == "search_symbols"    ? search_text(answer)
                    : name == "file_outline"    ? outline_text(answer)
                    : name == "find_references" ? references_text(answer)
                    : name == "find_importers"  ? importers_text(answer)
                                                : source_text(answer);
    std::cout << view.lines << std::flush;
    for (const std::string& note : view.notes) std::cerr << "brenloc: " << note << "\n";
  }
  return answer.contains("error") || found_nothing ? kExitFailed : kExitOk;
}

// Runs one tool call, through the daemon or in this process, and prints its answer.
int print_tool(const Where& where, const std::string& name, json arguments) {
  return guarded([&] {
    apply_verbosity(where.verbosity);
    Resolved r = resolve(where);
    if (name == "file_outline" && arguments.contains("path") && arguments["path"].is_string()) {
      std::error_code ec;
      if (fs::is_directory(r.root / utils::path_bytes(arguments["path"].get<std::string>()), ec)) {
        throw UsageError(fmt::format("{} is a directory: outline takes a file (search --path {} QUERY looks in a "
                                     "directory)",
                                     arguments["path"].get<std::string>(), arguments["path"].get<std::string>()));
      }
    }
    auto print = [&](const json& answer) { return print_answer(name, answer, where.output); };
    auto through = [&](DaemonClient& client) { return print(call_tool(client, name, arguments)); };
    if (name == "index_status" && r.root != r.start && where.verbosity >= 0) {
      std::cerr << fmt::format("brenloc: repository {} (found from {})\n", r.root.string(), r.start.string());
    }
    insist_on_force(r);
    if (auto client = reach_daemon(r, where.start_daemon)) return through(*client);
    // Looking is no reason to create a data directory and an empty index.
    if (!fs::exists(r.data_dir / "index.db")) {
      throw CommandError(kExitFailed, fmt::format("{} has no index yet (data directory {}); run brenloc reindex",
                                                  r.root.string(), r.data_dir.string()));
    }
    try {
      return with_worker(r, [&](aio::EventLoop&, daemon::RepoWorker& worker) -> aio::Task<int> {
        co_return print(co_await tools::call_tool(worker, name, arguments));
      });
    } catch (const utils::LockBusy& busy) {
      if (auto client = reach_owner(r, busy)) return through(*client);
      throw;
    }
  });
}

// Serves the session's repositories from workers of this process: the first one's is `worker`.
aio::Task<int> serve_standalone(aio::EventLoop& loop, daemon::RepoWorker& worker, std::vector<fs::path> repos,
                                daemon::FollowOptions follow) {
  ProcessWorkers others(follow);
  SessionTools tools(SessionRepos(std::move(repos)), worker, others);
  {
    mcp::McpServer server(loop, tools, STDIN_FILENO, STDOUT_FILENO);
    StopSignal signal(loop);
    server.start();
    co_await first_of({server.input_ended(), signal.fired()});
    co_await server.stop();
  }
  co_await tools.close();
  co_return kExitOk;
}

// Serves a host whose every tool call is refused with `reason`, until the input ends or a signal.
int serve_refused(const std::string& reason) {
  aio::EventLoop loop;
  RefusedTools tools(reason);
  return aio::run_until_complete(loop, [](aio::EventLoop& loop, RefusedTools& tools) -> aio::Task<int> {
    mcp::McpServer server(loop, tools, STDIN_FILENO, STDOUT_FILENO);
    StopSignal signal(loop);
    server.start();
    co_await first_of({server.input_ended(), signal.fired()});
    co_await server.stop();
    co_return kExitRefused;
  }(loop, tools));
}

}  // namespace

int run_serve(const Where& where, bool standalone, bool watch) {
  return guarded([&] {
    // serve logs its work by default: -v adds the details, -q keeps only errors.
    if (where.verbosity != 0) utils::set_log_level(where.verbosity > 0 ? spdlog::level::debug : spdlog::level::err);
    Resolved r = resolve(where);
    insist_on_force(r);
    // The other --repo, each found as the first is and in its default data directory.
    std::vector<fs::path> more;
    for (const fs::path& repo : where.more_repos) {
      Where other = where;
      other.repo = repo;
      other.data_dir.reset();
      Resolved o = resolve(other);
      insist_on_force(o);
      more.push_back(o.root);
    }
    const daemon::FollowOptions follow{.catch_up = true, .watch = watch};
    if (!standalone) {
      std::optional<RuntimePaths> paths;
      try {
        paths = prepare_runtime_dir();
      } catch (const RuntimeDirError& e) {
        std::cerr << "brenloc: " << e.what() << "; serving in this process instead\n";
      }
      if (paths) {
        run_bridge(BridgeTarget{r.root, r.data_dir, r.data_dir_given, *paths, watch, more}, STDIN_FILENO, STDOUT_FILENO);
        return kExitOk;
      }
    }
    try {
      more.insert(more.begin(), r.root);
      return with_worker(
          r, [&](aio::EventLoop& loop, daemon::RepoWorker& worker) { return serve_standalone(loop, worker, more, follow); },
          follow);
    } catch (const utils::LockBusy& busy) {
      // The client still gets its handshake, and reads why no tool runs, rather than a closed connection.
      std::cerr << "brenloc: " << busy.what() << "\n";
      return serve_refused(std::string(busy.what()) + "; serve without --standalone shares that process's worker");
    }
  });
}

int run_reindex(const Where& where, bool clear_existing, const std::vector<std::string>& paths) {
  const json arguments = {{"paths", paths}, {"clear_existing", clear_existing}};
  return guarded([&] {
    apply_verbosity(where.verbosity);
    Resolved r = resolve(where);
    insist_on_force(r);
    catch_interrupts();
    if (auto client = reach_daemon(r, where.start_daemon)) return reindex_via_daemon(*client, arguments, where);
    try {
      // The worker's loop takes the signals in this process.
      std::signal(SIGINT, SIG_DFL);
      std::signal(SIGTERM, SIG_DFL);
      return with_worker(r, [&](aio::EventLoop& loop, daemon::RepoWorker& worker) {
        return reindex_in_process(loop, worker, arguments, where.verbosity, lines_wanted(where.output));
      });
    } catch (const utils::LockBusy& busy) {
      catch_interrupts();
      if (auto client = reach_owner(r, busy)) return reindex_via_daemon(*client, arguments, where);
      throw;
    }
  });
}

int run_status(const Where& where) { return print_tool(where, "index_status", json::object()); }

int run_search(const Where& where, const json& arguments) { return print_tool(where, "search_symbols", arguments); }

int run_outline(const Where& where, const json& arguments) { return print_tool(where, "file_outline", arguments); }

int run_source(const Where& where, const json& arguments) { return print_tool(where, "symbol_source", arguments); }

int run_refs(const Where& where, const json& arguments) { return print_tool(where, "find_references", arguments); }

int run_importers(const Where& where, const json& arguments) { return print_tool(where, "find_importers", arguments); }

int run_daemon_foreground(std::chrono::seconds idle_exit, std::chrono::seconds worker_idle, bool watch) {
  return run_daemon(DaemonOptions{idle_exit, worker_idle, watch});
}

namespace {

// What `daemon --status` and `daemon --stop` say when no daemon listens.
CommandError no_daemon(const RuntimePaths& paths) {
  return CommandError(kExitFailed, fmt::format("no brenloc daemon runs (none listens on {})", paths.socket.string()));
}

}  // namespace

int run_daemon_detach() {
  return guarded([] {
    RuntimePaths paths = prepare_runtime_dir();
    int fd = connect_daemon(paths, true);
    json status = first_request(fd, "brenloc/status", json::object());
    ::close(fd);
    std::cout << fmt::format("brenloc daemon running (pid {}, socket {})", status.value("pid", 0),
                             paths.socket.string())
              << std::endl;
    return kExitOk;
  });
}

int run_daemon_stop() {
  return guarded([] {
    RuntimePaths paths = runtime_paths();
    int fd = connect_socket(paths.socket);
    if (fd < 0) throw no_daemon(paths);
    json status = first_request(fd, "brenloc/stop", json::object());
    ::close(fd);
    // Stopped once its lock is free: the daemon lets it go last, after its workers and its socket.
    for (auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
         std::chrono::steady_clock::now() < deadline; std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
      try {
        utils::OwnerLock::acquire(paths.lock, "the daemon's runtime directory");
        std::cout << "brenloc daemon stopped" << std::endl;
        return kExitOk;
      } catch (const utils::LockBusy&) {
      }
    }
    throw std::runtime_error("the brenloc daemon did not stop within 120 s");
  });
}

int run_daemon_status() {
  return guarded([] {
    RuntimePaths paths = runtime_paths();
    int fd = connect_socket(paths.socket);
    if (fd < 0) throw no_daemon(paths);
    json status = first_request(fd, "brenloc/status", json::object());
    ::close(fd);
    std::cout << printed(status, 2) << std::endl;
    return kExitOk;
  });
}

}  // namespace brenloc::app
