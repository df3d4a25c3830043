#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <quorvel/platform/NotificationCenter.h>

namespace quorvel::platform {

// Counts the calls in flight, by thread, so that closing can wait for the others' calls and
// not for its own (a handler that resets its own subscription).
struct NotificationSubscription::Gate {
  std::mutex mutex;
  std::condition_variable idle;
  bool open = true;
  std::vector<std::thread::id> callers;

  bool enter() {
    std::lock_guard lock(mutex);
    if (!open)
      return false;
    callers.push_back(std::this_thread::get_id());
    return true;
  }

  void leave() {
    {
      std::lock_guard lock(mutex);
      callers.erase(std::find(callers.begin(), callers.end(), std::this_thread::get_id()));
    }
    idle.notify_all();
  }

  void close() {
    std::unique_lock lock(mutex);
    open = false;
    const auto self = std::this_thread::get_id();
    idle.wait(lock, [&] {
      return std::all_of(callers.begin(), callers.end(), [&](auto id) { return id == self; });
    });
  }
};

NotificationSubscription::NotificationSubscription(std::shared_ptr<NotificationCenter> center,
                                                   std::string name, NotificationHandler handler)
    : center_(std::move(center)), name_(std::move(name)), gate_(std::make_shared<Gate>()) {
  if (!center_ || !handler) {
    gate_.reset();
    return;
  }
  // The center keeps the gate alive with the handler, so a post that copied the handler just
  // before the subscription went away still finds the gate closed.
  center_->addObserver(gate_.get(), name_,
                       [gate = gate_, handler = std::move(handler)](const Notification& n) {
                         if (!gate->enter())
                           return;
                         struct Leave {
                           Gate& g;
                           ~Leave() { g.leave(); }
                         } leave{*gate};
                         handler(n);
                       });
}

NotificationSubscription& NotificationSubscription::operator=(
    NotificationSubscription&& other) noexcept {
  if (this != &other) {
    reset();
    center_ = std::move(other.center_);
    name_ = std::move(other.name_);
    gate_ = std::move(other.gate_);
  }
  return *this;
}

NotificationSubscription::~NotificationSubscription() {
  reset();
}

void NotificationSubscription::reset() noexcept {
  if (!gate_)
    return;
  const auto gate = std::move(gate_);
  gate->close();
  try {
    center_->removeObserver(gate.get(), name_);
  } catch (...) {
    // A host's center that throws on removal still never calls a closed gate's handler.
  }
  center_.reset();
}

}  // namespace quorvel::platform
