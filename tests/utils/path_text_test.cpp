// The text form of file names: which bytes are escaped and how, that every text form reads back as the
// bytes it came from, and that it is always text JSON accepts.
#include "brenloc/utils/path_text.h"

#include <random>

#include <gtest/gtest.h>
#include "brenloc/json.h"

#include "brenloc/utils/utf8.h"

namespace brenloc::utils {
namespace {

// Whether nlohmann's strict dump takes `s`: the test of text that answers must pass.
bool json_takes(const std::string& s) {
  try {
    (void)nlohmann::json(s).dump();
    return true;
  } catch (const nlohmann::json::type_error&) {
    return false;
  }
}

TEST(PathText, EscapesExactlyTheBytesThatAreNoTextAndTheBackslashesThatWouldMisread) {
  struct Case {
    std::string bytes, text;
  };
  const Case cases[] = {
      {"src/main.c", "src/main.c"},
      {"", ""},
      {"b\xff.py", "b\\xff.py"},
      {"caf\xc3\xa9/x.py", "caf\xc3\xa9/x.py"},                 // UTF-8 stays
      {"caf\xe9/x.py", "caf\\xe9/x.py"},                        // Latin-1 does not
      {"\xf0\x9f\x98\x80.rs", "\xf0\x9f\x98\x80.rs"},           // four bytes
      {"\xc0\xaf", "\\xc0\\xaf"},                               // overlong
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},                      // a surrogate
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},             // past U+10FFFF
      {"\xe2\x82.c", "\\xe2\\x82.c"},                           // cut short
      {"a\\b.py", "a\\b.py"},                                   // a backslash that reads as itself
      {"a\\", "a\\"},
      {"a\\x41", "a\\x41"},                                     // not an escape: below 80
      {"a\\xFF", "a\\xFF"},                                     // not an escape: upper case
      {"a\\xff", "a\\\\xff"},                                   // would read as an escape
      {"a\\\\b", "a\\\\\\b"},                                   // before a backslash
      {"a\\\xff", "a\\\\\\xff"},                                // before an escaped byte
      {"\xff\\x80", "\\xff\\\\x80"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.bytes));
    EXPECT_EQ(path_text(c.bytes), c.text);
    EXPECT_EQ(path_bytes(c.text), c.bytes);
  }
}

TEST(PathText, TextThatEncodingNeverWritesStillReadsAsSomething) {
  const std::pair<std::string, std::string> cases[] = {
      {"\\xc3\\xa9", "\xc3\xa9"},  // escaped bytes that happen to form a character
      {"\\x00/a", "\\x00/a"},      // no escape names a byte below 80: no NUL, no '/'
      {"\\x2f", "\\x2f"},
      {"\\q\\", "\\q\\"},
      {"\\\\", "\\"},
  };
  for (const auto& [text, bytes] : cases) EXPECT_EQ(path_bytes(text), bytes) << text;
  EXPECT_EQ(path_under("/r", ""), "/r");
  EXPECT_EQ(path_under("/r", "d\\xfe/b\\xff.py"), "/r/d\xfe/b\xff.py");
}

// Random byte strings made of what the rules turn on: they come back whole, and their text passes JSON;
// replacing (for text that is not a path) also passes, and leaves well-formed text alone.
TEST(PathText, RandomBytesRoundTripAndAlwaysMakeText) {
  const std::string alphabet = std::string("\\x8fa0/A.", 9) + "\xff\xc3\xa9\xe2\x82\xac\xed\xa0\xf0\x9f\x98\x80\xc0";
  std::mt19937 rng(7);
  for (int i = 0; i < 50000; ++i) {
    std::string bytes(rng() % 12, '\0');
    for (char& b : bytes) b = alphabet[rng() % alphabet.size()];
    SCOPED_TRACE(::testing::PrintToString(bytes));
    const std::string text = path_text(bytes);
    ASSERT_EQ(path_bytes(text), bytes);
    ASSERT_TRUE(json_takes(text));
    ASSERT_EQ(is_utf8(bytes), json_takes(bytes));
    if (is_utf8(bytes) && bytes.find('\\') == std::string::npos) ASSERT_EQ(text, bytes);
    const std::string replaced = utf8_or_replaced(bytes);
    ASSERT_TRUE(json_takes(replaced));
    if (is_utf8(bytes)) ASSERT_EQ(replaced, bytes);
  }
}

}  // namespace
}  // namespace brenloc::utils
