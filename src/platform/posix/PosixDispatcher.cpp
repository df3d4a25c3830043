#include "platform/posix/PosixServices.h"
#include "platform/posix/ThreadQueue.h"

namespace quorvel::platform {
namespace {
// "com.quorvel.serial" runs on a thread named "quorvel.serial".
std::string threadLabel(const std::string& label) {
  return label.rfind("com.", 0) == 0 ? label.substr(4) : label;
}
}  // namespace

PosixDispatcher::PosixDispatcher(std::shared_ptr<DispatchQueue> mainQueue)
    : main_(mainQueue ? std::move(mainQueue) : std::make_shared<ThreadQueue>("quorvel.main", 1)),
      global_(std::make_shared<ThreadQueue>("quorvel.global", 2)) {}

std::shared_ptr<DispatchQueue> PosixDispatcher::makeSerialQueue(std::string label) {
  const std::string name = threadLabel(label);
  return std::make_shared<ThreadQueue>(std::move(label), 1, name);
}

}  // namespace quorvel::platform
