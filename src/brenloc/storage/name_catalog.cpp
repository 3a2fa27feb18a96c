#include "brenloc/storage/name_catalog.h"

#include <algorithm>
#include <limits>
#include <map>
#include <unordered_map>

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

// Whether `a` sorts before `b` ignoring ASCII case, as the names table orders them.
bool folded_below(std::string_view a, std::string_view b) {
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    const auto x = static_cast<unsigned char>(lower(a[i])), y = static_cast<unsigned char>(lower(b[i]));
    if (x != y) return x < y;
  }
  return a.size() < b.size();
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
    k.push(name, char_bits(name), names.integer(2), names.integer(3), names.integer(4), names.integer(5),
           names.integer(6));
    if (id > 0 && id < kMax32) {
      if (k.entry_of_id_.size() <= static_cast<std::size_t>(id)) k.entry_of_id_.resize(static_cast<std::size_t>(id) + 1, kMax32);
      k.entry_of_id_[static_cast<std::size_t>(id)] = entry;
    }
  }
  k.finish();
  return out;
}

void NameCatalog::push(std::string_view name, std::uint64_t chars, std::int64_t rows, std::int64_t kinds,
                       std::int64_t languages, std::int64_t first_row, std::int64_t last_row) {
  offset_.push_back(static_cast<std::uint32_t>(text_.size()));
  text_ += name;
  chars_.push_back(chars);
  rows_.push_back(static_cast<std::uint32_t>(std::clamp<std::int64_t>(rows, 0, kMax32)));
  kinds_.push_back(static_cast<std::uint32_t>(kinds));
  languages_.push_back(static_cast<std::uint32_t>(languages));
  // Ids past 32 bits widen the range to everything.
  first_row_.push_back(first_row >= 0 && first_row <= kMax32 ? static_cast<std::uint32_t>(first_row) : 0);
  last_row_.push_back(last_row >= 0 && last_row <= kMax32 ? static_cast<std::uint32_t>(last_row) : kMax32);
}

void NameCatalog::finish() {
  offset_.push_back(static_cast<std::uint32_t>(text_.size()));
  text_.append(LettersInOrder::kPadding, '\0');
  text_.shrink_to_fit();
}

std::shared_ptr<const NameCatalog> NameCatalog::changed(const NameChanges& changes) const {
  // The names that stay (changed or not) keep their order; those that come go in among them, after the
  // names that compare equal ignoring case (their ids are larger).
  std::unordered_map<std::size_t, const NameRow*> at_entry;
  std::vector<const NameRow*> added;
  for (const NameRow& n : changes.names) {
    if (n.id <= 0 || n.id >= kMax32) return nullptr;
    if (const std::size_t e = by_id(n.id); e < size()) {
      at_entry[e] = &n;
    } else if (n.rows > 0) {
      added.push_back(&n);
    }
  }
  std::sort(added.begin(), added.end(), [](const NameRow* a, const NameRow* b) {
    return folded_below(a->name, b->name) || (!folded_below(b->name, a->name) && a->id < b->id);
  });

  auto out = std::make_shared<NameCatalog>();
  NameCatalog& k = *out;
  k.stamp_ = changes.new_stamp;
  const std::size_t count = size() + added.size();
  for (auto* v : {&k.kinds_, &k.languages_, &k.rows_, &k.first_row_, &k.last_row_}) v->reserve(count);
  k.chars_.reserve(count);
  k.offset_.reserve(count + 1);
  k.text_.reserve(text_.size() + added.size() * 32);
  std::vector<std::uint32_t> new_entry(size(), kMax32);
  k.entry_of_id_.assign(entry_of_id_.size(), kMax32);
  std::size_t a = 0;
  auto add = [&](const NameRow& n) {
    if (static_cast<std::size_t>(n.id) >= k.entry_of_id_.size()) k.entry_of_id_.resize(static_cast<std::size_t>(n.id) + 1, kMax32);
    k.entry_of_id_[static_cast<std::size_t>(n.id)] = static_cast<std::uint32_t>(k.size());
    k.push(n.name, char_bits(n.name), n.rows, n.kinds, n.languages, n.first_row, n.last_row);
  };
  for (std::size_t i = 0; i < size(); ++i) {
    while (a < added.size() && folded_below(added[a]->name, name(i))) add(*added[a++]);
    const auto it = at_entry.find(i);
    if (it == at_entry.end()) {
      new_entry[i] = static_cast<std::uint32_t>(k.size());
      k.push(name(i), chars_[i], rows_[i], kinds_[i], languages_[i], first_row_[i], last_row_[i]);
    } else if (it->second->rows > 0) {
      new_entry[i] = static_cast<std::uint32_t>(k.size());
      const NameRow& n = *it->second;
      k.push(name(i), chars_[i], n.rows, n.kinds, n.languages, n.first_row, n.last_row);
    }
  }
  while (a < added.size()) add(*added[a++]);
  k.finish();
  // The ids of the names that stayed lead to their new entries.
  for (std::size_t id = 0; id < entry_of_id_.size(); ++id) {
    if (const std::uint32_t e = entry_of_id_[id]; e != kMax32) k.entry_of_id_[id] = new_entry[e];
  }
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
  return latest_ != nullptr;
}

std::shared_ptr<const NameCatalog> NameCatalogs::known(std::int64_t stamp) const {
  if (latest_ && latest_->stamp() == stamp) return latest_;
  auto earlier = earlier_.lock();
  return earlier && earlier->stamp() == stamp ? earlier : nullptr;
}

std::shared_ptr<const NameCatalog> NameCatalogs::make_latest(std::shared_ptr<const NameCatalog> catalog) {
  std::shared_ptr<const NameCatalog> displaced = std::exchange(latest_, std::move(catalog));
  // The one before stays reachable for as long as a search holds it, and no longer.
  earlier_ = displaced;
  return displaced;
}

std::shared_ptr<const NameCatalog> NameCatalogs::put(std::shared_ptr<const NameCatalog> catalog) {
  std::lock_guard lock(mu_);
  if (known(catalog->stamp())) return nullptr;
  return make_latest(std::move(catalog));
}

void NameCatalogs::follow(const NameChanges& changes) {
  if (changes.names.empty() || changes.new_stamp == changes.old_stamp) return;
  std::lock_guard lock(mu_);
  if (!latest_) return;
  // Enough for the writes between two searches, bar a pass over a whole tree (the search then reads the
  // names instead).
  constexpr std::size_t kKept = 256, kKeptNames = 20'000;
  std::size_t names = changes.names.size();
  for (const auto& c : changes_) names += c.names.size();
  while (!changes_.empty() && (changes_.size() >= kKept || names > kKeptNames)) {
    names -= changes_.front().names.size();
    changes_.erase(changes_.begin());
  }
  if (names <= kKeptNames) changes_.push_back(changes);
}

std::shared_ptr<const NameCatalog> NameCatalogs::from_changes(std::int64_t stamp) {
  std::shared_ptr<const NameCatalog> base;
  std::vector<const NameChanges*> path;  // newest first
  std::map<std::int64_t, NameRow> names;   // by id, the latest change of each
  {
    std::lock_guard lock(mu_);
    for (std::int64_t at = stamp; !base;) {
      base = known(at);
      if (base) break;
      const auto step = std::find_if(changes_.rbegin(), changes_.rend(), [&](const NameChanges& c) { return c.new_stamp == at; });
      if (step == changes_.rend() || path.size() == changes_.size()) return nullptr;
      path.push_back(&*step);
      at = step->old_stamp;
    }
    if (path.empty()) return base;
    for (auto it = path.rbegin(); it != path.rend(); ++it) {
      for (const NameRow& n : (*it)->names) names[n.id] = n;
    }
  }
  NameChanges all{base->stamp(), stamp, {}};
  all.names.reserve(names.size());
  for (auto& [id, n] : names) all.names.push_back(std::move(n));
  return base->changed(all);
}

std::shared_ptr<const NameCatalog> NameCatalogs::get(Reader& reader, const std::filesystem::path& file) {
  std::int64_t stamp = 0;
  {
    Statement& read = reader.statement("SELECT stamp FROM name_state", file);
    ResetOnExit done{read};
    if (read.step(file, "reading the names' stamp")) stamp = read.integer(0);
  }
  auto in_memory = [&] {
    std::lock_guard lock(mu_);
    return known(stamp);
  };
  if (auto k = in_memory()) return k;
  std::lock_guard loading(load_mu_);
  if (auto k = in_memory()) return k;  // loaded meanwhile
  auto k = from_changes(stamp);
  if (!k) k = NameCatalog::load(reader.db, file, stamp);
  std::shared_ptr<const NameCatalog> displaced;  // freed, when nothing else holds it, after the lock
  {
    std::lock_guard lock(mu_);
    displaced = make_latest(k);
  }
  return k;
}

}  // namespace brenloc::storage::detail
