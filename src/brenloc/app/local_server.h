// A repository worker and its MCP server in this process, on a thread of their own, reached through one
// end of a socket pair: what `serve` falls back to when the daemon cannot be reached, so that the session
// is served all the same (the worker takes the data directory's lock as any worker does).
//
// The server reads and writes the other end as the daemon's session would, without the attach: the bridge
// talks to it exactly as to an attached daemon. Closing the bridge's end, or destroying this object, stops
// the server and then the worker (its run cancelled and cleaned up, its database closed, its lock let go).
#pragma once

#include <filesystem>
#include <memory>
#include <vector>

#include "brenloc/daemon/tree_follower.h"

namespace brenloc::app {

class LocalServer {
 public:
  // Starts the worker and its server. Throws utils::LockBusy (having written nothing) when another process
  // owns the data directory, or the worker's own failure to start. The session's other repositories
  // (`more_repos`) have workers of this process too, each started at the first call that names it.
  static std::unique_ptr<LocalServer> start(const std::filesystem::path& repo_root,
                                            const std::filesystem::path& data_dir, daemon::FollowOptions follow,
                                            std::vector<std::filesystem::path> more_repos = {});
  ~LocalServer();  // closes the bridge's end if still open, and waits for the thread
  LocalServer(const LocalServer&) = delete;
  LocalServer& operator=(const LocalServer&) = delete;

  // The bridge's end of the socket pair; the bridge may close it (then the server stops).
  int fd() const { return fd_; }
  void forget_fd() { fd_ = -1; }

 private:
  struct Thread;
  LocalServer() = default;
  int fd_ = -1;
  std::unique_ptr<Thread> thread_;
};

}  // namespace brenloc::app
