// How an awaited task ended: its value, or the failure or cancellation that left it. For code that must
// await something before it lets a failure go on, which a catch block cannot:
//
//   auto ended = co_await aio::outcome_of(body());
//   co_await clean_up();
//   co_return std::move(ended).get();  // the value, or the failure (or cancellation) thrown on
#pragma once

#include <exception>
#include <optional>
#include <utility>

#include "brenloc/aio/task.h"

namespace brenloc::aio {

template <class T>
struct Outcome {
  std::optional<detail::Stored<T>> value;  // present when the task returned
  std::exception_ptr error;                // the failure or the cancellation otherwise

  bool failed() const { return error != nullptr; }  // a failure or a cancellation
  bool cancelled() const { return is_cancellation(error); }
  T get() && {
    if (error) std::rethrow_exception(error);
    if constexpr (!std::is_void_v<T>) return std::move(*value);
  }
};

// Awaits `task` inline (it shares the awaiting task's cancellation) and returns how it ended.
template <class T>
Task<Outcome<T>> outcome_of(Task<T> task) {
  Outcome<T> out;
  try {
    if constexpr (std::is_void_v<T>) {
      co_await std::move(task);
      out.value.emplace();
    } else {
      out.value.emplace(co_await std::move(task));
    }
  } catch (...) {
    out.error = std::current_exception();
  }
  co_return out;
}

}  // namespace brenloc::aio
