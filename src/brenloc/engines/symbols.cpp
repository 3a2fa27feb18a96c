#include "brenloc/engines/symbols.h"

#include <tree_sitter/api.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>

#include <fmt/format.h>

#include "brenloc/engines/annotation_macros.h"
#include "brenloc/engines/conditional_code.h"
#include "brenloc/engines/content_language.h"
#include "brenloc/engines/directive_ends.h"
#include "brenloc/engines/compiled_query.h"
#include "brenloc/engines/languages.h"
#include "brenloc/engines/uses.h"

namespace brenloc::engines {
namespace {

// ---------------------------------------------------------------------------------------------
// Kinds

std::string_view kind_name(Kind k) { return kind_names[static_cast<std::size_t>(k)]; }

// Kinds whose definitions hold members: a function defined inside one of them is a method.
bool is_type_like(Kind k) {
  switch (k) {
    case Kind::class_: case Kind::struct_: case Kind::union_: case Kind::interface: case Kind::trait:
      return true;
    default:
      return false;
  }
}

bool is_function_like(Kind k) {
  return k == Kind::function || k == Kind::method || k == Kind::constructor;
}

// Kinds that name a scope for the definitions inside them.
bool opens_scope(Kind k) {
  return is_type_like(k) || is_function_like(k) || k == Kind::enum_ || k == Kind::namespace_ ||
         k == Kind::module;
}

// ---------------------------------------------------------------------------------------------
// The thread's parsers and query cursor

// One parser per language per thread.
TSParser* thread_parser(const Language& lang) {
  struct Parsers {
    std::vector<TSParser*> parsers = std::vector<TSParser*>(LANGUAGES.size(), nullptr);
    ~Parsers() {
      for (TSParser* p : parsers) {
        if (p) ts_parser_delete(p);
      }
    }
  };
  thread_local Parsers local;
  TSParser*& p = local.parsers[static_cast<std::size_t>(&lang - LANGUAGES.data())];
  if (p == nullptr) {
    p = ts_parser_new();
    if (!ts_parser_set_language(p, lang.grammar())) {
      ts_parser_delete(p);
      p = nullptr;
      throw std::runtime_error(fmt::format("the {} grammar does not load with this tree-sitter runtime", lang.name));
    }
  }
  return p;
}

TSQueryCursor* thread_cursor() {
  struct Cursor {
    TSQueryCursor* cursor = ts_query_cursor_new();
    ~Cursor() { ts_query_cursor_delete(cursor); }
  };
  thread_local Cursor local;
  return local.cursor;
}

struct TreeDeleter {
  void operator()(TSTree* t) const { ts_tree_delete(t); }
};
using TreePtr = std::unique_ptr<TSTree, TreeDeleter>;

// ---------------------------------------------------------------------------------------------
// Parsing with a deadline

// The per-file time limit counts the CPU time of the thread that parses, not the time on the clock: a
// file that parses within the limit on an idle machine must not be left out because the machine is busy
// (a rebuild that runs beside other work, or a parse thread that the scheduler preempts for seconds).
std::chrono::nanoseconds thread_cpu_now() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
}

struct Deadline {
  std::optional<std::chrono::nanoseconds> at;  // on this thread's CPU clock
  // A thread's CPU time grows no faster than the clock: before this moment it cannot have reached `at`,
  // so the CPU clock, whose every reading is a system call, is not read before it.
  std::chrono::steady_clock::time_point not_before;
  mutable unsigned polls = 0;

  static Deadline after(std::chrono::milliseconds limit) {
    Deadline d;
    if (limit.count() > 0) {
      d.at = thread_cpu_now() + limit;
      d.not_before = std::chrono::steady_clock::now() + limit;
    }
    return d;
  }
  bool passed() const {
    return at && std::chrono::steady_clock::now() >= not_before && thread_cpu_now() >= *at;
  }
  // For callers that poll very often (the parser asks every hundred steps): looks on one poll in eight.
  bool passed_now_and_then() const { return at && (++polls & 7) == 0 && passed(); }
};

#if TREE_SITTER_LANGUAGE_VERSION >= 15
const char* read_source(void* payload, std::uint32_t byte, TSPoint, std::uint32_t* bytes_read) {
  const auto* src = static_cast<const std::string_view*>(payload);
  if (byte >= src->size()) {
    *bytes_read = 0;
    return "";
  }
  *bytes_read = static_cast<std::uint32_t>(src->size() - byte);
  return src->data() + byte;
}

bool parse_progress(TSParseState* state) {
  return static_cast<const Deadline*>(state->payload)->passed_now_and_then();
}
#endif

TreePtr parse_tree(const Language& lang, std::string_view source, const Deadline& deadline) {
  TSParser* parser = thread_parser(lang);
#if TREE_SITTER_LANGUAGE_VERSION >= 15
  TSInput input{};
  input.payload = &source;
  input.read = read_source;
  input.encoding = TSInputEncodingUTF8;
  TSParseOptions options{};
  if (deadline.at) {
    options.payload = const_cast<Deadline*>(&deadline);
    options.progress_callback = parse_progress;
  }
  TreePtr tree(ts_parser_parse_with_options(parser, nullptr, input, options));
#else
  // This runtime knows only a timeout on the clock: the CPU time left is given as one.
  std::uint64_t micros = 0;
  if (deadline.at) {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(*deadline.at - thread_cpu_now());
    micros = static_cast<std::uint64_t>(std::max<std::int64_t>(left.count(), 1));
  }
  ts_parser_set_timeout_micros(parser, micros);
  TreePtr tree(ts_parser_parse_string(parser, nullptr, source.data(), static_cast<std::uint32_t>(source.size())));
#endif
  // A cancelled parse would otherwise be resumed by the next call on this thread.
  if (!tree) ts_parser_reset(parser);
  return tree;
}

// ---------------------------------------------------------------------------------------------
// Candidate definitions

bool type_is(TSNode node, const char* type) { return std::strcmp(ts_node_type(node), type) == 0; }

// A scope part as written: without template arguments, generics or white space.
std::string clean_scope_part(std::string_view text) {
  std::string out;
  int depth = 0;
  for (char ch : text) {
    if (ch == '<' || ch == '[') ++depth;
    else if ((ch == '>' || ch == ']') && depth > 0) --depth;
    else if (depth == 0 && ch != ' ' && ch != '\t' && ch != '\n' && ch != '\r' && ch != '&' && ch != '*') {
      out.push_back(ch);
    }
  }
  return out;
}

struct ResolvedName {
  TSNode node{};                   // the name's node
  std::vector<std::string> scope;  // qualifiers written in the name (ns::K::m -> ns, K)
  bool function_declarator = false;  // a function's declarator was crossed (not a function pointer)
  bool found = false;
};

// Descends a C/C++ declarator to the declared name.
ResolvedName resolve_declarator(TSNode node, std::string_view source) {
  ResolvedName out;
  for (int guard = 0; guard < 64 && !ts_node_is_null(node); ++guard) {
    const char* type = ts_node_type(node);
    if (std::strcmp(type, "identifier") == 0 || std::strcmp(type, "field_identifier") == 0 ||
        std::strcmp(type, "type_identifier") == 0 || std::strcmp(type, "destructor_name") == 0 ||
        std::strcmp(type, "operator_name") == 0 || std::strcmp(type, "primitive_type") == 0 ||
        std::strcmp(type, "operator_cast") == 0) {
      out.node = node;
      out.found = true;
      // A conversion operator's parameters are inside its name's node.
      if (std::strcmp(type, "operator_cast") == 0) out.function_declarator = true;
      return out;
    }
    if (std::strcmp(type, "qualified_identifier") == 0) {
      TSNode scope = ts_node_child_by_field_name(node, "scope", 5);
      if (!ts_node_is_null(scope)) out.scope.push_back(clean_scope_part(text_of(scope, source)));
      node = ts_node_child_by_field_name(node, "name", 4);
      continue;
    }
    if (std::strcmp(type, "template_function") == 0 || std::strcmp(type, "template_type") == 0) {
      node = ts_node_child_by_field_name(node, "name", 4);
      continue;
    }
    if (std::strcmp(type, "function_declarator") == 0) {
      TSNode inner = ts_node_child_by_field_name(node, "declarator", 10);
      if (!ts_node_is_null(inner) && !type_is(inner, "parenthesized_declarator")) {
        out.function_declarator = true;
      }
      node = inner;
      continue;
    }
    TSNode inner = ts_node_child_by_field_name(node, "declarator", 10);
    if (!ts_node_is_null(inner)) {
      node = inner;
      continue;
    }
    // parenthesized, reference and attributed declarators hold their declarator unnamed.
    if (std::strcmp(type, "parenthesized_declarator") == 0 ||
        std::strcmp(type, "reference_declarator") == 0 ||
        std::strcmp(type, "attributed_declarator") == 0) {
      TSNode next{};
      const std::uint32_t n = ts_node_named_child_count(node);
      for (std::uint32_t i = 0; i < n; ++i) {
        TSNode child = ts_node_named_child(node, i);
        const char* ct = ts_node_type(child);
        if (std::strcmp(ct, "attribute_declaration") == 0 || std::strcmp(ct, "ms_call_modifier") == 0) continue;
        next = child;
        break;
      }
      if (ts_node_is_null(next)) return out;
      node = next;
      continue;
    }
    return out;  // something else (a macro call, an error): no name
  }
  return out;
}

bool is_type_keyword(std::string_view word) {
  static constexpr std::string_view kWords[] = {"void",  "char",   "short",  "int",     "long",
                                                "float", "double", "signed", "unsigned"};
  return std::find(std::begin(kWords), std::end(kWords), word) != std::end(kWords);
}

// Whether a C++ declaration is a deduction guide (`template<class T> box(T) -> box<T>;`): it has no type and
// its declarator ends in a return type. It is named after a class template, which it does not declare.
bool is_deduction_guide(TSNode decl, TSNode declarator) {
  if (!type_is(decl, "declaration") || !ts_node_is_null(ts_node_child_by_field_name(decl, "type", 4)) ||
      !type_is(declarator, "function_declarator")) {
    return false;
  }
  const std::uint32_t n = ts_node_named_child_count(declarator);
  for (std::uint32_t i = 0; i < n; ++i) {
    if (type_is(ts_node_named_child(declarator, i), "trailing_return_type")) return true;
  }
  return false;
}

bool has_extern_storage(TSNode decl, std::string_view source) {
  const std::uint32_t n = ts_node_child_count(decl);
  for (std::uint32_t i = 0; i < n; ++i) {
    TSNode child = ts_node_child(decl, i);
    if (type_is(child, "storage_class_specifier") && text_of(child, source) == "extern") return true;
  }
  return false;
}

// Whether the word before byte `at` is `friend`.
bool follows_friend(std::string_view src, std::uint32_t at) {
  std::size_t i = std::min<std::size_t>(at, src.size());
  while (i > 0 && std::strchr(" \t\r\n", src[i - 1]) != nullptr) --i;
  return i >= 6 && src.substr(i - 6, 6) == "friend" &&
         (i == 6 || !(std::isalnum(static_cast<unsigned char>(src[i - 7])) || src[i - 7] == '_'));
}

// The lines that `template <...>` headers right before byte `at` take up (C++ puts them outside the
// node of the definition they introduce), by the newlines between the first header and `at`.
std::uint32_t rows_of_template_headers(std::string_view src, std::uint32_t at) {
  auto skip_blanks = [&](std::size_t i) {
    while (i > 0 && std::strchr(" \t\r\n", src[i - 1]) != nullptr) --i;
    return i;
  };
  std::size_t start = at;
  for (std::size_t i = skip_blanks(at); i > 0 && src[i - 1] == '>';) {
    int depth = 0;
    std::size_t j = i;
    do {
      --j;
      depth += src[j] == '>' ? 1 : src[j] == '<' ? -1 : 0;
    } while (j > 0 && depth > 0);
    if (depth != 0) break;
    const std::size_t word_end = skip_blanks(j);
    if (word_end < 8 || src.substr(word_end - 8, 8) != "template") break;
    if (word_end > 8 && (std::isalnum(static_cast<unsigned char>(src[word_end - 9])) || src[word_end - 9] == '_')) break;
    start = word_end - 8;
    i = skip_blanks(start);
  }
  return static_cast<std::uint32_t>(std::count(src.begin() + static_cast<std::ptrdiff_t>(start),
                                               src.begin() + static_cast<std::ptrdiff_t>(at), '\n'));
}

struct Candidate {
  Entry entry = Entry::symbol;
  Kind kind = Kind::function;
  std::string name;
  std::vector<std::string> qualifier;
  std::uint32_t start_byte = 0, end_byte = 0;
  TSPoint start{}, end{};  // start: of the name (where the definition is shown); end: of the definition
  std::uint32_t first_row = 0;  // where the definition starts (its return type, a template header)
  std::uint32_t key = 0;  // the name node's start byte: one definition per name node
  std::uint32_t pattern = 0;
  bool specialization = false;  // its name has template arguments (`class vector<bool, A>`), or a deduction guide
  std::string aliased;  // a module's name exported under this one (`export { aliased as name }`)
};

// Turns one match into a candidate definition, or nothing.
std::optional<Candidate> candidate_of(const Captured& m, std::string_view source, const Language& lang) {
  if (ts_node_is_null(m.def)) return std::nullopt;
  Candidate c;
  c.entry = m.entry;
  c.kind = m.kind;
  c.pattern = m.pattern;
  c.start_byte = ts_node_start_byte(m.def);
  c.end_byte = ts_node_end_byte(m.def);
  c.start = ts_node_start_point(m.def);
  c.end = ts_node_end_point(m.def);
  c.first_row = c.start.row;
  if (lang.name == "cpp") c.first_row -= rows_of_template_headers(source, c.start_byte);

  if (c.entry == Entry::local) {
    c.key = c.start_byte;
    return c;
  }
  if (c.entry == Entry::scope) {
    if (ts_node_is_null(m.scope_name)) return std::nullopt;
    c.name = clean_scope_part(text_of(m.scope_name, source));
    c.key = ts_node_start_byte(m.scope_name);
    return c.name.empty() ? std::nullopt : std::optional<Candidate>(std::move(c));
  }

  TSNode name = m.name;
  if (!ts_node_is_null(m.declarator)) {
    ResolvedName r = resolve_declarator(m.declarator, source);
    if (!r.found) return std::nullopt;
    if (c.kind == Kind::function && !r.function_declarator) return std::nullopt;
    // A declaration or member that declares a function is a prototype; an `extern` variable is defined
    // elsewhere. A friend's declaration declares nothing of its class.
    if ((c.kind == Kind::variable || c.kind == Kind::field) && r.function_declarator) {
      if (follows_friend(source, c.start_byte)) return std::nullopt;
      // A deduction guide ranks after the class template it names, as a specialization does.
      c.specialization = lang.name == "cpp" && is_deduction_guide(m.def, m.declarator);
      c.kind = Kind::function_declaration;
    } else if (c.kind == Kind::variable && has_extern_storage(m.def, source)) {
      c.kind = Kind::variable_declaration;
    }
    name = r.node;
    c.qualifier = std::move(r.scope);
  } else if (!ts_node_is_null(name) && lang.c_family &&
             type_is(name, "qualified_identifier")) {
    ResolvedName r = resolve_declarator(name, source);
    if (!r.found) return std::nullopt;
    name = r.node;
    c.qualifier = std::move(r.scope);
  }
  if (ts_node_is_null(name)) return std::nullopt;
  if (!ts_node_is_null(m.qualifier)) c.qualifier.push_back(clean_scope_part(text_of(m.qualifier, source)));

  std::string_view text = text_of(name, source);
  if (type_is(name, "template_type")) {
    text = text.substr(0, text.find('<'));
    c.specialization = true;
  }
  if (type_is(name, "operator_cast")) {  // `operator bool() const`: the name ends before its parameters
    text = text.substr(0, text.find('('));
    while (!text.empty() && std::strchr(" \t\r\n", text.back()) != nullptr) text.remove_suffix(1);
  }
  // A type keyword is never a declared name: it is what the parser makes of a declaration whose
  // decorations it cannot expand (`GLAPI void APIENTRY glClear (GLbitfield mask);` declares `void`
  // as well as glClear).
  if (lang.c_family && is_type_keyword(text)) return std::nullopt;
  c.name = std::string(text);
  // Strings name TypeScript modules ("declare module 'x'"): keep the text inside the quotes.
  if (c.name.size() >= 2 && (c.name.front() == '"' || c.name.front() == '\'')) {
    c.name = c.name.substr(1, c.name.size() - 2);
  }
  c.key = ts_node_start_byte(name);
  c.start = ts_node_start_point(name);
  if (c.name.empty()) return std::nullopt;
  if (type_is(m.def, "export_specifier")) {
    if (c.name == "default") return std::nullopt;  // the module's default export, which has no name
    // Of the kind of what it names (see symbol_rows); a type, when the module exports only types.
    const TSNode aliased = ts_node_child_by_field_name(m.def, "name", 4);
    if (!ts_node_is_null(aliased)) c.aliased = std::string(text_of(aliased, source));
    const TSNode statement = ts_node_parent(ts_node_parent(m.def));
    if (!ts_node_is_null(statement) && text_of(statement, source).substr(0, 12) == "export type ") c.kind = Kind::type;
  }
  return c;
}

bool is_javascript_family(std::string_view language) {
  return language == "javascript" || language == "typescript" || language == "tsx";
}

struct OpenScope {
  std::uint32_t start_byte, end_byte;
  std::string path;  // the full scope it opens
  bool type_like;
  bool function_like;
  std::string name;
  bool specialization = false;  // of a template, or inside one
};

void append_scope(std::string& scope, std::string_view part, std::string_view sep) {
  if (part.empty()) return;
  if (!scope.empty()) scope += sep;
  scope += part;
}

std::string join_scope(const std::string& outer, std::string_view part, std::string_view sep) {
  std::string out = outer;
  append_scope(out, part, sep);
  return out;
}

// The grammar a file is parsed with and the language it is labelled with. A file given as C may be C++
// (a `.h` file says nothing): one whose first lines say so, or that holds C++ outside `#ifdef __cplusplus`
// sections, is C++; one that holds C++ only inside such sections is C parsed as C++, which reads C too.
struct Chosen {
  const Language* grammar;
  std::string_view label;
};

Chosen chosen_language(const Language& lang, std::string_view source) {
  if (lang.name != "c") return {&lang, lang.name};
  const Language* cpp = find_language("cpp");
  if (language_named_in(source.substr(0, kLanguageHeadBytes)) == "cpp") return {cpp, cpp->name};
  switch (cpp_marks(source)) {
    case CppMarks::plain: return {cpp, cpp->name};
    case CppMarks::guarded: return {cpp, lang.name};
    case CppMarks::none: break;
  }
  return {&lang, lang.name};
}

// The text the parser sees: C and C++ without their decoration macros, with one section of each `#if`
// group that splits a declaration and with their directives ended cleanly (same offsets), else the
// source itself. The buffer is the thread's own and lives until its next use.
std::string_view parser_input(const Language& lang, std::string_view source) {
  if (!lang.c_family) return source;
  thread_local std::string buffer;
  buffer.assign(source);
  bool changed = blank_annotation_macros(buffer);
  changed |= keep_one_section_of_split_groups(buffer);
  changed |= end_directive_lines(buffer);
  if (!changed) return source;
  return buffer;
}

// ---------------------------------------------------------------------------------------------
// Finding the definitions of a tree

// Finds the candidate definitions of a tree: with the query over the whole tree, or, with an outline,
// depth first over the outline's nodes and their children, each the start of the patterns once (by the
// language's matcher in code where it has one). Stops, `late`, once the deadline has passed.
class DefinitionFinder {
 public:
  DefinitionFinder(const Language& lang, const CompiledQuery& query, std::string_view source,
                   const Deadline& deadline, Matching matching)
      : lang_(lang),
        query_(query),
        source_(source),
        deadline_(deadline),
        code_(matching == Matching::fastest && query.code ? &*query.code : nullptr) {}

  std::vector<Candidate> find(TSNode root) {
    if (query_.outline.empty()) {
      run_query(root, true);
    } else {
      walk_outline(root);
    }
    return std::move(candidates_);
  }
  bool late() const { return late_; }

 private:
  // Runs the query on `node`: on the whole subtree, or only for the patterns that start at the node.
  void run_query(TSNode node, bool whole) {
#if TREE_SITTER_LANGUAGE_VERSION >= 15
    ts_query_cursor_set_max_start_depth(cursor_, whole ? UINT32_MAX : 0);
#endif
    ts_query_cursor_exec(cursor_, query_.query, node);
    TSQueryMatch match;
    while (ts_query_cursor_next_match(cursor_, &match)) {
      if ((++steps_ & 255) == 0 && deadline_.passed()) {
        late_ = true;
        return;
      }
      if (!predicates_hold(query_, match, source_)) continue;
      add(captured_of(query_, match));
    }
  }

  // The patterns that start at an outline node: by the matcher in code, except at error nodes.
  void match_at(TSNode node) {
    if (code_ == nullptr || ts_node_symbol(node) == static_cast<TSSymbol>(-1)) {
      run_query(node, false);
      return;
    }
    captured_.clear();
    code_->match(node, source_, captured_);
    for (const Captured& m : captured_) add(m);
  }

  void walk_outline(TSNode root) {
    TSTreeCursor walk = ts_tree_cursor_new(root);
    match_at(root);
    bool descend = true;
    while (!late_) {
      if (!(descend && ts_tree_cursor_goto_first_child(&walk))) {
        bool moved = false;
        while (!(moved = ts_tree_cursor_goto_next_sibling(&walk))) {
          if (!ts_tree_cursor_goto_parent(&walk)) break;
        }
        if (!moved) break;
      }
      const TSNode node = ts_tree_cursor_current_node(&walk);
      descend = marked(query_.outline, node);
      if (query_.starts.empty() || marked(query_.starts, node)) match_at(node);
      if ((++steps_ & 255) == 0 && deadline_.passed()) late_ = true;
    }
    ts_tree_cursor_delete(&walk);
  }

  // Whether a node's type is marked in `by_symbol`; error nodes (symbol -1) always are.
  static bool marked(const std::vector<bool>& by_symbol, TSNode node) {
    const TSSymbol sym = ts_node_symbol(node);
    return sym == static_cast<TSSymbol>(-1) || (sym < by_symbol.size() && by_symbol[sym]);
  }

  void add(const Captured& m) {
    if (auto c = candidate_of(m, source_, lang_)) candidates_.push_back(std::move(*c));
  }

  const Language& lang_;
  const CompiledQuery& query_;
  const std::string_view source_;
  const Deadline& deadline_;
  const CodeMatcher* code_;
  TSQueryCursor* cursor_ = thread_cursor();
  std::vector<Captured> captured_;
  std::vector<Candidate> candidates_;
  std::uint32_t steps_ = 0;
  bool late_ = false;
};

// One definition per name node, the pattern written first winning; then outer definitions before the
// definitions they contain.
void order_candidates(std::vector<Candidate>& candidates) {
  std::sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) {
    if (a.entry != b.entry) return a.entry < b.entry;
    if (a.key != b.key) return a.key < b.key;
    return a.pattern < b.pattern;
  });
  candidates.erase(std::unique(candidates.begin(), candidates.end(),
                               [](const Candidate& a, const Candidate& b) {
                                 return a.entry == b.entry && a.key == b.key;
                               }),
                   candidates.end());
  std::sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) {
    if (a.start_byte != b.start_byte) return a.start_byte < b.start_byte;
    if (a.end_byte != b.end_byte) return a.end_byte > b.end_byte;
    return a.entry > b.entry;  // an impl block or local before a symbol of the same range
  });
}

// ---------------------------------------------------------------------------------------------
// From candidates to symbol rows

// The kind a function turns out to have where it is defined: a method or constructor of its class
// (inside it, or out of it as K::m unless K is a namespace). JavaScript names its constructors.
void refine_kind(Candidate& c, const OpenScope* container, const std::unordered_set<std::string>& namespaces,
                 std::string_view language) {
  if (c.kind == Kind::function) {
    if (!c.qualifier.empty()) {
      const std::string& last = c.qualifier.back();
      if (c.name == last) c.kind = Kind::constructor;
      else if (!namespaces.contains(last)) c.kind = Kind::method;
    } else if (container && container->type_like) {
      c.kind = (c.name == container->name && language != "python") ? Kind::constructor : Kind::method;
    }
  }
  if (c.kind == Kind::method && c.name == "constructor" && is_javascript_family(language)) {
    c.kind = Kind::constructor;
  }
}

// The row of a symbol (its name moved in by the caller). The position is the name's (where an editor
// should jump); the end is the definition's last byte. Columns count bytes from 1: the parser's exclusive
// 0-based end is that last byte's 1-based column.
storage::SymbolRow row_of(const Candidate& c, std::string_view source, const std::string& scope) {
  storage::SymbolRow row;
  row.kind = std::string(kind_name(c.kind));
  row.line = static_cast<int>(c.start.row) + 1;
  row.column = static_cast<int>(c.start.column) + 1;
  row.end_line = static_cast<int>(c.end.row) + 1;
  row.end_column = static_cast<int>(c.end.column);
  row.start_line = std::min(static_cast<int>(c.first_row) + 1, row.line);
  if (c.end.column == 0 && c.end.row > c.start.row && c.end_byte > 0 && c.end_byte <= source.size()) {
    // The definition ends with its line's newline (a macro): it ends on that line, before it.
    const std::size_t newline = c.end_byte - 1;
    const std::size_t line_start = source.rfind('\n', newline == 0 ? 0 : newline - 1);
    row.end_line = static_cast<int>(c.end.row);
    row.end_column = static_cast<int>(newline - (line_start == std::string_view::npos ? 0 : line_start + 1));
  }
  row.scope = scope;
  return row;
}

// The symbol rows of ordered candidates, each with the scope that the definitions around it open and
// whether it starts in `conditional` code.
std::vector<storage::SymbolRow> symbol_rows(std::vector<Candidate>& candidates, std::string_view source,
                                            const Language& lang, const ByteRanges& conditional) {
  std::unordered_set<std::string> namespaces;
  std::unordered_map<std::string_view, Kind> defined;  // the first definition of each name
  for (const auto& c : candidates) {
    if (c.entry == Entry::symbol && c.kind == Kind::namespace_) namespaces.insert(c.name);
    if (c.entry == Entry::symbol && c.aliased.empty()) defined.try_emplace(c.name, c.kind);
  }
  // A name exported under another one is what it names, where the module defines that.
  for (auto& c : candidates) {
    if (c.aliased.empty()) continue;
    if (const auto at = defined.find(c.aliased); at != defined.end()) c.kind = at->second;
  }
  const std::string_view sep = lang.scope_separator;
  std::vector<OpenScope> stack;
  std::vector<storage::SymbolRow> rows;
  rows.reserve(candidates.size());
  for (Candidate& c : candidates) {
    while (!stack.empty() && !(stack.back().start_byte <= c.start_byte && c.end_byte <= stack.back().end_byte)) {
      stack.pop_back();
    }
    // `outer` and `scope` may be the container's own path: read them before the stack grows.
    const OpenScope* container = stack.empty() ? nullptr : &stack.back();
    static const std::string top_level;
    const std::string& outer = container ? container->path : top_level;
    std::string qualified;
    if (!c.qualifier.empty()) {
      qualified = outer;
      for (const auto& part : c.qualifier) append_scope(qualified, part, sep);
    }
    const std::string& scope = c.qualifier.empty() ? outer : qualified;

    if (c.entry == Entry::local) {
      stack.push_back({c.start_byte, c.end_byte, outer, false, true, {}, container && container->specialization});
      continue;
    }
    if (c.entry == Entry::scope) {
      stack.push_back({c.start_byte, c.end_byte, join_scope(scope, c.name, sep), true, false, c.name,
                       container && container->specialization});
      continue;
    }
    // Variables inside functions are locals, and so are the declarations there.
    if ((c.kind == Kind::variable || c.kind == Kind::constant || c.kind == Kind::function_declaration ||
         c.kind == Kind::variable_declaration) &&
        container && container->function_like && c.qualifier.empty()) {
      continue;
    }
    refine_kind(c, container, namespaces, lang.name);
    storage::SymbolRow row = row_of(c, source, scope);
    row.specialization = c.specialization || (container && container->specialization);
    row.conditional = holds_byte(conditional, c.key);  // where its name is
    if (opens_scope(c.kind)) {
      stack.push_back({c.start_byte, c.end_byte, join_scope(scope, c.name, sep), is_type_like(c.kind),
                       is_function_like(c.kind), c.name, row.specialization});
    }
    row.name = std::move(c.name);
    rows.push_back(std::move(row));
  }
  return rows;
}

// ---------------------------------------------------------------------------------------------
// Extraction

ParseResult extract(std::string_view language, std::string_view source, std::chrono::milliseconds time_limit,
                    Matching matching) {
  ParseResult result;
  const Language* named = find_language(language);
  if (named == nullptr) {
    result.error = fmt::format("no parser for language '{}'", language);
    return result;
  }
  if (source.size() > std::numeric_limits<std::uint32_t>::max() / 2) {
    result.error = "file too large for the parser";
    return result;
  }
  const Chosen chosen = chosen_language(*named, source);
  const Language& lang = *chosen.grammar;
  result.language = chosen.label;
  const Deadline deadline = Deadline::after(time_limit);
  const auto limit_error = [&] {
    return fmt::format("parsing took longer than the time limit of {} ms", time_limit.count());
  };

  const CompiledQuery& query = compiled_query(lang);
  const std::string_view parsed = parser_input(lang, source);
  TreePtr tree = parse_tree(lang, parsed, deadline);
  if (!tree) {
    result.error = deadline.passed() ? limit_error() : std::string("the parser returned no tree");
    return result;
  }
  const TSNode root = ts_tree_root_node(tree.get());
  result.syntax_errors = ts_node_has_error(root);

  DefinitionFinder finder(lang, query, source, deadline, matching);
  std::vector<Candidate> candidates = finder.find(root);
  if (finder.late() || deadline.passed()) {
    result.error = limit_error();
    return result;
  }
  order_candidates(candidates);
  std::vector<std::uint32_t> definitions;
  definitions.reserve(candidates.size());
  for (const Candidate& c : candidates) {
    if (c.entry == Entry::symbol) definitions.push_back(c.key);
  }
  std::sort(definitions.begin(), definitions.end());
  result.symbols = symbol_rows(candidates, source, lang, lang.c_family ? conditional_code(source) : ByteRanges{});
  std::vector<Candidate>().swap(candidates);
  // The places of the rows, where readers of uses find the definitions left out of them.
  std::vector<SymbolSpot> held;
  held.reserve(result.symbols.size());
  {
    const std::vector<std::uint32_t> lines = storage::line_starts(source);
    for (const storage::SymbolRow& row : result.symbols) {
      held.push_back({row.name, storage::definition_offset(lines, source.size(), row.line, row.column)});
    }
  }
  // The tree goes as soon as the uses have been read from it: the largest files' trees are the largest
  // allocations of an index pass, and ordering the uses would come on top of them.
  FileUses uses = find_uses(lang, root, source, parsed, definitions, held, [&] { tree.reset(); });
  if (deadline.passed()) {
    result.error = limit_error();
    return result;
  }
  result.uses = std::move(uses.names);
  result.imports = std::move(uses.imports);
  result.ok = true;
  return result;
}

}  // namespace

ParseResult extract_symbols(std::string_view language, std::string_view source,
                            std::chrono::milliseconds time_limit, Matching matching) {
  try {
    return extract(language, source, time_limit, matching);
  } catch (const std::exception& e) {  // a grammar that does not load, a query that does not compile
    ParseResult result;
    result.error = e.what();
    return result;
  }
}

bool parse_only(std::string_view language, std::string_view source) {
  const Language* named = find_language(language);
  if (named == nullptr) return false;
  const Language& lang = *chosen_language(*named, source).grammar;
  try {
    TreePtr tree = parse_tree(lang, parser_input(lang, source), Deadline{});
    return tree != nullptr;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace brenloc::engines
