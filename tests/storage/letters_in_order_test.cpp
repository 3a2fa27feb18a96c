// The chunked test of letters in order agrees with the plain one, around every chunk boundary.
#include "brenloc/storage/letters_in_order.h"

#include <gtest/gtest.h>

#include <string>

#include "brenloc/storage/symbol_match.h"

namespace brenloc::storage {
namespace {

TEST(LettersInOrder, AgreesWithThePlainTest) {
  // Names of every length up to past the chunked limit, the letters of the texts placed at the ends of
  // chunks, in either case, with bytes that are not ASCII letters around them; each name sits in a buffer
  // whose bytes past its end would match if they were read as part of it.
  const std::string texts[] = {"", "a", "gsb", "statbar", "zz", "a_b", "\xc3\xa9x", "abcdefghijklmnopq"};
  for (std::size_t length = 0; length <= 70; ++length) {
    for (int variant = 0; variant < 4; ++variant) {
      std::string name(length, variant % 2 ? '@' : 'q');
      for (std::size_t i = 0; i < length; ++i) {
        if (i % 16 == 15 || i + 1 == length) name[i] = "gSsTaBr"[(i + variant) % 7];
        if (variant == 2 && i % 5 == 0) name[i] = "_\xc3\xa9xZ"[i % 4];
      }
      std::string buffer = name + std::string(LettersInOrder::kPadding, 'z') + "sgbatr";
      const std::string_view held(buffer.data(), length);
      for (const std::string& text : texts) {
        SCOPED_TRACE(testing::Message() << "name '" << name << "', text '" << text << "'");
        EXPECT_EQ(LettersInOrder(text)(held), holds_in_order(text, held));
      }
    }
  }
  const std::string name = "getStatusBar" + std::string(LettersInOrder::kPadding, '\0');
  EXPECT_TRUE(LettersInOrder("gsb")(std::string_view(name).substr(0, 12)));
  EXPECT_FALSE(LettersInOrder("bsg")(std::string_view(name).substr(0, 12)));
}

}  // namespace
}  // namespace brenloc::storage
