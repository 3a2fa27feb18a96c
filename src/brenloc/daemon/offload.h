// Lanes and background tasks of the daemon.
//
// An Offloader is a lane (aio/lane.h): a small named pool of threads whose `run` value hands blocking
// work to it, as the worker does with its passes' lane and its maintenance lane.
//
// detached_task(task) starts a background task that nobody awaits: the loop's registry keeps it alive
// until it ends, logs a failure that leaves it, and lets the daemon cancel and drain what remains.
#pragma once

#include <cstddef>

#include "brenloc/aio/lane.h"
#include "brenloc/aio/task.h"

namespace brenloc::daemon {

using Offloader = aio::Lane;

// Starts `task` in the background; see above. Returns its future.
aio::Future<void> detached_task(aio::Task<void> task);

// Cancels every detached task still running and waits until all have ended.
aio::Task<void> drain_detached_tasks();

// How many detached tasks are still running.
std::size_t detached_task_count();

}  // namespace brenloc::daemon
