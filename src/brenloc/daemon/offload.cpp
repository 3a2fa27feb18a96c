#include "brenloc/daemon/offload.h"

#include <unordered_set>
#include <vector>

#include "brenloc/utils/logging.h"

namespace brenloc::daemon {

namespace {

// Detached tasks of the loop thread. Only touched on the loop thread.
struct Registry {
  std::unordered_set<std::shared_ptr<aio::FutureState<void>>> tasks;
};

Registry& registry() {
  static thread_local Registry r;
  return r;
}

// Removes a finished task from the registry and logs a failure that left it.
class Reaper final : public aio::DoneListener {
 public:
  explicit Reaper(std::shared_ptr<aio::FutureState<void>> s) : state_(std::move(s)) {}
  void on_done() override {
    auto keep = state_;
    registry().tasks.erase(state_);
    if (!keep->cancelled()) {
      if (auto e = keep->exception()) {
        utils::log_exception(*utils::get_logger("brenloc.daemon.offload"), "Background task failed", e);
      }
    }
    delete this;
  }

 private:
  std::shared_ptr<aio::FutureState<void>> state_;
};

}  // namespace

aio::Future<void> detached_task(aio::Task<void> task) {
  auto f = aio::spawn(std::move(task));
  registry().tasks.insert(f.state());
  f.state()->add_listener(new Reaper(f.state()));
  return f;
}

aio::Task<void> drain_detached_tasks() {
  std::vector<std::shared_ptr<aio::FutureBase>> all;
  for (const auto& t : registry().tasks) {
    t->cancel();
    all.push_back(t);
  }
  co_await aio::wait_all(std::move(all));
}

std::size_t detached_task_count() { return registry().tasks.size(); }

}  // namespace brenloc::daemon
