// Cancellation of a task, as it surfaces inside the task's coroutines.
// Deliberately not a std::exception: a handler for ordinary errors never catches it, so clean-up code
// written as `catch (const std::exception&)` lets a cancellation pass on.
#pragma once

namespace brenloc::aio {

struct Cancelled {
  const char* what() const noexcept { return "task cancelled"; }
};

}  // namespace brenloc::aio
