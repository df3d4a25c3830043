#include <quorvel/platform/PreferencesStore.h>

#include <cmath>
#include <cstdlib>

namespace quorvel::platform {
namespace {
constexpr const char* kDateTag = "$date";

std::optional<double> leadingNumber(const std::string& text) {
  const char* begin = text.c_str();
  char* end = nullptr;
  const double v = std::strtod(begin, &end);
  if (end == begin || !std::isfinite(v))
    return std::nullopt;
  return v;
}
}  // namespace

Json PreferencesStore::dateValue(TimePoint value) {
  return Json{{kDateTag, secondsSince1970(value)}};
}

std::optional<TimePoint> PreferencesStore::asDate(const Json& value) {
  if (!value.is_object() || value.size() != 1 || !value.contains(kDateTag) ||
      !value[kDateTag].is_number()) {
    return std::nullopt;
  }
  const double seconds = value[kDateTag].get<double>();
  if (!std::isfinite(seconds) || std::fabs(seconds) > 1e15)
    return std::nullopt;
  // Stored as double seconds: round to the microsecond that was written.
  return TimePoint(std::chrono::duration_cast<TimePoint::duration>(
      std::chrono::round<std::chrono::microseconds>(std::chrono::duration<double>(seconds))));
}

std::optional<std::string> PreferencesStore::stringForKey(std::string_view key) const {
  const auto v = objectForKey(key);
  if (!v)
    return std::nullopt;
  if (v->is_string())
    return v->get<std::string>();
  if (v->is_number_integer())
    return std::to_string(v->get<std::int64_t>());
  if (v->is_number_unsigned())
    return std::to_string(v->get<std::uint64_t>());
  if (v->is_number_float())
    return v->dump();
  if (v->is_boolean())
    return std::string(v->get<bool>() ? "1" : "0");
  return std::nullopt;
}

std::int64_t PreferencesStore::integerForKey(std::string_view key) const {
  const auto v = objectForKey(key);
  if (!v)
    return 0;
  if (v->is_boolean())
    return v->get<bool>() ? 1 : 0;
  if (v->is_number_integer())
    return v->get<std::int64_t>();
  if (v->is_number()) {
    const double d = v->get<double>();
    return (std::isfinite(d) && std::fabs(d) < 9.2e18) ? static_cast<std::int64_t>(d) : 0;
  }
  if (v->is_string()) {
    const auto d = leadingNumber(v->get<std::string>());
    return (d && std::fabs(*d) < 9.2e18) ? static_cast<std::int64_t>(*d) : 0;
  }
  return 0;
}

double PreferencesStore::doubleForKey(std::string_view key) const {
  const auto v = objectForKey(key);
  if (!v)
    return 0;
  if (v->is_boolean())
    return v->get<bool>() ? 1 : 0;
  if (v->is_number())
    return v->get<double>();
  if (v->is_string())
    return leadingNumber(v->get<std::string>()).value_or(0.0);
  return 0;
}

bool PreferencesStore::boolForKey(std::string_view key) const {
  return integerForKey(key) != 0;
}

std::optional<TimePoint> PreferencesStore::dateForKey(std::string_view key) const {
  const auto v = objectForKey(key);
  return v ? asDate(*v) : std::nullopt;
}

}  // namespace quorvel::platform
