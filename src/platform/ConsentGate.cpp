#include "platform/ConsentGate.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace quorvel::platform {
namespace {

// The gates this thread holds, each with its depth: a hold taken again on the same thread
// must not lock again (a shared lock taken twice while a stop waits is undefined).
struct HeldGate {
  const ConsentGate* gate;
  int depth;
};
thread_local std::vector<HeldGate> tHeldGates;

std::vector<HeldGate>::iterator findHeld(const ConsentGate* gate) {
  return std::find_if(tHeldGates.begin(), tHeldGates.end(),
                      [gate](const HeldGate& held) { return held.gate == gate; });
}

}  // namespace

ConsentGate::ConsentGate(std::function<bool()> readStored, std::function<bool()> stoppedElsewhere,
                         std::shared_ptr<const Clock> clock)
    : readStored_(std::move(readStored)),
      stoppedElsewhere_(clock ? std::move(stoppedElsewhere) : nullptr),
      clock_(std::move(clock)) {}

bool ConsentGate::stopped() const {
  if (!knownStopped() && stoppedElsewhere_)
    checkElsewhere();
  return stopped_.load();
}

[[gnu::hot]] bool ConsentGate::knownStopped() const {
  if (!storedReadDone_.load(std::memory_order_acquire)) {
    std::call_once(storedRead_, [this] {
      if (readStored_ && readStored_())
        stopped_.store(true);
    });
    storedReadDone_.store(true, std::memory_order_release);
  }
  return stopped_.load();
}

void ConsentGate::checkElsewhere() const {
  using std::chrono::duration_cast;
  using std::chrono::milliseconds;
  const std::int64_t now = duration_cast<milliseconds>(clock_->now().time_since_epoch()).count();
  std::int64_t last = lastCheckMs_.load();
  // The first question, and a clock that went back, check at once.
  if (last != kNeverChecked && now >= last &&
      now - last < duration_cast<milliseconds>(kSharedCheckInterval).count())
    return;
  if (!lastCheckMs_.compare_exchange_strong(last, now))
    return;  // another thread checks now
  if (!stoppedElsewhere_())
    return;
  stop();
  stopSeenElsewhere_.store(true);
  if (stoppedElsewhereSeen_)
    stoppedElsewhereSeen_();
}

void ConsentGate::lookElsewhereNow() const {
  // Through stopped(): a stop kept from an earlier start is read first, and is not another
  // process's.
  if (stopped() || !stoppedElsewhere_)
    return;
  lastCheckMs_.store(kNeverChecked);
  checkElsewhere();
}

void ConsentGate::stop() const {
  std::call_once(storedRead_, [] {});  // a later first read cannot overwrite this
  stopSeenElsewhere_.store(false);
  stopped_.store(true);
  generation_.fetch_add(1, std::memory_order_acq_rel);
}

void ConsentGate::stopAndSettle() const {
  stop();
  // From inside a hold of this thread (a host's log callback, say) waiting would never end:
  // the work outside it still settles, this thread's own work sees the stop at its next look.
  if (findHeld(this) != tHeldGates.end())
    return;
  const std::unique_lock settled(settling_);
}

ConsentGate::Hold ConsentGate::hold() const {
  if (const auto held = findHeld(this); held != tHeldGates.end()) {
    ++held->depth;
    return Hold(this);
  }
  settling_.lock_shared();
  tHeldGates.push_back({this, 1});
  return Hold(this);
}

ConsentGate::Hold& ConsentGate::Hold::operator=(Hold&& other) noexcept {
  if (this != &other) {
    release();
    gate_ = std::exchange(other.gate_, nullptr);
  }
  return *this;
}

void ConsentGate::Hold::release() noexcept {
  const ConsentGate* gate = std::exchange(gate_, nullptr);
  if (!gate)
    return;
  const auto held = findHeld(gate);
  if (held == tHeldGates.end() || --held->depth > 0)
    return;
  tHeldGates.erase(held);
  gate->settling_.unlock_shared();
}

void ConsentGate::run() {
  std::call_once(storedRead_, [] {});
  stopSeenElsewhere_.store(false);
  stopped_.store(false);
}

}  // namespace quorvel::platform
