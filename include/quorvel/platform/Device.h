// Facts about the device and its operating system.
#pragma once

#include <optional>
#include <string>

namespace quorvel::platform {

class Device {
 public:
  Device() = default;
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;
  virtual ~Device() = default;

  virtual std::string name() const = 0;            // the user-visible device name
  virtual std::string model() const = 0;           // the model word ("iPhone", "PC")
  virtual std::string localizedModel() const = 0;  // the model word in the user's language
  virtual std::string systemName() const = 0;      // operating system name
  virtual std::string systemVersion() const = 0;   // operating system version ("17.2", "12")
  // Process-information version text ("Version 12 (Build 6.1.0-18-amd64)").
  virtual std::string operatingSystemVersionString() const = 0;
  virtual std::optional<std::string> identifierForVendor() const = 0;
  virtual bool isMultitaskingSupported() const = 0;
};

}  // namespace quorvel::platform
