// brenloc: a code-indexing daemon for AI coding assistants.
#include <CLI/CLI.hpp>

#include <cstdlib>
#include <iostream>

#include "brenloc/app/commands.h"

namespace {

// A duration in seconds from the environment, for daemons that clients start.
long env_seconds(const char* name, long fallback) {
  const char* v = std::getenv(name);
  if (v == nullptr || *v == '\0') return fallback;
  char* end = nullptr;
  long n = std::strtol(v, &end, 10);
  return *end == '\0' && n >= 0 ? n : fallback;
}

std::string one_line(std::string s) {
  for (char& c : s) {
    if (c == '\n') c = ' ';
  }
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace brenloc::app;
  CLI::App app{"brenloc: keeps a symbol index of a repository and serves it to AI assistants over MCP", "brenloc"};
  app.set_version_flag("-V,--version", std::string("brenloc ") + BRENLOC_VERSION);
  app.require_subcommand(1);

  Where where;
  auto add_where = [&where](CLI::App* cmd) {
    cmd->add_option("--repo", where.repo, "Repository root (default: the current directory)");
    cmd->add_option("--data-dir", where.data_dir,
                    "Where the index lives (default: $XDG_DATA_HOME/brenloc/<name>-<hash of the root>)");
  };

  auto add_daemon_flag = [&where](CLI::App* cmd) {
    cmd->add_flag("--daemon", where.start_daemon,
                  "Go through the user's daemon, starting it when none runs (by default only a running one is used)");
    auto* quiet = cmd->add_flag_callback("-q,--quiet", [&where] { where.verbosity = -1; },
                                         "Print only the answer and errors: no progress, no warnings");
    auto* verbose = cmd->add_flag_callback("-v,--verbose", [&where] { where.verbosity = 1; },
                                           "Also print the log of the work done in this process");
    quiet->excludes(verbose);
  };

  // BRENLOC_NO_WATCH: the default of --no-watch (serve sets it for the daemon it starts).
  const char* no_watch_env = std::getenv("BRENLOC_NO_WATCH");
  bool no_watch = no_watch_env != nullptr && *no_watch_env != '\0' && std::string(no_watch_env) != "0";
  bool standalone = false;
  auto* serve = app.add_subcommand("serve", "Serve the repository's tools over MCP on stdin/stdout");
  add_where(serve);
  serve->add_flag("--standalone", standalone,
                  "Serve from a worker in this process instead of the user's shared daemon");
  serve->add_flag("--no-watch", no_watch,
                  "Do not follow the tree's changes (the worker still catches up at start); for the daemon that "
                  "serve starts, all its workers");

  bool clear_existing = false;
  std::vector<std::string> paths;
  auto* reindex = app.add_subcommand("reindex", "Index the repository (or some paths in it) again, and wait");
  add_where(reindex);
  reindex->add_flag("--clear-existing", clear_existing,
                    "Rebuild the whole index from scratch; the live index is replaced only when every file was indexed");
  reindex->add_option("paths", paths, "Files or directories to reindex (default: the whole repository)");
  add_daemon_flag(reindex);

  auto* status = app.add_subcommand("status", "Print the state of the repository's index as JSON");
  add_where(status);
  add_daemon_flag(status);

  // The search commands: each option is the tool argument of the same name ("-" spelt "_").
  nlohmann::ordered_json arguments = nlohmann::ordered_json::object();
  auto argument = [&arguments](CLI::App* cmd, const std::string& flag, const std::string& help, bool integer = false) {
    std::string key = flag.substr(flag.find_first_not_of('-'));
    for (char& c : key) c = c == '-' ? '_' : c;
    if (integer) {
      return cmd->add_option_function<long>(flag, [&arguments, key](long v) { arguments[key] = v; }, help);
    }
    return cmd->add_option_function<std::string>(flag, [&arguments, key](const std::string& v) { arguments[key] = v; },
                                                  help);
  };
  auto* search = app.add_subcommand("search", "Search symbol definitions, best first; JSON on stdout");
  add_where(search);
  argument(search, "query", "Name, start of a name, part of one, its letters in order, Scope.name, or a glob")
      ->required();
  argument(search, "--match", "auto (default), exact, prefix, substring or fuzzy");
  argument(search, "--kind", "Only symbols of this kind");
  argument(search, "--path", "Only files under this directory or matching this glob");
  argument(search, "--language", "Only files of this language");
  argument(search, "--limit", "Largest number of results", true);
  argument(search, "--max-bytes", "Largest size of the answer", true);
  add_daemon_flag(search);

  auto* outline = app.add_subcommand("outline", "The definitions of a file as a tree; JSON on stdout");
  add_where(outline);
  argument(outline, "path", "File, relative to the repository root")->required();
  add_daemon_flag(outline);

  auto* source = app.add_subcommand("source", "The source of a definition, by name or by --path and --line; JSON");
  add_where(source);
  argument(source, "name", "Name of the definition (Scope.name also asks for the scope)");
  argument(source, "--path", "File (or directory) of the definition");
  argument(source, "--kind", "Kind of the definition");
  argument(source, "--line", "A line of the definition in --path (instead of a name)", true);
  argument(source, "--max-lines", "Largest number of lines", true);
  add_daemon_flag(source);

  long idle_exit = env_seconds("BRENLOC_DAEMON_IDLE_TIMEOUT", 900);
  long worker_idle = env_seconds("BRENLOC_WORKER_IDLE_TIMEOUT", 300);
  bool daemon_stop = false, daemon_status = false, daemon_detach = false;
  auto* daemon = app.add_subcommand(
      "daemon", "Run the user's daemon, which owns every repository's worker and serves all sessions (foreground)");
  daemon->add_option("--idle-timeout", idle_exit, "Exit after this many seconds without a client (0: never)")
      ->check(CLI::NonNegativeNumber);
  daemon->add_option("--worker-idle", worker_idle, "Stop a repository's worker after this many seconds without a client")
      ->check(CLI::NonNegativeNumber);
  daemon->add_flag("--no-watch", no_watch, "Workers do not follow their trees' changes (they still catch up at start)");
  auto* stop_flag = daemon->add_flag("--stop", daemon_stop, "Ask the running daemon to stop, and wait until it has");
  auto* status_flag = daemon->add_flag("--status", daemon_status, "Print the running daemon's state as JSON");
  auto* detach_flag = daemon->add_flag("--detach", daemon_detach, "Start the daemon in the background unless one runs");
  stop_flag->excludes(status_flag)->excludes(detach_flag);
  status_flag->excludes(detach_flag);

  // What CLI11 would answer with "A subcommand is required": no arguments, "help", an unknown command.
  if (argc < 2) {
    std::cout << app.help();
    return kExitOk;
  }
  const std::string first = argv[1];
  if (first == "help") {
    CLI::App* about = &app;
    if (argc > 2) {
      try {
        about = app.get_subcommand(argv[2]);
      } catch (const CLI::OptionNotFound&) {
        std::cerr << "brenloc: unknown command '" << argv[2] << "' (see brenloc --help)\n";
        return kExitUsage;
      }
    }
    std::cout << about->help();
    return kExitOk;
  }
  if (first.empty() || first[0] != '-') {
    bool known = false;
    for (const auto* sub : app.get_subcommands({})) known = known || sub->get_name() == first;
    if (!known) {
      std::cerr << "brenloc: unknown command '" << first << "' (see brenloc --help)\n";
      return kExitUsage;
    }
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << "brenloc: " << one_line(e.what()) << " (see brenloc --help)\n";
    return kExitUsage;
  }

  if (serve->parsed()) {
    if (no_watch) ::setenv("BRENLOC_NO_WATCH", "1", 1);
    return run_serve(where, standalone, !no_watch);
  }
  if (daemon->parsed()) {
    if (daemon_stop) return run_daemon_stop();
    if (daemon_status) return run_daemon_status();
    if (daemon_detach) return run_daemon_detach();
    return run_daemon_foreground(std::chrono::seconds(idle_exit), std::chrono::seconds(worker_idle), !no_watch);
  }
  if (reindex->parsed()) return run_reindex(where, clear_existing, paths);
  if (status->parsed()) return run_status(where);
  if (search->parsed()) return run_search(where, arguments);
  if (outline->parsed()) return run_outline(where, arguments);
  return run_source(where, arguments);
}
