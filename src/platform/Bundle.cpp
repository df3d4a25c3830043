#include <quorvel/platform/Bundle.h>

namespace quorvel::platform {

std::optional<Json> Bundle::objectForInfoDictionaryKey(std::string_view key) const {
  const Json info = infoDictionary();
  if (!info.is_object())
    return std::nullopt;
  const auto it = info.find(std::string(key));
  if (it == info.end())
    return std::nullopt;
  return *it;
}

}  // namespace quorvel::platform
