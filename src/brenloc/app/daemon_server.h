// The user's daemon: one process per user that owns every repository worker and serves MCP to all the
// sessions and commands of that user on a Unix socket (see daemon_client.h for the protocol).
//
// It holds the runtime directory's lock for its whole life, so a second daemon refuses to start; each
// worker holds its data directory's lock, so the daemon never takes over a directory that another process
// owns. A connection from another user is closed unanswered. A worker is created on the first attach to
// its (repository root, data directory) and stopped after `worker_idle` without clients and without a run;
// each worker catches up with its tree at start and, unless `watch` is off, follows its changes; the
// daemon exits after `idle_exit` with no client and nothing running, on SIGTERM or SIGINT, or when
// asked ("brenloc/stop"), always gracefully: sessions closed, runs cancelled and cleaned up, lanes drained,
// databases closed, the socket removed.
#pragma once

#include <chrono>

namespace brenloc::app {

struct DaemonOptions {
  std::chrono::seconds idle_exit{900};    // 0: never
  std::chrono::seconds worker_idle{300};  // 0: at the next check
  bool watch = true;                      // workers follow their trees' changes (they catch up at start anyway)
};

// Runs the daemon in this process until it stops; returns the exit code (0, or 2 when another daemon
// already runs or the runtime directory is refused, with the reason on stderr).
int run_daemon(const DaemonOptions& options);

}  // namespace brenloc::app
