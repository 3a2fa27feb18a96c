// Line reading and writing on pipes: line splitting across reads, overlong lines, flow control, a
// client that does not read, a client that has gone.
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "brenloc/mcp/line_io.h"
#include "brenloc/mcp/protocol.h"

namespace brenloc::mcp {
namespace {

using namespace std::chrono_literals;

struct Pipe {
  Pipe() {
    int fds[2];
    if (::pipe(fds) != 0) throw std::runtime_error("pipe");
    r = fds[0];
    w = fds[1];
  }
  ~Pipe() {
    close_read();
    close_write();
  }
  void close_read() {
    if (r >= 0) ::close(std::exchange(r, -1));
  }
  void close_write() {
    if (w >= 0) ::close(std::exchange(w, -1));
  }
  void write(const std::string& s) const {
    for (std::size_t off = 0; off < s.size();) {
      ssize_t n = ::write(w, s.data() + off, s.size() - off);
      if (n <= 0) throw std::runtime_error("write");
      off += static_cast<std::size_t>(n);
    }
  }
  // Everything until end of file, or what came within `quiet` of silence.
  std::string drain(std::chrono::milliseconds quiet = 2000ms) const {
    std::string out;
    char buf[65536];
    for (;;) {
      pollfd p{r, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(quiet.count())) <= 0) return out;
      ssize_t n = ::read(r, buf, sizeof buf);
      if (n <= 0) return out;
      out.append(buf, static_cast<std::size_t>(n));
    }
  }
  int r = -1, w = -1;
};

// Collects what a reader delivers, as short strings: "L:<text>", "O:<size>", "E".
struct Collector {
  void add(InputEvent ev) {
    std::lock_guard lock(mu);
    switch (ev.kind) {
      case InputEvent::Kind::line: events.push_back("L:" + ev.text); break;
      case InputEvent::Kind::oversized: events.push_back("O:" + std::to_string(ev.size)); break;
      case InputEvent::Kind::end: events.push_back("E" + ev.text); break;
    }
    cv.notify_all();
  }
  bool wait_for(std::size_t n, std::chrono::milliseconds timeout = 5000ms) {
    std::unique_lock lock(mu);
    return cv.wait_for(lock, timeout, [&] { return events.size() >= n; });
  }
  std::vector<std::string> snapshot() {
    std::lock_guard lock(mu);
    return events;
  }
  std::mutex mu;
  std::condition_variable cv;
  std::vector<std::string> events;
};

struct Split {
  const char* name;
  std::vector<std::string> writes;  // written one after another with pauses, so reads see the pieces
  std::vector<std::string> events;
};

TEST(LineReader, SplitsLinesHoweverTheBytesArrive) {
  const std::vector<Split> cases = {
      {"one per write", {"a\n", "bb\n"}, {"L:a", "L:bb", "E"}},
      {"several in one write", {"a\nb\nc\n"}, {"L:a", "L:b", "L:c", "E"}},
      {"a line split across writes", {"ab", "cd\ne", "f\n"}, {"L:abcd", "L:ef", "E"}},
      {"last line without a newline", {"a\nlast"}, {"L:a", "L:last", "E"}},
      {"empty lines are lines", {"\n\nx\n"}, {"L:", "L:", "L:x", "E"}},
      {"carriage returns are kept", {"a\r\n"}, {"L:a\r", "E"}},
      {"the limit itself is allowed", {"12345678\n"}, {"L:12345678", "E"}},
      {"one byte over is not", {"123456789\nok\n"}, {"O:9", "L:ok", "E"}},
      {"overlong across writes", {"12345", "67890", "12\nok\n"}, {"O:12", "L:ok", "E"}},
      {"overlong at the end of input", {"ok\n1234567890"}, {"L:ok", "O:10", "E"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Pipe in;
    Collector got;
    LineReader reader(in.r, 8, 1 << 20, [&](InputEvent ev) { got.add(std::move(ev)); });
    reader.start();
    for (const auto& w : c.writes) {
      in.write(w);
      std::this_thread::sleep_for(5ms);
    }
    in.close_write();
    ASSERT_TRUE(got.wait_for(c.events.size()));
    reader.join();
    EXPECT_EQ(got.snapshot(), c.events);
  }
}

TEST(LineReader, WaitsForTheConsumerBeyondThePendingLimit) {
  Pipe in;
  Collector got;
  // Each line of "xxxx\n" counts five bytes; at most ten may wait unconsumed.
  LineReader reader(in.r, 100, 10, [&](InputEvent ev) { got.add(std::move(ev)); });
  reader.start();
  in.write("xxxx\nxxxx\nxxxx\nxxxx\n");
  ASSERT_TRUE(got.wait_for(2));
  EXPECT_FALSE(got.wait_for(3, 100ms));
  reader.consumed(5);
  ASSERT_TRUE(got.wait_for(3));
  reader.consumed(5);
  reader.consumed(5);
  ASSERT_TRUE(got.wait_for(4));
  // stop() also ends a reader that waits for room or for input.
  reader.stop();
  reader.join();
}

TEST(LineWriter, WritesInOrderAndFlushesOnClose) {
  Pipe out;
  std::string got;
  std::thread client([&] { got = out.drain(); });
  LineWriter writer(out.w, 1 << 20);
  std::string expected;
  for (int i = 0; i < 2000; ++i) {
    std::string m = "message " + std::to_string(i) + std::string(static_cast<std::size_t>(i % 50), '.');
    ASSERT_TRUE(writer.send(m));
    expected += m + "\n";
  }
  EXPECT_TRUE(writer.close(5000ms));
  EXPECT_FALSE(writer.send("after close"));
  out.close_write();
  client.join();
  EXPECT_EQ(got, expected);
}

TEST(LineWriter, DropsOnlyNotificationsWhenTheClientDoesNotRead) {
  Pipe out;
  LineWriter writer(out.w, 4096);
  const std::string answer(1000, 'a');
  // Nobody reads: the pipe fills and the rest waits in the queue, send() never blocks.
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(writer.send(answer));
  EXPECT_FALSE(writer.send("note", true));
  EXPECT_EQ(writer.dropped(), 1u);
  EXPECT_GT(writer.queued_bytes(), 4096u);

  // A close that cannot finish gives up after its timeout.
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_FALSE(writer.close(100ms));
  EXPECT_LT(std::chrono::steady_clock::now() - t0, 5s);
}

TEST(LineWriter, SurvivesAClientThatHasGone) {
  Pipe out;
  out.close_read();
  LineWriter writer(out.w, 1 << 20);
  writer.send("into the void");  // EPIPE, not SIGPIPE
  for (int i = 0; i < 500 && !writer.broken(); ++i) std::this_thread::sleep_for(2ms);
  EXPECT_TRUE(writer.broken());
  EXPECT_FALSE(writer.send("more"));
  EXPECT_FALSE(writer.close(1000ms));
}

TEST(CheckShape, CountsOnlyBracketsOutsideStrings) {
  const ShapeLimits limits{3};
  const std::vector<std::pair<std::string, bool>> cases = {
      {"[[[]]]", true},
      {"[[[[]]]]", false},
      {R"({"a":{"b":[1]}})", true},
      {R"({"a":{"b":[{}]}})", false},
      {R"(["[[[[[[[["])", true},
      {R"(["\"[[[[[[["])", true},
      {R"(["\\",[[[]]]])", false},  // the escaped backslash closes nothing: the string ends there
      {"]]]]][[[", true},
  };
  for (const auto& [text, ok] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(!check_shape(text, limits).has_value(), ok);
  }
}

}  // namespace
}  // namespace brenloc::mcp
