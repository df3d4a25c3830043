#include "platform/posix/LaneQueue.h"
#include "platform/posix/PosixServices.h"
#include "platform/posix/ThreadQueue.h"

namespace quorvel::platform {
namespace {
// A pool thread that found nothing to do for this long ends; the next item starts one.
constexpr std::chrono::milliseconds kPoolIdleTime{500};
}  // namespace

// Every queue the library makes is a lane on one pool of two threads, which is also the
// global queue: two threads between them under load, none when the library is idle.
PosixDispatcher::PosixDispatcher(std::shared_ptr<DispatchQueue> mainQueue)
    : pool_(std::make_shared<ThreadQueue>("com.quorvel.pool", 2, "quorvel.pool", kPoolIdleTime)),
      main_(mainQueue ? std::move(mainQueue) : std::make_shared<LaneQueue>("quorvel.main", pool_)) {
}

std::shared_ptr<DispatchQueue> PosixDispatcher::makeSerialQueue(std::string label) {
  return std::make_shared<LaneQueue>(std::move(label), pool_);
}

}  // namespace quorvel::platform
