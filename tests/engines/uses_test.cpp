// The names that small sources of every language use in code, with their roles, and what they include
// or import; names that stand only in comments and strings must not be found.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "brenloc/engines/symbols.h"

namespace brenloc::engines {
namespace {

struct Case {
  std::string label, language, source;
  std::vector<std::string> uses;     // "name role line", each found exactly so
  std::vector<std::string> absent;   // names not found at all
  std::vector<std::string> imports;  // "target line", all of them, in order
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.label; }

// Every use as "name role line", as readers find them: those coded, and the definitions at the places of
// the rows of symbols of plain names whose blob does not code them all (each in one of the two ways only).
std::vector<std::string> uses_of(const ParseResult& r, std::string_view source) {
  std::vector<std::string> out;
  std::set<std::pair<std::string, std::uint32_t>> coded;
  std::set<std::string> coding_all;
  auto add = [&](std::string_view name, storage::Use u) {
    EXPECT_EQ(source.substr(u.offset, name.size()), name);
    EXPECT_TRUE(coded.emplace(std::string(name), u.offset).second) << name << " coded and held by symbols at " << u.offset;
    const int line = 1 + static_cast<int>(std::count(source.begin(), source.begin() + u.offset, '\n'));
    out.push_back(fmt::format("{} {} {}", name, storage::kUseRoleNames[static_cast<int>(u.role)], line));
  };
  storage::for_each_name_uses(r.uses, [&](const storage::NameUses& n) {
    if (storage::every_definition_coded(n.spots)) coding_all.emplace(n.name);
    for (const storage::Use& u : storage::decode_uses(n.spots)) add(n.name, u);
  });
  const std::vector<std::uint32_t> lines = storage::line_starts(source);
  std::set<std::pair<std::string, std::uint32_t>> held;
  for (const storage::SymbolRow& s : r.symbols) {
    const std::uint32_t at = storage::definition_offset(lines, source.size(), s.line, s.column);
    if (storage::plain_name(s.name) && !coding_all.contains(s.name) && held.emplace(s.name, at).second) {
      add(s.name, {at, storage::UseRole::definition});
    }
  }
  return out;
}

class Uses : public ::testing::TestWithParam<Case> {};

TEST_P(Uses, AreFoundWithTheirRoles) {
  const Case& c = GetParam();
  const ParseResult r = extract_symbols(c.language, c.source);
  ASSERT_TRUE(r.ok) << r.error;
  const std::vector<std::string> found = uses_of(r, c.source);
  for (const std::string& u : c.uses) {
    EXPECT_NE(std::find(found.begin(), found.end(), u), found.end()) << "missing: " << u << "\nfound:\n"
                                                                     << fmt::format("{}", fmt::join(found, "\n"));
  }
  for (const std::string& name : c.absent) {
    for (const std::string& f : found) EXPECT_FALSE(f.starts_with(name + " ")) << "found in a comment or string: " << f;
  }
  std::vector<std::string> imports;
  for (const auto& i : r.imports) imports.push_back(fmt::format("{} {}", i.target, i.line));
  EXPECT_EQ(imports, c.imports);
}

INSTANTIATE_TEST_SUITE_P(
    Languages, Uses,
    ::testing::Values(
        Case{"c",
             "c",
             "#include \"net/socket.h\"\n"
             "#include <stdio.h>\n"
             "#define TWICE(x) (helper(x) * 2) /* not_in_macro */\n"
             "static int parse_config(struct config *cfg, size_t n) {\n"
             "  /* comment_name */ const char *s = \"string_name\";\n"
             "  cfg->count = TWICE(n);\n"
             "  return helper(cfg->count);\n"
             "}\n"
             "extern int g (const char *) __THROW __attribute_deprecated_msg__ (\"msg_word\");\n"
             "/* A comment whose last line names a macro:\n"
             "   __wur.  */\n"
             "extern int h (void);\n",
             {"parse_config definition 4", "config type 4", "size_t type 4", "cfg other 6", "count other 6",
              "TWICE call 6", "helper call 7", "helper call 3", "x other 3", "count other 7", "__THROW other 9",
              "__attribute_deprecated_msg__ call 9"},
             {"comment_name", "string_name", "not_in_macro", "int", "char", "msg_word", "__wur"},
             {"\"net/socket.h\" 1", "<stdio.h> 2"}},
        Case{"cpp",
             "cpp",
             "#include \"util/retry.hpp\"\n"
             "namespace app {\n"
             "// Widget make_widget()\n"
             "Widget make_widget(const Options& o) {\n"
             "  auto w = std::make_unique<Widget>(o.size);\n"
             "  w->resize(o.size);\n"
             "  ns::helper<int>(R\"(raw_name)\");\n"
             "  return Widget{};\n"
             "}\n"
             "}\n",
             {"make_widget definition 4", "Widget type 4", "Options type 4", "make_unique call 5", "std other 5",
              "resize call 6", "helper call 7", "size other 6"},
             {"raw_name"},
             {"\"util/retry.hpp\" 1"}},
        Case{"python",
             "python",
             "import os.path, json as j\n"
             "from . import retry\n"
             "from utils.net import fetch\n"
             "# not_a_use()\n"
             "def load(p: Path) -> Config:\n"
             "    '''doc_name'''\n"
             "    data = j.loads(open(p).read())\n"
             "    return retry.run(f\"{data} inner_text\")\n",
             {"os import 1", "path import 1", "json import 1", "retry import 2", "fetch import 3",
              "load definition 5", "Path type 5", "Config type 5", "loads call 7", "open call 7", "read call 7",
              "run call 8", "data other 8"},
             {"not_a_use", "doc_name", "inner_text"},
             {"os.path 1", "json 1", ". 2", ".retry 2", "utils.net 3", "utils.net.fetch 3"}},
        Case{"javascript",
             "javascript",
             "import { a } from './lib/a.js';\n"
             "const fs = require('fs');\n"
             "// skipped_name\n"
             "export function run(x) { return new Thing(x).go(`tmpl ${x} word`, 'str_name'); }\n",
             {"a import 1", "run definition 4", "Thing call 4", "go call 4", "x other 4", "require call 2"},
             {"skipped_name", "tmpl", "word", "str_name"},
             {"./lib/a.js 1", "fs 2"}},
        Case{"typescript",
             "typescript",
             "import type { Opts } from \"./opts\";\n"
             "export const make = (o: Opts): Result => build(o);\n",
             {"Opts import 1", "Opts type 2", "Result type 2", "build call 2", "make definition 2"},
             {},
             {"./opts 1"}},
        Case{"go",
             "go",
             "package main\n"
             "import (\n  \"fmt\"\n  \"net/http\"\n)\n"
             "// ignored_name\n"
             "func Serve(w http.ResponseWriter) { fmt.Println(\"str_name\"); handle(w) }\n",
             {"Serve definition 7", "http other 7", "ResponseWriter type 7", "Println call 7", "handle call 7"},
             {"ignored_name", "str_name"},
             {"fmt 3", "net/http 4"}},
        // Where the parser recovers from errors: the pieces of strings, character literals and comments
        // that it reads as names are none.
        Case{"cpp_recovered",
             "cpp",
             "template<typename _Predicate>\n"
             "  _SOME_DEPRECATED_SUGGEST(\"std::not_fn\")\n"
             "  inline unary_negate<_Predicate>\n"
             "  not1(const _Predicate& __pred)\n"
             "  { return unary_negate<_Predicate>(__pred); }\n",
             {"not1 definition 4", "unary_negate call 5", "__pred other 5"},
             {"std", "not_fn"},
             {}},
        Case{"c_macro_comment",
             "c",
             "#define GET_CONTEXT(_rlval)                       \\\n"
             "  { volatile unsigned int __addr;                 \\\n"
             "    __asm__ volatile(PREAMBLE                     \\\n"
             "                     /* %EAX = guest_NRADDR */    \\\n"
             "                     \"xchgl %%ecx,%%ecx\"          \\\n"
             "                     : \"=a\" (__addr)              \\\n"
             "                     : \"cc\", \"memory\"             \\\n"
             "                    );                            \\\n"
             "  }\n"
             "int after;\n",
             {"GET_CONTEXT definition 1", "PREAMBLE other 3", "__addr other 2"},
             {"EAX", "guest_NRADDR", "xchgl", "ecx", "a", "cc", "memory"},
             {}},
        Case{"c_enum_char_literals",
             "c",
             "typedef enum  FT_Encoding_\n"
             "{\n"
             "    FT_ENC_TAG( FT_ENCODING_NONE, 0, 0, 0, 0 ),\n"
             "    FT_ENC_TAG( FT_ENCODING_MS_SYMBOL, 's', 'y', 'm', 'b' ),\n"
             "    FT_ENC_TAG( FT_ENCODING_UNICODE,   'u', 'n', 'i', 'c' )\n"
             "} FT_Encoding;\n",
             {"FT_ENC_TAG other 4", "FT_ENCODING_MS_SYMBOL definition 4"},
             {"s", "y", "m", "b", "u", "n", "i", "c"},
             {}},
        Case{"go_labels",
             "go",
             "package p\n"
             "func f() {\n"
             "\ts := `raw_word\n"
             "\t more_word`\n"
             "outer:\n"
             "\tfor {\n"
             "\t\tbreak outer\n"
             "\t}\n"
             "\tgoto done\n"
             "done:\n"
             "\tuse(s)\n"
             "}\n",
             {"outer definition 5", "outer other 7", "done other 9", "done definition 10", "use call 11"},
             {"raw_word", "more_word"},
             {}},
        Case{"rust",
             "rust",
             "use crate::net::retry::{backoff, Policy};\n"
             "mod config;\n"
             "/// doc_word\n"
             "fn main() { let p: Policy = backoff(3); println!(\"{} lit_word\", p.len()); }\n",
             {"backoff import 1", "Policy import 1", "main definition 4", "Policy type 4", "backoff call 4",
              "println call 4", "len call 4"},
             {"doc_word", "lit_word"},
             {"crate::net::retry 1", "mod config 2"}},
        Case{"java",
             "java",
             "import java.util.List;\n"
             "class A { /* hidden */ List<String> f() { return helper.make(\"text_word\"); } }\n",
             {"List import 1", "java import 1", "List type 2", "String type 2", "make call 2", "helper other 2",
              "f definition 2"},
             {"hidden", "text_word"},
             {"java.util.List 1"}}),
    [](const ::testing::TestParamInfo<Case>& info) { return info.param.label; });

}  // namespace
}  // namespace brenloc::engines
