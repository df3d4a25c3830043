#include "tracker/IntakeCall.h"

#include <cstring>

#include "util/HostInput.h"

namespace quorvel {

[[gnu::hot]] IntakeCall::IntakeCall(const std::string& name,
                                    const std::optional<std::string>& value, platform::TimePoint at)
    : at_(at), kind_(OutboxIntent::Kind::event), hasValue_(value.has_value()) {
  const std::size_t valueSize = value ? value->size() : 0;
  if (name.size() + valueSize > kInline) {
    spill_ = std::make_unique<Spill>(Spill{name, value, std::nullopt});
    return;
  }
  nameSize_ = static_cast<std::uint8_t>(name.size());
  valueSize_ = static_cast<std::uint8_t>(valueSize);
  std::memcpy(text_, name.data(), name.size());
  if (valueSize > 0)
    std::memcpy(text_ + name.size(), value->data(), valueSize);
}

IntakeCall::IntakeCall(const std::string& name, std::optional<Json> values, platform::TimePoint at)
    : at_(at),
      spill_(std::make_unique<Spill>(Spill{name, std::nullopt, std::move(values)})),
      kind_(OutboxIntent::Kind::eventWithValues) {}

OutboxIntent IntakeCall::intent() const {
  if (spill_)
    return {kind_, hostText(spill_->name), hostText(spill_->value), spill_->values};
  std::optional<std::string> value;
  if (hasValue_)
    value = hostText(std::string(text_ + nameSize_, valueSize_));
  return {kind_, hostText(std::string(text_, nameSize_)), std::move(value), std::nullopt};
}

}  // namespace quorvel
