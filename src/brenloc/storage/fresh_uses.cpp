#include "brenloc/storage/fresh_uses.h"

#include <algorithm>
#include <cstdint>

#include "brenloc/storage/name_uses.h"
#include "brenloc/storage/reader.h"

namespace brenloc::storage::detail {

std::shared_ptr<const FreshUses> FreshUses::load(Reader& r, const std::filesystem::path& file, std::int64_t stamp) {
  auto out = std::make_shared<FreshUses>();
  out->stamp_ = stamp;
  Statement& stmt = r.statement("SELECT file_id, uses FROM uses_fresh ORDER BY file_id", file);
  ResetOnExit done{stmt};
  while (stmt.step(file, "reading the fresh uses")) {
    const std::int64_t id = stmt.integer(0);
    out->files_.push_back(id);
    const void* blob = sqlite3_column_blob(stmt.get(), 1);
    const std::string_view packed(static_cast<const char*>(blob), static_cast<std::size_t>(sqlite3_column_bytes(stmt.get(), 1)));
    for_each_keyed_uses(packed, [&](std::int64_t key, std::string_view spots) {
      if (every_definition_coded(spots)) out->every_definition_coded_.emplace_back(key, id);
      if (spots.size() > (every_definition_coded(spots) ? 1u : 0u)) out->entries_.emplace_back(key, id);  // some use
    });
  }
  std::sort(out->entries_.begin(), out->entries_.end());
  std::sort(out->every_definition_coded_.begin(), out->every_definition_coded_.end());
  out->entries_.shrink_to_fit();
  return out;
}

bool FreshUses::has(std::int64_t file_id) const { return std::binary_search(files_.begin(), files_.end(), file_id); }

std::span<const FreshUses::Entry> FreshUses::using_key(std::int64_t key) const {
  const auto first = std::lower_bound(entries_.begin(), entries_.end(), Entry{key, 0});
  const auto last = std::upper_bound(first, entries_.end(), Entry{key, INT64_MAX});
  return {first, last};
}

bool FreshUses::codes_every_definition(std::int64_t key, std::int64_t file_id) const {
  return std::binary_search(every_definition_coded_.begin(), every_definition_coded_.end(), Entry{key, file_id});
}

std::shared_ptr<const FreshUses> FreshUsesCache::get(Reader& r, const std::filesystem::path& file) {
  std::int64_t stamp = 0;
  bool any = false;
  {
    Statement& read = r.statement("SELECT stamp, EXISTS (SELECT 1 FROM uses_fresh) FROM uses_state", file);
    ResetOnExit done{read};
    if (read.step(file, "reading the fresh uses' stamp")) {
      stamp = read.integer(0);
      any = read.integer(1) != 0;
    }
  }
  std::lock_guard lock(mu_);
  if (!any) {
    latest_.reset();  // nothing kept while there is nothing to keep
    return nullptr;
  }
  if (!latest_ || latest_->stamp() != stamp) latest_ = FreshUses::load(r, file, stamp);
  return latest_;
}

std::shared_ptr<const FreshUses> fresh_uses(Reader& r, const std::filesystem::path& file) {
  return r.fresh_uses ? r.fresh_uses->get(r, file) : nullptr;
}

}  // namespace brenloc::storage::detail
