#include <quorvel/testing/VirtualTime.h>

namespace quorvel::testkit {
namespace {

thread_local const void* tRunningQueue = nullptr;

class VirtualQueue final : public platform::DispatchQueue {
 public:
  VirtualQueue(VirtualDispatcher& owner, std::string label)
      : owner_(owner), label_(std::move(label)) {}
  const std::string& label() const noexcept override { return label_; }
  void async(platform::Work work) noexcept override {
    owner_.schedule(label_, this, std::chrono::nanoseconds(0), std::move(work));
  }
  void asyncAfter(std::chrono::nanoseconds delay, platform::Work work) noexcept override {
    owner_.schedule(label_, this, delay, std::move(work));
  }
  bool isCurrent() const noexcept override { return owner_.isRunning(this); }

 private:
  VirtualDispatcher& owner_;
  std::string label_;
};

}  // namespace

VirtualDispatcher::VirtualDispatcher(std::shared_ptr<VirtualClock> clock)
    : clock_(std::move(clock)),
      main_(std::make_shared<VirtualQueue>(*this, "main")),
      global_(std::make_shared<VirtualQueue>(*this, "global")) {}

std::shared_ptr<platform::DispatchQueue> VirtualDispatcher::makeSerialQueue(std::string label) {
  return std::make_shared<VirtualQueue>(*this, std::move(label));
}

void VirtualDispatcher::schedule(const std::string& label, const void* queue,
                                 std::chrono::nanoseconds delay, platform::Work work) {
  if (!work)
    return;
  const auto due = clock_->now() + std::chrono::duration_cast<platform::TimePoint::duration>(
                                       delay.count() < 0 ? std::chrono::nanoseconds(0) : delay);
  std::lock_guard lock(mutex_);
  items_.emplace(std::make_pair(due, sequence_++), Item{label, queue, std::move(work)});
}

bool VirtualDispatcher::isRunning(const void* queue) const {
  return tRunningQueue == queue;
}

bool VirtualDispatcher::runOneDueAt(platform::TimePoint limit) {
  Item item;
  {
    std::lock_guard lock(mutex_);
    if (items_.empty() || items_.begin()->first.first > limit)
      return false;
    const auto due = items_.begin()->first.first;
    item = std::move(items_.begin()->second);
    items_.erase(items_.begin());
    if (due > clock_->now())
      clock_->set(due);
    ranOn_.push_back(item.label);
  }
  const void* previous = tRunningQueue;
  tRunningQueue = item.queue;
  item.work();
  tRunningQueue = previous;
  return true;
}

std::size_t VirtualDispatcher::runUntilIdle() {
  std::size_t ran = 0;
  while (runOneDueAt(clock_->now()))
    ++ran;
  return ran;
}

std::size_t VirtualDispatcher::advance(std::chrono::nanoseconds d) {
  const auto target = clock_->now() + std::chrono::duration_cast<platform::TimePoint::duration>(d);
  std::size_t ran = 0;
  while (runOneDueAt(target))
    ++ran;
  clock_->set(target);
  return ran;
}

std::size_t VirtualDispatcher::pendingCount() const {
  std::lock_guard lock(mutex_);
  return items_.size();
}

std::size_t VirtualDispatcher::clear() {
  std::size_t dropped = 0;
  // Released outside the lock, and again while releasing queues more (a destructor may).
  for (;;) {
    std::map<std::pair<platform::TimePoint, std::uint64_t>, Item> released;
    {
      std::lock_guard lock(mutex_);
      released.swap(items_);
    }
    if (released.empty())
      return dropped;
    dropped += released.size();
  }
}

std::vector<std::string> VirtualDispatcher::ranOn() const {
  std::lock_guard lock(mutex_);
  return ranOn_;
}

}  // namespace quorvel::testkit
