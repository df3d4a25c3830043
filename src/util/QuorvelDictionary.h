// The request parameters under construction: a missing value is stored as "".
#pragma once

#include <optional>
#include <string>

#include <quorvel/Json.h>

namespace quorvel {

class QuorvelDictionary {
 public:
  QuorvelDictionary() = default;

  // Stores `value` under `key`, or "" when the value is missing (nullopt or null).
  void setParameter(const std::optional<Json>& value, const std::string& key);

  Json& dict() noexcept { return dict_; }
  const Json& dict() const noexcept { return dict_; }

 private:
  Json dict_ = Json::object();
};

}  // namespace quorvel
