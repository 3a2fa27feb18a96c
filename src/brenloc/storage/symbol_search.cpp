#include "brenloc/storage/symbol_search.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <unordered_set>
#include <vector>

#include <fmt/format.h>

#include "brenloc/storage/symbol_match.h"

namespace brenloc::storage::detail {

namespace {

constexpr const char* kColumns =
    "s.id, s.name, s.kind, f.path, s.line, s.col, s.end_line, s.scope, f.language, s.line - s.lead";
// At most this many files under a path filter make reading all their rows cheaper than the name index.
constexpr int kFewFiles = 64;

std::string like_escaped(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (c == '%' || c == '_' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

// A glob ("*", "?") as a LIKE pattern (which ignores ASCII case, as the search does).
std::string glob_as_like(std::string_view glob) {
  std::string out;
  for (char c : glob) {
    if (c == '*') {
      out += '%';
    } else if (c == '?') {
      out += '_';
    } else {
      out += like_escaped(std::string_view(&c, 1));
    }
  }
  return out;
}

// "c%r%t%": the names of which `folded` is a subsequence starting at their first character.
std::string subsequence_like(std::string_view folded) {
  std::string out;
  for (char c : folded) out += like_escaped(std::string_view(&c, 1)) + "%";
  return out;
}

bool has_glob(std::string_view text) { return text.find_first_of("*?[") != std::string_view::npos; }

// The filters of a query other than the name, as SQL over `s` (symbols) and `f` (files), with their
// parameters.
struct Filters {
  std::optional<std::string> kind, language, scope_like;
  std::string dir;                     // a directory or file, when the path filter is no glob
  std::string glob, glob_lo, glob_hi;  // a path glob and the range its literal start allows

  std::string sql() const {
    std::string out;
    if (kind) out += " AND s.kind = :kind";
    if (language) out += " AND f.language = :language";
    if (scope_like) out += " AND s.scope LIKE :scope ESCAPE '\\'";
    out += path_sql();
    return out;
  }
  std::string path_sql() const {
    if (!glob.empty()) {
      return std::string(" AND f.path GLOB :glob") + (glob_lo.empty() ? "" : " AND f.path >= :glob_lo") +
             (glob_hi.empty() ? "" : " AND f.path < :glob_hi");
    }
    return dir.empty() ? "" : " AND (f.path = :dir OR (f.path >= :dir_lo AND f.path < :dir_hi))";
  }
  bool has_path() const { return !glob.empty() || !dir.empty(); }
  void bind(Statement& stmt) const {
    auto set = [&](const char* name, const std::string& value) {
      if (int i = sqlite3_bind_parameter_index(stmt.get(), name); i > 0) stmt.bind(i, value);
    };
    if (kind) set(":kind", *kind);
    if (language) set(":language", *language);
    if (scope_like) set(":scope", *scope_like);
    set(":glob", glob);
    set(":glob_lo", glob_lo);
    set(":glob_hi", glob_hi);
    set(":dir", dir);
    set(":dir_lo", dir + "/");
    set(":dir_hi", dir + "0");  // '0' follows '/'
  }
};

Filters filters_of(const SymbolQuery& q, const NamePattern& pattern) {
  Filters f;
  f.kind = q.kind;
  f.language = q.language;
  if (!pattern.scope.empty()) {
    // The scope's last part ends the stored scope, whatever its separators; the rest is checked per row.
    const auto dot = pattern.scope.rfind('.');
    f.scope_like = "%" + like_escaped(dot == std::string::npos ? pattern.scope : pattern.scope.substr(dot + 1));
  }
  if (q.path_prefix && has_glob(*q.path_prefix)) {
    std::string glob = *q.path_prefix;
    while (glob.starts_with("./")) glob.erase(0, 2);
    f.glob = glob;
    f.glob_lo = glob.substr(0, glob.find_first_of("*?["));
    f.glob_hi = f.glob_lo.empty() ? "" : prefix_upper_bound(f.glob_lo);
  } else if (q.path_prefix) {
    f.dir = normalise_path_prefix(*q.path_prefix);
  }
  return f;
}

// Gathers the matches of the stages, each row once, up to a cap.
class Collector {
 public:
  Collector(const NamePattern& pattern, std::int64_t cap) : pattern_(pattern), cap_(cap) {}

  // Steps `stmt` to its end or until the cap; false once the cap is reached.
  bool drain(Statement& stmt, const std::filesystem::path& file) {
    ResetOnExit done{stmt};
    while (stmt.step(file, "searching symbols")) {
      if (!seen_.insert(stmt.integer(0)).second) continue;
      const std::string name = stmt.text(1), scope = stmt.text(7);
      const Tier tier = match_tier(pattern_, name, scope);
      if (tier == Tier::none) continue;
      if (static_cast<std::int64_t>(hits_.size()) >= cap_) {
        more_ = true;
        return false;
      }
      hits_.push_back(SymbolHit{name, stmt.text(2), stmt.text(3), static_cast<int>(stmt.integer(4)),
                                static_cast<int>(stmt.integer(5)), static_cast<int>(stmt.integer(6)), scope,
                                stmt.text(8), static_cast<int>(tier), static_cast<int>(stmt.integer(9))});
    }
    return true;
  }

  SymbolSearch finish(int limit) && {
    SymbolSearch out;
    out.total = static_cast<std::int64_t>(hits_.size());
    out.more = more_;
    const auto keep = limit < 0 ? hits_.size() : std::min(hits_.size(), static_cast<std::size_t>(limit));
    std::partial_sort(hits_.begin(), hits_.begin() + static_cast<std::ptrdiff_t>(keep), hits_.end(), ranks_before);
    hits_.resize(keep);
    out.hits = std::move(hits_);
    return out;
  }

 private:
  const NamePattern& pattern_;
  const std::int64_t cap_;
  std::vector<SymbolHit> hits_;
  std::unordered_set<std::int64_t> seen_;
  bool more_ = false;
};

class Search {
 public:
  Search(Reader& r, const std::filesystem::path& file, const SymbolQuery& q)
      : r_(r), file_(file), q_(q), pattern_(parse_pattern(q.text, q.match)), filters_(filters_of(q, pattern_)) {}

  SymbolSearch run() {
    const bool by_file = !name_index_present() || few_files_selected();
    const std::int64_t unlimited = std::numeric_limits<std::int64_t>::max();
    Collector found(pattern_, by_file || q_.limit < 0 ? unlimited : std::max<std::int64_t>(q_.limit, kCountCap));
    if (by_file) {
      collect_by_file(found);
    } else {
      collect_by_name(found);
    }
    return std::move(found).finish(q_.limit);
  }

 private:
  bool name_index_present() {
    Statement& probe = r_.statement(
        "SELECT count(*) FROM sqlite_master WHERE type = 'index' AND name = 'symbols_by_name'", file_);
    ResetOnExit done{probe};
    probe.step(file_, "searching symbols");
    return probe.integer(0) != 0;
  }

  bool few_files_selected() {
    if (!filters_.has_path()) return false;
    Statement& few = r_.statement(
        fmt::format("SELECT count(*) FROM (SELECT 1 FROM files f WHERE 1 {} LIMIT {})", filters_.path_sql(), kFewFiles + 1),
        file_);
    ResetOnExit done{few};
    filters_.bind(few);
    few.step(file_, "searching symbols");
    return few.integer(0) <= kFewFiles;
  }

  // --- by file: every row of the selected files, a coarse LIKE in SQL, the exact test in the collector.
  void collect_by_file(Collector& found) {
    std::string sql = fmt::format("SELECT {} FROM ", kColumns);
    if (filters_.has_path()) {
      sql += "files f CROSS JOIN symbols s ON s.id >= f.first_symbol AND s.id < f.first_symbol + f.symbol_count";
    } else {
      sql += "symbols s CROSS JOIN files f ON f.id = s.file_id";
    }
    sql += " WHERE (s.name LIKE :like ESCAPE '\\'";
    const bool subsequence = !pattern_.glob && !pattern_.folded.empty() &&
                             (q_.match == SymbolQuery::Match::automatic || q_.match == SymbolQuery::Match::fuzzy);
    if (subsequence) sql += " OR s.name LIKE :subsequence ESCAPE '\\'";
    sql += ")" + filters_.sql();
    Statement& stmt = r_.statement(sql, file_);
    bind(stmt, ":like", coarse_like());
    if (subsequence) bind(stmt, ":subsequence", subsequence_like(pattern_.folded));
    filters_.bind(stmt);
    found.drain(stmt, file_);
  }

  std::string coarse_like() const {
    if (pattern_.glob) return glob_as_like(pattern_.folded);
    const std::string text = like_escaped(pattern_.folded);
    switch (q_.match) {
      case SymbolQuery::Match::exact: return text;
      case SymbolQuery::Match::prefix: return text + "%";
      default: return "%" + text + "%";
    }
  }

  // --- by name: the stages, best tier first, until the cap.
  void collect_by_name(Collector& found) {
    if (pattern_.glob) {
      collect_glob(found);
      return;
    }
    const auto m = q_.match;
    if (!pattern_.folded.empty() && !stage_equal(found)) return;
    if (m == SymbolQuery::Match::exact || !stage_prefix(found)) return;
    if (m == SymbolQuery::Match::prefix || pattern_.folded.empty() || !stage_substring(found)) return;
    if (m != SymbolQuery::Match::substring) stage_subsequence(found);
  }

  std::string rows_by_name() const {
    return fmt::format("SELECT {} FROM symbols s INDEXED BY symbols_by_name CROSS JOIN files f ON f.id = s.file_id",
                       kColumns);
  }
  // The rows of the names `names_sql` lists (as n.name, folded).
  std::string rows_of_names(const std::string& names_sql) const {
    return fmt::format(
        "SELECT {} FROM ({}) n CROSS JOIN symbols s INDEXED BY symbols_by_name ON s.name = n.name COLLATE NOCASE "
        "CROSS JOIN files f ON f.id = s.file_id WHERE 1 {}",
        kColumns, names_sql, filters_.sql());
  }

  bool stage_equal(Collector& found) {
    Statement& stmt = r_.statement(rows_by_name() + " WHERE s.name = :name COLLATE NOCASE" + filters_.sql(), file_);
    bind(stmt, ":name", pattern_.folded);
    filters_.bind(stmt);
    return found.drain(stmt, file_);
  }

  bool stage_prefix(Collector& found) { return range(found, pattern_.folded); }

  // The rows whose names start with `start` (folded): a range of the name index.
  bool range(Collector& found, const std::string& start) {
    const std::string upper = prefix_upper_bound(start);
    std::string sql = rows_by_name() + " WHERE s.name >= :lo COLLATE NOCASE";
    if (!upper.empty()) sql += " AND s.name < :hi COLLATE NOCASE";
    Statement& stmt = r_.statement(sql + filters_.sql(), file_);
    bind(stmt, ":lo", start);
    if (!upper.empty()) bind(stmt, ":hi", upper);
    filters_.bind(stmt);
    return found.drain(stmt, file_);
  }

  // Names that hold the text elsewhere than at their start: the trigram index for three characters or
  // more, a scan of the names for fewer.
  bool stage_substring(Collector& found) {
    const bool trigrams = pattern_.folded.size() >= 3;
    // No ESCAPE: the trigram index takes a plain LIKE only. A "%" or "_" of the text then matches more
    // names than it should, which the collector's own test drops.
    const std::string names =
        trigrams ? "SELECT name FROM name_grams WHERE name LIKE :contains AND substr(name, 1, :n) != :text"
                 : "SELECT name FROM names WHERE instr(name, :text) > 1";
    Statement& stmt = r_.statement(rows_of_names(names), file_);
    if (trigrams) {
      bind(stmt, ":contains", "%" + pattern_.folded + "%");
      stmt.bind(sqlite3_bind_parameter_index(stmt.get(), ":n"), static_cast<std::int64_t>(pattern_.folded.size()));
    }
    bind(stmt, ":text", pattern_.folded);
    filters_.bind(stmt);
    return found.drain(stmt, file_);
  }

  // Names that start with the text's first character and hold the rest in order, but not the text itself.
  void stage_subsequence(Collector& found) {
    const std::string first = pattern_.folded.substr(0, 1);
    std::string names = "SELECT name FROM names WHERE name >= :first AND name LIKE :subsequence ESCAPE '\\' AND "
                        "instr(name, :text) = 0";
    const std::string upper = prefix_upper_bound(first);
    if (!upper.empty()) names += " AND name < :first_hi";
    Statement& stmt = r_.statement(rows_of_names(names), file_);
    bind(stmt, ":first", first);
    if (!upper.empty()) bind(stmt, ":first_hi", upper);
    bind(stmt, ":subsequence", subsequence_like(pattern_.folded));
    bind(stmt, ":text", pattern_.folded);
    filters_.bind(stmt);
    found.drain(stmt, file_);
  }

  // A glob: the range of its literal start, else the trigram index over its longest literal run (three
  // characters or more), else every name.
  void collect_glob(Collector& found) {
    const std::string& g = pattern_.folded;
    const std::string start = g.substr(0, g.find_first_of("*?"));
    if (!start.empty()) {
      range(found, start);
      return;
    }
    std::size_t longest = 0;
    for (std::size_t i = 0, j; i < g.size(); i = j + 1) {
      j = std::min(g.find_first_of("*?", i), g.size());
      longest = std::max(longest, j - i);
    }
    // A plain LIKE (see stage_substring): "*" and "?" become "%" and "_", the rest stands as it is.
    std::string like = g;
    std::ranges::replace(like, '*', '%');
    std::ranges::replace(like, '?', '_');
    const std::string names = longest >= 3 ? "SELECT name FROM name_grams WHERE name LIKE :like"
                                            : "SELECT name FROM names WHERE name LIKE :like";
    Statement& stmt = r_.statement(rows_of_names(names), file_);
    bind(stmt, ":like", like);
    filters_.bind(stmt);
    found.drain(stmt, file_);
  }

  static void bind(Statement& stmt, const char* name, const std::string& value) {
    stmt.bind(sqlite3_bind_parameter_index(stmt.get(), name), value);
  }

  Reader& r_;
  const std::filesystem::path& file_;
  const SymbolQuery& q_;
  const NamePattern pattern_;
  const Filters filters_;
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

SymbolSearch run_symbol_search(Reader& reader, const std::filesystem::path& file, const SymbolQuery& query) {
  return Search(reader, file, query).run();
}

}  // namespace brenloc::storage::detail
