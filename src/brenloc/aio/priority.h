// Background threads: lower_thread_priority() puts the calling thread below the process's other threads
// in the scheduler's eyes, once (later calls do nothing), so that work done for the future (an index
// rebuild) yields the cores to work someone waits for (a search). Such a thread still runs at full speed
// on a core nobody else wants. It cannot be undone without privilege: call it only on threads that do
// nothing but background work.
#pragma once

namespace brenloc::aio {

void lower_thread_priority();

}  // namespace brenloc::aio
