// A queue that many threads push to and one drains, where a push never waits for a lock:
// the host's threads hand their calls over through it while a library thread takes them.
//
// A linked list of nodes with a placeholder at its tail: a push allocates its node and swaps
// it in as the new head with one atomic exchange, then links it behind the previous head.
// Between those two steps the node is not yet visible to the consumer; the pusher finishes
// the link right away, so the consumer at worst sees it at its next look.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <utility>

namespace quorvel {

template <typename T>
class MpscQueue {
 public:
  MpscQueue() : tail_(std::make_unique<Node>()), head_(tail_.get()) {}
  ~MpscQueue() {
    while (pop()) {
    }
  }
  MpscQueue(const MpscQueue&) = delete;
  MpscQueue& operator=(const MpscQueue&) = delete;

  // Any thread.
  void push(T value) {
    auto node = std::make_unique<Node>();
    node->value.emplace(std::move(value));
    // From here on the list owns the node: the consumer frees it once it was taken.
    Node* const added = node.release();
    Node* const previous = head_.exchange(added, std::memory_order_seq_cst);
    previous->next.store(added, std::memory_order_seq_cst);
  }

  // The consumer only. Empty when nothing was pushed, or when a push has not linked its node
  // yet: it shows at the next call.
  std::optional<T> pop() {
    Node* const next = tail_->next.load(std::memory_order_seq_cst);
    if (next == nullptr)
      return std::nullopt;
    std::optional<T> value = std::move(next->value);
    next->value.reset();
    tail_.reset(next);  // the taken node becomes the new placeholder
    return value;
  }

  // The consumer only.
  bool empty() const { return tail_->next.load(std::memory_order_seq_cst) == nullptr; }

 private:
  struct Node {
    std::atomic<Node*> next{nullptr};
    std::optional<T> value;
  };
  std::unique_ptr<Node> tail_;  // the placeholder: the last node taken (or the first one)
  std::atomic<Node*> head_;     // the newest node
};

}  // namespace quorvel
