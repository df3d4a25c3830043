#include "util/HostInput.h"

#include "util/BoundedJson.h"
#include "util/Utf8.h"

namespace quorvel {
namespace {

std::string validCopy(const std::string& text) {
  return isValidUtf8(text) ? text : toValidUtf8(text);
}

// Recursion is bounded: the caller has checked the depth.
Json cleanCopy(const Json& value) {
  if (value.is_string())
    return validCopy(value.get_ref<const std::string&>());
  if (value.is_object()) {
    Json out = Json::object();
    for (const auto& [key, child] : value.items())
      out[validCopy(key)] = cleanCopy(child);
    return out;
  }
  if (value.is_array()) {
    Json out = Json::array();
    for (const auto& child : value)
      out.push_back(cleanCopy(child));
    return out;
  }
  return value;
}

}  // namespace

[[gnu::hot]] std::string hostText(const std::string& text) {
  return isValidUtf8(text) ? text : toValidUtf8(text);
}

[[gnu::hot]] std::optional<std::string> hostText(const std::optional<std::string>& text) {
  if (!text)
    return std::nullopt;
  return hostText(*text);
}

Json hostJson(const Json& value) {
  if (jsonDeeperThan(value))
    return discardedJson();
  return cleanCopy(value);
}

std::optional<Json> hostJson(const std::optional<Json>& value) {
  if (!value)
    return std::nullopt;
  return hostJson(*value);
}

}  // namespace quorvel
