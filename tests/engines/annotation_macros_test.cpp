// Blanking of the decoration macros that C and C++ headers wrap around their declarations (that the
// blanked glibc header then parses is in the extraction table).
#include "brenloc/engines/annotation_macros.h"

#include <gtest/gtest.h>

#include <string>

namespace brenloc::engines {
namespace {

TEST(BlankAnnotationMacros, BlanksOnlyTheDecorations) {
  // `expected`: the same text with the decorations turned into spaces; empty: unchanged.
  const struct {
    std::string label, input, expected = {};
  } cases[] = {
    // clang-format off
    {"glibc declaration block",
     "#include <features.h>\n__BEGIN_DECLS\nextern int f (int __x) __THROW __wur __nonnull ((1));\n__END_DECLS\n",
     "#include <features.h>\n             \nextern int f (int __x)                              ;\n           \n"},
    {"directive lines are left alone", "#define __THROW\n#ifdef __BEGIN_DECLS\n#endif\n"},
    {"libstdc++ namespace",
     "namespace std _GLIBCXX_VISIBILITY(default)\n{\n_GLIBCXX_BEGIN_NAMESPACE_VERSION\n}\n",
     "namespace std                             \n{\n                                \n}\n"},
    {"export macro between class and name",
     "class BOOST_SYMBOL_VISIBLE error : public base {};\n",
     "class                      error : public base {};\n"},
    {"struct tag in a typedef is kept", "typedef struct FOO_BAR foo_t;\n"},
    {"trailing macro after parameters",
     "  int size() const BOOST_NOEXCEPT { return 0; }\n",
     "  int size() const                { return 0; }\n"},
    {"name declared after a macro type is kept", "typedef STACK_OF(X509_NAME) NAME_STACK;\n"},
    {"leading macro before a declaration",
     "BOOST_ASIO_DECL static int f();\nMY_EXPORT_API int g();\n",
     "                static int f();\n              int g();\n"},
    {"lone macro line between declarations", "int a;\nG_BEGIN_DECLS\nint b;\n", "int a;\n             \nint b;\n"},
    {"enumerators on their own lines are kept", "enum e {\n  FIRST_VALUE,\n  LAST_VALUE\n};\n"},
    {"plain code is untouched", "int main(void) { return MAX_SIZE; }\n"},
    // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    const std::string& expected = c.expected.empty() ? c.input : c.expected;
    ASSERT_EQ(c.input.size(), expected.size()) << "the table must keep lengths";
    std::string text = c.input;
    EXPECT_EQ(blank_annotation_macros(text), !c.expected.empty());
    EXPECT_EQ(text, expected);
  }
}

}  // namespace
}  // namespace brenloc::engines
