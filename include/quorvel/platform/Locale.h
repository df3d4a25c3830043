// The user's locale and language preferences.
#pragma once

#include <optional>
#include <string>
#include <vector>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

class Locale {
 public:
  Locale() = default;
  Locale(const Locale&) = delete;
  Locale& operator=(const Locale&) = delete;
  virtual ~Locale() = default;

  virtual std::string localeIdentifier() const = 0;             // "en_US"
  virtual std::optional<std::string> languageCode() const = 0;  // "en"
  virtual std::optional<std::string> countryCode() const = 0;   // "US"
  // The user's preferred languages, most preferred first ("en-US").
  virtual std::vector<std::string> preferredLanguages() const = 0;
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
