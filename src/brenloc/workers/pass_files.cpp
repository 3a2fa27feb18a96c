#include "brenloc/workers/pass_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <set>
#include <sstream>
#include <system_error>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace brenloc::workers {

namespace {

std::string dump(const json& j) {
  // Paths need not be UTF-8: replace what is not rather than fail.
  return j.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace

void replace_file(const std::filesystem::path& path, std::string_view content) {
  std::filesystem::path tmp = path;
  tmp += fmt::format(".{}.tmp", ::getpid());
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "creating " + tmp.string());
  std::size_t off = 0;
  while (off < content.size()) {
    ssize_t n = ::write(fd, content.data() + off, content.size() - off);
    if (n < 0) {
      if (errno == EINTR) continue;
      int err = errno;
      ::close(fd);
      ::unlink(tmp.c_str());
      throw std::system_error(err, std::generic_category(), "writing " + tmp.string());
    }
    off += static_cast<std::size_t>(n);
  }
  ::close(fd);
  if (::rename(tmp.c_str(), path.c_str()) != 0) {
    int err = errno;
    ::unlink(tmp.c_str());
    throw std::system_error(err, std::generic_category(), "replacing " + path.string());
  }
}

json left_out_json(const LeftOut& e) {
  return {{"path", e.path}, {"stage", e.stage}, {e.failed ? "error" : "skipped", e.error}};
}

json left_out_json(const LeftOutList& list) {
  json first = json::array();
  for (const LeftOut& e : list.first) first.push_back(left_out_json(e));
  return {{"count", list.count}, {"first", std::move(first)}};
}

LeftOutList read_left_out(const std::filesystem::path& data_dir, std::size_t first) {
  LeftOutList out;
  std::ifstream in(data_dir / kErrorsFile);
  for (std::string line; std::getline(in, line);) {
    if (line.empty()) continue;
    ++out.count;
    if (out.first.size() >= first) continue;
    const auto j = nlohmann::json::parse(line, nullptr, false);
    if (!j.is_object()) continue;
    const bool failed = j.contains("error");
    const auto text = [&](const char* key) {
      auto it = j.find(key);
      return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
    };
    out.first.push_back({text("path"), text("stage"), text(failed ? "error" : "skipped"), failed});
  }
  return out;
}

void write_pass_files(const std::filesystem::path& data_dir, const std::vector<LeftOut>& left_out,
                      const PassRecord& record, const std::optional<std::vector<std::string>>& listed) {
  std::vector<LeftOut> entries;
  if (listed && std::ranges::find(*listed, std::string()) == listed->end()) {
    // What earlier passes named outside the listed paths still stands.
    std::set<std::string_view> named;
    for (const LeftOut& e : left_out) named.insert(e.path);
    LeftOutList earlier = read_left_out(data_dir, SIZE_MAX);
    for (LeftOut& e : earlier.first) {
      const bool covered = std::ranges::any_of(*listed, [&](const std::string& p) {
        return e.path == p || is_under(e.path, p);
      });
      if (!covered && !named.contains(e.path)) entries.push_back(std::move(e));
    }
  }
  entries.insert(entries.end(), left_out.begin(), left_out.end());
  std::ranges::stable_partition(entries, [](const LeftOut& e) { return e.failed; });
  std::string lines;
  for (const LeftOut& e : entries) {
    lines += dump(left_out_json(e));
    lines += '\n';
  }
  replace_file(data_dir / kErrorsFile, lines);
  json last = pass_info(record);
  last["finished_at"] = fmt::format("{:%FT%TZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(
                                                     std::chrono::system_clock::now())));
  replace_file(data_dir / kLastIndexFile, dump(last) + "\n");
}

json read_last_index(const std::filesystem::path& data_dir) {
  std::ifstream in(data_dir / kLastIndexFile);
  if (!in) return nullptr;
  std::stringstream ss;
  ss << in.rdbuf();
  auto j = json::parse(ss.str(), nullptr, false);
  if (j.is_discarded() || !j.is_object()) return nullptr;
  return j;
}

}  // namespace brenloc::workers
