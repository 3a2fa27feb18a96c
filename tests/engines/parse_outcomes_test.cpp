// What a parse reports besides its definitions: syntax errors with a partial parse, a parse over its
// time limit, languages without a parser, and many threads parsing at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "brenloc/engines/languages.h"
#include "brenloc/engines/symbols.h"

namespace brenloc::engines {
namespace {

using namespace std::chrono_literals;

bool has(const ParseResult& r, const std::string& name, int line) {
  return std::any_of(r.symbols.begin(), r.symbols.end(),
                     [&](const storage::SymbolRow& s) { return s.name == name && s.line == line; });
}

struct BrokenCase {
  std::string label;
  std::string language;
  std::string source;
  std::vector<std::pair<std::string, int>> still_found;  // definitions around the error
};

void PrintTo(const BrokenCase& c, std::ostream* os) { *os << c.label; }

class SyntaxErrors : public ::testing::TestWithParam<BrokenCase> {};

TEST_P(SyntaxErrors, KeepTheDefinitionsOfThePartialParse) {
  const BrokenCase& c = GetParam();
  const ParseResult r = extract_symbols(c.language, c.source);
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_TRUE(r.syntax_errors);
  for (const auto& [name, line] : c.still_found) EXPECT_TRUE(has(r, name, line)) << name << " line " << line;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Languages, SyntaxErrors, ::testing::Values(
  BrokenCase{"python", "python", "def before():\n    pass\n\ndef broken(:\n    pass\n\nclass After:\n    def m(self):\n        pass\n",
             {{"before", 1}, {"After", 7}, {"m", 8}}},
  BrokenCase{"c", "c", "int before(void) { return 0; }\nint broken( { ;\nstruct after { int x; };\n#define LATE 1\n",
             {{"before", 1}, {"after", 3}, {"LATE", 4}}},
  BrokenCase{"cpp", "cpp", "namespace n {\nclass A { int f() { return 1 } };\nvoid g() {}\n}\n",
             {{"n", 1}, {"A", 2}, {"g", 3}}},
  BrokenCase{"javascript", "javascript", "function a() {}\nlet b = [1, 2;\nclass C { m() {} }\n",
             {{"a", 1}, {"C", 3}}},
  BrokenCase{"typescript", "typescript", "interface I { x: number }\nlet y: = 3;\nenum E { A }\n",
             {{"I", 1}, {"E", 3}}},
  BrokenCase{"go", "go", "package p\nfunc A() {}\nfunc B( {\n}\ntype T struct{}\n", {{"A", 2}, {"T", 5}}},
  BrokenCase{"rust", "rust", "fn a() {}\nfn b( -> {}\nstruct S;\n", {{"a", 1}, {"S", 3}}},
  BrokenCase{"java", "java", "class K {\n  void a() {}\n  void b( {}\n  int c;\n}\n", {{"K", 1}, {"a", 2}}}),
  [](const auto& info) { return info.param.label; });
// clang-format on

// A large generated C++ source: far more than a millisecond of parsing.
std::string large_cpp_source() {
  std::string src;
  for (int i = 0; i < 20000; ++i) {
    src += "namespace n" + std::to_string(i) + " { struct S { int a; int f(int x) { return x * a + " +
           std::to_string(i) + "; } }; }\n";
  }
  return src;
}

TEST(TimeLimit, FailsTheParseAndLeavesTheParserUsable) {
  const std::string big = large_cpp_source();
  const ParseResult slow = extract_symbols("cpp", big, 1ms);
  EXPECT_FALSE(slow.ok);
  EXPECT_NE(slow.error.find("time limit"), std::string::npos) << slow.error;
  EXPECT_TRUE(slow.symbols.empty());

  // The next parse on this thread starts afresh rather than resuming the cancelled one.
  const ParseResult next = extract_symbols("cpp", "struct Fresh { int a; };\n");
  ASSERT_TRUE(next.ok) << next.error;
  EXPECT_FALSE(next.syntax_errors);
  EXPECT_TRUE(has(next, "Fresh", 1));
  EXPECT_FALSE(has(next, "n0", 1));

  // Without a time limit the same source parses completely.
  const ParseResult full = extract_symbols("cpp", big, 0ms);
  ASSERT_TRUE(full.ok) << full.error;
  EXPECT_TRUE(has(full, "n19999", 20000));
}

TEST(Languages, EveryLanguageOfTheTableHasAParser) {
  for (const auto& entry : LANGUAGE_EXTENSIONS) {
    const ParseResult r = extract_symbols(entry.language, "");
    EXPECT_TRUE(r.ok) << entry.language << ": " << r.error;
    EXPECT_TRUE(parse_only(entry.language, "")) << entry.language;
  }
  const ParseResult r = extract_symbols("cobol", "IDENTIFICATION DIVISION.");
  EXPECT_FALSE(r.ok);
  EXPECT_NE(r.error.find("cobol"), std::string::npos) << r.error;
  EXPECT_FALSE(parse_only("cobol", "x"));
}

TEST(Positions, LinesAndColumnsAreOneBasedAndEndsCoverTheDefinition) {
  const ParseResult r = extract_symbols("c", "int x;\n\n  static int\n  twice(int v)\n  {\n    return 2 * v;\n  }\n");
  ASSERT_TRUE(r.ok) << r.error;
  auto it = std::find_if(r.symbols.begin(), r.symbols.end(), [](const auto& s) { return s.name == "twice"; });
  ASSERT_NE(it, r.symbols.end());
  EXPECT_EQ(it->line, 4);  // the name's line, not the return type's
  EXPECT_EQ(it->column, 3);
  EXPECT_EQ(it->end_line, 7);
  EXPECT_EQ(it->end_column, 3);  // the closing brace
  auto x = std::find_if(r.symbols.begin(), r.symbols.end(), [](const auto& s) { return s.name == "x"; });
  ASSERT_NE(x, r.symbols.end());
  EXPECT_EQ(x->line, 1);
  EXPECT_EQ(x->column, 5);

  // A macro's definition takes its newline along; it still ends on its own line.
  const ParseResult m = extract_symbols("c", "int a;\n#define LIMIT 10\nint b;\n");
  ASSERT_TRUE(m.ok) << m.error;
  auto limit = std::find_if(m.symbols.begin(), m.symbols.end(), [](const auto& s) { return s.name == "LIMIT"; });
  ASSERT_NE(limit, m.symbols.end());
  EXPECT_EQ(limit->line, 2);
  EXPECT_EQ(limit->column, 9);
  EXPECT_EQ(limit->end_line, 2);
  EXPECT_EQ(limit->end_column, 16);  // the last digit
}

// One source per language, parsed by many threads at once: every thread gets the same result as a
// lone parse.
TEST(Threads, ManyThreadsParseAtOnceWithTheSameResults) {
  const std::vector<std::pair<std::string, std::string>> sources = {
      {"python", "class A:\n    def m(self):\n        pass\nX = 1\n"},
      {"c", "#define M 1\nstruct s { int a; };\nint f(void) { return 0; }\n"},
      {"cpp", "namespace n { class K { void m() {} }; }\nvoid n::K::m2() {}\n"},
      {"javascript", "class A { m() {} }\nconst f = () => 1;\n"},
      {"typescript", "enum E { A }\ntype T = string;\n"},
      {"tsx", "const C = () => <div/>;\n"},
      {"go", "package p\nfunc (r *R) M() {}\nconst K = 1\n"},
      {"rust", "impl S { fn m(&self) {} }\n"},
      {"java", "class A { A() {} int f; }\n"},
  };
  std::vector<std::vector<storage::SymbolRow>> expected;
  for (const auto& [lang, src] : sources) {
    ParseResult r = extract_symbols(lang, src);
    ASSERT_TRUE(r.ok) << lang;
    ASSERT_FALSE(r.symbols.empty()) << lang;
    expected.push_back(std::move(r.symbols));
  }
  const auto same = [](const std::vector<storage::SymbolRow>& a, const std::vector<storage::SymbolRow>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
      if (a[i].name != b[i].name || a[i].kind != b[i].kind || a[i].line != b[i].line ||
          a[i].column != b[i].column || a[i].end_line != b[i].end_line || a[i].scope != b[i].scope) {
        return false;
      }
    }
    return true;
  };
  constexpr int threads = 8;
  constexpr int rounds = 30;
  std::vector<int> mismatches(threads, 0);
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([&, t] {
      for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < sources.size(); ++i) {
          const std::size_t k = (i + static_cast<std::size_t>(t)) % sources.size();  // different orders
          const ParseResult r = extract_symbols(sources[k].first, sources[k].second);
          if (!r.ok || !same(r.symbols, expected[k])) ++mismatches[t];
        }
      }
    });
  }
  for (auto& th : pool) th.join();
  for (int t = 0; t < threads; ++t) EXPECT_EQ(mismatches[t], 0) << "thread " << t;
}

}  // namespace
}  // namespace brenloc::engines
