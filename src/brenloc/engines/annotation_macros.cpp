#include "brenloc/engines/annotation_macros.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace brenloc::engines {
namespace {

// Decorations that stand alone.
constexpr std::array<std::string_view, 44> plain_macros = {
    "__BEGIN_DECLS", "__END_DECLS", "__THROW", "__THROWNL", "__wur", "__NTH", "__NTHNL", "__LEAF", "__COLD",
    "__fortify_function", "__always_inline", "__extern_inline", "__extern_always_inline", "__restrict_arr",
    "__attribute_pure__", "__attribute_malloc__", "__attribute_const__", "__attribute_deprecated__",
    "__attribute_warn_unused_result__", "__attribute_nonstring__", "__attribute_noinline__",
    "__attribute_returns_twice__", "__attribute_artificial__", "__attribute_used__",
    "__attribute_maybe_unused__", "__attr_dealloc_free", "__attr_dealloc_fclose",
    "_GLIBCXX_NOEXCEPT", "_GLIBCXX_USE_NOEXCEPT", "_GLIBCXX_NOTHROW", "_GLIBCXX_CONSTEXPR",
    "_GLIBCXX_USE_CONSTEXPR", "_GLIBCXX14_CONSTEXPR", "_GLIBCXX17_CONSTEXPR", "_GLIBCXX20_CONSTEXPR",
    "_GLIBCXX23_CONSTEXPR", "_GLIBCXX_NODISCARD", "_GLIBCXX_BEGIN_NAMESPACE_VERSION",
    "_GLIBCXX_END_NAMESPACE_VERSION", "_GLIBCXX_BEGIN_NAMESPACE_CONTAINER", "_GLIBCXX_END_NAMESPACE_CONTAINER",
    "_GLIBCXX_BEGIN_NAMESPACE_CXX11", "_GLIBCXX_END_NAMESPACE_CXX11", "_GLIBCXX_BEGIN_EXTERN_C",
};

// Decorations followed by a parenthesised argument list, blanked with it.
constexpr std::array<std::string_view, 19> call_macros = {
    "__declspec",
    "__nonnull", "__attribute_nonnull__", "__attr_access", "__attr_access_none", "__fortified_attr_access",
    "__attr_dealloc", "__attribute_alloc_size__", "__attribute_alloc_align__",
    "__attribute_format_arg__", "__attribute_format_strfmon__", "__attribute_deprecated_msg__",
    "__attribute_copy__", "__glibc_macro_warning", "_GLIBCXX_VISIBILITY", "_GLIBCXX_THROW",
    "_GLIBCXX_NOEXCEPT_IF", "_GLIBCXX_DEPRECATED_SUGGEST", "_GLIBCXX_END_EXTERN_C",
};

// Old-style prototype macros, which wrap a parameter list in a second pair of parentheses so that a K&R
// compiler can drop it: `int deflate OF((z_streamp strm, int flush));`. The name and the outer pair go.
constexpr std::array<std::string_view, 5> prototype_macros = {"OF", "Z_ARG", "PARAMS", "__P", "_PROTO"};

// Linkage and calling-convention decorations spelled without an underscore, which the rule for export
// macros (an upper-case name with one) does not take: zlib's and OpenGL's, vendored into many trees.
constexpr std::array<std::string_view, 6> linkage_macros = {"ZEXTERN", "ZEXPORT", "ZEXPORTVA",
                                                            "GLAPI",   "APIENTRY", "GLAPIENTRY"};

bool is_ident_start(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
bool is_ident_char(char c) { return is_ident_start(c) || (c >= '0' && c <= '9'); }
bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; }

void blank(std::string& text, std::size_t from, std::size_t to) {
  for (std::size_t i = from; i < to && i < text.size(); ++i) {
    if (text[i] != '\n') text[i] = ' ';
  }
}

// The end of the balanced parentheses starting at `open` (text[open] == '('), or npos.
std::size_t balanced_end(const std::string& text, std::size_t open) {
  int depth = 0;
  for (std::size_t i = open; i < text.size(); ++i) {
    if (text[i] == '(') ++depth;
    else if (text[i] == ')' && --depth == 0) return i + 1;
    else if (text[i] == ';' || text[i] == '{' || text[i] == '}') return std::string::npos;
  }
  return std::string::npos;
}

// The end of the line that holds byte `at`: its newline, or the text's end.
std::size_t line_end(const std::string& text, std::size_t at) {
  const std::size_t eol = text.find('\n', at);
  return eol == std::string::npos ? text.size() : eol;
}

std::size_t skip_spaces(const std::string& text, std::size_t i) {
  while (i < text.size() && (is_space(text[i]) || text[i] == '\n')) ++i;
  return i;
}

template <std::size_t N>
bool listed(const std::array<std::string_view, N>& list, std::string_view word) {
  for (auto w : list) {
    if (w == word) return true;
  }
  return false;
}

// A line of only an upper-case name, or a call of one, e.g. `G_BEGIN_DECLS` or `Q_OBJECT`.
bool is_macro_line(std::string_view line) {
  std::size_t i = 0;
  if (line.empty() || !is_ident_start(line[0]) || (line[0] >= 'a' && line[0] <= 'z')) return false;
  bool underscore = false;
  while (i < line.size() && is_ident_char(line[i])) {
    if (line[i] >= 'a' && line[i] <= 'z') return false;
    underscore |= line[i] == '_';
    ++i;
  }
  if (!underscore || i < 3) return false;
  if (i == line.size()) return true;
  if (line[i] != '(' || line.back() != ')') return false;
  return line.find(';') == std::string_view::npos;
}

// An upper-case name with an underscore: how export and attribute macros are spelled
// (BOOST_SYMBOL_VISIBLE, LLVM_ABI, G_GNUC_CONST, GTEST_API_).
bool is_macro_like(std::string_view word) {
  if (word.size() < 4) return false;
  bool underscore = false, letter = false;
  for (char c : word) {
    if (c >= 'a' && c <= 'z') return false;
    underscore |= c == '_';
    letter |= c >= 'A' && c <= 'Z';
  }
  return underscore && letter && word.front() != '_';
}

constexpr std::array<std::string_view, 29> declaration_keywords = {
    "constexpr", "static", "inline", "const", "void", "int", "char", "bool", "unsigned", "signed",
    "long", "short", "float", "double", "class", "struct", "union", "enum", "template", "extern",
    "typedef", "virtual", "explicit", "friend", "auto", "typename", "using", "namespace", "consteval"};

constexpr std::array<std::string_view, 6> trailing_keywords = {"const", "override", "final", "noexcept",
                                                               "volatile", "mutable"};

std::string_view word_before(const std::string& text, std::size_t end) {
  std::size_t i = end;
  while (i > 0 && is_space(text[i - 1])) --i;
  const std::size_t stop = i;
  while (i > 0 && is_ident_char(text[i - 1])) --i;
  return std::string_view(text.data() + i, stop - i);
}

// Whether the name at [start, end) follows a parameter list, perhaps with qualifiers between.
bool follows_parameter_list(const std::string& text, std::size_t start) {
  std::size_t i = start;
  for (int guard = 0; guard < 4; ++guard) {
    while (i > 0 && (is_space(text[i - 1]) || text[i - 1] == '\n' || text[i - 1] == '&')) --i;
    if (i == 0) return false;
    if (text[i - 1] == ')') {
      // Not when the list is a macro's argument list: `STACK_OF(X) NAME;` declares NAME.
      int depth = 0;
      std::size_t k = i;
      const std::size_t limit = i > 4096 ? i - 4096 : 0;
      while (k > limit) {
        --k;
        if (text[k] == ')') ++depth;
        else if (text[k] == '(' && --depth == 0) break;
      }
      if (depth != 0) return false;
      return !is_macro_like(word_before(text, k));
    }
    const std::string_view w = word_before(text, i);
    if (w.empty() || !listed(trailing_keywords, w)) return false;
    i -= w.size();
  }
  return false;
}

// The word starting at i (after spaces and new lines), or empty.
std::string_view word_after(const std::string& text, std::size_t i) {
  i = skip_spaces(text, i);
  std::size_t j = i;
  while (j < text.size() && is_ident_char(text[j])) ++j;
  return std::string_view(text.data() + i, j - i);
}

bool is_class_key(std::string_view word) { return word == "class" || word == "struct" || word == "union"; }

// Past the macro-like words (each with its parenthesised arguments) from `i` on: where the first other
// word starts.
std::size_t past_macro_words(const std::string& text, std::size_t i) {
  for (int guard = 0; guard < 8; ++guard) {
    const std::string_view w = word_after(text, i);
    if (!is_macro_like(w)) break;
    i = static_cast<std::size_t>(w.data() - text.data()) + w.size();
    const std::size_t next = skip_spaces(text, i);
    if (next < text.size() && text[next] == '(') {
      const std::size_t close = balanced_end(text, next);
      if (close == std::string::npos) break;
      i = close;
    }
  }
  return skip_spaces(text, i);
}

// Whether the word at `i` is followed, as a type is, by a declared name or a part of the type (`::`, `<`,
// `*`, `&`): `GTEST_API_ std::string f();`, `DECL impl_type& add();`, `API Result Check(bool);`.
bool starts_a_type(const std::string& text, std::string_view word) {
  if (word.empty() || (word[0] >= '0' && word[0] <= '9')) return false;
  const std::size_t k = skip_spaces(text, static_cast<std::size_t>(word.data() - text.data()) + word.size());
  if (k >= text.size()) return false;
  const char c = text[k];
  return c == '*' || c == '&' || c == '<' || (c == ':' && k + 1 < text.size() && text[k + 1] == ':') ||
         is_ident_start(c);
}

// Past white space and whole preprocessor lines from `i` on (the `#if` sections around a class's base).
std::size_t skip_spaces_and_directives(const std::string& text, std::size_t i) {
  for (i = skip_spaces(text, i); i < text.size() && text[i] == '#';) {
    std::size_t eol = text.find('\n', i);
    while (eol != std::string::npos && eol > 0 && text[eol - 1] == '\\') eol = text.find('\n', eol + 1);
    if (eol == std::string::npos) return text.size();
    i = skip_spaces(text, eol + 1);
  }
  return i;
}

constexpr std::array<std::string_view, 8> leading_specifiers = {
    "static", "inline", "constexpr", "consteval", "virtual", "explicit", "friend", "extern"};

// Whether only white space and specifiers that may come before a declaration's type lie between `from`
// and `to` on one line: the start of a declaration.
bool starts_declaration(const std::string& text, std::size_t from, std::size_t to) {
  for (std::size_t k = from; k < to;) {
    if (is_space(text[k])) {
      ++k;
      continue;
    }
    std::size_t e = k;
    while (e < to && is_ident_char(text[e])) ++e;
    if (e == k || !listed(leading_specifiers, std::string_view(text.data() + k, e - k))) return false;
    k = e;
  }
  return true;
}

// Whether `word` names a constructor: a name whose parameter list is followed by a member initializer
// list (`Name(int a) : a_(a)`).
bool names_constructor(const std::string& text, std::string_view word) {
  if (word.empty()) return false;
  const std::size_t open = skip_spaces(text, static_cast<std::size_t>(word.data() - text.data()) + word.size());
  if (open >= text.size() || text[open] != '(') return false;
  const std::size_t close = balanced_end(text, open);
  if (close == std::string::npos) return false;
  const std::size_t k = skip_spaces(text, close);
  return k < text.size() && text[k] == ':' && (k + 1 >= text.size() || text[k + 1] != ':');
}

// Where a word spelled like a macro at [i, j) ends as a decoration to blank (with its arguments when a
// parameter list's decoration takes some), or npos when it is no decoration there: between a class key and
// the class's name, at the start of a declaration, or after a parameter list.
std::size_t macro_decoration_end(const std::string& text, std::size_t line_begin, std::size_t i, std::size_t j) {
  const std::string_view before = word_before(text, i);
  const std::string_view after = word_after(text, j);
  const std::size_t next = skip_spaces(text, j);
  const char next_char = next < text.size() ? text[next] : ';';
  bool drop = false;
  const bool class_head = is_class_key(before);
  if (class_head) {
    // class EXPORT_MACRO Name {, class API_A API_B(x) Name : Base   (but not: typedef struct TAG name;)
    const std::string_view name = word_after(text, past_macro_words(text, i));
    if (!name.empty() && name != "final") {
      const std::size_t k =
          skip_spaces_and_directives(text, static_cast<std::size_t>(name.data() - text.data()) + name.size());
      const char c = k < text.size() ? text[k] : ';';
      drop = c == '{' || (c == ':' && (k + 1 >= text.size() || text[k + 1] != ':')) || c == '<' ||
             word_after(text, k) == "final";
    }
  } else if (starts_declaration(text, line_begin, i) &&
             (listed(declaration_keywords, after) || next_char == '~' ||
              (!listed(trailing_keywords, after) && (starts_a_type(text, after) || names_constructor(text, after))))) {
    // EXPORT_MACRO static int f();  INLINE_MACRO CONSTEXPR_MACRO Name();  API_MACRO ~Name();
    // API_MACRO std::string f();  static CONSTEXPR_MACRO ns::type f();  CONSTEXPR_MACRO Name(int a) : a_(a)
    drop = true;
  } else if (follows_parameter_list(text, i)) {
    // void f() const NOEXCEPT_MACRO;  auto f(int a) RESULT_SUFFIX_MACRO((decltype(a))) { ... }
    drop = next_char == '{' || next_char == ';' || next_char == '=' || next_char == ':' || next_char == '(' ||
           is_macro_like(after) || listed(trailing_keywords, after);
    if (drop && next_char == '(') {
      // Its arguments, over as many lines as they take, when a body or the declaration's end follows.
      const std::size_t close = balanced_end(text, next);
      const std::size_t k = close == std::string::npos ? close : skip_spaces(text, close);
      if (k != std::string::npos && k < text.size() && (text[k] == '{' || text[k] == ';')) return close;
    }
  }
  if (!drop) return std::string::npos;
  std::size_t stop = j;
  if (next_char == '(') {
    const std::size_t close = balanced_end(text, next);
    if (close != std::string::npos && text.find('\n', j) >= close) stop = close;
  }
  return stop;
}

// Where the argument list of the macro at [i, j) ends when the macro stands for a parameter's type: it
// opens a parameter (after `(` or `,`), takes one argument (on its line), and a parameter's name and the
// end of the parameter follow. npos otherwise.
std::size_t type_macro_end(const std::string& text, std::size_t i, std::size_t j) {
  if (j >= text.size() || text[j] != '(') return std::string::npos;
  std::size_t b = i;
  while (b > 0 && (is_space(text[b - 1]) || text[b - 1] == '\n')) --b;
  if (b == 0 || (text[b - 1] != '(' && text[b - 1] != ',')) return std::string::npos;
  const std::size_t close = balanced_end(text, j);
  if (close == std::string::npos || close - j < 3) return std::string::npos;
  const std::string_view args(text.data() + j + 1, close - j - 2);
  if (args.find(',') != std::string_view::npos || args.find('\n') != std::string_view::npos) return std::string::npos;
  const std::string_view name = word_after(text, close);
  if (name.empty() || (name[0] >= '0' && name[0] <= '9')) return std::string::npos;
  const std::size_t k = skip_spaces(text, static_cast<std::size_t>(name.data() - text.data()) + name.size());
  const char c = k < text.size() ? text[k] : ';';
  return c == ',' || c == ')' || c == '=' || c == '[' ? close : std::string::npos;
}

// Blanks the decorations among the words of the line that starts at `begin` and ends at `eol`. Returns
// the line's end, which moves on when a listed decoration's arguments run on to later lines.
std::size_t blank_decorations(std::string& text, std::size_t begin, std::size_t eol, bool& changed) {
  for (std::size_t i = begin; i < eol;) {
    if (!is_ident_start(text[i]) || (i > 0 && is_ident_char(text[i - 1]))) {
      ++i;
      continue;
    }
    std::size_t j = i;
    while (j < text.size() && is_ident_char(text[j])) ++j;
    const std::string_view word(text.data() + i, j - i);
    if (is_macro_like(word)) {
      const std::size_t stop = macro_decoration_end(text, begin, i, j);
      if (const std::size_t close = type_macro_end(text, i, j); close != std::string::npos) {
        // A macro that makes a parameter's type of its argument (`BOOST_ASIO_MOVE_ARG(T) t`): its argument
        // stays in its place (`T t`).
        blank(text, i, j + 1);
        blank(text, close - 1, close);
        changed = true;
        i = close;
        continue;
      }
      if (stop != std::string::npos) {
        blank(text, i, stop);
        changed = true;
        eol = std::max(eol, line_end(text, stop));
        i = stop;
        continue;
      }
    }
    if (listed(linkage_macros, word)) {
      blank(text, i, j);
      changed = true;
      i = j;
      continue;
    }
    if (listed(prototype_macros, word)) {
      const std::size_t open = skip_spaces(text, j);
      const std::size_t close = open + 1 < text.size() && text[open] == '(' && text[open + 1] == '('
                                    ? balanced_end(text, open)
                                    : std::string::npos;
      if (close != std::string::npos && text[close - 2] == ')') {
        blank(text, i, open + 1);
        blank(text, close - 1, close);
        changed = true;
        eol = std::max(eol, line_end(text, close));
        i = close;
        continue;
      }
    }
    if (text[i] == '_') {
      if (listed(plain_macros, word)) {
        blank(text, i, j);
        changed = true;
      } else if (listed(call_macros, word)) {
        std::size_t open = j;
        while (open < text.size() && is_space(text[open])) ++open;
        std::size_t close = open < text.size() && text[open] == '(' ? balanced_end(text, open) : std::string::npos;
        blank(text, i, close == std::string::npos ? j : close);
        changed = true;
        if (close != std::string::npos) eol = std::max(eol, line_end(text, close));
        if (close != std::string::npos) j = close;
      }
    }
    i = j;
  }
  return eol;
}

// The end of the preprocessor directive whose first line is [begin, end) and ends at `eol`: the end of its
// last continuation line.
std::size_t directive_end(const std::string& text, std::size_t begin, std::size_t end, std::size_t eol) {
  while (eol < text.size() && end > begin && text[end - 1] == '\\') {
    const std::size_t pos = eol + 1;
    eol = text.find('\n', pos);
    if (eol == std::string::npos) eol = text.size();
    end = eol;
    while (end > pos && is_space(text[end - 1])) --end;
    begin = pos;
  }
  return eol;
}

// Whether what ends at `eol` stands alone: it comes after the end of a declaration (`previous`), and what
// follows would not continue an expression or a list.
bool stands_alone(const std::string& text, char previous, std::size_t eol) {
  if (previous != ';' && previous != '{' && previous != '}' && previous != '#' && previous != '/') return false;
  const std::size_t next = skip_spaces(text, eol);
  const char after = next < text.size() ? text[next] : ';';
  return after != '}' && after != ',' && after != ')' && after != '=' && after != ';' && after != '(' &&
         after != '[';
}

// A line holding nothing but a macro name or call, after the end of a declaration, and not followed by
// what would continue an expression or a list.
bool is_lone_macro_line(const std::string& text, std::string_view line, char previous, std::size_t eol) {
  return is_macro_line(line) && stands_alone(text, previous, eol);
}

// The end of the line where a macro call that opens the line at `begin` and runs on over later lines
// closes, when nothing else is on that line and the call stands alone (a deprecation notice over its
// declaration: `V8_DEPRECATE_SOON(\n "Use X instead.")`); npos otherwise.
std::size_t lone_macro_call_end(const std::string& text, std::size_t begin, std::size_t eol, char previous) {
  std::size_t j = begin;
  while (j < eol && is_ident_char(text[j])) ++j;
  if (j == begin || !is_macro_like(std::string_view(text.data() + begin, j - begin))) return std::string::npos;
  const std::size_t open = skip_spaces(text, j);
  if (open >= eol || text[open] != '(') return std::string::npos;
  const std::size_t close = balanced_end(text, open);
  if (close == std::string::npos || close <= eol) return std::string::npos;
  std::size_t end = close;
  while (end < text.size() && is_space(text[end])) ++end;
  if (end < text.size() && text[end] != '\n') return std::string::npos;
  return stands_alone(text, previous, end) ? end : std::string::npos;
}

// What the text from `pos` to `eol` ends with, for the next line: its last character ('/' for the end of a
// comment), or `previous` when it holds only white space.
char line_ending(const std::string& text, std::size_t pos, std::size_t eol, char previous) {
  std::size_t last = eol;
  while (last > pos && (is_space(text[last - 1]) || text[last - 1] == '\n')) --last;
  if (last == pos) return previous;
  const char c = text[last - 1];
  return (c == '/' && last >= 2 && text[last - 2] == '*') ? '/' : c;
}

}  // namespace

bool blank_annotation_macros(std::string& text) {
  bool changed = false;
  // The last character that ends a statement-like unit before the current line: ';', '{', '}', or
  // '#' for a preprocessor line, the start of the file, or a comment's end.
  char previous = ';';
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t eol = text.find('\n', pos);
    if (eol == std::string::npos) eol = text.size();
    std::size_t begin = pos;
    while (begin < eol && is_space(text[begin])) ++begin;
    std::size_t end = eol;
    while (end > begin && is_space(text[end - 1])) --end;
    const std::string_view line(text.data() + begin, end - begin);

    // Comment lines say nothing about where declarations end.
    if (line.empty() || line.starts_with("//") || line.starts_with("/*") || line[0] == '*') {
      pos = eol + 1;
      continue;
    }
    if (line[0] == '#') {
      pos = directive_end(text, begin, end, eol) + 1;
      previous = '#';
      continue;
    }
    if (const std::size_t end_of_call = lone_macro_call_end(text, begin, eol, previous);
        end_of_call != std::string::npos) {
      blank(text, begin, end_of_call);
      changed = true;
      pos = end_of_call + 1;
      continue;
    }
    if (is_lone_macro_line(text, line, previous, eol)) {
      blank(text, begin, end);
      changed = true;
      pos = eol + 1;
      continue;
    }
    eol = blank_decorations(text, begin, eol, changed);
    previous = line_ending(text, pos, eol, previous);
    pos = eol + 1;
  }
  return changed;
}

}  // namespace brenloc::engines
