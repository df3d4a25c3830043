#include "platform/posix/PosixServices.h"

namespace quorvel::platform {

void InMemoryClassRegistry::registerClass(std::string name,
                                          std::shared_ptr<RegisteredClass> entry) {
  std::lock_guard lock(mutex_);
  classes_[std::move(name)] = std::move(entry);
}

void InMemoryClassRegistry::unregisterClass(std::string_view name) {
  std::lock_guard lock(mutex_);
  if (const auto it = classes_.find(name); it != classes_.end())
    classes_.erase(it);
}

std::shared_ptr<RegisteredClass> InMemoryClassRegistry::classNamed(std::string_view name) const {
  std::lock_guard lock(mutex_);
  const auto it = classes_.find(name);
  return it == classes_.end() ? nullptr : it->second;
}

}  // namespace quorvel::platform
