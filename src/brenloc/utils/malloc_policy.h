// How the process's allocator holds memory: set once at the start of main, before threads start.
//
// The allocator keeps one arena per core at most, instead of glibc's eight per core. A thread takes an
// arena of its own while there are fewer than the limit, and every arena keeps the blocks freed in it;
// the daemon's threads (the loop's pool, the lanes, each indexer's parse threads) outnumber the cores,
// so by default what a rebuild frees stays scattered over an arena per thread, among live blocks, where
// no trim can hand it back. No more threads run at once than there are cores, so sharing arenas costs
// little waiting.
#pragma once

namespace brenloc::utils {

void apply_malloc_policy();

}  // namespace brenloc::utils
