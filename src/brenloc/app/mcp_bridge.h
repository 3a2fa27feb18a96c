// `brenloc serve` as an assistant launches it: MCP on stdin/stdout, relayed line by line to the user's
// daemon, attached to the session's first repository's worker (the daemon is started when none runs); the
// daemon's session routes each call to its repository's worker and asks the client for its roots.
//
// The session outlives the daemon. Requests pending when the daemon goes away are answered at once (a
// tool call with a tool error that says to call again, anything else with a JSON-RPC error); the next
// request reconnects, starting a new daemon, and replays the client's initialize, initialized and
// logging level before it. A reindex the session started and whose outcome it never heard (the daemon
// died during it) is told then, as the new worker found it: a `reindex_failed` broadcast.
//
// Nothing is waited for without a deadline. The daemon's connect and attach take a few seconds at most; a
// request pending for a few seconds with nothing heard from the daemon has the bridge ping it, and a daemon
// that does not answer the ping in a few seconds more is taken for gone (stopped, or wedged). When the
// daemon cannot be reached, the bridge serves the repository in its own process if its data directory
// is free; otherwise it answers by itself: the handshake, ping and the tool list as the daemon would,
// every tool call with an error that says why, and tries the daemon again some seconds later.
//
// The client may have kMaxRequestsInFlight - 1 requests in flight (one place is kept for the bridge's own
// ping); beyond that, and while the client does not read its answers, the bridge reads no more of its
// input. One thread relays both ways from a poll loop, so a message crosses the bridge with one wake-up.
#pragma once

#include <filesystem>
#include <vector>

#include "brenloc/app/runtime_dir.h"

namespace brenloc::app {

struct BridgeTarget {
  std::filesystem::path repo_root;  // resolved
  std::filesystem::path data_dir;   // absolute
  bool data_dir_given = false;      // else the daemon picks its default (data_dir serves this process alone)
  RuntimePaths paths;               // the daemon's, already prepared
  bool watch = true;                // for a worker in this process, when the bridge serves alone
  std::vector<std::filesystem::path> more_repos;  // the session's other repositories (resolved), each in its
                                                  // default data directory
};

// Relays until the client's input ends, its output breaks, or SIGINT or SIGTERM arrives. Blocks.
void run_bridge(const BridgeTarget& target, int input_fd, int output_fd);

}  // namespace brenloc::app
