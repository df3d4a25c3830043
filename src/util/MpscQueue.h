// A queue that many threads push to and one drains, where a push never waits for a lock:
// the host's threads hand their calls over through it while a library thread takes them.
//
// Its first part is a ring of slots made (and their memory touched) when the queue is made,
// so that a burst of pushes allocates nothing: under a burst, the first touch of fresh memory
// costs a push more than all the rest of it. A push claims a slot by raising the ring's
// position with a compare-and-swap and marks it filled with the slot's sequence number.
// When the ring is full (the consumer is far behind), pushes go on into a linked list
// instead, one allocated node each, until the consumer has emptied that list: nothing is
// ever refused. Pushes racing the end of such an episode may be taken out of order.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace quorvel {

template <typename T>
class MpscQueue {
 public:
  // `capacity` is rounded up to a power of two.
  explicit MpscQueue(std::size_t capacity = 1024)
      : slots_(roundUp(capacity)),
        mask_(slots_.size() - 1),
        overflowTail_(std::make_unique<Node>()),
        overflowHead_(overflowTail_.get()) {
    for (std::size_t i = 0; i < slots_.size(); ++i)
      slots_[i].sequence.store(i, std::memory_order_relaxed);
  }
  ~MpscQueue() {
    while (pop()) {
    }
  }
  MpscQueue(const MpscQueue&) = delete;
  MpscQueue& operator=(const MpscQueue&) = delete;

  // Any thread.
  void push(T value) {
    if (!overflowing_.load(std::memory_order_seq_cst) && pushToRing(value))
      return;
    overflowing_.store(true, std::memory_order_seq_cst);
    pushToOverflow(std::move(value));
  }

  // The consumer only. Empty when nothing was pushed, or when a push has not finished yet:
  // it shows at the next call.
  std::optional<T> pop() {
    if (auto value = popFromRing())
      return value;
    if (auto value = popFromOverflow())
      return value;
    if (overflowing_.load(std::memory_order_seq_cst)) {
      overflowing_.store(false, std::memory_order_seq_cst);
      // A push that saw the flag still set may have landed in the list meanwhile.
      return popFromOverflow();
    }
    return std::nullopt;
  }

  // The consumer only.
  bool empty() const {
    const Slot& slot = slots_[readPosition_ & mask_];
    return slot.sequence.load(std::memory_order_seq_cst) != readPosition_ + 1 &&
           overflowTail_->next.load(std::memory_order_seq_cst) == nullptr;
  }

 private:
  struct Slot {
    std::atomic<std::size_t> sequence{0};
    std::optional<T> value;
  };
  struct Node {
    std::atomic<Node*> next{nullptr};
    std::optional<T> value;
  };

  static std::size_t roundUp(std::size_t n) {
    std::size_t size = 2;
    while (size < n)
      size *= 2;
    return size;
  }

  // Leaves `value` alone when the ring is full.
  bool pushToRing(T& value) {
    std::size_t position = writePosition_.load(std::memory_order_relaxed);
    for (;;) {
      Slot& slot = slots_[position & mask_];
      const std::size_t sequence = slot.sequence.load(std::memory_order_acquire);
      const auto lag = static_cast<std::ptrdiff_t>(sequence - position);
      if (lag == 0) {
        if (writePosition_.compare_exchange_weak(position, position + 1,
                                                 std::memory_order_relaxed)) {
          slot.value.emplace(std::move(value));
          slot.sequence.store(position + 1, std::memory_order_seq_cst);
          return true;
        }
      } else if (lag < 0) {
        return false;  // the slot a full turn ago is not taken yet: full
      } else {
        position = writePosition_.load(std::memory_order_relaxed);
      }
    }
  }

  std::optional<T> popFromRing() {
    Slot& slot = slots_[readPosition_ & mask_];
    if (slot.sequence.load(std::memory_order_seq_cst) != readPosition_ + 1)
      return std::nullopt;
    std::optional<T> value = std::move(slot.value);
    slot.value.reset();
    slot.sequence.store(readPosition_ + slots_.size(), std::memory_order_release);
    ++readPosition_;
    return value;
  }

  void pushToOverflow(T value) {
    auto node = std::make_unique<Node>();
    node->value.emplace(std::move(value));
    // From here on the list owns the node: the consumer frees it once it was taken.
    Node* const added = node.release();
    Node* const previous = overflowHead_.exchange(added, std::memory_order_seq_cst);
    previous->next.store(added, std::memory_order_seq_cst);
  }

  std::optional<T> popFromOverflow() {
    Node* const next = overflowTail_->next.load(std::memory_order_seq_cst);
    if (next == nullptr)
      return std::nullopt;
    std::optional<T> value = std::move(next->value);
    next->value.reset();
    overflowTail_.reset(next);  // the taken node becomes the list's placeholder
    return value;
  }

  std::vector<Slot> slots_;
  const std::size_t mask_;
  std::atomic<std::size_t> writePosition_{0};
  std::size_t readPosition_ = 0;  // the consumer's
  std::atomic<bool> overflowing_{false};
  std::unique_ptr<Node> overflowTail_;  // the last node taken (or the first placeholder)
  std::atomic<Node*> overflowHead_;     // the newest node
};

}  // namespace quorvel
