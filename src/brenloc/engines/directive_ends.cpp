#include "brenloc/engines/directive_ends.h"

namespace brenloc::engines {

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

bool end_directive_lines(std::string& text) {
  bool changed = false;
  bool continued = false;  // the line goes on with the directive of the line before
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t eol = text.find('\n', pos);
    if (eol == std::string::npos) eol = text.size();
    std::size_t begin = pos;
    while (begin < eol && is_blank(text[begin])) ++begin;
    const bool directive = continued || (begin < eol && text[begin] == '#');
    // The white space that ends the line, with the carriage return of a CRLF line.
    std::size_t last = eol;
    if (last > begin && text[last - 1] == '\r') --last;
    while (last > begin && is_blank(text[last - 1])) --last;
    continued = directive && last > begin && text[last - 1] == '\\';
    const std::size_t tail = eol - last;
    const bool blank_tail = tail > 0 && is_blank(text[last]);
    if (directive && !continued && blank_tail && eol < text.size()) {
      if (tail >= 2) {
        text.replace(last, tail, "//" + std::string(tail - 2, ' '));
      } else {
        text[last] = '\r';  // the parser ends a directive at "\r\n" as at "\n"
      }
      changed = true;
    }
    pos = eol + 1;
  }
  return changed;
}

}  // namespace brenloc::engines
