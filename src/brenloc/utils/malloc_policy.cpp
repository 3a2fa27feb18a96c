#include "brenloc/utils/malloc_policy.h"

#include <malloc.h>

namespace brenloc::utils {

void apply_malloc_policy() {
  // Setting it also fixes it: glibc no longer moves it (nor the trim threshold, which stays at 128 KiB).
  constexpr int kMmapThreshold = 256 * 1024;
  ::mallopt(M_MMAP_THRESHOLD, kMmapThreshold);
}

}  // namespace brenloc::utils
