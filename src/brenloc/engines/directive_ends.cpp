#include "brenloc/engines/directive_ends.h"

#include <string_view>
#include <utility>
#include <vector>

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

namespace brenloc::engines {

namespace {

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; }
bool is_word(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'; }

void blank(std::string& text, std::size_t from, std::size_t to) {
  for (std::size_t i = from; i < to; ++i) {
    if (text[i] != '\n') text[i] = ' ';
  }
}

// What the code of a section adds up to.
struct Code {
  int braces = 0, parens = 0;
  bool statements = false;  // it holds a `;`, `{` or `}`
  std::size_t last = std::string::npos;  // the offset of its last significant character
};

struct Section {
  std::size_t begin = 0, end = 0;  // the text between the directive that opens it and the next one
  Code code;
  bool dead = false;  // under `#if 0`
  bool directives = false;  // it holds preprocessor lines (a definition, a nested group)
  std::vector<std::pair<std::size_t, std::size_t>> definitions;  // its `#define` and `#undef` lines
};

struct Group {
  std::vector<std::pair<std::size_t, std::size_t>> directives;  // #if, #elif, #else, #endif lines
  std::vector<Section> sections;
  bool in_list = false;  // it opens among the items of a list that the parser takes no directive in
};

// Where the code read so far stands, whatever the sections it came in: its last significant character,
// the last `;`, `{`, `}` or `:` that opens member initializers, and the parentheses opened since.
struct Context {
  char last = ';', boundary = ';';
  int parens = 0;
  // Among member initializers, base classes or a call's arguments (after a `,`, a `(` or the `:` that
  // opens them): the parser reads no directive there. Enumerators and members it does.
  bool in_list() const { return (last == ',' || last == '(' || last == ':') && (boundary == ':' || parens > 0); }
};

// Whether code ending at `last` ends a declaration, or an item of a list: after `;`, `}`, `,` or an access
// label (`public:`).
bool ends_whole(const std::string& text, std::size_t last) {
  const char c = text[last];
  if (c == ';' || c == '}' || c == ',') return true;
  if (c != ':') return false;
  std::size_t i = last;
  while (i > 0 && is_space(text[i - 1])) --i;
  std::size_t start = i;
  while (start > 0 && is_word(text[start - 1])) --start;
  const std::string_view word(text.data() + start, i - start);
  return word == "public" || word == "private" || word == "protected";
}

// Whether `word` ends right before byte `at`, white space aside.
bool follows_word(const std::string& text, std::size_t at, std::string_view word) {
  while (at > 0 && is_space(text[at - 1])) --at;
  return at >= word.size() && text.compare(at - word.size(), word.size(), word) == 0 &&
         (at == word.size() || !is_word(text[at - word.size() - 1]));
}

// Scans the code of [from, to), which holds no directive: braces, parentheses and the last significant
// character, outside comments and literals. `in_comment` carries a block comment across lines.
void scan_code(const std::string& text, std::size_t from, std::size_t to, bool& in_comment, Code& code,
               Context* context = nullptr) {
  for (std::size_t i = from; i < to; ++i) {
    const char c = text[i];
    if (in_comment) {
      if (c == '*' && i + 1 < to && text[i + 1] == '/') {
        in_comment = false;
        ++i;
      }
      continue;
    }
    if (c == '/' && i + 1 < to && text[i + 1] == '/') return;
    if (c == '/' && i + 1 < to && text[i + 1] == '*') {
      in_comment = true;
      ++i;
      continue;
    }
    if (is_space(c) || c == '\n') continue;
    if (c == '"' || (c == '\'' && !(i > from && is_word(text[i - 1])))) {  // not a digit separator
      const std::size_t open = i;
      for (++i; i < to && text[i] != c; ++i) {
        if (text[i] == '\\') ++i;
      }
      code.last = i < to ? i : open;
      if (context) context->last = c;
      continue;
    }
    code.statements |= c == ';' || c == '{' || c == '}';
    if (c == '{') ++code.braces;
    else if (c == '}') --code.braces;
    else if (c == '(') ++code.parens;
    else if (c == ')') --code.parens;
    code.last = i;
    if (context) {
      const bool colons = c == ':' && ((i > from && text[i - 1] == ':') || (i + 1 < to && text[i + 1] == ':'));
      if (c == ';' || c == '{' || c == '}' || (c == ':' && !colons)) {
        // A `:` after a parameter list opens member initializers; others end a label.
        context->boundary = c != ':' || context->last == ')' || follows_word(text, i, "noexcept") ? c : ';';
        context->parens = 0;
      } else if (c == '(') {
        ++context->parens;
      } else if (c == ')') {
        --context->parens;
      }
      context->last = c;
    }
  }
}

// The directive's name (`if`, `ifdef`, `else`...) and whether it is `#if 0`, from its first line.
std::pair<std::string_view, bool> directive_word(const std::string& text, std::size_t hash, std::size_t eol) {
  std::size_t i = hash + 1;
  while (i < eol && is_space(text[i])) ++i;
  std::size_t j = i;
  while (j < eol && is_word(text[j])) ++j;
  const std::string_view word(text.data() + i, j - i);
  std::size_t k = j;
  while (k < eol && is_space(text[k])) ++k;
  const bool zero = word == "if" && k < eol && text[k] == '0' && (k + 1 == eol || !is_word(text[k + 1]));
  return {word, zero};
}

void add(Code& into, const Code& code) {
  into.braces += code.braces;
  into.parens += code.parens;
  into.statements |= code.statements;
  if (code.last != std::string::npos) into.last = code.last;
}

// Judges a closed group: blanks it down to one section when its sections are not whole declarations.
// Returns what the group adds to the code of the section around it.
Code close_group(std::string& text, const Group& given, bool& changed) {
  // Code under `#if 0` is never compiled (an example in a header, code set aside): its section goes; so
  // do the group's directives when one section is left, which is then plain code.
  if (!given.sections.empty() && given.sections.front().dead) {
    blank(text, given.sections.front().begin, given.sections.front().end);
    changed = true;
    if (given.sections.size() <= 2) {
      for (const auto& [from, to] : given.directives) blank(text, from, to);
      return given.sections.size() == 2 ? given.sections[1].code : Code{};
    }
  }
  Group dead_blanked;
  if (!given.sections.empty() && given.sections.front().dead) {
    dead_blanked = given;
    dead_blanked.sections.front().code = Code{};
    dead_blanked.sections.front().definitions.clear();
  }
  const Group& g = dead_blanked.sections.empty() ? given : dead_blanked;
  bool split = g.in_list;
  for (const Section& s : g.sections) {
    if (s.code.braces != 0 || s.code.parens != 0 ||
        (s.code.last != std::string::npos && !ends_whole(text, s.code.last))) {
      split = true;
    }
  }
  Code out;
  if (!split) {
    for (const Section& s : g.sections) add(out, s.code);
    return out;
  }
  for (const auto& [from, to] : g.directives) blank(text, from, to);
  changed = true;
  // A lone section that is a mere piece of a declaration (an attribute, a base class) goes: the
  // declaration does without it. One that holds statements stays (`extern "C" {` has its partner in
  // another group, judged alike), and so does one with preprocessor lines (a header's guard).
  const Section& lone = g.sections[0];
  if (g.sections.size() == 1 && !lone.code.statements && lone.code.parens == 0 && !lone.directives) {
    blank(text, g.sections[0].begin, g.sections[0].end);
    return out;
  }
  // The macros of a section not kept stay defined (`#define X 1` in both, or in one only).
  const auto blank_section = [&](const Section& s) {
    std::size_t from = s.begin;
    for (const auto& [begin, end] : s.definitions) {
      blank(text, from, begin);
      from = end;
    }
    blank(text, from, s.end);
  };
  std::size_t kept = 0;
  for (std::size_t i = 0; i < g.sections.size(); ++i) {
    if (!g.sections[i].dead && g.sections[i].code.last != std::string::npos) {
      kept = i;
      break;
    }
  }
  for (std::size_t i = 0; i < g.sections.size(); ++i) {
    if (i != kept) blank_section(g.sections[i]);
  }
  return g.sections.empty() ? out : g.sections[kept].code;
}

}  // namespace

bool keep_one_section_of_split_groups(std::string& text) {
  bool changed = false;
  bool in_comment = false;
  Context context;
  std::vector<Group> open;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t eol = text.find('\n', pos);
    if (eol == std::string::npos) eol = text.size();
    std::size_t first = pos;
    while (first < eol && is_space(text[first])) ++first;
    if (in_comment || first == eol || text[first] != '#') {
      if (!open.empty() && !open.back().sections.empty()) {
        scan_code(text, pos, eol, in_comment, open.back().sections.back().code, &context);
      } else {
        Code ignored;
        scan_code(text, pos, eol, in_comment, ignored, &context);
      }
      pos = eol + 1;
      continue;
    }
    // A directive, with its continuation lines.
    std::size_t end = eol;
    while (end < text.size()) {
      std::size_t last = end;
      while (last > first && is_space(text[last - 1])) --last;
      if (last == first || text[last - 1] != '\\') break;
      const std::size_t next = text.find('\n', end + 1);
      end = next == std::string::npos ? text.size() : next;
    }
    const auto [word, zero] = directive_word(text, first, eol);
    // A comment opened on the directive's line runs on over the next lines.
    Code ignored;
    scan_code(text, first, end, in_comment, ignored);
    const std::size_t after = std::min(end + 1, text.size());
    const bool opens = word == "if" || word == "ifdef" || word == "ifndef";
    const bool continues = word == "elif" || word == "else" || word == "elifdef" || word == "elifndef" || word == "endif";
    if (!open.empty() && !continues) {
      Section& s = open.back().sections.back();
      s.directives = true;
      if (word == "define" || word == "undef") s.definitions.emplace_back(pos, end);
    }
    if (opens) {
      Group g;
      g.directives.emplace_back(pos, end);
      g.sections.push_back({after, after, {}, zero});
      g.in_list = context.in_list();
      open.push_back(std::move(g));
    } else if (!open.empty() && continues && word != "endif") {
      Group& g = open.back();
      g.sections.back().end = pos;
      g.directives.emplace_back(pos, end);
      g.sections.push_back({after, after, {}, false});
    } else if (!open.empty() && word == "endif") {
      Group g = std::move(open.back());
      open.pop_back();
      g.sections.back().end = pos;
      g.directives.emplace_back(pos, end);
      const Code code = close_group(text, g, changed);
      if (!open.empty()) {
        Section& around = open.back().sections.back();
        add(around.code, code);
        for (const Section& s : g.sections) around.definitions.insert(around.definitions.end(), s.definitions.begin(), s.definitions.end());
      }
    }
    pos = end + 1;
  }
  return changed;
}

}  // namespace brenloc::engines
