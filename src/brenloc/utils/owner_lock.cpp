#include "brenloc/utils/owner_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace brenloc::utils {

namespace {

struct Owner {
  pid_t pid = 0;
  std::string note;
};

// What the owner wrote: its pid on the first line, its note on the second.
Owner read_owner(int fd) {
  char buf[4096] = {};
  ssize_t n = ::pread(fd, buf, sizeof buf - 1, 0);
  if (n <= 0) return {};
  std::string text(buf, static_cast<std::size_t>(n));
  Owner owner;
  std::size_t nl = text.find('\n');
  try {
    owner.pid = static_cast<pid_t>(std::stol(text.substr(0, nl)));
  } catch (const std::exception&) {
    return {};
  }
  if (nl != std::string::npos) {
    owner.note = text.substr(nl + 1);
    if (auto end = owner.note.find('\n'); end != std::string::npos) owner.note.resize(end);
  }
  return owner;
}

}  // namespace

OwnerLock OwnerLock::acquire(const std::filesystem::path& file, const std::string& what, const std::string& note) {
  int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "cannot open the lock file " + file.string());
  while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    int err = errno;
    Owner owner = err == EWOULDBLOCK ? read_owner(fd) : Owner{};
    ::close(fd);
    if (err != EWOULDBLOCK) throw std::system_error(err, std::generic_category(), "cannot lock " + file.string());
    std::string who = owner.pid > 0 ? fmt::format("pid {}", owner.pid) : std::string("pid unknown");
    throw LockBusy(fmt::format("{} is in use by another brenloc process ({})", what, who), owner.pid,
                   std::move(owner.note));
  }
  std::string pid = std::to_string(::getpid()) + "\n" + note + (note.empty() ? "" : "\n");
  if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    // The lock is ours all the same; only the refusal message of another process loses the pid.
  }
  return OwnerLock(fd);
}

OwnerLock::OwnerLock(OwnerLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

OwnerLock& OwnerLock::operator=(OwnerLock&& other) noexcept {
  if (this != &other) {
    release();
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

OwnerLock::~OwnerLock() { release(); }

void OwnerLock::release() {
  // Closing the only descriptor of the open file drops the flock. The pid is left in the file: a later
  // owner overwrites it, and nobody reads it without first failing to take the lock.
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
}

}  // namespace brenloc::utils
