#include "platform/posix/LaneQueue.h"
#include "platform/posix/PosixServices.h"
#include "platform/posix/ThreadQueue.h"

namespace quorvel::platform {
namespace {
// A pool thread that found nothing to do for this long ends; the next item starts one.
constexpr std::chrono::milliseconds kPoolIdleTime{500};
}  // namespace

// Every queue the library makes is a lane on one pool of two threads, which is also the
// global queue: two threads between them under load, none when the library is idle. Only
// the queues that wait for the disk have threads of their own.
PosixDispatcher::PosixDispatcher(std::shared_ptr<DispatchQueue> mainQueue)
    : pool_(std::make_shared<ThreadQueue>("com.quorvel.pool", 2, "quorvel.pool", kPoolIdleTime)),
      main_(mainQueue ? std::move(mainQueue) : std::make_shared<LaneQueue>("quorvel.main", pool_)) {
}

std::shared_ptr<DispatchQueue> PosixDispatcher::makeSerialQueue(std::string label) {
  return std::make_shared<LaneQueue>(std::move(label), pool_);
}

// A thread of its own, which also ends when idle: a lane waiting for the disk would hold one
// of the pool's two threads, and a burst's reports would reach the disk late.
std::shared_ptr<DispatchQueue> PosixDispatcher::makeDiskQueue(std::string label) {
  const std::string name = label.rfind("com.", 0) == 0 ? label.substr(4) : label;
  return std::make_shared<ThreadQueue>(std::move(label), 1, name, kPoolIdleTime);
}

}  // namespace quorvel::platform
