#include "util/DateFormatter.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>

namespace quorvel {
namespace {

// "%0*ld" without printf, which costs more than the rest of a date: every report has some.
std::string padded(long value, int width) {
  std::array<char, 24> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
  const auto length = static_cast<int>(end - digits.data());
  if (value < 0 || width > 20) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%0*ld", width, value);
    return buf;
  }
  std::string out(static_cast<std::size_t>(std::max(width - length, 0)), '0');
  out.append(digits.data(), static_cast<std::size_t>(length));
  return out;
}

}  // namespace

QVDateFormatter::QVDateFormatter(std::string pattern,
                                 std::shared_ptr<const platform::Clock> timeZone,
                                 std::string localeIdentifier)
    : pattern_(std::move(pattern)),
      timeZone_(std::move(timeZone)),
      locale_(std::move(localeIdentifier)) {}

std::string QVDateFormatter::stringFromDate(platform::TimePoint date) const {
  const long offset = timeZone_ ? timeZone_->secondsFromGMT(date) : 0;
  const auto millisTotal =
      std::chrono::floor<std::chrono::milliseconds>(date).time_since_epoch().count();
  const auto secsTotal = static_cast<std::time_t>(
      (millisTotal >= 0 ? millisTotal / 1000 : (millisTotal - 999) / 1000) + offset);
  const long millis = static_cast<long>(((millisTotal % 1000) + 1000) % 1000);
  std::tm tm{};
  gmtime_r(&secsTotal, &tm);

  std::string out;
  std::size_t i = 0;
  while (i < pattern_.size()) {
    const char c = pattern_[i];
    if (c == '\'') {
      const std::size_t end = pattern_.find('\'', i + 1);
      if (end == i + 1) {
        out.push_back('\'');
      } else {
        out.append(pattern_, i + 1, (end == std::string::npos ? pattern_.size() : end) - i - 1);
      }
      i = end == std::string::npos ? pattern_.size() : end + 1;
      continue;
    }
    std::size_t run = 1;
    while (i + run < pattern_.size() && pattern_[i + run] == c) {
      ++run;
    }
    const int width = static_cast<int>(run);
    switch (c) {
      case 'y':
        out += run == 2 ? padded((tm.tm_year + 1900) % 100, 2) : padded(tm.tm_year + 1900, width);
        break;
      case 'M':
        out += padded(tm.tm_mon + 1, width);
        break;
      case 'd':
        out += padded(tm.tm_mday, width);
        break;
      case 'H':
        out += padded(tm.tm_hour, width);
        break;
      case 'm':
        out += padded(tm.tm_min, width);
        break;
      case 's':
        out += padded(tm.tm_sec, width);
        break;
      case 'S':
        out += padded(millis, 3).substr(0, run);
        break;
      case 'Z': {
        const long abs = offset < 0 ? -offset : offset;
        out += offset < 0 ? "-" : "+";
        out += padded(abs / 3600, 2) + padded((abs % 3600) / 60, 2);
        break;
      }
      default:
        out.append(run, c);
        break;
    }
    i += run;
  }
  return out;
}

}  // namespace quorvel
