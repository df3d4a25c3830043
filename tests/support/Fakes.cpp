#include "support/Fakes.h"

#include <algorithm>

namespace quorvel::test {

// --- FakeSysctl -------------------------------------------------------------------------------

std::optional<Bytes> FakeSysctl::byName(std::string_view name) const {
  const auto it = byNameAnswers.find(name);
  if (it == byNameAnswers.end())
    return std::nullopt;
  return it->second;
}

std::optional<Bytes> FakeSysctl::byMib(const std::vector<int>& mib) const {
  const auto it = byMibAnswers.find(mib);
  if (it == byMibAnswers.end())
    return std::nullopt;
  return it->second;
}

// --- ScriptedRandom ---------------------------------------------------------------------------

int ScriptedRandom::fill(Bytes& out) noexcept {
  std::lock_guard lock(mutex_);
  if (failWithError != 0)
    return failWithError;
  for (auto& b : out)
    b = next_++;
  return 0;
}

std::uint32_t ScriptedRandom::uniform(std::uint32_t upperBound) noexcept {
  std::lock_guard lock(mutex_);
  if (upperBound == 0)
    return 0;
  if (uniformValues.empty())
    return 0;
  const std::uint32_t v = uniformValues.front();
  uniformValues.pop_front();
  return v % upperBound;
}

}  // namespace quorvel::test
