#include "brenloc/engines/compiled_query.h"

#include <algorithm>
#include <cctype>
#include <mutex>
#include <stdexcept>

#include <fmt/format.h>

namespace brenloc::engines {
namespace {

std::optional<Kind> kind_from_name(std::string_view name) {
  for (std::size_t i = 0; i < kind_names.size(); ++i) {
    if (kind_names[i] == name) return static_cast<Kind>(i);
  }
  return std::nullopt;
}

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

TSQuery* new_query(const Language& lang) {
  std::uint32_t error_offset = 0;
  TSQueryError error = TSQueryErrorNone;
  const std::string_view src = lang.definition_query;
  TSQuery* q = ts_query_new(lang.grammar(), src.data(), static_cast<std::uint32_t>(src.size()), &error_offset,
                            &error);
  if (q == nullptr) {
    throw std::logic_error(fmt::format("definition query of {}: {} at offset {} near '{}'", lang.name,
                                       query_error_name(error), error_offset, src.substr(error_offset, 40)));
  }
  return q;
}

// What each capture stands for, by its name (see definition_queries.h).
std::vector<CaptureInfo> read_captures(const TSQuery* q, const Language& lang) {
  std::vector<CaptureInfo> captures(ts_query_capture_count(q));
  for (std::uint32_t id = 0; id < captures.size(); ++id) {
    const std::string_view name = capture_name(q, id);
    CaptureInfo& c = captures[id];
    if (name == "name") c.role = Role::name;
    else if (name == "name.declarator") c.role = Role::name_declarator;
    else if (name == "qualifier") c.role = Role::qualifier;
    else if (name == "scope") c.role = Role::scope;
    else if (name == "scope.name") c.role = Role::scope_name;
    else if (name == "local") c.role = Role::local;
    else if (name.starts_with("def.")) {
      auto kind = kind_from_name(name.substr(4));
      if (!kind) throw std::logic_error(fmt::format("definition query of {}: unknown kind {}", lang.name, name));
      c.role = Role::def;
      c.kind = *kind;
    }
    // Other captures only serve predicates.
  }
  return captures;
}

// Each pattern by the node type it starts at and the capture of its entry (def.<kind>, scope or local).
PatternPlaces pattern_places(const TSQuery* q, const std::vector<CaptureInfo>& captures, std::string_view src) {
  PatternPlaces places;
  for (std::uint32_t p = 0; p < ts_query_pattern_count(q); ++p) {
    for (std::uint32_t id = 0; id < captures.size(); ++id) {
      const Role role = captures[id].role;
      const bool entry = role == Role::def || role == Role::scope || role == Role::local;
      if (entry && ts_query_capture_quantifier_for_id(q, p, id) != TSQuantifierZero) {
        places.add(pattern_root_type(q, p, src), capture_name(q, id), p);
      }
    }
  }
  return places;
}

// The outline's node types, and the node types at which some pattern starts (the query is not run on the
// others: most nodes of an outline are punctuation and statements). Error nodes are always queried.
void read_outline(CompiledQuery& out, const Language& lang) {
  const TSLanguage* grammar = lang.grammar();
  const std::uint32_t n_symbols = ts_language_symbol_count(grammar);
  out.outline.assign(n_symbols, false);
  for (std::string_view type : lang.outline) {
    if (!mark_node_type(grammar, type, out.outline)) {
      throw std::logic_error(fmt::format("outline of {}: no node type {}", lang.name, type));
    }
  }
  out.starts.assign(n_symbols, false);
  for (std::uint32_t p = 0; p < ts_query_pattern_count(out.query); ++p) {
    const std::string_view type = pattern_root_type(out.query, p, lang.definition_query);
    const bool known = type == "ERROR" || (!type.empty() && mark_node_type(grammar, type, out.starts));
    if (!known) {  // a pattern that may start anywhere
      out.starts.clear();
      break;
    }
  }
}

Predicate read_predicate(const TSQuery* q, const TSQueryPredicateStep* steps, const Language& lang) {
  const std::string_view op = query_string(q, steps[0].value_id);
  Predicate pred;
  if (op == "eq?") pred.op = Predicate::Op::eq;
  else if (op == "not-eq?") pred.op = Predicate::Op::not_eq_;
  else if (op == "match?") pred.op = Predicate::Op::match;
  else if (op == "not-match?") pred.op = Predicate::Op::not_match;
  else throw std::logic_error(fmt::format("definition query of {}: unsupported predicate #{}", lang.name, op));
  const bool regex = pred.op == Predicate::Op::match || pred.op == Predicate::Op::not_match;
  pred.capture = steps[1].value_id;
  const TSQueryPredicateStep& arg = steps[2];
  if (arg.type == TSQueryPredicateStepTypeCapture) {
    if (regex) {
      throw std::logic_error(fmt::format("definition query of {}: #{} needs a regular expression", lang.name, op));
    }
    pred.other_capture = arg.value_id;
  } else {
    pred.text = std::string(query_string(q, arg.value_id));
    if (regex) pred.regex.emplace(pred.text, std::regex::ECMAScript | std::regex::optimize);
  }
  return pred;
}

// The predicates of each pattern: (#op? @capture "text") or (#op? @capture @other).
std::vector<std::vector<Predicate>> read_predicates(const TSQuery* q, const Language& lang) {
  std::vector<std::vector<Predicate>> predicates(ts_query_pattern_count(q));
  for (std::uint32_t p = 0; p < predicates.size(); ++p) {
    std::uint32_t n_steps = 0;
    const TSQueryPredicateStep* steps = ts_query_predicates_for_pattern(q, p, &n_steps);
    std::uint32_t i = 0;
    while (i < n_steps) {
      std::uint32_t end = i;
      while (end < n_steps && steps[end].type != TSQueryPredicateStepTypeDone) ++end;
      if (end - i != 3 || steps[i].type != TSQueryPredicateStepTypeString ||
          steps[i + 1].type != TSQueryPredicateStepTypeCapture) {
        throw std::logic_error(fmt::format("definition query of {}: malformed predicate in pattern {}",
                                           lang.name, p));
      }
      predicates[p].push_back(read_predicate(q, steps + i, lang));
      i = end + 1;
    }
  }
  return predicates;
}

CompiledQuery compile_query(const Language& lang) {
  CompiledQuery out;
  out.query = new_query(lang);
  out.captures = read_captures(out.query, lang);
  if (outline_supported && !lang.outline.empty()) {
    read_outline(out, lang);
    out.code = CodeMatcher::for_language(lang.name, lang.grammar(),
                                         pattern_places(out.query, out.captures, lang.definition_query));
  }
  out.predicates = read_predicates(out.query, lang);
  return out;
}

}  // namespace

std::string_view text_of(TSNode node, std::string_view source) {
  const std::uint32_t start = ts_node_start_byte(node);
  const std::uint32_t end = ts_node_end_byte(node);
  if (start >= source.size() || end <= start) return {};
  return source.substr(start, std::min<std::size_t>(end, source.size()) - start);
}

const CompiledQuery& compiled_query(const Language& language) {
  struct Slot {
    std::once_flag once;
    CompiledQuery compiled;
  };
  // Never freed: the queries serve until the process ends, also threads that outlive static destruction.
  static Slot* const slots = new Slot[LANGUAGES.size()];
  Slot& slot = slots[static_cast<std::size_t>(&language - LANGUAGES.data())];
  std::call_once(slot.once, [&] { slot.compiled = compile_query(language); });
  return slot.compiled;
}

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

}  // namespace brenloc::engines
