// OnExit runs a function when the scope that holds it is left, by a return or by an exception: for
// synchronous clean-up that must happen either way. The function must not throw.
#pragma once

#include <utility>

namespace brenloc::utils {

template <class F>
class OnExit {
 public:
  explicit OnExit(F f) : f_(std::move(f)) {}
  ~OnExit() { f_(); }
  OnExit(const OnExit&) = delete;
  OnExit& operator=(const OnExit&) = delete;

 private:
  F f_;
};

}  // namespace brenloc::utils
