#include "brenloc/storage/name_catalog.h"

#include <algorithm>
#include <limits>

#include "brenloc/storage/letters_in_order.h"
#include "brenloc/storage/reader.h"
#include "brenloc/storage/sqlite_util.h"
#include "brenloc/storage/symbol_match.h"

namespace brenloc::storage::detail {

namespace {

constexpr auto kMax32 = std::numeric_limits<std::uint32_t>::max();

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Compares the first `folded.size()` bytes of `name`, folded, with `folded` (a shorter name compares
// as its own text).
int compare_start(std::string_view name, std::string_view folded) {
  const std::size_t n = std::min(name.size(), folded.size());
  for (std::size_t i = 0; i < n; ++i) {
    const auto a = static_cast<unsigned char>(lower(name[i])), b = static_cast<unsigned char>(folded[i]);
    if (a != b) return a < b ? -1 : 1;
  }
  return name.size() < folded.size() ? -1 : 0;
}

}  // namespace

std::shared_ptr<const NameCatalog> NameCatalog::load(sqlite3* c, const std::filesystem::path& file,
                                                     std::int64_t stamp) {
  auto out = std::make_shared<NameCatalog>();
  NameCatalog& k = *out;
  k.stamp_ = stamp;
  const char* op = "reading the names";
  const auto count = static_cast<std::size_t>(query_int(c, "SELECT count(*) FROM names", file, op));
  for (auto* v : {&k.kinds_, &k.languages_, &k.rows_, &k.first_row_, &k.last_row_}) v->reserve(count);
  k.chars_.reserve(count);
  k.offset_.reserve(count + 1);
  Statement names(c, "SELECT name, id, rows, kinds, languages, first_row, last_row FROM names", file, op);
  while (names.step(file, op)) {
    const std::string_view name = names.text_view(0);
    const auto entry = static_cast<std::uint32_t>(k.chars_.size());
    const std::int64_t id = names.integer(1);
    k.offset_.push_back(static_cast<std::uint32_t>(k.text_.size()));
    k.text_ += name;
    k.chars_.push_back(char_bits(name));
    k.rows_.push_back(static_cast<std::uint32_t>(std::min<std::int64_t>(names.integer(2), kMax32)));
    k.kinds_.push_back(static_cast<std::uint32_t>(names.integer(3)));
    k.languages_.push_back(static_cast<std::uint32_t>(names.integer(4)));
    // Ids past 32 bits widen the range to everything.
    const std::int64_t first = names.integer(5), last = names.integer(6);
    k.first_row_.push_back(first >= 0 && first <= kMax32 ? static_cast<std::uint32_t>(first) : 0);
    k.last_row_.push_back(last >= 0 && last <= kMax32 ? static_cast<std::uint32_t>(last) : kMax32);
    if (id > 0 && id < kMax32) {
      if (k.entry_of_id_.size() <= static_cast<std::size_t>(id)) k.entry_of_id_.resize(static_cast<std::size_t>(id) + 1, kMax32);
      k.entry_of_id_[static_cast<std::size_t>(id)] = entry;
    }
  }
  k.offset_.push_back(static_cast<std::uint32_t>(k.text_.size()));
  k.text_.append(LettersInOrder::kPadding, '\0');
  k.text_.shrink_to_fit();
  return out;
}

std::shared_ptr<const NameCatalog> NameCatalog::load_file(const std::filesystem::path& file) {
  const char* op = "reading the names";
  sqlite3* c = nullptr;
  const int rc = open_connection(file, SQLITE_OPEN_READONLY, &c);
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> closing(c, sqlite3_close_v2);
  if (rc != SQLITE_OK) throw sqlite_error(c, rc, file, op);
  run_script(c, "BEGIN", file, op);
  const std::int64_t stamp = query_int(c, "SELECT stamp FROM name_state", file, op);
  auto out = load(c, file, stamp);
  run_script(c, "COMMIT", file, op);
  return out;
}

std::pair<std::size_t, std::size_t> NameCatalog::starting_with(std::string_view folded) const {
  std::size_t lo = 0, hi = size();
  while (lo < hi) {  // the first name not below the text
    const std::size_t mid = lo + (hi - lo) / 2;
    if (compare_start(name(mid), folded) < 0) lo = mid + 1; else hi = mid;
  }
  std::size_t end = lo, top = size();
  while (end < top) {  // the first name past the names that start with it
    const std::size_t mid = end + (top - end) / 2;
    if (compare_start(name(mid), folded) <= 0) end = mid + 1; else top = mid;
  }
  return {lo, end};
}

std::size_t NameCatalog::by_id(std::int64_t id) const {
  if (id <= 0 || static_cast<std::size_t>(id) >= entry_of_id_.size()) return size();
  const std::uint32_t entry = entry_of_id_[static_cast<std::size_t>(id)];
  return entry == kMax32 ? size() : entry;
}

bool NameCatalogs::in_use() {
  std::lock_guard lock(mu_);
  return !recent_.empty();
}

void NameCatalogs::put(std::shared_ptr<const NameCatalog> catalog) {
  std::lock_guard lock(mu_);
  for (const auto& k : recent_) {
    if (k->stamp() == catalog->stamp()) return;
  }
  if (recent_.size() == 2) recent_.erase(recent_.begin());
  recent_.push_back(std::move(catalog));
}

std::shared_ptr<const NameCatalog> NameCatalogs::get(Reader& reader, const std::filesystem::path& file) {
  std::int64_t stamp = 0;
  {
    Statement& read = reader.statement("SELECT stamp FROM name_state", file);
    ResetOnExit done{read};
    if (read.step(file, "reading the names' stamp")) stamp = read.integer(0);
  }
  auto known = [&]() -> std::shared_ptr<const NameCatalog> {
    std::lock_guard lock(mu_);
    for (const auto& k : recent_) {
      if (k->stamp() == stamp) return k;
    }
    return nullptr;
  };
  if (auto k = known()) return k;
  std::lock_guard loading(load_mu_);
  if (auto k = known()) return k;  // loaded meanwhile
  auto k = NameCatalog::load(reader.db, file, stamp);
  std::lock_guard lock(mu_);
  if (recent_.size() == 2) recent_.erase(recent_.begin());
  recent_.push_back(k);
  return k;
}

}  // namespace brenloc::storage::detail
