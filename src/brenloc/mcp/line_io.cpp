#include "brenloc/mcp/line_io.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "brenloc/utils/logging.h"

namespace brenloc::mcp {

namespace {

constexpr std::size_t kReadChunk = 64 * 1024;
// Writes go out in pieces no larger than PIPE_BUF: once poll() reports a pipe writable, a write of
// that size finds room and returns at once, so the writer is never stuck inside write() when it is
// told to stop.
constexpr std::size_t kWriteChunk = PIPE_BUF;
constexpr std::size_t kBatch = 256 * 1024;

std::shared_ptr<spdlog::logger> logger() { return utils::get_logger("brenloc.mcp"); }

}  // namespace

WakeFd::WakeFd() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

WakeFd::~WakeFd() { ::close(fd_); }

void WakeFd::signal() {
  std::uint64_t one = 1;
  // A full counter still reads as signalled, so a failed write loses nothing.
  [[maybe_unused]] auto n = ::write(fd_, &one, sizeof one);
}

void WakeFd::clear() {
  std::uint64_t count = 0;
  [[maybe_unused]] auto n = ::read(fd_, &count, sizeof count);
}

// ---- LineReader ----

LineReader::LineReader(int fd, ReadLimits limits, Deliver deliver)
    : fd_(fd), limits_(limits), deliver_(std::move(deliver)) {
  struct stat st {};
  socket_ = ::fstat(fd_, &st) == 0 && S_ISSOCK(st.st_mode);
}

LineReader::~LineReader() {
  stop();
  join();
}

void LineReader::start() { thread_ = std::thread([this] { run(); }); }

void LineReader::stop() {
  {
    std::lock_guard lock(mu_);
    stopping_ = true;
  }
  wake_.signal();
}

void LineReader::join() {
  if (thread_.joinable()) thread_.join();
}

void LineReader::consumed(std::size_t bytes) {
  {
    std::lock_guard lock(mu_);
    pending_bytes_ -= std::min(bytes, pending_bytes_);
    if (pending_lines_ > 0) --pending_lines_;
  }
  room_.signal();
}

bool LineReader::wait_readable() {
  for (;;) {
    pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_.fd(), POLLIN, 0}};
    int r = ::poll(fds, 2, -1);
    if (r < 0) {
      if (errno == EINTR) continue;
      return true;  // let read() report the problem
    }
    if (fds[1].revents != 0) return false;
    if (fds[0].revents != 0) return true;
  }
}

bool LineReader::wait_for_room() {
  for (;;) {
    {
      std::lock_guard lock(mu_);
      if (stopping_) return false;
      if (pending_lines_ < limits_.max_pending_lines && pending_bytes_ < limits_.max_pending_bytes) return true;
    }
    // On a socket, POLLHUP means the peer has closed its end for good (a half-close sets only POLLRDHUP);
    // on a pipe it only means the writer is done, and the lines still in the pipe want their answers.
    pollfd fds[3] = {{wake_.fd(), POLLIN, 0}, {room_.fd(), POLLIN, 0}, {fd_, 0, 0}};
    int r = ::poll(fds, socket_ ? 3 : 2, -1);
    if (r < 0 && errno != EINTR) return false;
    if (fds[0].revents != 0) return false;
    if (fds[1].revents != 0) room_.clear();
    if (socket_ && (fds[2].revents & (POLLHUP | POLLERR)) != 0) {
      {
        std::lock_guard lock(mu_);
        if (stopping_) return false;
      }
      deliver_(InputEvent{InputEvent::Kind::end, kHungUp, 0});
      return false;
    }
  }
}

bool LineReader::deliver_line(std::string line) {
  if (!wait_for_room()) return false;
  std::size_t size = line.size() + 1;
  {
    std::lock_guard lock(mu_);
    if (stopping_) return false;
    pending_bytes_ += size;
    ++pending_lines_;
  }
  deliver_(InputEvent{InputEvent::Kind::line, std::move(line), size});
  return true;
}

void LineReader::run() {
  std::string line;
  bool skipping = false;
  std::size_t skipped = 0;
  std::string buffer(kReadChunk, '\0');
  auto stopping = [this] {
    std::lock_guard lock(mu_);
    return stopping_;
  };

  for (;;) {
    if (!wait_readable()) return;
    ssize_t n = ::read(fd_, buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
      std::string error = std::strerror(errno);
      if (!stopping()) deliver_(InputEvent{InputEvent::Kind::end, "read error: " + error, 0});
      return;
    }
    if (n == 0) {
      if (skipping) {
        if (!stopping()) deliver_(InputEvent{InputEvent::Kind::oversized, {}, skipped});
      } else if (!line.empty()) {
        if (!deliver_line(std::move(line))) return;
      }
      if (!stopping()) deliver_(InputEvent{InputEvent::Kind::end, {}, 0});
      return;
    }

    const char* p = buffer.data();
    const char* end = p + n;
    while (p < end) {
      const char* nl = static_cast<const char*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
      const char* stop = nl != nullptr ? nl : end;
      auto len = static_cast<std::size_t>(stop - p);
      if (skipping) {
        skipped += len;
      } else if (line.size() + len > limits_.max_line) {
        skipping = true;
        skipped = line.size() + len;
        std::string().swap(line);  // give the memory back now, not at the next line
      } else {
        line.append(p, len);
      }
      if (nl == nullptr) break;
      if (skipping) {
        if (stopping()) return;
        deliver_(InputEvent{InputEvent::Kind::oversized, {}, skipped});
        skipping = false;
        skipped = 0;
      } else {
        if (!deliver_line(std::move(line))) return;
        line = std::string();
      }
      p = nl + 1;
    }
  }
}

// ---- LineWriter ----

LineWriter::LineWriter(int fd, std::size_t soft_limit) : fd_(fd), soft_limit_(soft_limit) {
  thread_ = std::thread([this] { run(); });
}

LineWriter::~LineWriter() { abort(); }

void LineWriter::abort() {
  {
    std::lock_guard lock(mu_);
    aborting_ = true;
  }
  work_.notify_all();
  wake_.signal();
  if (thread_.joinable()) thread_.join();
}

bool LineWriter::send(std::string message, bool droppable, Done done) {
  message += '\n';
  bool refused = false;
  {
    std::lock_guard lock(mu_);
    refused = closing_ || aborting_ || broken_;
    if (!refused && droppable && queued_bytes_ > soft_limit_) {
      if (dropped_++ == 0) {
        logger()->warn("MCP client is not reading its output; dropping notifications until it catches up");
      }
      refused = true;
    }
    if (!refused) {
      queued_bytes_ += message.size();
      queue_.push_back(Message{std::move(message), std::move(done)});
      done = nullptr;
    }
  }
  if (done) done();  // refused: it has left at once
  if (refused) return false;
  work_.notify_one();
  return true;
}

void LineWriter::abandon_queue() {
  for (auto& m : queue_) {
    if (m.done) m.done();
  }
  queue_.clear();
  queued_bytes_ = 0;
}

bool LineWriter::close(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mu_);
  closing_ = true;
  work_.notify_all();
  if (!idle_.wait_for(lock, timeout, [&] { return finished_; })) {
    aborting_ = true;
    lock.unlock();
    work_.notify_all();
    wake_.signal();
    logger()->warn("MCP output not flushed in time; dropping what is left");
  } else {
    lock.unlock();
  }
  if (thread_.joinable()) thread_.join();
  lock.lock();
  return finished_ && !broken_ && !aborting_ && queue_.empty();
}

std::size_t LineWriter::queued_bytes() const {
  std::lock_guard lock(mu_);
  return queued_bytes_;
}

std::uint64_t LineWriter::dropped() const {
  std::lock_guard lock(mu_);
  return dropped_;
}

bool LineWriter::broken() const {
  std::lock_guard lock(mu_);
  return broken_;
}

bool LineWriter::write_all(const std::string& data) {
  std::size_t offset = 0;
  while (offset < data.size()) {
    pollfd fds[2] = {{fd_, POLLOUT, 0}, {wake_.fd(), POLLIN, 0}};
    int r = ::poll(fds, 2, -1);
    if (r < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (fds[1].revents != 0) return false;
    std::size_t chunk = std::min(data.size() - offset, kWriteChunk);
    ssize_t n = ::write(fd_, data.data() + offset, chunk);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
      logger()->warn("MCP output failed: {}", std::strerror(errno));
      return false;
    }
    offset += static_cast<std::size_t>(n);
  }
  return true;
}

void LineWriter::run() {
  sigset_t pipe_signal;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);

  std::string batch;
  std::vector<Done> written;
  for (;;) {
    {
      std::unique_lock lock(mu_);
      work_.wait(lock, [&] { return aborting_ || closing_ || !queue_.empty(); });
      if (aborting_ || queue_.empty()) break;
      batch.clear();
      written.clear();
      while (!queue_.empty() && batch.size() < kBatch) {
        batch += queue_.front().text;
        if (queue_.front().done) written.push_back(std::move(queue_.front().done));
        queue_.pop_front();
      }
    }
    bool ok = write_all(batch);
    for (auto& done : written) done();
    std::lock_guard lock(mu_);
    queued_bytes_ -= batch.size();
    if (!ok) {
      if (!aborting_) broken_ = true;
      abandon_queue();
      break;
    }
  }
  {
    std::lock_guard lock(mu_);
    abandon_queue();  // what an abort left behind
    finished_ = true;
  }
  idle_.notify_all();
}

}  // namespace brenloc::mcp
