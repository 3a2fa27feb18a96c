// Scoped contexts around an awaited body.
//
// A scope is any object with `void enter()` and `bool exit(const ScopeExit&)`. within() enters it, runs
// the body, and tells it on exit how the body ended: normally, by an ordinary failure, or by
// cancellation. A failure (or cancellation) goes on unless exit() returns true, which declares it
// handled; the body's result is then absent.
#pragma once

#include <exception>
#include <optional>
#include <utility>

#include "brenloc/aio/outcome.h"
#include "brenloc/aio/task.h"

namespace brenloc::aio {

struct ScopeExit {
  enum Kind { normal, failure, cancelled };
  Kind kind = normal;
  std::exception_ptr error;  // the failure or the cancellation; null when normal
};

template <class T>
using ScopeResult = std::optional<detail::Stored<T>>;

template <class Scope, class T>
Task<ScopeResult<T>> within(Scope& scope, Task<T> body) {
  scope.enter();
  Outcome<T> ended = co_await outcome_of(std::move(body));
  if (!ended.failed()) {
    scope.exit(ScopeExit{ScopeExit::normal, nullptr});
    co_return std::move(ended.value);
  }
  ScopeExit info{ended.cancelled() ? ScopeExit::cancelled : ScopeExit::failure, ended.error};
  if (!scope.exit(info)) std::rethrow_exception(ended.error);
  co_return std::nullopt;
}

}  // namespace brenloc::aio
