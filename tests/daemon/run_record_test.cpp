// The record of the last reindex: a run that its process never finished is told once, as interrupted, by
// the next worker; a finished one, or one already told, is left alone.
#include "brenloc/daemon/run_record.h"

#include <gtest/gtest.h>

#include "utils/tree_fixtures.h"

namespace brenloc::daemon {
namespace {

TEST(RunRecord, AnUnfinishedRunIsToldOnceAsInterrupted) {
  struct Case {
    const char* name;
    std::optional<std::string> state;  // of the record found; absent: no record
    bool clear_existing;
    const char* told;  // how the error ends, or nullptr when nothing is told
  };
  const std::vector<Case> cases = {
      {"no record", std::nullopt, false, nullptr},
      {"a rebuild that ran", "running", true, "the live index was kept as it was. Call force_reindex again"},
      {"a reindex of paths that ran", "running", false, "the files it had reached were updated. Call force_reindex again"},
      {"a run that ended", "ended", true, nullptr},
      {"a run already told", "interrupted", true, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    testing::TempDir dir;
    RunRecord started = run_started(c.clear_existing);
    if (c.state) {
      started.state = *c.state;
      write_run_record(dir.path(), started);
    }
    auto told = settle_interrupted_run(dir.path());
    ASSERT_EQ(told.has_value(), c.told != nullptr);
    auto after = read_run_record(dir.path());
    ASSERT_EQ(after.has_value(), c.state.has_value());
    if (!told) {
      if (after) EXPECT_EQ(after->state, *c.state);
      continue;
    }
    EXPECT_TRUE(told->starts_with("Reindex interrupted: the brenloc process that ran it (pid " +
                                  std::to_string(started.pid) + ", started " + started.started_at + ")"))
        << *told;
    EXPECT_TRUE(told->ends_with(c.told)) << *told;
    EXPECT_EQ(after->state, "interrupted");
    EXPECT_EQ(after->outcome, (json{{"type", "reindex_failed"}, {"error", *told}}));
    EXPECT_FALSE(settle_interrupted_run(dir.path()));  // told once
  }
}

}  // namespace
}  // namespace brenloc::daemon
