// `brenloc serve` as an assistant launches it: MCP on stdin/stdout, relayed line by line to the user's
// daemon, attached to one repository's worker (the daemon is started when none runs).
//
// The session outlives the daemon. Requests pending when the daemon goes away are answered at once (a
// tool call with a tool error that says to call again, anything else with a JSON-RPC error); the next
// request reconnects, starting a new daemon, and replays the client's initialize, initialized and
// logging level before it. While no daemon can be reached (or it refuses the repository), the bridge
// answers by itself: the handshake, ping and the tool list as the daemon would, every tool call with an
// error that says why.
//
// One thread relays both ways from a poll loop, so a message crosses the bridge with one wake-up.
#pragma once

#include <filesystem>

#include "brenloc/app/runtime_dir.h"

namespace brenloc::app {

struct BridgeTarget {
  std::filesystem::path repo_root;  // resolved
  std::filesystem::path data_dir;   // absolute
  RuntimePaths paths;               // the daemon's, already prepared
};

// Relays until the client's input ends, its output breaks, or SIGINT or SIGTERM arrives. Blocks.
void run_bridge(const BridgeTarget& target, int input_fd, int output_fd);

}  // namespace brenloc::app
