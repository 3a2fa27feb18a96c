// Where a file uses a name, as the index keeps it: per name, the byte offsets of its occurrences in code
// (not in comments or strings), each with its role, coded as one blob; and what the file includes or
// imports, as written. The coding lives here, in one place, for the indexer that writes it and the
// queries that read it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <cctype>
#include <vector>

namespace brenloc::storage {

// What an occurrence does with its name, as far as the grammar tells it cheaply.
enum class UseRole : std::uint8_t { other = 0, call = 1, type = 2, import = 3, definition = 4 };
inline constexpr std::string_view kUseRoleNames[] = {"other", "call", "type", "import", "definition"};

// One occurrence: where the name starts in the file (bytes) and its role.
struct Use {
  std::uint32_t offset = 0;
  UseRole role = UseRole::other;
};

// The occurrences of one name in one file, coded (see encode_uses).
struct NameUses {
  std::string_view name;
  std::string_view spots;
};

// The uses of a file's names, packed in one string (one allocation per file, however many names): each
// name as a varint length and its bytes, then its coded uses likewise.
void pack_name_uses(std::string& packed, std::string_view name, std::string_view spots);
// Calls fn(NameUses) for each name of a packed string (views into it).
template <class Fn>
void for_each_name_uses(std::string_view packed, Fn&& fn);
// The same by name key (name_key), as a file's row of uses_fresh holds them: each key in 4 bytes, then
// its coded uses as above; for_each_keyed_uses calls fn(key, spots).
void pack_keyed_uses(std::string& packed, std::int64_t key, std::string_view spots);
template <class Fn>
void for_each_keyed_uses(std::string_view packed, Fn&& fn);

// An include or import as written (`"net/socket.h"`, `<stdio.h>`, `utils.retry`, `./retry`, `mod retry`),
// with the 1-based line it is on.
struct ImportRow {
  std::string target;
  int line = 0;
};

// Coding: offsets in increasing order, as varints of the distance from the previous offset. Most blobs
// hold uses of one role: their first varint is offset << 3 | role, and the others are distances alone.
// A blob of mixed roles starts with the varint 7 (kMixedRoles), then each use is a varint of
// distance << 3 | role. decode_uses gives what a blob holds (one that ends early, what it held);
// count_uses how many of its uses have one of the roles of `roles` (a bit per role).
//
// Definitions the symbols table holds are not coded: a definition of a plain name (plain_name) whose name
// and place (line and column) are a row of symbols of its file is left out of its blob, and readers add
// it back from that row (definition_offset). Where that would not give the same uses (a row of symbols
// with no occurrence at its place, as where the parser recovered from an error), the blob starts with the
// varint 6 (kEveryDefinitionCoded): its definitions are all coded, and the rows of symbols add none. Such
// a blob may hold nothing else; a file with no row for a name gets every definition of that name from
// symbols.
//
// name_key: the key a name is stored under, 31 bits of a hash of its bytes (exact case), so that SQLite
// keeps it in 4 bytes. Two names may share one (about 230 pairs among a million names); readers check the
// name in the file's text.
//
// import_stem: the name an import is looked up by, its last part without quotes, brackets or extension
// (`"net/socket.h"` -> socket, `utils.retry` -> retry, `./retry` -> retry, `crate::a::b` -> b).


inline constexpr std::uint64_t kMixedRoles = 7;
inline constexpr std::uint64_t kEveryDefinitionCoded = 6;

inline std::string encode_uses(const std::vector<Use>& uses, bool every_definition_coded = false) {
  std::string out;
  out.reserve(uses.size() * 2 + 2);
  const bool mixed = std::any_of(uses.begin(), uses.end(), [&](const Use& u) { return u.role != uses.front().role; });
  auto put = [&](std::uint64_t v) {
    while (v >= 0x80) {
      out.push_back(static_cast<char>((v & 0x7f) | 0x80));
      v >>= 7;
    }
    out.push_back(static_cast<char>(v));
  };
  if (every_definition_coded) put(kEveryDefinitionCoded);
  if (mixed) put(kMixedRoles);
  std::uint32_t previous = 0;
  for (const Use& u : uses) {
    const std::uint64_t distance = u.offset - previous;
    put(mixed || &u == &uses.front() ? distance << 3 | static_cast<std::uint64_t>(u.role) : distance);
    previous = u.offset;
  }
  return out;
}

namespace detail {

// Calls fn(use) for each use of a blob.
template <class Fn>
void each_use(std::string_view spots, Fn&& fn) {
  std::uint64_t offset = 0;
  std::size_t i = 0;
  auto next = [&](std::uint64_t& v) {
    v = 0;
    for (int shift = 0;; shift += 7) {
      if (i >= spots.size() || shift > 42) return false;
      const auto byte = static_cast<unsigned char>(spots[i++]);
      v |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
      if ((byte & 0x80) == 0) return true;
    }
  };
  std::uint64_t v = 0;
  if (!next(v)) return;
  if (v == kEveryDefinitionCoded && !next(v)) return;
  const bool mixed = v == kMixedRoles;
  if (mixed && !next(v)) return;
  const unsigned role = static_cast<unsigned>(v & 7);  // of every use, unless mixed
  for (bool first = true;; first = false) {
    const unsigned r = mixed ? static_cast<unsigned>(v & 7) : role;
    if (r > static_cast<unsigned>(UseRole::definition)) return;
    offset += mixed || first ? v >> 3 : v;
    fn(Use{static_cast<std::uint32_t>(offset), static_cast<UseRole>(r)});
    if (!next(v)) return;
  }
}

}  // namespace detail

inline std::vector<Use> decode_uses(std::string_view spots) {
  std::vector<Use> out;
  detail::each_use(spots, [&](Use u) { out.push_back(u); });
  return out;
}

inline std::size_t count_uses(std::string_view spots, unsigned roles) {
  std::size_t n = 0;
  detail::each_use(spots, [&](Use u) { n += (roles >> static_cast<unsigned>(u.role)) & 1u; });
  return n;
}

// Whether a blob says that all its definitions are coded (the rows of symbols add none).
inline bool every_definition_coded(std::string_view spots) {
  return !spots.empty() && static_cast<unsigned char>(spots.front()) == kEveryDefinitionCoded;
}

// Whether the definitions of `name` may be left to the rows of symbols: a name as the code spells it,
// a letter, `_` or `$` (or a byte of a multi-byte character) and then those or digits.
inline bool plain_name(std::string_view name) {
  auto start = [](unsigned char c) { return std::isalpha(c) || c == '_' || c == '$' || c >= 0x80; };
  return !name.empty() && start(static_cast<unsigned char>(name.front())) &&
         std::all_of(name.begin(), name.end(), [&](char c) { return start(static_cast<unsigned char>(c)) || std::isdigit(static_cast<unsigned char>(c)); });
}

// Where each line of a text starts (bytes), so that a row of symbols' 1-based line and byte column give
// the offset of its name: definition_offset, or kNoOffset when the place is not in the text.
inline constexpr std::uint32_t kNoOffset = 0xffffffff;
inline std::vector<std::uint32_t> line_starts(std::string_view text) {
  std::vector<std::uint32_t> out{0};
  for (std::size_t at = text.find('\n'); at != std::string_view::npos; at = text.find('\n', at + 1)) {
    out.push_back(static_cast<std::uint32_t>(at + 1));
  }
  return out;
}
inline std::uint32_t definition_offset(const std::vector<std::uint32_t>& starts, std::size_t text_size, int line, int column) {
  if (line < 1 || column < 1 || static_cast<std::size_t>(line) > starts.size()) return kNoOffset;
  const std::uint64_t at = std::uint64_t{starts[line - 1]} + static_cast<std::uint64_t>(column - 1);
  const std::uint64_t line_end = static_cast<std::size_t>(line) < starts.size() ? starts[line] : text_size;
  return at < line_end && at < text_size ? static_cast<std::uint32_t>(at) : kNoOffset;
}

inline std::int64_t name_key(std::string_view name) {
  std::uint64_t h = 1469598103934665603ull;  // FNV-1a
  for (char c : name) {
    h ^= static_cast<unsigned char>(c);
    h *= 1099511628211ull;
  }
  return static_cast<std::int64_t>((h ^ (h >> 31) ^ (h >> 62)) & 0x7fffffff);
}

inline std::string import_stem(std::string_view t) {
  const bool file_like = t.starts_with('"') || t.starts_with('<') || t.find('/') != std::string_view::npos;
  while (!t.empty() && (t.front() == '"' || t.front() == '<' || t.front() == '\'')) t.remove_prefix(1);
  while (!t.empty() && (t.back() == '"' || t.back() == '>' || t.back() == '\'' || t.back() == '/')) t.remove_suffix(1);
  if (t.starts_with("mod ")) t.remove_prefix(4);
  if (const std::size_t colons = t.rfind("::"); colons != std::string_view::npos) {
    return std::string(t.substr(colons + 2));  // a Rust path
  }
  if (file_like) {  // a header or a path: its file name without extension
    if (const std::size_t slash = t.find_last_of('/'); slash != std::string_view::npos) t.remove_prefix(slash + 1);
    if (t == "." || t == "..") return {};
    return std::string(t.substr(0, t.find('.')));
  }
  // A dotted module (`utils.retry`, `.retry`, `com.x.Y`; `com.x.*` by its package).
  if (t.ends_with(".*")) t.remove_suffix(2);
  const std::size_t dot = t.find_last_of('.');
  return std::string(dot == std::string_view::npos ? t : t.substr(dot + 1));
}


namespace detail {

inline void put_varint(std::string& out, std::uint64_t v) {
  while (v >= 0x80) {
    out.push_back(static_cast<char>((v & 0x7f) | 0x80));
    v >>= 7;
  }
  out.push_back(static_cast<char>(v));
}

// A varint-prefixed piece of `packed` at `i`, moving `i` past it; false when the string ends early.
inline bool take_piece(std::string_view packed, std::size_t& i, std::string_view& piece) {
  std::uint64_t n = 0;
  for (int shift = 0;; shift += 7) {
    if (i >= packed.size() || shift > 35) return false;
    const auto byte = static_cast<unsigned char>(packed[i++]);
    n |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
    if ((byte & 0x80) == 0) break;
  }
  if (n > packed.size() - i) return false;
  piece = packed.substr(i, n);
  i += n;
  return true;
}

}  // namespace detail

inline void pack_name_uses(std::string& packed, std::string_view name, std::string_view spots) {
  detail::put_varint(packed, name.size());
  packed += name;
  detail::put_varint(packed, spots.size());
  packed += spots;
}

template <class Fn>
void for_each_name_uses(std::string_view packed, Fn&& fn) {
  std::size_t i = 0;
  NameUses u;
  while (i < packed.size() && detail::take_piece(packed, i, u.name) && detail::take_piece(packed, i, u.spots)) fn(u);
}

// A name key in 4 bytes, most significant first (as file_uses and uses_fresh keep them).
inline constexpr std::size_t kNameKeyBytes = 4;
inline void put_name_key(std::string& out, std::int64_t key) {
  for (int b = kNameKeyBytes - 1; b >= 0; --b) out.push_back(static_cast<char>((key >> (8 * b)) & 0xff));
}
inline std::int64_t read_name_key(const char* p) {
  std::int64_t key = 0;
  for (std::size_t b = 0; b < kNameKeyBytes; ++b) key = (key << 8) | static_cast<unsigned char>(p[b]);
  return key;
}

inline void pack_keyed_uses(std::string& packed, std::int64_t key, std::string_view spots) {
  put_name_key(packed, key);
  detail::put_varint(packed, spots.size());
  packed += spots;
}

template <class Fn>
void for_each_keyed_uses(std::string_view packed, Fn&& fn) {
  std::size_t i = 0;
  std::string_view spots;
  while (i + kNameKeyBytes <= packed.size()) {
    const std::int64_t key = read_name_key(packed.data() + i);
    i += kNameKeyBytes;
    if (!detail::take_piece(packed, i, spots)) return;
    fn(key, spots);
  }
}

}  // namespace brenloc::storage
