// A date formatter with a fixed pattern, locale "en_US" and the device's time zone.
#pragma once

#include <memory>
#include <string>

#include <quorvel/platform/Clock.h>

namespace quorvel {

// Supports the pattern letters the library uses (yyyy MM dd HH mm ss SSS Z) and quoted
// literals; any other character is copied as it stands.
class QVDateFormatter {
 public:
  QVDateFormatter(std::string pattern, std::shared_ptr<const platform::Clock> timeZone,
                  std::string localeIdentifier = "en_US");

  const std::string& dateFormat() const noexcept { return pattern_; }
  const std::string& localeIdentifier() const noexcept { return locale_; }
  std::string stringFromDate(platform::TimePoint date) const;

 private:
  std::string pattern_;
  std::shared_ptr<const platform::Clock> timeZone_;
  std::string locale_;
};

}  // namespace quorvel
