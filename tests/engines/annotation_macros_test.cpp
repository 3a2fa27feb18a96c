// Blanking of the decoration macros that C and C++ headers wrap around their declarations.
#include <gtest/gtest.h>

#include <string>

#include "brenloc/engines/annotation_macros.h"
#include "brenloc/engines/symbols.h"

namespace brenloc::engines {
namespace {

struct BlankCase {
  std::string label;
  std::string input;
  std::string expected;  // the same text with the decorations turned into spaces
};

void PrintTo(const BlankCase& c, std::ostream* os) { *os << c.label; }

class BlankAnnotationMacros : public ::testing::TestWithParam<BlankCase> {};

TEST_P(BlankAnnotationMacros, BlanksOnlyTheDecorations) {
  const BlankCase& c = GetParam();
  ASSERT_EQ(c.input.size(), c.expected.size()) << "the table must keep lengths";
  std::string text = c.input;
  const bool changed = blank_annotation_macros(text);
  EXPECT_EQ(text, c.expected);
  EXPECT_EQ(changed, c.input != c.expected);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Cases, BlankAnnotationMacros, ::testing::Values(
  BlankCase{"glibc_declaration_block",
            "#include <features.h>\n__BEGIN_DECLS\nextern int f (int __x) __THROW __wur __nonnull ((1));\n__END_DECLS\n",
            "#include <features.h>\n             \nextern int f (int __x)                              ;\n           \n"},
  BlankCase{"directive_lines_are_left_alone",
            "#define __THROW\n#ifdef __BEGIN_DECLS\n#endif\n",
            "#define __THROW\n#ifdef __BEGIN_DECLS\n#endif\n"},
  BlankCase{"libstdcxx_namespace",
            "namespace std _GLIBCXX_VISIBILITY(default)\n{\n_GLIBCXX_BEGIN_NAMESPACE_VERSION\n}\n",
            "namespace std                             \n{\n                                \n}\n"},
  BlankCase{"export_macro_between_class_and_name",
            "class BOOST_SYMBOL_VISIBLE error : public base {};\n",
            "class                      error : public base {};\n"},
  BlankCase{"struct_tag_in_typedef_is_kept",
            "typedef struct FOO_BAR foo_t;\n",
            "typedef struct FOO_BAR foo_t;\n"},
  BlankCase{"trailing_macro_after_parameters",
            "  int size() const BOOST_NOEXCEPT { return 0; }\n",
            "  int size() const                { return 0; }\n"},
  BlankCase{"name_declared_after_macro_type_is_kept",
            "typedef STACK_OF(X509_NAME) NAME_STACK;\n",
            "typedef STACK_OF(X509_NAME) NAME_STACK;\n"},
  BlankCase{"leading_macro_before_declaration",
            "BOOST_ASIO_DECL static int f();\nMY_EXPORT_API int g();\n",
            "                static int f();\n              int g();\n"},
  BlankCase{"lone_macro_line_between_declarations",
            "int a;\nG_BEGIN_DECLS\nint b;\n",
            "int a;\n             \nint b;\n"},
  BlankCase{"enumerators_on_their_own_lines_are_kept",
            "enum e {\n  FIRST_VALUE,\n  LAST_VALUE\n};\n",
            "enum e {\n  FIRST_VALUE,\n  LAST_VALUE\n};\n"},
  BlankCase{"plain_code_is_untouched",
            "int main(void) { return MAX_SIZE; }\n",
            "int main(void) { return MAX_SIZE; }\n"}),
  [](const auto& info) { return info.param.label; });
// clang-format on

// The effect that matters: a glibc-style header yields its definitions, at their own lines.
TEST(BlankAnnotationMacros, GlibcHeaderParsesCleanly) {
  const std::string header =
      "#ifndef _X_H\n#define _X_H 1\n#include <features.h>\n__BEGIN_DECLS\n"
      "enum status\n{\n  STATUS_OK,\n  STATUS_BAD\n};\n"
      "extern int check (const char *__s) __THROW __nonnull ((1)) __wur;\n"
      "__END_DECLS\n#endif\n";
  const ParseResult r = extract_symbols("c", header);
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_FALSE(r.syntax_errors);
  bool status = false, bad = false;
  for (const auto& s : r.symbols) {
    status |= s.name == "status" && s.kind == "enum" && s.line == 5;
    bad |= s.name == "STATUS_BAD" && s.kind == "enumerator" && s.line == 8 && s.scope == "status";
  }
  EXPECT_TRUE(status);
  EXPECT_TRUE(bad);
}

}  // namespace
}  // namespace brenloc::engines
