// The tools of one MCP session over its repositories (session_repos.h): every tool of the table with an
// optional `repo` argument, taken off here before the call reaches the worker of the repository it names,
// and list_repos. A call that names none of the session's repositories is refused with the list of them;
// while the client is being asked for its roots, such a call waits a moment for the answer first.
//
// The default repository's worker is handed in started. Another's is opened at the first call that names
// it, through a WorkerPool: the daemon's table (shared with the other sessions), or this process. Its
// status messages reach the session from then on, with "repo" (the name) when the session has several.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "brenloc/aio/future.h"
#include "brenloc/aio/task.h"
#include "brenloc/app/session_repos.h"
#include "brenloc/daemon/worker.h"
#include "brenloc/mcp/tool_host.h"

namespace brenloc::app {

// The descriptors of a session's tools (the same for every session), and what the model is told of them.
std::vector<mcp::ToolDescriptor> session_tool_descriptors();
std::string session_instructions();

// Where a session's workers come from.
class WorkerPool {
 public:
  virtual ~WorkerPool() = default;
  // The started worker of `root` for this session, kept until close(). With `start` false, only a worker
  // that runs already (for another session), else null. Throws the reason it cannot be had.
  virtual aio::Task<daemon::RepoWorker*> open(std::filesystem::path root, bool start) = 0;
  // Lets go of the workers it opened.
  virtual aio::Task<void> close() = 0;
};

// Workers in this process, one per repository, each in its default data directory; close() stops them.
class ProcessWorkers final : public WorkerPool {
 public:
  explicit ProcessWorkers(daemon::FollowOptions follow) : follow_(follow) {}
  aio::Task<daemon::RepoWorker*> open(std::filesystem::path root, bool start) override;
  aio::Task<void> close() override;

 private:
  daemon::FollowOptions follow_;
  std::map<std::filesystem::path, std::unique_ptr<daemon::RepoWorker>> workers_;
};

class SessionTools final : public mcp::ToolHost {
 public:
  // `repos`' default is served by `first`, already started.
  SessionTools(SessionRepos repos, daemon::RepoWorker& first, WorkerPool& pool);
  ~SessionTools() override;

  std::vector<mcp::ToolDescriptor> tools() const override;
  std::string instructions() const override;
  aio::Task<json> call_tool(std::string name, json arguments) override;
  int subscribe(mcp::BroadcastSink sink) override;
  void unsubscribe(int id) override;
  void roots_asked() override;
  void roots_known(const json& result) override;

  // Waits for the workers being opened, then lets the pool go of them. Call before the pool goes.
  aio::Task<void> close();

  // The MCP log level of a status message: "error" for a failed reindex, "info" otherwise.
  static std::string level_of(const json& message);

 private:
  using Opening = aio::Future<daemon::RepoWorker*>;
  aio::Task<SessionRepoEntry> named(json repo);
  aio::Task<daemon::RepoWorker*> worker_of(SessionRepoEntry repo, bool start);
  static aio::Task<daemon::RepoWorker*> open(SessionTools* self, SessionRepoEntry repo);
  void listen_to(daemon::RepoWorker* worker, std::filesystem::path root);

  SessionRepos repos_;
  WorkerPool& pool_;
  std::map<std::filesystem::path, Opening> opened_;
  std::optional<mcp::BroadcastSink> sink_;
  std::vector<std::pair<daemon::RepoWorker*, int>> subscriptions_;
  std::vector<std::pair<daemon::RepoWorker*, std::filesystem::path>> workers_;  // opened, in order
  std::shared_ptr<aio::FutureState<void>> roots_;  // pending while the client is asked for its roots
};

}  // namespace brenloc::app
