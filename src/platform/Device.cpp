#include <quorvel/platform/Device.h>

#include <cstdlib>

#include "util/VersionCompare.h"

namespace quorvel::platform {

SystemCapabilities phoneCapabilitiesOf(const std::string& systemVersion) {
  SystemCapabilities c;
  c.backgroundTasks = compareNumeric(systemVersion, "7") >= 0;
  c.backgroundSessions = compareNumeric(systemVersion, "8") >= 0;
  c.fireAndForgetInBackgroundSession = systemVersion.rfind('9', 0) != 0;
  c.attributionPasteboard = std::strtod(systemVersion.c_str(), nullptr) < 7.0;
  return c;
}

}  // namespace quorvel::platform
