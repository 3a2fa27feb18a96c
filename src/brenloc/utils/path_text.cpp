#include "brenloc/utils/path_text.h"

#include <algorithm>

#include "brenloc/utils/utf8.h"

namespace brenloc::utils {

namespace {

constexpr char kHex[] = "0123456789abcdef";

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// The byte that the escape at `text[at]` ("\xHH", HH from 80 to ff in lower case) stands for, or -1.
int escaped_byte(std::string_view text, std::size_t at) {
  if (text.size() - at < 4 || text[at] != '\\' || text[at + 1] != 'x') return -1;
  const int high = hex_value(text[at + 2]), low = hex_value(text[at + 3]);
  if (high < 8 || low < 0) return -1;
  return high * 16 + low;
}

// Whether "x" and two such digits start at `bytes[at]`.
bool escape_body_at(std::string_view bytes, std::size_t at) {
  return bytes.size() - at >= 3 && bytes[at] == 'x' && hex_value(bytes[at + 1]) >= 8 && hex_value(bytes[at + 2]) >= 0;
}

}  // namespace

std::string path_text(std::string_view bytes) {
  // Most paths are plain ASCII without a backslash: they stand for themselves.
  if (std::ranges::none_of(bytes, [](char c) { return c == '\\' || static_cast<unsigned char>(c) >= 0x80; })) {
    return std::string(bytes);
  }
  std::string out;
  out.reserve(bytes.size());
  for (std::size_t at = 0; at < bytes.size();) {
    const char c = bytes[at];
    if (c == '\\') {
      // Doubled when what comes next in the text starts with a backslash (a backslash, or a byte written
      // as an escape) or reads as the rest of an escape.
      const std::size_t next = at + 1;
      const bool doubled = next < bytes.size() && (bytes[next] == '\\' || utf8_sequence_at(bytes, next) == 0 ||
                                                   escape_body_at(bytes, next));
      out += doubled ? "\\\\" : "\\";
      ++at;
      continue;
    }
    const std::size_t n = utf8_sequence_at(bytes, at);
    if (n == 0) {
      const auto b = static_cast<unsigned char>(c);
      out += "\\x";
      out += kHex[b >> 4];
      out += kHex[b & 0xF];
      ++at;
    } else {
      out.append(bytes, at, n);
      at += n;
    }
  }
  return out;
}

std::string path_bytes(std::string_view text) {
  if (text.find('\\') == std::string_view::npos) return std::string(text);
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    if (text[at] == '\\' && at + 1 < text.size() && text[at + 1] == '\\') {
      out += '\\';
      at += 2;
    } else if (const int b = escaped_byte(text, at); b >= 0) {
      out += static_cast<char>(b);
      at += 4;
    } else {
      out += text[at++];
    }
  }
  return out;
}

std::filesystem::path path_under(const std::filesystem::path& root, std::string_view rel) {
  if (rel.empty()) return root;
  return root / path_bytes(rel);
}

std::string nul_spelt(std::string_view text) {
  std::string shown;
  for (char c : text) {
    if (c == '\0') {
      shown += "\\0";
    } else {
      shown += c;
    }
  }
  return shown;
}

}  // namespace brenloc::utils
