// Storage for process-wide objects that are never destroyed, so that no thread can touch a
// destroyed singleton during exit.
#pragma once

#include <new>
#include <utility>

namespace quorvel {

template <typename T>
class NoDestructor {
 public:
  template <typename... Args>
  explicit NoDestructor(Args&&... args) {
    new (storage_) T(std::forward<Args>(args)...);
  }
  NoDestructor(const NoDestructor&) = delete;
  NoDestructor& operator=(const NoDestructor&) = delete;
  ~NoDestructor() = default;

  T& get() noexcept { return *std::launder(reinterpret_cast<T*>(storage_)); }
  T* operator->() noexcept { return &get(); }
  T& operator*() noexcept { return get(); }

 private:
  alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace quorvel
