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
  // Takes the signal back (after poll() has seen it), so that the next poll() waits again.
  void clear();

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

// How much input a reader may hand on ahead of its consumer.
struct ReadLimits {
  std::size_t max_line = 8 * 1024 * 1024;           // a longer line is skipped and reported as oversized
  std::size_t max_pending_bytes = 32 * 1024 * 1024;  // of delivered lines not yet reported consumed
  std::size_t max_pending_lines = 4;                 // delivered lines not yet reported consumed
};

// Reads lines from `fd` on its own thread. Lines longer than `max_line` bytes are not kept: their
// bytes are counted and skipped up to the next newline, and the stream goes on after it.
//
// Flow control: the reader stops reading while more than `max_pending_lines` lines, or lines of more
// than `max_pending_bytes` bytes, have been delivered and not reported back through consumed() (with
// each line event's `size`), so a client that writes faster than the server handles requests fills
// its socket or pipe rather than the daemon's memory. While it waits so on a socket, a peer that has
// closed the connection ends the input at once (an `end` event with the text "hung up"): what the
// client still had in the socket is not read, as nobody is left to answer.
class LineReader {
 public:
  using Deliver = std::function<void(InputEvent)>;  // called on the reader thread

  LineReader(int fd, ReadLimits limits, Deliver deliver);
  ~LineReader();  // stop() and join()
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  void start();
  // Makes the thread end soon without delivering anything more. Does not wait; safe from any thread.
  void stop();
  void join();
  // Reports a delivered line of `bytes` (its event's `size`) as handled. Safe from any thread.
  void consumed(std::size_t bytes);

  static constexpr const char* kHungUp = "hung up";

 private:
  void run();
  bool deliver_line(std::string line);  // false when stopping or the peer hung up
  bool wait_for_room();                 // likewise
  bool wait_readable();                 // false when stopping

  int fd_;
  ReadLimits limits_;
  bool socket_ = false;
  Deliver deliver_;
  WakeFd wake_;  // stop
  WakeFd room_;  // consumed() made room
  std::mutex mu_;
  std::size_t pending_bytes_ = 0;
  std::size_t pending_lines_ = 0;
  bool stopping_ = false;
  std::thread thread_;
};

// Writes messages to `fd` on its own thread, in the order they were sent, one per line.
//
// send() never blocks. While more than `soft_limit` bytes wait, droppable messages (notifications)
// are dropped rather than queued; answers are always queued (the server bounds them by the requests it
// takes in). A broken output (the client has gone) makes every later send a no-op. SIGPIPE is blocked on
// the writer thread: a write to a closed pipe fails with EPIPE instead of ending the process.
class LineWriter {
 public:
  // Told once a message has left (written, or abandoned because the output broke or the writer
  // stopped). Runs on the writer thread, or inside send() for a message that send() refuses.
  using Done = std::function<void()>;

  LineWriter(int fd, std::size_t soft_limit);
  ~LineWriter();  // abort()
  LineWriter(const LineWriter&) = delete;
  LineWriter& operator=(const LineWriter&) = delete;

  // Queues `message` (a newline is added). Returns false when it was dropped or the writer is closed
  // or broken. Safe from any thread.
  bool send(std::string message, bool droppable = false, Done done = nullptr);

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
  struct Message {
    std::string text;
    Done done;
  };
  void run();
  bool write_all(const std::string& data);  // false when aborted or broken
  void abandon_queue();                     // with mu_ held: tells every queued message's `done`

  int fd_;
  std::size_t soft_limit_;
  WakeFd wake_;
  mutable std::mutex mu_;
  std::condition_variable work_;
  std::condition_variable idle_;
  std::deque<Message> queue_;
  std::size_t queued_bytes_ = 0;
  std::uint64_t dropped_ = 0;
  bool closing_ = false;
  bool aborting_ = false;
  bool broken_ = false;
  bool finished_ = false;
  std::thread thread_;
};

}  // namespace brenloc::mcp
