// The uses that live stores keep apart in uses_fresh (one row per file, see schema.h), indexed in memory
// by name key, so that a query finds the fresh files using a name without reading every fresh row.
//
// A FreshUses never changes: it is the table as of one stamp (uses_state, changed by every write to
// uses_fresh). FreshUsesCache hands out the one of a read transaction's stamp, loading it when the stamp
// is new (a few milliseconds for a pass over a couple of thousand files), and none once the table is empty.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <span>
#include <utility>
#include <vector>

namespace brenloc::storage::detail {

struct Reader;

class FreshUses {
 public:
  // (name key, file id), ordered.
  using Entry = std::pair<std::int64_t, std::int64_t>;

  // Reads uses_fresh inside the caller's read transaction.
  static std::shared_ptr<const FreshUses> load(Reader& reader, const std::filesystem::path& file, std::int64_t stamp);

  std::int64_t stamp() const { return stamp_; }
  // Whether the file's uses are those of uses_fresh (its rows of uses stand for nothing any more).
  bool has(std::int64_t file_id) const;
  // The fresh files that use a name, in file order (their ids are `second`).
  std::span<const Entry> using_key(std::int64_t key) const;
  // Whether a fresh file codes all its definitions of a name (name_uses.h), whatever its rows of symbols.
  bool codes_every_definition(std::int64_t key, std::int64_t file_id) const;

 private:
  std::int64_t stamp_ = 0;
  std::vector<std::int64_t> files_;  // ordered
  std::vector<Entry> entries_;
  std::vector<Entry> every_definition_coded_;  // ordered
};

class FreshUsesCache {
 public:
  // The fresh uses as the reader's read transaction sees them; null when there are none.
  std::shared_ptr<const FreshUses> get(Reader& reader, const std::filesystem::path& file);

 private:
  std::mutex mu_;
  std::shared_ptr<const FreshUses> latest_;
};

// The fresh uses of a reader's transaction (through the cache of its repository); null when none.
std::shared_ptr<const FreshUses> fresh_uses(Reader& reader, const std::filesystem::path& file);

}  // namespace brenloc::storage::detail
