// A host's event call as the intake holds it until the outbox's turn takes it. The name and
// the value are copied inline when they fit, so that a usual call allocates nothing on the
// host's thread; longer ones, and a dictionary of values, go in an allocated spill. The texts
// are made valid UTF-8 when the turn takes the call, not on the host's thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <quorvel/Json.h>
#include <quorvel/platform/Clock.h>

#include "cache/Outbox.h"

namespace quorvel {

class IntakeCall {
 public:
  // An event with a value or none.
  IntakeCall(const std::string& name, const std::optional<std::string>& value,
             platform::TimePoint at);
  // An event with a dictionary of values, already made fit to be written.
  IntakeCall(const std::string& name, std::optional<Json> values, platform::TimePoint at);

  OutboxIntent::Kind kind() const noexcept { return kind_; }
  platform::TimePoint at() const noexcept { return at_; }
  // The call as the outbox takes it.
  OutboxIntent intent() const;

 private:
  // With the time, the spill and the sizes, a call fills 128 bytes of the intake's ring.
  static constexpr std::size_t kInline = 96;
  struct Spill {
    std::string name;
    std::optional<std::string> value;
    std::optional<Json> values;
  };

  platform::TimePoint at_;
  std::unique_ptr<Spill> spill_;
  OutboxIntent::Kind kind_;
  bool hasValue_ = false;
  std::uint8_t nameSize_ = 0;
  std::uint8_t valueSize_ = 0;
  char text_[kInline]{};  // the name, then the value
};

}  // namespace quorvel
