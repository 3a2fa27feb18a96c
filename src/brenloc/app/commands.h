// The commands of the brenloc binary; each returns the process's exit code.
//
// `reindex`, `status` and `search` go through the user's daemon when one runs (or when `daemon` is set,
// which starts one), else they run a worker of their own in this process, holding the data directory's
// lock. Either way they print the same output and end with the same exit codes.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "brenloc/json.h"

namespace brenloc::app {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;       // the reindex ran and failed, or a command failed
inline constexpr int kExitRefused = 2;      // the request was refused ("failed" or "in_progress"), or the
                                            // data directory is owned by another process
inline constexpr int kExitUsage = 64;       // bad command line, missing repository, bad tool arguments
inline constexpr int kExitInterrupted = 130;  // SIGINT or SIGTERM

struct Where {
  std::filesystem::path repo;                    // as given; resolved by the command
  std::vector<std::filesystem::path> more_repos;  // serve: the other --repo, after the first
  bool exact_root = false;                        // `repo` is the root itself, not a directory in it
  std::optional<std::filesystem::path> data_dir;  // absent: the default for the repository
  bool start_daemon = false;                      // start the user's daemon when none runs, and use it
  bool force = false;  // make a first index even of the file system's root, a home or a large unmarked tree
  int verbosity = 0;
  enum class Output { automatic, lines, json } output = Output::automatic;  // automatic: lines on a terminal
  bool wait = false;  // reindex: wait for a run under way, then run  // -1 quiet (answers and errors only), 0 progress and warnings, 1 the log too
};

// MCP on stdin/stdout until the input ends or SIGINT/SIGTERM arrives: relayed to the user's daemon, or,
// `standalone`, served by workers in this process. The session's repositories are `repo` (the default, in
// `data_dir`), `more_repos` (each in its default data directory) and the client's roots.
// `watch`: the worker follows the tree's changes (in the daemon that serve starts, through
// BRENLOC_NO_WATCH in its environment).
int run_serve(const Where& where, bool standalone, bool watch);
// One force_reindex request; prints the response, the progress and the outcome.
int run_reindex(const Where& where, bool clear_existing, const std::vector<std::string>& paths);
int run_status(const Where& where);
// The search tools (search_symbols, file_outline, symbol_source): the tool's arguments as given, its
// answer printed as lines on a terminal and as JSON otherwise (`output` chooses). Exit 0, or 1 when the
// answer is a refusal or an error, or a search found nothing.
int run_search(const Where& where, const json& arguments);
int run_outline(const Where& where, const json& arguments);
int run_source(const Where& where, const json& arguments);
// find_references and find_importers, as the search tools; exit 1 also when none is found.
int run_refs(const Where& where, const json& arguments);
int run_importers(const Where& where, const json& arguments);

// The user's daemon in the foreground (until SIGTERM, SIGINT, `--stop` or its idle time).
int run_daemon_foreground(std::chrono::seconds idle_exit, std::chrono::seconds worker_idle, bool watch);
// Starts the daemon in the background unless one runs; returns once it accepts connections.
int run_daemon_detach();
// Asks the running daemon to stop and waits until it has.
int run_daemon_stop();
// Prints the running daemon's state as JSON.
int run_daemon_status();

}  // namespace brenloc::app
