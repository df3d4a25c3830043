// QVSystemInfo: hardware and operating-system facts as the service wants them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <quorvel/Json.h>
#include <quorvel/Platform.h>

namespace quorvel {

class QVSystemInfo {
 public:
  QVSystemInfo() = delete;

  // {"osVersion", "device_model", "ram_size", "cpu_type", "cpu_speed", "cpu_count",
  //  "cpu_64bits"}, every value a string. Gathered once per platform (its sysctl and device):
  // what a platform's services answer later is not asked again.
  static Json getSystemInfo(const Platform& platform);

  static std::string osVersion(const platform::Device& device);
  static std::optional<std::string> machineModel(const platform::Sysctl& sysctl);
  static std::int64_t ramSize(const platform::Sysctl& sysctl);
  static std::optional<std::string> cpuType(const platform::Sysctl& sysctl);
  static std::int64_t cpuSpeed(const platform::Sysctl& sysctl);
  static std::int32_t cpuCount(const platform::Sysctl& sysctl);
  static bool is64bit(const platform::Sysctl& sysctl);
  static std::optional<std::string> architecture(const platform::Sysctl& sysctl);
  // The first preferred language.
  static std::optional<std::string> language(const platform::Locale& locale);
};

}  // namespace quorvel
