// `brenloc serve` as an assistant launches it: MCP on stdin/stdout, relayed line by line to the user's
// daemon, attached to one repository's worker (the daemon is started when none runs).
//
// The session outlives the daemon. Requests pending when the daemon goes away are answered at once (a
// tool call with a tool error that says to call again, anything else with a JSON-RPC error); the next
// request reconnects, starting a new daemon, and replays the client's initialize, initialized and
// logging level before it. While no daemon can be reached (or it refuses the repository), the bridge
// answers by itself: the handshake, ping and the tool list as the daemon would, every tool call with an
// error that says why.
#pragma once

#include <filesystem>
#include <memory>

#include "brenloc/aio/future.h"
#include "brenloc/aio/task.h"
#include "brenloc/app/runtime_dir.h"

namespace brenloc::app {

struct BridgeTarget {
  std::filesystem::path repo_root;  // resolved
  std::filesystem::path data_dir;   // absolute
  RuntimePaths paths;               // the daemon's, already prepared
};

class McpBridge {
 public:
  McpBridge(aio::EventLoop& loop, BridgeTarget target, int input_fd, int output_fd);
  ~McpBridge();
  McpBridge(const McpBridge&) = delete;
  McpBridge& operator=(const McpBridge&) = delete;

  // Starts reading the client and connecting to the daemon. On the loop thread.
  void start();
  // Completes when the client's input has ended.
  aio::Future<void> input_ended() const;
  // Closes the daemon connection and waits (briefly) for the client to take what is queued. Idempotent.
  aio::Task<void> stop();

 private:
  struct Core;
  std::shared_ptr<Core> core_;
};

}  // namespace brenloc::app
