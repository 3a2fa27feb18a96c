// Turns shared fairly between parties: at most `width` turns are held at once, and when one frees, the
// parties waiting get it in rotation (the oldest waiter of each party first), so a party with a thousand
// waiters delays another party's next waiter by at most one turn each, not by the thousand.
//
//   auto party = turns.join();                 // one per client
//   auto turn = co_await turns.take(*party);   // held until `turn` goes out of scope
//
// For coroutines of one loop. A waiter cancelled while queued leaves the queue; a turn handed to a waiter
// whose task is cancelled before it runs again is passed on, never leaked. A party must outlive its waiters.
#pragma once

#include <coroutine>
#include <cstddef>
#include <deque>
#include <memory>
#include <utility>

#include "brenloc/aio/future.h"

namespace brenloc::aio {

class FairTurns;

// A held turn; gives it back when destroyed. Move-only.
class Turn {
 public:
  Turn() = default;
  explicit Turn(FairTurns* turns) : turns_(turns) {}
  Turn(Turn&& o) noexcept : turns_(std::exchange(o.turns_, nullptr)) {}
  Turn& operator=(Turn&& o) noexcept;
  ~Turn() { release(); }
  void release();
  bool held() const { return turns_ != nullptr; }

 private:
  FairTurns* turns_ = nullptr;
};

class FairTurns {
 public:
  class Take;

  // The waiters of one client, in the order they came.
  class Party {
   public:
    Party() = default;
    Party(const Party&) = delete;
    Party& operator=(const Party&) = delete;
    std::size_t waiting() const { return waiters_.size(); }

   private:
    friend class FairTurns;
    std::deque<Take*> waiters_;
    bool queued_ = false;  // in the rotation
  };

  class Take final : public SuspendBase {
   public:
    Take(FairTurns& turns, Party& party) : turns_(turns), party_(party) {}
    bool await_ready();
    template <class P>
    bool await_suspend(std::coroutine_handle<P> h) {
      if (!begin_suspend(h)) return false;
      turns_.enqueue(*this);
      return true;
    }
    Turn await_resume();
    void interrupt() override;

   private:
    friend class FairTurns;
    void grant() { wake(); }
    FairTurns& turns_;
    Party& party_;
  };

  explicit FairTurns(std::size_t width) : width_(width == 0 ? 1 : width) {}
  FairTurns(const FairTurns&) = delete;
  FairTurns& operator=(const FairTurns&) = delete;

  std::unique_ptr<Party> join() { return std::make_unique<Party>(); }
  Take take(Party& party) { return Take(*this, party); }

  std::size_t width() const { return width_; }
  std::size_t held() const { return held_; }

 private:
  friend class Turn;
  void enqueue(Take& t);
  void release();  // a held turn ends: it passes to the next party in rotation, or frees

  std::size_t width_;
  std::size_t held_ = 0;
  std::deque<Party*> rotation_;  // parties with waiters, the next to be served first
};

}  // namespace brenloc::aio
