// Exclusive ownership of a directory between processes: an flock on a lock file in it, held for as long
// as the owner lives. The kernel drops it when the process ends, however it ends, so a SIGKILL never
// leaves a stale lock. The lock file holds the owner's pid, for the message of whoever is refused.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace brenloc::utils {

// Another process (or another lock object of this one) holds the lock.
class LockBusy : public std::runtime_error {
 public:
  LockBusy(const std::string& message, pid_t owner) : std::runtime_error(message), owner_(owner) {}
  pid_t owner() const { return owner_; }  // 0 when the owner did not say

 private:
  pid_t owner_;
};

class OwnerLock {
 public:
  OwnerLock() = default;
  // Takes the lock on `file` (created when missing) without waiting, and writes this process's pid into
  // it. Throws LockBusy, whose message is "<what> is in use by another brenloc process (pid N)", when it
  // is held; std::system_error when the file cannot be opened.
  static OwnerLock acquire(const std::filesystem::path& file, const std::string& what);

  OwnerLock(OwnerLock&& other) noexcept;
  OwnerLock& operator=(OwnerLock&& other) noexcept;
  OwnerLock(const OwnerLock&) = delete;
  OwnerLock& operator=(const OwnerLock&) = delete;
  ~OwnerLock();

  bool held() const { return fd_ >= 0; }
  void release();

 private:
  explicit OwnerLock(int fd) : fd_(fd) {}
  int fd_ = -1;
};

// The pid written in a lock file, or 0 when there is none.
pid_t lock_owner(const std::filesystem::path& file);

}  // namespace brenloc::utils
