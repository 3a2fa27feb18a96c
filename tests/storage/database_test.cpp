#include "brenloc/storage/database.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brenloc/storage/errors.h"
#include "storage/storage_fixture.h"

namespace brenloc::storage {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

// create_schema accepts a new file or one of its own version, any number of times (the rows survive), and
// refuses a newer one without touching it. close() may be repeated; a closed database refuses work.
TEST(Database, SchemaIsVersionedAndIdempotent) {
  for (int found : {0, kSchemaVersion, kSchemaVersion + 1}) {
    SCOPED_TRACE(found);
    testing::TempDir dir;
    auto db = std::make_shared<Database>(dir.path() / "index.db");
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

}  // namespace
}  // namespace brenloc::storage
