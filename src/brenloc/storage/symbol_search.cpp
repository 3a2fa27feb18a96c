#include "brenloc/storage/symbol_search.h"

#include <algorithm>
#include <array>
#include <functional>
#include <limits>
#include <optional>
#include <unordered_map>
#include <vector>

#include <fmt/format.h>

#include "brenloc/storage/letters_in_order.h"
#include "brenloc/storage/name_table.h"
#include "brenloc/storage/path_parts.h"
#include "brenloc/storage/row_ranges.h"
#include "brenloc/storage/search_results.h"
#include "brenloc/storage/symbol_match.h"
#include "brenloc/storage/use_counts.h"
#include "brenloc/symbol_kinds.h"

namespace brenloc::storage::detail {

namespace {

constexpr const char* kRowColumns =
    "s.id, s.name, s.kind, s.line, s.col, s.end_line, s.scope, s.line - s.lead, s.file_id, s.rank";
// A path filter whose files hold at most this many rows is answered by reading them all.
constexpr std::int64_t kFewRows = 3000;
constexpr const char* kOperation = "searching symbols";
// A search with a qualifier keeps at most this many rows of the names that match, for its repeat
// without the qualifier (about a megabyte).
constexpr std::size_t kKeptRows = 8192;

bool has_glob(std::string_view text) { return text.find_first_of("*?[") != std::string_view::npos; }

std::size_t utf8_length(std::string_view text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

// The best kind class among the kinds of a summary.
int best_class(std::uint32_t kinds) {
  static const std::array<int, 32> by_bit = [] {
    std::array<int, 32> out{};
    out.fill(1);
    for (std::size_t i = 0; i < kSymbolKinds.size(); ++i) out[i] = kind_class(kSymbolKinds[i]);
    return out;
  }();
  int best = kind_class("macro");  // the worst class
  for (std::uint32_t k = kinds; k != 0; k &= k - 1) best = std::min(best, by_bit[static_cast<std::size_t>(__builtin_ctz(k))]);
  return best;
}

// The kind, language and path filters: the first two in SQL over `s` (symbols) and `f` (files, joined
// only for the language), with their parameters, and all three as bits and row ranges for the names'
// summaries. (A scope is checked here, row by row, through the facts of the file, which a search reads
// once per file; a LIKE with a bound pattern would make SQLite prepare the statement again at every run.)
struct Filters {
  std::optional<std::string> kind, language;
  std::uint32_t kind_bit = 0, language_bit = 0;  // 0: no such filter
  bool by_path = false;
  RowRanges rows;  // of the files the path filter selects

  std::string join() const { return language ? " CROSS JOIN files f ON f.id = s.file_id" : ""; }
  std::string sql() const {
    std::string out;
    if (kind) out += " AND s.kind = :kind";
    if (language) out += " AND f.language = :language";
    return out;
  }
  void bind(Statement& stmt) const {
    auto set = [&](const char* name, const std::optional<std::string>& value) {
      if (int i = sqlite3_bind_parameter_index(stmt.get(), name); i > 0 && value) stmt.bind(i, *value);
    };
    set(":kind", kind);
    set(":language", language);
  }
};

struct FileFacts {
  std::string path, language;
};

// A symbol row as a rows statement gives it (kRowColumns), its texts borrowed.
struct RowView {
  std::int64_t id, file_id;
  std::string_view name, kind, scope;
  int line, column, end_line, start_line, rank;
};

RowView row_of(const Statement& s) {
  auto number = [&](int col) { return static_cast<int>(s.integer(col)); };
  return {s.integer(0), s.integer(8), s.text_view(1), s.text_view(2), s.text_view(6),
          number(3),    number(4),    number(5),      number(7),      number(9)};
}

// A row of a name that matched, through the filters, as a search with a qualifier read it: what the
// repeat without the qualifier ranks instead of reading the same names' rows again.
struct MatchedRow {
  std::int64_t id, file_id;
  std::string name, kind, scope;
  int line, column, end_line, start_line, rank;
  Tier tier;
  int kind_class;

  RowView view() const { return {id, file_id, name, kind, scope, line, column, end_line, start_line, rank}; }
};

// What a search with a qualifier read of the names that match, for its repeat without the qualifier.
struct MatchedRows {
  std::vector<MatchedRow> rows;
  std::unordered_map<std::int64_t, FileFacts> files;  // of the rows it looked at
};

// The symbol ids of the files that a path filter (a directory, a file or a glob) selects.
RowRanges rows_under(Reader& r, const std::filesystem::path& file, const std::string& path) {
  std::string where;
  std::vector<std::string> values;
  if (has_glob(path)) {
    std::string glob = path;
    while (glob.starts_with("./")) glob.erase(0, 2);
    const std::string start = glob.substr(0, glob.find_first_of("*?["));
    where = "path GLOB ?1";
    values.push_back(glob);
    if (!start.empty()) {
      where += " AND path >= ?2";
      values.push_back(start);
      if (const std::string hi = prefix_upper_bound(start); !hi.empty()) {
        where += " AND path < ?3";
        values.push_back(hi);
      }
    }
  } else {
    const std::string dir = normalise_path_prefix(path);
    where = dir.empty() ? "1" : "(path = ?1 OR (path >= ?2 AND path < ?3))";
    if (!dir.empty()) values = {dir, dir + "/", dir + "0"};  // '0' follows '/'
  }
  Statement& stmt = r.statement(
      "SELECT first_symbol, first_symbol + symbol_count FROM files WHERE " + where + " ORDER BY first_symbol", file);
  ResetOnExit done{stmt};
  for (std::size_t i = 0; i < values.size(); ++i) stmt.bind(static_cast<int>(i + 1), values[i]);
  RowRanges out;
  while (stmt.step(file, kOperation)) out.add(stmt.integer(0), stmt.integer(1));
  return out;
}

// A name of the catalog that matches, with what ranks it before its rows are read. An unsettled one's
// tier is `words` or worse (`fuzzy`), and its rank the better of the two until it is settled.
struct Candidate {
  std::uint32_t entry;
  Tier tier;
  int rank, kind_class;
  std::size_t size;
  bool settled = true;
  auto key() const { return std::tuple(rank, kind_class, size); }
};

// Which names a stage lists: names by their start, names holding the text (the trigram index), names
// holding its letters (every name), or a glob's names.
enum class Stage { start, inside, loose, glob };

class Search {
 public:
  // `hint`: a qualifier that nothing lives under, dropped from the query: paths that hold it rank first.
  // `keep`: with a qualifier, the rows of the names that match are kept for matched_rows().
  Search(Reader& r, const std::filesystem::path& file, const SymbolQuery& q, NameCatalogs& catalogs,
         std::string hint = {}, bool keep = false)
      : r_(r),
        file_(file),
        q_(q),
        pattern_(parse_pattern(q.text, q.match)),
        hint_(std::move(hint)),
        keeping_(keep && hint_.empty() && !pattern_.scope.empty() && !pattern_.text.empty()),
        catalogs_(catalogs),
        results_(q.limit, std::max<std::int64_t>(q.limit, kCountCap),
                 [this](const SymbolHit& h) { return referrers(h); }) {}

  SymbolSearch run() {
    set_filters();
    if (!name_index_present()) {
      read_rows_of(filters_.by_path ? &filters_.rows : nullptr);
    } else if (filters_.by_path && filters_.rows.rows() <= kFewRows) {
      read_rows_of(&filters_.rows);
    } else {
      catalog_ = catalogs_.get(r_, file_);
      by_name();
    }
    return std::move(results_).finish();
  }

  // After run(), when the query has a qualifier: every row that the names that match hold (through the
  // filters), when it read them all and they were few enough to keep.
  std::optional<MatchedRows> matched_rows() && {
    if (!keeping_ || !kept_) return std::nullopt;
    return MatchedRows{std::move(*kept_), std::move(files_)};
  }

  // The answer that run() gives, from `matched`: every row of the names that match, through the
  // filters (as matched_rows() gives them: the tier of a name does not depend on the qualifier).
  SymbolSearch rank(MatchedRows matched) {
    files_ = std::move(matched.files);
    const std::vector<MatchedRow>& rows = matched.rows;
    // Each row by the best place it could take (its importance were its path to hold the hint), best
    // first: once the page cannot take one, it takes none after it.
    auto best = [&](const MatchedRow& m) {
      return rank_head(tier_rank(m.tier, q_.match), importance(0, m.rank), m.kind_class, m.name.size());
    };
    std::vector<std::pair<decltype(rank_head(0, 0, 0, 0)), std::uint32_t>> order;
    order.reserve(rows.size());
    for (std::size_t i = 0; i < rows.size(); ++i) order.emplace_back(best(rows[i]), static_cast<std::uint32_t>(i));
    std::sort(order.begin(), order.end());
    results_.count(std::ssize(rows));
    for (const auto& [head, i] : order) {
      const MatchedRow& m = rows[i];
      if (!results_.page_takes(tier_rank(m.tier, q_.match), importance(0, m.rank), m.kind_class, m.name.size())) break;
      take_row(m.view(), m.tier, ~std::uint32_t{0}, true, false);
    }
    return std::move(results_).finish();
  }

 private:
  void set_filters() {
    Filters& f = filters_;
    f.kind = q_.kind;
    f.language = q_.language;
    if (q_.kind) f.kind_bit = kind_bit(*q_.kind);
    if (q_.language) f.language_bit = language_bit(*q_.language);
    if (q_.path_prefix && !normalise_path_prefix(*q_.path_prefix).empty()) {
      f.by_path = true;
      f.rows = rows_under(r_, file_, *q_.path_prefix);
    }
  }

  bool name_index_present() {
    Statement& probe = r_.statement(
        "SELECT count(*) FROM sqlite_master WHERE type = 'index' AND name = 'symbols_by_name'", file_);
    ResetOnExit done{probe};
    probe.step(file_, kOperation);
    return probe.integer(0) != 0;
  }

  // The path and language of a file, read once per search.
  const FileFacts& file_facts(std::int64_t id) {
    auto [at, fresh] = files_.try_emplace(id);
    if (fresh) {
      Statement& stmt = r_.statement("SELECT path, language FROM files WHERE id = ?1", file_);
      ResetOnExit done{stmt};
      stmt.bind(1, id);
      if (stmt.step(file_, kOperation)) at->second = FileFacts{stmt.text(0), stmt.text(1)};
    }
    return at->second;
  }

  // Whether a qualifier is checked against the modules of the files of a name's rows, of these languages
  // (its summary's bits).
  bool need_files(std::uint32_t languages) const {
    return !hint_.empty() || (!pattern_.scope.empty() && (languages & module_languages_) != 0);
  }

  // The qualifier distance of a row of file `file_id` and scope `scope` (with a hint, 1 when its path
  // does not hold it).
  int distance_of(std::int64_t file_id, std::string_view scope, bool need_file) {
    if (!need_file) return qualifier_distance(pattern_, {{}, {}, scope});
    const FileFacts& f = file_facts(file_id);
    if (!hint_.empty()) return path_holds_qualifier(hint_, f.path) ? 0 : 1;
    return qualifier_distance(pattern_, {f.path, f.language, scope});
  }

  // Takes a row whose name matched in `tier`, of a name whose rows are of `languages`: counted when
  // `count`, and offered to the page when `offer`.
  void take_row(const RowView& row, Tier tier, std::uint32_t languages, bool offer, bool count = true) {
    if (filters_.by_path && !filters_.rows.holds(row.id)) return;
    keep(row, tier);
    const int importance_of = importance(distance_of(row.file_id, row.scope, need_files(languages)), row.rank);
    if (importance_of < 0) return;
    kept_.reset();  // a match: the query is not repeated
    if (count) results_.count(1);
    const int rank = tier_rank(tier, q_.match);
    if (!offer || !results_.page_takes(rank, importance_of, kind_class(row.kind), row.name.size())) return;
    const FileFacts& f = file_facts(row.file_id);
    results_.offer(SymbolHit{std::string(row.name), std::string(row.kind), f.path, row.line, row.column, row.end_line,
                             std::string(row.scope), f.language, rank, row.start_line, importance_of});
  }

  // Keeps a row for matched_rows(), while they are few enough.
  void keep(const RowView& row, Tier tier) {
    if (!keeping_ || !kept_) return;
    if (kept_->size() == kKeptRows) {
      kept_.reset();
      return;
    }
    kept_->push_back(MatchedRow{row.id, row.file_id, std::string(row.name), std::string(row.kind),
                                std::string(row.scope), row.line, row.column, row.end_line, row.start_line, row.rank,
                                tier, kind_class(row.kind)});
  }
  // Notes that some rows of the names that match were not read (not kept).
  void skipped_rows() { kept_.reset(); }

  // How many files refer to where a hit lives (referred_scope), counted once per search.
  std::int64_t referrers(const SymbolHit& h) {
    const std::string_view name = referred_scope(h.scope);
    auto [at, fresh] = name.empty() ? importers_.try_emplace(h.path) : scope_users_.try_emplace(std::string(name));
    if (fresh) at->second = name.empty() ? files_importing(r_, file_, h.path, h.language) : files_using(r_, file_, name);
    return at->second;
  }

  // --- by file: every row of the ranges (or of the whole index), each checked here.
  void read_rows_of(const RowRanges* ranges) {
    Statement& stmt = r_.statement(fmt::format("SELECT {} FROM symbols s{} WHERE s.id >= :lo AND s.id < :hi{}",
                                               kRowColumns, filters_.join(), filters_.sql()),
                                   file_);
    const std::vector<std::pair<std::int64_t, std::int64_t>> all = {{0, std::numeric_limits<std::int64_t>::max()}};
    for (const auto& [lo, hi] : ranges ? ranges->ranges() : all) {
      ResetOnExit done{stmt};
      stmt.bind(sqlite3_bind_parameter_index(stmt.get(), ":lo"), lo);
      stmt.bind(sqlite3_bind_parameter_index(stmt.get(), ":hi"), hi);
      filters_.bind(stmt);
      while (stmt.step(file_, kOperation)) {
        const Tier tier = name_tier(pattern_, stmt.text_view(1));
        if (tier != Tier::none) take_row(row_of(stmt), tier, ~std::uint32_t{0}, true);
      }
    }
  }

  // --- by name: the stages, best tiers first.
  void by_name() {
    using M = SymbolQuery::Match;
    std::vector<Stage> stages;
    if (pattern_.glob) {
      stages = {Stage::glob};
    } else if (q_.match == M::exact || q_.match == M::prefix) {
      stages = {Stage::start};
    } else if (q_.match == M::substring) {
      stages = {Stage::start, Stage::inside};
    } else if (loose_takes_inner()) {
      stages = {Stage::start, Stage::loose};
    } else {
      stages = {Stage::start, Stage::inside, Stage::loose};
    }
    for (Stage s : stages) {
      if (!results_.page_takes(best_rank(s), 0, 0, 0) && !results_.counting()) return skipped_rows();
      run_stage(s);
    }
  }

  // Whether the pass over every name also takes the names that hold the text: in fuzzy mode, where words
  // rank among the inner matches; and where a filter or a scope leaves so few matches that the count
  // goes on to that pass anyway (it looks at every name for less than the trigram index's lookups of
  // names that the filter then turns away).
  bool loose_takes_inner() const {
    if (q_.match == SymbolQuery::Match::fuzzy) return true;
    return q_.match == SymbolQuery::Match::automatic &&
           (q_.kind || q_.language || filters_.by_path || !pattern_.scope.empty());
  }

  int best_rank(Stage s) const {
    switch (s) {
      case Stage::start:
      case Stage::glob: return 0;
      case Stage::inside: return tier_rank(Tier::boundary, q_.match);
      case Stage::loose:
        return loose_takes_inner() ? tier_rank(Tier::boundary, q_.match) : tier_rank(Tier::initials, q_.match);
    }
    return 0;
  }

  bool stage_takes(Stage s, Tier t) const {
    switch (s) {
      case Stage::start: return t <= Tier::prefix;
      case Stage::glob: return t != Tier::none;
      case Stage::inside: return t == Tier::boundary || t == Tier::substring;
      case Stage::loose: return loose_takes_inner() ? t > Tier::prefix && t != Tier::none
                                                     : t > Tier::substring && t != Tier::none;
    }
    return false;
  }

  void run_stage(Stage s) {
    if (!results_.page_takes(best_rank(s), 0, 0, 0)) {
      // Only the count is left: names are counted as they come, until it passes the cap.
      list_names(s, [&](const Candidate& c) {
        count_name(c);
        return results_.counting();
      });
      return;
    }
    std::vector<Candidate> found;
    list_names(s, [&](const Candidate& c) {
      found.push_back(c);
      return true;
    });
    // The names in the order of their best possible hit; rows are read while one could make the page.
    auto later = [](const Candidate& a, const Candidate& b) { return b.key() < a.key(); };
    std::make_heap(found.begin(), found.end(), later);
    auto end = found.end();
    while (end != found.begin()) {
      const Candidate& best = found.front();
      if (!results_.page_takes(best.rank, 0, best.kind_class, best.size)) break;
      std::pop_heap(found.begin(), end, later);
      Candidate& c = *(end - 1);
      if (!c.settled) {
        // Its place was the best it could have: settled, it goes back among the others.
        c.settled = true;
        c.tier = words_or_fuzzy(pattern_, catalog_->name(c.entry));
        c.rank = tier_rank(c.tier, q_.match);
        std::push_heap(found.begin(), end, later);
        continue;
      }
      --end;
      read_rows(c, true);
    }
    for (auto it = found.begin(); it != end && results_.counting(); ++it) count_name(*it);
  }

  // Calls `take` with each name of the stage that the filters' summaries let through, until it says no.
  void list_names(Stage s, const std::function<bool(const Candidate&)>& take) {
    const NameCatalog& k = *catalog_;
    // Each name that the summaries let through, and the stage's tiers take.
    // (The pass over every name leaves `words` unsettled: most of its names never come near the page.)
    auto consider_passed = [&](std::size_t i) {
      const Tier tier = s == Stage::loose ? name_tier_up_to_words(pattern_, k.name(i)) : name_tier(pattern_, k.name(i));
      if (!stage_takes(s, tier)) return true;
      const std::uint32_t kinds = filters_.kind_bit ? filters_.kind_bit : k.kinds(i);
      return take(Candidate{static_cast<std::uint32_t>(i), tier, tier_rank(tier, q_.match), best_class(kinds),
                            k.name(i).size(), tier != Tier::words});
    };
    auto consider = [&](std::size_t i) {
      if (!passes(i)) return true;
      return consider_passed(i);
    };
    const std::string& text = pattern_.folded;
    if (s == Stage::start || (s == Stage::glob && text.find_first_of("*?") > 0)) {
      const auto [first, last] = k.starting_with(s == Stage::glob ? text.substr(0, text.find_first_of("*?")) : text);
      for (std::size_t i = first; i < last; ++i) {
        if (!consider(i)) return;
      }
    } else if (s == Stage::inside && utf8_length(text) >= 3) {
      Statement& grams = r_.statement("SELECT rowid FROM name_grams WHERE name_grams MATCH ?1", file_);
      ResetOnExit done{grams};
      grams.bind(1, trigram_match(text));
      while (grams.step(file_, kOperation)) {
        const std::size_t i = k.by_id(grams.integer(0));
        if (i < k.size() && !consider(i)) return;
      }
    } else {
      std::string letters = text;
      std::erase_if(letters, [](char c) { return c == '*' || c == '?'; });
      const std::uint64_t needed = char_bits(letters);
      // Every name a non-glob text matches holds its letters in order: a quick test before the tier's.
      // A block of names at a time: those whose characters pass (a pass without branches over a small
      // array: most names fail), of those the ones whose summaries pass; their text, spread over the
      // whole catalog, is then fetched ahead of the test so that the misses overlap.
      const bool in_order = !pattern_.glob;
      const LettersInOrder holds(text);
      constexpr std::size_t kBlock = 4096, kAhead = 16;
      std::array<std::uint32_t, kBlock> maybe;
      for (std::size_t from = 0; from < k.size(); from += kBlock) {
        const std::size_t to = std::min(k.size(), from + kBlock);
        std::size_t n = 0;
        for (std::size_t i = from; i < to; ++i) {
          maybe[n] = static_cast<std::uint32_t>(i);
          n += (k.chars(i) & needed) == needed;
        }
        n = static_cast<std::size_t>(
            std::remove_if(maybe.begin(), maybe.begin() + n, [&](std::uint32_t i) { return !passes(i); }) - maybe.begin());
        for (std::size_t j = 0; j < n; ++j) {
          if (j + kAhead < n) __builtin_prefetch(k.name(maybe[j + kAhead]).data());
          if (in_order && !holds(k.name(maybe[j]))) continue;
          if (!consider_passed(maybe[j])) return;
        }
      }
    }
  }

  // Whether a name's summary allows rows that pass the kind, language and path filters.
  bool passes(std::size_t i) const {
    const NameCatalog& k = *catalog_;
    if (filters_.kind_bit && !(k.kinds(i) & filters_.kind_bit)) return false;
    if (filters_.language_bit && !(k.languages(i) & filters_.language_bit)) return false;
    return !filters_.by_path || filters_.rows.meets(k.first_row(i), k.last_row(i));
  }

  // Whether a name's summary says that every row of it passes the kind and language filters and the
  // qualifier (there is none).
  bool every_row_passes(std::size_t i) const {
    const NameCatalog& k = *catalog_;
    return pattern_.scope.empty() && (!filters_.kind_bit || k.kinds(i) == filters_.kind_bit) &&
           (!filters_.language_bit || k.languages(i) == filters_.language_bit);
  }

  // Counts a name's matching rows: from its summary when that says every row passes the filters, else
  // from its rows.
  void count_name(const Candidate& c) {
    skipped_rows();
    const NameCatalog& k = *catalog_;
    const std::size_t i = c.entry;
    if (!every_row_passes(i)) {
      count_rows(c);
    } else if (!filters_.by_path || filters_.rows.holds_all(k.first_row(i), k.last_row(i))) {
      results_.count(k.rows(i));
    } else {
      count_ids(c);
    }
  }

  // The rows of a name (exact case), through the name index. An exact name's rows come best first (the
  // index holds their place rank; without a qualifier that is their importance): when the summary gives
  // their count, reading stops at the first that the page cannot take.
  void read_rows(const Candidate& c, bool offer) {
    const NameCatalog& k = *catalog_;
    const bool best_first = offer && c.tier <= Tier::exact && hint_.empty() && every_row_passes(c.entry) &&
                            (!filters_.by_path || filters_.rows.holds_all(k.first_row(c.entry), k.last_row(c.entry)));
    Statement& stmt = r_.statement(
        fmt::format("SELECT {} FROM symbols s INDEXED BY symbols_by_name{} "
                    "WHERE s.name = :name COLLATE NOCASE AND s.name = :name{}{}",
                    kRowColumns, filters_.join(), filters_.sql(), best_first ? " ORDER BY s.rank" : ""),
        file_);
    ResetOnExit done{stmt};
    stmt.bind_static(sqlite3_bind_parameter_index(stmt.get(), ":name"), k.name(c.entry));
    filters_.bind(stmt);
    if (best_first) results_.count(k.rows(c.entry));
    while (stmt.step(file_, kOperation)) {
      if (best_first && !results_.page_takes(c.rank, static_cast<int>(stmt.integer(9)), 0, c.size)) {
        skipped_rows();
        break;
      }
      take_row(row_of(stmt), c.tier, k.languages(c.entry), offer, !best_first);
    }
  }

  // Counts the rows of a name that pass the filters, reading only what they look at.
  void count_rows(const Candidate& c) {
    Statement& stmt = r_.statement(
        fmt::format("SELECT s.id, s.scope, s.file_id FROM symbols s INDEXED BY symbols_by_name{} "
                    "WHERE s.name = :name COLLATE NOCASE AND s.name = :name{}",
                    filters_.join(), filters_.sql()),
        file_);
    ResetOnExit done{stmt};
    stmt.bind_static(sqlite3_bind_parameter_index(stmt.get(), ":name"), catalog_->name(c.entry));
    filters_.bind(stmt);
    const bool need_file = need_files(catalog_->languages(c.entry));
    std::int64_t n = 0;
    while (stmt.step(file_, kOperation)) {
      n += (!filters_.by_path || filters_.rows.holds(stmt.integer(0))) &&
           distance_of(stmt.integer(2), stmt.text_view(1), need_file) >= 0;
    }
    results_.count(n);
  }

  // Counts the rows of a name that lie under the path filter, from the name index alone.
  void count_ids(const Candidate& c) {
    Statement& stmt = r_.statement(
        "SELECT id FROM symbols INDEXED BY symbols_by_name WHERE name = ?1 COLLATE NOCASE AND name = ?1", file_);
    ResetOnExit done{stmt};
    stmt.bind_static(1, catalog_->name(c.entry));
    std::int64_t n = 0;
    while (stmt.step(file_, kOperation)) n += filters_.rows.holds(stmt.integer(0));
    results_.count(n);
  }

  Reader& r_;
  const std::filesystem::path& file_;
  const SymbolQuery& q_;
  const NamePattern pattern_;
  const std::string hint_;
  const bool keeping_;  // rows for matched_rows()
  std::optional<std::vector<MatchedRow>> kept_ = std::vector<MatchedRow>{};  // none once some were not
  NameCatalogs& catalogs_;
  std::shared_ptr<const NameCatalog> catalog_;
  Filters filters_;
  SearchResults results_;
  std::unordered_map<std::int64_t, FileFacts> files_;
  std::unordered_map<std::string, std::int64_t> scope_users_, importers_;  // by scope name, by path
  const std::uint32_t module_languages_ = [] {
    std::uint32_t out = 0;
    for (std::string_view l : kLanguages) out |= makes_modules(l) ? language_bit(l) : 0;
    return out;
  }();
};

}  // namespace

std::string normalise_path_prefix(std::string p) {
  while (p.starts_with("./")) p.erase(0, 2);
  while (!p.empty() && p.back() == '/') p.pop_back();
  if (p == ".") p.clear();
  return p;
}

std::string prefix_upper_bound(std::string prefix) {
  while (!prefix.empty() && static_cast<unsigned char>(prefix.back()) == 0xFF) prefix.pop_back();
  if (!prefix.empty()) prefix.back() = static_cast<char>(static_cast<unsigned char>(prefix.back()) + 1);
  return prefix;
}

SymbolSearch run_symbol_search(Reader& reader, const std::filesystem::path& file, const SymbolQuery& query,
                               NameCatalogs& catalogs) {
  NamePattern pattern = parse_pattern(query.text, query.match);
  const bool qualified = !pattern.scope.empty() && !pattern.text.empty();
  // A qualifier that nothing lives under (a namespace object re-exported under another name, a module
  // that imports its names from another, a namespace opened by a macro) leaves the name alone, first
  // where a path holds the qualifier (`fmt::format` of fmt/core.h). Where no path can hold it, that is
  // the plain search of the name, and the first search need not keep what it read for the repeat.
  const bool hinted = qualified && some_path_may_hold(reader, file, pattern.scope);
  Search scoped(reader, file, query, catalogs, {}, hinted);
  SymbolSearch found = scoped.run();
  if (found.total > 0 || found.more || !qualified) return found;
  SymbolQuery bare = query;
  bare.text = pattern.text;
  if (!hinted) return Search(reader, file, bare, catalogs).run();
  Search unscoped(reader, file, bare, catalogs, std::move(pattern.scope));
  // The names that match do not depend on the qualifier: the rows that the first search read are
  // ranked again, when it read (and kept) them all.
  if (auto rows = std::move(scoped).matched_rows()) return unscoped.rank(std::move(*rows));
  return unscoped.run();
}

}  // namespace brenloc::storage::detail
