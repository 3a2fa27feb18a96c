#include "brenloc/storage/database.h"

#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brenloc/storage/errors.h"
#include "storage/storage_fixture.h"

namespace brenloc::storage {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;

// create_schema accepts a new file or one of its own version, any number of times (the rows survive), and
// refuses a newer one without touching it. close() may be repeated; a closed database refuses work.
TEST(Database, SchemaIsVersionedAndIdempotent) {
  for (int found : {0, kSchemaVersion, kSchemaVersion + 1}) {
    SCOPED_TRACE(found);
    testing::TempDir dir;
    auto db = std::make_shared<Database>(dir / "index.db");
    db->connect();
    EXPECT_EQ(testing::query_text(*db, "PRAGMA journal_mode") + testing::query_text(*db, "PRAGMA busy_timeout"), "wal5000");
    db->execute(fmt::format("PRAGMA user_version = {}", found));
    try {
      db->create_schema();
      Repository(db).store_files(testing::entries("a", 1, 1));
      db->close();
      db->close();
      EXPECT_THROW(db->execute("SELECT 1"), StorageError);
      db->connect();
      db->create_schema();
      EXPECT_EQ(testing::query_text(*db, "SELECT count(*) FROM symbols"), "1");
    } catch (const StorageError& e) {
      EXPECT_GT(found, kSchemaVersion);
      EXPECT_THAT(e.what(), AllOf(HasSubstr("index.db"), HasSubstr(fmt::format("schema version {} is newer", found))));
      EXPECT_EQ(testing::query_text(*db, "SELECT count(*) FROM sqlite_schema"), "0");
    }
    EXPECT_EQ(testing::query_text(*db, "PRAGMA user_version"), std::to_string(std::max(found, kSchemaVersion)));
  }
}

// Opened on one thread, written on a second, checkpointed on a third, closed on a fourth, as a rebuild
// hands its staging database around; each step's effect is seen by the next.
TEST(Database, HandedFromThreadToThread) {
  testing::TempDir dir;
  auto db = std::make_shared<Database>(dir / "staging.db");
  std::uintmax_t wal_size = 1;
  for (auto step : std::vector<std::function<void()>>{
           [&] { db->connect(), db->create_schema(); },
           [&] { Repository(db).store_files(testing::entries("t", 10, 10)); },
           [&] { db->execute("PRAGMA wal_checkpoint(TRUNCATE)"), wal_size = fs::file_size(dir / "staging.db-wal"); },
           [&] { db->close(); }}) {
    std::thread(step).join();
  }
  EXPECT_EQ(wal_size, 0u);  // the checkpoint's row was stepped through: the log was cut
  EXPECT_EQ(Repository(testing::open_database(dir / "staging.db")).counts().symbols, 100);
}

}  // namespace
}  // namespace brenloc::storage
