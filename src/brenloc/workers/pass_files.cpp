#include "brenloc/workers/pass_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <sstream>
#include <system_error>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace brenloc::workers {

namespace {

std::string dump(const nlohmann::ordered_json& j) {
  // Paths need not be UTF-8: replace what is not rather than fail.
  return j.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
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

void write_pass_files(const std::filesystem::path& data_dir, const std::vector<LeftOut>& errors,
                      const PassRecord& record) {
  std::string lines;
  for (const LeftOut& e : errors) {
    lines += dump(nlohmann::ordered_json{{"path", e.path}, {"stage", e.stage}, {"error", e.error}});
    lines += '\n';
  }
  replace_file(data_dir / kErrorsFile, lines);
  nlohmann::ordered_json last = pass_info(record);
  last["finished_at"] = fmt::format("{:%FT%TZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(
                                                     std::chrono::system_clock::now())));
  replace_file(data_dir / kLastIndexFile, dump(last) + "\n");
}

nlohmann::ordered_json read_last_index(const std::filesystem::path& data_dir) {
  std::ifstream in(data_dir / kLastIndexFile);
  if (!in) return nullptr;
  std::stringstream ss;
  ss << in.rdbuf();
  auto j = nlohmann::ordered_json::parse(ss.str(), nullptr, false);
  if (j.is_discarded() || !j.is_object()) return nullptr;
  return j;
}

}  // namespace brenloc::workers
