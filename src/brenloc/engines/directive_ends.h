// Preprocessor directives that the parser misreads, rewritten before parsing with characters of the same
// length, so that every line and column stays where it was:
// - white space at the end of a directive makes the parser read the next line as the directive's
//   argument: `#define GUARD ` (or a stray `#endif `) swallows the definition after it;
// - the sections of an `#if` group that each hold a piece of one declaration (`#if DOC unspecified #else
//   detail::handler<T> #endif wrap(T);`, a class head whose base differs by platform, a function head
//   opened twice with `{`) leave the parser two halves of everything, and so does a group among a
//   constructor's member initializers: one section is kept.
#pragma once

#include <string>

namespace brenloc::engines {

// Rewrites, in place, the white space that ends a directive's last line: two or more characters
// (counting a carriage return) become a line comment, a single space or tab a carriage return. Lines
// that continue with a backslash are left alone. Returns whether anything changed.
bool end_directive_lines(std::string& text);

// Blanks, in place, the `#if` groups whose sections are not whole declarations: a section whose braces or
// parentheses do not balance, or whose code ends elsewhere than after a `;`, a `}`, a `,` or an access label;
// and the groups among member initializers, base classes or a call's arguments, where the parser takes no
// directive (an enumerator list or a class body it does).
// Of such a group, the first section that holds code (not under `#if 0`) is kept and the group's other
// sections (but their `#define` and `#undef` lines) and its directive lines become spaces; a group of one
// section that holds no `;`, brace nor preprocessor line and whose parentheses balance (an attribute, a
// base class) is blanked whole. The section under `#if 0` is always blanked, and with it the group's
// directives when one section is left. Groups inside a group are judged first. Returns whether anything
// changed.
bool keep_one_section_of_split_groups(std::string& text);

}  // namespace brenloc::engines
