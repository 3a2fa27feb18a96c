// Throughput of parsing and definition extraction on one core, and definition coverage against
// universal-ctags, on real source trees (by default /usr/include and /usr/lib/python3).
//
//   parse_bench [--sample K] [--rounds R] [--misses N] [--miss-kind KIND] [--errors N] [--tags-from FILE] [--no-ctags] [--h-as-cpp] [DIR...]
//
// For each tree: the files of the languages we parse are read into memory, then each file is
// parsed alone (the floor) and parsed with extraction, in alternating order, for R rounds (the best
// round of each counts), so that both are measured side by side on the same, noisy, machine. ctags is timed on
// the whole tree (`ctags -R --links=no --output-format=json -f - DIR > /dev/null`) and run again to
// read its definitions: the coverage is the share of ctags' definitions, of the kinds we claim, in
// the files we parse, that we find too (same file, name and line). --h-as-cpp parses every `.h` with the
// C++ grammar instead of choosing by what the file holds (to compare the two choices).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <fmt/format.h>
#include "brenloc/json.h"

#include "brenloc/engines/content_language.h"
#include "brenloc/engines/languages.h"
#include "brenloc/engines/symbols.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using brenloc::json;
using brenloc::engines::extract_symbols;
using brenloc::engines::language_for_path;
using brenloc::engines::parse_only;

namespace {

struct SourceFile {
  std::string path;  // as ctags prints it: DIR/relative
  std::string language;
  std::string content;
};

struct Options {
  int sample = 1;  // every K-th file
  int rounds = 1;
  int misses = 0;  // missed ctags definitions to print per tree
  int errors = 0;  // files with syntax errors to print per tree
  std::string miss_kind;  // print only the misses of this ctags kind
  std::string tags_from;  // read ctags' output from this file (of the first tree) instead of running it
  bool ctags = true;      // false: throughput only
  bool headers_as_cpp = false;  // parse every .h with the C++ grammar instead of choosing by content
  std::vector<std::string> dirs;
};

// The language a file is given to the extraction as: by its extension, or, without one, by what its first
// lines name (as the indexer's walk does).
std::optional<std::string> file_language(const fs::path& path) {
  if (auto by_name = language_for_path(path)) return std::string(*by_name);
  if (path.has_extension()) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  std::string head(brenloc::engines::kLanguageHeadBytes, '\0');
  in.read(head.data(), static_cast<std::streamsize>(head.size()));
  head.resize(static_cast<std::size_t>(in.gcount()));
  if (auto named = brenloc::engines::language_named_in(head)) return std::string(*named);
  return std::nullopt;
}

std::vector<SourceFile> load_tree(const std::string& dir, int sample, bool headers_as_cpp) {
  std::vector<SourceFile> files;
  std::vector<std::pair<fs::path, std::string>> paths;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec), end;
       it != end; it.increment(ec)) {
    if (ec) break;
    if (it->is_symlink()) {
      if (it->is_directory()) it.disable_recursion_pending();
      continue;
    }
    if (!it->is_regular_file()) continue;
    auto language = file_language(it->path());
    if (!language) continue;
    if (headers_as_cpp && it->path().extension() == ".h") language = "cpp";
    paths.emplace_back(it->path(), *language);
  }
  std::sort(paths.begin(), paths.end());
  for (std::size_t i = 0; i < paths.size(); i += static_cast<std::size_t>(sample)) {
    std::ifstream in(paths[i].first, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    files.push_back({paths[i].first.string(), paths[i].second, ss.str()});
  }
  return files;
}

std::string without_spaces(std::string s) {
  std::erase(s, ' ');
  return s;
}

double seconds_since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

// ctags' kinds, per ctags language, that correspond to kinds we extract.
const std::map<std::string, std::set<std::string>> claimed_kinds = {
    {"C", {"macro", "enumerator", "function", "enum", "member", "struct", "typedef", "union", "variable"}},
    {"C++", {"macro", "enumerator", "function", "enum", "member", "struct", "typedef", "union", "variable",
             "class", "namespace"}},
    {"Python", {"class", "function", "member", "variable"}},
    {"JavaScript", {"function", "class", "method", "constant", "variable", "generator", "field"}},
    {"TypeScript", {"function", "class", "interface", "enum", "enumerator", "method", "namespace",
                    "property", "constant", "variable", "alias"}},
    {"Go", {"package", "func", "const", "type", "var", "struct", "interface", "member", "methodSpec"}},
    {"Rust", {"module", "struct", "interface", "implementation", "function", "enum", "typedef", "variable",
              "macro", "field", "enumerator", "method", "constant"}},
    {"Java", {"class", "enum", "enumConstant", "field", "interface", "method", "annotation", "record"}},
};

struct Tag {
  std::string name;
  std::string kind;
  int line;
};

double run_ctags_timed(const std::string& dir) {
  const std::string cmd = fmt::format("ctags -R --links=no --output-format=json -f - '{}' > /dev/null 2>&1", dir);
  const auto t0 = Clock::now();
  const int rc = std::system(cmd.c_str());
  const double s = seconds_since(t0);
  if (rc != 0) std::cerr << "ctags exited with " << rc << "\n";
  return s;
}

// ctags' claimed definitions, by file path.
std::unordered_map<std::string, std::vector<Tag>> run_ctags_tags(const std::string& dir, const std::string& from) {
  std::unordered_map<std::string, std::vector<Tag>> out;
  const std::string cmd =
      from.empty() ? fmt::format("ctags -R --links=no --output-format=json --fields=+nl -f - '{}' 2>/dev/null", dir)
                   : fmt::format("cat '{}'", from);
  FILE* pipe = popen(cmd.c_str(), "r");
  if (!pipe) return out;
  std::string line;
  char buf[65536];
  while (fgets(buf, sizeof buf, pipe)) {
    line += buf;
    if (line.empty() || line.back() != '\n') continue;
    auto j = nlohmann::json::parse(line, nullptr, false);
    line.clear();
    if (j.is_discarded() || j.value("_type", "") != "tag") continue;
    const std::string lang = j.value("language", "");
    auto claimed = claimed_kinds.find(lang);
    if (claimed == claimed_kinds.end() || !claimed->second.contains(j.value("kind", ""))) continue;
    // ctags names what has no name (lambdas, anonymous structs) "__anon...": nothing to search for.
    if (j.value("name", "").starts_with("__anon")) continue;
    out[j.value("path", "")].push_back({j.value("name", ""), j.value("kind", ""), j.value("line", 0)});
  }
  pclose(pipe);
  return out;
}

void print_row(const std::vector<std::string>& cells, const std::vector<int>& widths) {
  std::string out;
  for (std::size_t i = 0; i < cells.size(); ++i) out += fmt::format("{:>{}} ", cells[i], widths[i]);
  std::cout << out << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  Options opt;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--sample" && i + 1 < argc) opt.sample = std::max(1, std::atoi(argv[++i]));
    else if (a == "--rounds" && i + 1 < argc) opt.rounds = std::max(1, std::atoi(argv[++i]));
    else if (a == "--misses" && i + 1 < argc) opt.misses = std::atoi(argv[++i]);
    else if (a == "--errors" && i + 1 < argc) opt.errors = std::atoi(argv[++i]);
    else if (a == "--miss-kind" && i + 1 < argc) opt.miss_kind = argv[++i];
    else if (a == "--tags-from" && i + 1 < argc) opt.tags_from = argv[++i];
    else if (a == "--no-ctags") opt.ctags = false;
    else if (a == "--h-as-cpp") opt.headers_as_cpp = true;
    else if (a == "--help" || a == "-h") {
      std::cout << "usage: parse_bench [--sample K] [--rounds R] [--misses N] [--miss-kind KIND] [--errors N] [--tags-from FILE] [--no-ctags] [--h-as-cpp] [DIR...]\n";
      return 0;
    } else opt.dirs.push_back(a);
  }
  if (opt.dirs.empty()) opt.dirs = {"/usr/include", "/usr/lib/python3"};

  const std::vector<int> widths = {18, 7, 7, 9, 9, 8, 9, 9, 8, 7, 8, 8, 9};
  std::vector<std::vector<std::string>> rows;
  std::vector<std::string> notes;
  for (const std::string& dir : opt.dirs) {
    const std::vector<SourceFile> files = load_tree(dir, opt.sample, opt.headers_as_cpp);
    double bytes = 0;
    for (const auto& f : files) bytes += static_cast<double>(f.content.size());
    const double mb = bytes / 1e6;

    double parse_s = 1e300, extract_s = 1e300;
    std::vector<std::vector<brenloc::storage::SymbolRow>> symbols(files.size());
    std::size_t failed = 0, with_errors = 0, n_symbols = 0;
    std::vector<std::string> error_files;
    // Per file, the parse alone and the parse with extraction, in alternating order, so that both
    // see the same machine at the same moment and neither always runs with warm caches.
    for (int round = 0; round < opt.rounds; ++round) {
      double parse_round = 0, extract_round = 0;
      failed = with_errors = n_symbols = 0;
      for (std::size_t i = 0; i < files.size(); ++i) {
        const auto time_parse = [&] {
          const auto t0 = Clock::now();
          parse_only(files[i].language, files[i].content);
          parse_round += seconds_since(t0);
        };
        const auto time_extract = [&] {
          const auto t0 = Clock::now();
          auto r = extract_symbols(files[i].language, files[i].content);
          extract_round += seconds_since(t0);
          if (!r.ok) ++failed;
          if (r.syntax_errors && static_cast<int>(with_errors++) < opt.errors && round == 0) {
            error_files.push_back(fmt::format("  syntax errors: {} ({})", files[i].path, files[i].language));
          }
          n_symbols += r.symbols.size();
          symbols[i] = std::move(r.symbols);
        };
        if ((i + static_cast<std::size_t>(round)) % 2 == 0) {
          time_parse();
          time_extract();
        } else {
          time_extract();
          time_parse();
        }
      }
      parse_s = std::min(parse_s, parse_round);
      extract_s = std::min(extract_s, extract_round);
    }

    // Coverage against ctags, on the files we parse.
    const double ctags_s = opt.ctags && opt.tags_from.empty() ? run_ctags_timed(dir) : 0.0;
    const auto tags = opt.ctags ? run_ctags_tags(dir, opt.tags_from)
                                : std::unordered_map<std::string, std::vector<Tag>>{};
    opt.tags_from.clear();
    std::size_t total = 0, found = 0;
    std::map<std::string, std::pair<std::size_t, std::size_t>> by_kind;  // kind -> (total, found)
    std::vector<std::string> missed;
    for (std::size_t i = 0; i < files.size(); ++i) {
      auto it = tags.find(files[i].path);
      if (it == tags.end()) continue;
      std::unordered_set<std::string> ours;
      for (const auto& s : symbols[i]) ours.insert(fmt::format("{}\n{}", without_spaces(s.name), s.line));
      for (const Tag& t : it->second) {
        ++total;
        auto& k = by_kind[t.kind];
        ++k.first;
        if (ours.contains(fmt::format("{}\n{}", without_spaces(t.name), t.line))) {
          ++found;
          ++k.second;
        } else if (static_cast<int>(missed.size()) < opt.misses && (opt.miss_kind.empty() || opt.miss_kind == t.kind)) {
          missed.push_back(fmt::format("  {}:{} {} ({})", files[i].path, t.line, t.name, t.kind));
        }
      }
    }

    const double coverage = total ? 100.0 * static_cast<double>(found) / static_cast<double>(total) : 0;
    rows.push_back({dir, std::to_string(files.size()), fmt::format("{:.1f}", mb), fmt::format("{:.2f}", parse_s),
                    fmt::format("{:.2f}", mb / parse_s), fmt::format("{:.0f}", files.size() / parse_s),
                    fmt::format("{:.2f}", extract_s), fmt::format("{:.2f}", mb / extract_s),
                    fmt::format("{:.0f}", files.size() / extract_s), fmt::format("{:.2f}", extract_s / parse_s),
                    ctags_s > 0 ? fmt::format("{:.2f}", ctags_s) : "-",
                    ctags_s > 0 ? fmt::format("{:.2f}", extract_s / ctags_s) : "-",
                    total ? fmt::format("{:.1f}%", coverage) : "-"});
    std::string note = fmt::format("{}: {} symbols, {} files with syntax errors, {} failed; ctags kinds "
                                   "(found/total):",
                                   dir, n_symbols, with_errors, failed);
    for (const auto& [kind, counts] : by_kind) {
      note += fmt::format(" {} {}/{}", kind, counts.second, counts.first);
    }
    notes.push_back(note);
    for (auto& m : missed) notes.push_back(m);
    for (auto& m : error_files) notes.push_back(m);
  }

  std::cout << "\nOne core, best of " << opt.rounds << " round(s)"
            << (opt.sample > 1 ? fmt::format(", every {}th file", opt.sample) : std::string()) << "\n";
  print_row({"tree", "files", "MB", "parse s", "MB/s", "files/s", "extract s", "MB/s", "files/s", "ex/parse",
             "ctags s", "ex/ctags", "coverage"},
            widths);
  for (const auto& r : rows) print_row(r, widths);
  std::cout << "\n";
  for (const auto& n : notes) std::cout << n << "\n";
  return 0;
}
