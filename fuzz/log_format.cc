// Any format text with any arguments: the formatter and the log line never crash, whatever
// the directives ask for (missing arguments, wrong types, widths, stray bytes).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include <quorvel/Format.h>

#include "log/Log.h"
#include "support/TestPlatform.h"
#include "util/BoundedJson.h"

namespace {

quorvel::test::TestPlatform& fakes() {
  static quorvel::test::TestPlatform platform;
  static const bool installed = [] {
    platform.install();
    platform.logSwitches->setDebug(true);
    return true;
  }();
  (void)installed;
  return platform;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvel;
  auto& platform = fakes();
  const std::string input(reinterpret_cast<const char*>(data), size);
  // Format text, then the argument bytes, split at the first NUL.
  const auto split = input.find('\0');
  const std::string fmt = input.substr(0, split);
  const std::string rest = split == std::string::npos ? std::string() : input.substr(split + 1);
  std::int64_t integer = 0;
  std::memcpy(&integer, rest.data(), std::min(rest.size(), sizeof integer));
  double real = 0;
  std::memcpy(&real, rest.data(), std::min(rest.size(), sizeof real));
  const Json json = parseBoundedJson(rest);
  (void)format(fmt, rest, integer, real, json, std::optional<std::string>(), true);
  (void)format(fmt);
  static const auto log = platform.log();
  log->log(kLogDebug, "-[Fuzz log]", fmt, rest, json, integer);
  platform.systemLog->clear();
  return 0;
}
