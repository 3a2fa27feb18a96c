#include "brenloc/storage/path_parts.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>

#include "brenloc/storage/reader.h"
#include "brenloc/storage/symbol_match.h"

namespace brenloc::storage::detail {

namespace {

constexpr const char* kOperation = "reading the parts of paths";

std::uint64_t part_hash(std::string_view folded) { return std::hash<std::string_view>{}(folded); }

// Reads the hashes of the parts of every path of a file with symbols, sorted and without repeats.
std::vector<std::uint64_t> read_parts(Reader& r, const std::filesystem::path& file) {
  std::vector<std::uint64_t> out;
  Statement& stmt = r.statement("SELECT path FROM files WHERE symbol_count > 0", file);
  ResetOnExit done{stmt};
  std::string folded;
  while (stmt.step(file, kOperation)) {
    folded = fold_case(stmt.text_view(0));
    for_each_path_part(folded, [&](std::string_view part) { out.push_back(part_hash(part)); });
  }
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  out.shrink_to_fit();
  return out;
}

}  // namespace

bool some_path_may_hold(Reader& r, const std::filesystem::path& file, std::string_view qualifier) {
  std::int64_t version = 0;
  {
    Statement& stmt = r.statement("PRAGMA data_version", file);
    ResetOnExit done{stmt};
    if (stmt.step(file, kOperation)) version = stmt.integer(0);
  }
  if (!r.path_parts || r.path_parts_version != version) {
    r.path_parts = read_parts(r, file);
    r.path_parts_version = version;
  }
  const std::string folded = fold_case(qualifier);
  const std::vector<std::uint64_t>& parts = *r.path_parts;
  for (std::size_t at = 0; at <= folded.size();) {
    const std::size_t end = std::min(folded.find('.', at), folded.size());
    const std::uint64_t part = part_hash(std::string_view(folded).substr(at, end - at));
    if (!std::binary_search(parts.begin(), parts.end(), part)) return false;
    at = end + 1;
  }
  return true;
}

}  // namespace brenloc::storage::detail
