#include "brenloc/engines/code_matchers.h"

#include <algorithm>
#include <array>
#include <span>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace brenloc::engines {

// What starts at a node of each type. The comments give the query patterns each rule stands for.
enum class CodeMatcher::Rule : std::uint8_t {
  none,
  // C and C++
  function_definition,   // (function_definition declarator: (_) @name.declarator) @def.function
  declaration,           // (declaration declarator: (_) @name.declarator) @def.variable
  type_definition,       // (type_definition declarator: (_) @name.declarator) @def.type, and the
                         // anonymous struct, union, class or enum it names (@scope)
  field_declaration,     // (field_declaration declarator: (_) @name.declarator) @def.field
  alias_declaration,     // (alias_declaration name: (type_identifier) @name) @def.type
  class_specifier,       // (class_specifier name: (_) @name body: (field_declaration_list)) @def.class
  struct_specifier,      // ... @def.struct (C: name: (type_identifier))
  union_specifier,       // ... @def.union (C: name: (type_identifier))
  enum_specifier,        // (enum_specifier name: (_) @name body: (enumerator_list)) @def.enum
  enumerator,            // (enumerator name: (identifier) @name) @def.enumerator
  namespace_definition,  // (namespace_definition name: (_) @name) @def.namespace
  concept_definition,    // (concept_definition name: (identifier) @name) @def.type
  preproc_def,           // (preproc_def name: (identifier) @name) @def.macro
  preproc_function_def,  // (preproc_function_def name: (identifier) @name) @def.macro
  lambda_expression,     // (lambda_expression) @local
  // Python
  expression_statement,  // (expression_statement (assignment left: ...)) @def.constant / @def.variable
  class_definition,      // (class_definition name: (identifier) @name) @def.class
  py_function_definition,  // (function_definition name: (identifier) @name) @def.function
  lambda,                // (lambda) @local
};

namespace {

using Rule = CodeMatcher::Rule;
using Family = CodeMatcher::Family;
using Places = CodeMatcher::Places;

// Node types the rules look for among a node's children, as bits.
enum TypeBit : std::uint8_t {
  identifier = 1,
  type_identifier = 2,
  field_declaration_list = 4,
  enumerator_list = 8,
  anonymous_scope = 16,  // struct, union, class and enum specifiers: what a typedef may name
  assignment = 32,
  pattern_list = 64,
  tuple_pattern = 128,
};

// The thread's cursor over a node's children: the rules never walk two nodes' children at once.
TSTreeCursor& children_cursor(TSNode node) {
  struct Cursor {
    TSTreeCursor cursor{};
    bool made = false;
    ~Cursor() {
      if (made) ts_tree_cursor_delete(&cursor);
    }
  };
  thread_local Cursor local;
  if (local.made) {
    ts_tree_cursor_reset(&local.cursor, node);
  } else {
    local.cursor = ts_tree_cursor_new(node);
    local.made = true;
  }
  return local.cursor;
}

// Calls fn(child, field id) for each child of `node`, in order.
template <class Fn>
void for_each_child(TSNode node, Fn&& fn) {
  TSTreeCursor& c = children_cursor(node);
  if (!ts_tree_cursor_goto_first_child(&c)) return;
  do {
    fn(ts_tree_cursor_current_node(&c), ts_tree_cursor_current_field_id(&c));
  } while (ts_tree_cursor_goto_next_sibling(&c));
}

// #match? @name "^[A-Z][A-Z0-9_]*$"
bool is_constant_name(std::string_view s) {
  if (s.empty() || s[0] < 'A' || s[0] > 'Z') return false;
  for (char ch : s.substr(1)) {
    if (!((ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '_')) return false;
  }
  return true;
}

Captured symbol(TSNode def, Kind kind, std::uint32_t pattern) {
  Captured c;
  c.kind = kind;
  c.pattern = pattern;
  c.def = def;
  return c;
}

// (T) @local: a nameless function.
Captured local(TSNode def, std::uint32_t pattern) {
  Captured c = symbol(def, Kind::function, pattern);
  c.entry = Entry::local;
  return c;
}

// A rule of a matcher: what starts at a node of type `type`, and the pattern of the query that it stands
// for, found by that node type and the pattern's entry capture (`nth` of several such patterns).
struct RuleSpec {
  std::string_view type;
  Rule rule;
  std::string_view entry;
  std::uint32_t Places::*place;
  std::size_t nth = 0;
};

constexpr RuleSpec python_rules[] = {
    {"expression_statement", Rule::expression_statement, "def.constant", &Places::constant},
    // The three assignment patterns, in the order the query writes them: a name, a pattern list, a tuple.
    {"expression_statement", Rule::expression_statement, "def.variable", &Places::variable, 0},
    {"expression_statement", Rule::expression_statement, "def.variable", &Places::pattern_list, 1},
    {"expression_statement", Rule::expression_statement, "def.variable", &Places::tuple_pattern, 2},
    {"class_definition", Rule::class_definition, "def.class", &Places::class_},
    {"function_definition", Rule::py_function_definition, "def.function", &Places::function},
    {"lambda", Rule::lambda, "local", &Places::lambda},
};

constexpr RuleSpec c_rules[] = {
    {"function_definition", Rule::function_definition, "def.function", &Places::function},
    {"declaration", Rule::declaration, "def.variable", &Places::declaration},
    {"type_definition", Rule::type_definition, "def.type", &Places::type},
    {"type_definition", Rule::type_definition, "scope", &Places::typedef_scope},
    {"field_declaration", Rule::field_declaration, "def.field", &Places::field},
    {"struct_specifier", Rule::struct_specifier, "def.struct", &Places::struct_},
    {"union_specifier", Rule::union_specifier, "def.union", &Places::union_},
    {"enum_specifier", Rule::enum_specifier, "def.enum", &Places::enum_},
    {"enumerator", Rule::enumerator, "def.enumerator", &Places::enumerator},
    {"preproc_def", Rule::preproc_def, "def.macro", &Places::macro},
    {"preproc_function_def", Rule::preproc_function_def, "def.macro", &Places::function_macro},
};

constexpr RuleSpec cpp_only_rules[] = {
    {"alias_declaration", Rule::alias_declaration, "def.type", &Places::alias},
    {"class_specifier", Rule::class_specifier, "def.class", &Places::class_},
    {"namespace_definition", Rule::namespace_definition, "def.namespace", &Places::namespace_},
    {"concept_definition", Rule::concept_definition, "def.type", &Places::concept_},
    {"lambda_expression", Rule::lambda_expression, "local", &Places::lambda},
};

}  // namespace

void PatternPlaces::add(std::string_view root_type, std::string_view entry_capture, std::uint32_t place) {
  patterns_.push_back({std::string(root_type), std::string(entry_capture), place});
}

std::uint32_t PatternPlaces::find(std::string_view root_type, std::string_view entry_capture,
                                  std::size_t nth) const {
  std::size_t seen = 0;
  for (const Pattern& p : patterns_) {
    if (p.root_type == root_type && p.entry_capture == entry_capture && seen++ == nth) return p.place;
  }
  throw std::logic_error(fmt::format("the definition query has no pattern number {} of the form ({} ...) @{}",
                                     nth + 1, root_type, entry_capture));
}

std::vector<std::uint32_t> PatternPlaces::starting_at(std::string_view root_type) const {
  std::vector<std::uint32_t> out;
  for (const Pattern& p : patterns_) {
    if (p.root_type == root_type) out.push_back(p.place);
  }
  return out;
}

bool CodeMatcher::exists_for(std::string_view language) {
  return language == "c" || language == "cpp" || language == "python";
}

std::optional<CodeMatcher> CodeMatcher::for_language(std::string_view language, const TSLanguage* grammar,
                                                     const PatternPlaces& places) {
  CodeMatcher m;
  if (language == "c") m.family_ = Family::c;
  else if (language == "cpp") m.family_ = Family::cpp;
  else if (language == "python") m.family_ = Family::python;
  else return std::nullopt;

  const std::uint32_t n = ts_language_symbol_count(grammar);
  m.rules_.assign(n, Rule::none);
  m.types_.assign(n, 0);
  auto field = [&](std::string_view name) {
    return ts_language_field_id_for_name(grammar, name.data(), static_cast<std::uint32_t>(name.size()));
  };
  m.name_ = field("name");
  m.body_ = field("body");
  m.type_ = field("type");
  m.declarator_ = field("declarator");
  m.left_ = field("left");
  std::vector<std::uint32_t> claimed;
  auto rules = [&](std::span<const RuleSpec> table) {
    for (const RuleSpec& r : table) {
      for_each_symbol_named(grammar, r.type, [&](TSSymbol s) { m.rules_[s] = r.rule; });
      m.places_.*r.place = places.find(r.type, r.entry, r.nth);
      claimed.push_back(m.places_.*r.place);
    }
    for (const RuleSpec& r : table) {
      for (std::uint32_t place : places.starting_at(r.type)) {
        if (std::find(claimed.begin(), claimed.end(), place) == claimed.end()) {
          throw std::logic_error(fmt::format("the {} matcher has no rule for pattern {} of the query, at {}",
                                             language, place, r.type));
        }
      }
    }
  };
  auto type = [&](std::string_view name, std::uint8_t bit) {
    for_each_symbol_named(grammar, name, [&](TSSymbol s) { m.types_[s] |= bit; });
  };
  type("identifier", identifier);
  if (m.family_ == Family::python) {
    rules(python_rules);
    type("assignment", assignment);
    type("pattern_list", pattern_list);
    type("tuple_pattern", tuple_pattern);
    return m;
  }
  rules(c_rules);
  if (m.family_ == Family::cpp) rules(cpp_only_rules);
  for (std::string_view s : {"struct_specifier", "union_specifier", "enum_specifier", "class_specifier"}) {
    type(s, anonymous_scope);
  }
  type("type_identifier", type_identifier);
  type("field_declaration_list", field_declaration_list);
  type("enumerator_list", enumerator_list);
  return m;
}

bool CodeMatcher::is(TSNode node, std::uint8_t type) const {
  const TSSymbol s = ts_node_symbol(node);
  return s < types_.size() && (types_[s] & type) != 0;
}

void CodeMatcher::match(TSNode node, std::string_view source, std::vector<Captured>& out) const {
  const TSSymbol sym = ts_node_symbol(node);
  if (sym >= rules_.size()) return;
  const Places& p = places_;
  if (family_ == Family::python) {
    switch (rules_[sym]) {
      case Rule::expression_statement: assignments(node, source, out); return;
      case Rule::class_definition: named(node, Kind::class_, p.class_, identifier, out); return;
      case Rule::py_function_definition: named(node, Kind::function, p.function, identifier, out); return;
      case Rule::lambda: out.push_back(local(node, p.lambda)); return;
      default: return;
    }
  }
  // C names a struct, union or enum by a type_identifier; C++ by any name (qualified, templated).
  const std::uint8_t tag_name = family_ == Family::c ? type_identifier : 0;
  switch (rules_[sym]) {
    case Rule::function_definition: declarators(node, Kind::function, p.function, false, out); return;
    case Rule::declaration: declarators(node, Kind::variable, p.declaration, false, out); return;
    case Rule::type_definition: declarators(node, Kind::type, p.type, true, out); return;
    case Rule::field_declaration: declarators(node, Kind::field, p.field, false, out); return;
    case Rule::alias_declaration: named(node, Kind::type, p.alias, type_identifier, out); return;
    case Rule::class_specifier:
      named_with_body(node, Kind::class_, p.class_, tag_name, field_declaration_list, out);
      return;
    case Rule::struct_specifier:
      named_with_body(node, Kind::struct_, p.struct_, tag_name, field_declaration_list, out);
      return;
    case Rule::union_specifier:
      named_with_body(node, Kind::union_, p.union_, tag_name, field_declaration_list, out);
      return;
    case Rule::enum_specifier: named_with_body(node, Kind::enum_, p.enum_, tag_name, enumerator_list, out); return;
    case Rule::enumerator: named(node, Kind::enumerator, p.enumerator, identifier, out); return;
    case Rule::namespace_definition: named(node, Kind::namespace_, p.namespace_, 0, out); return;
    case Rule::concept_definition: named(node, Kind::type, p.concept_, identifier, out); return;
    case Rule::preproc_def: named(node, Kind::macro, p.macro, identifier, out); return;
    case Rule::preproc_function_def: named(node, Kind::macro, p.function_macro, identifier, out); return;
    case Rule::lambda_expression: out.push_back(local(node, p.lambda)); return;
    default: return;
  }
}

// One match per declarator child. A type definition of an anonymous struct, union, class or enum also
// names that scope, once per declarator that is a plain type name:
//   (type_definition type: [(struct_specifier !name body: (_)) ...] @scope
//                    declarator: (type_identifier) @scope.name)
void CodeMatcher::declarators(TSNode node, Kind kind, std::uint32_t pattern, bool typedef_scope,
                              std::vector<Captured>& out) const {
  const std::size_t first = out.size();
  TSNode type{};
  for_each_child(node, [&](TSNode child, TSFieldId field) {
    if (field == declarator_ && ts_node_is_named(child)) {
      Captured c = symbol(node, kind, pattern);
      c.declarator = child;
      out.push_back(c);
    } else if (field == type_ && ts_node_is_null(type)) {
      type = child;
    }
  });
  if (!typedef_scope || ts_node_is_null(type) || !is(type, anonymous_scope) ||
      !ts_node_is_null(ts_node_child_by_field_id(type, name_))) {
    return;
  }
  const TSNode body = ts_node_child_by_field_id(type, body_);
  if (ts_node_is_null(body) || !ts_node_is_named(body)) return;
  const std::size_t last = out.size();
  for (std::size_t i = first; i < last; ++i) {
    const TSNode declarator = out[i].declarator;  // read before push_back may move the vector
    if (!is(declarator, type_identifier)) continue;
    Captured c;
    c.entry = Entry::scope;
    c.pattern = places_.typedef_scope;
    c.def = type;
    c.scope_name = declarator;
    out.push_back(c);
  }
}

// (T name: (N) @name body: (B)) @def.<kind>; name_type 0 takes any named node.
void CodeMatcher::named_with_body(TSNode node, Kind kind, std::uint32_t pattern, std::uint8_t name_type,
                                  std::uint8_t body_type, std::vector<Captured>& out) const {
  TSNode name{};
  bool matched = false;
  for_each_child(node, [&](TSNode child, TSFieldId field) {
    if (matched) return;
    if (field == name_ && ts_node_is_null(name) && (name_type ? is(child, name_type) : ts_node_is_named(child))) {
      name = child;
    } else if (field == body_ && !ts_node_is_null(name) && is(child, body_type)) {
      matched = true;
    }
  });
  if (!matched) return;
  Captured c = symbol(node, kind, pattern);
  c.name = name;
  out.push_back(c);
}

// (T name: (N) @name) @def.<kind>; name_type 0 takes any named node.
void CodeMatcher::named(TSNode node, Kind kind, std::uint32_t pattern, std::uint8_t name_type,
                        std::vector<Captured>& out) const {
  const TSNode name = ts_node_child_by_field_id(node, name_);
  if (ts_node_is_null(name) || !(name_type ? is(name, name_type) : ts_node_is_named(name))) return;
  Captured c = symbol(node, kind, pattern);
  c.name = name;
  out.push_back(c);
}

// Python's assignments at statement level:
//   ((expression_statement (assignment left: (identifier) @name)) @def.constant
//     (#match? @name "^[A-Z][A-Z0-9_]*$"))
//   (expression_statement (assignment left: (identifier) @name)) @def.variable
//   (expression_statement (assignment left: (pattern_list (identifier) @name))) @def.variable
//   (expression_statement (assignment left: (tuple_pattern (identifier) @name))) @def.variable
void CodeMatcher::assignments(TSNode node, std::string_view source, std::vector<Captured>& out) const {
  const Places& p = places_;
  auto add = [&](TSNode name, Kind kind, std::uint32_t pattern) {
    Captured c = symbol(node, kind, pattern);
    c.name = name;
    out.push_back(c);
  };
  for_each_child(node, [&](TSNode child, TSFieldId) {
    if (!is(child, assignment)) return;
    const TSNode left = ts_node_child_by_field_id(child, left_);
    if (ts_node_is_null(left)) return;
    if (is(left, identifier)) {
      const std::uint32_t start = ts_node_start_byte(left);
      const std::uint32_t end = ts_node_end_byte(left);
      if (end <= source.size() && start < end && is_constant_name(source.substr(start, end - start))) {
        add(left, Kind::constant, p.constant);
      }
      add(left, Kind::variable, p.variable);
      return;
    }
    const bool list = is(left, pattern_list);
    if (!list && !is(left, tuple_pattern)) return;
    const std::uint32_t n = ts_node_named_child_count(left);
    for (std::uint32_t i = 0; i < n; ++i) {
      const TSNode item = ts_node_named_child(left, i);
      if (is(item, identifier)) add(item, Kind::variable, list ? p.pattern_list : p.tuple_pattern);
    }
  });
}

}  // namespace brenloc::engines
