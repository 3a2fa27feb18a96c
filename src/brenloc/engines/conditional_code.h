// Where C and C++ code is compiled only on a condition: inside an `#if`, `#ifdef` or `#ifndef` group (a
// compatibility typedef, a fallback, a platform's variant). A header's include guard (a group around all
// of its code), a group on `__cplusplus` (a C API's `extern "C"`, a language version) and one on a feature-test
// macro (`__USE_GNU`, `_POSIX_C_SOURCE`) are no condition.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

namespace brenloc::engines {

// The byte ranges of the source's conditional code, in order and apart from one another.
using ByteRanges = std::vector<std::pair<std::uint32_t, std::uint32_t>>;
ByteRanges conditional_code(std::string_view source);

// Whether one of the ranges holds byte `at`.
bool holds_byte(const ByteRanges& ranges, std::uint32_t at);

}  // namespace brenloc::engines
