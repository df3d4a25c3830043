#include "Faults.h"

#include <algorithm>

namespace quorvel::devserver {

namespace {

template <typename Map>
auto lookup(const Map& map, const std::string& service)
    -> std::optional<typename Map::mapped_type> {
  if (const auto it = map.find(service); it != map.end())
    return it->second;
  if (const auto it = map.find(Faults::kEveryService); it != map.end())
    return it->second;
  return std::nullopt;
}

}  // namespace

void Faults::changed() {
  ++generation_;
  changed_.notify_all();
}

void Faults::goOffline(std::optional<std::chrono::milliseconds> period) {
  const std::lock_guard lock(mutex_);
  offline_ = true;
  offlineUntil_.reset();
  if (period)
    offlineUntil_ = Clock::now() + *period;
  changed();
}

void Faults::goOnline() {
  const std::lock_guard lock(mutex_);
  offline_ = false;
  offlineUntil_.reset();
  changed();
}

bool Faults::online(Clock::time_point now) const {
  const std::lock_guard lock(mutex_);
  return !offline_ || (offlineUntil_ && now >= *offlineUntil_);
}

void Faults::failService(const std::string& service, int status,
                         std::optional<int> retryAfterSeconds) {
  const std::lock_guard lock(mutex_);
  retryAfters_.erase(service);
  if (status == 0)
    statuses_.erase(service);
  else
    statuses_[service] = status;
  if (status != 0 && retryAfterSeconds)
    retryAfters_[service] = std::max(0, *retryAfterSeconds);
  changed();
}

void Faults::delayService(const std::string& service, std::chrono::milliseconds delay) {
  const std::lock_guard lock(mutex_);
  if (delay.count() <= 0)
    delays_.erase(service);
  else
    delays_[service] = std::min(delay, kMaxDelay);
  changed();
}

void Faults::clear() {
  const std::lock_guard lock(mutex_);
  offline_ = false;
  offlineUntil_.reset();
  statuses_.clear();
  retryAfters_.clear();
  delays_.clear();
  changed();
}

std::optional<int> Faults::statusFor(const std::string& service) const {
  const std::lock_guard lock(mutex_);
  return lookup(statuses_, service);
}

std::optional<int> Faults::retryAfterFor(const std::string& service) const {
  const std::lock_guard lock(mutex_);
  return lookup(retryAfters_, service);
}

std::chrono::milliseconds Faults::delayFor(const std::string& service) const {
  const std::lock_guard lock(mutex_);
  return lookup(delays_, service).value_or(std::chrono::milliseconds(0));
}

nlohmann::ordered_json Faults::describe(Clock::time_point now) const {
  const std::lock_guard lock(mutex_);
  nlohmann::ordered_json out;
  const bool isOnline = !offline_ || (offlineUntil_ && now >= *offlineUntil_);
  out["online"] = isOnline;
  if (!isOnline && offlineUntil_) {
    out["offline_for_ms"] =
        std::chrono::duration_cast<std::chrono::milliseconds>(*offlineUntil_ - now).count();
  }
  out["statuses"] = nlohmann::ordered_json::object();
  for (const auto& [service, status] : statuses_)
    out["statuses"][service] = status;
  if (!retryAfters_.empty()) {
    out["retry_after_s"] = nlohmann::ordered_json::object();
    for (const auto& [service, seconds] : retryAfters_)
      out["retry_after_s"][service] = seconds;
  }
  out["delays_ms"] = nlohmann::ordered_json::object();
  for (const auto& [service, delay] : delays_)
    out["delays_ms"][service] = delay.count();
  return out;
}

void Faults::waitForChange(Clock::time_point deadline) const {
  std::unique_lock lock(mutex_);
  if (offline_ && offlineUntil_)
    deadline = std::min(deadline, *offlineUntil_);
  const std::uint64_t seen = generation_;
  changed_.wait_until(lock, deadline, [&] { return generation_ != seen; });
}

}  // namespace quorvel::devserver
