// Reads a Retry-After header: a service that is overloaded says when to come back.
#include "net/RetryAfter.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>

namespace quorvel {
namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

// An IMF-fixdate ("Sun, 06 Nov 1994 08:49:37 GMT"), the form services send.
std::optional<std::chrono::sys_seconds> parseHttpDate(std::string_view value) {
  static constexpr std::array<std::string_view, 12> kMonths = {
      "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const std::string text(value);
  char weekday[4] = {};
  char month[4] = {};
  int day = 0, year = 0, hour = 0, minute = 0, second = 0;
  if (std::sscanf(text.c_str(), "%3s, %d %3s %d %d:%d:%d GMT", weekday, &day, month, &year, &hour,
                  &minute, &second) != 7)
    return std::nullopt;
  const auto it = std::find(kMonths.begin(), kMonths.end(), std::string_view(month));
  if (it == kMonths.end() || hour > 23 || minute > 59 || second > 60)
    return std::nullopt;
  const std::chrono::year_month_day date{
      std::chrono::year(year), std::chrono::month(static_cast<unsigned>(it - kMonths.begin()) + 1),
      std::chrono::day(static_cast<unsigned>(std::clamp(day, 0, 99)))};
  if (!date.ok())
    return std::nullopt;
  return std::chrono::sys_days(date) + std::chrono::hours(hour) + std::chrono::minutes(minute) +
         std::chrono::seconds(second);
}

}  // namespace

std::optional<std::chrono::seconds> parseRetryAfter(std::string_view value,
                                                    platform::TimePoint now) {
  while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
    value.remove_prefix(1);
  while (!value.empty() && (value.back() == ' ' || value.back() == '\t'))
    value.remove_suffix(1);
  if (value.empty())
    return std::nullopt;
  if (std::isdigit(static_cast<unsigned char>(value.front()))) {
    long long seconds = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), seconds);
    if (error == std::errc::result_out_of_range)
      return std::chrono::seconds(std::numeric_limits<std::int32_t>::max());
    if (error != std::errc() || end != value.data() + value.size())
      return std::nullopt;
    return std::chrono::seconds(seconds);
  }
  const auto date = parseHttpDate(value);
  if (!date)
    return std::nullopt;
  const auto wait = std::chrono::duration_cast<std::chrono::seconds>(*date - now);
  return std::max(wait, std::chrono::seconds::zero());
}

std::chrono::seconds retryAfterOf(const std::optional<platform::URLResponse>& response,
                                  platform::TimePoint now) {
  if (!response)
    return std::chrono::seconds::zero();
  for (const auto& [name, value] : response->headers) {
    if (equalsIgnoringCase(name, "Retry-After"))
      return parseRetryAfter(value, now).value_or(std::chrono::seconds::zero());
  }
  return std::chrono::seconds::zero();
}

}  // namespace quorvel
