// A descriptor that a child made by fork() does not keep. The child handler closes it in the
// child at once: an flock'ed descriptor the child held would keep its parent's lock on the
// data directory alive for as long as the child lives, and the next start of the app would
// find the directory taken. Closing (never unlocking) drops only the child's reference: the
// parent keeps its lock, and it goes when the parent ends, whatever the child does.
// The object's copy in the child knows that its descriptor is gone: get() is -1 there and the
// destructor closes nothing, so a number the child reuses for a file of its own is left alone.
#pragma once

#include <cstdint>

namespace quorvel::platform {

class ParentOnlyDescriptor {
 public:
  ParentOnlyDescriptor() noexcept = default;
  // Takes `fd` (which should be O_CLOEXEC, so that an exec holds nothing either); -1 holds none.
  explicit ParentOnlyDescriptor(int fd) noexcept;
  ~ParentOnlyDescriptor() { reset(); }
  ParentOnlyDescriptor(ParentOnlyDescriptor&& other) noexcept;
  ParentOnlyDescriptor& operator=(ParentOnlyDescriptor&& other) noexcept;
  ParentOnlyDescriptor(const ParentOnlyDescriptor&) = delete;
  ParentOnlyDescriptor& operator=(const ParentOnlyDescriptor&) = delete;

  // The descriptor; -1 when none is held, or in a child whose fork closed it.
  int get() const noexcept;
  // True in a child whose fork closed the descriptor this object held.
  bool closedByFork() const noexcept;
  // Closes the descriptor, unless a fork closed it already.
  void reset() noexcept;

 private:
  int fd_ = -1;
  int slot_ = -1;  // -1: not registered (none held, or every slot in use)
  std::uint64_t token_ = 0;
};

}  // namespace quorvel::platform
