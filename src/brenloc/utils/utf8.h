// Well-formed UTF-8, as JSON needs it: which bytes of a string form characters, and text made safe to
// answer by putting U+FFFD in place of each byte that does not.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace brenloc::utils {

// The length (1 to 4) of the well-formed UTF-8 sequence that starts at `text[at]`, or 0 when none does
// (a stray continuation byte, a sequence cut short, an overlong form, a surrogate, or past U+10FFFF).
std::size_t utf8_sequence_at(std::string_view text, std::size_t at);

bool is_utf8(std::string_view text);

// `text` with each byte that starts no well-formed sequence replaced by U+FFFD; `text` itself when it is
// well formed already.
std::string utf8_or_replaced(std::string_view text);

}  // namespace brenloc::utils
