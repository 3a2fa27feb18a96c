#include "brenloc/app/session_repos.h"

#include <algorithm>
#include <system_error>

#include <fmt/format.h>

#include "brenloc/app/repo_root.h"
#include "brenloc/tool_binding.h"
#include "brenloc/utils/logging.h"
#include "brenloc/utils/path_text.h"

namespace brenloc::app {

namespace fs = std::filesystem;

namespace {

std::vector<std::string> components(const fs::path& root) {
  std::vector<std::string> parts;
  for (const auto& part : root.relative_path()) {
    if (!part.empty()) parts.push_back(utils::path_text(part.native()));
  }
  return parts;
}

// The last `depth` components of a root; all of them (as an absolute path) once `depth` reaches their count.
std::string last_components(const std::vector<std::string>& parts, std::size_t depth) {
  if (depth >= parts.size()) {
    std::string all = "/";
    for (std::size_t i = 0; i < parts.size(); ++i) all += (i == 0 ? "" : "/") + parts[i];
    return all;
  }
  std::string name;
  for (std::size_t i = parts.size() - depth; i < parts.size(); ++i) name += (name.empty() ? "" : "/") + parts[i];
  return name;
}

bool within(const fs::path& path, const fs::path& root) {
  auto [r, p] = std::mismatch(root.begin(), root.end(), path.begin(), path.end());
  return r == root.end();
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::optional<fs::path> file_uri_path(std::string_view uri) {
  constexpr std::string_view scheme = "file:";
  if (uri.size() < scheme.size() ||
      !std::equal(scheme.begin(), scheme.end(), uri.begin(), [](char a, char b) { return a == std::tolower(b); })) {
    return std::nullopt;
  }
  std::string_view rest = uri.substr(scheme.size());
  rest = rest.substr(0, rest.find_first_of("?#"));
  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    const std::size_t slash = rest.find('/');
    if (slash == std::string_view::npos) return std::nullopt;
    const std::string_view host = rest.substr(0, slash);
    if (!host.empty() && host != "localhost") return std::nullopt;  // another machine's file
    rest.remove_prefix(slash);
  }
  if (!rest.starts_with('/')) return std::nullopt;
  std::string bytes;
  for (std::size_t i = 0; i < rest.size(); ++i) {
    if (rest[i] != '%') {
      bytes += rest[i];
      continue;
    }
    if (i + 2 >= rest.size()) return std::nullopt;
    const int hi = hex_digit(rest[i + 1]), lo = hex_digit(rest[i + 2]);
    if (hi < 0 || lo < 0) return std::nullopt;
    if (hi == 0 && lo == 0) return std::nullopt;  // no file name holds a NUL byte
    bytes += static_cast<char>(hi * 16 + lo);
    i += 2;
  }
  return fs::path(bytes);
}

SessionRepos::SessionRepos(std::vector<fs::path> given) {
  for (auto& root : given) {
    if (std::none_of(repos_.begin(), repos_.end(), [&](const auto& r) { return r.root == root; })) {
      repos_.push_back({std::move(root), "", false});
    }
  }
  given_ = repos_.size();
  name_all();
}

void SessionRepos::set_roots(const json& result) {
  repos_.resize(given_);
  const json roots = result.is_object() ? result.value("roots", json::array()) : json::array();
  if (!roots.is_array()) return name_all();
  for (const json& root : roots) {
    if (!root.is_object() || !root.contains("uri") || !root["uri"].is_string()) continue;
    const std::string uri = root["uri"].get<std::string>();
    auto path = file_uri_path(uri);
    std::error_code ec;
    if (!path || !fs::is_directory(*path, ec)) {
      utils::get_logger("brenloc.session")->info("The client's root {} is no local directory: left out", uri);
      continue;
    }
    fs::path top;
    try {
      top = find_repo_root(*path).root;
    } catch (const fs::filesystem_error&) {
      continue;
    }
    if (std::none_of(repos_.begin(), repos_.end(), [&](const auto& r) { return r.root == top; })) {
      repos_.push_back({top, "", true});
    }
  }
  name_all();
}

void SessionRepos::name_all() {
  std::vector<std::vector<std::string>> parts;
  std::vector<std::size_t> depth(repos_.size(), 1);
  for (const auto& r : repos_) parts.push_back(components(r.root));
  for (bool clash = true; clash;) {
    clash = false;
    for (std::size_t i = 0; i < repos_.size(); ++i) repos_[i].name = last_components(parts[i], depth[i]);
    for (std::size_t i = 0; i < repos_.size(); ++i) {
      for (std::size_t j = i + 1; j < repos_.size(); ++j) {
        if (repos_[i].name != repos_[j].name) continue;
        for (std::size_t k : {i, j}) {
          if (depth[k] < parts[k].size()) ++depth[k], clash = true;
        }
      }
    }
  }
}

std::optional<SessionRepoEntry> SessionRepos::find(const json& repo) const {
  if (repo.is_null()) return repos_.front();
  if (!repo.is_string()) throw ArgumentError("repo", "argument 'repo' must be a string");
  const std::string text = repo.get<std::string>();
  if (text.find('\0') != std::string::npos) throw ArgumentError("repo", "argument 'repo' must not hold a NUL byte");
  for (const auto& r : repos_) {
    if (r.name == text) return r;
  }
  fs::path path = fs::path(utils::path_bytes(text));
  if (!path.is_absolute()) return std::nullopt;  // a name of none of them
  std::error_code ec;
  fs::path resolved = fs::weakly_canonical(path, ec);
  if (ec) resolved = path.lexically_normal();
  const SessionRepoEntry* best = nullptr;
  for (const auto& r : repos_) {
    if (within(resolved, r.root) && (best == nullptr || within(r.root, best->root))) best = &r;
  }
  if (best == nullptr) return std::nullopt;
  return *best;
}

std::string SessionRepos::refusal(const json& repo) const {
  std::string listed;
  for (const auto& r : repos_) {
    listed += fmt::format("{}{} ({}{})", listed.empty() ? "" : ", ", r.name, utils::path_text(r.root.native()),
                          &r == &repos_.front() ? ", the default" : "");
  }
  return fmt::format("argument 'repo': '{}' is none of this session's repositories: {} (list_repos lists them)",
                     utils::nul_spelt(repo.is_string() ? repo.get<std::string>() : repo.dump()), listed);
}

}  // namespace brenloc::app
