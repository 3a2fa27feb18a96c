#include "brenloc/storage/source_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "brenloc/utils/path_guards.h"
#include "brenloc/utils/path_text.h"

namespace brenloc::storage {

namespace {

constexpr std::size_t kMaxFileBytes = 1 << 20;
constexpr std::size_t kMaxSignatureBytes = 200;

std::optional<std::string> read_file(const std::filesystem::path& path) {
  try {
    utils::verify_no_symlinks_in_path(path);
  } catch (const std::exception&) {
    return std::nullopt;
  }
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat st {};
  std::optional<std::string> out;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && static_cast<std::size_t>(st.st_size) <= kMaxFileBytes) {
    std::string text(static_cast<std::size_t>(st.st_size), '\0');
    std::size_t got = 0;
    while (got < text.size()) {
      const ssize_t n = ::read(fd, text.data() + got, text.size() - got);
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    text.resize(got);
    out = std::move(text);
  }
  ::close(fd);
  return out;
}

std::string_view trimmed(std::string_view line) {
  const auto blank = " \t\r\n\f\v";
  const auto begin = line.find_first_not_of(blank);
  if (begin == std::string_view::npos) return {};
  return line.substr(begin, line.find_last_not_of(blank) - begin + 1);
}

}  // namespace

const std::string* SourceFiles::content(const std::string& rel) {
  auto it = files_.find(rel);
  if (it == files_.end()) it = files_.emplace(rel, read_file(utils::path_under(root_, rel))).first;
  return it->second ? &*it->second : nullptr;
}

std::optional<std::string> SourceFiles::lines(const std::string& rel, int first, int last) {
  const std::string* text = content(rel);
  if (text == nullptr || first < 1 || last < first) return std::nullopt;
  std::size_t at = 0;
  for (int line = 1; line < first; ++line) {
    at = text->find('\n', at);
    if (at == std::string::npos) return std::nullopt;
    ++at;
  }
  if (at >= text->size() && first > 1) return std::nullopt;
  std::size_t end = at;
  for (int line = first; line <= last; ++line) {
    end = text->find('\n', end);
    if (end == std::string::npos) {
      end = text->size();
      break;
    }
    if (line < last) ++end;
  }
  std::string out = text->substr(at, end - at);
  if (out.ends_with('\n')) out.pop_back();
  // Lines ended by "\r\n" keep no '\r'.
  std::string clean;
  clean.reserve(out.size());
  for (std::size_t i = 0; i < out.size(); ++i) {
    if (out[i] == '\r' && (i + 1 == out.size() || out[i + 1] == '\n')) continue;
    clean += out[i];
  }
  return clean;
}

std::string signature_of(std::string_view text, int name_row) {
  std::vector<std::string_view> rows;
  for (std::size_t at = 0; static_cast<int>(rows.size()) <= name_row;) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    rows.push_back(trimmed(text.substr(at, end - at)));
    if (end == text.size()) break;
    at = end + 1;
  }
  std::string joined;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (rows.size() > 3 && i > 0 && i + 1 < rows.size()) continue;
    if (rows[i].empty()) continue;
    if (!joined.empty()) joined += rows.size() > 3 && i + 1 == rows.size() ? " ... " : " ";
    joined += rows[i];
  }
  if (joined.size() <= kMaxSignatureBytes) return joined;
  std::size_t cut = kMaxSignatureBytes;
  while (cut > 0 && (static_cast<unsigned char>(joined[cut]) & 0xC0) == 0x80) --cut;  // not inside a character
  return joined.substr(0, cut) + "...";
}

}  // namespace brenloc::storage
