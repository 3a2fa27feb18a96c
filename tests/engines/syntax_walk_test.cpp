// The walk over a syntax tree visits what a tree cursor visits, in its order, with the same fields: over
// sources of every language, with aliased nodes, hidden rules, comments between children and error recovery.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <tree_sitter/api.h>

#include "brenloc/engines/languages.h"
#include "brenloc/engines/syntax_walk.h"

namespace brenloc::engines {
namespace {

// A visit as text: "enter symbol start end field" or "leave".
using Visits = std::vector<std::string>;

std::string entered(TSNode node, TSFieldId field) {
  return fmt::format("enter {} {} {} {}", ts_node_type(node), ts_node_start_byte(node), ts_node_end_byte(node), field);
}

// The oracle: the runtime's own cursor; `named_leaves_only`: without the anonymous leaves.
Visits cursor_visits(TSNode root, bool named_leaves_only) {
  Visits out{entered(root, 0)};
  TSTreeCursor cursor = ts_tree_cursor_new(root);
  auto enter = [&] {
    const TSNode node = ts_tree_cursor_current_node(&cursor);
    if (named_leaves_only && !ts_node_is_named(node) && ts_node_child_count(node) == 0) return false;
    out.push_back(entered(node, ts_tree_cursor_current_field_id(&cursor)));
    return true;
  };
  std::vector<bool> entered_at{true};  // by depth, whether the node there was entered
  for (;;) {
    if (ts_tree_cursor_goto_first_child(&cursor)) {
      entered_at.push_back(enter());
      continue;
    }
    for (;;) {
      if (entered_at.back()) out.emplace_back("leave");
      entered_at.pop_back();
      if (ts_tree_cursor_goto_next_sibling(&cursor)) {
        entered_at.push_back(enter());
        break;
      }
      if (!ts_tree_cursor_goto_parent(&cursor)) {
        ts_tree_cursor_delete(&cursor);
        return out;
      }
    }
  }
}

Visits walk_visits(TSNode root, bool named_leaves_only) {
  Visits out;
  const BrenlocTreeVisitor visitor{
      [](void* v, TSNode node, TSFieldId field) { static_cast<Visits*>(v)->push_back(entered(node, field)); },
      [](void* v) { static_cast<Visits*>(v)->emplace_back("leave"); }, &out, named_leaves_only};
  brenloc_walk_tree(root, &visitor);
  return out;
}

struct Case {
  std::string language, source;
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.language << ": " << c.source.substr(0, 40); }

class SyntaxWalk : public ::testing::TestWithParam<Case> {};

TEST_P(SyntaxWalk, VisitsWhatACursorVisits) {
  const Case& c = GetParam();
  const Language* lang = find_language(c.language);
  ASSERT_NE(lang, nullptr);
  std::unique_ptr<TSParser, void (*)(TSParser*)> parser(ts_parser_new(), ts_parser_delete);
  ASSERT_TRUE(ts_parser_set_language(parser.get(), lang->grammar()));
  std::unique_ptr<TSTree, void (*)(TSTree*)> tree(
      ts_parser_parse_string(parser.get(), nullptr, c.source.data(), static_cast<std::uint32_t>(c.source.size())),
      ts_tree_delete);
  const TSNode root = ts_tree_root_node(tree.get());
  for (const bool named_leaves_only : {false, true}) {
    EXPECT_EQ(walk_visits(root, named_leaves_only), cursor_visits(root, named_leaves_only));
    // Below the root too: a subtree's walk starts at its own position.
    if (ts_node_named_child_count(root) > 0) {
      const TSNode last = ts_node_named_child(root, ts_node_named_child_count(root) - 1);
      EXPECT_EQ(walk_visits(last, named_leaves_only), cursor_visits(last, named_leaves_only));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Languages, SyntaxWalk,
    ::testing::Values(
        Case{"c", "#include <stdio.h>\n#define MAX(a, b) ((a) > (b) ? (a) : (b))\n"
                  "struct point { int x, y; /* where */ };\n"
                  "static int f(struct point *p) { return p->x + /* c */ MAX(p->y, 2); }\n"},
        Case{"c", "int broken( { x = ; }\nint ok(void) { return 1; }\n"},
        Case{"cpp", "namespace a::b {\ntemplate <typename T> class K : public Base<T> {\n public:\n"
                    "  K() : v_{1} {}\n  auto get() const -> T { return std::move(v_); }\n  T v_;\n};\n}\n"},
        Case{"python", "import os, json\nfrom . import retry as r\n@dec(1)\nclass A(B):\n"
                       "    def f(self, x: int = 2) -> str:\n        return f\"{x!r}\" + self.g(x)[0]\n"},
        Case{"go", "package p\nimport (\n\t\"fmt\"\n\tm \"math\"\n)\ntype T struct{ A int }\n"
                   "func (t *T) F() { L: for { fmt.Println(m.Pi, t.A); break L } }\n"},
        Case{"rust", "use std::{io, fmt::Display};\nmod inner;\nimpl<T: Display> S<T> {\n"
                     "    fn f(&self) -> io::Result<()> { println!(\"{}\", self.0); Ok(()) }\n}\n"},
        Case{"java", "package a.b;\nimport java.util.List;\nclass C<T> extends D {\n"
                     "  @Override public void m(List<T> xs) { new C<T>().m(xs); }\n}\n"},
        Case{"javascript", "const x = require('x');\nexport { y as z } from './y';\n"
                           "class A extends B { #p = 1; get q() { return this.#p ?? `t${x}`; } }\n"},
        Case{"typescript", "import type { T } from './t';\nexport interface I<K> { f(k: K): T }\n"
                           "enum E { A = 1 }\nfunction g<T extends object>(x: T): x is T { return !!x; }\n"},
        Case{"tsx", "export const C = ({ a }: P) => <div className={a}>{/* c */}<B x=\"1\" /></div>;\n"}));

}  // namespace
}  // namespace brenloc::engines
