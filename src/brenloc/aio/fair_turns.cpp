#include "brenloc/aio/fair_turns.h"

#include <algorithm>
#include <cassert>

namespace brenloc::aio {

Turn& Turn::operator=(Turn&& o) noexcept {
  if (this != &o) {
    release();
    turns_ = std::exchange(o.turns_, nullptr);
  }
  return *this;
}

void Turn::release() {
  if (turns_ != nullptr) std::exchange(turns_, nullptr)->release();
}

bool FairTurns::Take::await_ready() {
  // A free turn goes at once only when nobody waits for it: a newcomer never overtakes a waiter.
  if (turns_.held_ < turns_.width_ && turns_.rotation_.empty()) {
    ++turns_.held_;
    return true;
  }
  return false;
}

Turn FairTurns::Take::await_resume() {
  if (!suspended_ && !interrupted_) return Turn(&turns_);  // taken in await_ready
  if (late_cancel()) {
    turns_.release();  // handed to us, but we are cancelled: pass it on
    throw Cancelled{};
  }
  return Turn(&turns_);
}

void FairTurns::Take::interrupt() {
  auto& q = party_.waiters_;
  q.erase(std::find(q.begin(), q.end(), this));
  if (q.empty() && party_.queued_) {
    auto& r = turns_.rotation_;
    r.erase(std::find(r.begin(), r.end(), &party_));
    party_.queued_ = false;
  }
  wake_cancelled();
}

void FairTurns::enqueue(Take& t) {
  Party& p = t.party_;
  p.waiters_.push_back(&t);
  if (!p.queued_) {
    rotation_.push_back(&p);
    p.queued_ = true;
  }
}

void FairTurns::release() {
  assert(held_ > 0);
  if (rotation_.empty()) {
    --held_;
    return;
  }
  // The turn stays held: it passes to the first waiter of the party whose turn it is, and that party goes
  // to the back of the rotation if it has more.
  Party* p = rotation_.front();
  rotation_.pop_front();
  Take* next = p->waiters_.front();
  p->waiters_.pop_front();
  if (p->waiters_.empty()) {
    p->queued_ = false;
  } else {
    rotation_.push_back(p);
  }
  next->grant();
}

}  // namespace brenloc::aio
