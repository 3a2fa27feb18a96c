// What the fuzz targets do when an invariant fails: say which, with the input's details, and abort, so that
// libFuzzer saves the input and a replay stops at it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <type_traits>

namespace brenloc::fuzz {

[[noreturn]] inline void fail(const std::string& what) {
  std::fprintf(stderr, "\nFUZZ INVARIANT BROKEN: %s\n", what.c_str());
  std::fflush(stderr);
  std::abort();
}

inline void check(bool ok, const std::string& what) {
  if (!ok) fail(what);
}

// The same with the message made only when the check fails, for checks that run many times per input.
template <class Message>
requires std::is_invocable_r_v<std::string, Message>
void check(bool ok, Message&& what) {
  if (!ok) fail(what());
}

// `text` with control characters, quotes and bytes above 0x7e escaped, cut to `limit` bytes.
inline std::string shown(const std::string& text, std::size_t limit = 300) {
  std::string out;
  for (std::size_t i = 0; i < text.size() && i < limit; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c > 0x7e || c == '"' || c == '\\') {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\x%02x", c);
      out += buf;
    } else {
      out += static_cast<char>(c);
    }
  }
  if (text.size() > limit) out += "...(" + std::to_string(text.size()) + " bytes)";
  return '"' + out + '"';
}

}  // namespace brenloc::fuzz
