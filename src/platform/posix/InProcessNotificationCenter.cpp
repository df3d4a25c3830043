#include <algorithm>

#include "platform/posix/PosixServices.h"

namespace quorvel::platform {

void InProcessNotificationCenter::addObserver(const void* observer, std::string name,
                                              NotificationHandler handler) {
  if (!handler)
    return;
  std::lock_guard lock(mutex_);
  entries_.push_back(
      Entry{observer, std::move(name), std::make_shared<NotificationHandler>(std::move(handler))});
}

void InProcessNotificationCenter::removeObserver(const void* observer, std::string_view name) {
  std::lock_guard lock(mutex_);
  std::erase_if(entries_, [&](const Entry& e) { return e.observer == observer && e.name == name; });
}

void InProcessNotificationCenter::post(const Notification& notification) {
  // Handlers run without the lock, so that they may add or remove observers.
  std::vector<std::shared_ptr<NotificationHandler>> handlers;
  {
    std::lock_guard lock(mutex_);
    for (const auto& e : entries_) {
      if (e.name == notification.name)
        handlers.push_back(e.handler);
    }
  }
  for (const auto& h : handlers) {
    try {
      (*h)(notification);
    } catch (...) {
    }
  }
}

}  // namespace quorvel::platform
