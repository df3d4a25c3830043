// Facts about the device and its operating system.
#pragma once

#include <optional>
#include <string>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

// What the system lets an app do around the foreground. Phone systems gained these one
// version at a time, so the default reads them from a phone version number; a platform
// whose version numbers mean something else says what it has instead.
struct SystemCapabilities {
  bool backgroundTasks = true;     // work may finish after the app leaves the foreground
  bool backgroundSessions = true;  // transfers handed to the system outlive the app
  // False where fire-and-forget bodies go through a background task on the shared session
  // rather than through a background session (a phone system whose sessions lost them).
  bool fireAndForgetInBackgroundSession = true;
  bool attributionPasteboard = false;  // the named attribution pasteboard of older phones

  bool operator==(const SystemCapabilities&) const = default;
};

// The capabilities of a phone system by its version: background tasks from 7, background
// sessions from 8, except on 9; the attribution pasteboard below 7.0.
SystemCapabilities phoneCapabilitiesOf(const std::string& systemVersion);

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
  virtual SystemCapabilities capabilities() const { return phoneCapabilitiesOf(systemVersion()); }
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
