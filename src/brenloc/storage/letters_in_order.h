// Whether names hold the letters of a text in order, ignoring ASCII case (as holds_in_order() says),
// sixteen bytes of a name at a time: the test that a fuzzy search makes of every name of an index.
//
// The test may read up to kPadding bytes past the end of a name: the caller's buffer must hold them.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace brenloc::storage {

class LettersInOrder {
 public:
  static constexpr std::size_t kPadding = 64;

  // `folded`: ASCII letters in lower case.
  explicit LettersInOrder(std::string_view folded) : folded_(folded) {}

  bool operator()(std::string_view name) const;

 private:
  std::string folded_;
};

}  // namespace brenloc::storage
