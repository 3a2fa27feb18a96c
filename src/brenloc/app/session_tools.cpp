#include "brenloc/app/session_tools.h"

#include <fmt/format.h>

#include "brenloc/aio/outcome.h"
#include "brenloc/aio/thread.h"
#include "brenloc/aio/timer.h"
#include "brenloc/aio/wait_any.h"
#include "brenloc/app/data_dir.h"
#include "brenloc/app/repo_root.h"
#include "brenloc/tool_binding.h"
#include "brenloc/tools/tool_table.h"
#include "brenloc/utils/logging.h"
#include "brenloc/utils/path_text.h"

namespace brenloc::app {

namespace fs = std::filesystem;

namespace {

// How long a call that names an unknown repository waits for the client's roots when they are being asked.
constexpr std::chrono::seconds kRootsWait{3};

const char kRepoDescription[] =
    "The repository to work on: its name or root as list_repos gives them, or an absolute path in it (default: "
    "the session's first repository)";

aio::Task<void> nap(std::chrono::steady_clock::duration d) { co_await aio::sleep_for(d); }

}  // namespace

std::vector<mcp::ToolDescriptor> session_tool_descriptors() {
  std::vector<mcp::ToolDescriptor> out;
  for (const tools::Tool* t : tools::worker_tools()) {
    json schema = input_schema(t->arguments);
    schema["properties"]["repo"] = json{{"type", "string"}, {"description", kRepoDescription}};
    out.push_back({t->name, t->description, std::move(schema), t->title, t->output_schema, t->annotations});
  }
  for (const tools::Tool* t : tools::session_tools()) {
    out.push_back({t->name, t->description, input_schema(t->arguments), t->title, t->output_schema, t->annotations});
  }
  return out;
}

std::string session_instructions() {
  return "brenloc keeps an index of this repository's source files and the symbols they define. Use "
         "search_symbols to find where a function, class, method, type or variable is defined (best matches "
         "first; filter by kind, language or path), file_outline to see a file's definitions, symbol_source to "
         "read one definition, and index_status to see what is indexed and whether indexing runs. The index "
         "follows the working tree by itself: a saved, added, moved or deleted file shows in searches within a "
         "moment (index_status tells how: watch is inotify, polling or off). A search answer with a note says the "
         "index is empty or still being built: its results are not the last word. Call force_reindex with paths "
         "only when watch is off; call it with clear_existing (and no paths) only when "
         "results look wrong or stale after large changes, such as a branch switch: it rebuilds the whole index "
         "in the background and replaces the live one only when every file was indexed. force_reindex answers "
         "at once; its outcome arrives as a notification (reindex_complete or reindex_failed) and shows in "
         "index_status. A session may serve several repositories: list_repos lists them, and every tool takes "
         "repo (a name or a path) to work on one that is not the default.";
}

// --- workers of this process ---

aio::Task<daemon::RepoWorker*> ProcessWorkers::open(fs::path root, bool start) {
  if (auto it = workers_.find(root); it != workers_.end()) co_return it->second.get();
  if (!start) co_return nullptr;
  auto worker = std::make_unique<daemon::RepoWorker>(root, default_data_dir(root), follow_);
  auto up = co_await aio::outcome_of(worker->start());
  if (up.failed()) {
    co_await worker->stop();
    std::move(up).get();
  }
  co_return workers_.emplace(root, std::move(worker)).first->second.get();
}

aio::Task<void> ProcessWorkers::close() {
  for (auto& [root, worker] : workers_) co_await worker->stop();
  workers_.clear();
}

// --- the session ---

SessionTools::SessionTools(SessionRepos repos, daemon::RepoWorker& first, WorkerPool& pool)
    : repos_(std::move(repos)), pool_(pool) {
  auto ready = std::make_shared<aio::FutureState<daemon::RepoWorker*>>();
  ready->set_result(&first);
  opened_.emplace(repos_.all().front().root, Opening(ready));
  workers_.emplace_back(&first, repos_.all().front().root);
}

SessionTools::~SessionTools() {
  for (auto& [key, opening] : opened_) {
    if (!opening.done()) opening.cancel();
  }
}

std::vector<mcp::ToolDescriptor> SessionTools::tools() const { return session_tool_descriptors(); }

std::string SessionTools::instructions() const { return session_instructions(); }

std::string SessionTools::level_of(const json& message) {
  return message.value("type", "") == "reindex_failed" ? "error" : "info";
}

void SessionTools::listen_to(daemon::RepoWorker* worker, fs::path root) {
  if (!sink_) return;
  int id = worker->subscribe([this, root = std::move(root)](const json& message) {
    if (!sink_) return;
    if (repos_.all().size() < 2 || !message.is_object()) return (*sink_)(level_of(message), message);
    json tagged = message;
    for (const auto& r : repos_.all()) {
      if (r.root == root) tagged["repo"] = r.name;
    }
    (*sink_)(level_of(message), tagged);
  });
  subscriptions_.emplace_back(worker, id);
}

int SessionTools::subscribe(mcp::BroadcastSink sink) {
  unsubscribe(0);
  sink_ = std::move(sink);
  for (const auto& [worker, root] : workers_) listen_to(worker, root);
  return 0;
}

void SessionTools::unsubscribe(int) {
  for (auto& [worker, id] : subscriptions_) worker->unsubscribe(id);
  subscriptions_.clear();
  sink_.reset();
}

void SessionTools::roots_asked() {
  if (!roots_ || roots_->done()) roots_ = std::make_shared<aio::FutureState<void>>();
}

void SessionTools::roots_known(const json& result) {
  if (!result.is_null()) repos_.set_roots(result);
  if (roots_) roots_->set_result();
}

aio::Task<SessionRepoEntry> SessionTools::named(json repo) {
  auto found = repos_.find(repo);
  if (!found && roots_ && !roots_->done()) {
    std::shared_ptr<aio::FutureState<void>> asked = roots_;
    auto timer = aio::spawn(nap(kRootsWait));
    auto waited = co_await aio::outcome_of([](auto asked, auto timer) -> aio::Task<void> {
      co_await aio::wait_any({asked, timer});
    }(asked, timer.base()));
    timer.cancel();  // also when this call is cancelled: the timer's task ends with it
    if (waited.cancelled()) std::rethrow_exception(waited.error);
    // A client that does not answer in time is not waited for again (its answer still counts when it comes).
    asked->set_result();
    found = repos_.find(repo);
  }
  if (!found) throw ArgumentError("repo", repos_.refusal(repo));
  co_return *found;
}

aio::Task<daemon::RepoWorker*> SessionTools::open(SessionTools* self, SessionRepoEntry repo) {
  // A client's root is a folder the user opened, not one they named to brenloc: the trees that a command
  // indexes only with --force are not indexed for it unasked.
  if (repo.from_roots && !fs::exists(default_data_dir(repo.root) / "index.db")) {
    auto why = co_await aio::to_thread([root = repo.root] { return reason_to_insist(find_repo_root(root)); });
    if (why) {
      throw std::runtime_error(fmt::format("{} has no index yet and brenloc will not index it unasked: {}; serve it "
                                           "with --repo {} --force to index it anyway",
                                           utils::path_text(repo.root.native()), *why,
                                           utils::path_text(repo.root.native())));
    }
  }
  daemon::RepoWorker* worker = co_await self->pool_.open(repo.root, true);
  self->workers_.emplace_back(worker, repo.root);
  self->listen_to(worker, repo.root);
  co_return worker;
}

aio::Task<daemon::RepoWorker*> SessionTools::worker_of(SessionRepoEntry repo, bool start) {
  if (auto it = opened_.find(repo.root); it != opened_.end()) {
    if (!start && !it->second.done()) co_return nullptr;
    Opening opening = it->second;
    auto got = co_await aio::outcome_of(aio::await_shielded(opening));
    if (got.failed() && !got.cancelled()) {
      if (auto again = opened_.find(repo.root); again != opened_.end() && again->second.state() == opening.state()) {
        opened_.erase(again);  // the next call tries again
      }
    }
    co_return std::move(got).get();
  }
  if (!start) {
    daemon::RepoWorker* running = co_await pool_.open(repo.root, false);
    if (running != nullptr) {
      auto ready = std::make_shared<aio::FutureState<daemon::RepoWorker*>>();
      ready->set_result(running);
      opened_.emplace(repo.root, Opening(ready));
      workers_.emplace_back(running, repo.root);
      listen_to(running, repo.root);
    }
    co_return running;
  }
  opened_.emplace(repo.root, aio::spawn(open(this, repo)));
  co_return co_await worker_of(std::move(repo), true);
}

aio::Task<json> SessionTools::call_tool(std::string name, json arguments) {
  for (const tools::Tool* t : tools::session_tools()) {
    if (t->name != name) continue;
    std::vector<tools::SessionRepo> listed;
    for (const SessionRepoEntry& r : std::vector<SessionRepoEntry>(repos_.all())) {
      listed.push_back({r.name, utils::path_text(r.root.native()), listed.empty(), r.from_roots ? "roots" : "--repo",
                        co_await worker_of(r, false)});
    }
    co_return co_await t->call_on_session(std::move(listed), std::move(arguments));
  }
  tools::find_tool(name);  // an unknown tool is told as such, whatever its repo
  json repo;
  if (arguments.is_object() && arguments.contains("repo")) {
    repo = std::move(arguments["repo"]);
    arguments.erase("repo");
  }
  daemon::RepoWorker* worker = co_await worker_of(co_await named(std::move(repo)), true);
  co_return co_await tools::call_tool(*worker, std::move(name), std::move(arguments));
}

aio::Task<void> SessionTools::close() {
  std::vector<std::shared_ptr<aio::FutureBase>> opening;
  for (auto& [root, f] : opened_) {
    if (!f.done()) {
      f.cancel();
      opening.push_back(f.base());
    }
  }
  co_await aio::wait_all(std::move(opening));
  unsubscribe(0);
  co_await pool_.close();
}

}  // namespace brenloc::app
