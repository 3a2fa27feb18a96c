// Requests that try to reach outside the repository: each is refused or contained, and a canary file
// outside the root is never opened (watched with inotify) by the requests, a live pass or a rebuild.
#include <sys/inotify.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "brenloc/daemon/worker.h"
#include "utils/tree_fixtures.h"

namespace brenloc::testing {
namespace {

using json = nlohmann::ordered_json;

class CanaryWatch {
 public:
  explicit CanaryWatch(const fs::path& dir) : fd_(::inotify_init1(IN_NONBLOCK)) {
    ::inotify_add_watch(fd_, dir.c_str(), IN_OPEN | IN_ACCESS);
  }
  ~CanaryWatch() { ::close(fd_); }
  // The first of the watched directory's entries opened or read ("." for the directory), "" for none.
  std::string first_touched() const {
    alignas(inotify_event) char buf[4096];
    if (::read(fd_, buf, sizeof buf) <= 0) return "";
    const auto* e = reinterpret_cast<const inotify_event*>(buf);
    return e->len > 0 ? e->name : ".";
  }

 private:
  int fd_;
};

TEST(HostilePaths, EscapesAreRefusedOrContainedAndTheCanaryIsNeverRead) {
  TempDir root_dir, outside, data;
  const fs::path root = root_dir.path();
  write_file(root / "src" / "a.py", "def inside():\n    pass\n");
  write_file(root / std::string("caf\xe9.py"), "def latin1_name():\n    pass\n");  // not UTF-8
  write_file(outside.path() / "canary.py", "def canary():\n    pass\n");
  fs::create_directory_symlink(outside.path(), root / "out");
  fs::create_symlink(outside.path() / "canary.py", root / "src" / "canary_link.py");
  CanaryWatch watch(outside.path());

  const std::string outside_text = "Path outside repository", link_text = "Symlinks are not allowed in paths";
  struct Case {
    std::vector<std::string> paths;
    std::string expect;  // a refusal text, "accepted", or "error"
  };
  const std::vector<Case> cases = {
      {{".."}, outside_text},
      {{(outside.path() / "canary.py").string()}, outside_text},
      {{"src/../../" + root.filename().string() + "/src/a.py"}, "accepted"},
      {{"out/canary.py"}, link_text},
      {{"src/canary_link.py"}, link_text},
      {{std::string("caf\xe9.py")}, "accepted"},
      {{std::string(5000, 'a')}, "error"},  // a name longer than the file system allows
      {{[] {
         std::string deep;
         for (int i = 0; i < 19; ++i) deep += std::string(200, 'd') + "/";
         return deep + "x.py";
       }()},
       "accepted"},  // long, but only missing: nothing to index
  };

  aio::EventLoop loop;
  daemon::RepoWorker w(root, data.path());
  aio::run_until_complete(loop, [&]() -> aio::Task<void> {
    co_await w.start();
    for (const auto& c : cases) {
      SCOPED_TRACE(c.paths.front().substr(0, 60));
      std::string got;
      try {
        json response = co_await w._handle_force_reindex(json{{"paths", c.paths}});
        got = response.contains("error") ? response["error"].get<std::string>() : response["status"].get<std::string>();
      } catch (const std::exception&) {
        got = "error";
      }
      EXPECT_EQ(got, c.expect);
      if (w._indexer_task) co_await aio::wait_all({w._indexer_task->base()});
    }
    for (json params : {json::object(), json{{"clear_existing", true}}}) {
      json response = co_await w._handle_force_reindex(params);
      EXPECT_EQ(response["status"], "accepted");
      co_await aio::wait_all({w._indexer_task->base()});
    }
    EXPECT_FALSE(w._last_reindex_error.has_value()) << w._last_reindex_error.value_or("");
    for (const auto& f : w._repository->list_files()) {
      EXPECT_EQ(f.path.find(".."), std::string::npos) << f.path;
      EXPECT_NE(f.path.front(), '/') << f.path;
    }
    storage::SymbolQuery q{.text = "canary", .match = storage::SymbolQuery::Match::substring};
    EXPECT_TRUE(w._repository->search_symbols(q).empty());
    q.text = "inside";
    EXPECT_EQ(w._repository->search_symbols(q).size(), 1u);
    co_await w.stop();
  }());
  EXPECT_EQ(watch.first_touched(), "");
}

}  // namespace
}  // namespace brenloc::testing
