#include "platform/IntakeQueue.h"
#include "platform/posix/LaneQueue.h"
#include "platform/posix/PosixServices.h"
#include "platform/posix/ThreadQueue.h"

namespace quorvel::platform {
namespace {
// A pool thread that found nothing to do for this long ends; the next item starts one.
constexpr std::chrono::milliseconds kPoolIdleTime{500};

std::string threadNameOf(const std::string& label) {
  return label.rfind("com.", 0) == 0 ? label.substr(4) : label;
}
}  // namespace

// Every queue the library makes is a lane on one pool of two threads, which is also the
// global queue: two threads between them under load, none when the library is idle. Only
// the queues that wait for the disk have threads of their own; of those, only the one the
// host's calls go to keeps its thread while idle.
PosixDispatcher::PosixDispatcher(std::shared_ptr<DispatchQueue> mainQueue)
    : pool_(std::make_shared<ThreadQueue>("com.quorvel.pool", 2, "quorvel.pool", kPoolIdleTime)),
      main_(mainQueue ? std::move(mainQueue) : std::make_shared<LaneQueue>("quorvel.main", pool_)) {
}

std::shared_ptr<DispatchQueue> PosixDispatcher::makeSerialQueue(std::string label) {
  return std::make_shared<LaneQueue>(std::move(label), pool_);
}

// A thread of its own: a lane waiting for the disk would hold one of the pool's two threads,
// and a burst's reports would reach the disk late. It ends when idle, but for the intake's
// (the queue the host's calls go to): started by a host's call after an idle time, it cost
// that call a quarter of a millisecond (the thread's start, its name, its first turn on the
// caller's core); parked, it costs a wake.
std::shared_ptr<DispatchQueue> PosixDispatcher::makeDiskQueue(std::string label) {
  std::optional<std::chrono::milliseconds> idleEnd = kPoolIdleTime;
  if (label == kIntakeQueueLabel)
    idleEnd.reset();
  const std::string name = threadNameOf(label);
  return std::make_shared<ThreadQueue>(std::move(label), 1, name, idleEnd);
}

}  // namespace quorvel::platform
