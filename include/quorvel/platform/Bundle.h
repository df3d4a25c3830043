// The host application's bundle: identifier, info dictionary, store receipt.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <quorvel/Json.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

class Bundle {
 public:
  Bundle() = default;
  Bundle(const Bundle&) = delete;
  Bundle& operator=(const Bundle&) = delete;
  virtual ~Bundle() = default;

  virtual std::optional<std::string> bundleIdentifier() const = 0;
  // The info dictionary ("CFBundleVersion", "CFBundleShortVersionString", ...); an object.
  virtual Json infoDictionary() const = 0;
  // Path of the application's store receipt file, when the platform has one.
  virtual std::optional<std::string> appStoreReceiptPath() const = 0;

  std::optional<Json> objectForInfoDictionaryKey(std::string_view key) const;
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
