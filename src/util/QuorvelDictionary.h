// The request parameters under construction: a missing value is stored as "".
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <quorvel/Json.h>

namespace quorvel {

class QuorvelDictionary {
 public:
  QuorvelDictionary();

  // Stores `value` under `key`, or "" when the value is missing (nullopt or null). A key
  // already present keeps its place and takes the new value.
  void setParameter(std::optional<Json> value, std::string_view key);

  Json& dict() noexcept { return dict_; }
  const Json& dict() const noexcept { return dict_; }

 private:
  Json dict_ = Json::object();
};

}  // namespace quorvel
