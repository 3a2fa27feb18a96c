// Where C and C++ text holds comments and string or character literals, found by a lexer of its own (no
// parser). Where the parser recovered from an error it may read the words of a string or a comment as
// names; these spans say which of its leaves are not code.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace brenloc::engines {

struct QuotedSpan {
  std::uint32_t begin, end;  // [begin, end) bytes of a comment or a literal, quotes included
};

// The spans, in order and apart. Follows the lexer of a compiler: a backslash at the end of a line joins
// it to the next (in comments and literals too), `/*` does not nest, raw strings (R"x(...)x", with their
// prefixes) end only at their delimiter, `'` inside a number separates digits, a literal left open ends
// at its line's end, and the text of `#error`, `#warning` and `#include` lines is neither.
std::vector<QuotedSpan> c_quoted_spans(std::string_view text);

// Whether `at` lies in one of `spans`.
bool in_quoted_span(const std::vector<QuotedSpan>& spans, std::uint32_t at);

}  // namespace brenloc::engines
