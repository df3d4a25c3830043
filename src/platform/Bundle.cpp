#include <quorvel/platform/Bundle.h>

#include "platform/posix/PosixServices.h"

namespace quorvel::platform {
namespace {

std::optional<Json> valueOf(const Json& info, std::string_view key) {
  if (!info.is_object())
    return std::nullopt;
  const auto it = info.find(std::string(key));
  if (it == info.end())
    return std::nullopt;
  return *it;
}

}  // namespace

std::optional<Json> Bundle::objectForInfoDictionaryKey(std::string_view key) const {
  // The platform's own bundle is read in place: every request asks it for several keys, and a
  // copy of the whole dictionary for each cost more than the rest of the lookup.
  if (const auto* fixed = dynamic_cast<const StaticBundle*>(this))
    return valueOf(fixed->info(), key);
  return valueOf(infoDictionary(), key);
}

}  // namespace quorvel::platform
