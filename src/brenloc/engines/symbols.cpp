#include "brenloc/engines/symbols.h"

#include <tree_sitter/api.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <span>
#include <stdexcept>
#include <unordered_set>

#include <fmt/format.h>

#include "brenloc/engines/annotation_macros.h"
#include "brenloc/engines/code_matchers.h"
#include "brenloc/engines/definition_queries.h"
#include "brenloc/engines/languages.h"

extern "C" {
const TSLanguage* tree_sitter_python();
const TSLanguage* tree_sitter_c();
const TSLanguage* tree_sitter_cpp();
const TSLanguage* tree_sitter_javascript();
const TSLanguage* tree_sitter_typescript();
const TSLanguage* tree_sitter_tsx();
const TSLanguage* tree_sitter_go();
const TSLanguage* tree_sitter_rust();
const TSLanguage* tree_sitter_java();
}

namespace brenloc::engines {
namespace {

// Runtimes before ABI 15 cannot limit the depth at which a query's matches start, which querying
// an outline needs: with them every language is queried over its whole tree.
#if TREE_SITTER_LANGUAGE_VERSION >= 15
constexpr bool outline_supported = true;
#else
constexpr bool outline_supported = false;
#endif

// ---------------------------------------------------------------------------------------------
// Kinds

std::optional<Kind> kind_from_name(std::string_view name) {
  for (std::size_t i = 0; i < kind_names.size(); ++i) {
    if (kind_names[i] == name) return static_cast<Kind>(i);
  }
  return std::nullopt;
}

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
// Languages and their compiled queries

struct LanguageInfo {
  std::string_view name;
  const TSLanguage* (*grammar)();
  std::string_view query_source;
  std::string_view separator;  // between the parts of a scope
  std::span<const std::string_view> outline;  // empty: query the whole tree
};

const std::array<LanguageInfo, 9> language_infos = {{
    {"python", tree_sitter_python, queries::python, ".", queries::python_outline},
    {"c", tree_sitter_c, queries::c, "::", queries::c_outline},
    {"cpp", tree_sitter_cpp, queries::cpp, "::", queries::cpp_outline},
    {"javascript", tree_sitter_javascript, queries::javascript, "."},
    {"typescript", tree_sitter_typescript, queries::typescript, "."},
    {"tsx", tree_sitter_tsx, queries::typescript, "."},
    {"go", tree_sitter_go, queries::go, ".", queries::go_outline},
    {"rust", tree_sitter_rust, queries::rust, "::", queries::rust_outline},
    {"java", tree_sitter_java, queries::java, ".", queries::java_outline},
}};
constexpr std::size_t c_index = 1;
constexpr std::size_t cpp_index = 2;

std::optional<std::size_t> language_index(std::string_view language) {
  for (std::size_t i = 0; i < language_infos.size(); ++i) {
    if (language_infos[i].name == language) return i;
  }
  return std::nullopt;
}

enum class Role : std::uint8_t { none, name, name_declarator, qualifier, def, scope, scope_name, local };

struct CaptureInfo {
  Role role = Role::none;
  Kind kind = Kind::function;  // for Role::def
};

struct Predicate {
  enum class Op { eq, not_eq_, match, not_match } op;
  std::uint32_t capture = 0;
  std::optional<std::uint32_t> other_capture;  // compared with this capture's text...
  std::string text;                            // ...or with this text
  std::optional<std::regex> regex;
};

struct CompiledQuery {
  TSQuery* query = nullptr;
  std::vector<CaptureInfo> captures;                // by capture id
  std::vector<std::vector<Predicate>> predicates;  // by pattern index
  std::vector<bool> outline;                        // by node symbol; empty: no outline
  std::vector<bool> starts;                         // by node symbol: a pattern starts at such a node
  std::optional<CodeMatcher> code;                  // matches what the query would, except at error nodes
};

// The node type a pattern starts with: its first name after the opening parentheses ("" when it
// starts otherwise: an alternation, a wildcard, a string).
std::string_view pattern_root_type(const TSQuery* q, std::uint32_t pattern, std::string_view src) {
  std::size_t i = ts_query_start_byte_for_pattern(q, pattern);
  while (i < src.size() && (src[i] == '(' || std::isspace(static_cast<unsigned char>(src[i])))) ++i;
  std::size_t end = i;
  while (end < src.size() && (std::isalnum(static_cast<unsigned char>(src[end])) || src[end] == '_')) ++end;
  const std::string_view type = src.substr(i, end - i);
  return type == "_" ? std::string_view() : type;
}

// Marks in `by_symbol` every regular symbol named `type`; false if none is.
bool mark_node_type(const TSLanguage* lang, std::string_view type, std::vector<bool>& by_symbol) {
  return for_each_symbol_named(lang, type, [&](TSSymbol sym) { by_symbol[sym] = true; });
}

std::string_view capture_name(const TSQuery* q, std::uint32_t id) {
  std::uint32_t len = 0;
  const char* s = ts_query_capture_name_for_id(q, id, &len);
  return {s, len};
}

std::string_view query_string(const TSQuery* q, std::uint32_t id) {
  std::uint32_t len = 0;
  const char* s = ts_query_string_value_for_id(q, id, &len);
  return {s, len};
}

const char* query_error_name(TSQueryError e) {
  switch (e) {
    case TSQueryErrorSyntax: return "syntax error";
    case TSQueryErrorNodeType: return "unknown node type";
    case TSQueryErrorField: return "unknown field";
    case TSQueryErrorCapture: return "unknown capture";
    case TSQueryErrorStructure: return "impossible pattern";
    case TSQueryErrorLanguage: return "language version mismatch";
    default: return "error";
  }
}

CompiledQuery compile_query(const LanguageInfo& info) {
  CompiledQuery out;
  std::uint32_t error_offset = 0;
  TSQueryError error = TSQueryErrorNone;
  const std::string_view src = info.query_source;
  out.query = ts_query_new(info.grammar(), src.data(), static_cast<std::uint32_t>(src.size()),
                           &error_offset, &error);
  if (out.query == nullptr) {
    throw std::logic_error(fmt::format("definition query of {}: {} at offset {} near '{}'", info.name,
                                       query_error_name(error), error_offset,
                                       src.substr(error_offset, 40)));
  }
  const std::uint32_t n_captures = ts_query_capture_count(out.query);
  out.captures.resize(n_captures);
  for (std::uint32_t id = 0; id < n_captures; ++id) {
    const std::string_view name = capture_name(out.query, id);
    CaptureInfo& c = out.captures[id];
    if (name == "name") c.role = Role::name;
    else if (name == "name.declarator") c.role = Role::name_declarator;
    else if (name == "qualifier") c.role = Role::qualifier;
    else if (name == "scope") c.role = Role::scope;
    else if (name == "scope.name") c.role = Role::scope_name;
    else if (name == "local") c.role = Role::local;
    else if (name.starts_with("def.")) {
      auto kind = kind_from_name(name.substr(4));
      if (!kind) {
        throw std::logic_error(fmt::format("definition query of {}: unknown kind {}", info.name, name));
      }
      c.role = Role::def;
      c.kind = *kind;
    }
    // Other captures only serve predicates.
  }

  if (outline_supported && !info.outline.empty()) {
    const TSLanguage* lang = info.grammar();
    const std::uint32_t n_symbols = ts_language_symbol_count(lang);
    out.outline.assign(n_symbols, false);
    for (std::string_view type : info.outline) {
      if (!mark_node_type(lang, type, out.outline)) {
        throw std::logic_error(fmt::format("outline of {}: no node type {}", info.name, type));
      }
    }
    // Most nodes of an outline start no pattern (punctuation, statements): the query is not run on
    // them. Error nodes are always queried.
    out.starts.assign(n_symbols, false);
    for (std::uint32_t p = 0; p < ts_query_pattern_count(out.query); ++p) {
      const std::string_view type = pattern_root_type(out.query, p, src);
      const bool known = type == "ERROR" || (!type.empty() && mark_node_type(lang, type, out.starts));
      if (!known) {  // a pattern that may start anywhere
        out.starts.clear();
        break;
      }
    }
    out.code = CodeMatcher::for_language(info.name, lang);
  }

  const std::uint32_t n_patterns = ts_query_pattern_count(out.query);
  out.predicates.resize(n_patterns);
  for (std::uint32_t p = 0; p < n_patterns; ++p) {
    std::uint32_t n_steps = 0;
    const TSQueryPredicateStep* steps = ts_query_predicates_for_pattern(out.query, p, &n_steps);
    std::uint32_t i = 0;
    while (i < n_steps) {
      std::uint32_t end = i;
      while (end < n_steps && steps[end].type != TSQueryPredicateStepTypeDone) ++end;
      if (end - i != 3 || steps[i].type != TSQueryPredicateStepTypeString ||
          steps[i + 1].type != TSQueryPredicateStepTypeCapture) {
        throw std::logic_error(fmt::format("definition query of {}: malformed predicate in pattern {}",
                                           info.name, p));
      }
      const std::string_view op = query_string(out.query, steps[i].value_id);
      Predicate pred;
      if (op == "eq?") pred.op = Predicate::Op::eq;
      else if (op == "not-eq?") pred.op = Predicate::Op::not_eq_;
      else if (op == "match?") pred.op = Predicate::Op::match;
      else if (op == "not-match?") pred.op = Predicate::Op::not_match;
      else {
        throw std::logic_error(fmt::format("definition query of {}: unsupported predicate #{}", info.name, op));
      }
      pred.capture = steps[i + 1].value_id;
      const TSQueryPredicateStep& arg = steps[i + 2];
      if (arg.type == TSQueryPredicateStepTypeCapture) {
        if (pred.op == Predicate::Op::match || pred.op == Predicate::Op::not_match) {
          throw std::logic_error(fmt::format("definition query of {}: #{} needs a regular expression",
                                             info.name, op));
        }
        pred.other_capture = arg.value_id;
      } else {
        pred.text = std::string(query_string(out.query, arg.value_id));
        if (pred.op == Predicate::Op::match || pred.op == Predicate::Op::not_match) {
          pred.regex.emplace(pred.text, std::regex::ECMAScript | std::regex::optimize);
        }
      }
      out.predicates[p].push_back(std::move(pred));
      i = end + 1;
    }
  }
  return out;
}

// Queries are compiled once per process, on first use, and shared read-only by all threads
// (each thread runs them with a cursor of its own).
const CompiledQuery& compiled_query(std::size_t index) {
  static std::array<std::once_flag, language_infos.size()> once;
  static std::array<CompiledQuery, language_infos.size()> compiled;
  std::call_once(once[index], [index] { compiled[index] = compile_query(language_infos[index]); });
  return compiled[index];
}

// One parser per language per thread.
TSParser* thread_parser(std::size_t index) {
  struct Parsers {
    std::array<TSParser*, language_infos.size()> parsers{};
    ~Parsers() {
      for (TSParser* p : parsers) {
        if (p) ts_parser_delete(p);
      }
    }
  };
  thread_local Parsers local;
  TSParser*& p = local.parsers[index];
  if (p == nullptr) {
    p = ts_parser_new();
    if (!ts_parser_set_language(p, language_infos[index].grammar())) {
      ts_parser_delete(p);
      p = nullptr;
      throw std::runtime_error(fmt::format("the {} grammar does not load with this tree-sitter runtime",
                                           language_infos[index].name));
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

TreePtr parse_tree(std::size_t index, std::string_view source, const Deadline& deadline) {
  TSParser* parser = thread_parser(index);
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

// C headers are often C++ (a `.h` file says nothing): a file given as C that declares namespaces,
// templates, classes or access sections at the start of a line is parsed as C++.
bool looks_like_cpp(std::string_view src) {
  static constexpr std::array<std::string_view, 9> markers = {
      "namespace ", "namespace{", "template<", "template <", "class ", "public:", "private:",
      "protected:", "using namespace "};
  std::size_t pos = 0;
  while (pos < src.size()) {
    std::size_t eol = src.find('\n', pos);
    if (eol == std::string_view::npos) eol = src.size();
    std::size_t i = pos;
    while (i < eol && (src[i] == ' ' || src[i] == '\t')) ++i;
    const std::string_view line = src.substr(i, eol - i);
    if (!line.empty() && (line[0] == 'n' || line[0] == 't' || line[0] == 'c' || line[0] == 'p' ||
                          line[0] == 'u')) {
      for (auto m : markers) {
        if (line.starts_with(m)) return true;
      }
    }
    pos = eol + 1;
  }
  return false;
}

// ---------------------------------------------------------------------------------------------
// Extraction

std::string_view text_of(TSNode node, std::string_view source) {
  const std::uint32_t start = ts_node_start_byte(node);
  const std::uint32_t end = ts_node_end_byte(node);
  if (start >= source.size() || end <= start) return {};
  return source.substr(start, std::min<std::size_t>(end, source.size()) - start);
}

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
        std::strcmp(type, "operator_name") == 0 || std::strcmp(type, "primitive_type") == 0) {
      out.node = node;
      out.found = true;
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

bool has_extern_storage(TSNode decl, std::string_view source) {
  const std::uint32_t n = ts_node_child_count(decl);
  for (std::uint32_t i = 0; i < n; ++i) {
    TSNode child = ts_node_child(decl, i);
    if (type_is(child, "storage_class_specifier") && text_of(child, source) == "extern") return true;
  }
  return false;
}

struct Candidate {
  Entry entry = Entry::symbol;
  Kind kind = Kind::function;
  std::string name;
  std::vector<std::string> qualifier;
  std::uint32_t start_byte = 0, end_byte = 0;
  TSPoint start{}, end{};  // start: of the name (where the definition is shown); end: of the definition
  std::uint32_t key = 0;  // the name node's start byte: one definition per name node
  std::uint32_t pattern = 0;
};

bool predicates_hold(const CompiledQuery& q, const TSQueryMatch& m, std::string_view source) {
  const auto& preds = q.predicates[m.pattern_index];
  for (const Predicate& p : preds) {
    std::optional<std::string_view> value;
    std::optional<std::string_view> other;
    for (std::uint16_t i = 0; i < m.capture_count; ++i) {
      if (m.captures[i].index == p.capture && !value) value = text_of(m.captures[i].node, source);
      if (p.other_capture && m.captures[i].index == *p.other_capture && !other) {
        other = text_of(m.captures[i].node, source);
      }
    }
    if (!value) return false;
    const std::string_view rhs = p.other_capture ? other.value_or(std::string_view{}) : std::string_view(p.text);
    bool ok = true;
    switch (p.op) {
      case Predicate::Op::eq: ok = *value == rhs; break;
      case Predicate::Op::not_eq_: ok = *value != rhs; break;
      case Predicate::Op::match: ok = std::regex_search(value->begin(), value->end(), *p.regex); break;
      case Predicate::Op::not_match: ok = !std::regex_search(value->begin(), value->end(), *p.regex); break;
    }
    if (!ok) return false;
  }
  return true;
}

// What one query match captured.
Captured captured_of(const CompiledQuery& q, const TSQueryMatch& m) {
  Captured c;
  c.pattern = m.pattern_index;
  for (std::uint16_t i = 0; i < m.capture_count; ++i) {
    const CaptureInfo& info = q.captures[m.captures[i].index];
    const TSNode node = m.captures[i].node;
    switch (info.role) {
      case Role::def: c.def = node; c.kind = info.kind; break;
      case Role::scope: c.def = node; c.entry = Entry::scope; break;
      case Role::local: c.def = node; c.entry = Entry::local; break;
      case Role::name: c.name = node; break;
      case Role::name_declarator: c.declarator = node; break;
      case Role::qualifier: c.qualifier = node; break;
      case Role::scope_name: c.scope_name = node; break;
      case Role::none: break;
    }
  }
  return c;
}

// Turns one match into a candidate definition, or nothing.
std::optional<Candidate> candidate_of(const Captured& m, std::string_view source, std::string_view language) {
  if (ts_node_is_null(m.def)) return std::nullopt;
  Candidate c;
  c.entry = m.entry;
  c.kind = m.kind;
  c.pattern = m.pattern;
  c.start_byte = ts_node_start_byte(m.def);
  c.end_byte = ts_node_end_byte(m.def);
  c.start = ts_node_start_point(m.def);
  c.end = ts_node_end_point(m.def);

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
    // A declaration or member that declares a function is a prototype, not a definition.
    if ((c.kind == Kind::variable || c.kind == Kind::field) && r.function_declarator) return std::nullopt;
    if (c.kind == Kind::function && !r.function_declarator) return std::nullopt;
    if (c.kind == Kind::variable && has_extern_storage(m.def, source)) return std::nullopt;
    name = r.node;
    c.qualifier = std::move(r.scope);
  } else if (!ts_node_is_null(name) && (language == "cpp" || language == "c") &&
             type_is(name, "qualified_identifier")) {
    ResolvedName r = resolve_declarator(name, source);
    if (!r.found) return std::nullopt;
    name = r.node;
    c.qualifier = std::move(r.scope);
  }
  if (ts_node_is_null(name)) return std::nullopt;
  if (!ts_node_is_null(m.qualifier)) c.qualifier.push_back(clean_scope_part(text_of(m.qualifier, source)));

  std::string_view text = text_of(name, source);
  if (type_is(name, "template_type")) text = text.substr(0, text.find('<'));
  c.name = std::string(text);
  // Strings name TypeScript modules ("declare module 'x'"): keep the text inside the quotes.
  if (c.name.size() >= 2 && (c.name.front() == '"' || c.name.front() == '\'')) {
    c.name = c.name.substr(1, c.name.size() - 2);
  }
  c.key = ts_node_start_byte(name);
  c.start = ts_node_start_point(name);
  if (c.name.empty()) return std::nullopt;
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

// The text the parser sees: C and C++ without their decoration macros (same offsets), else the
// source itself. The buffer is the thread's own and lives until its next use.
std::string_view parser_input(std::size_t index, std::string_view source) {
  if (index != c_index && index != cpp_index) return source;
  thread_local std::string buffer;
  buffer.assign(source);
  if (!blank_annotation_macros(buffer)) return source;
  return buffer;
}

ParseResult extract(std::string_view language, std::string_view source, std::chrono::milliseconds time_limit,
                    Matching matching) {
  ParseResult result;
  auto index = language_index(language);
  if (!index) {
    result.error = fmt::format("no parser for language '{}'", language);
    return result;
  }
  if (source.size() > std::numeric_limits<std::uint32_t>::max() / 2) {
    result.error = "file too large for the parser";
    return result;
  }
  if (*index == c_index && looks_like_cpp(source)) index = cpp_index;
  const LanguageInfo& info = language_infos[*index];

  const Deadline deadline = Deadline::after(time_limit);
  const auto limit_error = [&] {
    return fmt::format("parsing took longer than the time limit of {} ms", time_limit.count());
  };

  const CompiledQuery& query = compiled_query(*index);
  TreePtr tree = parse_tree(*index, parser_input(*index, source), deadline);
  if (!tree) {
    result.error = deadline.passed() ? limit_error() : std::string("the parser returned no tree");
    return result;
  }
  const TSNode root = ts_tree_root_node(tree.get());
  result.syntax_errors = ts_node_has_error(root);

  std::vector<Candidate> candidates;
  TSQueryCursor* cursor = thread_cursor();
  std::uint32_t n_matches = 0;
  bool late = false;
  // Runs the query on `node`: on the whole subtree, or (with an outline) only for patterns that
  // start at the node itself.
  const auto run_query = [&](TSNode node, bool whole) {
#if TREE_SITTER_LANGUAGE_VERSION >= 15
    ts_query_cursor_set_max_start_depth(cursor, whole ? UINT32_MAX : 0);
#endif
    ts_query_cursor_exec(cursor, query.query, node);
    TSQueryMatch match;
    while (ts_query_cursor_next_match(cursor, &match)) {
      if ((++n_matches & 255) == 0 && deadline.passed()) {
        late = true;
        return;
      }
      if (!predicates_hold(query, match, source)) continue;
      if (auto c = candidate_of(captured_of(query, match), source, info.name)) candidates.push_back(std::move(*c));
    }
  };
  // The patterns that start at an outline node: by the language's matcher in code where it has one.
  const CodeMatcher* code = matching == Matching::fastest && query.code ? &*query.code : nullptr;
  std::vector<Captured> captured;
  const auto match_at = [&](TSNode node) {
    if (code == nullptr || ts_node_symbol(node) == static_cast<TSSymbol>(-1)) {
      run_query(node, false);
      return;
    }
    captured.clear();
    code->match(node, source, captured);
    for (const Captured& m : captured) {
      if (auto c = candidate_of(m, source, info.name)) candidates.push_back(std::move(*c));
    }
  };
  if (query.outline.empty()) {
    run_query(root, true);
  } else {
    // Whether a node's type is marked in `by_symbol`; error nodes (symbol -1) always are.
    const auto marked = [](const std::vector<bool>& by_symbol, TSNode node) {
      const TSSymbol sym = ts_node_symbol(node);
      return sym == static_cast<TSSymbol>(-1) || (sym < by_symbol.size() && by_symbol[sym]);
    };
    const auto in_outline = [&](TSNode node) { return marked(query.outline, node); };
    const auto starts_pattern = [&](TSNode node) { return query.starts.empty() || marked(query.starts, node); };
    // Depth first over the outline nodes and their children, each the start of the patterns once.
    TSTreeCursor walk = ts_tree_cursor_new(root);
    match_at(root);
    bool descend = true;
    while (!late) {
      if (!(descend && ts_tree_cursor_goto_first_child(&walk))) {
        bool moved = false;
        while (!(moved = ts_tree_cursor_goto_next_sibling(&walk))) {
          if (!ts_tree_cursor_goto_parent(&walk)) break;
        }
        if (!moved) break;
      }
      const TSNode node = ts_tree_cursor_current_node(&walk);
      descend = in_outline(node);
      if (starts_pattern(node)) match_at(node);
      if ((++n_matches & 255) == 0 && deadline.passed()) late = true;
    }
    ts_tree_cursor_delete(&walk);
  }
  if (late || deadline.passed()) {
    result.error = limit_error();
    return result;
  }

  // One definition per name node: the pattern written first wins.
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
  // Outer definitions before the definitions they contain.
  std::sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) {
    if (a.start_byte != b.start_byte) return a.start_byte < b.start_byte;
    if (a.end_byte != b.end_byte) return a.end_byte > b.end_byte;
    return a.entry > b.entry;  // an impl block or local before a symbol of the same range
  });

  std::unordered_set<std::string> namespaces;
  for (const auto& c : candidates) {
    if (c.entry == Entry::symbol && c.kind == Kind::namespace_) namespaces.insert(c.name);
  }

  const std::string_view sep = info.separator;
  std::vector<OpenScope> stack;
  result.symbols.reserve(candidates.size());
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
      stack.push_back({c.start_byte, c.end_byte, outer, false, true, {}});
      continue;
    }
    if (c.entry == Entry::scope) {
      stack.push_back({c.start_byte, c.end_byte, join_scope(scope, c.name, sep), true, false, c.name});
      continue;
    }

    // Variables inside functions are locals.
    if ((c.kind == Kind::variable || c.kind == Kind::constant) && container && container->function_like &&
        c.qualifier.empty()) {
      continue;
    }
    if (c.kind == Kind::function) {
      if (!c.qualifier.empty()) {
        // An out-of-class definition (K::m): a method, or a constructor, unless K is a namespace.
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

    storage::SymbolRow row;
    row.kind = std::string(kind_name(c.kind));
    // The position is the name's (where an editor should jump); the end is the definition's last
    // byte. Columns count bytes from 1: the parser's exclusive 0-based end is that last byte's
    // 1-based column.
    row.line = static_cast<int>(c.start.row) + 1;
    row.column = static_cast<int>(c.start.column) + 1;
    row.end_line = static_cast<int>(c.end.row) + 1;
    row.end_column = static_cast<int>(c.end.column);
    if (c.end.column == 0 && c.end.row > c.start.row && c.end_byte > 0 && c.end_byte <= source.size()) {
      // The definition ends with its line's newline (a macro): it ends on that line, before it.
      const std::size_t newline = c.end_byte - 1;
      const std::size_t line_start = source.rfind('\n', newline == 0 ? 0 : newline - 1);
      row.end_line = static_cast<int>(c.end.row);
      row.end_column = static_cast<int>(newline - (line_start == std::string_view::npos ? 0 : line_start + 1));
    }
    row.scope = scope;
    if (opens_scope(c.kind)) {
      stack.push_back({c.start_byte, c.end_byte, join_scope(scope, c.name, sep), is_type_like(c.kind),
                       is_function_like(c.kind), c.name});
    }
    row.name = std::move(c.name);
    result.symbols.push_back(std::move(row));
  }
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
  auto index = language_index(language);
  if (!index) return false;
  if (*index == c_index && looks_like_cpp(source)) index = cpp_index;
  try {
    TreePtr tree = parse_tree(*index, parser_input(*index, source), Deadline{});
    return tree != nullptr;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace brenloc::engines
