// Exclusive ownership of a directory between processes: an flock on a lock file in it, held for as long
// as the owner lives. The kernel drops it when the process ends, however it ends, so a SIGKILL never
// leaves a stale lock. The lock file holds the owner's pid, for the message of whoever is refused, and a
// note of the owner's (how to reach it, say).
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace brenloc::utils {

// Another process (or another lock object of this one) holds the lock.
class LockBusy : public std::runtime_error {
 public:
  LockBusy(const std::string& message, pid_t owner, std::string note)
      : std::runtime_error(message), owner_(owner), note_(std::move(note)) {}
  pid_t owner() const { return owner_; }             // 0 when the owner did not say
  const std::string& note() const { return note_; }  // empty when the owner left none

 private:
  pid_t owner_;
  std::string note_;
};

class OwnerLock {
 public:
  OwnerLock() = default;
  // Takes the lock on `file` (created when missing) without waiting, and writes this process's pid and
  // `note` (one line) into it. Throws LockBusy, whose message is "<what> is in use by another brenloc
  // process (pid N)", when it is held; std::system_error when the file cannot be opened.
  static OwnerLock acquire(const std::filesystem::path& file, const std::string& what, const std::string& note = "");

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


}  // namespace brenloc::utils
