// C and C++ headers decorate their declarations with macros that the parser cannot expand
// (`__BEGIN_DECLS`, `int f(void) __THROW __wur;`, `namespace std _GLIBCXX_VISIBILITY(default)`):
// left in place they turn whole files into error nodes. They are blanked out before parsing, with
// spaces of the same length, so that every line and column stays where it was.
#pragma once

#include <string>

namespace brenloc::engines {

// Blanks, in place: the well-known decoration macros of the C and C++ standard libraries (with
// their parenthesised arguments where they take some), and a line holding nothing but an
// upper-case macro name (or call) between two declarations. Preprocessor lines are left alone.
// Returns whether anything was blanked.
bool blank_annotation_macros(std::string& text);

}  // namespace brenloc::engines
