#include "brenloc/utils/utf8.h"

namespace brenloc::utils {

std::size_t utf8_sequence_at(std::string_view text, std::size_t at) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char b0 = byte(at);
  if (b0 < 0x80) return 1;
  std::size_t length;
  unsigned char low = 0x80, high = 0xBF;  // the range of the second byte
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    length = 2;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    length = 3;
    if (b0 == 0xE0) low = 0xA0;   // no overlong forms
    if (b0 == 0xED) high = 0x9F;  // no surrogates
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    length = 4;
    if (b0 == 0xF0) low = 0x90;   // no overlong forms
    if (b0 == 0xF4) high = 0x8F;  // nothing past U+10FFFF
  } else {
    return 0;
  }
  if (text.size() - at < length) return 0;
  if (byte(at + 1) < low || byte(at + 1) > high) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80) return 0;
  }
  return length;
}

bool is_utf8(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t n = utf8_sequence_at(text, at);
    if (n == 0) return false;
    at += n;
  }
  return true;
}

std::string utf8_or_replaced(std::string_view text) {
  if (is_utf8(text)) return std::string(text);
  std::string out;
  out.reserve(text.size() + 16);
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t n = utf8_sequence_at(text, at);
    if (n == 0) {
      out += "\xEF\xBF\xBD";
      ++at;
    } else {
      out.append(text, at, n);
      at += n;
    }
  }
  return out;
}

}  // namespace brenloc::utils
