#include "brenloc/aio/future.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>

namespace brenloc::aio {

bool is_cancellation(const std::exception_ptr& e) {
  if (!e) return false;
  try {
    std::rethrow_exception(e);
  } catch (const Cancelled&) {
    return true;
  } catch (...) {
    return false;
  }
}

namespace {

void write_to_stderr(const std::exception_ptr& failure) {
  const char* what = "not a std::exception";
  try {
    std::rethrow_exception(failure);
  } catch (const std::exception& e) {
    what = e.what();
  } catch (...) {
  }
  std::fprintf(stderr, "Future exception was never retrieved: %s\n", what);
}

std::atomic<UnfetchedFailureReporter> unfetched_reporter{&write_to_stderr};

}  // namespace

void set_unfetched_failure_reporter(UnfetchedFailureReporter reporter) { unfetched_reporter.store(reporter); }

FutureBase::~FutureBase() {
  if (state_ == State::failed && !retrieved_) unfetched_reporter.load()(error_);
}

bool FutureBase::cancel() {
  if (done()) return false;
  finish(State::cancelled);
  return true;
}

std::exception_ptr FutureBase::exception() {
  if (state_ == State::cancelled) throw Cancelled{};
  retrieved_ = true;
  return error_;
}

void FutureBase::set_exception(std::exception_ptr e) {
  if (done()) return;
  if (is_cancellation(e)) {
    finish(State::cancelled);
  } else {
    finish(State::failed, std::move(e));
  }
}

void FutureBase::remove_listener(DoneListener* l) {
  auto it = std::find(listeners_.begin(), listeners_.end(), l);
  if (it != listeners_.end()) listeners_.erase(it);
}

void FutureBase::finish(State s, std::exception_ptr e) {
  state_ = s;
  error_ = std::move(e);
  auto listeners = std::move(listeners_);
  listeners_.clear();
  for (DoneListener* l : listeners) l->on_done();
}

void FutureBase::rethrow_unless_finished() {
  if (state_ == State::cancelled) throw Cancelled{};
  if (state_ == State::failed) {
    retrieved_ = true;
    std::rethrow_exception(error_);
  }
}

bool WaitAll::await_ready() const {
  return std::all_of(futures_.begin(), futures_.end(), [](const auto& f) { return f->done(); });
}

void WaitAll::on_done() {
  if (--pending_ == 0) wake();
}

void WaitAll::interrupt() {
  for (auto& f : futures_) f->remove_listener(this);
  wake_cancelled();
}

}  // namespace brenloc::aio
