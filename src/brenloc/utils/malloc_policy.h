// How the process's allocator holds memory: set once at the start of main, before threads start.
//
// Blocks of 256 KiB and more (the arrays of the names a search keeps, SQLite's sorter runs and caches'
// bulk allocations, whole files read for parsing, large answers) are mapped on their own and go back
// to the system when freed. By default glibc raises that size each time such a block is freed, after
// which large blocks come from the per-thread arenas, where a rebuild leaves them scattered among live
// ones that no trim can hand back.
#pragma once

namespace brenloc::utils {

void apply_malloc_policy();

}  // namespace brenloc::utils
