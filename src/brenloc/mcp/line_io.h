// Newline-delimited input and output on file descriptors, each on a thread of its own, so that the
// event loop never blocks on a slow or silent client.
//
// Neither class owns its descriptor, and neither changes its flags (stdin and stdout are shared with
// the parent process). Both wait in poll() beside an eventfd, so that stopping them never depends on
// the client reading or writing again.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace brenloc::mcp {

// A descriptor-based wake-up signal for a thread waiting in poll().
class WakeFd {
 public:
  WakeFd();
  ~WakeFd();
  WakeFd(const WakeFd&) = delete;
  WakeFd& operator=(const WakeFd&) = delete;
  int fd() const { return fd_; }
  void signal();

 private:
  int fd_ = -1;
};

// What the reader hands on, in input order.
struct InputEvent {
  enum class Kind {
    line,       // `text` is one line without its newline (a last line without one counts too)
    oversized,  // a line longer than the limit was skipped; `size` is its length in bytes
    end,        // end of input, or a read error (`text` then says which); nothing follows
  };
  Kind kind = Kind::line;
  std::string text;
  std::size_t size = 0;  // bytes of input: a line's with its newline, a skipped line's without
};

// Reads lines from `fd` on its own thread. Lines longer than `max_line` bytes are not kept: their
// bytes are counted and skipped up to the next newline, and the stream goes on after it.
//
// Flow control: the reader stops reading while more than `max_pending` bytes of delivered lines have
// not been reported back through consumed() (with each line event's `size`), so a client that writes
// faster than the server handles requests fills the pipe rather than the daemon's memory.
class LineReader {
 public:
  using Deliver = std::function<void(InputEvent)>;  // called on the reader thread

  LineReader(int fd, std::size_t max_line, std::size_t max_pending, Deliver deliver);
  ~LineReader();  // stop() and join()
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  void start();
  // Makes the thread end soon without delivering anything more. Does not wait; safe from any thread.
  void stop();
  void join();
  // Reports a delivered line of `bytes` (its event's `size`) as handled. Safe from any thread.
  void consumed(std::size_t bytes);

 private:
  void run();
  bool deliver_line(std::string line);  // false when stopping
  bool wait_readable();                 // false when stopping

  int fd_;
  std::size_t max_line_;
  std::size_t max_pending_;
  Deliver deliver_;
  WakeFd wake_;
  std::mutex mu_;
  std::condition_variable room_;
  std::size_t pending_ = 0;
  bool stopping_ = false;
  std::thread thread_;
};

// Writes messages to `fd` on its own thread, in the order they were sent, one per line.
//
// send() never blocks. While more than `soft_limit` bytes wait, droppable messages (notifications)
// are dropped rather than queued; answers are always queued. A broken output (the client has gone)
// makes every later send a no-op. SIGPIPE is blocked on the writer thread: a write to a closed pipe
// fails with EPIPE instead of ending the process.
class LineWriter {
 public:
  LineWriter(int fd, std::size_t soft_limit);
  ~LineWriter();  // abort()
  LineWriter(const LineWriter&) = delete;
  LineWriter& operator=(const LineWriter&) = delete;

  // Queues `message` (a newline is added). Returns false when it was dropped or the writer is closed
  // or broken. Safe from any thread.
  bool send(std::string message, bool droppable = false);

  // Takes no more messages and waits until the queued ones are written, the output breaks or
  // `timeout` passes, then ends the thread. Blocks: call it off the event loop. Returns true when
  // everything queued was written.
  bool close(std::chrono::milliseconds timeout);
  // Stops at once, abandoning what is still queued, and joins the thread. Idempotent.
  void abort();

  std::size_t queued_bytes() const;
  std::uint64_t dropped() const;
  bool broken() const;

 private:
  void run();
  bool write_all(const std::string& data);  // false when aborted or broken

  int fd_;
  std::size_t soft_limit_;
  WakeFd wake_;
  mutable std::mutex mu_;
  std::condition_variable work_;
  std::condition_variable idle_;
  std::deque<std::string> queue_;
  std::size_t queued_bytes_ = 0;
  std::uint64_t dropped_ = 0;
  bool closing_ = false;
  bool aborting_ = false;
  bool broken_ = false;
  bool finished_ = false;
  std::thread thread_;
};

}  // namespace brenloc::mcp
