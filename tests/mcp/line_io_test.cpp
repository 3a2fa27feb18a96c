// Line reading and writing on pipes: line splitting across reads, overlong lines, flow control, a
// client that does not read, a client that has gone.
#include "brenloc/mcp/line_io.h"

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "server_harness.h"

namespace brenloc::mcp {
namespace {

using testing::Pipe;
using namespace std::chrono_literals;

// A reader whose events go into a pipe as short lines: "L:<text>", "O:<size>", "E<error>".
struct Reader {
  Reader(int fd, std::size_t max_line, std::size_t max_pending, std::size_t max_lines = 1000)
      : reader(fd, ReadLimits{max_line, max_pending, max_lines}, [this](InputEvent ev) {
          using enum InputEvent::Kind;
          events.write((ev.kind == line ? "L:" + ev.text : ev.kind == oversized ? "O:" + std::to_string(ev.size)
                                                                                : "E" + ev.text) + "\n");
        }) {
    reader.start();
  }
  Pipe events;
  LineReader reader;
};

TEST(LineReader, SplitsLinesHoweverTheBytesArrive) {
  struct Case {
    const char* name;
    std::vector<std::string> writes;  // written one after another with pauses, so reads see the pieces
    std::vector<std::string> events;
  };
  const std::vector<Case> cases = {
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
    Reader r(in.r, 8, 1 << 20);
    for (const auto& w : c.writes) {
      in.write(w);
      std::this_thread::sleep_for(5ms);
    }
    in.close_write();
    for (const auto& e : c.events) EXPECT_EQ(r.events.next_line(), e);
    r.reader.join();
  }
}

TEST(LineReader, WaitsForTheConsumerBeyondThePendingLimit) {
  Pipe in;
  Reader r(in.r, 100, 10);  // each line of "xxxx\n" counts five bytes; at most ten may wait unconsumed
  in.write("xxxx\nxxxx\nxxxx\nxxxx\n");
  EXPECT_EQ(r.events.next_line(), "L:xxxx");
  EXPECT_EQ(r.events.next_line(), "L:xxxx");
  EXPECT_EQ(r.events.next_line(100ms), std::nullopt);
  r.reader.consumed(5);
  EXPECT_EQ(r.events.next_line(), "L:xxxx");
  r.reader.consumed(5);
  r.reader.consumed(5);
  EXPECT_EQ(r.events.next_line(), "L:xxxx");
  // stop() also ends a reader that waits for room or for input.
  r.reader.stop();
  r.reader.join();
}

TEST(LineWriter, WritesInOrderAndFlushesOnClose) {
  Pipe out;
  std::string got;
  std::thread client([&] {
    while (auto line = out.next_line(2000ms)) got += *line + "\n";
  });
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
  EXPECT_EQ(got + out.buffer, expected);
}

TEST(LineWriter, DropsOnlyNotificationsWhenTheClientDoesNotRead) {
  Pipe out;
  LineWriter writer(out.w, 4096);
  // Nobody reads: the pipe fills and the rest waits in the queue, send() never blocks.
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(writer.send(std::string(1000, 'a')));
  EXPECT_FALSE(writer.send("note", true));
  EXPECT_EQ(writer.dropped(), 1u);
  EXPECT_GT(writer.queued_bytes(), 4096u);
  EXPECT_FALSE(writer.close(100ms));  // a close that cannot finish gives up after its timeout
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
  const std::vector<std::pair<std::string, bool>> cases = {
      {"[[[]]]", true},          {"[[[[]]]]", false},        {R"({"a":{"b":[1]}})", true},
      {R"({"a":{"b":[{}]}})", false}, {R"(["[[[[[[[["])", true}, {R"(["\"[[[[[[["])", true},
      {"]]]]][[[", true},
      {R"(["\\",[[[]]]])", false},  // the escaped backslash closes nothing: the string ends there
  };
  for (const auto& [text, ok] : cases) EXPECT_EQ(!check_shape(text, ShapeLimits{3}).has_value(), ok) << text;
}

}  // namespace
}  // namespace brenloc::mcp
