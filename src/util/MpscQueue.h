// A queue that many threads push to and one drains, where a push never waits for a lock:
// the host's threads hand their calls over through it while a library thread takes them.
//
// Its first part is a ring of slots allocated when the queue is made, so that a burst of
// pushes allocates nothing. The ring is zeroed memory (a slot whose stored number is zero is a
// fresh one), so a large ring costs the process memory only as far as its use reached. The
// consumer touches the slots a little ahead of the pushes, so that a lone push does not pay
// for the first touch of fresh memory (a page fault costs more than the push); only a burst
// that runs past that lead pays it, once per page, the first time it reaches that far.
// A push claims a slot by raising the ring's position with a compare-and-swap and marks it
// filled with the slot's sequence number.
// When the ring is full (the consumer is far behind), pushes go on into a linked list
// instead, one allocated node each, until the consumer has emptied that list: nothing is
// ever refused. Pushes racing the end of such an episode may be taken out of order.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>
#include <utility>

namespace quorvel {

template <typename T>
class MpscQueue {
 public:
  // `capacity` is rounded up to a power of two.
  explicit MpscQueue(std::size_t capacity = 1024)
      : size_(roundUp(capacity)),
        mask_(size_ - 1),
        slots_(allocateSlots(size_)),
        overflowTail_(std::make_unique<Node>()),
        overflowHead_(overflowTail_.get()) {
    touchAhead();
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
    Slot& slot = slots_[readPosition_ & mask_];
    return sequenceOf(slot, std::memory_order_seq_cst) != readPosition_ + 1 &&
           overflowTail_->next.load(std::memory_order_seq_cst) == nullptr;
  }

 private:
  // Zeroed memory is a valid slot: `stored` is its sequence number less its index in the
  // ring, and `value` holds a T only while the slot is filled.
  static constexpr std::size_t kLine = 64;
  struct Slot {
    std::size_t stored;
    alignas(T) std::byte value[sizeof(T)];
  };
  struct FreeSlots {
    void operator()(Slot* slots) const { std::free(slots); }
  };

  static std::unique_ptr<Slot[], FreeSlots> allocateSlots(std::size_t count) {
    // calloc hands large blocks over as fresh zero pages, which stay untouched until used.
    auto* slots = static_cast<Slot*>(std::calloc(count, sizeof(Slot)));
    if (slots == nullptr)
      throw std::bad_alloc();
    return std::unique_ptr<Slot[], FreeSlots>(slots);
  }

  std::size_t sequenceOf(Slot& slot, std::memory_order order) const {
    return std::atomic_ref<std::size_t>(slot.stored).load(order) + indexOf(slot);
  }
  void setSequence(Slot& slot, std::size_t sequence, std::memory_order order) const {
    std::atomic_ref<std::size_t>(slot.stored).store(sequence - indexOf(slot), order);
  }
  std::size_t indexOf(const Slot& slot) const {
    return static_cast<std::size_t>(&slot - slots_.get());
  }
  static T* valueOf(Slot& slot) { return std::launder(reinterpret_cast<T*>(slot.value)); }

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
      const std::size_t sequence = sequenceOf(slot, std::memory_order_acquire);
      const auto lag = static_cast<std::ptrdiff_t>(sequence - position);
      if (lag == 0) {
        if (writePosition_.compare_exchange_weak(position, position + 1,
                                                 std::memory_order_relaxed)) {
          ::new (static_cast<void*>(slot.value)) T(std::move(value));
          setSequence(slot, position + 1, std::memory_order_seq_cst);
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
    if (sequenceOf(slot, std::memory_order_seq_cst) != readPosition_ + 1)
      return std::nullopt;
    T* const filled = valueOf(slot);
    std::optional<T> value(std::move(*filled));
    filled->~T();
    setSequence(slot, readPosition_ + size_, std::memory_order_release);
    ++readPosition_;
    if (touchedUpTo_ < size_ && readPosition_ + kTouchLead > touchedUpTo_)
      touchAhead();
    return value;
  }

  // The consumer (or the constructor): brings the slots up to kTouchLead past the read
  // position into memory, one write per page. The write adds zero to the slot's number
  // atomically, so a push filling that slot meanwhile loses nothing.
  void touchAhead() {
    constexpr std::size_t kPage = 4096;
    constexpr std::size_t kSlotsPerPage = sizeof(Slot) >= kPage ? 1 : kPage / sizeof(Slot);
    const std::size_t target = std::min(size_, readPosition_ + kTouchLead);
    for (; touchedUpTo_ < target; touchedUpTo_ += kSlotsPerPage)
      std::atomic_ref<std::size_t>(slots_[touchedUpTo_].stored)
          .fetch_add(0, std::memory_order_relaxed);
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

  const std::size_t size_;
  const std::size_t mask_;
  const std::unique_ptr<Slot[], FreeSlots> slots_;
  // The pushes' line and the consumer's apart: a consumer that looks often would otherwise
  // take the line from a lone push each time, and a push would pay for fetching it back.
  alignas(kLine) std::atomic<std::size_t> writePosition_{0};
  std::atomic<bool> overflowing_{false};
  alignas(kLine) std::size_t readPosition_ = 0;  // the consumer's
  // Slots below this index were touched (the consumer's); the ring's size once all were.
  std::size_t touchedUpTo_ = 0;
  // How far ahead of the consumer the ring is kept in memory: a few hundred calls between
  // two of its turns.
  static constexpr std::size_t kTouchLead = 512;
  std::unique_ptr<Node> overflowTail_;  // the last node taken (or the first placeholder)
  std::atomic<Node*> overflowHead_;     // the newest node
};

}  // namespace quorvel
