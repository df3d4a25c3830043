// The context that work carries from the call that scheduled it to the work itself, across
// queues and completions: a thread-local value that a Scope sets while the work runs. The
// layers above give it its meaning (the report a request belongs to); below them it is only
// passed along.
#pragma once

#include <memory>

namespace quorvel {

using WorkContext = std::shared_ptr<void>;

// The context of the work running on this thread, or nullptr.
WorkContext currentWorkContext();

// Makes `context` this thread's current one for the scope's lifetime.
class WorkContextScope {
 public:
  explicit WorkContextScope(WorkContext context);
  ~WorkContextScope();
  WorkContextScope(const WorkContextScope&) = delete;
  WorkContextScope& operator=(const WorkContextScope&) = delete;

 private:
  WorkContext previous_;
};

// Wraps work so that it runs in `context`.
template <typename Work>
auto withWorkContext(WorkContext context, Work work) {
  return [context = std::move(context), work = std::move(work)]() mutable {
    const WorkContextScope scope(context);
    work();
  };
}

// Wraps work so that it runs in the context current where it was scheduled.
template <typename Work>
auto inCurrentWorkContext(Work work) {
  return withWorkContext(currentWorkContext(), std::move(work));
}

}  // namespace quorvel
