// White space at the end of a C or C++ preprocessor directive makes the parser read the next line as the
// directive's argument: `#define GUARD ` (or a stray `#endif `) swallows the definition after it. Such
// white space is turned into something the parser takes as the directive's end, of the same length, so
// that every line and column stays where it was.
#pragma once

#include <string>

namespace brenloc::engines {

// Rewrites, in place, the white space that ends a directive's last line: two or more characters
// (counting a carriage return) become a line comment, a single space or tab a carriage return. Lines
// that continue with a backslash are left alone. Returns whether anything changed.
bool end_directive_lines(std::string& text);

}  // namespace brenloc::engines
