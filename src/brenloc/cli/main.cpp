// brenloc: a code-indexing daemon for AI coding assistants.
#include <CLI/CLI.hpp>

#include <cctype>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "brenloc/json.h"

#include "brenloc/app/commands.h"
#include "brenloc/symbol_kinds.h"
#include "brenloc/utils/malloc_policy.h"
#include "brenloc/utils/path_text.h"
#include "brenloc/utils/utf8.h"

namespace {

// A duration in seconds from the environment, for daemons that clients start.
long env_seconds(const char* name, long fallback) {
  const char* v = std::getenv(name);
  if (v == nullptr || *v == '\0') return fallback;
  char* end = nullptr;
  long n = std::strtol(v, &end, 10);
  return *end == '\0' && n >= 0 ? n : fallback;
}

// The argument parser's complaint in this program's words, naming what the user typed.
std::string worded(const CLI::ParseError& e) {
  const std::string what = e.what();
  std::smatch m;
  static const std::regex conversion("Could not convert: (\\S+) = (.*)");
  static const std::regex extras("The following arguments? (?:was|were) not expected: (.*)");
  if (std::regex_match(what, m, conversion)) return m[1].str() + " takes a whole number, not '" + m[2].str() + "'";
  if (std::regex_match(what, m, extras)) {
    const std::string first = m[1].str().substr(0, m[1].str().find(' '));
    return (first.starts_with("-") ? "unknown option " : "unexpected argument ") + first;
  }
  return what;
}

std::string one_line(std::string s) {
  for (char& c : s) {
    if (c == '\n') c = ' ';
  }
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
}

using namespace brenloc::app;
using brenloc::json;

// The command line: the commands and their options, and what parsing them left behind.
class CommandLine {
 public:
  CommandLine() {
    app_.set_version_flag("-V,--version", std::string("brenloc ") + BRENLOC_VERSION);
    app_.require_subcommand(1);
    // As in git and ripgrep, the last of a repeated option wins (an alias may set one the user sets again).
    app_.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app_.footer(footer());
    add_serve();
    add_index_commands();
    add_search_commands();
    add_daemon();
  }

  int main(int argc, char** argv) {
    if (auto code = answer_before_parsing(argc, argv)) return *code;
    try {
      app_.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
      return app_.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
      return app_.exit(e);
    } catch (const CLI::CallForVersion& e) {
      return app_.exit(e);
    } catch (const CLI::ParseError& e) {
      const std::string command = argc > 1 && known(argv[1]) ? argv[1] : "";
      std::cerr << "brenloc: " << worded(e) << " (see brenloc help" << (command.empty() ? "" : " " + command) << ")\n";
      return kExitUsage;
    }
    return run();
  }

 private:
  // `many`: --repo may be repeated, for a session over several repositories (the first is the default).
  void add_where(CLI::App* cmd, bool many = false) {
    const std::string help =
        "A directory of the repository (default: the current one); its root is the nearest directory above it "
        "holding .git, else the directory itself";
    auto* repo = many ? cmd->add_option("--repo", serve_repos_,
                                        help + "; repeat it to serve several repositories, the first the default")
                            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
                      : cmd->add_option("--repo", where_.repo, help);
    auto* root = cmd->add_option_function<std::string>(
        "--root", [this](const std::string& dir) { where_.repo = dir, where_.exact_root = true; },
        "The repository's root, taken as it is (a subtree indexed on its own: no search for .git above it)");
    repo->excludes(root);
    cmd->add_option("--data-dir", where_.data_dir,
                    std::string("Where the index lives (default: ~/.local/share/brenloc/<name>-<hash of the root>, or "
                                "under $XDG_DATA_HOME)") +
                        (many ? "; of the first repository only" : ""));
    cmd->add_flag("--force", where_.force,
                  "Index even the file system's root, a home directory, or a tree of more than 50000 files that no "
                  "version control marks");
  }

  static std::string footer() {
    auto joined = [](const auto& names) {
      std::string out;
      for (std::string_view n : names) out += (out.empty() ? "" : ", ") + std::string(n);
      return out;
    };
    return "  help [COMMAND]              Print this help, or a command's\n\nKinds (--kind): " +
           joined(brenloc::kSymbolKinds) + "\nLanguages (--language): " + joined(brenloc::kLanguages) +
           "\n\nsearch, outline, source, refs and importers print lines on a terminal and JSON otherwise (--json, --lines choose).";
  }

  void add_output_flags(CLI::App* cmd) {
    auto* as_json = cmd->add_flag_callback("--json", [this] { where_.output = Where::Output::json; },
                                           "Print the answer as JSON (the default when stdout is not a terminal)");
    auto* as_lines = cmd->add_flag_callback("--lines", [this] { where_.output = Where::Output::lines; },
                                            "Print the answer as lines, path:line: kind name  signature (the default "
                                            "on a terminal)");
    as_json->excludes(as_lines);
  }

  void add_verbosity(CLI::App* cmd) {
    auto* quiet = cmd->add_flag_callback("-q,--quiet", [this] { where_.verbosity = -1; },
                                         "Print only the answer and errors: no progress, no warnings");
    auto* verbose = cmd->add_flag_callback("-v,--verbose", [this] { where_.verbosity = 1; },
                                           "Also print the log of the work done in this process");
    quiet->excludes(verbose);
  }

  void add_daemon_flag(CLI::App* cmd) {
    cmd->add_flag("--daemon", where_.start_daemon,
                  "Go through the user's daemon, starting it when none runs (by default only a running one is used)");
    add_verbosity(cmd);
  }

  void add_serve() {
    // BRENLOC_NO_WATCH: the default of --no-watch (serve sets it for the daemon it starts).
    const char* no_watch_env = std::getenv("BRENLOC_NO_WATCH");
    no_watch_ = no_watch_env != nullptr && *no_watch_env != '\0' && std::string(no_watch_env) != "0";
    serve_ = app_.add_subcommand("serve", "Serve the tools of one or more repositories over MCP on stdin/stdout");
    add_where(serve_, true);
    add_verbosity(serve_);
    serve_->add_flag("--standalone", standalone_,
                     "Serve from a worker in this process instead of the user's shared daemon");
    serve_->add_flag("--no-watch", no_watch_,
                     "Do not follow the tree's changes (the worker still catches up at start); for the daemon that "
                     "serve starts, all its workers");
  }

  void add_index_commands() {
    reindex_ = app_.add_subcommand("reindex", "Index the repository (or some paths in it) again, and wait");
    add_where(reindex_);
    reindex_->add_flag("--clear-existing", clear_existing_,
                       "Rebuild the whole index from scratch; the live index is replaced only when every file was "
                       "indexed");
    reindex_->add_option("PATH", paths_, "Files or directories to reindex (default: the whole repository)")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    reindex_->add_flag("--wait", where_.wait,
                       "When a reindex is under way (in the daemon), wait for it to end and then run, instead of "
                       "exiting 2");
    add_output_flags(reindex_);
    add_daemon_flag(reindex_);

    status_ = app_.add_subcommand("status", "Print the state of the repository's index as JSON (and, on stderr, its root when found above)");
    add_where(status_);
    add_daemon_flag(status_);
  }

  // A path given on the command line: taken as the file system's bytes when they are not UTF-8 (the
  // shell's own completion of a name), else as the text form that answers use (which a plain name is).
  static std::string path_argument(const std::string& v) { return brenloc::utils::is_utf8(v) ? v : brenloc::utils::path_text(v); }

  // An option that is the tool argument of the same name ("-" spelt "_").
  CLI::Option* argument(CLI::App* cmd, const std::string& flag, const std::string& help, bool integer = false) {
    std::string key = flag.substr(flag.find_first_not_of('-'));
    for (char& c : key) c = c == '-' ? '_' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (integer) return cmd->add_option_function<long>(flag, [this, key](long v) { arguments_[key] = v; }, help);
    return cmd->add_option_function<std::string>(
        flag,
        [this, key](const std::string& v) {
          arguments_[key] = key == "path" ? path_argument(v) : brenloc::utils::utf8_or_replaced(v);
        },
        help);
  }

  void add_search_commands() {
    search_ = app_.add_subcommand("search", "Search symbol definitions, best first; exit 1 when none is found");
    add_where(search_);
    argument(search_, "QUERY", "Name, start of a name, part of one, its letters in order, Scope.name, or a glob")
        ->required();
    argument(search_, "--match", "auto (default), exact, prefix, substring or fuzzy");
    argument(search_, "--kind", "Only symbols of this kind");
    argument(search_, "--path", "Only files under this directory or matching this glob");
    argument(search_, "--language", "Only files of this language");
    argument(search_, "--limit", "Largest number of results", true);
    argument(search_, "--max-bytes", "Largest size of the answer", true);
    add_output_flags(search_);
    add_daemon_flag(search_);

    outline_ = app_.add_subcommand("outline", "The definitions of a file as a tree");
    add_where(outline_);
    argument(outline_, "PATH", "File, relative to the repository root")->required();
    add_output_flags(outline_);
    add_daemon_flag(outline_);

    source_ = app_.add_subcommand("source", "The source of a definition, by name or by --path and --line");
    add_where(source_);
    argument(source_, "NAME", "Name of the definition (Scope.name also asks for the scope)");
    argument(source_, "--path", "File (or directory) of the definition");
    argument(source_, "--kind", "Kind of the definition");
    argument(source_, "--line", "A line of the definition in --path (instead of a name)", true);
    argument(source_, "--max-lines", "Largest number of lines", true);
    add_output_flags(source_);
    add_daemon_flag(source_);

    refs_ = app_.add_subcommand("refs", "Where a name is used in code, by name or by --path and --line; exit 1 when "
                                        "it is used nowhere");
    add_where(refs_);
    argument(refs_, "NAME", "The name (exact, case-sensitive)");
    argument(refs_, "--path", "With NAME: only files under this directory or matching this glob; without: the file "
                              "of the definition at --line");
    argument(refs_, "--line", "A line of the definition in --path (instead of a name)", true);
    argument(refs_, "--role", "Only uses of this role: call, type, import, definition or other");
    argument(refs_, "--limit", "Largest number of uses", true);
    argument(refs_, "--max-bytes", "Largest size of the answer", true);
    argument(refs_, "--cursor", "Where the next page starts, as an answer gave it");
    add_output_flags(refs_);
    add_daemon_flag(refs_);

    importers_ = app_.add_subcommand("importers", "The files that include or import a file (PATH) or a module "
                                                  "(--module); exit 1 when there is none");
    add_where(importers_);
    argument(importers_, "PATH", "File, relative to the repository root");
    argument(importers_, "--module", "A module or header as written in imports, instead of PATH");
    argument(importers_, "--limit", "Largest number of importers", true);
    argument(importers_, "--max-bytes", "Largest size of the answer", true);
    add_output_flags(importers_);
    add_daemon_flag(importers_);
  }

  void add_daemon() {
    daemon_ = app_.add_subcommand(
        "daemon", "Run the user's daemon, which owns every repository's worker and serves all sessions (foreground)");
    daemon_->add_option("--idle-timeout", idle_exit_, "Exit after this many seconds without a client (0: never)")
        ->check(CLI::NonNegativeNumber);
    daemon_->add_option("--worker-idle", worker_idle_,
                        "Stop a repository's worker after this many seconds without a client")
        ->check(CLI::NonNegativeNumber);
    daemon_->add_flag("--no-watch", no_watch_,
                      "Workers do not follow their trees' changes (they still catch up at start)");
    auto* stop = daemon_->add_flag("--stop", daemon_stop_, "Ask the running daemon to stop, and wait until it has");
    auto* status = daemon_->add_flag("--status", daemon_status_, "Print the running daemon's state as JSON");
    auto* detach = daemon_->add_flag("--detach", daemon_detach_, "Start the daemon in the background unless one runs");
    stop->excludes(status)->excludes(detach);
    status->excludes(detach);
  }

  // What CLI11 would answer with "A subcommand is required": no arguments, "help", an unknown command.
  bool known(const std::string& name) {
    for (const auto* sub : app_.get_subcommands({})) {
      if (sub->get_name() == name) return true;
    }
    return false;
  }

  // A command's help, with the program's name in its usage line.
  std::string help_of(const std::string& name) {
    std::string text = app_.get_subcommand(name)->help();
    const std::string bare = "Usage: " + name;
    if (auto at = text.find(bare); at != std::string::npos) text.replace(at, bare.size(), "Usage: brenloc " + name);
    return text;
  }

  std::optional<int> answer_before_parsing(int argc, char** argv) {
    if (argc < 2) {
      std::cout << app_.help();
      return kExitOk;
    }
    const std::string first = argv[1];
    const std::string asked = first == "help" && argc > 2 ? argv[2] : first;
    if ((first == "help" || asked.empty() || asked[0] != '-') && asked != "help" && !known(asked)) {
      std::cerr << "brenloc: unknown command '" << asked << "' (see brenloc --help)\n";
      return kExitUsage;
    }
    if (first == "help") {
      std::cout << (argc > 2 ? help_of(asked) : app_.help());
      return kExitOk;
    }
    return std::nullopt;
  }

  int run() {
    if (serve_->parsed()) {
      if (no_watch_) ::setenv("BRENLOC_NO_WATCH", "1", 1);
      if (!serve_repos_.empty()) {
        where_.repo = serve_repos_.front();
        where_.more_repos.assign(serve_repos_.begin() + 1, serve_repos_.end());
      }
      return run_serve(where_, standalone_, !no_watch_);
    }
    if (daemon_->parsed()) {
      if (daemon_stop_) return run_daemon_stop();
      if (daemon_status_) return run_daemon_status();
      if (daemon_detach_) return run_daemon_detach();
      return run_daemon_foreground(std::chrono::seconds(idle_exit_), std::chrono::seconds(worker_idle_), !no_watch_);
    }
    if (reindex_->parsed()) {
      for (std::string& p : paths_) p = path_argument(p);
      return run_reindex(where_, clear_existing_, paths_);
    }
    if (status_->parsed()) return run_status(where_);
    if (search_->parsed()) return run_search(where_, arguments_);
    if (outline_->parsed()) return run_outline(where_, arguments_);
    if (refs_->parsed()) return run_refs(where_, arguments_);
    if (importers_->parsed()) return run_importers(where_, arguments_);
    return run_source(where_, arguments_);
  }

  CLI::App app_{"brenloc: keeps a symbol index of a repository and serves it to AI assistants over MCP", "brenloc"};
  CLI::App *serve_ = nullptr, *reindex_ = nullptr, *status_ = nullptr, *search_ = nullptr, *outline_ = nullptr,
           *source_ = nullptr, *refs_ = nullptr, *importers_ = nullptr, *daemon_ = nullptr;
  Where where_;
  bool standalone_ = false, no_watch_ = false, clear_existing_ = false;
  bool daemon_stop_ = false, daemon_status_ = false, daemon_detach_ = false;
  std::vector<std::string> paths_;
  std::vector<std::string> serve_repos_;  // serve's --repo, in order
  json arguments_ = json::object();  // the search commands' tool arguments
  long idle_exit_ = env_seconds("BRENLOC_DAEMON_IDLE_TIMEOUT", 900);
  long worker_idle_ = env_seconds("BRENLOC_WORKER_IDLE_TIMEOUT", 300);
};

}  // namespace

int main(int argc, char** argv) {
  brenloc::utils::apply_malloc_policy();
  return CommandLine().main(argc, argv);
}
