#include "brenloc/storage/letters_in_order.h"

#include <cstdint>

#include "brenloc/storage/symbol_match.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace brenloc::storage {

bool LettersInOrder::operator()(std::string_view name) const {
#if defined(__SSE2__)
  if (name.size() > kPadding) return holds_in_order(folded_, name);
  // The name folded, in chunks of sixteen bytes; then for each letter of the text, the bits of the
  // places that hold it past the place the letter before was found at (the earliest such place is never
  // worse).
  const std::size_t chunks = (name.size() + 15) / 16;
  __m128i lower[kPadding / 16];
  const __m128i before_a = _mm_set1_epi8('A' - 1), after_z = _mm_set1_epi8('Z' + 1), case_bit = _mm_set1_epi8(0x20);
  for (std::size_t c = 0; c < chunks; ++c) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(name.data() + 16 * c));
    const __m128i upper = _mm_and_si128(_mm_cmpgt_epi8(v, before_a), _mm_cmplt_epi8(v, after_z));
    lower[c] = _mm_or_si128(v, _mm_and_si128(upper, case_bit));
  }
  std::uint64_t allowed = name.size() == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << name.size()) - 1;
  for (const char want : folded_) {
    const __m128i w = _mm_set1_epi8(want);
    std::uint64_t at = 0;
    for (std::size_t c = 0; c < chunks; ++c) {
      at |= static_cast<std::uint64_t>(static_cast<std::uint16_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(lower[c], w))))
            << (16 * c);
    }
    at &= allowed;
    if (at == 0) return false;
    allowed &= ~(((at & -at) << 1) - 1);
  }
  return true;
#else
  return holds_in_order(folded_, name);
#endif
}

}  // namespace brenloc::storage
