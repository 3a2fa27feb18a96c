#include "brenloc/utils/malloc_policy.h"

#include <malloc.h>

#include <algorithm>
#include <thread>

namespace brenloc::utils {

void apply_malloc_policy() {
  // Not the size above which blocks are mapped on their own (M_MMAP_THRESHOLD): searches allocate and
  // free blocks of megabytes, which would then be mapped and faulted in anew each time (a search of
  // every name starting with one letter: ten times slower).
  ::mallopt(M_ARENA_MAX, static_cast<int>(std::max(2u, std::thread::hardware_concurrency())));
}

}  // namespace brenloc::utils
