#include "brenloc/engines/uses.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "brenloc/engines/code_matchers.h"
#include "brenloc/engines/quoted_spans.h"
#include "brenloc/engines/syntax_walk.h"

namespace brenloc::engines {
namespace {

using storage::UseRole;

// How each language's grammar says what a leaf is doing.
struct NodeField {
  std::string_view node, field;
};
struct GrammarRules {
  std::vector<NodeField> callees;  // the field of a call that names what is called
  std::vector<NodeField> members;  // the field of a qualified or member name that names the last part
  std::vector<std::string_view> imports;  // nodes whose names are all imports
  std::vector<std::string_view> type_contexts;  // nodes whose identifier children name types
  std::vector<NodeField> labels;  // the field of a labelled statement that defines its label
};

const GrammarRules& rules_of(std::string_view language) {
  static const GrammarRules c{{{"call_expression", "function"}}, {{"field_expression", "field"}}, {"preproc_include"}, {}};
  static const GrammarRules cpp{
      {{"call_expression", "function"}, {"new_expression", "type"}},
      {{"field_expression", "field"}, {"qualified_identifier", "name"}, {"template_function", "name"},
       {"template_method", "name"}},
      {"preproc_include", "using_declaration"},
      {}};
  static const GrammarRules js{{{"call_expression", "function"}, {"new_expression", "constructor"}},
                               {{"member_expression", "property"}},
                               {"import_statement"},
                               {}};
  static const GrammarRules python{{{"call", "function"}},
                                   {{"attribute", "attribute"}},
                                   {"import_statement", "import_from_statement", "future_import_statement"},
                                   {"type"}};
  static const GrammarRules go{{{"call_expression", "function"}},
                               {{"selector_expression", "field"}},
                               {"import_declaration"},
                               {},
                               {{"labeled_statement", "label"}}};
  static const GrammarRules rust{{{"call_expression", "function"}, {"macro_invocation", "macro"}},
                                 {{"field_expression", "field"}, {"scoped_identifier", "name"}, {"generic_function", "function"}},
                                 {"use_declaration", "extern_crate_declaration"},
                                 {}};
  static const GrammarRules java{{{"method_invocation", "name"}, {"object_creation_expression", "type"}},
                                 {{"scoped_identifier", "name"}},
                                 {"import_declaration"},
                                 {}};
  if (language == "c") return c;
  if (language == "cpp") return cpp;
  if (language == "python") return python;
  if (language == "go") return go;
  if (language == "rust") return rust;
  if (language == "java") return java;
  return js;
}

// The C and C++ words that are no names: the grammar gives some of them as type leaves, and a macro's
// body is read as plain text.
bool c_keyword(std::string_view w) {
  static const std::unordered_set<std::string_view> words = {
      "auto", "break", "case", "char", "const", "continue", "default", "do", "double", "else", "enum", "extern",
      "float", "for", "goto", "if", "inline", "int", "long", "register", "restrict", "return", "short", "signed",
      "sizeof", "static", "struct", "switch", "typedef", "union", "unsigned", "void", "volatile", "while", "_Bool",
      "bool", "true", "false", "class", "namespace", "template", "typename", "public", "private", "protected",
      "virtual", "using", "operator", "new", "delete", "this", "nullptr", "constexpr", "noexcept", "override",
      "final", "friend", "explicit", "mutable", "static_cast", "const_cast", "reinterpret_cast", "dynamic_cast",
      "try", "catch", "throw", "decltype", "typeid", "wchar_t", "char8_t", "char16_t", "char32_t", "alignas",
      "alignof", "static_assert", "thread_local", "_Atomic", "_Noreturn", "_Static_assert", "_Thread_local",
      "_Alignas", "_Alignof", "_Generic", "_Complex", "consteval", "constinit", "co_await", "co_return",
      "co_yield", "concept", "requires", "export", "module", "import", "__attribute__", "asm", "__asm__"};
  return words.contains(w);
}

enum Leaf : std::uint8_t { kNoLeaf = 0, kName = 1, kTypeName = 2, kMacroBody = 3 };

// A language's rules as symbol and field ids, made once per process.
struct UseGrammar {
  std::vector<std::uint8_t> leaf;         // by symbol
  std::vector<TSFieldId> callee;          // by symbol: the callee's field, 0 when no call
  std::vector<TSFieldId> member;          // by symbol: the last part's field, 0 when none
  std::vector<TSFieldId> label;           // by symbol: the field of the label it defines, 0 when none
  std::vector<bool> import;               // by symbol
  std::vector<bool> type_context;         // by symbol
  std::vector<bool> macro_definition;     // by symbol: #define (whose body is read as text)
  bool c_family = false;
  bool javascript = false;
  TSSymbol call_expression = 0, import_spec = 0, mod_item = 0, export_statement = 0, token_tree = 0;
};

UseGrammar make_grammar(const Language& lang) {
  const TSLanguage* g = lang.grammar();
  const std::uint32_t n = ts_language_symbol_count(g);
  UseGrammar u;
  u.leaf.assign(n, kNoLeaf);
  u.callee.assign(n, 0);
  u.member.assign(n, 0);
  u.label.assign(n, 0);
  u.import.assign(n, false);
  u.type_context.assign(n, false);
  u.macro_definition.assign(n, false);
  u.c_family = lang.c_family;
  u.javascript = lang.name == "javascript" || lang.name == "typescript" || lang.name == "tsx";
  for (std::uint32_t sym = 0; sym < n; ++sym) {
    const auto s = static_cast<TSSymbol>(sym);
    if (ts_language_symbol_type(g, s) != TSSymbolTypeRegular) continue;
    const std::string_view name = ts_language_symbol_name(g, s);
    if (name == "type_identifier" || name == "primitive_type") {
      u.leaf[sym] = kTypeName;
    } else if (name.ends_with("identifier") || name == "label_name") {
      u.leaf[sym] = kName;
    } else if (name == "preproc_arg" && lang.c_family) {
      u.leaf[sym] = kMacroBody;
    }
  }
  auto field = [&](std::string_view f) {
    return ts_language_field_id_for_name(g, f.data(), static_cast<std::uint32_t>(f.size()));
  };
  const GrammarRules& r = rules_of(lang.name);
  for (const NodeField& nf : r.callees) for_each_symbol_named(g, nf.node, [&](TSSymbol s) { u.callee[s] = field(nf.field); });
  for (const NodeField& nf : r.members) for_each_symbol_named(g, nf.node, [&](TSSymbol s) { u.member[s] = field(nf.field); });
  for (const NodeField& nf : r.labels) for_each_symbol_named(g, nf.node, [&](TSSymbol s) { u.label[s] = field(nf.field); });
  for (std::string_view t : r.imports) for_each_symbol_named(g, t, [&](TSSymbol s) { u.import[s] = true; });
  for (std::string_view t : r.type_contexts) for_each_symbol_named(g, t, [&](TSSymbol s) { u.type_context[s] = true; });
  for (std::string_view t : {"preproc_def", "preproc_function_def"}) {
    for_each_symbol_named(g, t, [&](TSSymbol s) { u.macro_definition[s] = true; });
  }
  u.call_expression = ts_language_symbol_for_name(g, "call_expression", 15, true);
  u.import_spec = ts_language_symbol_for_name(g, "import_spec", 11, true);
  u.mod_item = ts_language_symbol_for_name(g, "mod_item", 8, true);
  u.export_statement = ts_language_symbol_for_name(g, "export_statement", 16, true);
  u.token_tree = ts_language_symbol_for_name(g, "token_tree", 10, true);
  return u;
}

const UseGrammar& use_grammar(const Language& lang) {
  static std::mutex mu;
  static std::unordered_map<const Language*, std::unique_ptr<UseGrammar>> made;
  std::lock_guard lock(mu);
  auto& g = made[&lang];
  if (!g) g = std::make_unique<UseGrammar>(make_grammar(lang));
  return *g;
}

bool name_start(unsigned char c) { return std::isalpha(c) || c == '_' || c == '$' || c >= 0x80; }
bool name_char(unsigned char c) { return std::isalnum(c) || c == '_' || c == '$' || c >= 0x80; }

std::string_view text(TSNode node, std::string_view source) {
  const std::uint32_t start = ts_node_start_byte(node), end = ts_node_end_byte(node);
  if (start >= end || end > source.size()) return {};
  return source.substr(start, end - start);
}

std::string_view unquoted(std::string_view t) {
  if (t.size() >= 2 && (t.front() == '"' || t.front() == '\'' || t.front() == '`') && t.back() == t.front()) {
    return t.substr(1, t.size() - 2);
  }
  return t;
}

TSNode field_child(TSNode node, const char* field) {
  return ts_node_child_by_field_name(node, field, static_cast<std::uint32_t>(std::strlen(field)));
}

class Finder {
 public:
  Finder(const UseGrammar& g, std::string_view language, std::string_view source, std::span<const std::uint32_t> defs)
      : g_(g), language_(language), source_(source), defs_(defs) {}

  FileUses run(TSNode root, std::string_view parsed, std::span<const SymbolSpot> symbols,
               const std::function<void()>& walked) {
    // Where the parser recovered from errors, it may have read the words of a comment or a string as
    // names: in C and C++ a lexer says where those are.
    if (g_.c_family && ts_node_has_error(root)) quoted_ = c_quoted_spans(source_);
    blanked_text(root, parsed);
    frames_.reserve(64);
    const BrenlocTreeVisitor visitor{
        [](void* self, TSNode node, TSFieldId field) { static_cast<Finder*>(self)->enter(node, field); },
        [](void* self) { static_cast<Finder*>(self)->leave(); }, this, true};
    brenloc_walk_tree(root, &visitor);
    frames_ = {};
    if (walked) walked();
    by_name();
    // The places of the rows of symbols of plain names, by name, then by offset.
    std::vector<SymbolSpot> held;
    held.reserve(symbols.size());
    for (const SymbolSpot& s : symbols) {
      if (storage::plain_name(s.name)) held.push_back(s);
    }
    std::sort(held.begin(), held.end(), [](const SymbolSpot& a, const SymbolSpot& b) {
      return a.name != b.name ? a.name < b.name : a.offset < b.offset;
    });
    held.erase(std::unique(held.begin(), held.end(),
                           [](const SymbolSpot& a, const SymbolSpot& b) { return a.name == b.name && a.offset == b.offset; }),
               held.end());
    FileUses out;
    std::vector<storage::Use> run;
    std::size_t h = 0;
    for (std::size_t i = 0; i < found_.size() || h < held.size();) {
      // The next name, of the uses or of the rows of symbols.
      const std::string_view name = i == found_.size()  ? held[h].name
                                    : h == held.size() ? name_of(found_[i])
                                                       : std::min(name_of(found_[i]), held[h].name);
      run.clear();
      for (; i < found_.size() && name_of(found_[i]) == name; ++i) {
        run.push_back({found_[i].offset, static_cast<UseRole>(found_[i].length_role & 7)});
      }
      const std::size_t first_held = h;
      for (; h < held.size() && held[h].name == name; ++h) {}
      const std::string spots = without_held(run, std::span(held).subspan(first_held, h - first_held));
      if (!spots.empty()) storage::pack_name_uses(out.names, name, spots);
    }
    out.imports = std::move(imports_);
    return out;
  }

 private:
  // The coded uses of a name (`run`, by offset) less the definitions that its rows of symbols (`held`, by
  // offset) give back to readers; when they would not give exactly those, all of them, so marked. Empty
  // when nothing is left.
  static std::string without_held(const std::vector<storage::Use>& run, std::span<const SymbolSpot> held) {
    if (held.empty()) return storage::encode_uses(run);
    std::vector<storage::Use> left;
    left.reserve(run.size());
    std::size_t next = 0;
    for (const storage::Use& u : run) {
      if (next < held.size() && held[next].offset < u.offset) break;  // a row with no definition at its place
      if (next < held.size() && held[next].offset == u.offset) {
        if (u.role != UseRole::definition) break;
        ++next;
        continue;
      }
      left.push_back(u);
    }
    if (next < held.size()) return storage::encode_uses(run, true);
    return left.empty() ? std::string() : storage::encode_uses(left);
  }

  // Orders the occurrences by name, then by offset, so that each name's uses are one run. A file names
  // far fewer names than it has occurrences: the names are told apart by a hash table and only they are
  // sorted; the occurrences are then placed by their name's rank, in the order found (which is by offset,
  // except where blanked text was read first).
  void by_name() {
    std::unordered_map<std::string_view, std::uint32_t> ids;
    ids.reserve(found_.size() / 4 + 16);
    std::vector<std::string_view> names;
    std::vector<std::uint32_t> id_of(found_.size()), count;
    for (std::size_t i = 0; i < found_.size(); ++i) {
      const auto [at, fresh] = ids.try_emplace(name_of(found_[i]), static_cast<std::uint32_t>(names.size()));
      if (fresh) {
        names.push_back(at->first);
        count.push_back(0);
      }
      id_of[i] = at->second;
      ++count[at->second];
    }
    std::vector<std::uint32_t> order(names.size());
    for (std::uint32_t id = 0; id < order.size(); ++id) order[id] = id;
    std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) { return names[a] < names[b]; });
    std::vector<std::uint32_t> begin(names.size()), end(names.size());
    std::uint32_t start = 0;
    for (const std::uint32_t id : order) {
      begin[id] = end[id] = start;
      start += count[id];
    }
    std::vector<Found> sorted(found_.size());
    for (std::size_t i = 0; i < found_.size(); ++i) sorted[end[id_of[i]]++] = found_[i];
    found_ = std::move(sorted);
    const auto by_offset = [](const Found& a, const Found& b) { return a.offset < b.offset; };
    for (const std::uint32_t id : order) {
      const auto first = found_.begin() + begin[id], last = found_.begin() + end[id];
      if (!std::is_sorted(first, last, by_offset)) std::sort(first, last, by_offset);
    }
  }

  // An occurrence: where its name starts in the source, the name's length << 3 | its role (8 bytes: a
  // large file has hundreds of thousands).
  struct Found {
    std::uint32_t offset;
    std::uint32_t length_role;
  };
  struct Frame {
    TSSymbol symbol;
    TSFieldId field;  // of this node in its parent
    TSNode node;
  };

  bool known(TSSymbol s, const std::vector<bool>& by_symbol) const { return s < by_symbol.size() && by_symbol[s]; }

  void enter(TSNode node, TSFieldId field) {
    frames_.push_back({ts_node_symbol(node), field, node});
    const Frame& f = frames_.back();
    const TSSymbol s = f.symbol;
    if (known(s, g_.import)) {
      ++in_import_;
      import_targets(f.node);
    } else if (s == g_.import_spec && s != 0) {
      add_import(unquoted(text(field_child(f.node, "path"), source_)), f.node);
    } else if (s == g_.mod_item && s != 0 && ts_node_is_null(field_child(f.node, "body"))) {
      add_import("mod " + std::string(text(field_child(f.node, "name"), source_)), f.node);
    } else if (g_.javascript && s == g_.call_expression && s != 0) {
      required_module(f.node);
    } else if (g_.javascript && s == g_.export_statement && s != 0) {
      const TSNode from = field_child(f.node, "source");
      if (!ts_node_is_null(from)) add_import(unquoted(text(from, source_)), f.node);
    }
    if (s >= g_.leaf.size() || g_.leaf[s] == kNoLeaf) return;
    if (g_.leaf[s] == kMacroBody) {
      if (frames_.size() >= 2 && known(frames_[frames_.size() - 2].symbol, g_.macro_definition)) macro_body(f.node);
      return;
    }
    if (ts_node_child_count(f.node) != 0) return;  // a qualified name: its parts are the leaves
    const std::uint32_t start = ts_node_start_byte(f.node);
    const std::string_view name = text(f.node, source_);
    if (name.empty() || !name_start(static_cast<unsigned char>(name.front()))) return;
    if (g_.c_family && g_.leaf[s] == kTypeName && c_keyword(name)) return;
    // Error recovery may read the words of a string or a comment as names.
    if (g_.c_family ? in_quoted_span(quoted_, start)
                    : frames_.size() >= 2 && ts_node_is_error(frames_[frames_.size() - 2].node) && quoted_on_its_line(start)) {
      return;
    }
    add(name, start, role_of_leaf(start));
  }

  void leave() {
    if (known(frames_.back().symbol, g_.import)) --in_import_;
    frames_.pop_back();
  }

  UseRole role_of_leaf(std::uint32_t start) {
    while (next_def_ < defs_.size() && defs_[next_def_] < start) ++next_def_;
    if (next_def_ < defs_.size() && defs_[next_def_] == start) return UseRole::definition;
    if (in_import_ > 0) return UseRole::import;
    if (const std::size_t n = frames_.size(); n >= 2 && frames_[n - 1].field != 0 && frames_[n - 2].symbol < g_.label.size() &&
                                              g_.label[frames_[n - 2].symbol] == frames_[n - 1].field) {
      return UseRole::definition;
    }
    // Up through the qualified or member names whose last part this is, to the call that calls it.
    for (std::size_t i = frames_.size() - 1; i > 0; --i) {
      const Frame& parent = frames_[i - 1];
      const TSFieldId field = frames_[i].field;
      // An error node's symbol (-1) is in no table.
      if (field == 0 || parent.symbol >= g_.callee.size()) break;
      if (g_.callee[parent.symbol] == field) return UseRole::call;
      if (g_.member[parent.symbol] != field) break;
    }
    const Frame& leaf = frames_.back();
    if (g_.leaf[leaf.symbol] == kTypeName) return UseRole::type;
    // A macro's arguments are tokens: a name followed by parenthesised tokens is called.
    if (g_.token_tree != 0 && frames_.size() >= 2 && frames_[frames_.size() - 2].symbol == g_.token_tree) {
      const TSNode next = ts_node_next_sibling(leaf.node);
      if (!ts_node_is_null(next) && ts_node_symbol(next) == g_.token_tree && ts_node_start_byte(next) < source_.size() &&
          source_[ts_node_start_byte(next)] == '(') {
        return UseRole::call;
      }
    }
    if (frames_.size() >= 2 && known(frames_[frames_.size() - 2].symbol, g_.type_context)) return UseRole::type;
    return UseRole::other;
  }

  // `name`: the text of the source at `offset`.
  void add(std::string_view name, std::uint32_t offset, UseRole role) {
    found_.push_back({offset, static_cast<std::uint32_t>(name.size()) << 3 | static_cast<std::uint32_t>(role)});
  }
  std::string_view name_of(const Found& f) const { return source_.substr(f.offset, f.length_role >> 3); }

  // Whether the byte at `at` lies in a string or after a line comment, by the quotes and slashes before
  // it on its line.
  bool quoted_on_its_line(std::uint32_t at) const {
    const std::size_t bol = at == 0 ? 0 : source_.rfind('\n', at - 1) + 1;
    char quote = 0;
    for (std::size_t i = bol; i < at; ++i) {
      const char c = source_[i];
      if (quote != 0) {
        if (c == '\\') ++i;
        else if (c == quote) quote = 0;
      } else if (c == '"' || c == '\'') {
        quote = c;
      } else if (c == '/' && i + 1 < at && source_[i + 1] == '/') {
        return true;
      }
    }
    return quote != 0;
  }

  // C and C++ are parsed without their decoration macros and with one section of a split `#if` group
  // (the rest blanked): the names of what was blanked are read from the source as tokens.
  void blanked_text(TSNode root, std::string_view parsed) {
    if (!g_.c_family || parsed.data() == source_.data() || parsed.size() != source_.size()) return;
    std::size_t i = 0;
    while (i < parsed.size()) {
      if (parsed[i] == source_[i]) {
        ++i;
        continue;
      }
      // A span of blanked bytes, through the white space between them.
      std::size_t end = i, last = i;
      for (; end < parsed.size(); ++end) {
        if (parsed[end] != source_[end]) last = end;
        else if (!std::isspace(static_cast<unsigned char>(source_[end]))) break;
      }
      // The blanker also blanks the macros it knows inside comments: the tree says where those are.
      const std::string_view around =
          ts_node_type(ts_node_descendant_for_byte_range(root, static_cast<std::uint32_t>(i), static_cast<std::uint32_t>(i)));
      if (around.find("comment") == std::string_view::npos && around.find("string") == std::string_view::npos &&
          around.find("char_literal") == std::string_view::npos && !in_quoted_span(quoted_, static_cast<std::uint32_t>(i))) {
        words(i, source_.substr(i, last + 1 - i), true);
      }
      i = last + 1;
    }
  }

  // The names of a macro's body, read as C tokens: not in its comments, strings or numbers.
  void macro_body(TSNode node) { words(ts_node_start_byte(node), text(node, source_), false); }

  // The names of C text at `begin`, read as tokens; `directives`: a line's directive is no name.
  void words(std::size_t begin_at, std::string_view body, bool directives) {
    const auto begin = static_cast<std::uint32_t>(begin_at);
    std::size_t i = 0;
    bool line_start = true;
    while (i < body.size()) {
      const auto c = static_cast<unsigned char>(body[i]);
      if (c == '\n') line_start = true;
      else if (!std::isspace(c)) {
        if (directives && line_start && c == '#') {  // `#if`, `#else`: skip the directive's word
          ++i;
          while (i < body.size() && (body[i] == ' ' || body[i] == '\t')) ++i;
          while (i < body.size() && name_char(static_cast<unsigned char>(body[i]))) ++i;
          line_start = false;
          continue;
        }
        line_start = false;
      }
      if (c == '/' && i + 1 < body.size() && body[i + 1] == '/') {
        while (i < body.size() && body[i] != '\n') ++i;
        continue;
      }
      if (c == '/' && i + 1 < body.size() && body[i + 1] == '*') {
        const std::size_t end = body.find("*/", i + 2);
        i = end == std::string_view::npos ? body.size() : end + 2;
      } else if (c == '"' || c == '\'') {
        ++i;
        while (i < body.size() && static_cast<unsigned char>(body[i]) != c) i += body[i] == '\\' ? 2 : 1;
        ++i;
      } else if (std::isdigit(c) || (c == '.' && i + 1 < body.size() && std::isdigit(static_cast<unsigned char>(body[i + 1])))) {
        while (i < body.size() && (name_char(static_cast<unsigned char>(body[i])) || body[i] == '.' || body[i] == '\'')) ++i;
      } else if (name_start(c)) {
        std::size_t end = i;
        while (end < body.size() && name_char(static_cast<unsigned char>(body[end]))) ++end;
        const std::string_view word = body.substr(i, end - i);
        // A prefix of a string or character literal (L"x", u8"x") is no name.
        const bool literal_prefix = end < body.size() && (body[end] == '"' || body[end] == '\'');
        if (!literal_prefix && !c_keyword(word)) {
          std::size_t next = end;
          while (next < body.size() && (body[next] == ' ' || body[next] == '\t')) ++next;
          const std::uint32_t at = begin + static_cast<std::uint32_t>(i);
          // Blanked text is read before the tree (its words are not in the tree's order): no definitions there.
          add(word, at, next < body.size() && body[next] == '(' ? UseRole::call : directives ? UseRole::other : role_of_leaf(at));
        }
        i = end;
      } else {
        ++i;
      }
    }
  }

  void add_import(std::string target, TSNode node) {
    if (target.empty()) return;
    imports_.push_back({std::move(target), static_cast<int>(ts_node_start_point(node).row) + 1});
  }
  void add_import(std::string_view target, TSNode node) { add_import(std::string(target), node); }

  // What an import node names, as written.
  void import_targets(TSNode node) {
    const std::string_view type = ts_node_type(node);
    if (type == "preproc_include") {
      add_import(text(field_child(node, "path"), source_), node);
    } else if (type == "import_statement" && language_ == "python") {
      const std::uint32_t n = ts_node_named_child_count(node);
      for (std::uint32_t i = 0; i < n; ++i) {
        TSNode child = ts_node_named_child(node, i);
        if (std::strcmp(ts_node_type(child), "aliased_import") == 0) child = field_child(child, "name");
        add_import(text(child, source_), node);
      }
    } else if (type == "import_from_statement") {
      const std::string module(text(field_child(node, "module_name"), source_));
      add_import(module, node);
      // `from . import retry` and `from pkg import mod` may import modules: each name below the module too.
      const std::uint32_t n = ts_node_named_child_count(node);
      for (std::uint32_t i = 0; i < n; ++i) {
        if (std::strcmp(ts_node_field_name_for_named_child(node, i) ? ts_node_field_name_for_named_child(node, i) : "",
                        "name") != 0) {
          continue;
        }
        TSNode child = ts_node_named_child(node, i);
        if (std::strcmp(ts_node_type(child), "aliased_import") == 0) child = field_child(child, "name");
        const std::string_view name = text(child, source_);
        if (!name.empty()) add_import(module.ends_with(".") ? module + std::string(name) : module + "." + std::string(name), node);
      }
    } else if (type == "import_statement") {  // JavaScript and TypeScript
      add_import(unquoted(text(field_child(node, "source"), source_)), node);
    } else if (type == "use_declaration") {
      std::string_view path = text(field_child(node, "argument"), source_);
      const bool item = path.find_first_of("{*") == std::string_view::npos;
      path = path.substr(0, path.find('{'));
      path = path.substr(0, path.find(" as "));
      while (path.ends_with(":") || path.ends_with("*")) path.remove_suffix(1);
      add_import(path, node);
      // `use a::b::item`: the module is the path without its last part.
      if (const std::size_t last = path.rfind("::"); item && last != std::string_view::npos && last > 0) {
        add_import(path.substr(0, last), node);
      }
    } else if (type == "extern_crate_declaration") {
      add_import(text(field_child(node, "name"), source_), node);
    } else if (type == "import_declaration" && language_ == "java") {
      std::string target;
      for (char ch : text(node, source_)) {
        if (ch != ' ' && ch != '\t' && ch != '\n' && ch != '\r' && ch != ';') target.push_back(ch);
      }
      if (target.starts_with("import")) target.erase(0, 6);
      if (target.starts_with("static")) target.erase(0, 6);
      add_import(std::move(target), node);
    }
  }

  // require("x") and import("x").
  void required_module(TSNode call) {
    const std::string_view callee = text(field_child(call, "function"), source_);
    if (callee != "require" && callee != "import") return;
    const TSNode args = field_child(call, "arguments");
    if (ts_node_is_null(args) || ts_node_named_child_count(args) == 0) return;
    const TSNode first = ts_node_named_child(args, 0);
    if (std::strcmp(ts_node_type(first), "string") == 0) add_import(unquoted(text(first, source_)), call);
  }

  const UseGrammar& g_;
  std::string_view language_;
  std::string_view source_;
  std::span<const std::uint32_t> defs_;
  std::size_t next_def_ = 0;
  int in_import_ = 0;
  std::vector<Frame> frames_;
  std::vector<Found> found_;
  std::vector<storage::ImportRow> imports_;
  std::vector<QuotedSpan> quoted_;  // C and C++ with errors: the comments and literals
};

}  // namespace

FileUses find_uses(const Language& lang, TSNode root, std::string_view source, std::string_view parsed,
                   std::span<const std::uint32_t> definitions, std::span<const SymbolSpot> symbols,
                   const std::function<void()>& walked) {
  return Finder(use_grammar(lang), lang.name, source, definitions).run(root, parsed, symbols, walked);
}

}  // namespace brenloc::engines
